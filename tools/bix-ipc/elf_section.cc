#include "elf_section.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>

namespace bixipc {
namespace {

// ELF64 constants, spelled out so the reader does not depend on <elf.h>.
constexpr size_t kEhdrSize = 64;
constexpr size_t kShdrSize = 64;
constexpr uint8_t kClass64 = 2;
constexpr uint8_t kDataLittleEndian = 1;
constexpr uint8_t kVersionCurrent = 1;
constexpr uint32_t kShtNobits = 8;
constexpr uint16_t kShnXindex = 0xffff;

// Refuse to load files larger than this: the tool reads shared libraries, and
// reading without a bound would let a huge path exhaust memory first.
constexpr uint64_t kMaxFileSize = uint64_t{1} << 31;

uint16_t le16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t le32(const uint8_t *p) {
  return le16(p) | (static_cast<uint32_t>(le16(p + 2)) << 16);
}
uint64_t le64(const uint8_t *p) {
  return le32(p) | (static_cast<uint64_t>(le32(p + 4)) << 32);
}

// True when [offset, offset + size) lies inside `total`, without overflow.
bool within(uint64_t offset, uint64_t size, uint64_t total) {
  return offset <= total && size <= total - offset;
}

struct SectionHeader {
  uint32_t name;
  uint32_t type;
  uint64_t offset;
  uint64_t size;
  uint32_t link;
};

bool fail(std::string *error, std::string text) {
  if (error) *error = std::move(text);
  return false;
}

class ElfImage {
 public:
  explicit ElfImage(std::span<const uint8_t> image) : image_(image) {}

  bool parse_headers(std::string *error) {
    const uint8_t *e = image_.data();
    if (image_.size() < 4 || memcmp(e,
                                    "\x7f"
                                    "ELF",
                                    4) != 0) {
      return fail(error, "not an ELF file");
    }
    if (image_.size() < kEhdrSize) return fail(error, "ELF header truncated");
    if (e[4] != kClass64) return fail(error, "not a 64-bit ELF file");
    if (e[5] != kDataLittleEndian) return fail(error, "not a little-endian ELF file");
    if (e[6] != kVersionCurrent) return fail(error, "unsupported ELF version");

    shoff_ = le64(e + 0x28);
    uint16_t shentsize = le16(e + 0x3a);
    shnum_ = le16(e + 0x3c);
    uint32_t shstrndx = le16(e + 0x3e);
    if (shoff_ == 0) return fail(error, "no section header table");
    if (shentsize < kShdrSize) return fail(error, "section header size too small");
    shentsize_ = shentsize;
    // Section 0 holds the real count and name-table index when they do not
    // fit the ELF header's 16-bit fields.
    if (!within(shoff_, kShdrSize, image_.size())) {
      return fail(error, "section header table outside the file");
    }
    SectionHeader first = header_at(0);
    if (shnum_ == 0) shnum_ = first.size;
    if (shstrndx == kShnXindex) shstrndx = first.link;
    if (shnum_ > (image_.size() - shoff_) / shentsize_) {
      return fail(error, "section header table outside the file");
    }
    if (shstrndx >= shnum_) return fail(error, "section name table index out of range");
    SectionHeader names = header_at(shstrndx);
    if (names.type == kShtNobits || !within(names.offset, names.size, image_.size())) {
      return fail(error, "section name table outside the file");
    }
    names_ = image_.subspan(names.offset, names.size);
    return true;
  }

  uint64_t section_count() const { return shnum_; }

  // Only valid for i < section_count() after parse_headers succeeded.
  SectionHeader header_at(uint64_t i) const {
    const uint8_t *s = image_.data() + shoff_ + i * shentsize_;
    return SectionHeader{le32(s), le32(s + 4), le64(s + 0x18), le64(s + 0x20), le32(s + 0x28)};
  }

  bool name_is(const SectionHeader &h, const std::string &name) const {
    // The name must end with its NUL inside the table to count as a match.
    if (h.name >= names_.size() || names_.size() - h.name <= name.size()) return false;
    const uint8_t *s = names_.data() + h.name;
    return memcmp(s, name.data(), name.size()) == 0 && s[name.size()] == '\0';
  }

  std::span<const uint8_t> bytes() const { return image_; }

