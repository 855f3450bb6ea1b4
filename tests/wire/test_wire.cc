// Wire encoding and decoding of every record: golden vectors, round trips in every
// tracking combination, exact-length buffers, hostile input and allocation failure.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "wire_support.h"

using namespace bixtest;

namespace {

Bytes encode(wex_handle *h, const std::string &type, const void *inst, uint32_t *err,
             const char *form = "marshal") {
  uint32_t len = op<LenFn>(type, "len")(h, 0, inst);
  Bytes buf(len + 64, 0xCC);
  uint32_t n = op<MarshalFn>(type, form)(h, 0, buf.data(), inst, static_cast<int32_t>(buf.size()), err);
  buf.resize(n);
  return buf;
}

// Decodes from a heap copy of exactly the given bytes, so a read past them is caught by
// the sanitizer builds.
uint32_t decode(wex_handle *h, const std::string &type, const Bytes &bytes, void *inst, uint32_t *err) {
  std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size() ? bytes.size() : 1]);
  std::memcpy(exact.get(), bytes.data(), bytes.size());
  return op<UnmarshalFn>(type, "unmarshal")(h, 0, exact.get(), inst, static_cast<int32_t>(bytes.size()),
                                            0, err);
}

TEST(WireGolden, PresenceInfoWithTrackingOffAndOn) {
  Handle off, on(WEX_STTR_ON);
  uint32_t err = 0;
  auto *p = wex_xcvr_presence_info_create(off, 0);
  p->rc.value = WEX_XCVR_SUCCESS_RC;
  p->is_present = 1;
  EXPECT_EQ(wex_xcvr_presence_info_len(off, 0, p), 12u);
  EXPECT_EQ(encode(off, "wex_xcvr_presence_info", p, &err),
            (Bytes{0, 0, 0, 0, 0, 10, 0, 0, 0, 0, 15, 1}));
  // The same untracked instance sent by a tracking handle: flag set, zero state bytes.
  EXPECT_EQ(encode(on, "wex_xcvr_presence_info", p, &err),
            (Bytes{0, 8, 0, 0, 0, 12, 0, 0, 0, 0, 15, 0, 1, 0}));
  auto *t = wex_xcvr_presence_info_create(on, 0);
  t->rc.value = WEX_XCVR_SUCCESS_RC;
  t->is_present = 1;
  reinterpret_cast<uint8_t *>(t)[48] = 2;
  reinterpret_cast<uint8_t *>(t)[49] = 2;
  EXPECT_EQ(wex_xcvr_presence_info_len(on, 0, t), 14u);
  EXPECT_EQ(encode(on, "wex_xcvr_presence_info", t, &err),
            (Bytes{0, 8, 0, 0, 0, 12, 0, 0, 0, 0, 15, 2, 1, 2}));
  EXPECT_EQ(err, 0u);
  wex_xcvr_presence_info_destroy(off, 0, p);
  wex_xcvr_presence_info_destroy(on, 0, t);
}

TEST(WireGolden, NegativeVariantIsTheSixBytePrefix) {
  Handle h(WEX_STTR_ON);
  auto *p = wex_xcvr_presence_info_create(h, 0);
  wex_domain_set_variant(h, "8f3fd8f32fa08d28bc785e2cc8f6cbdd", -1);
  uint32_t err = 0;
  EXPECT_EQ(encode(h, "wex_xcvr_presence_info", p, &err), (Bytes{0xFF, 8, 0, 0, 0, 4}));
  EXPECT_EQ(err, 43u);
  p->variant = -1;
  EXPECT_EQ(wex_xcvr_presence_info_len(h, 0, p), 6u);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(WireGolden, VariableArrayWithThreeAndZeroBytes) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    uint32_t err = 0;
    auto *d = ipc_shim_data_create(h, 0);
    d->slot = 1, d->subslot = 2;
    Bytes empty = encode(h, "ipc_shim_data", d, &err);
    d->data = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, 3));
    d->data[0] = 0xA, d->data[1] = 0xB, d->data[2] = 0xC;
    d->size = 3;
    Bytes three = encode(h, "ipc_shim_data", d, &err);
    EXPECT_EQ(err, 0u);
    if (!mode) {
      EXPECT_EQ(empty, (Bytes{0, 0, 0, 0, 0, 16, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 0}));
      EXPECT_EQ(three, (Bytes{0, 0, 0, 0, 0, 19, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3, 0xA, 0xB, 0xC}));
      EXPECT_EQ(wex_ipc_shim_hdr_len(h, 0, nullptr), 6u);
    } else {
      EXPECT_EQ(empty, (Bytes{0, 8, 0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0}));
      EXPECT_EQ(three, (Bytes{0, 8, 0, 0, 0, 25, 0, 0, 0, 1, 0, 0, 0, 0, 2, 0, 0, 0, 0, 3, 0xA, 0xB,
                              0xC, 0, 0, 0, 0}));
      d->size = 0;
      EXPECT_EQ(ipc_shim_data_len(h, 0, d), 21u);  // counts the whole-array byte regardless
      d->size = 3;
      EXPECT_EQ(ipc_shim_data_len(h, 0, d), 27u);
    }
    ipc_shim_data_destroy(h, 0, d);
    EXPECT_TRUE(h.live.empty());
  }
}

