// Embedded records and flag sets, record arrays, union alternatives and whole-record set.
#include "access_support.h"

using namespace acc;

namespace {

TEST_F(Access, EmbeddedRecordSetCopiesContentAndStateIntoThePlacedMember) {
  for (const Field *f : fields("Record")) {
    SCOPED_TRACE(name_of(*f));
    uint8_t *inst = create(h, f->type), *src = create(h, f->member);
    uint8_t *member = inst + f->offset, *st = area(inst, f->type), flags = member[10];
    fill(h, f->member, src);
    EXPECT_EQ(on<uint8_t *>(*f, "get", inst), member);
    uint32_t placed = wexlib_get_sttr_offset(h, 0, member);
    EXPECT_TRUE(watched([&] { on(*f, "set", inst, src); }));
    EXPECT_TRUE(same_content(member, src, f->member));
    // still nested, tracked and placed in the parent's area
    EXPECT_EQ(V({member[10], wexlib_get_sttr_offset(h, 0, member)}), V({flags, placed}));
    EXPECT_EQ(V({on<uint8_t>(*f, "state_flag_get", inst), err}), V({2, 0}));
    // the member's state bytes are the source's, at their place inside the parent's area
    EXPECT_EQ(std::memcmp(st + f->sttr_elems, area(src, f->member), type_of(f->member).sttr_size), 0);
    EXPECT_EQ(V({code(*f, "state_flag_set", inst, uint8_t{0x21}), st[f->sttr]}), V({0, 0x21}));
    for (auto [t, p] : {std::pair(f->member, src), {f->type, inst}}) destroy(h, t, p);
  }
  EXPECT_EQ(fields("Record").size(), 6u);
  auto *x = ipc_shim_xcvr_data_create(h, 0);  // the flag-set field copies the flags
  auto *bits = wex_xcvr_status_bitmap_create(h, 0);
  wex_xcvr_status_bitmap_set_value(h, 0, bits, 9, 1, &err);
  ipc_shim_xcvr_data_status_set(h, 0, x, bits, &err);
  EXPECT_EQ(ipc_shim_xcvr_data_status_get(h, 0, x, &err), &x->status);
  EXPECT_EQ(V({x->status.bits[1], reinterpret_cast<uint8_t *>(x)[184 + 7], err}), V({0x02, 2, 0}));
  ipc_shim_xcvr_data_status_state_flag_set(h, 0, x, 0x31, &err);
  EXPECT_EQ(V({ipc_shim_xcvr_data_status_state_flag_get(h, 0, x, &err), err}), V({0x31, 0}));
  wex_xcvr_status_bitmap_destroy(h, 0, bits);
  ipc_shim_xcvr_data_destroy(h, 0, x);
  EXPECT_TRUE(h.live.empty());
}

TEST_F(Access, RecordArraysElementsBoundsAndStateBytes) {
  uint8_t *inst = create(h, "wex_bix_env_sensor_table"), *st = area(inst, "wex_bix_env_sensor_table");
  for (const Field *f : fields("RecordArray")) {
    SCOPED_TRACE(f->name);
    const uint32_t n = f->count, last = n - 1, elem_area = type_of(f->member).sttr_size;
    uint8_t *src = create(h, f->member), *bare = untracked(f->member), *elem = inst + f->offset + last * f->elem_size;
    for (uint8_t *p : {src, bare}) fill(h, f->member, p);  // bare: stored, then refused marking
    EXPECT_TRUE(watched([&] {
      EXPECT_EQ(V({code(*f, "set", inst, n, src), code<uint8_t *>(*f, "get", inst, n),
                   code<uint8_t>(*f, "state_flag_get", inst, n), code(*f, "state_flag_set", inst, n, uint8_t{1}),
                   code(*f, "set", inst, 0u, static_cast<uint8_t *>(nullptr))}),
                V({2, 2, 2, 2, 0}));
    }, Bytes{}));
    EXPECT_EQ(V({code(*f, "set", inst, last, src), on<uint8_t>(*f, "state_flag_get", inst, last), st[f->sttr]}),
              V({0, 2, 2}));
    EXPECT_EQ(on<uint8_t *>(*f, "get", inst, last), elem);
    EXPECT_TRUE(same_content(elem, src, f->member));
    EXPECT_EQ(std::memcmp(st + f->sttr_areas + last * elem_area, area(src, f->member), elem_area), 0);

    st[f->sttr] = 0;  // a source without state area is copied, then refused for marking
    tr.lines.clear();
    EXPECT_EQ(code(*f, "set", inst, 0u, bare), 22u);
    EXPECT_EQ(tr.lines, (Lines{{LUMO_LEVEL_ERROR, "The val object is not state tracked"}}));
    EXPECT_TRUE(same_content(inst + f->offset, bare, f->member));
    EXPECT_EQ(st[f->sttr], 0);
    EXPECT_EQ(V({code(*f, "state_flag_set", inst, last, uint8_t{0x11}), st[f->sttr_elems + last]}), V({0, 0x11}));
    array_states(*f, inst, n, st + f->sttr_elems, st + f->sttr);
    for (uint8_t *m : {src, bare}) destroy(h, f->member, m);
  }
  EXPECT_EQ(fields("RecordArray").size(), 4u);
  destroy(h, "wex_bix_env_sensor_table", inst);
  EXPECT_TRUE(h.live.empty());
}

TEST_F(Access, UnionAlternativeSetSelectsDetachHandsOverOwnership) {
  auto alts = fields("UnionAlt");
  ASSERT_EQ(alts.size(), 14u);
  for (size_t k = 0; k < alts.size(); ++k) {
    const Field &f = *alts[k], &other = *alts[k % 7 == 6 ? k - 1 : k + 1];
    SCOPED_TRACE(name_of(f));
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type), *m = create(h, f.member);
    uint8_t *&slot = *reinterpret_cast<uint8_t **>(inst + f.offset);
    uint32_t &selected = *reinterpret_cast<uint32_t *>(inst + fields("Selector", f.type).at(0)->offset + 12);
    EXPECT_EQ(on<uint8_t *>(f, "get", inst), nullptr);
    EXPECT_TRUE(watched([&] { on(f, "set", inst, m); }, range(&slot, 8) + range(&selected, 4) + range(st + f.sttr, 1)));
    EXPECT_EQ(std::tuple(slot, selected, on<uint8_t>(f, "state_flag_get", inst), on<uint8_t *>(f, "get", inst)),
              std::tuple(m, f.count, uint8_t{2}, m));
    // not selected: nothing happens; selected: handed over, the selection and state byte cleared
    EXPECT_EQ((std::tuple{on<uint8_t *>(other, "get_detach", inst), slot, err}), std::tuple(nullptr, m, 0u));
    EXPECT_EQ((std::tuple{on<uint8_t *>(f, "get_detach", inst), slot, selected, st[f.sttr]}),
              std::tuple(m, nullptr, 0u, uint8_t{0}));
    EXPECT_EQ(V({code(f, "state_flag_set", inst, uint8_t{0x61}), st[f.sttr]}), V({0, 0x61}));
    destroy(h, f.member, m);

    // set_cr of a member without state area: stored but reported; the parent owns and frees
    // it, and the other alternative set after it as well
    EXPECT_EQ(cr(f, "set_cr", inst, untracked(f.member)), 22u);
    on(other, "set", inst, create(h, other.member));
    EXPECT_NE(slot, nullptr);
    destroy(h, f.type, inst);
  }
  EXPECT_TRUE(h.live.empty());

