// `bix-ipc annotate`: a hex dump of encoded messages with every byte labelled, walked
// over the schema's layout facts. It reads the bytes exactly as the library's decoders
// do (state bytes, variant jumps, union selection) but decodes nothing into instances,
// so it can show a message the library would refuse, up to the first byte that is
// missing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bixipc {

// Appends the annotated dump of every message in [data, data + size) to out. On a
// malformed or truncated message returns false with *error set to one line naming the
// offset; out then holds the dump up to that point.
bool annotate(const uint8_t *data, size_t size, std::string &out, std::string *error);

}  // namespace bixipc
