// Enumerations and flag sets: values, range rules, text, XML and wire forms.
#include <gtest/gtest.h>

#include <memory>

#include "../runtime/support.h"
#include "superfasthash.h"

using namespace bixtest;

namespace {

// Every enumeration and flag set, with the signatures their operations share.

struct Leaf {
  std::string name;
  bool is_enum;
};
std::vector<Leaf> leaves() {
  std::vector<Leaf> out;
  for (const wex_type_info *t : all_types()) {
    if (!std::strcmp(t->kind, "enum")) out.push_back({t->type_name, true});
    if (!std::strcmp(t->kind, "flag")) out.push_back({t->type_name, false});
  }
  return out;
}

std::vector<uint8_t> encode(wex_handle *h, const std::string &type, const void *inst, uint32_t *err) {
  std::vector<uint8_t> buf(64, 0xCC);
  uint32_t n = op<MarshalFn>(type, "marshal")(h, 0, buf.data(), inst, 64, err);
  buf.resize(n);
  return buf;
}

TEST(LeafWire, GoldenBytesOfEachShape) {
  Handle h;
  uint32_t err = 0;
  auto *t = wex_xcvr_type_create(h, 0);
  wex_xcvr_type_set_value(h, 0, t, WEX_XCVR_TYPE_MSA, &err);
  EXPECT_EQ(encode(h, "wex_xcvr_type", t, &err), (std::vector<uint8_t>{0, 0, 0, 0, 2}));
  wex_xcvr_type_set_value(h, 0, t, 0, &err);  // 0 is no literal: travels unchanged
  EXPECT_EQ(encode(h, "wex_xcvr_type", t, &err), (std::vector<uint8_t>{0, 0, 0, 0, 0}));
  auto *rc = wex_xcvr_rc_create(h, 0);
  wex_xcvr_rc_set_value(h, 0, rc, WEX_XCVR_SUCCESS_RC, &err);
  EXPECT_EQ(encode(h, "wex_xcvr_rc", rc, &err), (std::vector<uint8_t>{0, 0, 0, 0, 15}));
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  wex_xcvr_status_bitmap_set_value(h, 0, bm, WEX_XCVR_STATUS_BM_PRESENT, 1, &err);
  wex_xcvr_status_bitmap_set_value(h, 0, bm, WEX_XCVR_STATUS_BM_IDPROM_BUS, 1, &err);
  EXPECT_EQ(encode(h, "wex_xcvr_status_bitmap", bm, &err),
            (std::vector<uint8_t>{0, 0, 0, 0, 6, 0x01, 0x10}));
  auto *st = wex_bix_env_sensor_type_create(h, 0);
  wex_bix_env_sensor_type_set_value(h, 0, st, WEX_BIX_ENV_ALL_SENSORS, 1, &err);
  EXPECT_EQ(encode(h, "wex_bix_env_sensor_type", st, &err), (std::vector<uint8_t>{0, 0, 0, 0, 5, 0x08}));
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(wex_xcvr_status_bitmap_len(h, 0, bm), 7u);
  EXPECT_EQ(wex_bix_env_sensor_type_len(h, 0, nullptr), 6u);
  EXPECT_EQ(wex_xcvr_rc_len(h, 0, nullptr), 5u);
  h->error = 1;
  EXPECT_EQ(wex_xcvr_rc_len_cr(h, rc), 0u);
  h->error = 0;
  wex_xcvr_type_destroy(h, 0, t);
  wex_xcvr_rc_destroy(h, 0, rc);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
  wex_bix_env_sensor_type_destroy(h, 0, st);
}

TEST(LeafWire, RoundTripOfEveryLiteralAndFlagOfEveryType) {
  Handle h;
  for (const Leaf &l : leaves()) {
    void *src = op<CreateFn>(l.name, "create")(h, 0);
    void *dst = op<CreateFn>(l.name, "create")(h, 0);
    uint32_t err = 0;
    std::vector<uint32_t> values;
    if (l.is_enum) {
      for (uint32_t v = 0; v <= 16; ++v) values.push_back(v);
    } else {
      for (uint32_t f = 0; f < 13; ++f) values.push_back(f);
    }
    for (uint32_t v : values) {
      if (l.is_enum) {
        std::memcpy(static_cast<uint8_t *>(src) + 12, &v, 4);  // any stored value travels
      } else {
        op<void (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t, uint32_t *)>(l.name, "set_value")(
            h, 0, src, v, 1, &err);
        err = 0;  // numbers beyond the set are refused; the rest keeps accumulating
      }
      auto bytes = encode(h, l.name, src, &err);
      ASSERT_EQ(err, 0u) << l.name;
      ASSERT_EQ(bytes.size(), op<LenFn>(l.name, "len")(h, 0, src)) << l.name;
      uint32_t got = op<UnmarshalFn>(l.name, "unmarshal")(h, 0, bytes.data(), dst,
                                                        static_cast<int32_t>(bytes.size()), 0, &err);
      ASSERT_EQ(got, bytes.size()) << l.name;
      ASSERT_EQ(err, 0u) << l.name;
      size_t n = l.is_enum ? 4 : 13;
      // Shifted enumerations deliver user value 1 for a stored 0 (both travel as 0).
      uint32_t want = v, have;
      std::memcpy(&have, static_cast<uint8_t *>(dst) + 12, 4);
      if (l.is_enum && wex_get_manifested_type_info(src) && (l.name == "wex_xcvr_type" ||
          l.name == "wex_ipc_shim_appl_id" || l.name == "wex_xcvr_rpc_req_type") && v == 0)
        want = 1;
      if (l.is_enum)
        EXPECT_EQ(have, want) << l.name << " value " << v;
      else
        EXPECT_EQ(0, std::memcmp(static_cast<uint8_t *>(src) + 11, static_cast<uint8_t *>(dst) + 11, n))
            << l.name;
    }
    op<DestroyFn>(l.name, "destroy")(h, 0, src);
    op<DestroyFn>(l.name, "destroy")(h, 0, dst);
  }
  EXPECT_TRUE(h.live.empty());
}

TEST(LeafWire, DecodeMapsWireValuesAndCapsVariants) {
  Handle h;
  uint32_t err = 0;
  auto *a = wex_ipc_shim_appl_id_create(h, 0);
  const uint8_t five[] = {0, 0, 0, 0, 5};  // N or more arrives unchanged
  EXPECT_EQ(wex_ipc_shim_appl_id_unmarshal(h, 0, five, a, 5, 0, &err), 5u);
  EXPECT_EQ(a->value, 5u);
  const uint8_t four[] = {7, 0, 0, 0, 4};  // newer variant, capped to ours
  wex_ipc_shim_appl_id_unmarshal(h, 0, four, a, 5, 0, &err);
  EXPECT_EQ(a->value, 5u);
  EXPECT_EQ(a->variant, 0);
  auto *r = wex_xcvr_rpc_req_type_create(h, 0);
  wex_xcvr_rpc_req_type_unmarshal(h, 0, four, r, 5, 0, &err);
  EXPECT_EQ(r->variant, 1);
  EXPECT_EQ(r->value, 5u);
  const uint8_t neg[] = {0xFE, 0, 0, 0, 0};
  wex_xcvr_rpc_req_type_unmarshal(h, 0, neg, r, 5, 0, &err);
  EXPECT_EQ(r->variant, -2);
  EXPECT_EQ(err, 0u);
  wex_ipc_shim_appl_id_destroy(h, 0, a);
  wex_xcvr_rpc_req_type_destroy(h, 0, r);
}

// A decoder given any prefix of a valid encoding stays inside it and says why it stopped.
TEST(LeafWire, TruncatedInputNeverReadsPastTheGivenLength) {
  Handle h;
  for (const Leaf &l : leaves()) {
    void *inst = op<CreateFn>(l.name, "create")(h, 0);
    uint32_t err = 0;
    auto bytes = encode(h, l.name, inst, &err);
    for (size_t cut = 0; cut < bytes.size(); ++cut) {
      std::unique_ptr<uint8_t[]> exact(new uint8_t[cut ? cut : 1]);
      std::memcpy(exact.get(), bytes.data(), cut);
      err = 0;
      uint32_t got = op<UnmarshalFn>(l.name, "unmarshal")(h, 0, exact.get(), inst,
                                                        static_cast<int32_t>(cut), 0, &err);
      EXPECT_LE(got, cut) << l.name;
      EXPECT_EQ(err, cut ? 74u : 12u) << l.name << " cut at " << cut;
    }
    op<DestroyFn>(l.name, "destroy")(h, 0, inst);
  }
}

TEST(LeafWire, JumpStepsOverANewerSendersBytesButNeverPastTheInput) {
  Handle h;
  Traces tr;
  uint32_t err = 0;
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  const uint8_t longer[] = {0, 0, 0, 0, 7, 0x03, 0x00, 0xEE};
  EXPECT_EQ(wex_xcvr_status_bitmap_unmarshal(h, 0, longer, bm, 8, 0, &err), 8u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(bm->bits[0], 0x03);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_INFO, "offset_jump read_len 7 offset_jump_base 1 _wex_variant_jump 7"));
  const uint8_t hostile[] = {0, 0xFF, 0xFF, 0xFF, 0xF0, 0x01, 0x00};
  EXPECT_EQ(wex_xcvr_status_bitmap_unmarshal(h, 0, hostile, bm, 7, 0, &err), 7u);
  EXPECT_EQ(err, 74u);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
}

