// Instance layout and lifecycle across every record, enumeration and flag set.
#include <gtest/gtest.h>

#include "../wire/fill.h"
#include "support.h"

using namespace bixtest;

namespace {

using CreateCrFn = void *(*)(wex_handle *);
using DestroyCrFn = void (*)(wex_handle *, void *);
using SizeofFn = uint32_t (*)(wex_handle *);

struct Sizes {
  uint32_t off, on;
};
// The allocation sizes the ABI promises, per type.
const std::map<std::string, Sizes> kSizes = {
    {"ipc_shim_data", {40, 56}},          {"wex_ipc_shim_hdr", {48, 55}},
    {"wex_xcvr_identifier", {32, 35}},     {"ipc_shim_xcvr_data", {184, 267}},
    {"wex_xcvr_rpc_req", {40, 44}},        {"wex_xcvr_presence_info", {48, 50}},
    {"wex_xcvr_info", {464, 898}},         {"wex_sfp_env_mon", {32, 38}},
    {"wex_qsfp_env_mon", {56, 76}},        {"wex_vorn_env_mon", {136, 192}},
    {"wex_xfp_env_mon", {40, 47}},         {"wex_msa_env_mon", {40, 45}},
    {"wex_nosfp_dummy", {24, 25}},         {"wex_xcvr_status_info", {592, 1037}},
    {"wex_dev_sfp_info", {512, 996}},      {"wex_dev_vorn_info", {800, 1577}},
    {"wex_dev_xfp_info", {392, 756}},      {"wex_dev_qsfp_info", {544, 1061}},
    {"wex_dev_msa_info", {288, 543}},      {"wex_xcvr_idprom_info", {584, 1028}},
    {"wex_bix_envm_rpc_req", {48, 52}},    {"wex_bix_env_temp_sensor_info", {32, 39}},
    {"wex_bix_env_volt_sensor_info", {32, 39}}, {"wex_bix_env_power_sensor_info", {32, 36}},
    {"wex_bix_env_sensor_table", {1624, 2021}}, {"wex_bix_envm_sensor_data", {1672, 2071}},
    {"wex_bix_envm_rpc_reply", {48, 50}},  {"wex_bix_get_info", {48, 50}},
    {"wex_bix_mgmt_rpc_req", {104, 112}},  {"wex_bix_plugin_card_info", {384, 721}},
    {"wex_bix_mgmt_rpc_reply", {416, 756}},
};

bool is_message(const wex_type_info *t) { return std::strcmp(t->kind, "message") == 0; }
bool is_record(const wex_type_info *t) { return std::strcmp(t->kind, "type") == 0; }

TEST(Sizeof, EveryTypeInAllThreeTrackingCases) {
  Handle none, off(WEX_STTR_OFF), on(WEX_STTR_ON);
  int checked = 0;
  for (const wex_type_info *t : all_types()) {
    if (is_message(t)) continue;
    auto fn = op<SizeofFn>(t->type_name, "sizeof");
    ASSERT_NE(fn, nullptr) << t->type_name;
    Sizes want = is_record(t) ? kSizes.at(t->type_name)
                 : std::strcmp(t->kind, "enum") == 0 ? Sizes{16, 16}
                                                     : Sizes{24, 24};
    EXPECT_EQ(fn(none), want.off) << t->type_name;
    EXPECT_EQ(fn(off), want.off) << t->type_name;
    EXPECT_EQ(fn(on), want.on) << t->type_name;
    // used length + alloc slop is the fixed part
    const wex_variant_entry &e = t->variant_info->entries[0];
    EXPECT_EQ(e.used_length + e.alloc_slop, want.off) << t->type_name;
    ++checked;
  }
  EXPECT_EQ(checked, 42);
}

TEST(SizeofDeathTest, CorruptedModeWordAborts) {
  Handle h(0x1234);
  EXPECT_DEATH(wex_xcvr_presence_info_sizeof(h), "Corrupted WEX Handle");
  EXPECT_DEATH(wex_xcvr_presence_info_create(h, 0), "Corrupted WEX Handle");
}

TEST(Create, EveryTypeCreatesAndDestroysWithoutLeak) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const wex_type_info *t : all_types()) {
      if (is_message(t)) continue;
      void *inst = op<CreateFn>(t->type_name, "create")(h, 7);
      ASSERT_NE(inst, nullptr) << t->type_name;
      EXPECT_EQ(wex_get_manifested_type_info(inst), t) << t->type_name;
      EXPECT_EQ(flags_of(inst) & 0x08, is_record(t) && mode ? 0x08 : 0) << t->type_name;
      op<DestroyFn>(t->type_name, "destroy")(h, 7, inst);
    }
    EXPECT_TRUE(h.live.empty());
    EXPECT_EQ(h.allocs, h.releases);
  }
}

