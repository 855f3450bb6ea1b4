// The type runtime: primitive codecs, prefix items and message header; the
// handle, error store, domains and instance queries; text and XML writers,
// document queries and the primitive XML parsers.
#include "wex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

extern "C" uint32_t wex_c_header_check(wex_handle *h);

namespace {

using Bytes = std::vector<uint8_t>;
using Codes = std::vector<uint32_t>;
using Writes = std::vector<std::pair<void *, uint32_t>>;

class Wex : public ::testing::Test {
 protected:
  std::unique_ptr<wex_handle, decltype(&wex_handle_free)> owner{wex_handle_new(), wex_handle_free};
  wex_handle *h = owner.get();
  uint32_t err = 0;
  uint8_t buf[64] = {};
  Writes log;
  // Takes over the hooks and records every write they announce.
  void record_writes() {
    h->alloc_ctx = &log;
    h->notify_write = [](void *ctx, void *addr, uint32_t len, uint32_t) {
      static_cast<Writes *>(ctx)->emplace_back(addr, len);
    };
  }
};

Bytes bytes(const void *p, size_t n) {
  auto *b = static_cast<const uint8_t *>(p);
  return {b, b + n};
}
// The object representation of a value, as a field holds it.
template <class T>
Bytes host(T v) {
  return bytes(&v, sizeof v);
}

// ---- Wire forms -------------------------------------------------------------------

using Marshal = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
using Unmarshal = uint32_t (*)(wex_handle *, uint32_t, const uint8_t *, void *, int32_t, uint32_t,
                               uint32_t *);

// Every codec: golden bytes at exactly its width, the read back with its
// announced store; too little room (90) or input (74), a NULL field (22) or
// a pending code touch nothing.
TEST_F(Wex, PrimitiveCodecsGoldenBytesRoundTripAndRefusals) {
  // clang-format off
#define PRIM(p, T, v, ...) {p##_marshal, p##_unmarshal, host<T>(v), {__VA_ARGS__}}
  const std::tuple<Marshal, Unmarshal, Bytes, Bytes> cases[] = {
      PRIM(int8, int8_t, -2, 0xFE),                PRIM(int8, int8_t, -128, 0x80),
      PRIM(u_int8, uint8_t, 200, 0xC8),            PRIM(int16, int16_t, -2, 0xFF, 0xFE),
      PRIM(u_int16, uint16_t, 0xBEEF, 0xBE, 0xEF), PRIM(u_int16, uint16_t, 0xFFFE, 0xFF, 0xFE),
      PRIM(int32, int32_t, INT32_MIN, 0x80, 0, 0, 0),
      PRIM(int32, int32_t, -2, 0xFF, 0xFF, 0xFF, 0xFE),
      PRIM(u_int32, uint32_t, 0xDEADBEEF, 0xDE, 0xAD, 0xBE, 0xEF)};
  // clang-format on
  record_writes();
  for (const auto &[marshal, unmarshal, value, wire] : cases) {
    SCOPED_TRACE(testing::PrintToString(wire));
    const uint32_t n = static_cast<uint32_t>(wire.size());
    const int32_t w = static_cast<int32_t>(n);
    log.clear();
    uint8_t field[4] = {0x55, 0x55, 0x55, 0x55};
    std::memset(buf, 0xAA, sizeof buf);
    uint32_t e[5] = {};
    EXPECT_EQ((Codes{marshal(h, 0, buf, value.data(), w - 1, &e[0]),
                     marshal(h, 0, buf, value.data(), w, &e[0]),
                     unmarshal(h, 0, wire.data(), field, w - 1, 0, &e[1]),
                     unmarshal(h, 0, wire.data(), field, w, 0, &e[1]),
                     unmarshal(h, 0, wire.data(), field, -1, 0, &e[2]),
                     unmarshal(h, 0, wire.data(), nullptr, w, 0, &e[3]), e[0], e[1], e[2], e[3],
                     buf[0], field[0], uint32_t(log.size())}),
              (Codes{0, 0, 0, 0, 0, 0, 90, 74, 74, 22, 0xAA, 0x55, 0}));
    EXPECT_EQ((std::tuple{marshal(h, 0, buf, value.data(), w, &e[4]), bytes(buf, n), buf[n],
                          unmarshal(h, 0, wire.data(), field, w, 0, &e[4]), bytes(field, n), e[4]}),
              (std::tuple{n, wire, uint8_t{0xAA}, n, value, 0u}));
    EXPECT_EQ(log, (Writes{{field, n}}));
  }
  EXPECT_EQ((Codes{int8_len(h, 0, nullptr), u_int16_len(h, 0, nullptr), int32_len(h, 0, nullptr),
                   wex_get_last_error(h), h->error}),
            (Codes{1, 2, 4, WEX_ERR_INVALID, 0}))
      << "runtime failures go to the last error, not the handle's own slot";
}

TEST_F(Wex, AccessorsAnnounceStoresAndCheckArguments) {
  record_writes();
  int16_t field = 0, src = 300;
  int16_set_value(h, 0, &field, -5, &err);
  int16_set(h, 0, &field, &src, &err);
  EXPECT_EQ(std::tuple(field, log, int16_get(h, 0, &field, &err)),
            std::tuple(300, Writes{{&field, 2}, {&field, 2}}, &field));
  // A NULL field is left to the caller by get, and is 22 for get_value.
  EXPECT_EQ(u_int8_get(h, 0, nullptr, &err), nullptr);
  EXPECT_EQ((Codes{err, u_int32_get_value(h, 0, nullptr, &err), err}), (Codes{0, 0, 22}));
  // With a code pending, set_value alone still stores (and keeps the code); set does not,
  // and get answers NULL.
  int16_set_value(h, 0, &field, 1, &err);
  int16_set(h, 0, &field, &src, &err);
  int16_set_value(h, 0, nullptr, 2, &err);
  EXPECT_EQ(std::tuple(field, int16_get(h, 0, &field, &err), err, log.size(), log.back()),
            std::tuple(1, nullptr, 22u, size_t{3}, std::pair<void *, uint32_t>(&field, 2)));
  uint32_t a = 1, b = 2;
  uint8_t one = 1;
  EXPECT_NE(u_int32_hash(&a, 7), u_int32_hash(&b, 7));
  EXPECT_NE(u_int32_hash(&a, 7), u_int32_hash(&a, 8));
  EXPECT_NE(u_int8_hash(&one, 7), u_int32_hash(&a, 7)) << "the width is mixed in";
  EXPECT_EQ(int16_hash(nullptr, 99u), 99u);
}

TEST_F(Wex, PrefixItemsGoldenBytesRoundTripAndFramingAfterAFailure) {
  int8_t variant = -3;
  uint8_t flags = 0x28, ra_byte = 0x99, b2 = 0;
  uint64_t ra = 0x0102030405060708ull, ra2 = 0;
  uint32_t jump = 0x0A0B0C0D, j2 = 0;
  uint8_t *p = buf;
  p += _wex_instance_variant_marshal(h, 0, p, &variant, 64, &err);
  p += _wex_instance_obj_flag_marshal(h, 0, p, &flags, 63, &err);
  p += _wex_instance_ra_data_marshal(h, 0, p, &ra, &ra_byte, 62, &err);
  p += _wex_variant_jump_marshal(h, 0, p, &jump, 53, &err);
  ASSERT_EQ(bytes(buf, p - buf),
            (Bytes{0xFD, 0x28, 1, 2, 3, 4, 5, 6, 7, 8, 0x99, 0x0A, 0x0B, 0x0C, 0x0D}));
  EXPECT_EQ(_wex_instance_ra_data_unmarshal(h, 0, buf + 2, &ra2, &b2, 9, &err), 9u);
  EXPECT_EQ(std::tuple(err, ra2, b2), std::tuple(0u, ra, ra_byte));

  // A record whose type the domain refuses still encodes its 6-byte prefix;
  // too little room or input handles nothing and keeps the first code.
  err = WEX_ERR_VARIANT;
  jump = 4;
  p = buf;
  p += _wex_instance_variant_marshal(h, 0, p, &variant, 6, &err);
  p += _wex_instance_obj_flag_marshal(h, 0, p, &flags, 5, &err);
  p += _wex_variant_jump_marshal(h, 0, p, &jump, 4, &err);
  EXPECT_EQ(bytes(buf, p - buf), (Bytes{0xFD, 0x28, 0, 0, 0, 4}));
  EXPECT_EQ((Codes{_wex_variant_jump_marshal(h, 0, p, &jump, 3, &err),
                   _wex_instance_ra_data_unmarshal(h, 0, buf, &ra2, &b2, 8, &err),
                   _wex_variant_jump_unmarshal(h, 0, buf + 2, &j2, 4, &err), j2, err}),
            (Codes{0, 0, 4, 4, WEX_ERR_VARIANT}));
}

TEST_F(Wex, MessageHeaderGoldenBytesRoundTripAndRefusals) {
  // The record as message objects carry it: marker, six 0xFF, tracking,
  // then stamp and total length in host order.
  uint8_t rec[16] = {0xBC, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1}, out[16] = {};
  const uint32_t stamp_total[2] = {0x11223344, 64};
  std::memcpy(rec + 8, stamp_total, 8);
  EXPECT_EQ((Codes{_wex_message_header_marshal(h, 0, buf, rec, 26, &err), err}),
            (Codes{0, WEX_ERR_NOROOM}));
  err = 0;
  ASSERT_EQ(_wex_message_header_marshal(h, 0, buf, rec, 27, &err), 27u);
  EXPECT_EQ(bytes(buf, 27), (Bytes{0xBC, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x01,
                                   0x00, 0x1B, 0x11, 0x22, 0x33, 0x44, 0x00, 0x00, 0x00,
                                   0x40, 0,    0,    0,    0,    0,    0,    0,    0}));
  // Message objects keep the record at byte 11, so it is never aligned.
  alignas(8) uint8_t object[40] = {};
  EXPECT_EQ(_wex_message_header_unmarshal(h, 0, buf, object + 11, 64, &err), 27u);
  EXPECT_EQ(std::tuple(bytes(object + 11, 16), err), std::tuple(bytes(rec, 16), 0u));
  // Fewer bytes than the header or than the total length it announces, and
  // an all-zero header (a message whose encoding failed), are all 74.
  const uint8_t zeros[64] = {};
  for (auto [wire, len] : {std::pair<const uint8_t *, int>{buf, 63}, {buf, 26}, {zeros, 64}}) {
    err = 0;
    EXPECT_EQ((std::tuple{_wex_message_header_unmarshal(h, 0, wire, out, len, &err), err}),
              (std::tuple{0u, WEX_ERR_TRUNCATED}));
    EXPECT_EQ(bytes(out, 16), Bytes(16, 0));
  }
}

TEST_F(Wex, BulkArraysMatchElementByElementCalls) {
  const int16_t elems[5] = {1, -1, 300, -300, 0x7FFF};
  uint8_t each[16] = {}, bulk[16] = {};
  uint32_t err_each = 0, err_bulk = 0, written = 0;
  // Room for three and a half elements: both forms stop at the same byte.
  for (const int16_t &e : elems)
    written += int16_marshal(h, 0, each + written, &e, 7 - int32_t(written), &err_each);
  EXPECT_EQ(wex_int16_array_marshal(h, 0, bulk, elems, 5, 7, &err_bulk), written);
  EXPECT_EQ(std::tuple(written, bytes(each, 16), err_each, err_bulk),
            std::tuple(6u, bytes(bulk, 16), WEX_ERR_NOROOM, WEX_ERR_NOROOM));

  const uint32_t words[2] = {0x01020304, 0xA0B0C0D0};
  uint32_t back[2] = {};
  ASSERT_EQ(wex_u_int32_array_marshal(h, 0, buf, words, 2, 8, &err), 8u);
  EXPECT_EQ(bytes(buf, 8), (Bytes{1, 2, 3, 4, 0xA0, 0xB0, 0xC0, 0xD0}));
  EXPECT_EQ(
      (Codes{wex_u_int32_array_unmarshal(h, 0, buf, back, 2, 7, &err), err, back[0], back[1]}),
      (Codes{4, WEX_ERR_TRUNCATED, words[0], 0}));
}

// The declared byte form is what the items above write: the golden bytes of each
// item agree with the widths and order it claims.
TEST_F(Wex, ByteFormDeclaresWhatTheItemsWriteAndCanBeWithheld) {
  const wex_byte_form *f = wex_byte_form_get(h);
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(bytes(&f->version, 4), host(WEX_BYTE_FORM_VERSION));
  EXPECT_EQ((Bytes{f->byte_order, f->variant_size, f->flags_size, f->jump_size, f->ra_size,
                   f->twos_complement, f->header_direct}),
            (Bytes{WEX_BYTE_ORDER_BIG, 1, 1, 4, 9, 1, 1}));
  const int16_t minus2 = -2;
  EXPECT_EQ((std::tuple{int16_marshal(h, 0, buf, &minus2, 64, &err), bytes(buf, 2)}),
            (std::tuple{uint32_t{f->prim_size[2]}, Bytes{0xFF, 0xFE}}));
  EXPECT_EQ(bytes(f->prim_size, 6), (Bytes{1, 1, 2, 2, 4, 4}));
  // Withheld per handle, for a library to behave as on a runtime without the capability.
  wex_handle_declare_byte_form(h, 0);
  EXPECT_EQ(wex_byte_form_get(h), nullptr);
  std::unique_ptr<wex_handle, decltype(&wex_handle_free)> other{wex_handle_new(), wex_handle_free};
  EXPECT_EQ(wex_byte_form_get(other.get()), f);
  wex_handle_declare_byte_form(h, 1);
  EXPECT_EQ(wex_byte_form_get(h), f);
}

// Domain generations: 0 while no variant is set, and a value no domain had before after
// every change, so a cache keyed by it never mixes two domains' answers.
TEST_F(Wex, DomainGenerationsChangeWithEveryVariantSet) {
  std::unique_ptr<wex_handle, decltype(&wex_handle_free)> other{wex_handle_new(), wex_handle_free};
  wex_handle *h2 = other.get();
  EXPECT_EQ((std::vector<uint64_t>{wex_domain_generation(h, &h->domain),
                                   wex_domain_generation(h2, &h2->domain),
                                   wex_domain_generation(h, nullptr)}),
            (std::vector<uint64_t>{0, 0, 0}));
  const char *luid = "0123456789abcdef0123456789abcdef";
  std::vector<uint64_t> seen;
  for (wex_handle *x : {h, h2, h, h})
    wex_domain_set_variant(x, luid, 0), seen.push_back(wex_domain_generation(x, &x->domain));
  EXPECT_EQ(std::set<uint64_t>(seen.begin(), seen.end()).size(), seen.size());
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
  wex_domain_set_message_allowed(h, luid, 0);  // admission is not a variant answer
  EXPECT_EQ(wex_domain_generation(h, &h->domain), seen.back());
}

// ---- Handle, errors, domains and instances ------------------------------------------
// Registration, statistics, state-tracking offsets and oid mappings are
// checked through generated records in tests/runtime.

TEST_F(Wex, CHeaderIsUsableFromC) {
  EXPECT_EQ(wex_c_header_check(h), 4u + 0u + 272u);
}

TEST_F(Wex, ErrorStoreKeepsHandleSlotAndLastErrorApart) {
  wex_store_epoch_err(h, WEX_ERR_VARIANT, &err);
  EXPECT_EQ((Codes{err, wex_get_last_error(h), h->error}), (Codes{43, 43, 0}));
  wex_store_err(h, WEX_ERR_NOMEM);
  EXPECT_EQ((Codes{wex_get_last_error(h), h->error}), (Codes{12, 12}));
  wex_clear_last_error(h);
  EXPECT_EQ((Codes{wex_get_last_error(h), h->error}), (Codes{0, 12}));
  wex_store_epoch_err(h, WEX_ERR_DOMAIN, nullptr);
  EXPECT_EQ(wex_get_last_error(h), WEX_ERR_DOMAIN);
}

TEST_F(Wex, AllocationLimitScratchBufferAndForeignContext) {
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, WEX_DEFAULT_ALLOC_LIMIT + 1), nullptr);
  wex_handle_set_alloc_limit(h, 100);
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, 101), nullptr);
  EXPECT_EQ(h->type_alloc(h->type_alloc_ctx, 0xFFFFFFFFu, WEX_TYPE_INFO_COPY_SIZE), nullptr);
  void *p = h->allocate(h->alloc_ctx, 0, 100), *scratch = nullptr, *again = nullptr;
  EXPECT_NE(p, nullptr);
  h->release(h->alloc_ctx, 0, p);

  uint32_t len = 0;
  wexlib_get_handle_ws(h, &scratch, &len);
  ASSERT_NE(scratch, nullptr);
  std::memset(scratch, 0x5A, len);  // the whole buffer is usable, and stays put
  wexlib_get_handle_ws(h, &again, &len);
  EXPECT_EQ(std::tuple(again, len), std::tuple(scratch, WEX_HANDLE_WS_SIZE));

  // Observing the hooks means owning alloc_ctx; allocation must go on, with
  // the default limit.
  record_writes();
  void *u8 = u_int8_create(h, 0);
  ASSERT_NE(u8, nullptr);
  EXPECT_EQ(*static_cast<uint8_t *>(u8), 0);
  u_int8_destroy(h, 0, u8);
  EXPECT_EQ(h->allocate(h->alloc_ctx, 0, WEX_DEFAULT_ALLOC_LIMIT + 1), nullptr);
}