TEST(WireGolden, StatusInfoCarriesOnlyTheSelectedAlternative) {
  Handle h;
  for (uint32_t alt = 1; alt <= 7; ++alt) {
    auto *s = wex_xcvr_status_info_create(h, 0);
    fill(h, "wex_xcvr_status_info", s, 3, alt);
    uint32_t err = 0;
    Bytes all = encode(h, "wex_xcvr_status_info", s, &err);
    ASSERT_EQ(err, 0u) << alt;
    void *const *slots = reinterpret_cast<void *const *>(reinterpret_cast<uint8_t *>(s) + 520);
    static const char *kTypes[] = {"wex_sfp_env_mon", "wex_xfp_env_mon", "wex_msa_env_mon", "wex_sfp_env_mon",
                                   "wex_vorn_env_mon", "wex_qsfp_env_mon", "wex_nosfp_dummy"};
    Bytes one = encode(h, kTypes[alt - 1], slots[alt - 1], &err);
    ASSERT_EQ(all.size(), 460 + one.size()) << alt;
    EXPECT_TRUE(std::equal(one.begin(), one.end(), all.end() - one.size())) << alt;
    uint32_t jump = uint32_t(all[2]) << 24 | all[3] << 16 | all[4] << 8 | all[5];
    EXPECT_EQ(jump, all.size() - 2);  // the jump covers everything after the flags byte
    wex_xcvr_status_info_destroy(h, 0, s);
  }
  auto *s = wex_xcvr_status_info_create(h, 0);
  uint32_t err = 0;
  EXPECT_EQ(encode(h, "wex_xcvr_status_info", s, &err).size(), 460u);  // selector 0: none
  s->xcvr_type.value = 2;
  encode(h, "wex_xcvr_status_info", s, &err);
  EXPECT_EQ(err, 2u);  // selected but absent
  wex_xcvr_status_info_destroy(h, 0, s);
  EXPECT_TRUE(h.live.empty());
}

// Every record, every field non-zero, sender and receiver each tracking or not.
TEST(WireRoundTrip, EveryRecordInAllFourTrackingCombinations) {
  for (uint32_t send_mode : {0u, WEX_STTR_ON}) {
    for (uint32_t recv_mode : {0u, WEX_STTR_ON}) {
      Handle tx(send_mode), rx(recv_mode), plain;
      for (const std::string &type : records()) {
        void *src = op<CreateFn>(type, "create")(tx, 0);
        fill(tx, type, src, 11, 4);
        uint32_t err = 0;
        Bytes wire = encode(tx, type, src, &err);
        ASSERT_EQ(err, 0u) << type;
        ASSERT_EQ(wire.size(), op<LenFn>(type, "len")(tx, 0, src)) << type << " modes " << send_mode << "/" << recv_mode;
        void *dst = op<CreateFn>(type, "create")(rx, 0);
        ASSERT_EQ(decode(rx, type, wire, dst, &err), wire.size()) << type;
        ASSERT_EQ(err, 0u) << type;
        // Without state bytes both must read the same; with them on both ends, the
        // state bytes must have travelled too.
        EXPECT_EQ(encode(plain, type, src, &err), encode(plain, type, dst, &err)) << type;
        if (send_mode && recv_mode) {
          EXPECT_EQ(wire, encode(rx, type, dst, &err)) << type;
        }
        op<DestroyFn>(type, "destroy")(tx, 0, src);
        op<DestroyFn>(type, "destroy")(rx, 0, dst);
      }
      EXPECT_TRUE(tx.live.empty());
      EXPECT_TRUE(rx.live.empty());
    }
  }
}