TEST(LeafWire, EncoderStaysInsideTheRoomItIsGiven) {
  Handle h;
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  for (int32_t room = 1; room < 7; ++room) {
    uint8_t buf[16];
    std::memset(buf, 0xCC, sizeof buf);
    uint32_t err = 0;
    uint32_t n = wex_xcvr_status_bitmap_marshal(h, 0, buf, bm, room, &err);
    EXPECT_LE(n, static_cast<uint32_t>(room));
    EXPECT_EQ(err, 90u) << room;
    for (int i = room; i < 16; ++i) EXPECT_EQ(buf[i], 0xCC) << "room " << room << " byte " << i;
  }
  uint8_t buf[8];
  uint32_t err = 0;
  EXPECT_EQ(wex_xcvr_status_bitmap_marshal(h, 0, buf, bm, 0, &err), 0u);
  EXPECT_EQ(err, 12u);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
}

TEST(LeafWire, VariantAboveTheDomainIsSentAsTheDomainsWith43) {
  Handle h;
  auto *r = wex_xcvr_rpc_req_type_create(h, 0);
  r->variant = 1;
  wex_domain_set_variant(h, "8c143740dccd51f4378fb436c8e99ff1", 0);
  uint32_t err = 0;
  uint8_t buf[5] = {0xCC};
  EXPECT_LE(wex_xcvr_rpc_req_type_marshal(h, 0, buf, r, 5, &err), 5u);
  EXPECT_EQ(err, 43u);
  EXPECT_EQ(buf[0], 0);  // sent as the domain's variant
  wex_xcvr_rpc_req_type_destroy(h, 0, r);
}

