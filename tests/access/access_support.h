// Accessor tests: fields of a kind from the layout facts, accessors called by name, and a
// watch over every live allocation that checks write notification against real changes.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <stdexcept>

#include "../runtime/support.h"
#include "bix_schema_facts.h"

namespace acc {

using namespace bixtest;
using bixfacts::Field;
using V = std::vector<uint32_t>;
using Lines = decltype(Traces::lines);

inline const bixfacts::Type &type_of(const std::string &name) {
  for (auto &t : bixfacts::kTypes) if (name == t.name) return t;
  throw std::out_of_range("no type " + name);
}
inline std::vector<const Field *> fields(const std::string &kind, const char *type = nullptr) {
  std::vector<const Field *> out;
  for (auto &f : bixfacts::kFields)
    if (kind == f.kind && (!type || std::string(type) == f.type)) out.push_back(&f);
  return out;
}
inline std::string name_of(const Field &f) { return std::string(f.type) + "_" + f.name; }
inline std::string name_of(const std::string &name) { return name; }

// Calls <name>_<suffix> (name: a string or a field) with exactly the argument types given,
// which must be the ABI's.
template <typename R = void, typename N, typename... A>
R call(const N &name, const char *suffix, wex_handle *h, A... args) {
  auto fn = op<R (*)(wex_handle *, A...)>(name_of(name), suffix);
  if (!fn) ADD_FAILURE() << name_of(name) << "_" << suffix << " is not exported";
  return fn ? fn(h, args...) : R();
}
inline uint8_t *create(wex_handle *h, const std::string &t) { return call<uint8_t *>(t, "create", h, 0u); }
inline void destroy(wex_handle *h, const std::string &t, void *p) { call(t, "destroy", h, 0u, p); }
// The state area of a top-level instance; the bytes at the given positions.
inline uint8_t *area(uint8_t *inst, const std::string &t) { return inst + type_of(t).fixed_size; }
inline V at(const void *p, std::initializer_list<size_t> pos) {
  V out;
  for (size_t i : pos) out.push_back(static_cast<const uint8_t *>(p)[i]);
  return out;
}

// Calls fn with a value of the primitive's C type whose bytes are all nonzero; signed
// kinds get a negative one, so widening is exercised too.
template <typename Fn>
void by_prim(const std::string &prim, Fn &&fn) {
  if (prim == "int8") fn(int8_t{-5});
  if (prim == "u_int8") fn(uint8_t{0xA5});
  if (prim == "int16") fn(int16_t{-5});
  if (prim == "u_int16") fn(uint16_t{0xA5B6});
  if (prim == "int32") fn(int32_t{-5});
  if (prim == "u_int32") fn(uint32_t{0xA5B6C7D8});
}
// Sets every primitive field of a record instance through its own accessor.
inline void fill(wex_handle *h, const std::string &type, uint8_t *inst, uint32_t err = 0) {
  for (const Field *p : fields("Prim", type.c_str()))
    by_prim(p->prim, [&](auto v) { call(*p, "set_value", h, 0u, inst, v, &err); });
}
// Two records of the type hold the same content (everything after the header).
inline bool same_content(const uint8_t *a, const uint8_t *b, const std::string &t) {
  return !std::memcmp(a + 11, b + 11, type_of(t).fixed_size - 11);
}

// The element-state buffer of ipc_shim_data's data: a pointer at area bytes 8 to 15 (40 + 8).
inline uint8_t *var_states(void *d) { return *reinterpret_cast<uint8_t **>(static_cast<uint8_t *>(d) + 48); }

using Bytes = std::set<const uint8_t *>;
inline Bytes range(const void *p, size_t n, Bytes b = {}) {
  for (size_t i = 0; i < n; ++i) b.insert(static_cast<const uint8_t *>(p) + i);
  return b;
}
inline Bytes operator+(Bytes a, const Bytes &b) { return a.insert(b.begin(), b.end()), a; }

// A tracking handle, trace capture and an error slot for each test.
class Access : public ::testing::Test {
 protected:
  // A field accessor of the usual (handle, 0, instance, ..., &err) shape on h.
  template <typename R = void, typename... A>
  R on(const Field &f, const char *suffix, uint8_t *inst, A... args) {
    return call<R>(f, suffix, h, 0u, inst, args..., &err);
  }
  // The code a step or an accessor leaves in the error slot, or a _cr accessor returns;
  // cleared first.
  template <typename F>
  uint32_t code(F &&step) { return err = 0, step(), err; }
  template <typename R = void, typename... A>
  uint32_t code(const Field &f, const char *suffix, uint8_t *inst, A... args) {
    return code([&] { on<R>(f, suffix, inst, args...); });
  }
  template <typename N, typename... A>
  uint32_t cr(const N &name, const char *suffix, A... args) {
    return h->error = 0, call<uint32_t>(name, suffix, h, args...);
  }
  // Runs step and checks the bytes it announced through notify_write: every change among
  // them, all inside memory the handle gave out and, when given, exactly the bytes expected
  // (so none: nothing changed at all).
  template <typename F>
  ::testing::AssertionResult watched(F &&step, const std::optional<Bytes> &exactly = std::nullopt) {
    std::map<void *, std::vector<uint8_t>> mem;
    for (auto &[p, n] : h.live) mem[p].assign(static_cast<uint8_t *>(p), static_cast<uint8_t *>(p) + n);
    const size_t first = h.writes.size();
    step();
    Bytes said, mine;
    for (size_t i = first; i < h.writes.size(); ++i) said = range(h.writes[i].addr, h.writes[i].len, said);
    if (exactly && said != *exactly)
      return ::testing::AssertionFailure() << said.size() << " bytes announced, not " << exactly->size();
    for (auto &[p, size] : h.live) mine = range(p, size, mine);
    for (auto &[p, old] : mem) {
      mine = range(p, old.size(), mine);
      for (size_t i = 0; h.live.count(p) && i < old.size(); ++i)
        if (static_cast<uint8_t *>(p)[i] != old[i] && !said.count(static_cast<uint8_t *>(p) + i))
          return ::testing::AssertionFailure() << "unannounced change at byte " << i;
    }
    for (const uint8_t *b : said)
      if (!mine.count(b)) return ::testing::AssertionFailure() << "announcement outside any allocation";
    return ::testing::AssertionSuccess();
  }
  // Runs step while the handle does not track; an instance made so has no state area.
  template <typename F>
  void untracking(F &&step) { h.set_mode(0), step(), h.set_mode(WEX_STTR_ON); }
  template <typename T = uint8_t>
  T *untracked(const std::string &type) {
    T *p = nullptr;
    return untracking([&] { p = reinterpret_cast<T *>(create(h, type)); }), p;
  }
  // The block operations on an array's state bytes: n element bytes at elems, the whole
  // byte at whole. A block is announced exactly and read back in place.
  void array_states(const Field &f, uint8_t *inst, uint32_t n, uint8_t *elems, uint8_t *whole) {
    std::vector<uint8_t> flags(n + 1);
    for (uint32_t i = 0; i < n; ++i) flags[i] = uint8_t(0x40 + i);
    const uint8_t *fl = flags.data();
    uint8_t *got = nullptr;
    EXPECT_EQ(code(f, "state_flag_set_arr", inst, fl, n + 1), 2u);
    EXPECT_TRUE(watched([&] { err = 0, on(f, "state_flag_set_arr", inst, fl, n); }, range(elems, n)));
    on(f, "state_flag_get_arr", inst, &got);
    EXPECT_EQ(code(f, "state_flag_whole_set", inst, uint8_t{0x33}), 0u);
    EXPECT_EQ((std::tuple{got, std::equal(fl, fl + n, elems), on<uint8_t>(f, "state_flag_whole_get", inst), *whole}),
              std::tuple(elems, true, uint8_t{0x33}, uint8_t{0x33}));
  }
  const Lines not_tracked{{LUMO_LEVEL_ERROR, "The object is not state tracked"}};
  Handle h{WEX_STTR_ON};
  Traces tr;
  uint32_t err = 0;
};

}  // namespace acc