TEST(WireRoundTrip, CloneFormSkipsTheDomainCheckOnlyForTheRecordItself) {
  Handle h;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  p->variant = 2;
  uint32_t err = 0;
  Bytes b = encode(h, "wex_xcvr_presence_info", p, &err, "marshal_for_clone");
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(b[0], 0);  // above the latest variant: written as 0
  encode(h, "wex_xcvr_presence_info", p, &err);
  EXPECT_EQ(err, 43u);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(WireDecode, NewerSendersAppendedFieldIsSkippedByTheJump) {
  Handle h;
  Traces tr;
  Bytes newer{0, 0, 0, 0, 0, 14, 0, 0, 0, 0, 15, 1, 0xDE, 0xAD, 0xBE, 0xEF};
  auto *p = wex_xcvr_presence_info_create(h, 0);
  uint32_t err = 0;
  EXPECT_EQ(decode(h, "wex_xcvr_presence_info", newer, p, &err), 16u);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(p->rc.value, 15u);
  EXPECT_EQ(p->is_present, 1);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_INFO, "offset_jump read_len 12 offset_jump_base 2 _wex_variant_jump 14"));
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(WireDecode, OnlyTheTrackingAndHandleDataFlagsAreTakenFromTheWire) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    // flags 0xFF: an ra item (9 bytes) follows, then the jump and fields with state bytes
    Bytes hostile = {0, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 0, 15, 0, 1, 0};
    auto *p = wex_xcvr_presence_info_create(h, 0);
    uint8_t before = p->flags;
    uint32_t err = 0;
    EXPECT_EQ(decode(h, "wex_xcvr_presence_info", hostile, p, &err), hostile.size());
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(p->flags, before | 0x20 | (mode ? 0x08 : 0)) << mode;
    EXPECT_EQ(p->is_present, 1);
    wex_xcvr_presence_info_destroy(h, 0, p);
  }
}

TEST(WireDecode, HostileCountFailsWithoutAllocating) {
  Handle h;
  Bytes msg{0, 0, 0, 0, 0, 24, 0, 0, 0, 1, 0, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0xFF,
            1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  auto *d = ipc_shim_data_create(h, 0);
  uint32_t allocs = h.allocs;
  uint32_t err = 0;
  EXPECT_EQ(decode(h, "ipc_shim_data", msg, d, &err), 0u);
  EXPECT_EQ(err, 74u);
  EXPECT_EQ(h.allocs, allocs);
  EXPECT_EQ(d->size, 0u);  // the instance never claims elements it does not hold
  EXPECT_EQ(d->data, nullptr);
  ipc_shim_data_destroy(h, 0, d);
}

TEST(WireDecode, EveryTruncationOfEveryRecordStaysInBounds) {
  Handle tx(WEX_STTR_ON), rx(WEX_STTR_ON);
  for (const std::string &type : records()) {
    void *src = op<CreateFn>(type, "create")(tx, 0);
    fill(tx, type, src, 5, 6);
    uint32_t err = 0;
    Bytes wire = encode(tx, type, src, &err);
    // Whole records take long; every cut of the short ones, a spread of the long ones.
    size_t step = wire.size() > 200 ? 37 : 1;
    for (size_t cut = 1; cut < wire.size(); cut += step) {
      void *dst = op<CreateFn>(type, "create")(rx, 0);
      Bytes part(wire.begin(), wire.begin() + cut);
      err = 0;
      EXPECT_LE(decode(rx, type, part, dst, &err), cut) << type << " cut " << cut;
      EXPECT_NE(err, 0u) << type << " cut " << cut;
      op<DestroyFn>(type, "destroy")(rx, 0, dst);
    }
    op<DestroyFn>(type, "destroy")(tx, 0, src);
  }
  EXPECT_TRUE(rx.live.empty());
}

// The null instance a failed _cr create hands out is shared by every caller, and an
// instance of another type has another layout: neither is ever decoded into, and neither
// is read by the encoder as this type.
TEST(WireDecode, NullInstanceAndInstancesOfAnotherTypeAreRefused) {
  Handle h(WEX_STTR_ON);
  for (const std::string &type : records()) {
    void *src = op<CreateFn>(type, "create")(h, 0);
    fill(h, type, src, 4, 3);
    uint32_t err = 0;
    Bytes wire = encode(h, type, src, &err);
    h->error = 1;
    void *null = op<void *(*)(wex_handle *)>(type, "create_cr")(h);
    h->error = 0;
    const std::string other = type == "wex_nosfp_dummy" ? "wex_xcvr_presence_info" : "wex_nosfp_dummy";
    void *victim = op<CreateFn>(other, "create")(h, 0);
    const size_t n = facts_type(type)->fixed_size, m = 24;
    Bytes before(static_cast<uint8_t *>(victim), static_cast<uint8_t *>(victim) + m);
    for (void *dst : {null, victim}) {
      err = 0;
      EXPECT_EQ(decode(h, type, wire, dst, &err), 0u) << type;
      EXPECT_EQ(err, 22u) << type;
    }
    EXPECT_TRUE(std::all_of(static_cast<uint8_t *>(null), static_cast<uint8_t *>(null) + n,
                            [](uint8_t b) { return b == 0; })) << type;
    EXPECT_EQ(Bytes(static_cast<uint8_t *>(victim), static_cast<uint8_t *>(victim) + m), before) << type;
    Bytes out(64);
    err = 0;
    EXPECT_EQ(op<MarshalFn>(type, "marshal")(h, 0, out.data(), victim, 64, &err), 0u) << type;
    EXPECT_EQ(err, 22u) << type;
    EXPECT_EQ(op<LenFn>(type, "len")(h, 0, victim), 6u) << type;
    op<DestroyFn>(other, "destroy")(h, 0, victim);
    op<DestroyFn>(type, "destroy")(h, 0, src);
  }
  EXPECT_TRUE(h.live.empty());
}

// A record whose embedded member has a negative variant encodes that member as its 6-byte
// prefix, so len cannot be the constant of a fully encoded record.
TEST(WireEncode, LenFollowsMembersOfANegativeVariant) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const auto &f : bixfacts::kFields) {
      const std::string kind = f.kind;
      if (kind != "Record" && kind != "RecordArray") continue;
      void *inst = op<CreateFn>(f.type, "create")(h, 0);
      fill(h, f.type, inst, 2, 7);
      static_cast<uint8_t *>(inst)[f.offset + 8] = 0xFF;  // the member (or element 0): variant -1
      uint32_t err = 0;
      Bytes wire = encode(h, f.type, inst, &err);
      EXPECT_EQ(op<LenFn>(f.type, "len")(h, 0, inst), wire.size()) << f.type << "." << f.name;
      op<DestroyFn>(f.type, "destroy")(h, 0, inst);
    }
    EXPECT_TRUE(h.live.empty());
  }
}