// An instance as generated records lay it out: type pointer, variant,
// initial variant, flags.
struct Instance {
  wex_type_info *type;
  int8_t variant, initial_variant;
  uint8_t flags, fields[21];
};

TEST_F(Wex, DomainLookupsInstanceQueriesAndHandleDataMapping) {
  wex_variant_info two_variants = {2, {}, nullptr};
  wex_type_info two{.magic = WEX_TYPE_INFO_MAGIC,
                    .luid = {0xA0, 0xA1},
                    .luid_text = "0123456789abcdef0123456789abcdef",
                    .variant_info = &two_variants};
  wex_type_info bare{.magic = WEX_TYPE_INFO_MAGIC, .luid_text = "fedcba9876543210fedcba9876543210"};
  auto lookups = [&] {
    return std::vector<int>{wex_domain_lookup_variant(h, &h->domain, &two, &err),
                            wex_domain_lookup_variant(h, &h->domain, &bare, &err),
                            wex_domain_lookup_message_ok(h, &h->domain, &two, &err) != 0,
                            wex_domain_lookup_message_ok(h, &h->domain, &bare, &err) != 0};
  };
  EXPECT_EQ(lookups(), (std::vector<int>{1, 0, 1, 1})) << "the latest variant by default";
  wex_domain_set_variant(h, two.luid_text, -1);
  wex_domain_set_variant(h, bare.luid_text, 1000);
  wex_domain_set_message_allowed(h, two.luid_text, 0);
  EXPECT_EQ(lookups(), (std::vector<int>{-1, 127, 0, 1}));
  EXPECT_EQ((Codes{err, uint8_t(wex_domain_lookup_variant(h, &h->domain, nullptr, &err)), err}),
            (Codes{0, 0xFF, WEX_ERR_INVALID}));

  Instance inst{&two, -2, 0, 0, {}};
  uint8_t luid[16] = {};
  err = 0;
  EXPECT_EQ((Codes{wex_get_luid(h, 0, &inst, luid, &err), wex_get_luid(h, 0, nullptr, luid, &err),
                   err, wex_get_luid(h, 0, &inst, luid, &err)}),
            (Codes{0, 22, 22, 22}))
      << "then the pending slot is answered";
  EXPECT_EQ(bytes(luid, 16), bytes(two.luid, 16));
  err = 0;
  bare.magic = 0;
  wexlib_adjust_variant(h, 0, &inst, &bare, 0, &err);  // only checks: one layout per type
  EXPECT_EQ((Codes{err, uint8_t(inst.variant)}), (Codes{WEX_ERR_INVALID, 0xFE}));

  err = 0;
  wex_hd_mapping_create(h, &inst);
  wex_mapping_fail_next(h, 16);
  EXPECT_EQ((Codes{inst.flags, wex_hd_mapping_destroy(h, 0, &inst, &err), err,
                   uint32_t(wex_hd_mapping_exists(h, &inst))}),
            (Codes{WEX_OBJ_FLAG_HD, 16, 16, 1}));
  err = 0;
  EXPECT_EQ((Codes{wex_hd_mapping_destroy(h, 0, &inst, &err), err,
                   uint32_t(wex_hd_mapping_exists(h, &inst)),
                   wex_hd_mapping_destroy(h, 0, &inst, nullptr)}),
            (Codes{0, 0, 0, 0}));
}

