// Embedded records and flag sets, record arrays, union alternatives and whole-record set.
#include <sstream>

#include "access_support.h"

using namespace acc;

namespace {

// Writes a recognisable value into the first primitive field of a record instance
// through its own accessor; returns that field.
const Field &touch(wex_handle *h, const std::string &type, uint8_t *inst) {
  const Field &p = *fields("Prim", type.c_str()).at(0);
  uint32_t err = 0;
  by_prim(p.prim, [&](auto v) { call(p, "set_value", h, 0u, inst, v, &err); });
  return p;
}
bool same_field(const Field &p, const uint8_t *a, const uint8_t *b) {
  bool same = false;
  by_prim(p.prim, [&](auto v) { same = std::memcmp(a + p.offset, b + p.offset, sizeof v) == 0; });
  return same;
}

TEST(Exports, EveryAccessorOfEveryFieldAndRecord) {
  const std::string scalar = "get get_value set set_value state_flag_get state_flag_set",
                    array = "get get_value get_mem set set_value set_mem set_mem_cr state_flag_get state_flag_set "
                            "state_flag_get_arr state_flag_set_arr state_flag_whole_get state_flag_whole_set";
  const std::map<std::string, std::string> by_kind = {
      {"Prim", scalar}, {"Enum", scalar}, {"Selector", scalar}, {"Count", "get get_value"},
      {"Flags", "get set state_flag_get state_flag_set"}, {"Record", "get set state_flag_get state_flag_set"},
      {"FixedArray", array}, {"VarArray", array + " set_cr remove_elements"},
      {"RecordArray", "get set state_flag_get state_flag_get_arr state_flag_set state_flag_set_arr "
                      "state_flag_whole_get state_flag_whole_set"},
      {"UnionAlt", "get get_detach set set_cr state_flag_get state_flag_set"}};
  size_t n = 0;
  auto expect = [&](const std::string &name) {
    EXPECT_NE(dlsym(RTLD_DEFAULT, name.c_str()), nullptr) << name;
    ++n;
  };
  for (auto &f : bixfacts::kFields) {
    std::istringstream ops(by_kind.at(f.kind));
    for (std::string s; ops >> s;) expect(std::string(f.type) + "_" + f.name + "_" + s);
  }
  for (auto &t : bixfacts::kTypes)
    if (std::string(t.kind) == "type") {
      expect(std::string(t.name) + "_get");
      expect(std::string(t.name) + "_set");
    }
  EXPECT_EQ(n, 1451u);
}

TEST(EmbeddedRecords, SetCopiesContentAndStateIntoThePlacedMember) {
  Handle h(WEX_STTR_ON);
  auto records = fields("Record");
  EXPECT_EQ(records.size(), 6u);
  for (const Field *f : records) {
    SCOPED_TRACE(std::string(f->type) + "." + f->name);
    uint8_t *inst = create(h, f->type), *src = create(h, f->member);
    uint8_t *member = inst + f->offset, *st = area(inst, f->type);
    const Field &p = touch(h, f->member, src);
    uint32_t err = 0;
    EXPECT_EQ(call<uint8_t *>(*f, "get", h, 0u, inst, &err), member);
    uint8_t flags = member[10];
    uint32_t placed = wexlib_get_sttr_offset(h, 0, member);
    Watch w(h);
    call(*f, "set", h, 0u, inst, src, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(w.sound());
    EXPECT_TRUE(same_field(p, member, src));
    EXPECT_EQ(member[10], flags);  // still nested, tracked and placed in the parent's area
    EXPECT_EQ(wexlib_get_sttr_offset(h, 0, member), placed);
    EXPECT_EQ(st[f->sttr], 2);
    // the member's state bytes are the source's, at their place inside the parent's area
    EXPECT_EQ(std::memcmp(st + f->sttr_elems, area(src, f->member), type_of(f->member).sttr_size), 0);
    EXPECT_EQ(call<uint8_t>(*f, "state_flag_get", h, 0u, inst, &err), 2);
    destroy(h, f->member, src);
    destroy(h, f->type, inst);
  }
  EXPECT_TRUE(h.live.empty());
}

TEST(EmbeddedRecords, FlagSetFieldCopiesTheFlags) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *x = ipc_shim_xcvr_data_create(h, 0);
  auto *bits = wex_xcvr_status_bitmap_create(h, 0);
  wex_xcvr_status_bitmap_set_value(h, 0, bits, 9, 1, &err);
  ipc_shim_xcvr_data_status_set(h, 0, x, bits, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(ipc_shim_xcvr_data_status_get(h, 0, x, &err), &x->status);
  EXPECT_EQ(x->status.bits[1], 0x02);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(x)[184 + 7], 2);
  wex_xcvr_status_bitmap_destroy(h, 0, bits);
  ipc_shim_xcvr_data_destroy(h, 0, x);
}

TEST(RecordArrays, ElementsBoundsAndStateBytesOfEveryArray) {
  Handle h(WEX_STTR_ON);
  Traces tr;
  auto arrays = fields("RecordArray");
  EXPECT_EQ(arrays.size(), 4u);
  uint8_t *inst = create(h, "wex_bix_env_sensor_table"), *st = area(inst, "wex_bix_env_sensor_table");
  for (const Field *f : arrays) {
    SCOPED_TRACE(f->name);
    auto get = [&](uint32_t i, uint32_t *e) { return call<uint8_t *>(*f, "get", h, 0u, inst, i, e); };
    auto set = [&](uint32_t i, uint8_t *from, uint32_t *e) { call(*f, "set", h, 0u, inst, i, from, e); };
    const uint32_t n = f->count, elem_area = type_of(f->member).sttr_size;
    uint8_t *src = create(h, f->member);
    const Field &p = touch(h, f->member, src);
    uint32_t err = 0;
    EXPECT_EQ(get(n - 1, &err), inst + f->offset + (n - 1) * f->elem_size);
    {
      Watch w(h);
      set(n, src, &err);
      EXPECT_EQ(err, 2u);
      err = 0;
      EXPECT_EQ(get(n, &err), nullptr);
      EXPECT_EQ(err, 2u);
      err = 0;
      set(0, nullptr, &err);
      EXPECT_EQ(err, 0u);
      EXPECT_EQ(w.writes(), 0u);
    }
    err = 0;
    uint32_t i = n - 1;
    set(i, src, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(same_field(p, get(i, &err), src));
    EXPECT_EQ(st[f->sttr], 2);
    EXPECT_EQ(st[f->sttr_elems + i], 2);
    EXPECT_EQ(std::memcmp(st + f->sttr_areas + i * elem_area, area(src, f->member), elem_area), 0);

    // A source without state area is copied, then refused for marking.
    Handle plain;
    uint8_t *bare = create(plain, f->member);
    touch(plain, f->member, bare);
    st[f->sttr] = 0;
    set(0, bare, &err);
    EXPECT_EQ(err, 22u);
    EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The val object is not state tracked"));
    err = 0;
    EXPECT_TRUE(same_field(p, get(0, &err), bare));
    EXPECT_EQ(st[f->sttr], 0);
    destroy(plain, f->member, bare);

    // per-element and whole state bytes
    std::vector<uint8_t> flags(n, 0x5A);
    call(*f, "state_flag_set_arr", h, 0u, inst, static_cast<const uint8_t *>(flags.data()), n, &err);
    uint8_t *got = nullptr;
    call(*f, "state_flag_get_arr", h, 0u, inst, &got, &err);
    EXPECT_EQ(got, st + f->sttr_elems);
    EXPECT_EQ(std::memcmp(got, flags.data(), n), 0);
    call(*f, "state_flag_whole_set", h, 0u, inst, uint8_t{7}, &err);
    EXPECT_EQ(call<uint8_t>(*f, "state_flag_whole_get", h, 0u, inst, &err), 7);
    EXPECT_EQ(call<uint8_t>(*f, "state_flag_get", h, 0u, inst, 0u, &err), 0x5A);
    EXPECT_EQ(err, 0u);
    destroy(h, f->member, src);
  }
  // golden: temp's whole byte 1, element bytes 2..13, element areas of 7 bytes from 14
  auto *table = reinterpret_cast<wex_bix_env_sensor_table *>(inst);
  const Field &temp = *fields("RecordArray")[0];
  EXPECT_EQ(temp.sttr, 1u);
  EXPECT_EQ(temp.sttr_elems, 2u);
  EXPECT_EQ(temp.sttr_areas, 14u);
  uint32_t err = 0;
  wex_bix_env_sensor_table_temp_state_flag_set(h, 0, table, 11, 0x11, &err);
  EXPECT_EQ(st[13], 0x11);
  wex_bix_env_temp_sensor_info_reading_valid_set_value(h, 0, &table->temp[1], 1, &err);
  EXPECT_EQ(st[14 + 7 + 6], 2);
  EXPECT_EQ(wex_bix_env_sensor_table_power_get(h, 0, table, 1, &err), nullptr);
  EXPECT_EQ(err, 2u);
  destroy(h, "wex_bix_env_sensor_table", inst);
  EXPECT_TRUE(h.live.empty());
}

const Field &selector(const Field &alt) { return *fields("Selector", alt.type).at(0); }
uint32_t selector_of(const uint8_t *inst, const Field &alt) {
  return *reinterpret_cast<const uint32_t *>(inst + selector(alt).offset + 12);
}
uint8_t *slot_of(uint8_t *inst, const Field &alt) { return *reinterpret_cast<uint8_t **>(inst + alt.offset); }

TEST(UnionAlternatives, SetSelectsDetachHandsOverOwnership) {
  Handle h(WEX_STTR_ON);
  auto alts = fields("UnionAlt");
  ASSERT_EQ(alts.size(), 14u);
  for (size_t k = 0; k < alts.size(); ++k) {
    const Field &f = *alts[k], &other = *alts[k % 7 == 6 ? k - 1 : k + 1];
    SCOPED_TRACE(std::string(f.type) + "." + f.name);
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type);
    uint8_t *m = create(h, f.member);
    uint32_t err = 0;
    EXPECT_EQ(call<uint8_t *>(f, "get", h, 0u, inst, &err), nullptr);
    Watch w(h);
    call(f, "set", h, 0u, inst, m, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(slot_of(inst, f), m);
    EXPECT_EQ(selector_of(inst, f), f.count);
    EXPECT_EQ(st[f.sttr], 2);
    EXPECT_EQ(w.notified(), range(inst + f.offset, 8) + range(inst + selector(f).offset + 12, 4) +
                                range(st + f.sttr, 1));
    EXPECT_EQ(call<uint8_t *>(f, "get", h, 0u, inst, &err), m);
    // not selected: nothing happens
    EXPECT_EQ(call<uint8_t *>(other, "get_detach", h, 0u, inst, &err), nullptr);
    EXPECT_EQ(slot_of(inst, f), m);
    EXPECT_EQ(err, 0u);
    EXPECT_EQ(call<uint8_t *>(f, "get_detach", h, 0u, inst, &err), m);
    EXPECT_EQ(slot_of(inst, f), nullptr);
    EXPECT_EQ(selector_of(inst, f), 0u);
    EXPECT_EQ(st[f.sttr], 0);
    destroy(h, f.member, m);

    // set_cr; then a member without state area is stored but reported
    h.set_mode(0);
    uint8_t *bare = create(h, f.member);
    h.set_mode(WEX_STTR_ON);
    EXPECT_EQ(call<uint32_t>(f, "set_cr", h, inst, bare), 22u);
    EXPECT_EQ(slot_of(inst, f), bare);
    h->error = 0;
    destroy(h, f.type, inst);  // the parent owns and frees it
  }
  EXPECT_TRUE(h.live.empty());
}

TEST(UnionAlternatives, GoldenStateBytesAndOwnership) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *s = wex_xcvr_status_info_create(h, 0);
  uint8_t *st = reinterpret_cast<uint8_t *>(s) + 592;
  wex_xcvr_status_info_sfp_sensors_set(h, 0, s, wex_sfp_env_mon_create(h, 0), &err);
  wex_xcvr_status_info_nosfp_data_set(h, 0, s, wex_nosfp_dummy_create(h, 0), &err);
  EXPECT_EQ(st[438], 2);
  EXPECT_EQ(st[444], 2);
  EXPECT_EQ(s->xcvr_type.value, 7u);  // the last one set selects
  EXPECT_NE(s->sfp_sensors, nullptr);
  wex_xcvr_status_info_destroy(h, 0, s);  // frees both, selected or not
  auto *i = wex_xcvr_idprom_info_create(h, 0);
  wex_xcvr_idprom_info_sfpplus_idprom_set(h, 0, i, wex_dev_sfp_info_create(h, 0), &err);
  EXPECT_EQ(reinterpret_cast<uint8_t *>(i)[584 + 440], 2);
  EXPECT_EQ(i->xcvr_type.value, 4u);
  EXPECT_EQ(wex_xcvr_idprom_info_sfp_idprom_get_detach(h, 0, i, &err), nullptr);
  wex_xcvr_idprom_info_destroy(h, 0, i);
  EXPECT_TRUE(h.live.empty());

  // An untracked parent while tracking is on: nothing is detached.
  Handle plain;
  Traces tr;
  auto *bare = wex_xcvr_status_info_create(plain, 0);
  wex_xcvr_status_info_msa_sensors_set(plain, 0, bare, wex_msa_env_mon_create(plain, 0), &err);
  plain.set_mode(WEX_STTR_ON);
  EXPECT_EQ(wex_xcvr_status_info_msa_sensors_get_detach(plain, 0, bare, &err), nullptr);
  EXPECT_EQ(err, 22u);
  EXPECT_NE(bare->msa_sensors, nullptr);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is not state tracked"));
  plain.set_mode(0);
  wex_xcvr_status_info_destroy(plain, 0, bare);
  EXPECT_TRUE(plain.live.empty());
}

// ---- whole-record set ----

TEST(WholeSet, EveryRecordCopiesFieldsAndStateBytes) {
  Handle h(WEX_STTR_ON);
  int records = 0;
  for (auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) != "type") continue;
    ++records;
    SCOPED_TRACE(t.name);
    uint8_t *src = create(h, t.name), *dst = create(h, t.name);
    uint32_t err = 0;
    for (const Field *p : fields("Prim", t.name))
      by_prim(p->prim, [&](auto v) { call(*p, "set_value", h, 0u, src, v, &err); });
    uint8_t flags = dst[10];
    err = 9;
    EXPECT_EQ(call<uint8_t *>(t.name, "get", h, 0u, dst, &err), dst);  // no check at all
    err = 0;
    Watch w(h);
    call(t.name, "set", h, 0u, dst, src, &err);
    EXPECT_EQ(err, 0u);
    EXPECT_TRUE(w.sound());
    EXPECT_EQ(std::memcmp(dst + 11, src + 11, t.fixed_size - 11), 0);
    EXPECT_EQ(std::memcmp(area(dst, t.name), area(src, t.name), t.sttr_size), 0);
    EXPECT_EQ(dst[10], flags);
    destroy(h, t.name, src);
    destroy(h, t.name, dst);
  }
  EXPECT_EQ(records, 31);
  EXPECT_TRUE(h.live.empty());
}