TEST(Create, HeaderFlagsOfTopLevelAndEmbeddedMembers) {
  Handle h(WEX_STTR_ON);
  auto *p = wex_xcvr_presence_info_create(h, 0);
  EXPECT_EQ(p->flags, 0x08);
  EXPECT_EQ(p->rc.flags, 0x04);  // nested, never tracked itself
  EXPECT_EQ(p->rc.tinfo, &_wex_xcvr_rc_type_info_internal);
  wex_xcvr_presence_info_set_instance_embedded(h, 0, p);
  EXPECT_EQ(p->flags, 0x0a);
  EXPECT_EQ(p->rc.flags, 0x06);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(Create, NotifiesEveryHeaderStoreOfInstanceAndMembers) {
  Handle h(WEX_STTR_ON);
  auto *p = wex_xcvr_presence_info_create(h, 0);
  auto *b = reinterpret_cast<uint8_t *>(p);
  std::vector<std::pair<long, uint32_t>> got;
  for (auto &w : h.writes) got.push_back({w.addr - b, w.len});
  std::vector<std::pair<long, uint32_t>> want = {{9, 1},  {8, 1},  {0, 8},  {10, 1}, {10, 1},
                                                 {25, 1}, {24, 1}, {16, 8}, {26, 1}};
  EXPECT_EQ(got, want);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

// Where each embedded record's state area is placed inside its parent's.
TEST(Create, EmbeddedStateAreasArePlacedInsideTheParentArea) {
  Handle h(WEX_STTR_ON);
  auto *x = ipc_shim_xcvr_data_create(h, 0);
  EXPECT_EQ(x->id.flags & 0x44, 0x44);
  EXPECT_EQ(wexlib_get_sttr_offset(h, 0, &x->id), 184u + 3 - offsetof(ipc_shim_xcvr_data, id));
  ipc_shim_xcvr_data_destroy(h, 0, x);

  auto *s = wex_bix_envm_sensor_data_create(h, 0);
  uint8_t *base = reinterpret_cast<uint8_t *>(s) + 1672;
  auto *table = &s->table;
  EXPECT_EQ(reinterpret_cast<uint8_t *>(table) + wexlib_get_sttr_offset(h, 0, table), base + 2);
  uint8_t *tbase = base + 2;
  for (int i = 0; i < 12; ++i) {
    auto *e = &table->temp[i];
    EXPECT_EQ(reinterpret_cast<uint8_t *>(e) + wexlib_get_sttr_offset(h, 0, e), tbase + 14 + 7 * i);
    auto *v = &table->volt[i];
    EXPECT_EQ(reinterpret_cast<uint8_t *>(v) + wexlib_get_sttr_offset(h, 0, v), tbase + 112 + 7 * i);
  }
  auto *pw = &table->power[0];
  EXPECT_EQ(reinterpret_cast<uint8_t *>(pw) + wexlib_get_sttr_offset(h, 0, pw), tbase + 199);
  auto *ve = &table->volt_extended[23];
  EXPECT_EQ(reinterpret_cast<uint8_t *>(ve) + wexlib_get_sttr_offset(h, 0, ve), tbase + 229 + 7 * 23);
  EXPECT_EQ(table->volt_extended[23].flags, 0x4c);  // nested records are tracked too
  wex_bix_envm_sensor_data_destroy(h, 0, s);
}

TEST(Create, NestedInitialiseWithoutStateBaseFailsWith22) {
  Handle h(WEX_STTR_ON);
  Traces tr;
  alignas(8) uint8_t mem[898] = {};
  uint32_t err = 0;
  wex_xcvr_info_initialize(h, 0, mem, &_wex_xcvr_info_type_info_internal, 0, 0, 0x04, nullptr, &err);
  EXPECT_EQ(err, 22u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR,
                     "sttr_base can not be NULL in NESTED case. Please check the parent object and "
                     "provide the correct state tracking base pointer"));
}

// Records that place other records' state areas inside their own.
std::vector<std::string> nesting_records() {
  std::vector<std::string> out;
  for (const auto &f : bixfacts::kFields) {
    std::string kind = f.kind;
    if ((kind == "Record" || kind == "RecordArray") && (out.empty() || out.back() != f.type))
      out.push_back(f.type);
  }
  return out;
}

// A nested area the runtime did not place would lie over the parent's next fields (union
// pointers, a member's header): such a create fails cleanly instead.
TEST(Create, NestedAreasTheRuntimeCannotPlaceFailTheCreate) {
  ASSERT_EQ(nesting_records().size(), 7u);
  for (const std::string &type : nesting_records()) {
    // The runtime's offset store runs out of memory at each placement in turn.
    for (uint32_t k = 1;; ++k) {
      Handle h(WEX_STTR_ON);
      Traces tr;
      wex_sttr_offset_fail_at(h, k);
      void *p = op<CreateFn>(type, "create")(h, 0);
      if (p) {  // k is past the last placement
        EXPECT_GT(k, 1u) << type;
        op<DestroyFn>(type, "destroy")(h, 0, p);
        break;
      }
      EXPECT_EQ(h->error, 12u) << type << " k=" << k;
      EXPECT_TRUE(h.live.empty()) << type << " k=" << k;
      EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "error in " + type + " create: " + strerror(12))) << type;
    }
    // A handle the application built itself has no offset store at all.
    Handle owner(WEX_STTR_ON);
    wex_handle app = *static_cast<wex_handle *>(owner);
    app.priv = nullptr;
    EXPECT_EQ(op<CreateFn>(type, "create")(&app, 0), nullptr) << type;
    EXPECT_EQ(app.error, 22u) << type;
    EXPECT_TRUE(owner.live.empty()) << type;
  }
  // Records without nested areas need no offset store.
  Handle owner(WEX_STTR_ON);
  wex_handle app = *static_cast<wex_handle *>(owner);
  app.priv = nullptr;
  void *p = wex_xcvr_presence_info_create(&app, 0);
  ASSERT_NE(p, nullptr);
  wex_xcvr_presence_info_destroy(&app, 0, static_cast<wex_xcvr_presence_info *>(p));
}

