// Accessor tests: fields of a kind from the layout facts, accessors called by name, and a
// watch over every live allocation that checks write notification against real changes.
#pragma once

#include <gtest/gtest.h>

#include <set>

#include "../runtime/support.h"
#include "bix_schema_facts.h"

namespace acc {

using namespace bixtest;
using bixfacts::Field;

inline const bixfacts::Type &type_of(const std::string &name) {
  for (auto &t : bixfacts::kTypes)
    if (name == t.name) return t;
  ADD_FAILURE() << "no type " << name;
  return bixfacts::kTypes[0];
}

inline std::vector<const Field *> fields(const std::string &kind, const char *type = nullptr) {
  std::vector<const Field *> out;
  for (auto &f : bixfacts::kFields)
    if (kind == f.kind && (!type || std::string(type) == f.type)) out.push_back(&f);
  return out;
}

// Calls <name>_<suffix> with exactly the argument types given (they must be the ABI's).
template <typename R = void, typename... A>
R call(const std::string &name, const char *suffix, wex_handle *h, A... args) {
  auto fn = op<R (*)(wex_handle *, A...)>(name, suffix);
  if (!fn) {
    ADD_FAILURE() << name << "_" << suffix << " is not exported";
    return R();
  }
  return fn(h, args...);
}
template <typename R = void, typename... A>
R call(const Field &f, const char *suffix, wex_handle *h, A... args) {
  return call<R>(std::string(f.type) + "_" + f.name, suffix, h, args...);
}

inline uint8_t *create(wex_handle *h, const std::string &type) { return call<uint8_t *>(type, "create", h, 0u); }
inline void destroy(wex_handle *h, const std::string &type, void *inst) { call(type, "destroy", h, 0u, inst); }
// The state area of a top-level instance.
inline uint8_t *area(uint8_t *inst, const std::string &type) { return inst + type_of(type).fixed_size; }

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

// The element-state buffer of ipc_shim_data's data: a pointer at area bytes 8 to 15.
inline uint8_t *var_states(ipc_shim_data *d) {
  uint8_t *p;
  std::memcpy(&p, reinterpret_cast<uint8_t *>(d) + 40 + 8, sizeof p);
  return p;
}

using Bytes = std::set<const uint8_t *>;
inline Bytes range(const void *p, size_t n) {
  Bytes b;
  for (size_t i = 0; i < n; ++i) b.insert(static_cast<const uint8_t *>(p) + i);
  return b;
}
inline Bytes operator+(Bytes a, const Bytes &b) {
  a.insert(b.begin(), b.end());
  return a;
}

// Snapshots every live allocation; afterwards tells which bytes changed and which were
// announced through notify_write since.
class Watch {
 public:
  explicit Watch(Handle &h) : h_(h), first_(h.writes.size()) {
    for (auto &[p, n] : h.live) mem_[p].assign(static_cast<uint8_t *>(p), static_cast<uint8_t *>(p) + n);
  }
  Bytes notified() const {
    Bytes out;
    for (size_t i = first_; i < h_.writes.size(); ++i) out = out + range(h_.writes[i].addr, h_.writes[i].len);
    return out;
  }
  size_t writes() const { return h_.writes.size() - first_; }
  // Every change announced, and every announcement inside memory the handle gave out.
  ::testing::AssertionResult sound() const {
    Bytes n = notified();
    for (auto &[p, old] : mem_)
      for (size_t i = 0; h_.live.count(p) && i < old.size(); ++i)
        if (static_cast<uint8_t *>(p)[i] != old[i] && !n.count(static_cast<uint8_t *>(p) + i))
          return ::testing::AssertionFailure() << "unannounced change at byte " << i;
    auto inside = [](const uint8_t *b, void *p, size_t size) {
      return b >= static_cast<uint8_t *>(p) && b < static_cast<uint8_t *>(p) + size;
    };
    for (const uint8_t *b : n) {
      bool ok = false;
      for (auto &[p, size] : h_.live) ok |= inside(b, p, size);
      for (auto &[p, old] : mem_) ok |= inside(b, p, old.size());
      if (!ok) return ::testing::AssertionFailure() << "announcement outside any allocation";
    }
    return ::testing::AssertionSuccess();
  }

 private:
  Handle &h_;
  size_t first_;
  std::map<void *, std::vector<uint8_t>> mem_;
};

}  // namespace acc