TEST(LeafValues, RangeRulesFollowTheInstanceVariant) {
  Handle h;
  uint32_t err = 0;
  auto *r = wex_xcvr_rpc_req_type_create(h, 0);
  auto try_set = [&](int8_t variant, uint32_t value) {
    r->variant = variant;
    r->value = 99;
    err = 0;
    wex_xcvr_rpc_req_type_set_value(h, 0, r, value, &err);
    if (err) {
      EXPECT_EQ(r->value, 99u);  // refused: untouched
      return false;
    }
    return r->value == value;
  };
  EXPECT_TRUE(try_set(0, WEX_XCVR_GET_PRESENCE_RPC_OC));
  EXPECT_FALSE(try_set(0, WEX_XCVR_GET_ADAP_IDPROM_RPC_OC));
  EXPECT_EQ(err, 43u);
  EXPECT_TRUE(try_set(1, WEX_XCVR_GET_ADAP_IDPROM_RPC_OC));
  EXPECT_FALSE(try_set(1, 6));
  EXPECT_TRUE(try_set(2, 6));
  EXPECT_TRUE(try_set(0, 0));  // 0 maps to internal 0: accepted
  wex_xcvr_rpc_req_type_destroy(h, 0, r);

  auto *rc = wex_xcvr_rc_create(h, 0);
  err = 0;
  wex_xcvr_rc_set_value(h, 0, rc, 16, &err);
  EXPECT_EQ(err, 43u);
  EXPECT_EQ(rc->value, 0u);
  err = 0;
  wex_xcvr_rc_set_value(h, 0, rc, 0xFFFFFFFFu, &err);  // -1: unsigned here, refused
  EXPECT_EQ(err, 43u);
  rc->variant = 1;
  err = 0;
  wex_xcvr_rc_set_value(h, 0, rc, 16, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(wex_xcvr_rc_get_value(h, 0, rc, &err), 16u);
  auto *src = wex_xcvr_rc_create(h, 0);
  src->value = 16;
  rc->variant = 0;
  wex_xcvr_rc_set(h, 0, rc, src, &err);
  EXPECT_EQ(err, 43u);
  err = 0;
  src->value = 15;
  wex_xcvr_rc_set(h, 0, rc, src, &err);
  EXPECT_EQ(0, std::memcmp(rc, src, 16));  // header included
  EXPECT_EQ(wex_xcvr_rc_get_value(h, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, 22u);
  EXPECT_EQ(wex_xcvr_type_map_to_internal_value(3), 2u);
  EXPECT_EQ(wex_xcvr_type_map_to_internal_value(8), 8u);
  EXPECT_EQ(wex_xcvr_type_map_to_user_value(2), 2u);
  wex_xcvr_rc_destroy(h, 0, rc);
  wex_xcvr_rc_destroy(h, 0, src);
}

TEST(LeafValues, FlagBitsReadAsSignedBytesAndRefuseUnknownNumbers) {
  Handle h;
  uint32_t err = 0;
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  for (uint32_t f : {0u, 7u, 12u}) wex_xcvr_status_bitmap_set_value(h, 0, bm, f, 1, &err);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_value(h, 0, bm, 7, &err), -128);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_value(h, 0, bm, 0, &err), 1);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_value(h, 0, bm, 12, &err), 16);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_value(h, 0, bm, 1, &err), 0);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_cr(h, bm, 7), -128);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(wex_xcvr_status_bitmap_get_value(h, 0, bm, 13, &err), 0);
  EXPECT_EQ(err, 43u);
  err = 0;
  wex_xcvr_status_bitmap_set_value(h, 0, bm, 13, 1, &err);
  EXPECT_EQ(err, 43u);
  bm->variant = 1;
  err = 0;
  uint8_t before[24];
  std::memcpy(before, bm, 24);
  wex_xcvr_status_bitmap_set_value(h, 0, bm, 13, 1, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(0, std::memcmp(before, bm, 24));
  EXPECT_EQ(wex_xcvr_status_bitmap_set_cr(h, bm, 7, 0), 0u);
  EXPECT_EQ(bm->bits[0], 0x01);
  EXPECT_EQ(wex_bix_env_sensor_type_in_range(4), 0u);
  EXPECT_EQ(wex_xcvr_status_bitmap_in_range(4), 1u);

  auto *other = wex_xcvr_status_bitmap_create(h, 0);
  bm->bits[0] = 0, bm->bits[1] = 0x01;     // flag 8
  other->bits[0] = 0x01, other->bits[1] = 0; // flag 0
  EXPECT_LT(wex_xcvr_status_bitmap_compare(bm, other), 0);  // byte 0 decides first
  EXPECT_EQ(wex_xcvr_status_bitmap_compare(nullptr, nullptr), 0);
  EXPECT_EQ(wex_xcvr_status_bitmap_compare(nullptr, bm), -1);
  EXPECT_EQ(wex_xcvr_status_bitmap_compare(bm, nullptr), 1);
  EXPECT_EQ(wex_xcvr_status_bitmap_hash(bm, 77), SuperFastHash(bm->bits, 2, 77));
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
  wex_xcvr_status_bitmap_destroy(h, 0, other);
}