// A top-level instance initialised with a state base keeps its whole area there: the
// caller allocated only the fixed part, so nothing may land after it.
TEST(Initialize, AStateBaseGivenAtTopLevelIsWhereEveryStateByteGoes) {
  Handle tx(WEX_STTR_ON), h(WEX_STTR_ON);
  using InitFn = void (*)(wex_handle *, uint32_t, void *, wex_type_info *, uint32_t, uint32_t, uint8_t,
                          void *, uint32_t *);
  using DestroyInternalFn = void (*)(wex_handle *, uint32_t, void *, uint32_t);
  for (const auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) != "type") continue;
    SCOPED_TRACE(t.name);
    void *src = op<CreateFn>(t.name, "create")(tx, 0);
    fill(tx, t.name, src, 3, 6);
    std::vector<uint8_t> wire(8192), again(8192);
    uint32_t err = 0;
    uint32_t n = op<MarshalFn>(t.name, "marshal")(tx, 0, wire.data(), src, 8192, &err);
    // One block: the area first, then exactly the fixed part, so a state byte written
    // after the fixed part leaves the block (and an area below its instance is reached).
    const size_t lead = (t.sttr_size + 7) / 8 * 8;  // instances are 8-aligned
    std::unique_ptr<uint8_t[]> block(new uint8_t[lead + t.fixed_size]());
    struct View {
      uint8_t *p;
      uint8_t *get() const { return p; }
      uint8_t &operator[](size_t i) const { return p[i]; }
    } mem{block.get() + lead}, area{block.get() + lead - t.sttr_size};
    auto *rec = static_cast<wex_type_info *>(dlsym(RTLD_DEFAULT, ("_" + std::string(t.name) + "_type_info_internal").c_str()));
    op<InitFn>(t.name, "initialize")(h, 0, mem.get(), rec, 0, 0, 0, area.get(), &err);
    ASSERT_EQ(err, 0u);
    EXPECT_EQ(mem[10] & 0x48, 0x48);
    for (const auto &f : bixfacts::kFields) {
      if (f.type != std::string(t.name) || std::string(f.kind) != "Record") continue;
      EXPECT_EQ(mem.get() + f.offset + static_cast<int32_t>(wexlib_get_sttr_offset(h, 0, mem.get() + f.offset)),
                area.get() + f.sttr_elems) << f.name;
    }
    EXPECT_EQ(op<UnmarshalFn>(t.name, "unmarshal")(h, 0, wire.data(), mem.get(), static_cast<int32_t>(n), 0, &err), n);
    EXPECT_EQ(op<MarshalFn>(t.name, "marshal")(h, 0, again.data(), mem.get(), 8192, &err), n);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(std::memcmp(wire.data(), again.data(), n), 0);
    std::vector<uint8_t> got(area.get(), area.get() + t.sttr_size),
        want(static_cast<uint8_t *>(src) + t.fixed_size, static_cast<uint8_t *>(src) + t.fixed_size + t.sttr_size);
    for (const auto &f : bixfacts::kFields)  // an element-state buffer pointer is each one's own
      if (f.type == std::string(t.name) && std::string(f.kind) == "VarArray")
        std::fill_n(got.begin() + f.sttr_ptr, 8, 0), std::fill_n(want.begin() + f.sttr_ptr, 8, 0);
    EXPECT_EQ(got, want);
    op<DestroyInternalFn>(t.name, "destroy_internal")(h, 0, mem.get(), 0);
    op<DestroyFn>(t.name, "destroy")(tx, 0, src);
  }
  EXPECT_TRUE(h.live.empty());
}

