// Clone, copy, post-copy clean-up, offset update/removal and the object queries of every
// record.
#include <functional>
#include <set>

#include "whole_support.h"

using namespace whole;

namespace {

using CloneFn = void (*)(wex_handle *, uint32_t, const void *, void **, uint8_t *, uint32_t,
                         uint32_t *);
using PairFn = void (*)(wex_handle *, uint32_t, void *, void *, uint32_t *);
using InstFn = void (*)(wex_handle *, uint32_t, void *, uint32_t *);

Bytes encode(wex_handle *h, const std::string &type, const void *inst) {
  Bytes buf(op<LenFn>(type, "len")(h, 0, inst) + 16);
  uint32_t err = 0;
  buf.resize(op<MarshalFn>(type, "marshal")(h, 0, buf.data(), inst, int32_t(buf.size()), &err));
  return err ? Bytes{} : buf;
}
uint32_t other(uint32_t alt) {
  return alt % 7 + 1;
}
std::set<void *> live(const Handle &h) {
  std::set<void *> out;
  for (auto &[p, n] : h.live) out.insert(p);
  return out;
}

class Clone : public Whole {
 protected:
  // Runs one form of the group into dst; the code it leaves.
  uint32_t run(const std::string &form, const std::string &type, const void *src, void *&dst) {
    err = h->error = 0;
    if (form == "clone_cr") return dst = op<CloneCrFn>(type, "clone_cr")(h, src), h->error;
    if (form == "copy_cr") return op<CopyCrFn>(type, "copy_cr")(h, src, dst), h->error;
    Bytes buf(op<LenFn>(type, "len")(h, 0, src) + 8);
    op<CloneFn>(type, form.c_str())(h, 0, src, &dst, buf.data(), uint32_t(buf.size()), &err);
    return err;
  }
  // fn(type, alternative, source) for every record and alternative, tracking off and on;
  // afterwards nothing may be left allocated.
  template <typename Fn>
  void each_case(Fn &&fn) {
    for (uint32_t mode : {0u, WEX_STTR_ON}) {
      h.set_mode(mode);
      for (const std::string &type : records())
        for (uint32_t alt : alts(type)) {
          SCOPED_TRACE(type + " alternative " + std::to_string(alt) + (mode ? " tracked" : ""));
          uint8_t *src = make(type, 9, alt);
          fn(type, alt, src);
          drop(type, src);
          EXPECT_TRUE(h.live.empty());
        }
    }
  }
};

// Every form, every record and alternative, tracking off and on: the copy compares equal
// and encodes to the same bytes; changing all of it leaves the source alone; nothing leaks.
TEST_F(Clone, EveryFormCopiesEveryRecordIndependentlyWithoutLeaks) {
  each_case([&](const std::string &type, uint32_t alt, uint8_t *src) {
    const Bytes wire = encode(h, type, src), owned = owned_bytes(h, type, src);
    EXPECT_LE(wire.size(), WEX_HANDLE_WS_SIZE);
    for (const char *form : {"clone", "clone_internal", "clone_cr", "copy_cr"}) {
      // The forms that decode into an existing instance get one holding other things.
      const bool into = std::string(form) == "copy_cr" || std::string(form) == "clone_internal";
      void *dst = into ? make(type, 77, other(alt), 20) : nullptr, *given = dst;
      ASSERT_EQ(run(form, type, src, dst), 0u) << form;
      EXPECT_EQ(std::tuple(into ? dst == given : dst != src, compare(type, src, dst),
                           encode(h, type, dst)),
                std::tuple(true, 0, wire))
          << form;
      if (!into) {
        EXPECT_EQ(hash(type, dst), hash(type, src)) << form;
      }
      std::vector<Leaf> all;
      leaves(type, static_cast<uint8_t *>(dst), all, true);
      for (Leaf &l : all) l.at[0] ^= 0xA5;
      EXPECT_EQ(owned_bytes(h, type, src), owned) << form;
      EXPECT_NE(compare(type, src, dst), 0) << form;
      drop(type, dst);
    }
  });
}

TEST_F(Clone, RefusalsAndFailuresLeaveTheDestinationAsTheContractSays) {
  const std::string t = "wex_xcvr_presence_info";
  uint8_t *src = make(t), *kept = make(t, 40), *foreign = make("ipc_shim_data");
  uint8_t buf[64];
  void *dst = kept, *null_inst = null_instance(t);
  auto clone = [&](const char *form, const void *s, void **d, uint8_t *b, uint32_t len) {
    return code([&] { op<CloneFn>(t, form)(h, 0, s, d, b, len, &err); });
  };
  EXPECT_EQ((std::tuple{clone("clone_internal", src, nullptr, buf, 64),
                        clone("clone_internal", src, &dst, nullptr, 64),
                        clone("clone_internal", foreign, &dst, buf, 64), dst == kept}),
            std::tuple(2u, 2u, 22u, true));
  for (void *bad : {null_inst, static_cast<void *>(foreign)}) {  // never written
    dst = bad;
    EXPECT_EQ((std::tuple{clone("clone_internal", src, &dst, buf, 64), dst}), std::tuple(22u, bad));
  }
  // An untracked destination (or alternative) cannot take a tracking handle's state bytes:
  // refused, where decoding would stop the process.
  uint8_t *plain = untracked(t);
  dst = plain;
  EXPECT_EQ((std::tuple{clone("clone_internal", src, &dst, buf, 64), dst == plain,
                        tr.lines.back().second}),
            std::tuple(22u, true, "The object is not state tracked"));
  auto *s = reinterpret_cast<wex_xcvr_status_info *>(make("wex_xcvr_status_info"));
  drop("wex_qsfp_env_mon", s->qsfp_sensors);
  s->qsfp_sensors = untracked<wex_qsfp_env_mon>("wex_qsfp_env_mon");
  void *sd = s;
  Bytes big(2048);
  EXPECT_EQ(code([&] {
              wex_xcvr_status_info_clone_internal(
                  h, 0, s, reinterpret_cast<wex_xcvr_status_info **>(&sd), big.data(), 2048, &err);
            }),
            22u);
  // Too small a scratch buffer: the encoder's error, no clone, nothing allocated.
  const auto before = live(h);
  dst = kept;
  EXPECT_EQ((std::tuple{clone("clone", src, &dst, buf, 5), clone("clone", src, &dst, buf, 0), dst,
                        live(h) == before}),
            std::tuple(90u, 12u, nullptr, true));
  // clone always makes a new instance; the one the reference named stays as it was.
  const Bytes was = owned_bytes(h, t, kept);
  dst = kept;
  EXPECT_EQ(clone("clone", src, &dst, buf, 64), 0u);
  EXPECT_EQ(std::tuple(dst != kept, owned_bytes(h, t, kept) == was, compare(t, dst, src)),
            std::tuple(true, true, 0));
  drop(t, dst);
  // copy_cr without destination; clone_cr with an error pending, or a workspace too small.
  auto *p = reinterpret_cast<wex_xcvr_presence_info *>(src);
  h->error = 0;
  wex_xcvr_presence_info_copy_cr(h, p, nullptr);
  EXPECT_EQ((std::tuple{h->error, wex_xcvr_presence_info_clone_cr(h, p), live(h) == before}),
            std::tuple(2u, nullptr, true));
  auto *d = reinterpret_cast<ipc_shim_data *>(make("ipc_shim_data", 1, 1, WEX_HANDLE_WS_SIZE));
  h->error = 0;
  EXPECT_EQ((std::tuple{ipc_shim_data_clone_cr(h, d), h->error}), std::tuple(nullptr, 90u));
  // The clone form skips the domain check of the record itself, not of its members.
  wex_domain_set_variant(h, "8f3fd8f32fa08d28bc785e2cc8f6cbdd", -1);
  dst = nullptr;
  EXPECT_EQ(clone("clone", src, &dst, buf, 64), 0u);
  EXPECT_EQ(std::tuple(static_cast<wex_xcvr_presence_info *>(dst)->variant, compare(t, dst, src)),
            std::tuple(0, 0));
  drop(t, dst);
  wex_domain_set_variant(h, "35230fa8b32e1e096fdbf0e2b28f5981", -1);  // wex_xcvr_rc
  EXPECT_EQ((std::tuple{clone("clone", src, &dst, buf, 64), dst}), std::tuple(43u, nullptr));
  drop(t, src), drop(t, kept), drop(t, plain), drop("ipc_shim_data", foreign),
      drop("ipc_shim_data", d);
  drop("wex_xcvr_status_info", s);
  EXPECT_TRUE(h.live.empty());
}

// Each allocation in turn fails: 12 or success, never a leak, and copy_cr's destination
// stays the caller's valid instance (a later copy into it succeeds).
TEST_F(Clone, AllocationFailureAtEveryStep) {
  each_case([&](const std::string &type, uint32_t alt, uint8_t *src) {
    for (const char *form : {"clone_cr", "copy_cr"}) {
      for (uint32_t k = 1, got = 12; got; ++k) {
        const auto before = live(h);
        void *dst = std::string(form) == "copy_cr" ? make(type, 77, other(alt), 20) : nullptr;
        h.fail_at = h.allocs + k;
        got = run(form, type, src, dst);
        h.fail_at = 0;
        ASSERT_TRUE(got == 0 || got == 12) << form << " " << k << ": " << got;
        if (got && dst == nullptr) {
          EXPECT_EQ(live(h), before) << form << " " << k;
          continue;
        }
        if (got) {
          EXPECT_EQ(run(form, type, src, dst), 0u) << form << " " << k << ", again";
        }
        EXPECT_EQ(compare(type, src, dst), 0) << form << " " << k;
        drop(type, dst);
        EXPECT_EQ(live(h), before) << form << " " << k;
      }
    }
  });
}

// The runtime copied the bytes (and placed the copy's embedded areas); after the clean-up
// the copy owns what the references reach and both can be destroyed.
TEST_F(Clone, PostCopyoutCleanupMovesReferencesToTheTarget) {
  using UpdateFn = void (*)(wex_handle *, uint32_t, void *, void *);
  each_case([&](const std::string &type, uint32_t, uint8_t *src) {
    void *ref = nullptr;
    ASSERT_EQ(run("clone_cr", type, src, ref), 0u);
    const uint32_t size = h.live.at(src);
    auto *target = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, size));
    std::memcpy(target, src, size);
    if (flags_of(src) & 0x08)
      op<UpdateFn>(type, "offset_update")(h, 0, target, target + type_of(type).fixed_size);
    auto cleanup = [&](void *t, void *s) {
      return code([&] { op<PairFn>(type, "post_copyout_cleanup")(h, 0, t, s, &err); });
    };
    EXPECT_TRUE(watched([&] { EXPECT_EQ(cleanup(target, src), 0u); }));
    EXPECT_EQ(std::tuple(compare(type, target, ref), encode(h, type, target)),
              std::tuple(0, encode(h, type, ref)));
    for (const Field *f : fields_of(type)) {  // the source refers to nothing any more
      uint64_t held = 0;
      if (is(*f, "UnionAlt") || is(*f, "VarArray"))
        held = *reinterpret_cast<uint64_t *>(src + f->offset);
      if (is(*f, "Count")) held = *reinterpret_cast<uint32_t *>(src + f->offset);
      if (is(*f, "VarArray") && (flags_of(src) & 0x08))
        held |= *reinterpret_cast<uint64_t *>(area_of(h, src, type_of(type)) + f->sttr_ptr);
      EXPECT_EQ(held, 0u) << f->name;
    }
    EXPECT_EQ(std::tuple(cleanup(target, target), cleanup(target, null_instance(type))),
              std::tuple(0u, 22u));
    drop(type, target), drop(type, ref);
  });
}