TEST(LeafValues, CompareAndHashOfEnumerations) {
  Handle h;
  auto *a = wex_xcvr_rc_create(h, 0);
  auto *b = wex_xcvr_rc_create(h, 0);
  b->value = 1;
  EXPECT_EQ(wex_xcvr_rc_compare(a, b), -1);
  EXPECT_EQ(wex_xcvr_rc_compare(b, a), 1);
  a->value = 0xFFFFFFFFu;
  EXPECT_EQ(wex_xcvr_rc_compare(a, b), -2);  // wrapping difference read as signed
  EXPECT_EQ(wex_xcvr_rc_compare(nullptr, b), -1);
  EXPECT_EQ(wex_xcvr_rc_hash(b, 9), SuperFastHash(&b->value, 4, 9));
  EXPECT_EQ(wex_xcvr_rc_hash(nullptr, 9), 9u);
  wex_xcvr_rc_destroy(h, 0, a);
  wex_xcvr_rc_destroy(h, 0, b);
}

std::string print(wex_handle *h, const std::string &type, uint32_t indent, const char *name, void *inst) {
  char buf[512] = {};
  uint32_t err = 0;
  int32_t n = op<PrintFn>(type, "print")(h, 0, buf, indent, name, inst, sizeof buf, &err);
  EXPECT_EQ(static_cast<size_t>(n), std::strlen(buf));
  return buf;
}