// A prefix item cut short still leaves the header updated with what was read: the
// variant (here 0 over a stale 5) and the type pointer.
TEST(WireDecode, ShortPrefixItemsStillUpdateTheHeader) {
  Handle h(WEX_STTR_ON);
  for (const std::string &type : records()) {
    void *src = op<CreateFn>(type, "create")(h, 0);
    wex_hd_mapping_create(h, src);  // flags 0x20: an ra item follows the flags byte
    uint32_t err = 0;
    Bytes wire = encode(h, type, src, &err);
    // Cut before the flags, the ra item and the jump, and inside the last two; a reader
    // that finds too few bytes consumes none.
    for (auto [cut, read] : {std::pair(1u, 1u), {2u, 2u}, {5u, 2u}, {11u, 11u}, {14u, 11u}}) {
      void *dst = op<CreateFn>(type, "create")(h, 0);
      static_cast<uint8_t *>(dst)[8] = 5;
      err = 0;
      EXPECT_EQ(decode(h, type, Bytes(wire.begin(), wire.begin() + cut), dst, &err), read) << type << cut;
      EXPECT_EQ(err, 74u) << type << cut;
      EXPECT_EQ(static_cast<uint8_t *>(dst)[8], 0) << type << cut;
      EXPECT_EQ(flags_of(dst) & 0x08, 0x08) << type << cut;
      op<DestroyFn>(type, "destroy")(h, 0, dst);
    }
    op<DestroyFn>(type, "destroy")(h, 0, src);
  }
  EXPECT_TRUE(h.live.empty());
}

