// Scalar fields (the six integer kinds, enumerations, union selectors) of every record, the
// layout examples and the fatal path.
#include "access_support.h"

using namespace acc;

namespace {

bool is_enum(const Field &f) { return std::string(f.kind) != "Prim"; }
// Where the value lives: in place, or in the embedded enumeration's value word.
uint32_t value_offset(const Field &f) { return f.offset + (is_enum(f) ? 12 : 0); }

TEST_F(Access, ScalarsOfEveryRecord) {
  auto check = [&](const Field &f, auto v) {
    using T = decltype(v);
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type), *bare = untracked(f.type), *field = inst + f.offset;
    const Bytes value = range(inst + value_offset(f), sizeof v);
    EXPECT_TRUE(watched([&] { err = 0, on(f, "set_value", inst, v); }, value + range(st + f.sttr, 1)));
    EXPECT_EQ(std::memcmp(inst + value_offset(f), &v, sizeof v), 0);
    EXPECT_EQ(std::tuple(on<T>(f, "get_value", inst), on<uint8_t *>(f, "get", inst)), std::tuple(v, field));
    EXPECT_EQ(on<uint8_t>(f, "state_flag_get", inst), 2);
    // set takes the address of a value, or of a whole enumeration (header included)
    std::vector<uint8_t> src(field, field + (is_enum(f) ? 16 : sizeof v));
    st[f.sttr] = 0;
    std::memset(inst + value_offset(f), 0, sizeof v);  // an enumeration keeps its header
    on(f, "set", inst, static_cast<const void *>(src.data()));
    EXPECT_TRUE(std::equal(src.begin(), src.end(), field));
    EXPECT_EQ(V({st[f.sttr], err}), V({2, 0}));

    EXPECT_TRUE(watched([&] {
      err = 7;  // pending: nothing happens at all
      on(f, "set_value", inst, T{});
      on(f, "state_flag_set", inst, uint8_t{9});
      EXPECT_EQ((std::tuple{on<void *>(f, "get", inst), on<T>(f, "get_value", inst),
                            on<uint8_t>(f, "state_flag_get", inst), err}),
                std::tuple(nullptr, T{}, uint8_t{0}, 7u));
      inst[8] = 0xFF;  // a variant the domain does not admit: 43 for all but the state reader
      EXPECT_EQ(V({code(f, "set_value", inst, T{}), code(f, "state_flag_set", inst, uint8_t{1}),
                   code<void *>(f, "get", inst), code<uint8_t>(f, "state_flag_get", inst)}),
                V({43, 43, 43, 0}));
      inst[8] = 0;
    }, Bytes{}));

    // Without a state area while the handle tracks: the value is stored before the check.
    tr.lines.clear();
    EXPECT_EQ(V({code(f, "set_value", bare, v), code<uint8_t>(f, "state_flag_get", bare)}), V({22, 22}));
    EXPECT_EQ(std::memcmp(bare + value_offset(f), &v, sizeof v), 0);
    EXPECT_EQ(tr.lines, (Lines{not_tracked[0], {LUMO_LEVEL_ERROR, "The object is non state tracked"}}));
    EXPECT_EQ(V({code(f, "state_flag_set", inst, uint8_t{0xAB}), on<uint8_t>(f, "state_flag_get", inst)}),
              V({0, 0xAB}));
    h.set_mode(WEX_STTR_OFF);  // state flags refused, silently, while tracking is off
    EXPECT_EQ(V({code<uint8_t>(f, "state_flag_get", inst), code(f, "state_flag_set", inst, uint8_t{1}),
                 uint32_t(tr.lines.size())}),
              V({22, 22, 2}));
    h.set_mode(WEX_STTR_ON);
    for (uint8_t *p : {inst, bare}) destroy(h, f.type, p);
  };
  for (auto kind : {"Prim", "Enum", "Selector"})
    for (const Field *f : fields(kind)) {
      SCOPED_TRACE(name_of(*f));
      is_enum(*f) ? check(*f, uint32_t{1}) : by_prim(f->prim, [&](auto v) { check(*f, v); });
    }
  EXPECT_EQ(fields("Prim").size() + fields("Enum").size() + fields("Selector").size(), 118u);
  EXPECT_TRUE(h.live.empty());
  h->error = 1;  // a type's shared null instance is never written
  auto *null = wex_xcvr_presence_info_create_cr(h);
  EXPECT_EQ(V({code([&] { wex_xcvr_presence_info_is_present_set_value(h, 0, null, 7, &err); }), null->is_present}),
            V({22, 0}));
}