TEST(LeafText, PrintedForms) {
  Handle h;
  auto *rc = wex_xcvr_rc_create(h, 0);
  rc->value = 15;
  EXPECT_EQ(print(h, "wex_xcvr_rc", 4, "rc", rc), "    rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC\n");
  auto *t = wex_xcvr_type_create(h, 0);
  EXPECT_EQ(print(h, "wex_xcvr_type", 0, "xcvr_type", t), "xcvr_type@wex_xcvr_type:Enum value out of range");
  auto *res = wex_bix_env_result_create(h, 0);
  res->value = 1;
  char buf[128];
  EXPECT_EQ(wex_bix_env_result_print_cr(h, res, buf, sizeof buf), 58);
  EXPECT_STREQ(buf, "wex_bix_env_result@wex_bix_env_result:WEX_BIX_ENV_SUCCESS\n");
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  EXPECT_EQ(print(h, "wex_xcvr_status_bitmap", 2, "status", bm), "  status@wex_xcvr_status_bitmap:\n");
  bm->bits[0] = 0x03;
  EXPECT_EQ(print(h, "wex_xcvr_status_bitmap", 0, "status", bm),
            "status@wex_xcvr_status_bitmap:WEX_XCVR_STATUS_BM_PRESENT WEX_XCVR_STATUS_BM_RX_LOS \n");
  EXPECT_EQ(print(h, "wex_bix_env_sensor_type", 0, "s", nullptr),
            "s@wex_bix_env_sensor_type:ERR ERR ERR ERR \n");
  h->error = 3;
  EXPECT_EQ(wex_bix_env_result_print_cr(h, res, buf, sizeof buf), 0);
  h->error = 0;
  EXPECT_EQ(wex_bix_env_result_print_cr(h, res, buf, 10), -1);  // too small: runtime reports
  wex_xcvr_rc_destroy(h, 0, rc);
  wex_xcvr_type_destroy(h, 0, t);
  wex_bix_env_result_destroy(h, 0, res);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
}

// The names the lookup gives are exactly what print shows, for every value of every
// enumeration, and they lead back to the same value.
TEST(LeafText, LiteralNamesAndValuesMatchThePrintedForm) {
  Handle h;
  using NameFn = const char *(*)(uint32_t);
  using ValueFn = int (*)(const char *, uint32_t *);
  int named = 0;
  for (const Leaf &l : leaves()) {
    if (!l.is_enum) continue;
    void *e = op<CreateFn>(l.name, "create")(h, 0);
    for (uint32_t v = 0; v < 20; ++v) {
      std::memcpy(static_cast<uint8_t *>(e) + 12, &v, 4);
      const std::string printed = print(h, l.name, 0, "x", e), prefix = "x@" + l.name + ":";
      const char *name = op<NameFn>(l.name, "literal_name")(v);
      if (printed == prefix + "Enum value out of range") {
        EXPECT_EQ(name, nullptr) << l.name << " " << v;
        continue;
      }
      ASSERT_NE(name, nullptr) << l.name << " " << v;
      EXPECT_EQ(prefix + name + "\n", printed);
      uint32_t back = 999;
      EXPECT_EQ(op<ValueFn>(l.name, "literal_value")(name, &back), 1);
      EXPECT_EQ(back, v);
      ++named;
    }
    uint32_t untouched = 7;
    EXPECT_EQ(op<ValueFn>(l.name, "literal_value")("NO_SUCH_LITERAL", &untouched), 0);
    EXPECT_EQ(op<ValueFn>(l.name, "literal_value")(nullptr, &untouched), 0);
    EXPECT_EQ(untouched, 7u);
    op<DestroyFn>(l.name, "destroy")(h, 0, e);
  }
  EXPECT_EQ(named, 5 + 7 + 5 + 16 + 7 + 8 + 2 + 2 + 2);  // every literal of the nine
}