TEST(WholeSet, SourceGivesUpAlternativesAndVariableStorage) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *src = wex_xcvr_status_info_create(h, 0), *dst = wex_xcvr_status_info_create(h, 0);
  auto *m = wex_vorn_env_mon_create(h, 0);
  wex_xcvr_status_info_vorn_sensors_set(h, 0, src, m, &err);
  err = 5;  // no error-slot guard: the copy happens all the same
  wex_xcvr_status_info_set(h, 0, dst, src, &err);
  EXPECT_EQ(err, 5u);
  err = 0;
  EXPECT_EQ(dst->vorn_sensors, m);
  EXPECT_EQ(src->vorn_sensors, nullptr);
  EXPECT_EQ(dst->xcvr_type.value, 5u);
  wex_xcvr_status_info_destroy(h, 0, src);
  wex_xcvr_status_info_destroy(h, 0, dst);

  auto *a = ipc_shim_data_create(h, 0), *b = ipc_shim_data_create(h, 0);
  ipc_shim_data_data_set_value(h, 0, a, 4, 0x44, &err);
  ipc_shim_data_data_set_value(h, 0, b, 1, 0x11, &err);  // replaced, so released
  uint8_t *data = a->data, *states = var_states(a);
  ipc_shim_data_set(h, 0, b, a, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(b->data, data);
  EXPECT_EQ(b->size, 5u);
  EXPECT_EQ(var_states(b), states);
  EXPECT_EQ(a->data, nullptr);
  EXPECT_EQ(a->size, 0u);
  EXPECT_EQ(var_states(a), nullptr);

  // From a source without state area: the destination's elements start unwritten.
  h.set_mode(0);
  auto *c = ipc_shim_data_create(h, 0);
  ipc_shim_data_data_set_value(h, 0, c, 2, 0x22, &err);
  h.set_mode(WEX_STTR_ON);
  ipc_shim_data_set(h, 0, b, c, &err);
  EXPECT_EQ(b->size, 3u);
  EXPECT_EQ(h.live.at(var_states(b)), 3u);
  EXPECT_EQ(var_states(b)[2], 0);
  for (auto *d : {a, b, c}) ipc_shim_data_destroy(h, 0, d);
  EXPECT_TRUE(h.live.empty());
}