// Each embedded record (nested ones included) at base + its place in the parent's area, as
// the runtime reports; then its handle-data mapping removed.
void each_embedded(Handle &h, const std::string &type, uint8_t *inst, uint8_t *base,
                   const std::function<void(uint8_t *, uint8_t *)> &fn) {
  for (const Field *f : fields_of(type))
    for (uint32_t k = 0; (is(*f, "Record") && k < 1) || (is(*f, "RecordArray") && k < f->count);
         ++k) {
      uint8_t *m = inst + f->offset + k * f->elem_size;
      uint8_t *at = base + (is(*f, "Record") ? f->sttr_elems
                                             : f->sttr_areas + k * type_of(f->member).sttr_size);
      fn(m, at);
      each_embedded(h, f->member, m, at, fn);
    }
}
TEST_F(Clone, OffsetUpdateAndRemoveThroughTheRuntime) {
  using UpdateFn = void (*)(wex_handle *, uint32_t, void *, void *);
  for (const std::string &type : records()) {
    SCOPED_TRACE(type);
    // An instance initialised in a block with room for a second area, which it is then
    // told to use (offsets stay small whatever the allocator).
    using InitFn = void (*)(wex_handle *, uint32_t, void *, void *, uint32_t, uint32_t, uint8_t,
                            void *, uint32_t *);
    const auto &t = type_of(type);
    auto *p = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, t.fixed_size + 2 * t.sttr_size));
    std::memset(p, 0, t.fixed_size + 2 * t.sttr_size), err = 0;
    op<InitFn>(type, "initialize")(
        h, 0, p, dlsym(RTLD_DEFAULT, ("_" + type + "_type_info_internal").c_str()), 1, 0, 0,
        nullptr, &err);
    uint8_t *base = p + t.fixed_size + t.sttr_size;
    op<UpdateFn>(type, "offset_update")(h, 0, p, base);
    size_t n = 0;
    each_embedded(h, type, p, base, [&](uint8_t *m, uint8_t *at) {
      EXPECT_EQ(std::tuple(flags_of(m) & 0x40, wexlib_get_sttr_offset(h, 0, m)),
                std::tuple(0x40, uint32_t(at - m)));
      wex_hd_mapping_create(h, m), ++n;
    });
    EXPECT_EQ(code([&] { op<InstFn>(type, "offset_remove")(h, 0, p, &err); }), 0u);
    each_embedded(h, type, p, base,
                  [&](uint8_t *m, uint8_t *) { EXPECT_FALSE(wex_hd_mapping_exists(h, m)); });
    if (n) {
      wex_mapping_fail_next(h, 5);
      EXPECT_EQ(
          (std::tuple{code([&] { op<InstFn>(type, "offset_remove")(h, 0, p, &err); }), h->error}),
          std::tuple(5u, 5u));
      h->error = 0;
    }
    EXPECT_EQ(code([&] { op<InstFn>(type, "offset_remove")(h, 0, null_instance(type), &err); }),
              22u);
    drop(type, p);
  }
}