std::string tags(wex_handle *h, const char *name, const std::string &inner) {
  char open[64], close[64];
  uint32_t err = 0;
  start_tag(h, 0, open, name, sizeof open, 0, &err);
  end_tag(h, 0, close, name, sizeof close, &err);
  return open + inner + close;
}

TEST(LeafText, XmlForms) {
  Handle h;
  char buf[512];
  uint32_t err = 0;
  auto *rc = wex_xcvr_rc_create(h, 0);
  rc->value = 15;
  int32_t n = wex_xcvr_rc_to_xml(h, 0, "rc", buf, rc, sizeof buf, 2, &err);
  EXPECT_EQ(std::string(buf, n), tags(h, "rc", "<WEX_XCVR_SUCCESS_RC/>"));
  rc->value = 16;
  n = wex_xcvr_rc_toxml_cr(h, rc, buf, sizeof buf);
  EXPECT_EQ(std::string(buf, n), tags(h, "wex_xcvr_rc", "<wex_xcvr_rc value out of range/>"));
  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  bm->bits[1] = 0x04;
  n = wex_xcvr_status_bitmap_to_xml(h, 0, "status", buf, bm, sizeof buf, 0, &err);
  EXPECT_EQ(std::string(buf, n), tags(h, "status", "<WEX_XCVR_STATUS_BM_DISABLED/>"));
  n = wex_bix_env_sensor_type_to_xml(h, 0, "s", buf, nullptr, sizeof buf, 0, &err);
  std::string errs;
  for (int i = 0; i < 4; ++i) errs += "<error>ERR</error>";
  EXPECT_EQ(std::string(buf, n), tags(h, "s", errs));
  EXPECT_EQ(err, 0u);
  wex_xcvr_rc_destroy(h, 0, rc);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
}

struct Doc {
  explicit Doc(const std::string &xml) : doc(wex_xml_doc_parse(xml.data(), xml.size())) {}
  ~Doc() { wex_xml_doc_free(doc); }
  void *doc;
};

TEST(LeafText, FromXmlFindsTheFirstLiteralAndOnlyTurnsFlagsOn) {
  Handle h;
  uint32_t err = 0;
  char msg[64] = "";
  auto *rc = wex_xcvr_rc_create(h, 0);
  rc->value = 3;
  Doc none("<r><rc><NOT_A_LITERAL/></rc></r>");
  wex_xcvr_rc_from_xml(h, 0, "/r/rc", none.doc, rc, &err, msg, sizeof msg);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(rc->value, 3u);
  Doc two("<r><rc><WEX_XCVR_SUCCESS_RC/><WEX_XCVR_RPC_BUS_ERROR_RC/></rc></r>");
  wex_xcvr_rc_from_xml(h, 0, "/r/rc", two.doc, rc, &err, msg, sizeof msg);
  EXPECT_EQ(rc->value, 8u);  // earlier in the literal list wins
  Doc one("<r><rc><WEX_XCVR_SUCCESS_RC/></rc></r>");
  wex_xcvr_rc_from_xml(h, 0, "/r/rc", one.doc, rc, &err, msg, sizeof msg);
  EXPECT_EQ(rc->value, 15u);
  EXPECT_EQ(h->error, 0u);

  auto *bm = wex_xcvr_status_bitmap_create(h, 0);
  bm->bits[0] = 0x03;
  Doc rx("<s><WEX_XCVR_STATUS_BM_RX_LOS/><WEX_XCVR_STATUS_BM_IDPROM_BUS/></s>");
  wex_xcvr_status_bitmap_from_xml(h, 0, "/s", rx.doc, bm, &err, msg, sizeof msg);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(bm->bits[0], 0x03);
  EXPECT_EQ(bm->bits[1], 0x10);

  wex_xcvr_rc_from_xml(h, 0, "/r/rc[", one.doc, rc, &err, msg, sizeof msg);  // bad path
  EXPECT_NE(err, 0u);
  EXPECT_STREQ(msg, "Failed xpath: /r/rc[");
  // A path that does not fit with the literal's name is refused, not cut into another one.
  err = 0;
  const std::string deep = "/" + std::string(240, 'a');
  wex_xcvr_rc_from_xml(h, 0, deep.c_str(), one.doc, rc, &err, msg, sizeof msg);
  EXPECT_EQ(err, 22u);
  wex_xcvr_rc_destroy(h, 0, rc);
  wex_xcvr_status_bitmap_destroy(h, 0, bm);
}