// An instance of another type (a cast in the caller) is neither torn down nor freed, nor
// marked embedded: this type's layout would read and free what its bytes happen to hold.
TEST(Destroy, AnInstanceOfAnotherTypeIsLeftAlone) {
  Handle h(WEX_STTR_ON);
  Traces tr;
  for (const auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) == "message") continue;
    const char *other = std::string(t.name) == "wex_nosfp_dummy" ? "wex_xcvr_rc" : "wex_nosfp_dummy";
    void *victim = op<CreateFn>(other, "create")(h, 0);
    std::vector<uint8_t> before(static_cast<uint8_t *>(victim), static_cast<uint8_t *>(victim) + 16);
    h->error = 0;
    op<DestroyFn>(t.name, "destroy")(h, 0, victim);
    EXPECT_EQ(h->error, 22u) << t.name;
    tr.lines.clear();
    op<DestroyFn>(t.name, "set_instance_embedded")(h, 0, victim);
    EXPECT_EQ(tr.lines.size(), 1u) << t.name;
    EXPECT_TRUE(std::equal(before.begin(), before.end(), static_cast<uint8_t *>(victim))) << t.name;
    op<DestroyFn>(other, "destroy")(h, 0, victim);
  }
  EXPECT_TRUE(h.live.empty());
}

// The handle's own tracking switch: instances made after it carry state bytes.
TEST(Create, TrackingSwitchedOnThroughTheHandle) {
  wex_handle *h = wex_handle_new();
  auto *before = wex_xcvr_presence_info_create(h, 0);
  wex_handle_set_tracking(h, 1);
  ASSERT_NE(h->sttr_profile, nullptr);
  EXPECT_EQ(h->sttr_profile->tracking_mode, WEX_STTR_ON);
  EXPECT_EQ(wex_xcvr_presence_info_sizeof(h), 50u);
  auto *after = wex_xcvr_presence_info_create(h, 0);
  uint32_t err = 0;
  wex_xcvr_presence_info_is_present_set_value(h, 0, after, 1, &err);
  EXPECT_EQ(std::pair(err, wex_xcvr_presence_info_is_present_state_flag_get(h, 0, after, &err)),
            std::pair(0u, uint8_t{2}));
  wex_xcvr_presence_info_is_present_set_value(h, 0, before, 1, &err);
  EXPECT_EQ(err, 22u);  // made untracked: stored, but nothing to mark
  wex_handle_set_tracking(h, 0);
  EXPECT_EQ(h->sttr_profile->tracking_mode, WEX_STTR_OFF);
  wex_xcvr_presence_info_destroy(h, 0, before);
  wex_xcvr_presence_info_destroy(h, 0, after);
  wex_handle_free(h);
}

// Error codes read as what they mean here, not as strerror() would name them.
TEST(Errors, EveryStoredCodeHasItsOwnText) {
  for (uint32_t code : {0u, 2u, 12u, 22u, 34u, 38u, 43u, 52u, 74u, 90u})
    EXPECT_STRNE(bix_ipc_shim_error_text(code), "unknown error code") << code;
  EXPECT_STREQ(bix_ipc_shim_error_text(43), "value or variant not allowed");
  EXPECT_STREQ(bix_ipc_shim_error_text(90), "buffer too small");
  EXPECT_STREQ(bix_ipc_shim_error_text(5), "unknown error code");
}

