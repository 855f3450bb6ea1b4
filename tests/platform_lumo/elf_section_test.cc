#include "elf_section.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace bixipc {
namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t kMax64 = ~uint64_t{0};

// A change to a valid image: `value` written little-endian over `width`
// bytes at `offset`, then the image cut to `size` bytes when that is nonzero.
// clang-format off
struct Patch { size_t offset; int width; uint64_t value; size_t size = 0; };
// clang-format on
Bytes patched(Bytes b, const Patch &p) {
  for (int i = 0; i < p.width; ++i) b[p.offset + i] = static_cast<uint8_t>(p.value >> (8 * i));
  if (p.size) b.resize(p.size);
  return b;
}

// A minimal ELF64 LE image: header, name table at 64, ".orvik" data after it,
// then section headers at 112: [null, .shstrtab, .orvik, .empty (NOBITS)].
constexpr char kNames[] = "\0.shstrtab\0.orvik\0.empty";  // names at 1, 11, 18
constexpr size_t kShoff = 112, kSize = kShoff + 4 * 64, kDataAt = 64 + sizeof kNames;
const std::string kData("payload\0\1\2", 10);
// clang-format off
constexpr size_t at(size_t section, size_t field) { return kShoff + section * 64 + field; }
// clang-format on

Bytes tiny_elf() {
  Bytes b(kSize, 0);
  std::memcpy(b.data() + 64, kNames, sizeof kNames);
  std::memcpy(b.data() + kDataAt, kData.data(), kData.size());
  // clang-format off
  const Patch fields[] = {
      // magic, 64-bit, little-endian, version 1, ET_DYN, x86-64
      {0, 4, 0x464c457f}, {4, 1, 2}, {5, 1, 1}, {6, 1, 1}, {0x10, 2, 3}, {0x12, 2, 62},
      // version 1; section header table: offset, entry size, count, name table index
      {0x14, 4, 1}, {0x28, 8, kShoff}, {0x34, 2, 64}, {0x3a, 2, 64}, {0x3c, 2, 4}, {0x3e, 2, 1},
      // each section: name, type, offset, size (NOBITS: no file bytes behind them)
      {at(1, 0), 4, 1}, {at(1, 4), 4, 1}, {at(1, 0x18), 8, 64}, {at(1, 0x20), 8, sizeof kNames},
      {at(2, 0), 4, 11}, {at(2, 4), 4, 1}, {at(2, 0x18), 8, kDataAt}, {at(2, 0x20), 8, 10},
      {at(3, 0), 4, 18}, {at(3, 4), 4, 8}, {at(3, 0x18), 8, 0x100000}, {at(3, 0x20), 8, 0x1000}};
  // clang-format on
  for (const Patch &p : fields) b = patched(b, p);
  return b;
}

// The section's bytes, or the reason it was refused.
std::string find(const Bytes &image, const std::string &name) {
  std::string error;
  auto section = find_elf_section(image, name, &error);
  return section ? std::string(section->begin(), section->end()) : "error: " + error;
}

TEST(ElfSection, FindsSectionsByExactNameAlsoWithExtendedNumbering) {
  Bytes elf = tiny_elf();
  EXPECT_EQ(std::tuple(find(elf, ".orvik"), find(elf, ".empty"), find(elf, ".shstrtab")),
            std::tuple(kData, "", std::string(kNames, sizeof kNames)));
  for (const std::string name : {".orv", ".orvik2", ""})
    EXPECT_EQ(find(elf, name), "error: no section " + name);
  // The count and the name table index in section 0, the header's too small.
  for (const Patch &p :
       {Patch{0x3c, 2, 0}, {0x3e, 2, 0xffff}, {at(0, 0x20), 8, 4}, {at(0, 0x28), 4, 1}})
    elf = patched(elf, p);
  EXPECT_EQ(find(elf, ".orvik"), kData);
}

