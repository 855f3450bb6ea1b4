// Scalar fields (the six integer kinds, enumerations, union selectors) of every record.
#include "access_support.h"

using namespace acc;

namespace {

bool is_enum(const Field &f) { return std::string(f.kind) != "Prim"; }
// Where the value lives: in place, or in the embedded enumeration's value word.
uint32_t value_offset(const Field &f) { return f.offset + (is_enum(f) ? 12 : 0); }

// Every scalar field with a value it accepts, typed as its set_value takes it.
template <typename Fn>
void each_scalar(Fn &&fn) {
  size_t n = 0;
  for (auto kind : {"Prim", "Enum", "Selector"})
    for (const Field *f : fields(kind)) {
      SCOPED_TRACE(std::string(f->type) + "." + f->name);
      ++n;
      if (is_enum(*f))
        fn(*f, uint32_t{1});
      else
        by_prim(f->prim, [&](auto v) { fn(*f, v); });
    }
  EXPECT_EQ(n, 118u);
}

TEST(ScalarFields, SetAndSetValueStoreReadBackAndMarkExactlyTheirBytes) {
  Handle h(WEX_STTR_ON);
  each_scalar([&](const Field &f, auto v) {
    using T = decltype(v);
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type);
    uint32_t err = 0;
    Watch w(h);
    call(f, "set_value", h, 0u, inst, v, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(std::memcmp(inst + value_offset(f), &v, sizeof v), 0);
    EXPECT_EQ(w.notified(), range(inst + value_offset(f), sizeof v) + range(st + f.sttr, 1));
    EXPECT_TRUE(w.sound());
    EXPECT_EQ(call<T>(f, "get_value", h, 0u, inst, &err), v);
    EXPECT_EQ(call<void *>(f, "get", h, 0u, inst, &err), inst + f.offset);
    EXPECT_EQ(call<uint8_t>(f, "state_flag_get", h, 0u, inst, &err), 2);

    // set takes the address of a value, or a whole enumeration instance (header included)
    st[f.sttr] = 0;
    std::vector<uint8_t> src(16);
    if (is_enum(f)) {
      uint8_t *e = create(h, f.member);
      call(f.member, "set_value", h, 0u, e, uint32_t{1}, &err);
      src.assign(e, e + 16);
      destroy(h, f.member, e);
    } else {
      std::memcpy(src.data(), &v, sizeof v);
    }
    std::memset(inst + f.offset, 0, is_enum(f) ? 16 : sizeof v);
    call(f, "set", h, 0u, inst, static_cast<const void *>(src.data()), &err);
    EXPECT_EQ(std::memcmp(inst + f.offset, src.data(), is_enum(f) ? 16 : sizeof v), 0);
    EXPECT_EQ(st[f.sttr], 2);
    EXPECT_EQ(err, 0u);
    destroy(h, f.type, inst);
  });
  EXPECT_TRUE(h.live.empty());
}

TEST(ScalarFields, FailuresWithTheirCodesAndTraces) {
  Handle h(WEX_STTR_ON), plain;
  Traces tr;
  each_scalar([&](const Field &f, auto v) {
    using T = decltype(v);
    uint8_t *inst = create(h, f.type);
    uint32_t err = 7;  // pending: nothing happens at all
    Watch w(h);
    call(f, "set_value", h, 0u, inst, v, &err);
    call(f, "state_flag_set", h, 0u, inst, uint8_t{9}, &err);
    EXPECT_EQ(call<void *>(f, "get", h, 0u, inst, &err), nullptr);
    EXPECT_EQ(call<T>(f, "get_value", h, 0u, inst, &err), T{});
    EXPECT_EQ(call<uint8_t>(f, "state_flag_get", h, 0u, inst, &err), 0);
    EXPECT_EQ(err, 7u);

    inst[8] = 0xFF;  // a variant the domain does not admit: 43 for all but the state reader
    auto fails_with = [&](uint32_t code, auto &&step) {
      err = 0;
      step();
      EXPECT_EQ(err, code);
    };
    fails_with(43, [&] { call(f, "set_value", h, 0u, inst, v, &err); });
    fails_with(43, [&] { call(f, "state_flag_set", h, 0u, inst, uint8_t{1}, &err); });
    fails_with(43, [&] { EXPECT_EQ(call<void *>(f, "get", h, 0u, inst, &err), nullptr); });
    fails_with(0, [&] { call<uint8_t>(f, "state_flag_get", h, 0u, inst, &err); });
    EXPECT_EQ(w.writes(), 0u);
    inst[8] = 0;

    // Allocated without a state area, then used while the handle tracks.
    uint8_t *bare = create(plain, f.type);
    plain.set_mode(WEX_STTR_ON);
    tr.lines.clear();
    call(f, "set_value", plain, 0u, bare, v, &err);
    EXPECT_EQ(err, 22u);
    EXPECT_EQ(std::memcmp(bare + value_offset(f), &v, sizeof v), 0);  // stored before the check
    EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is not state tracked"));
    err = 0;
    call<uint8_t>(f, "state_flag_get", plain, 0u, bare, &err);
    EXPECT_EQ(err, 22u);
    EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is non state tracked"));
    plain.set_mode(0);
    destroy(plain, f.type, bare);

    err = 0;
    call(f, "state_flag_set", h, 0u, inst, uint8_t{0xAB}, &err);
    EXPECT_EQ(call<uint8_t>(f, "state_flag_get", h, 0u, inst, &err), 0xAB);
    h.set_mode(WEX_STTR_OFF);  // state flags refused, silently, while tracking is off
    tr.lines.clear();
    call<uint8_t>(f, "state_flag_get", h, 0u, inst, &err);
    EXPECT_EQ(err, 22u);
    err = 0;
    call(f, "state_flag_set", h, 0u, inst, uint8_t{1}, &err);
    EXPECT_EQ(err, 22u);
    EXPECT_TRUE(tr.lines.empty());
    h.set_mode(WEX_STTR_ON);
    destroy(h, f.type, inst);
  });
}

// The layout examples, independent of the generated facts.
TEST(ScalarFields, GoldenLayout) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  auto *b = reinterpret_cast<uint8_t *>(p);
  wex_xcvr_presence_info_is_present_set_value(h, 0, p, 7, &err);
  EXPECT_EQ(b[32], 7);
  EXPECT_EQ(b[49], 2);
  wex_xcvr_presence_info_rc_set_value(h, 0, p, 16, &err);  // not a literal of variant 0
  EXPECT_EQ(err, 43u);
  EXPECT_EQ(p->rc.value, 0u);
  EXPECT_EQ(b[48], 2);  // marked all the same
  wex_xcvr_presence_info_destroy(h, 0, p);