// A cast in the caller: an instance of another, smaller type handed to every accessor
// kind. Writers and readers alike refuse it with 22 and touch nothing (ASan would see a
// read or write past the small instance).
TEST_F(Access, EveryAccessorRefusesAnInstanceOfAnotherType) {
  size_t kinds = 0;
  for (const Field &f : bixfacts::kFields) {
    if (type_of(f.type).kind != std::string("type")) continue;
    SCOPED_TRACE(name_of(f));
    const char *other = std::string(f.type) == "wex_nosfp_dummy" ? "wex_xcvr_rc" : "wex_nosfp_dummy";
    uint8_t *victim = create(h, other);
    const std::string kind = f.kind;
    uint8_t *member = kind == "Record" || kind == "UnionAlt" || kind == "Flags" || kind == "RecordArray"
                          ? create(h, f.member)
                          : nullptr;
    uint8_t buf[4] = {1, 1, 1, 1}, *arr = nullptr;
    std::vector<uint32_t> codes;
    EXPECT_TRUE(watched([&] {
      if (kind == "Prim" || kind == "Enum" || kind == "Selector") {
        codes.push_back(code(f, "set_value", victim, uint32_t{1}));
        codes.push_back(code<void *>(f, "get", victim));
        codes.push_back(code(f, "state_flag_set", victim, uint8_t{1}));
        codes.push_back(code<uint8_t>(f, "state_flag_get", victim));
      } else if (kind == "Count") {
        codes.push_back(code<void *>(f, "get", victim));
      } else if (kind == "FixedArray" || kind == "VarArray") {
        codes.push_back(code<void *>(f, "get", victim, 0u));
        codes.push_back(code(f, "set", victim, 0u, static_cast<const void *>(buf)));
        codes.push_back(code(f, "set_mem", victim, static_cast<const void *>(buf), 1));
        codes.push_back(code(f, "get_mem", victim, static_cast<void *>(buf), 1));
        codes.push_back(code(f, "state_flag_set", victim, 0u, uint8_t{1}));
        codes.push_back(code(f, "state_flag_get_arr", victim, &arr));
        codes.push_back(code(f, "state_flag_whole_set", victim, uint8_t{1}));
      } else if (kind == "RecordArray") {
        codes.push_back(code<void *>(f, "get", victim, 0u));
        codes.push_back(code(f, "set", victim, 0u, member));
      } else if (kind == "Record" || kind == "Flags") {
        codes.push_back(code<void *>(f, "get", victim));
        codes.push_back(code(f, "set", victim, member));
      } else if (kind == "UnionAlt") {
        codes.push_back(code<void *>(f, "get", victim));
        codes.push_back(code(f, "set", victim, member));
        codes.push_back(code<void *>(f, "get_detach", victim));
      }
    }, Bytes{}));
    EXPECT_EQ(codes, V(codes.size(), 22u));
    kinds += !codes.empty();
    destroy(h, other, victim);
    if (member) destroy(h, f.member, member);
  }
  EXPECT_EQ(kinds, std::size(bixfacts::kFields) - 0);
  EXPECT_TRUE(h.live.empty());
}

// The layout examples, independent of the generated facts.
TEST_F(Access, GoldenLayout) {
  auto *x = wex_xcvr_info_create(h, 0);  // dev_if_name: whole byte 9, elements 10 to 42
  uint8_t *st = reinterpret_cast<uint8_t *>(x) + 464, *arr = nullptr;
  wex_xcvr_info_dev_if_name_set_value(h, 0, x, 32, -5, &err);
  wex_xcvr_info_dev_if_name_state_flag_get_arr(h, 0, x, &arr, &err);
  EXPECT_EQ(std::pair(x->dev_if_name[32], arr), std::pair(int8_t{-5}, st + 10));
  EXPECT_EQ(at(st, {9, 42, 43}), V({2, 2, 0}));  // 43: the next field's whole byte
  wex_xcvr_info_destroy(h, 0, x);

  auto *s = wex_xcvr_status_info_create(h, 0);  // alternatives 438 to 444, after the selector's
  wex_xcvr_status_info_sfp_sensors_set(h, 0, s, wex_sfp_env_mon_create(h, 0), &err);
  wex_xcvr_status_info_nosfp_data_set(h, 0, s, wex_nosfp_dummy_create(h, 0), &err);
  EXPECT_EQ(at(s, {592 + 437, 592 + 438, 592 + 443, 592 + 444}), V({0, 2, 0, 2}));
  EXPECT_EQ(s->xcvr_type.value, 7u);      // the last one set selects
  wex_xcvr_status_info_destroy(h, 0, s);  // frees both, selected or not

  auto *t = wex_bix_env_sensor_table_create(h, 0);  // temp: whole 1, elements 2 to 13, areas 14 + 7k
  wex_bix_env_sensor_table_temp_state_flag_set(h, 0, t, 11, 0x11, &err);
  wex_bix_env_temp_sensor_info_reading_valid_set_value(h, 0, &t->temp[1], 1, &err);
  EXPECT_EQ(at(t, {1624 + 13, 1624 + 14 + 7 + 6}), V({0x11, 2}));
  wex_bix_env_sensor_table_destroy(h, 0, t);

  auto *p = wex_xcvr_presence_info_create(h, 0);  // is_present at 32; state bytes rc 48, is_present 49
  wex_xcvr_presence_info_is_present_set_value(h, 0, p, 7, &err);
  // rc: not a literal of variant 0, refused, but marked all the same
  EXPECT_EQ(V({code([&] { wex_xcvr_presence_info_rc_set_value(h, 0, p, 16, &err); }), p->rc.value}), V({43, 0}));
  EXPECT_EQ(at(p, {32, 48, 49}), V({7, 2, 2}));
  wex_xcvr_presence_info_destroy(h, 0, p);
  EXPECT_TRUE(h.live.empty());
}

using AccessDeathTest = Access;
TEST_F(AccessDeathTest, CorruptedModeWordAborts) {
  lumo_set_sink(nullptr, nullptr);  // the abort message goes to the standard error stream
  auto *p = wex_xcvr_presence_info_create(h, 0);
  h.set_mode(0x1234);
  EXPECT_DEATH(wex_xcvr_presence_info_is_present_set_value(h, 0, p, 1, &err), "Corrupted WEX Handle");
  EXPECT_DEATH(wex_xcvr_presence_info_rc_state_flag_get(h, 0, p, &err), "Corrupted WEX Handle");
  h.set_mode(WEX_STTR_ON);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

}  // namespace