// With an error already in the slot, nothing runs: no store, no hook, no allocation.
TEST(LeafGuard, EveryOperationWithASlotDoesNothingWhenOneIsPending) {
  Handle h;
  for (const Leaf &l : leaves()) {
    void *inst = op<CreateFn>(l.name, "create")(h, 0);
    const size_t size = l.is_enum ? 16 : 24;
    std::memset(static_cast<uint8_t *>(inst) + 11, 0x5A, 5);
    uint8_t before[24];
    std::memcpy(before, inst, size);
    h.writes.clear();
    uint32_t allocs = h.allocs;
    uint32_t err = 7;
    char text[64] = "";
    uint8_t wire[16] = {0, 0, 0, 0, 1, 1, 1};
    Doc d("<x/>");
    using XmlFn = int32_t (*)(wex_handle *, uint32_t, const char *, char *, const void *, uint32_t,
                              uint8_t, uint32_t *);
    using FromFn = void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *,
                            uint32_t);
    using SetFn = void (*)(wex_handle *, uint32_t, void *, const void *, uint32_t *);
    using AdjFn = void (*)(wex_handle *, uint32_t, void *, uint32_t *);
    EXPECT_EQ(op<MarshalFn>(l.name, "marshal")(h, 0, wire, inst, 16, &err), 0u);
    EXPECT_EQ(op<UnmarshalFn>(l.name, "unmarshal")(h, 0, wire, inst, 7, 0, &err), 0u);
    EXPECT_EQ(op<PrintFn>(l.name, "print")(h, 0, text, 0, "x", inst, 64, &err), 0);
    EXPECT_EQ(op<XmlFn>(l.name, "to_xml")(h, 0, "x", text, inst, 64, 0, &err), 0);
    op<FromFn>(l.name, "from_xml")(h, 0, "/x", d.doc, inst, &err, text, 64);
    op<SetFn>(l.name, "set")(h, 0, inst, before, &err);
    op<AdjFn>(l.name, "adjust_variant")(h, 0, inst, &err);
    if (l.is_enum) {
      op<void (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *)>(l.name, "set_value")(h, 0, inst, 1, &err);
      EXPECT_EQ(op<uint32_t (*)(wex_handle *, uint32_t, const void *, uint32_t *)>(l.name, "get_value")(
                    h, 0, inst, &err), 0u);
    } else {
      op<void (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t, uint32_t *)>(l.name, "set_value")(
          h, 0, inst, 1, 1, &err);
      EXPECT_EQ(op<int32_t (*)(wex_handle *, uint32_t, const void *, uint32_t, uint32_t *)>(l.name, "get_value")(
                    h, 0, inst, 0, &err), 0);
    }
    EXPECT_EQ(err, 7u) << l.name;
    EXPECT_EQ(0, std::memcmp(before, inst, size)) << l.name;
    EXPECT_TRUE(h.writes.empty()) << l.name;
    EXPECT_EQ(h.allocs, allocs) << l.name;
    op<DestroyFn>(l.name, "destroy")(h, 0, inst);
  }
}