  err = 0;
  auto *s = wex_sfp_env_mon_create(h, 0);
  wex_sfp_env_mon_temp_set_value(h, 0, s, -5, &err);
  EXPECT_EQ(wex_sfp_env_mon_temp_get_value(h, 0, s, &err), -5);
  wex_sfp_env_mon_destroy(h, 0, s);

  // The count of the variable array is read-only.
  auto *d = ipc_shim_data_create(h, 0);
  EXPECT_EQ(ipc_shim_data_size_get(h, 0, d, &err), &d->size);
  EXPECT_EQ(ipc_shim_data_size_get_value(h, 0, d, &err), 0u);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "ipc_shim_data_size_set_value"), nullptr);
  EXPECT_EQ(dlsym(RTLD_DEFAULT, "ipc_shim_data_size_state_flag_get"), nullptr);
  ipc_shim_data_destroy(h, 0, d);

  // A type's shared null instance is never written.
  h->error = 1;
  auto *n = wex_xcvr_presence_info_create_cr(h);
  h->error = 0;
  wex_xcvr_presence_info_is_present_set_value(h, 0, n, 7, &err);
  EXPECT_EQ(err, 22u);
  EXPECT_EQ(n->is_present, 0);
}

TEST(ScalarFieldsDeathTest, CorruptedModeWordAborts) {
  Handle h(WEX_STTR_ON);
  auto *p = wex_xcvr_presence_info_create(h, 0);
  h.set_mode(0x1234);
  uint32_t err = 0;
  EXPECT_DEATH(wex_xcvr_presence_info_is_present_set_value(h, 0, p, 1, &err), "Corrupted WEX Handle");
  EXPECT_DEATH(wex_xcvr_presence_info_rc_state_flag_get(h, 0, p, &err), "Corrupted WEX Handle");
  h.set_mode(WEX_STTR_ON);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

}  // namespace