  // The parent encodes, decodes and destroys a member as the alternative's type: a member
  // of another type, or a type's shared null instance, is not taken in.
  auto *s = wex_xcvr_status_info_create(h, 0);
  auto *xfp = wex_xfp_env_mon_create(h, 0);
  h->error = 1;
  auto *null_sfp = wex_sfp_env_mon_create_cr(h);
  for (void *wrong : {static_cast<void *>(xfp), static_cast<void *>(null_sfp)})
    EXPECT_EQ(code([&] { wex_xcvr_status_info_sfp_sensors_set(h, 0, s, static_cast<wex_sfp_env_mon *>(wrong), &err); }), 22u);
  EXPECT_EQ(s->sfp_sensors, nullptr);
  EXPECT_EQ(s->xcvr_type.value, 0u);
  wex_xfp_env_mon_destroy(h, 0, xfp);
  wex_xcvr_status_info_destroy(h, 0, s);
  h->error = 0, err = 0;

  // An untracked parent while tracking is on: nothing is detached.
  auto *bare = untracked<wex_xcvr_status_info>("wex_xcvr_status_info");
  untracking([&] { wex_xcvr_status_info_msa_sensors_set(h, 0, bare, wex_msa_env_mon_create(h, 0), &err); });
  tr.lines.clear();
  EXPECT_EQ(code([&] { EXPECT_EQ(wex_xcvr_status_info_msa_sensors_get_detach(h, 0, bare, &err), nullptr); }), 22u);
  EXPECT_EQ(std::pair(bare->msa_sensors != nullptr, tr.lines), std::pair(true, not_tracked));
  wex_xcvr_status_info_destroy(h, 0, bare);
  EXPECT_TRUE(h.live.empty());
}

