// Wire forms of the runtime: primitive codecs, prefix items, message header.
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "wex_test_util.h"

using wex_test::bytes;
using Bytes = std::vector<uint8_t>;

namespace {

class WexCodec : public ::testing::Test {
 protected:
  wex_test::Handle h = wex_test::make_handle();
  uint32_t err = 0;
  std::array<uint8_t, 64> buf{};
};

TEST_F(WexCodec, PrimitivesWriteNetworkOrderGoldenBytes) {
  int8_t i8 = -2;
  uint8_t u8 = 200;
  int16_t i16 = -2;
  uint16_t u16 = 0xBEEF;
  int32_t i32 = INT32_MIN;
  uint32_t u32 = 0xDEADBEEF;
  uint8_t *p = buf.data();
  p += int8_marshal(h.get(), 0, p, &i8, 64, &err);
  p += u_int8_marshal(h.get(), 0, p, &u8, 63, &err);
  p += int16_marshal(h.get(), 0, p, &i16, 62, &err);
  p += u_int16_marshal(h.get(), 0, p, &u16, 60, &err);
  p += int32_marshal(h.get(), 0, p, &i32, 58, &err);
  p += u_int32_marshal(h.get(), 0, p, &u32, 54, &err);
  ASSERT_EQ(err, 0u);
  EXPECT_EQ(bytes(buf.data(), p - buf.data()),
            (Bytes{0xFE, 0xC8, 0xFF, 0xFE, 0xBE, 0xEF, 0x80, 0, 0, 0, 0xDE, 0xAD, 0xBE, 0xEF}));
  int32_t minus_two = -2;
  EXPECT_EQ(int32_marshal(h.get(), 0, buf.data(), &minus_two, 4, &err), 4u);
  EXPECT_EQ(bytes(buf.data(), 4), (Bytes{0xFF, 0xFF, 0xFF, 0xFE}));
  EXPECT_EQ(int8_len(h.get(), 0, nullptr), 1u);
  EXPECT_EQ(u_int16_len(h.get(), 0, nullptr), 2u);
  EXPECT_EQ(int32_len(h.get(), 0, nullptr), 4u);
}

TEST_F(WexCodec, PrimitivesReadBackSignedValues) {
  const uint8_t wire[] = {0xFF, 0xFE, 0x80, 0x00, 0x00, 0x00, 0x80};
  int16_t i16 = 0;
  int32_t i32 = 0;
  int8_t i8 = 0;
  EXPECT_EQ(int16_unmarshal(h.get(), 0, wire, &i16, 7, 0, &err), 2u);
  EXPECT_EQ(int32_unmarshal(h.get(), 0, wire + 2, &i32, 5, 0, &err), 4u);
  EXPECT_EQ(int8_unmarshal(h.get(), 0, wire + 6, &i8, 1, 0, &err), 1u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(i16, -2);
  EXPECT_EQ(i32, INT32_MIN);
  EXPECT_EQ(i8, -128);
  uint16_t u16 = 0;
  EXPECT_EQ(u_int16_unmarshal(h.get(), 0, wire, &u16, 2, 0, &err), 2u);
  EXPECT_EQ(u16, 0xFFFE);
}

TEST_F(WexCodec, ShortRoomOrInputHandlesNothing) {
  buf.fill(0xAA);
  uint32_t v = 0x01020304;
  EXPECT_EQ(u_int32_marshal(h.get(), 0, buf.data(), &v, 3, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_NOROOM);
  EXPECT_EQ(buf[0], 0xAA);
  EXPECT_EQ(wex_get_last_error(h.get()), WEX_ERR_NOROOM);
  EXPECT_EQ(h->error, 0u) << "runtime failures leave the handle's own slot alone";
  // A pending error makes every codec a no-op.
  EXPECT_EQ(u_int32_marshal(h.get(), 0, buf.data(), &v, 64, &err), 0u);
  EXPECT_EQ(buf[0], 0xAA);

  err = 0;
  EXPECT_EQ(u_int32_unmarshal(h.get(), 0, buf.data(), &v, 3, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  EXPECT_EQ(v, 0x01020304u);
  err = 0;
  EXPECT_EQ(int8_unmarshal(h.get(), 0, buf.data(), &v, -1, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  err = 0;
  EXPECT_EQ(u_int16_unmarshal(h.get(), 0, buf.data(), nullptr, 3, 0, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_INVALID);
}

TEST_F(WexCodec, UnmarshalAnnouncesItsStore) {
  wex_test::WriteLog log;
  log.attach(h.get());
  const uint8_t wire[] = {0x00, 0x2A};
  uint16_t v = 0;
  u_int16_unmarshal(h.get(), 0, wire, &v, 2, 0, &err);
  ASSERT_EQ(log.writes.size(), 1u);
  EXPECT_EQ(log.writes[0].addr, &v);
  EXPECT_EQ(log.writes[0].len, 2u);
  EXPECT_EQ(v, 42);
}

TEST_F(WexCodec, AccessorsStoreWithNotificationAndCheckArguments) {
  wex_test::WriteLog log;
  log.attach(h.get());
  int16_t field = 0;
  int16_set_value(h.get(), 0, &field, -5, &err);
  EXPECT_EQ(int16_get_value(h.get(), 0, &field, &err), -5);
  int16_t src = 300;
  int16_set(h.get(), 0, &field, &src, &err);
  EXPECT_EQ(field, 300);
  EXPECT_EQ(err, 0u);
  ASSERT_EQ(log.writes.size(), 2u);
  EXPECT_EQ(log.writes[1].addr, &field);
  EXPECT_EQ(log.writes[1].len, 2u);
  EXPECT_EQ(int16_get(h.get(), 0, &field, &err), &field);

  EXPECT_EQ(u_int8_get(h.get(), 0, nullptr, &err), nullptr);
  EXPECT_EQ(err, 0u) << "a NULL field is left for the caller to report";
  EXPECT_EQ(u_int32_get_value(h.get(), 0, nullptr, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_INVALID);
  // With the slot set nothing is stored and get answers NULL.
  int16_set_value(h.get(), 0, &field, 1, &err);
  EXPECT_EQ(field, 300);
  EXPECT_EQ(int16_get(h.get(), 0, &field, &err), nullptr);
}

TEST_F(WexCodec, HashDependsOnValueSeedAndWidth) {
  uint32_t a = 1, b = 2;
  uint8_t one = 1;
  EXPECT_NE(u_int32_hash(&a, 7), u_int32_hash(&b, 7));
  EXPECT_NE(u_int32_hash(&a, 7), u_int32_hash(&a, 8));
  EXPECT_NE(u_int8_hash(&one, 7), u_int32_hash(&a, 7));
  EXPECT_EQ(int16_hash(nullptr, 99u), 99u);
}

TEST_F(WexCodec, PrefixItemsGoldenBytesAndRoundTrip) {
  int8_t variant = -3;
  uint8_t flags = 0x28;
  uint64_t ra = 0x0102030405060708ull;
  uint8_t ra_byte = 0x99;
  uint32_t jump = 0x0A0B0C0D;
  uint8_t *p = buf.data();
  p += _wex_instance_variant_marshal(h.get(), 0, p, &variant, 64, &err);
  p += _wex_instance_obj_flag_marshal(h.get(), 0, p, &flags, 63, &err);
  p += _wex_instance_ra_data_marshal(h.get(), 0, p, &ra, &ra_byte, 62, &err);
  p += _wex_variant_jump_marshal(h.get(), 0, p, &jump, 53, &err);
  ASSERT_EQ(err, 0u);
  const Bytes golden{0xFD, 0x28, 1, 2, 3, 4, 5, 6, 7, 8, 0x99, 0x0A, 0x0B, 0x0C, 0x0D};
  ASSERT_EQ(bytes(buf.data(), p - buf.data()), golden);
  ASSERT_EQ(golden.size(), WEX_INSTANCE_VARIANT_SIZE + WEX_INSTANCE_OBJ_FLAG_SIZE +
                               WEX_INSTANCE_RA_DATA_SIZE + WEX_VARIANT_JUMP_SIZE);

  int8_t v2 = 0;
  uint8_t f2 = 0, b2 = 0;
  uint64_t ra2 = 0;
  uint32_t j2 = 0;
  const uint8_t *q = buf.data();
  int32_t left = static_cast<int32_t>(golden.size());
  auto step = [&](uint32_t n) {
    q += n;
    left -= static_cast<int32_t>(n);
  };
  step(_wex_instance_variant_unmarshal(h.get(), 0, q, &v2, left, &err));
  step(_wex_instance_obj_flag_unmarshal(h.get(), 0, q, &f2, left, &err));
  step(_wex_instance_ra_data_unmarshal(h.get(), 0, q, &ra2, &b2, left, &err));
  step(_wex_variant_jump_unmarshal(h.get(), 0, q, &j2, left, &err));
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(left, 0);
  EXPECT_EQ(v2, -3);
  EXPECT_EQ(f2, 0x28);
  EXPECT_EQ(ra2, ra);
  EXPECT_EQ(b2, 0x99);
  EXPECT_EQ(j2, jump);
}

TEST_F(WexCodec, PrefixItemsKeepTheFramingAfterAFailure) {
  // A record whose type the domain refuses still encodes its 6-byte prefix.
  err = WEX_ERR_VARIANT;
  int8_t variant = -1;
  uint8_t flags = 0;
  uint32_t jump = 4;
  uint8_t *p = buf.data();
  p += _wex_instance_variant_marshal(h.get(), 0, p, &variant, 6, &err);
  p += _wex_instance_obj_flag_marshal(h.get(), 0, p, &flags, 5, &err);
  p += _wex_variant_jump_marshal(h.get(), 0, p, &jump, 4, &err);
  EXPECT_EQ(bytes(buf.data(), p - buf.data()), (Bytes{0xFF, 0x00, 0, 0, 0, 4}));
  // Too little room then writes nothing and keeps the first code.
  EXPECT_EQ(_wex_variant_jump_marshal(h.get(), 0, p, &jump, 3, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
  uint64_t ra = 0;
  EXPECT_EQ(_wex_instance_ra_data_unmarshal(h.get(), 0, buf.data(), &ra, &flags, 8, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
  uint32_t back = 0;
  EXPECT_EQ(_wex_variant_jump_unmarshal(h.get(), 0, buf.data() + 2, &back, 4, &err), 4u);
  EXPECT_EQ(back, 4u);
  EXPECT_EQ(err, WEX_ERR_VARIANT);
}

// A header record as message objects carry it: marker, six 0xFF, tracking,
// then stamp and total length in host order.
std::array<uint8_t, 16> header_record(uint8_t tracking, uint32_t stamp, uint32_t total) {
  std::array<uint8_t, 16> r{0xBC, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, tracking};
  std::memcpy(&r[8], &stamp, 4);
  std::memcpy(&r[12], &total, 4);
  return r;
}

TEST_F(WexCodec, MessageHeaderGoldenBytes) {
  auto rec = header_record(1, 0x11223344, 64);
  ASSERT_EQ(_wex_message_header_marshal(h.get(), 0, buf.data(), rec.data(), 27, &err),
            WEX_MESSAGE_HEADER_SIZE);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(bytes(buf.data(), 27), (Bytes{0xBC, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x01,
                                          0x00, 0x1B, 0x11, 0x22, 0x33, 0x44, 0x00, 0x00, 0x00,
                                          0x40, 0,    0,    0,    0,    0,    0,    0,    0}));
}

TEST_F(WexCodec, MessageHeaderRoundTripsThroughAnUnalignedRecord) {
  auto rec = header_record(0, 0xCAFEF00D, 27 + 16 + 21);
  _wex_message_header_marshal(h.get(), 0, buf.data(), rec.data(), 64, &err);
  // Message objects keep the record at byte 11, so it is never aligned.
  alignas(8) uint8_t object[40] = {};
  EXPECT_EQ(_wex_message_header_unmarshal(h.get(), 0, buf.data(), object + 11, 64, &err), 27u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(0, std::memcmp(object + 11, rec.data(), 16));
}

TEST_F(WexCodec, MessageHeaderRejectsShortOrForeignBytes) {
  auto rec = header_record(0, 1, 64);
  EXPECT_EQ(_wex_message_header_marshal(h.get(), 0, buf.data(), rec.data(), 26, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_NOROOM);

  err = 0;
  _wex_message_header_marshal(h.get(), 0, buf.data(), rec.data(), 27, &err);
  std::array<uint8_t, 16> out{};
  // Fewer bytes than the total length the header announces: truncated.
  EXPECT_EQ(_wex_message_header_unmarshal(h.get(), 0, buf.data(), out.data(), 63, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  err = 0;
  EXPECT_EQ(_wex_message_header_unmarshal(h.get(), 0, buf.data(), out.data(), 26, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  // An all-zero header (a message whose encoding failed) is not a header.
  std::array<uint8_t, 64> zeros{};
  err = 0;
  EXPECT_EQ(_wex_message_header_unmarshal(h.get(), 0, zeros.data(), out.data(), 64, &err), 0u);
  EXPECT_EQ(err, WEX_ERR_TRUNCATED);
  EXPECT_EQ(out, (std::array<uint8_t, 16>{}));
}

TEST_F(WexCodec, BulkArraysMatchElementByElementCalls) {
  const int16_t elems[5] = {1, -1, 300, -300, 0x7FFF};
  std::array<uint8_t, 16> one_by_one{}, bulk{};
  uint32_t err_each = 0, err_bulk = 0;
  // Room for three and a half elements: both forms stop at the same byte.
  const int32_t room = 7;
  uint32_t written = 0;
  for (const int16_t &e : elems)
    written += int16_marshal(h.get(), 0, one_by_one.data() + written, &e,
                             room - static_cast<int32_t>(written), &err_each);
  EXPECT_EQ(wex_int16_array_marshal(h.get(), 0, bulk.data(), elems, 5, room, &err_bulk), written);
  EXPECT_EQ(written, 6u);
  EXPECT_EQ(one_by_one, bulk);
  EXPECT_EQ(err_each, WEX_ERR_NOROOM);
  EXPECT_EQ(err_bulk, WEX_ERR_NOROOM);

  uint32_t words_err = 0;
  const uint32_t words[2] = {0x01020304, 0xA0B0C0D0};
  uint8_t out[8];
  ASSERT_EQ(wex_u_int32_array_marshal(h.get(), 0, out, words, 2, 8, &words_err), 8u);
  uint32_t back[2] = {};
  EXPECT_EQ(wex_u_int32_array_unmarshal(h.get(), 0, out, back, 2, 7, &words_err), 4u);
  EXPECT_EQ(words_err, WEX_ERR_TRUNCATED);
  EXPECT_EQ(back[0], words[0]);
  EXPECT_EQ(back[1], 0u);
}

}  // namespace