// ---- Text and XML -------------------------------------------------------------------

// Each writer's exact text, and at every room from 0 to one past it: what fits of it,
// NUL-terminated, 90 when it did not all fit, nothing at all written into no room; a
// pending code stops all of them but end_tag, which closes the element (so output stays
// well formed) and keeps the code.
TEST_F(Wex, WritersExactTextCutAtEveryRoomAndPendingCode) {
  // clang-format off
#define W(call) [&](char *p, int32_t r, uint32_t *e) { return call; }
#define V(T, v) host<T>(v).data()
  const std::pair<std::function<int32_t(char *, int32_t, uint32_t *)>, std::string> cases[] = {
      {W(u_int8_print(h, 0, p, 2, "is_present", V(uint8_t, 1), r, e)), "  is_present@u_int8:1\n"},
      {W(int16_print(h, 0, p, 0, "temp", V(int16_t, -5), r, e)), "temp@int16:-5\n"},
      {W(u_int32_print(h, 0, p, 4, "bm", V(uint32_t, ~0u), r, e)), "    bm@u_int32:4294967295\n"},
      {W(int32_print(h, 0, p, 1, "t", V(int32_t, INT32_MIN), r, e)), " t@int32:-2147483648\n"},
      {W(int8_print(h, 0, p, 0, nullptr, V(int8_t, 0), r, e)), "@int8:0\n"},
      {W(u_int16_print(h, 0, p, 0, "w", V(uint16_t, 65535), r, e)), "w@u_int16:65535\n"},
      {W(int8_to_xml(h, 0, "offset", p, V(int8_t, -128), r, 0, e)), "<offset>-128</offset>\n"},
      {W(u_int16_to_xml(h, 0, "u", p, V(uint16_t, 65535), r, 2, e)), "<u state=\"2\">65535</u>\n"},
      {W(u_int8_to_xml(h, 0, "b", p, V(uint8_t, 200), r, 255, e)), "<b state=\"255\">200</b>\n"},
      {W(int32_to_xml(h, 0, "i", p, V(int32_t, INT32_MIN), r, 0, e)), "<i>-2147483648</i>\n"},
      {W(u_int32_to_xml(h, 0, "n", p, V(uint32_t, 0), r, 0, e)), "<n>0</n>\n"},
      {W(int16_to_xml(h, 0, "s", p, V(int16_t, -32768), r, 1, e)), "<s state=\"1\">-32768</s>\n"},
      {W(start_tag(h, 0, p, "rec", r, 0, e)), "<rec>\n"},
      {W(start_tag(h, 0, p, "rc", r, 3, e)), "<rc state=\"3\">\n"},
      {W(end_tag(h, 0, p, "rc", r, e)), "</rc>\n"},
      {W(xml_enum_print(h, 0, p, "<SUCCESS_RC/>trailing", r, 13, e)), "<SUCCESS_RC/>"},
      {W(wex_print_space(h, 0, p, 4, r, e)), "    "},
      {W(wex_snprintf(h, 0, p, r, e, "%s=%d", "value", 42)), "value=42"},
      {W(wex_snprintf(h, 0, p, r, e, "%s@%s: {\n", "info", "wex_xcvr_info")), "info@wex_xcvr_info: {\n"},
      {W(wex_snprintf(h, 0, p, r, e, "%u%%%i|%s", 4000000000u, -7, "")), "4000000000%-7|"},
      {W(wex_snprintf(h, 0, p, r, e, "%04x|%-3s|%ld", 0xAB, "a", -9L)), "00ab|a  |-9"}};
  // clang-format on
  char text[64];
  for (const auto &[write, want] : cases) {
    const auto n = static_cast<int32_t>(want.size());
    const bool closes = want == "</rc>\n";
    for (int32_t room = 0; room <= n + 1; ++room) {
      std::strcpy(text, "keep");
      uint32_t e = 0;
      const int32_t stored = room ? std::min(n, room - 1) : 0;
      EXPECT_EQ((std::tuple{write(text, room, &e), std::string(text), e}),
                (std::tuple{stored, room ? want.substr(0, stored) : "keep",
                            room > n ? 0u : WEX_ERR_NOROOM}))
          << want << " room " << room;
    }
    uint32_t pending = WEX_ERR_VARIANT;
    std::strcpy(text, "keep");
    EXPECT_EQ((std::tuple{write(text, 64, &pending), std::string(text), pending}),
              (std::tuple{closes ? n : 0, closes ? want : "keep", WEX_ERR_VARIANT}));
  }
  EXPECT_EQ((Codes{uint32_t(u_int32_print(h, 0, text, 0, "x", buf, 0, &err)), err}),
            (Codes{0, 90}));
  err = 0;
  EXPECT_EQ(u_int8_print(h, 0, text, 0xFFFFFFFFu, "x", buf, 16, &err), 15);
  EXPECT_EQ(text, std::string(15, ' ')) << "a huge indentation is bounded by the room";
  err = 0;
  EXPECT_EQ((Codes{uint32_t(wex_snprintf(h, 0, text, 1, &err, "%s", "")), err}), (Codes{0, 0}))
      << "an empty text fits any room";
  const int32_t n = start_tag_timestamp(h, 0, text, "bix_ipc_shim", sizeof text, &err);
  EXPECT_EQ(std::tuple(n, err), std::tuple(static_cast<int32_t>(std::strlen(text)), 0u));
  EXPECT_TRUE(std::regex_match(
      text, std::regex(R"(<bix_ipc_shim timestamp="\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z">\n)")))
      << text;
  err = 1;
  EXPECT_EQ(start_tag_timestamp(h, 0, text, "x", sizeof text, &err), 0);
}

