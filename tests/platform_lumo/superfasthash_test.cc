#include "superfasthash.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

// The published reference, transcribed as published (int length, char
// pointer, a 16-bit little-endian reader, signed char tail bytes), except
// that the starting value is a parameter instead of always being the length.
// Its left shift of a negative signed char is kept: C++20 defines it as the
// two's-complement result the reference relied on.
#define get16bits(d) \
  ((((uint32_t)(((const uint8_t *)(d))[1])) << 8) + (uint32_t)(((const uint8_t *)(d))[0]))

uint32_t ReferenceHash(const char *data, int len, uint32_t start) {
  uint32_t hash = start, tmp;
  int rem;

  if (len <= 0 || data == NULL) return 0;

  rem = len & 3;
  len >>= 2;

  for (; len > 0; len--) {
    hash += get16bits(data);
    tmp = (get16bits(data + 2) << 11) ^ hash;
    hash = (hash << 16) ^ tmp;
    data += 2 * sizeof(uint16_t);
    hash += hash >> 11;
  }

  switch (rem) {
    case 3:
      hash += get16bits(data);
      hash ^= hash << 16;
      hash ^= ((signed char)data[sizeof(uint16_t)]) << 18;
      hash += hash >> 11;
      break;
    case 2:
      hash += get16bits(data);
      hash ^= hash << 11;
      hash += hash >> 17;
      break;
    case 1:
      hash += (signed char)*data;
      hash ^= hash << 10;
      hash += hash >> 1;
  }

  hash ^= hash << 3;
  hash += hash >> 5;
  hash ^= hash << 4;
  hash += hash >> 17;
  hash ^= hash << 25;
  hash += hash >> 6;

  return hash;
}
#undef get16bits

uint32_t Hash(const std::string &s, uint32_t seed) {
  return SuperFastHash(s.data(), static_cast<uint32_t>(s.size()), seed);
}
uint32_t Classic(const std::string &s) {
  return Hash(s, static_cast<uint32_t>(s.size()));
}

// Golden values computed separately from the published description.
struct Golden {
  std::string input;
  uint32_t classic;  // seed = length: the published function
  uint32_t seed0;
  uint32_t seed_deadbeef;
};

const Golden kGolden[] = {
    {"a", 0x115ea782, 0x93642e87, 0x6c5cea70},
    {"ab", 0x516b8b44, 0x5b8c0ec3, 0x20e5868e},
    {"abc", 0xd2be198a, 0xe5186b3a, 0x7e8ab2ad},
    {"abcd", 0xdad8b8db, 0x3ab452d8, 0x1d3a98c7},
    {"abcde", 0x51ed072e, 0x84786722, 0x276be1c1},
    {"abcdef", 0x963b9dda, 0xbe7c6fe4, 0xcb8291c1},
    {"abcdefg", 0xf071c3ed, 0x3dad41af, 0xee03772a},
    {"hello world", 0xa68c6882, 0x4f799873, 0x48f775a5},
    {"The quick brown fox jumps over the lazy dog", 0x05bf7ce3, 0x1c19ee97, 0xdb562c71},
    // Tail bytes >= 0x80 are sign-extended, as the reference's signed char
    // reads do: "\xff" alone cancels the starting 1 and hashes to 0.
    {"\x80", 0xf30533c4, 0xe6dcba62, 0xd057600d},
    {"\xff", 0x00000000, 0x7ffaa939, 0xe00aa2b8},
    {"AB\xff", 0xf6616e27, 0x7ac78069, 0x6f166daf},
    {"\xff\xfe\x80", 0x60a5f00b, 0xb2876529, 0x84d19797},
    {"\xc3\xa9\xc3\xa8\xe2", 0x2825d7c0, 0x2d037655, 0xf6695e90},
};

TEST(SuperFastHash, GoldenValues) {
  for (const Golden &g : kGolden) {
    SCOPED_TRACE(testing::PrintToString(g.input));
    EXPECT_EQ(Classic(g.input), g.classic);
    EXPECT_EQ(Hash(g.input, 0), g.seed0);
    EXPECT_EQ(Hash(g.input, 0xdeadbeef), g.seed_deadbeef);
  }
  std::string all_bytes;
  for (int i = 0; i < 256; ++i) all_bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(Classic(all_bytes), 0xe4eef917u);
  EXPECT_EQ(Hash(all_bytes, 0), 0xa724b44fu);
}

TEST(SuperFastHash, EmptyOrNullInputIsZeroWhateverTheSeed) {
  EXPECT_EQ(SuperFastHash("", 0, 0), 0u);
  EXPECT_EQ(SuperFastHash("abc", 0, 0x12345678), 0u);
  EXPECT_EQ(SuperFastHash(nullptr, 16, 0x12345678), 0u);
}

TEST(SuperFastHash, MatchesTheReferenceForEveryTailAndSeed) {
  // Pseudo-random bytes covering the whole byte range, every length up to
  // several blocks, so each tail case meets high and low bytes.
  std::vector<char> bytes(131);
  uint32_t x = 2463534242u;
  for (char &b : bytes) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    b = static_cast<char>(x >> 24);
  }
  for (int len = 0; len <= static_cast<int>(bytes.size()); ++len) {
    for (uint32_t seed : {uint32_t(len), 0u, 1u, 0x80000000u, 0xffffffffu}) {
      SCOPED_TRACE(testing::Message() << "len " << len << " seed " << seed);
      EXPECT_EQ(SuperFastHash(bytes.data(), static_cast<uint32_t>(len), seed),
                ReferenceHash(bytes.data(), len, seed));
    }
  }
}

TEST(SuperFastHash, IgnoresAlignment) {
  alignas(8) char buf[24] = "xx0123456789abcdefghij";
  alignas(8) char copy[24];
  for (int off = 1; off < 4; ++off) {
    memcpy(copy, buf + off, 17);
    EXPECT_EQ(SuperFastHash(buf + off, 17, 5), SuperFastHash(copy, 17, 5));
  }
}

}  // namespace