 private:
  std::span<const uint8_t> image_;
  std::span<const uint8_t> names_;
  uint64_t shoff_ = 0;
  uint64_t shentsize_ = 0;
  uint64_t shnum_ = 0;
};

}  // namespace

std::optional<std::vector<uint8_t>> find_elf_section(std::span<const uint8_t> image,
                                                     const std::string &name, std::string *error) {
  ElfImage elf(image);
  if (!elf.parse_headers(error)) return std::nullopt;
  for (uint64_t i = 1; i < elf.section_count(); ++i) {
    SectionHeader h = elf.header_at(i);
    if (!elf.name_is(h, name)) continue;
    if (h.type == kShtNobits) return std::vector<uint8_t>{};
    if (!within(h.offset, h.size, image.size())) {
      fail(error, "section " + name + " outside the file");
      return std::nullopt;
    }
    auto data = image.subspan(h.offset, h.size);
    return std::vector<uint8_t>(data.begin(), data.end());
  }
  fail(error, "no section " + name);
  return std::nullopt;
}

std::optional<std::vector<uint8_t>> read_regular_file(const std::string &path, std::string *error) {
  // Opened without blocking and checked before anything is read: a FIFO, a device or a
  // directory given by mistake must not hang the tool or feed it endless bytes.
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    fail(error, path + ": " + strerror(errno));
    return std::nullopt;
  }
  struct FdCloser {
    int fd;
    ~FdCloser() { ::close(fd); }
  } closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) {
    fail(error, path + ": " + strerror(errno));
    return std::nullopt;
  }
  if (!S_ISREG(st.st_mode)) {
    fail(error, path + ": not a regular file");
    return std::nullopt;
  }
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > kMaxFileSize) {
    fail(error, path + ": the file is too large");
    return std::nullopt;
  }
  std::vector<uint8_t> image(static_cast<size_t>(st.st_size));
  size_t got = 0;
  while (got < image.size()) {
    ssize_t n = ::read(fd, image.data() + got, image.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      fail(error, path + ": read failed");
      return std::nullopt;
    }
    got += static_cast<size_t>(n);
  }
  return image;
}

std::optional<std::vector<uint8_t>> read_elf_section(const std::string &path,
                                                     const std::string &name, std::string *error) {
  auto image = read_regular_file(path, error);
  if (!image) return std::nullopt;
  std::string reason;
  auto section = find_elf_section(*image, name, &reason);
  if (!section) fail(error, path + ": " + reason);
  return section;
}

std::optional<std::vector<ManifestRecord>> parse_manifest(const std::vector<uint8_t> &section,
                                                          std::string *error) {
  std::vector<ManifestRecord> records;
  size_t pos = 0;
  const size_t total = section.size();
  auto at = [](size_t offset) { return " at offset " + std::to_string(offset); };
  while (pos < total) {
    const uint8_t *rest = section.data() + pos;
    bool all_zero = true;
    for (size_t i = pos; i < total && all_zero; ++i) all_zero = section[i] == 0;
    if (all_zero) break;
    if (total - pos < 8) {
      fail(error, "manifest record header truncated" + at(pos));
      return std::nullopt;
    }
    uint32_t length = le32(rest);
    uint32_t kind = le32(rest + 4);
    size_t room = total - pos - 8;
    if (length == 0 || length > room) {
      fail(error, "manifest record length " + std::to_string(length) + " invalid" + at(pos));
      return std::nullopt;
    }
    const uint8_t *text = rest + 8;
    const void *nul = memchr(text, 0, length);
    if (nul != text + length - 1) {
      fail(error,
           std::string(nul ? "manifest text has an embedded NUL" : "manifest text lacks its NUL") +
               at(pos));
      return std::nullopt;
    }
    size_t padded = (static_cast<size_t>(length) + 3) & ~size_t{3};
    if (padded > room) {
      fail(error, "manifest record padding truncated" + at(pos));
      return std::nullopt;
    }
    for (size_t i = length; i < padded; ++i) {
      if (text[i] != 0) {
        fail(error, "manifest record padding not zero" + at(pos));
        return std::nullopt;
      }
    }
    records.push_back(
        ManifestRecord{kind, std::string(reinterpret_cast<const char *>(text), length - 1)});
    pos += 8 + padded;
  }
  return records;
}

}  // namespace bixipc