TEST(ElfSection, RejectsCorruptHeadersWithReason) {
  const std::string table = "section header table outside the file",
                    names = "section name table outside the file",
                    data = "section .orvik outside the file", none = "no section .orvik";
  // clang-format off
  const std::pair<Patch, std::string> cases[] = {
      {{0, 0, 0, 3}, "not an ELF file"},           {{1, 1, 'X'}, "not an ELF file"},
      {{0, 0, 0, 40}, "ELF header truncated"},     {{4, 1, 1}, "not a 64-bit ELF file"},
      {{5, 1, 2}, "not a little-endian ELF file"}, {{6, 1, 0}, "unsupported ELF version"},
      {{0x28, 8, 0}, "no section header table"},   {{0x3a, 2, 40}, "section header size too small"},
      // the table past the end, wrapping round, too long, or cut
      {{0x28, 8, kSize - 10}, table},              {{0x28, 8, kMax64 - 8}, table},
      {{0x3c, 2, 5}, table},                       {{0, 0, 0, kSize - 1}, table},
      {{0x3e, 2, 4}, "section name table index out of range"},
      {{at(1, 0x18), 8, 4096}, names},             {{at(1, 0x20), 8, kMax64}, names},
      {{at(1, 4), 4, 8}, names},  // NOBITS
      {{at(2, 0x18), 8, kSize}, data},             {{at(2, 0x20), 8, kMax64 - 60}, data},
      {{at(2, 0), 4, 4000}, none},  // name offset past the table
      {{at(1, 0x20), 8, 14}, none}};  // the table ends inside ".orvik": no NUL, no match
  // clang-format on
  for (const auto &[patch, reason] : cases)
    EXPECT_EQ(find(patched(tiny_elf(), patch), ".orvik"), "error: " + reason) << patch.offset;
}

// Every prefix of a valid image, and every header byte forced to 0xff, must
// be answered without reading outside the image.
TEST(ElfSection, SurvivesEveryTruncationAndHeaderByteFlip) {
  for (size_t n = 1; n < kSize; ++n) {
    const std::string answer = find(patched(tiny_elf(), {0, 0, 0, n}), ".orvik");
    EXPECT_TRUE(answer.rfind("error: ", 0) == 0 && answer.size() > 7) << n;
  }
  EXPECT_EQ(find({}, ".orvik"), "error: not an ELF file");
  for (size_t pos = 0; pos < kSize; pos = pos == 63 ? kShoff : pos + 1)
    EXPECT_LE(find(patched(tiny_elf(), {pos, 1, 0xff}), ".orvik").size(), kSize) << pos;
}

TEST(ElfSection, FileErrorsNameThePath) {
  std::string error, path = testing::TempDir() + "elf_section_not_elf_" + std::to_string(getpid());
  std::ofstream(path) << "#!/bin/sh\n";
  for (const std::string &file : {std::string("/nonexistent/lib.so"), path}) {
    EXPECT_FALSE(read_elf_section(file, ".orvik", &error));
    EXPECT_EQ(error, file + (file == path ? ": not an ELF file" : ": No such file or directory"));
  }
  std::filesystem::remove(path);
}

TEST(ElfManifest, ParsesRecordsIgnoresZeroFillAndRejectsMalformedRecords) {
  const Bytes manifest = {
      5, 0, 0, 0, 2, 0, 0, 0, 'a', 'b', 'c', 'd', 0, 0, 0, 0,  // kind 2, "abcd", padded
      4, 0, 0, 0, 1, 0, 0, 0, 'x', 'y', 'z', 0,                // kind 1, "xyz", no padding
  };
  const std::vector<ManifestRecord> want = {{kManifestKindTypes, "abcd"},
                                            {kManifestKindBuildInfo, "xyz"}};
  std::string error;
  EXPECT_EQ(parse_manifest(manifest, &error), want) << error;
  EXPECT_EQ(parse_manifest(patched(manifest, {0, 0, 0, 40}), &error), want) << "zero fill";
  EXPECT_EQ(parse_manifest({}, &error), std::vector<ManifestRecord>{});
  const std::string at0 = " at offset 0", at16 = " at offset 16";
  // clang-format off
  const std::pair<Patch, std::string> cases[] = {
      {{0, 0, 0, 23}, "manifest record header truncated" + at16},
      {{16, 1, 0}, "manifest record length 0 invalid" + at16},
      {{16, 1, 5}, "manifest record length 5 invalid" + at16},
      {{0, 4, 0xfffffff0u}, "manifest record length 4294967280 invalid" + at0},
      {{0, 0, 0, 27}, "manifest record length 4 invalid" + at16},  // text cut
      {{27, 1, 'w'}, "manifest text lacks its NUL" + at16},
      {{9, 1, 0}, "manifest text has an embedded NUL" + at0},
      {{14, 1, 7}, "manifest record padding not zero" + at0},
      {{0, 0, 0, 14}, "manifest record padding truncated" + at0}};
  // clang-format on
  for (const auto &[patch, reason] : cases) {
    EXPECT_FALSE(parse_manifest(patched(manifest, patch), &error));
    EXPECT_EQ(error, reason);
  }
}

}  // namespace
}  // namespace bixipc