TEST_F(Access, WholeSetOfEveryRecordCopiesFieldsAndStateBytes) {
  for (auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) != "type") continue;
    SCOPED_TRACE(t.name);
    uint8_t *src = create(h, t.name), *dst = create(h, t.name), flags = dst[10];
    fill(h, t.name, src);
    EXPECT_EQ(call<uint8_t *>(t.name, "get", h, 0u, dst, &err), dst);
    EXPECT_TRUE(watched([&] { EXPECT_EQ(code([&] { call(t.name, "set", h, 0u, dst, src, &err); }), 0u); }));
    EXPECT_TRUE(same_content(dst, src, t.name));
    EXPECT_EQ(std::memcmp(area(dst, t.name), area(src, t.name), t.sttr_size), 0);
    EXPECT_EQ(dst[10], flags);
    for (uint8_t *p : {src, dst}) destroy(h, t.name, p);
  }
  EXPECT_EQ(std::count_if(std::begin(bixfacts::kTypes), std::end(bixfacts::kTypes),
                          [](auto &t) { return std::string(t.kind) == "type"; }),
            31);

  // The source gives up its alternatives and variable storage.
  auto *from = wex_xcvr_status_info_create(h, 0), *to = wex_xcvr_status_info_create(h, 0);
  auto *m = wex_vorn_env_mon_create(h, 0);
  wex_xcvr_status_info_vorn_sensors_set(h, 0, from, m, &err);
  err = 5;  // no error-slot guard: the copy happens all the same
  wex_xcvr_status_info_set(h, 0, to, from, &err);
  EXPECT_EQ(std::tuple(err, to->vorn_sensors, from->vorn_sensors, to->xcvr_type.value),
            std::tuple(5u, m, static_cast<wex_vorn_env_mon *>(nullptr), 5u));
  for (auto *p : {from, to}) wex_xcvr_status_info_destroy(h, 0, p);
  auto *a = ipc_shim_data_create(h, 0), *b = ipc_shim_data_create(h, 0);
  err = 0;
  ipc_shim_data_data_set_value(h, 0, a, 4, 0x44, &err);
  ipc_shim_data_data_set_value(h, 0, b, 1, 0x11, &err);  // replaced, so released
  std::tuple<uint8_t *, uint32_t, uint8_t *> moved(a->data, 5u, var_states(a)), none(nullptr, 0u, nullptr);
  ipc_shim_data_set(h, 0, b, a, &err);
  EXPECT_EQ(std::tuple(b->data, b->size, var_states(b), err), std::tuple_cat(moved, std::tuple(0u)));
  EXPECT_EQ(std::tuple(a->data, a->size, var_states(a)), none);

  // From a source without state area: the destination's elements start unwritten.
  auto *c = untracked<ipc_shim_data>("ipc_shim_data");
  untracking([&] { ipc_shim_data_data_set_value(h, 0, c, 2, 0x22, &err); });
  ipc_shim_data_set(h, 0, b, c, &err);
  EXPECT_EQ(V({b->size, h.live.at(var_states(b)), var_states(b)[2]}), V({3, 3, 0}));
  for (auto *d : {a, b, c}) ipc_shim_data_destroy(h, 0, d);

  // A destination without state area never gets one.
  to = untracked<wex_xcvr_status_info>("wex_xcvr_status_info");
  from = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_status_bm_set_value(h, 0, from, 99, &err);
  tr.lines.clear();
  EXPECT_TRUE(watched([&] { EXPECT_EQ(code([&] { wex_xcvr_status_info_set(h, 0, to, from, &err); }), 22u); },
                      range(to, 592)));  // its 592 bytes, nothing past them
  EXPECT_EQ(std::tuple(tr.lines, to->status_bm, (to->flags | to->info.flags) & 0x48), std::tuple(not_tracked, 99u, 0));
  // and later accessors keep treating it as untracked
  EXPECT_EQ(code([&] { wex_xcvr_status_info_rc_state_flag_get(h, 0, to, &err); }), 22u);
  for (auto *p : {from, to}) wex_xcvr_status_info_destroy(h, 0, p);
  EXPECT_TRUE(h.live.empty());
}

}  // namespace