using Doc = std::unique_ptr<void, decltype(&wex_xml_doc_free)>;
Doc parse(const std::string &text) {
  return {wex_xml_doc_parse(text.data(), text.size()), wex_xml_doc_free};
}

TEST(WexXml, QueriesByPath) {
  EXPECT_EQ(std::tuple(parse("<a><b></a>").get(), parse("").get(), wex_xml_doc_parse(nullptr, 3)),
            std::tuple(nullptr, nullptr, nullptr));
  Doc doc = parse(
      "<msg>\n  <app_sess_hdr><session_id>7</session_id></app_sess_hdr>\n"
      "  <rec>\n    <slot> 3 </slot>\n    <data>10</data><data>11</data><data>12</data>\n"
      "    <rc><WEX_XCVR_SUCCESS_RC/></rc>\n"
      "    <temp><value>-40</value></temp>\n    <temp><value>85</value></temp>\n  </rec>\n"
      "  <a><b>1</b><b>2</b></a><a><b>3</b></a>\n</msg>\n");
  // path, value room, answer, value (NULL: not checked), node count
  // clang-format off
  const std::tuple<const char *, uint32_t, int, const char *, uint32_t> cases[] = {
      {"msg/rec/slot", 32, 0, " 3 ", 1},        {"//rec/data[2]", 32, 0, "11", 1},
      {"//rec/temp[2]/value", 32, 0, "85", 1},  {"//session_id", 32, 0, "7", 1},
      {"//rec/rc/WEX_XCVR_SUCCESS_RC", 4, 0, "", 1},
      {"//app_sess_hdr", 1, 0, "", 1},          {"//app_sess_hdr", 0, 0, nullptr, 1},
      {"//rec/data", 32, 0, "10", 3},           {"//value", 32, 0, "-40", 2},
      {"//a/b[1]", 32, 0, "1", 2},  // the first b of each a, as XPath says
      {"//a/b[2]", 32, 0, "2", 1},              {"/msg/a[2]/b", 32, 0, "3", 1},
      {"//rec/data[4]", 32, 2, nullptr, 0},     {"//rec/data[0]", 32, 2, nullptr, 0},
      {"//rec/missing", 32, 2, nullptr, 0},     {"//nowhere/slot", 32, 2, nullptr, 0},
      {"//rec/[", 32, 22, nullptr, 22},         {"", 32, 22, nullptr, 22}};
  // clang-format on
  for (const auto &[path, room, rc, want, count] : cases) {
    char value[32] = "untouched";
    uint32_t n = 99;
    EXPECT_EQ(xml_get_element_value(doc.get(), path, room ? value : nullptr, room, 0), rc) << path;
    EXPECT_STREQ(want ? value : nullptr, want) << path;
    const int count_rc = xml_get_element_nodecount(doc.get(), path, &n);
    EXPECT_EQ(std::tuple(count_rc, rc == 22 ? count : n), std::tuple(rc == 22 ? 22 : 0, count))
        << path;
  }
  EXPECT_EQ(xml_get_element_value(nullptr, "//rec", nullptr, 0, 0), 22);

  std::string text = "<r><arr>";
  for (int k = 0; k < 2000; ++k) text += "<data>" + std::to_string(k % 256) + "</data>";
  doc = parse(text + "</arr></r>");
  char path[64], value[8];
  for (int k = 1; k <= 2001; ++k) {  // long arrays resolve every element
    std::snprintf(path, sizeof path, "//arr/data[%d]", k);
    ASSERT_EQ(xml_get_element_value(doc.get(), path, value, sizeof value, 0), k > 2000 ? 2 : 0);
    ASSERT_EQ(value, k > 2000 ? value : std::to_string((k - 1) % 256)) << k;
  }
}