TEST(WholeSet, DestinationWithoutStateAreaNeverGetsOne) {
  Handle h;
  Traces tr;
  uint32_t err = 0;
  auto *dst = wex_xcvr_status_info_create(h, 0);  // 592 bytes, no state area
  h.set_mode(WEX_STTR_ON);
  auto *src = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_status_bm_set_value(h, 0, src, 99, &err);
  Watch w(h);
  wex_xcvr_status_info_set(h, 0, dst, src, &err);
  EXPECT_EQ(err, 22u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is not state tracked"));
  EXPECT_TRUE(w.sound());
  EXPECT_EQ(dst->status_bm, 99u);
  EXPECT_EQ(dst->flags & 0x48, 0);
  EXPECT_EQ(dst->info.flags & 0x48, 0);
  const auto *end = reinterpret_cast<uint8_t *>(dst) + 592;
  for (auto &wr : h.writes)
    if (wr.addr >= reinterpret_cast<uint8_t *>(dst) && wr.addr < end) {
      EXPECT_LE(wr.addr + wr.len, end);
    }
  // and later accessors keep treating it as untracked
  err = 0;
  wex_xcvr_status_info_rc_state_flag_get(h, 0, dst, &err);
  EXPECT_EQ(err, 22u);
  wex_xcvr_status_info_destroy(h, 0, src);
  wex_xcvr_status_info_destroy(h, 0, dst);
  EXPECT_TRUE(h.live.empty());
}

}  // namespace
