// `bix-ipc decode` and `bix-ipc encode`: encoded messages to their text or XML form and
// back, through the library's own receive, print, to_xml and from_xml.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bixipc {

// Decodes every message in [data, data + size), back to back, and appends the text form
// of each (its XML form with `xml`). On the first message that does not decode returns
// false with *error set to one line naming its offset.
bool decode(const uint8_t *data, size_t size, bool xml, std::string &out, std::string *error);

// Builds the one message the XML document describes (its root element, or the element
// inside a recorder's bix_ipc_shim element) and appends its encoding to out.
bool encode(const std::string &xml, std::vector<uint8_t> &out, std::string *error);

}  // namespace bixipc
