// get_all/set_all, the state-flag sweep, compare and hash of every record.
#include <sys/wait.h>
#include <unistd.h>

#include "superfasthash.h"
#include "whole_support.h"

using namespace whole;

namespace {

// What set_all is given for the j-th field and the bytes it must leave: enumerations 0 (a
// literal of each, not what fill stored), integers a pattern with the top bit set, extended
// from the field's width as a C caller would.
std::pair<uint32_t, Bytes> value_for(const Field &f, uint32_t j) {
  if (is(f, "Enum")) return {0, Bytes(4, 0)};
  const uint32_t w = width(f), raw = 0x9A8B7C80u + j, mask = w == 4 ? ~0u : (1u << 8 * w) - 1;
  const bool negative = is_signed(f) && (raw >> (8 * w - 1) & 1);
  auto *b = reinterpret_cast<const uint8_t *>(&raw);
  return {negative ? raw | ~mask : raw & mask, Bytes(b, b + w)};
}
uint8_t *value_at(uint8_t *inst, const Field &f) {
  return inst + f.offset + (is(f, "Enum") || is(f, "Selector") ? 12 : 0);
}

// With no enumeration refused, and with each in turn refused (43): the fields before it
// and the integers after it are stored, announced exactly; get_all reads every scalar
// back at its width.
TEST_F(Whole, SetAllStoresInOrderGetAllReadsBackARefusalStopsOnlyEnumerations) {
  for (const std::string &type : records()) {
    std::vector<const Field *> sets, gets;
    for (const Field *f : fields_of(type)) {
      if (f->in_set_all) sets.push_back(f);
      if (f->in_get_all) gets.push_back(f);
    }
    for (size_t refused = 0; refused <= sets.size(); ++refused) {
      if (refused < sets.size() && !is(*sets[refused], "Enum")) continue;
      SCOPED_TRACE(type +
                   (refused < sets.size() ? " refusing " + std::string(sets[refused]->name) : ""));
      uint8_t *p = make(type);
      const Bytes before(p, p + type_of(type).fixed_size);
      std::vector<uint32_t> args;
      acc::Bytes stored;
      for (uint32_t j = 0; j < sets.size(); ++j) {
        args.push_back(j == refused ? 1000 : value_for(*sets[j], j).first);
        if (j < refused || (j > refused && is(*sets[j], "Prim")))
          stored = acc::range(value_at(p, *sets[j]), width(*sets[j]), stored);
      }
      EXPECT_TRUE(watched([&] { set_all(h, type, p, args, &err); }, stored));
      EXPECT_EQ(err, refused < sets.size() ? 43u : 0u);
      for (uint32_t j = 0; j < sets.size(); ++j) {
        const uint8_t *at = value_at(p, *sets[j]);
        EXPECT_EQ(Bytes(at, at + width(*sets[j])),
                  stored.count(at) ? value_for(*sets[j], j).second
                                   : Bytes(&before[at - p], &before[at - p] + width(*sets[j])))
            << sets[j]->name;
      }
      std::vector<std::array<uint8_t, 8>> outs(gets.size());
      std::vector<void *> ptrs;
      for (auto &o : outs) o.fill(0xEE), ptrs.push_back(o.data());
      err = 0;
      EXPECT_TRUE(watched([&] { get_all(h, type, p, ptrs, &err); }, acc::Bytes{}));
      for (size_t j = 0; j < gets.size(); ++j) {
        Bytes want(value_at(p, *gets[j]), value_at(p, *gets[j]) + width(*gets[j]));
        want.resize(8, 0xEE);
        EXPECT_EQ(Bytes(outs[j].begin(), outs[j].end()), want) << gets[j]->name;
      }
      drop(type, p);
    }
  }
}

TEST_F(Whole, SetAllAndGetAllRefusals) {
  auto *x = reinterpret_cast<ipc_shim_xcvr_data *>(make("ipc_shim_xcvr_data"));
  ipc_shim_xcvr_data_set_all(h, 0, x, 1, 2, 7, 9, &err);  // 7 is beyond variant 0's literals
  EXPECT_EQ(std::tuple(err, x->dest_slot, x->type.value, x->xcvr_type), std::tuple(43u, 1, 1u, 9));
  auto *p = reinterpret_cast<wex_xcvr_presence_info *>(make("wex_xcvr_presence_info"));
  auto *null_p = static_cast<wex_xcvr_presence_info *>(null_instance("wex_xcvr_presence_info"));
  auto *cast = reinterpret_cast<wex_xcvr_presence_info *>(x);
  uint32_t rc = 7;
  uint8_t present = 7;
  auto both = [&](wex_xcvr_presence_info *i) {
    wex_xcvr_presence_info_set_all(h, 0, i, 0, 5, &err);
    wex_xcvr_presence_info_get_all(h, 0, i, &rc, &present, &err);
  };
  both(p);  // 43 pending: nothing stored, nothing read
  const uint8_t was = p->is_present;
  err = 0, p->variant = -1;
  both(p);  // no fields: nothing either, and no error
  EXPECT_EQ(std::tuple(err, p->rc.value, p->is_present, rc, present),
            std::tuple(0u, 1u, was, 7u, 7));
  // Another type's instance is refused; the shared null instance is not written, reads 0.
  EXPECT_EQ((std::tuple{code([&] { both(cast); }), code([&] { both(null_p); }), x->dest_slot}),
            std::tuple(22u, 22u, 1));
  EXPECT_EQ(code([&] { wex_xcvr_presence_info_get_all(h, 0, null_p, &rc, nullptr, &err); }), 0u);
  EXPECT_EQ(std::tuple(rc, present), std::tuple(0u, 7)) << "a NULL output is skipped";
  drop("ipc_shim_xcvr_data", x), drop("wex_xcvr_presence_info", p);
}

// The state bytes the sweep sets, found as the accessors find them: the instance's own
// (fields and elements), its embedded records' and record-array elements' areas, the
// variable array's element states. Alternatives keep theirs.
void swept(Handle &h, const std::string &type, uint8_t *inst, acc::Bytes &out) {
  uint8_t *area = area_of(h, inst, type_of(type));
  for (const Field *f : fields_of(type)) {
    if (!is(*f, "Count")) out.insert(area + f->sttr);
    if (is(*f, "FixedArray") || is(*f, "RecordArray"))
      out = acc::range(area + f->sttr_elems, f->count, out);
    for (uint32_t k = 0; (is(*f, "Record") && !k) || (is(*f, "RecordArray") && k < f->count); ++k)
      swept(h, f->member, inst + f->offset + k * f->elem_size, out);
    if (is(*f, "VarArray"))
      out = acc::range(*reinterpret_cast<uint8_t **>(area + f->sttr_ptr), count_of(type, *f, inst),
                       out);
  }
}

TEST_F(Whole, StateFlagSweepSetsNestedAreasElementStatesAndNothingElse) {
  using SweepFn = void (*)(wex_handle *, uint32_t, void *, uint32_t);
  for (const std::string &type : records()) {
    SCOPED_TRACE(type);
    auto sweep = [&](uint8_t *p, uint32_t v) {
      op<SweepFn>(type, "set_all_state_tracking_flag")(h, 0, p, v);
    };
    uint8_t *p = make(type), *plain = untracked(type);
    acc::Bytes expected;
    swept(h, type, p, expected);
    EXPECT_TRUE(watched([&] { sweep(p, 0x15A); }, expected));  // exactly those, nothing else
    for (const uint8_t *b : expected) EXPECT_EQ(*b, 0x5A) << "state byte " << (b - p);
    // Not tracked, the handle or the instance: nothing.
    EXPECT_TRUE(watched([&] { untracking([&] { sweep(p, 1); }), sweep(plain, 1); }, acc::Bytes{}));
    drop(type, plain), drop(type, p);
  }
  auto *x = make("ipc_shim_data");
  h->error = 0;
  wex_xcvr_presence_info_set_all_state_tracking_flag(
      h, 0, reinterpret_cast<wex_xcvr_presence_info *>(x), 1);
  EXPECT_EQ(h->error, 22u) << "another type's instance is refused through the handle";
  drop("ipc_shim_data", x);
}

TEST(WholeDeathTest, StateFlagSweepOnACorruptedHandleAborts) {
  Handle h(0x1234);
  wex_xcvr_presence_info p{};
  EXPECT_DEATH(wex_xcvr_presence_info_set_all_state_tracking_flag(h, 0, &p, 1),
               "Corrupted WEX Handle");
}

// Two instances of the same content differ in one leaf (nested, array element or in an
// alternative): compare follows the leaf's kind, and hash tells them apart.
TEST_F(Whole, CompareFollowsEachKindAndHashSeesEveryLeaf) {
  size_t checked = 0;
  for (const std::string &type : records()) {
    for (uint32_t alt : alts(type)) {
      SCOPED_TRACE(type + " alternative " + std::to_string(alt));
      uint8_t *a = make(type, 3, alt), *b = make(type, 3, alt);
      ASSERT_EQ(std::tuple(compare(type, a, b), hash(type, a)), std::tuple(0, hash(type, b)));
      std::vector<Leaf> la, lb;
      leaves(type, a, la, true), leaves(type, b, lb, true);
      for (size_t i = 0; i < la.size(); ++i) {
        const Field &f = *la[i].field;
        const uint32_t w = is(f, "Flags") ? 2 : is(f, "FixedArray") ? f.elem_size : width(f);
        const Bytes keep_a(la[i].at, la[i].at + w), keep_b(lb[i].at, lb[i].at + w);
        std::memset(la[i].at, 0, w), std::memset(lb[i].at, 0, w);
        int32_t want = 1;                          // compare(a, b); reversed, its negation
        if (is(f, "Enum") || is(f, "Selector")) {  // the difference of the values
          la[i].at[0] = 3, lb[i].at[0] = 5, want = -2;
        } else if (is(f, "Prim")) {  // three-way by signedness: top bit set against 1
          la[i].at[w - 1] = 0x80, lb[i].at[0] = 1, want = is_signed(f) ? -1 : 1;
        } else {  // flags and array elements: bytes in memory order, not numbers
          la[i].at[0] = 0x80, lb[i].at[0] = 0x01, lb[i].at[w - 1] |= w > 1 ? 0xFF : 0;
        }
        int32_t ab = compare(type, a, b), ba = compare(type, b, a);
        if (!is(f, "Prim") && !is(f, "Enum") && !is(f, "Selector")) ab = ab > 0, ba = -(ba < 0);
        EXPECT_EQ(std::tuple(ab, ba, hash(type, a) != hash(type, b)), std::tuple(want, -want, true))
            << la[i].path;
        std::memcpy(la[i].at, keep_a.data(), w), std::memcpy(lb[i].at, keep_b.data(), w);
        ++checked;
      }
      drop(type, a), drop(type, b);
    }
  }
  EXPECT_GT(checked, 5000u);
}

TEST_F(Whole, CompareAndHashOfNullForeignUnionsAndVariableArrays) {
  for (const std::string &type : records()) {
    const std::string other = type == "ipc_shim_data" ? "wex_nosfp_dummy" : "ipc_shim_data";
    uint8_t *x = make(type), *foreign = make(other);
    EXPECT_EQ((std::tuple{compare(type, nullptr, nullptr), compare(type, nullptr, x),
                          compare(type, x, nullptr), compare(type, foreign, x),
                          hash(type, nullptr, 77), hash(type, foreign, 77)}),
              std::tuple(0, -1, 1, -1, 77u, 77u))
        << type;
    drop(type, x), drop(other, foreign);
  }
  // Selectors outside 1..7 compare equal whatever the alternatives; the selected one by the
  // null rule; an unselected alternative counts for hash only.
  const std::string t = "wex_xcvr_status_info";
  auto *a = reinterpret_cast<wex_xcvr_status_info *>(make(t, 3, 1));
  auto *b = reinterpret_cast<wex_xcvr_status_info *>(make(t, 3, 2));
  std::swap(a->sfp_sensors, b->sfp_sensors);  // a: none; b: 1 and 2
  a->xcvr_type.value = b->xcvr_type.value = 9;
  EXPECT_EQ(compare(t, a, b), 0);
  a->xcvr_type.value = b->xcvr_type.value = 1;
  EXPECT_EQ(std::tuple(compare(t, a, b), compare(t, b, a)), std::tuple(-1, 1));
  a->sfp_sensors = reinterpret_cast<wex_sfp_env_mon *>(make("wex_sfp_env_mon"));
  std::memcpy(&a->sfp_sensors->temp, &b->sfp_sensors->temp, 11);
  EXPECT_EQ(std::tuple(compare(t, a, b), hash(t, a) == hash(t, b)), std::tuple(0, false));
  drop("wex_xfp_env_mon", b->xfp_sensors);
  b->xfp_sensors = nullptr;
  EXPECT_EQ(hash(t, a), hash(t, b)) << "the same alternatives present";
  drop(t, a), drop(t, b);
  // The variable array: the count first (three-way), then the bytes; a count of 0 never
  // touches storage.
  auto *d = reinterpret_cast<ipc_shim_data *>(make("ipc_shim_data", 5, 1, 3));
  auto *e = reinterpret_cast<ipc_shim_data *>(make("ipc_shim_data", 5, 1, 5));
  std::memcpy(e->data, d->data, 3);
  EXPECT_EQ(compare("ipc_shim_data", d, e), -1);
  e->size = 3, d->data[1] = 0x10, e->data[1] = 0x20;
  EXPECT_LT(compare("ipc_shim_data", d, e), 0);
  uint8_t *keep = d->data;
  d->size = e->size = 0, d->data = reinterpret_cast<uint8_t *>(uintptr_t{16});
  EXPECT_EQ(std::tuple(compare("ipc_shim_data", d, e), hash("ipc_shim_data", d)),
            std::tuple(0, hash("ipc_shim_data", e)));
  d->data = keep, d->size = e->size = 3;
  drop("ipc_shim_data", d), drop("ipc_shim_data", e);
}

// The order and kind of every mix, composed from the runtime's hashes and SuperFastHash;
// the same in another process, where every address differs.
TEST_F(Whole, HashMixesFieldsInSchemaOrderTheSameInEveryProcess) {
  auto *p = reinterpret_cast<wex_xcvr_presence_info *>(make("wex_xcvr_presence_info"));
  EXPECT_EQ(hash("wex_xcvr_presence_info", p, 5),
            u_int8_hash(&p->is_present, SuperFastHash(&p->rc.value, 4, 5)));
  auto *d = reinterpret_cast<ipc_shim_data *>(make("ipc_shim_data", 5, 1, 9));
  uint32_t want = u_int32_hash(
      &d->size, u_int32_hash(&d->size, u_int32_hash(&d->subslot, u_int32_hash(&d->slot, 5))));
  EXPECT_EQ(hash("ipc_shim_data", d, 5), SuperFastHash(d->data, 9, want));
  // The selector as a field, then again before each of the seven positions, each present
  // alternative after it.
  auto *s = reinterpret_cast<wex_xcvr_status_info *>(make("wex_xcvr_status_info", 5, 4));
  s->vorn_sensors = reinterpret_cast<wex_vorn_env_mon *>(make("wex_vorn_env_mon"));
  want =
      u_int32_hash(&s->status_bm, wex_xcvr_info_hash(&s->info, SuperFastHash(&s->rc.value, 4, 5)));
  want = SuperFastHash(&s->xcvr_type.value, 4, want);
  const char *alt_types[] = {"wex_sfp_env_mon", "wex_xfp_env_mon",  "wex_msa_env_mon",
                             "wex_sfp_env_mon", "wex_vorn_env_mon", "wex_qsfp_env_mon",
                             "wex_nosfp_dummy"};
  for (uint32_t i = 0; i < 7; ++i) {
    want = SuperFastHash(&s->xcvr_type.value, 4, want);
    if (void *alt = reinterpret_cast<void *const *>(&s->sfp_sensors)[i])
      want = hash(alt_types[i], alt, want);
  }
  EXPECT_EQ(hash("wex_xcvr_status_info", s, 5), want);
  drop("wex_xcvr_presence_info", p), drop("ipc_shim_data", d), drop("wex_xcvr_status_info", s);

  auto all = [] {
    Handle h;
    std::string out;
    for (const std::string &type : records()) {
      void *p = acc::create(h, type);
      bixtest::fill(h, type, p, 7, 5, 6);
      out += std::to_string(hash(type, p, 0x1234)) + " ";
      acc::destroy(h, type, p);
    }
    return out;
  };
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  if (pid_t child = fork(); child == 0) {
    std::vector<char> shift(4096 + getpid() % 4096);  // other addresses than ours
    const std::string there = all();
    _exit(write(fds[1], there.data(), there.size()) == ssize_t(there.size()) ? 0 : 1);
  } else {
    close(fds[1]);
    std::string there(64 * 1024, '\0');
    there.resize(size_t(std::max<ssize_t>(0, read(fds[0], there.data(), there.size()))));
    int status = 0;
    waitpid(child, &status, 0);
    close(fds[0]);
    EXPECT_EQ(std::tuple(there, status), std::tuple(all(), 0));
  }
}

}  // namespace
