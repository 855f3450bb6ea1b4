// Reading one section out of an ELF64 little-endian file, and parsing the
// type manifest section the library carries.
//
// Every offset and size read from the file is checked against the bytes
// actually present before it is used, so a truncated or hostile file yields
// an error text, never a read outside the buffer.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace bixipc {

// The bytes of section `name` in the ELF image `image`; an SHT_NOBITS
// section yields an empty vector. With several sections of that name the
// first wins. On failure returns nullopt and, if `error` is non-null, sets it
// to a one-line reason.
std::optional<std::vector<uint8_t>> find_elf_section(std::span<const uint8_t> image,
                                                     const std::string &name, std::string *error);

// The contents of the regular file at `path` (a FIFO, device or directory is refused
// before anything is read, so a mistaken argument cannot hang the tool). Errors are
// prefixed "<path>: ".
std::optional<std::vector<uint8_t>> read_regular_file(const std::string &path, std::string *error);

// As find_elf_section, on the file at `path`. Errors are prefixed "<path>: ".
std::optional<std::vector<uint8_t>> read_elf_section(const std::string &path,
                                                     const std::string &name, std::string *error);

// Record kinds of the manifest section.
inline constexpr uint32_t kManifestKindBuildInfo = 1;
inline constexpr uint32_t kManifestKindTypes = 2;

struct ManifestRecord {
  uint32_t kind;
  std::string text;  // without its NUL

  bool operator==(const ManifestRecord &) const = default;
};

// Parses a manifest section: records of u32 text length (NUL included),
// u32 kind, the text and its NUL, zero padding to a multiple of 4; integers
// little-endian. Zero bytes after the last record (alignment fill) are
// accepted. Rejects a truncated record, a length of 0 or beyond the section,
// a text without its NUL or with one inside it, and non-zero padding.
std::optional<std::vector<ManifestRecord>> parse_manifest(const std::vector<uint8_t> &section,
                                                          std::string *error);

}  // namespace bixipc