TEST(CreateCr, PendingErrorYieldsTheNullInstanceAndAllocatesNothing) {
  Handle h;
  h->error = 5;
  void *a = wex_xcvr_info_create_cr(h);
  void *b = wex_xcvr_rc_create_cr(h);
  EXPECT_NE(a, nullptr);
  EXPECT_EQ(a, wex_xcvr_info_create_cr(h));  // one shared null instance per type
  EXPECT_EQ(h.allocs, 0u);
  EXPECT_EQ(h->error, 5u);
  EXPECT_EQ(h->cr_create, 0u);
  wex_xcvr_info_destroy_cr(h, static_cast<wex_xcvr_info *>(a));
  wex_xcvr_rc_destroy(h, 0, static_cast<wex_xcvr_rc *>(b));
  EXPECT_EQ(h.releases, 0u);
}

TEST(CreateCr, AllocationFailureGivesNullInstanceWith12PlainCreateGivesNull) {
  Handle h;
  h.fail_at = 1;
  EXPECT_EQ(wex_xcvr_presence_info_create(h, 0), nullptr);
  EXPECT_EQ(h->error, 0u);
  h.allocs = 0;
  void *n = wex_xcvr_presence_info_create_cr(h);
  EXPECT_NE(n, nullptr);
  EXPECT_EQ(h->error, 12u);
  wex_xcvr_presence_info_destroy(h, 0, static_cast<wex_xcvr_presence_info *>(n));
  EXPECT_EQ(h.releases, 0u);
}

TEST(Create, IndirectTypesPointAtTheRegisteredCopy) {
  Handle h;
  h->types_indirect = 1;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  const wex_type_info *t = wex_get_manifested_type_info(p);
  EXPECT_NE(t, &_wex_xcvr_presence_info_type_info_internal);
  EXPECT_STREQ(t->luid_text, "8f3fd8f32fa08d28bc785e2cc8f6cbdd");
  EXPECT_EQ(t->indirect, 1u);
  EXPECT_EQ(wex_get_manifested_type_info(&p->rc), h->type_lookup(h->type_registry, 0,
                                                                 "35230fa8b32e1e096fdbf0e2b28f5981"));
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(Counters, EnumerationsCountCreateAndDestroyInTheirVariantEntry) {
  Handle h;
  wex_variant_entry &e = _wex_xcvr_type_type_info_internal.variant_info->entries[0];
  uint64_t created = e.created, destroyed = e.destroyed;
  auto *t = wex_xcvr_type_create(h, 0);
  EXPECT_EQ(e.created, created + 1);
  ASSERT_EQ(h.counts.size(), 1u);
  EXPECT_EQ(h.counts[0], &e.created);
  wex_xcvr_type_destroy(h, 0, t);
  EXPECT_EQ(e.destroyed, destroyed + 1);
  EXPECT_EQ(h.counts.back(), &e.destroyed);
}

TEST(Destroy, PendingReferencesKeepTheInstance) {
  Handle h;
  Traces tr;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  wex_oid_mapping_create(h, p, 1);
  wex_xcvr_presence_info_destroy(h, 0, p);
  EXPECT_EQ(h.releases, 0u);
  EXPECT_EQ(h->error, 0u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_INFO,
                     "wex_xcvr_presence_info destroy: Object has references and will be cleaned up "
                     "when all of them are released"));
  wex_oid_mapping_drop_ref(h, p);
  wex_xcvr_presence_info_destroy(h, 0, p);
  EXPECT_EQ(h.releases, 1u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_DEBUG, "wex_xcvr_presence_info destroy: Successfully removed OID mapping"));
}

TEST(Destroy, MappingFailureIsReportedAndNothingIsFreed) {
  Handle h;
  Traces tr;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  wex_oid_mapping_create(h, p, 0);
  wex_mapping_fail_next(h, 5);
  wex_xcvr_presence_info_destroy(h, 0, p);
  EXPECT_EQ(h.releases, 0u);
  EXPECT_EQ(h->error, 5u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, std::string("wex_xcvr_presence_info destroy: Failed to remove "
                                                   "oid mapping for object. Error ") + strerror(5)));
  h->error = 0;
  wex_xcvr_presence_info_destroy(h, 0, p);
  EXPECT_EQ(h.releases, 1u);
}