// Element states taken or kept by a decode start at 0: a run of state bytes the input cuts
// short leaves none of the old ones behind.
TEST(WireDecode, ElementStatesCutShortAreZeroNotStale) {
  Handle h(WEX_STTR_ON);
  for (uint32_t reuse : {0u, 1u}) {
    auto *src = ipc_shim_data_create(h, 0);
    fill(h, "ipc_shim_data", src, 1, 1, 8);
    uint32_t err = 0;
    Bytes wire = encode(h, "ipc_shim_data", src, &err);
    auto *dst = ipc_shim_data_create(h, 0);
    fill(h, "ipc_shim_data", dst, 9, 1, 8);  // the same count: reuse keeps its storage
    uint8_t *states = *reinterpret_cast<uint8_t **>(reinterpret_cast<uint8_t *>(dst) + 40 + 8);
    std::memset(states, 0xEE, 8);
    Bytes cut(wire.begin(), wire.end() - 3);  // the last three element states are missing
    std::unique_ptr<uint8_t[]> exact(new uint8_t[cut.size()]);
    std::memcpy(exact.get(), cut.data(), cut.size());
    err = 0;
    ipc_shim_data_unmarshal(h, 0, exact.get(), dst, static_cast<int32_t>(cut.size()), reuse, &err);
    states = *reinterpret_cast<uint8_t **>(reinterpret_cast<uint8_t *>(dst) + 40 + 8);
    ASSERT_NE(states, nullptr);
    for (int i = 5; i < 8; ++i) EXPECT_EQ(states[i], 0) << "reuse " << reuse << " element " << i;
    ipc_shim_data_destroy(h, 0, src);
    ipc_shim_data_destroy(h, 0, dst);
  }
  EXPECT_TRUE(h.live.empty());
}

TEST(WireDecodeDeathTest, TrackingHandleRefusesAnUntrackedInstance) {
  Handle off, on(WEX_STTR_ON);
  auto *p = wex_xcvr_presence_info_create(off, 0);
  Bytes b{0, 0, 0, 0, 0, 10, 0, 0, 0, 0, 15, 1};
  uint32_t err = 0;
  EXPECT_DEATH(wex_xcvr_presence_info_unmarshal(on, 0, b.data(), p, 12, 0, &err),
               "WEX handle and object state tracking mis-match");
  wex_xcvr_presence_info_destroy(off, 0, p);
}

TEST(WireEncode, ExactLengthBuffersAndTheUnionQuirk) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const std::string &type : records()) {
      void *src = op<CreateFn>(type, "create")(h, 0);
      fill(h, type, src, 9, 2);
      uint32_t len = op<LenFn>(type, "len")(h, 0, src);
      std::unique_ptr<uint8_t[]> buf(new uint8_t[len]);
      uint32_t err = 0;
      uint32_t n = op<MarshalFn>(type, "marshal")(h, 0, buf.get(), src, static_cast<int32_t>(len), &err);
      EXPECT_EQ(err, 0u) << type;
      bool quirk = mode && (type == "wex_xcvr_status_info" || type == "wex_xcvr_idprom_info");
      EXPECT_EQ(n, quirk ? len - 1 : len) << type;
      // One byte short of the encoding: 90, and still nothing written past the end.
      err = 0;
      n = op<MarshalFn>(type, "marshal")(h, 0, buf.get(), src, static_cast<int32_t>(len) - 1 - quirk, &err);
      EXPECT_LE(n, len - 1 - quirk) << type;
      if (!mode) {  // a missing trailing state byte is not an error; a missing value is
        EXPECT_NE(err, 0u) << type;
      }
      op<DestroyFn>(type, "destroy")(h, 0, src);
    }
    EXPECT_TRUE(h.live.empty());
  }
}

// Every allocation a decode makes may fail: the result is 12 or success, never a leak.
TEST(WireDecode, AllocationFailureAtEveryStep) {
  for (const char *type : {"ipc_shim_data", "wex_xcvr_status_info", "wex_xcvr_idprom_info"}) {
    Handle tx(WEX_STTR_ON);
    void *src = op<CreateFn>(type, "create")(tx, 0);
    fill(tx, type, src, 1, 5);
    uint32_t err = 0;
    Bytes wire = encode(tx, type, src, &err);
    for (uint32_t k = 1;; ++k) {
      Handle rx(WEX_STTR_ON);
      void *dst = op<CreateFn>(type, "create")(rx, 0);
      rx.allocs = 0;
      rx.fail_at = k;
      err = 0;
      decode(rx, type, wire, dst, &err);
      EXPECT_TRUE(err == 0 || err == 12) << type << " k=" << k << " err=" << err;
      bool done = rx.allocs < k;  // the decode never reached the k-th allocation
      rx.fail_at = 0;
      op<DestroyFn>(type, "destroy")(rx, 0, dst);
      EXPECT_TRUE(rx.live.empty()) << type << " k=" << k;
      if (done) break;
    }
    op<DestroyFn>(type, "destroy")(tx, 0, src);
  }
}

}  // namespace