TEST_F(Clone, ObjectQueriesOfEveryType) {
  using CountFn = uint32_t (*)(wex_handle *, uint32_t, const void *, uint32_t *);
  for (const auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) == "message") continue;
    SCOPED_TRACE(t.name);
    uint8_t *p = acc::create(h, t.name);
    const auto lines = [&] { return tr.lines.size(); };
    EXPECT_EQ((std::tuple{op<CountFn>(t.name, "get_oid_count")(h, 0, p, &err), err, lines()}),
              std::tuple(0u, 0u, 0u));
    EXPECT_EQ((std::tuple{op<CountFn>(t.name, "get_oid_count")(h, 0, nullptr, &err), err}),
              std::tuple(0u, 22u));
    op<CountFn>(t.name, "get_oid_count")(h, 0, p, &err);  // pending: a trace, nothing else
    EXPECT_EQ(code([&] { op<InstFn>(t.name, "get_object_references")(h, 0, p, &err); }), 0u);
    EXPECT_EQ(code([&] { op<InstFn>(t.name, "get_object_references")(h, 0, nullptr, &err); }), 22u);
    op<InstFn>(t.name, "get_object_references")(h, 0, p, &err);
    EXPECT_EQ(code([&] { op<InstFn>(t.name, "adjust_variant")(h, 0, p, &err); }), 0u);
    EXPECT_EQ(
        tr.lines,
        (acc::Lines{
            {LUMO_LEVEL_ERROR, "Invalid object passed in to get object oid count"},
            {LUMO_LEVEL_ERROR, "Error already present in call to get object oid count"},
            {LUMO_LEVEL_ERROR, "Cannot get table references. Invalid object passed on"},
            {LUMO_LEVEL_ERROR, "Error present in call to get table references from object"}}));
    tr.lines.clear(), err = 0;
    acc::destroy(h, t.name, p);
  }
}

}  // namespace