TEST(Destroy, ReleasesUnionAlternativesAndVariableArrayStorage) {
  Handle h(WEX_STTR_ON);
  auto *s = wex_xcvr_status_info_create(h, 0);
  s->sfp_sensors = wex_sfp_env_mon_create(h, 0);
  s->qsfp_sensors = wex_qsfp_env_mon_create(h, 0);
  wex_xcvr_status_info_destroy(h, 0, s);
  auto *d = ipc_shim_data_create(h, 0);
  d->data = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, 3));
  d->size = 3;
  void *states = h->allocate(h->alloc_ctx, 0, 3);
  std::memcpy(reinterpret_cast<uint8_t *>(d) + 40 + 8, &states, sizeof states);
  ipc_shim_data_destroy(h, 0, d);
  EXPECT_TRUE(h.live.empty());
  EXPECT_EQ(h.allocs, h.releases);
}

TEST(DestroyDeathTest, CorruptedTypeInfoAndMissingVariantTableAbort) {
  Handle h;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  wex_type_info fake = _wex_xcvr_presence_info_type_info_internal;
  p->tinfo = &fake;
  fake.magic = 0;
  EXPECT_DEATH(wex_xcvr_presence_info_destroy(h, 0, p), "tinfo is null or corrupted");
  fake.magic = WEX_TYPE_INFO_MAGIC;
  fake.variant_info = nullptr;
  EXPECT_DEATH(wex_xcvr_presence_info_destroy(h, 0, p), "varinfo is NULL");
  p->rc.tinfo = nullptr;
  EXPECT_DEATH(wex_xcvr_rc_destroy(h, 0, &p->rc), "tinfo is null or corrupted");
  p->tinfo = &_wex_xcvr_presence_info_type_info_internal;
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(Variants, CapAndValidity) {
  EXPECT_EQ(wex_xcvr_rpc_req_type_variant_data_index_cap(5), 1);
  EXPECT_EQ(wex_xcvr_rpc_req_type_variant_data_index_cap(-3), -3);
  EXPECT_EQ(wex_xcvr_rc_variant_data_index_cap(5), 0);
  EXPECT_EQ(wex_xcvr_info_variant_data_index_cap(5), 0);

  Handle h;
  EXPECT_EQ(wex_xcvr_info_is_valid_cr(h, 0, 1), 1u);
  EXPECT_EQ(wex_xcvr_info_is_valid_cr(h, 0, 2), 0u);  // latest variant 0 admits one
  wex_domain_set_variant(h, "a1f94b8e9cd0df7417884f4b2b46e1b1", 1);
  EXPECT_EQ(wex_xcvr_info_is_valid_cr(h, 0, 2), 1u);

  const char *rpc = "8c143740dccd51f4378fb436c8e99ff1";
  wex_domain_set_variant(h, rpc, 0);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 3), 1u);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 4), 0u);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 0xFFFFFFFFu), 1u);  // signed: negative passes
  wex_domain_set_variant(h, rpc, 1);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 5), 1u);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 6), 0u);
  wex_domain_set_variant(h, rpc, 2);
  EXPECT_EQ(wex_xcvr_rpc_req_type_is_valid_cr(h, 6), 1u);
  EXPECT_EQ(wex_xcvr_rc_is_valid_cr(h, 15), 1u);
  EXPECT_EQ(wex_xcvr_rc_is_valid_cr(h, 16), 0u);
  EXPECT_EQ(wex_xcvr_status_bitmap_is_valid_cr(h, 12), 1u);
  EXPECT_EQ(wex_xcvr_status_bitmap_is_valid_cr(h, 13), 0u);
}

TEST(SetEmbedded, NullPointerTracesAndNullInstanceIsNeverWritten) {
  Handle h;
  Traces tr;
  wex_xcvr_info_set_instance_embedded(h, 0, nullptr);
  wex_xcvr_rc_set_instance_embedded(h, 0, nullptr);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Invalid object pointer passed in to set instance flag"));
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "Invalid object handle passed to set embedded flag"));
  h->error = 1;
  auto *n = wex_xcvr_presence_info_create_cr(h);
  wex_xcvr_presence_info_set_instance_embedded(h, 0, n);
  EXPECT_EQ(n->flags, 0);
}

}  // namespace