// Every writer refuses the shared null instance (a failed _cr create's result) and an
// instance of another type with 22, and writes nothing into either.
TEST(LeafGuard, WritersRefuseTheNullInstanceAndInstancesOfAnotherType) {
  Handle h;
  using SetFn = void (*)(wex_handle *, uint32_t, void *, const void *, uint32_t *);
  using FromFn = void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *,
                          uint32_t);
  const std::vector<uint8_t> zeros(24, 0);
  for (const Leaf &l : leaves()) {
    h->error = 1;
    auto *null = static_cast<uint8_t *>(op<void *(*)(wex_handle *)>(l.name, "create_cr")(h));
    h->error = 0;
    // another leaf: an enumeration for a flag set and the other way round
    const char *other = l.is_enum ? "wex_xcvr_status_bitmap" : "wex_xcvr_rc";
    auto *victim = static_cast<uint8_t *>(op<CreateFn>(other, "create")(h, 0));
    auto *good = op<CreateFn>(l.name, "create")(h, 0);
    const std::vector<uint8_t> before(victim, victim + 16);
    uint8_t wire[16] = {0, 0, 0, 0, 6, 1, 1};  // a flag set's 7 bytes; an enumeration takes 5
    Doc d(l.is_enum ? "<x><WEX_XCVR_RPC_NO_DATA_RC/><WEX_XCVR_TYPE_SFP/><WEX_BIX_ENV_FAILURE/></x>"
                    : "<x><WEX_XCVR_STATUS_BM_PRESENT/><WEX_BIX_ENV_NULL_SENSOR/></x>");
    for (uint8_t *dst : {null, victim}) {
      std::vector<uint32_t> codes;
      auto code = [&](auto &&step) {
        uint32_t err = 0;
        step(&err);
        codes.push_back(err);
      };
      code([&](uint32_t *err) { op<UnmarshalFn>(l.name, "unmarshal")(h, 0, wire, dst, 16, 0, err); });
      code([&](uint32_t *err) { op<SetFn>(l.name, "set")(h, 0, dst, good, err); });
      code([&](uint32_t *err) { op<SetFn>(l.name, "set")(h, 0, good, dst, err); });  // a source too
      code([&](uint32_t *err) { op<FromFn>(l.name, "from_xml")(h, 0, "/x", d.doc, dst, err, nullptr, 0); });
      if (l.is_enum)
        code([&](uint32_t *err) {
          op<void (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *)>(l.name, "set_value")(h, 0, dst, 1, err);
        });
      else
        code([&](uint32_t *err) {
          op<void (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t, uint32_t *)>(l.name, "set_value")(
              h, 0, dst, 0, 1, err);
        });
      EXPECT_EQ(codes, std::vector<uint32_t>(codes.size(), 22u)) << l.name;
    }
    EXPECT_EQ(std::vector<uint8_t>(null, null + (l.is_enum ? 16 : 24)),
              std::vector<uint8_t>(zeros.begin(), zeros.begin() + (l.is_enum ? 16 : 24))) << l.name;
    EXPECT_EQ(std::vector<uint8_t>(victim, victim + 16), before) << l.name;
    op<DestroyFn>(other, "destroy")(h, 0, victim);
    op<DestroyFn>(l.name, "destroy")(h, 0, good);
  }
  EXPECT_TRUE(h.live.empty());
}

TEST(LeafObjects, OidCountAndReferencesReportNullAndPendingErrors) {
  Handle h;
  Traces tr;
  uint32_t err = 0;
  auto *rc = wex_xcvr_rc_create(h, 0);
  EXPECT_EQ(wex_xcvr_rc_get_oid_count(h, 0, rc, &err), 0u);
  EXPECT_EQ(wex_xcvr_rc_get_oid_count(h, 0, nullptr, &err), 0u);
  EXPECT_EQ(err, 22u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Invalid object passed in to get object oid count"));
  wex_xcvr_rc_get_oid_count(h, 0, rc, &err);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Error already present in call to get object oid count"));
  wex_xcvr_status_bitmap_get_object_references(h, 0, nullptr, &err);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Error present in call to get table references from object"));
  err = 0;
  wex_xcvr_status_bitmap_get_object_references(h, 0, nullptr, &err);
  EXPECT_EQ(err, 22u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Cannot get table references. Invalid object passed on"));
  wex_xcvr_rc_destroy(h, 0, rc);
}

}  // namespace