// On a refusal the field keeps its bytes (0x2A) and the reason is explained.
TEST_F(Wex, FromXmlParsesDecimalsAtEveryWidthLimitAndExplainsRefusals) {
  Doc doc = parse(
      "<r><u8>255</u8><u8big>256</u8big><i8>-128</i8><i8low>-129</i8low>"
      "<i16>\n  -32768 </i16><u16>65535</u16><u32>4294967295</u32><neg>-1</neg>"
      "<i32>-2147483648</i32><huge>99999999999999999999999</huge>"
      "<junk>12a</junk><plus>+5</plus><hex>0x10</hex><empty></empty><blank> </blank></r>");
  using Parse =
      void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);
  const Bytes kept{0x2A}, kept4(4, 0x2A);
  // clang-format off
  const std::tuple<Parse, const char *, uint32_t, Bytes, std::string> cases[] = {
      {u_int8_from_xml, "//u8", 0, host<uint8_t>(255), ""},
      {int8_from_xml, "//i8", 0, host<int8_t>(-128), ""},
      {int16_from_xml, "//i16", 0, host<int16_t>(-32768), ""},
      {u_int16_from_xml, "//u16", 0, host<uint16_t>(65535), ""},
      {u_int32_from_xml, "//u32", 0, host<uint32_t>(4294967295u), ""},
      {int32_from_xml, "//i32", 0, host<int32_t>(INT32_MIN), ""},
      {u_int8_from_xml, "//u8big", 34, kept, "Value out of range for u_int8 at //u8big: \"256\""},
      {int8_from_xml, "//i8low", 34, kept, "Value out of range for int8 at //i8low: \"-129\""},
      {u_int32_from_xml, "//neg", 34, kept4, "Value out of range for u_int32 at //neg: \"-1\""},
      {u_int8_from_xml, "//huge", 34, kept, ""},   {u_int8_from_xml, "//plus", 22, kept, ""},
      {u_int8_from_xml, "//junk", 22, kept, "Not a decimal u_int8 at //junk: \"12a\""},
      {u_int8_from_xml, "//hex", 22, kept, ""},    {u_int8_from_xml, "//empty", 22, kept, ""},
      {u_int8_from_xml, "//blank", 22, kept, ""},  {u_int8_from_xml, "//absent", 2, kept, ""},
      {u_int8_from_xml, "//r/[", 22, kept, "Failed xpath: //r/["}};
  // clang-format on
  for (const auto &[parse_fn, path, code, want, msg] : cases) {
    uint8_t field[4] = {0x2A, 0x2A, 0x2A, 0x2A};
    char text[128] = "";
    err = 0;
    parse_fn(h, 0, path, doc.get(), field, &err, text, sizeof text);
    EXPECT_EQ(std::tuple(err, bytes(field, want.size())), std::tuple(code, want)) << path;
    EXPECT_EQ(msg.empty() ? msg : std::string(text), msg);
  }
  char tiny[8];
  err = 0;
  u_int8_from_xml(h, 0, "//junk", doc.get(), buf, &err, tiny, sizeof tiny);
  EXPECT_STREQ(tiny, "Not a d");
}

}  // namespace
