#include "elf_section.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace bixipc {
namespace {

constexpr uint64_t kMax64 = std::numeric_limits<uint64_t>::max();

void put16(std::vector<uint8_t> &b, size_t at, uint16_t v) {
  for (int i = 0; i < 2; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void put32(std::vector<uint8_t> &b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}
void put64(std::vector<uint8_t> &b, size_t at, uint64_t v) {
  for (int i = 0; i < 8; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

// A minimal ELF64 LE image: header, name table, one data section, then the
// section headers [null, .shstrtab, .orvik, .empty (NOBITS)].
struct TinyElf {
  static constexpr char kNames[] = "\0.shstrtab\0.orvik\0.empty";  // offsets 0, 1, 11, 18
  static constexpr size_t kNamesOffset = 64;
  static constexpr size_t kNamesSize = sizeof kNames;
  static constexpr size_t kDataOffset = kNamesOffset + kNamesSize;
  static constexpr size_t kShoff = 112;
  static constexpr size_t kShnum = 4;

  std::vector<uint8_t> data = {'p', 'a', 'y', 'l', 'o', 'a', 'd', 0, 1, 2};
  std::vector<uint8_t> image;

  TinyElf() {
    image.assign(kShoff + kShnum * 64, 0);
    memcpy(image.data(),
           "\x7f"
           "ELF",
           4);
    image[4] = 2;           // 64-bit
    image[5] = 1;           // little-endian
    image[6] = 1;           // version
    put16(image, 0x10, 3);  // ET_DYN
    put16(image, 0x12, 62);
    put32(image, 0x14, 1);
    put64(image, 0x28, kShoff);
    put16(image, 0x34, 64);
    put16(image, 0x3a, 64);
    put16(image, 0x3c, kShnum);
    put16(image, 0x3e, 1);
    memcpy(image.data() + kNamesOffset, kNames, kNamesSize);
    memcpy(image.data() + kDataOffset, data.data(), data.size());
    section(1, 1, 3, kNamesOffset, kNamesSize);
    section(2, 11, 1, kDataOffset, data.size());
    section(3, 18, 8, 0x100000, 0x1000);  // NOBITS: offset and size are not file bytes
  }

  static size_t at(size_t index, size_t field) { return kShoff + index * 64 + field; }

  void section(size_t index, uint32_t name, uint32_t type, uint64_t offset, uint64_t size) {
    put32(image, at(index, 0), name);
    put32(image, at(index, 4), type);
    put64(image, at(index, 0x18), offset);
    put64(image, at(index, 0x20), size);
  }
};

std::string find_error(const std::vector<uint8_t> &image, const std::string &name) {
  std::string error;
  auto section = find_elf_section(image, name, &error);
  return section ? "<found>" : error;
}

TEST(ElfSection, FindsSectionsByExactName) {
  TinyElf elf;
  std::string error;
  auto orvik = find_elf_section(elf.image, ".orvik", &error);
  ASSERT_TRUE(orvik) << error;
  EXPECT_EQ(*orvik, elf.data);

  auto empty = find_elf_section(elf.image, ".empty", &error);
  ASSERT_TRUE(empty) << error;
  EXPECT_TRUE(empty->empty());

  auto names = find_elf_section(elf.image, ".shstrtab", &error);
  ASSERT_TRUE(names);
  EXPECT_EQ(names->size(), TinyElf::kNamesSize);

  EXPECT_EQ(find_error(elf.image, ".orv"), "no section .orv");
  EXPECT_EQ(find_error(elf.image, ".orvik2"), "no section .orvik2");
  EXPECT_EQ(find_error(elf.image, ""), "no section ");
}

TEST(ElfSection, ExtendedSectionNumbering) {
  TinyElf elf;
  put16(elf.image, 0x3c, 0);
  put16(elf.image, 0x3e, 0xffff);
  put64(elf.image, TinyElf::at(0, 0x20), TinyElf::kShnum);
  put32(elf.image, TinyElf::at(0, 0x28), 1);
  std::string error;
  auto orvik = find_elf_section(elf.image, ".orvik", &error);
  ASSERT_TRUE(orvik) << error;
  EXPECT_EQ(*orvik, elf.data);
}

TEST(ElfSection, RejectsCorruptHeadersWithReason) {
  struct Case {
    const char *what;
    std::function<void(std::vector<uint8_t> &)> corrupt;
    const char *error;
  };
  const size_t names_hdr = TinyElf::at(1, 0);
  const size_t data_hdr = TinyElf::at(2, 0);
  const Case cases[] = {
      {"too short for magic", [](auto &b) { b.resize(3); }, "not an ELF file"},
      {"bad magic", [](auto &b) { b[1] = 'X'; }, "not an ELF file"},
      {"header truncated", [](auto &b) { b.resize(40); }, "ELF header truncated"},
      {"32-bit", [](auto &b) { b[4] = 1; }, "not a 64-bit ELF file"},
      {"big-endian", [](auto &b) { b[5] = 2; }, "not a little-endian ELF file"},
      {"version", [](auto &b) { b[6] = 0; }, "unsupported ELF version"},
      {"no table", [](auto &b) { put64(b, 0x28, 0); }, "no section header table"},
      {"entry size", [](auto &b) { put16(b, 0x3a, 40); }, "section header size too small"},
      {"table past EOF", [](auto &b) { put64(b, 0x28, b.size() - 10); },
       "section header table outside the file"},
      {"table offset wraps", [](auto &b) { put64(b, 0x28, kMax64 - 8); },
       "section header table outside the file"},
      {"too many sections", [](auto &b) { put16(b, 0x3c, 5); },
       "section header table outside the file"},
      {"file cut inside table", [](auto &b) { b.resize(b.size() - 1); },
       "section header table outside the file"},
      {"name table index", [](auto &b) { put16(b, 0x3e, 4); },
       "section name table index out of range"},
      {"name table past EOF", [&](auto &b) { put64(b, names_hdr + 0x18, 4096); },
       "section name table outside the file"},
      {"name table size wraps", [&](auto &b) { put64(b, names_hdr + 0x20, kMax64); },
       "section name table outside the file"},
      {"name table is NOBITS", [&](auto &b) { put32(b, names_hdr + 4, 8); },
       "section name table outside the file"},
      {"data past EOF", [&](auto &b) { put64(b, data_hdr + 0x18, b.size()); },
       "section .orvik outside the file"},
      {"data size wraps", [&](auto &b) { put64(b, data_hdr + 0x20, kMax64 - 60); },
       "section .orvik outside the file"},
      {"name offset past table", [&](auto &b) { put32(b, data_hdr, 4000); }, "no section .orvik"},
      // The table ends inside ".orvik": the name has no NUL, so no match.
      {"name unterminated", [&](auto &b) { put64(b, names_hdr + 0x20, 14); }, "no section .orvik"},
  };
  for (const Case &c : cases) {
    TinyElf elf;
    c.corrupt(elf.image);
    EXPECT_EQ(find_error(elf.image, ".orvik"), c.error) << c.what;
  }
}

// Every prefix of a valid image, and every header byte forced to 0xff, must
// be answered without reading outside the image.
TEST(ElfSection, SurvivesEveryTruncationAndHeaderByteFlip) {
  TinyElf elf;
  for (size_t n = 0; n < elf.image.size(); ++n) {
    std::vector<uint8_t> cut(elf.image.begin(), elf.image.begin() + n);
    std::string error;
    EXPECT_FALSE(find_elf_section(cut, ".orvik", &error)) << n;
    EXPECT_FALSE(error.empty()) << n;
  }
  std::vector<size_t> positions;
  for (size_t i = 0; i < 64; ++i) positions.push_back(i);
  for (size_t i = TinyElf::kShoff; i < elf.image.size(); ++i) positions.push_back(i);
  for (size_t pos : positions) {
    std::vector<uint8_t> bad = elf.image;
    bad[pos] = 0xff;
    std::string error;
    auto section = find_elf_section(bad, ".orvik", &error);
    if (section) {
      EXPECT_LE(section->size(), bad.size()) << pos;
    }
  }
}

TEST(ElfSection, FileErrorsNameThePath) {
  std::string error;
  EXPECT_FALSE(read_elf_section("/nonexistent/lib.so", ".orvik", &error));
  EXPECT_EQ(error, "/nonexistent/lib.so: No such file or directory");

  std::string path = testing::TempDir() + "elf_section_not_elf_" + std::to_string(getpid());
  std::ofstream(path) << "#!/bin/sh\n";
  EXPECT_FALSE(read_elf_section(path, ".orvik", &error));
  EXPECT_EQ(error, path + ": not an ELF file");
  std::filesystem::remove(path);
}

// Golden bytes of a two-record manifest section.
const std::vector<uint8_t> kManifest = {
    5, 0, 0, 0, 2, 0, 0, 0, 'a', 'b', 'c', 'd', 0, 0, 0, 0,  // kind 2, "abcd", padded
    4, 0, 0, 0, 1, 0, 0, 0, 'x', 'y', 'z', 0,                // kind 1, "xyz", no padding
};

TEST(ElfManifest, ParsesRecordsAndIgnoresZeroFill) {
  std::string error;
  auto records = parse_manifest(kManifest, &error);
  ASSERT_TRUE(records) << error;
  const std::vector<ManifestRecord> want = {{kManifestKindTypes, "abcd"},
                                            {kManifestKindBuildInfo, "xyz"}};
  EXPECT_EQ(*records, want);

  std::vector<uint8_t> filled = kManifest;
  filled.resize(filled.size() + 12, 0);
  records = parse_manifest(filled, &error);
  ASSERT_TRUE(records) << error;
  EXPECT_EQ(*records, want);

  records = parse_manifest({}, &error);
  ASSERT_TRUE(records);
  EXPECT_TRUE(records->empty());
}

TEST(ElfManifest, RejectsMalformedRecords) {
  struct Case {
    const char *what;
    std::function<void(std::vector<uint8_t> &)> corrupt;
    const char *error;
  };
  const Case cases[] = {
      {"header cut", [](auto &b) { b.resize(23); },
       "manifest record header truncated at offset 16"},
      {"zero length", [](auto &b) { b[16] = 0; }, "manifest record length 0 invalid at offset 16"},
      {"length past end", [](auto &b) { b[16] = 5; },
       "manifest record length 5 invalid at offset 16"},
      {"huge length", [](auto &b) { put32(b, 0, 0xfffffff0u); },
       "manifest record length 4294967280 invalid at offset 0"},
      {"text cut", [](auto &b) { b.resize(27); }, "manifest record length 4 invalid at offset 16"},
      {"no NUL", [](auto &b) { b[27] = 'w'; }, "manifest text lacks its NUL at offset 16"},
      {"inner NUL", [](auto &b) { b[9] = 0; }, "manifest text has an embedded NUL at offset 0"},
      {"padding not zero", [](auto &b) { b[14] = 7; },
       "manifest record padding not zero at offset 0"},
      {"padding cut", [](auto &b) { b.resize(14); },
       "manifest record padding truncated at offset 0"},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> bytes = kManifest;
    c.corrupt(bytes);
    std::string error;
    EXPECT_FALSE(parse_manifest(bytes, &error)) << c.what;
    EXPECT_EQ(error, c.error) << c.what;
  }
}

// A real linker-made file: objcopy adds the manifest to a copy of this test.
TEST(ElfSection, ReadsSectionAddedByObjcopy) {
  const std::string objcopy = BIX_OBJCOPY;
  if (objcopy.empty()) GTEST_SKIP() << "objcopy not found at configure time";

  namespace fs = std::filesystem;
  const fs::path dir = fs::path(testing::TempDir()) / ("elf_section_" + std::to_string(getpid()));
  fs::create_directories(dir);
  const fs::path payload = dir / "manifest.bin", input = dir / "in", output = dir / "out";
  std::ofstream(payload, std::ios::binary)
      .write(reinterpret_cast<const char *>(kManifest.data()),
             static_cast<std::streamsize>(kManifest.size()));
  fs::copy_file("/proc/self/exe", input);
  const std::string command = "'" + objcopy + "' --add-section .orvik='" + payload.string() +
                              "' --set-section-flags .orvik=noload,readonly '" + input.string() +
                              "' '" + output.string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0) << command;

  std::string error;
  auto section = read_elf_section(output, ".orvik", &error);
  ASSERT_TRUE(section) << error;
  EXPECT_EQ(*section, kManifest);
  auto records = parse_manifest(*section, &error);
  ASSERT_TRUE(records) << error;
  EXPECT_EQ(records->size(), 2u);

  auto bss = read_elf_section(output, ".bss", &error);
  ASSERT_TRUE(bss) << error;
  EXPECT_TRUE(bss->empty());
  auto text = read_elf_section(output, ".text", &error);
  ASSERT_TRUE(text) << error;
  EXPECT_GT(text->size(), 1000u);
  EXPECT_FALSE(read_elf_section(input, ".orvik", &error));
  EXPECT_EQ(error, input.string() + ": no section .orvik");

  fs::remove_all(dir);
}

}  // namespace
}  // namespace bixipc
