#include "superfasthash.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

namespace {

uint32_t Hash(const std::string &s, uint32_t seed) {
  return SuperFastHash(s.data(), static_cast<uint32_t>(s.size()), seed);
}

// Golden values computed separately from the published description: seeded
// with the length (the published function), with 0 and with 0xdeadbeef.
// Tail bytes >= 0x80 are sign-extended, as the published signed char reads
// do: "\xff" alone cancels the starting 1 and hashes to 0.
TEST(SuperFastHash, GoldenValuesAndReferenceDigestAtAnyAlignment) {
  // clang-format off
  const std::tuple<std::string, uint32_t, uint32_t, uint32_t> golden[] = {
      {"a", 0x115ea782, 0x93642e87, 0x6c5cea70},     {"ab", 0x516b8b44, 0x5b8c0ec3, 0x20e5868e},
      {"abc", 0xd2be198a, 0xe5186b3a, 0x7e8ab2ad},   {"abcd", 0xdad8b8db, 0x3ab452d8, 0x1d3a98c7},
      {"abcde", 0x51ed072e, 0x84786722, 0x276be1c1}, {"abcdef", 0x963b9dda, 0xbe7c6fe4, 0xcb8291c1},
      {"abcdefg", 0xf071c3ed, 0x3dad41af, 0xee03772a},
      {"\x80", 0xf30533c4, 0xe6dcba62, 0xd057600d},  {"\xff", 0x00000000, 0x7ffaa939, 0xe00aa2b8},
      {"AB\xff", 0xf6616e27, 0x7ac78069, 0x6f166daf},
      {"\xff\xfe\x80", 0x60a5f00b, 0xb2876529, 0x84d19797},
      {"\xc3\xa9\xc3\xa8\xe2", 0x2825d7c0, 0x2d037655, 0xf6695e90},
      {"hello world", 0xa68c6882, 0x4f799873, 0x48f775a5},
      {"The quick brown fox jumps over the lazy dog", 0x05bf7ce3, 0x1c19ee97, 0xdb562c71}};
  // clang-format on
  for (const auto &[input, classic, seed0, deadbeef] : golden) {
    EXPECT_EQ(
        std::tuple(Hash(input, uint32_t(input.size())), Hash(input, 0), Hash(input, 0xdeadbeef)),
        std::tuple(classic, seed0, deadbeef))
        << testing::PrintToString(input);
  }
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(std::tuple(Hash(all_bytes, 256), Hash(all_bytes, 0)),
            std::tuple(0xe4eef917u, 0xa724b44fu));
  // Empty or NULL input is 0 whatever the seed.
  EXPECT_EQ(std::tuple(SuperFastHash("", 0, 0), SuperFastHash("abc", 0, 0x12345678),
                       SuperFastHash(nullptr, 16, 0x12345678)),
            std::tuple(0u, 0u, 0u));

  // Pseudo-random bytes over the whole byte range, every length up to
  // several blocks (so each tail case meets high and low bytes), five seeds:
  // the hashes folded together match the fold of the published function's.
  std::vector<char> bytes(131);
  uint32_t x = 2463534242u, digest = 0;
  for (char &b : bytes) b = static_cast<char>((x ^= x << 13, x ^= x >> 17, x ^= x << 5) >> 24);
  for (uint32_t len = 0; len <= bytes.size(); ++len) {
    for (uint32_t seed : {len, 0u, 1u, 0x80000000u, 0xffffffffu})
      digest = (digest ^ SuperFastHash(bytes.data(), len, seed)) * 0x01000193u;
  }
  EXPECT_EQ(digest, 0x8db402b6u);

  alignas(8) char buf[24] = "xx0123456789abcdefghij", copy[24];
  for (int off = 1; off < 4; ++off) {
    std::memcpy(copy, buf + off, 17);
    EXPECT_EQ(SuperFastHash(buf + off, 17, 5), SuperFastHash(copy, 17, 5)) << "alignment " << off;
  }
}

}  // namespace
