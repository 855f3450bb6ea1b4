// Whole-record tests: every record's operations called by name, every leaf of an instance
// (scalar, enumeration, flag set, array element, nested or in an alternative) found from
// the layout facts, and get_all/set_all called with as many arguments as the record has.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "../access/access_support.h"
#include "../wire/fill.h"

namespace whole {

using namespace bixtest;
using acc::call;
using acc::type_of;
using bixfacts::Field;
using Bytes = std::vector<uint8_t>;

inline std::vector<const Field *> fields_of(const std::string &type) {
  std::vector<const Field *> out;
  for (const auto &f : bixfacts::kFields)
    if (type == f.type) out.push_back(&f);
  return out;
}
inline bool is(const Field &f, const char *kind) {
  return std::string(f.kind) == kind;
}
inline uint32_t count_of(const std::string &type, const Field &var, const uint8_t *inst) {
  return *reinterpret_cast<const uint32_t *>(inst + fields_of(type)[var.link]->offset);
}
inline bool has_kind(const std::string &type, const char *kind) {
  for (const Field *f : fields_of(type))
    if (is(*f, kind)) return true;
  return false;
}
inline uint32_t width(const Field &f) {
  std::string p = f.prim;
  return is(f, "Enum") || is(f, "Selector") ? 4 : p.ends_with("32") ? 4 : p.ends_with("16") ? 2 : 1;
}
inline bool is_signed(const Field &f) {
  return f.prim[0] == 'i';
}
// A union record's alternative picks: all seven; any other record: one pass.
inline std::vector<uint32_t> alts(const std::string &type) {
  return has_kind(type, "UnionAlt") ? std::vector<uint32_t>{1, 2, 3, 4, 5, 6, 7}
                                    : std::vector<uint32_t>{1};
}

// One value the instance holds: bytes at `at` (an element for arrays; an enumeration's
// 4-byte value word) of a field of `kind`.
struct Leaf {
  std::string path;
  const Field *field;
  uint8_t *at;
};
// Every leaf of inst, embedded records and record-array elements included; with
// `with_alts`, also those of the alternatives it holds.
inline void leaves(const std::string &type, uint8_t *inst, std::vector<Leaf> &out, bool with_alts,
                   const std::string &prefix = "") {
  for (const Field *f : fields_of(type)) {
    uint8_t *at = inst + f->offset;
    std::string path = prefix + f->name;
    if (is(*f, "Prim")) out.push_back({path, f, at});
    if (is(*f, "Flags")) out.push_back({path, f, at + 11});
    if (is(*f, "Enum") || is(*f, "Selector")) out.push_back({path, f, at + 12});
    for (uint32_t k = 0; is(*f, "FixedArray") && k < f->count; ++k)
      out.push_back({path + "[" + std::to_string(k) + "]", f, at + k * f->elem_size});
    if (is(*f, "Record")) leaves(f->member, at, out, with_alts, path + ".");
    for (uint32_t k = 0; is(*f, "RecordArray") && k < f->count; ++k)
      leaves(f->member, at + k * f->elem_size, out, with_alts,
             path + "[" + std::to_string(k) + "].");
    uint8_t *alt = is(*f, "UnionAlt") ? *reinterpret_cast<uint8_t **>(at) : nullptr;
    if (with_alts && alt) leaves(f->member, alt, out, with_alts, path + "->");
  }
}

// The bytes a record owns, through its references: fixed part (and area, as allocated),
// variable storage, alternatives. Two instances with the same content differ only in
// their pointers, so those are left out.
inline Bytes owned_bytes(Handle &h, const std::string &type, const uint8_t *inst) {
  const size_t n = h.live.count(const_cast<uint8_t *>(inst))
                       ? h.live.at(const_cast<uint8_t *>(inst))
                       : type_of(type).fixed_size;
  Bytes out(inst, inst + n);
  for (const Field *f : fields_of(type)) {
    if (!is(*f, "VarArray") && !is(*f, "UnionAlt")) continue;
    std::memset(out.data() + f->offset, 0, 8);
    auto *p = *reinterpret_cast<uint8_t *const *>(inst + f->offset);
    if (!p) continue;
    Bytes more = is(*f, "VarArray") ? Bytes(p, p + h.live.at(p)) : owned_bytes(h, f->member, p);
    out.insert(out.end(), more.begin(), more.end());
  }
  return out;
}

// get_all and set_all of any record: n arguments after the instance, as void * (outputs)
// or u32 (values, each sign- or zero-extended from its field's width as a C caller's).
template <size_t>
using Out = void *;
template <size_t>
using In = uint32_t;
template <size_t... I>
void get_all_n(void *fn, wex_handle *h, const void *inst, void *const *o, uint32_t *err,
               std::index_sequence<I...>) {
  reinterpret_cast<void (*)(wex_handle *, uint32_t, const void *, Out<I>..., uint32_t *)>(fn)(
      h, 0, inst, o[I]..., err);
}
template <size_t... I>
void set_all_n(void *fn, wex_handle *h, void *inst, const uint32_t *v, uint32_t *err,
               std::index_sequence<I...>) {
  reinterpret_cast<void (*)(wex_handle *, uint32_t, void *, In<I>..., uint32_t *)>(fn)(
      h, 0, inst, v[I]..., err);
}
template <typename Fn, size_t... N>
void with_arity(size_t n, Fn &&fn, std::index_sequence<N...>) {
  ((n == N ? fn(std::make_index_sequence<N>{}) : void()), ...);
}
inline void get_all(wex_handle *h, const std::string &type, const void *inst,
                    const std::vector<void *> &outs, uint32_t *err) {
  void *fn = dlsym(RTLD_DEFAULT, (type + "_get_all").c_str());
  with_arity(
      outs.size(), [&](auto seq) { get_all_n(fn, h, inst, outs.data(), err, seq); },
      std::make_index_sequence<16>{});
}
inline void set_all(wex_handle *h, const std::string &type, void *inst,
                    const std::vector<uint32_t> &values, uint32_t *err) {
  void *fn = dlsym(RTLD_DEFAULT, (type + "_set_all").c_str());
  with_arity(
      values.size(), [&](auto seq) { set_all_n(fn, h, inst, values.data(), err, seq); },
      std::make_index_sequence<16>{});
}

inline int32_t compare(const std::string &t, const void *a, const void *b) {
  return op<CompareFn>(t, "compare")(a, b);
}
inline uint32_t hash(const std::string &t, const void *inst, uint32_t seed = 0x5eed) {
  return op<HashFn>(t, "hash")(inst, seed);
}

// A filled instance of the type, destroyed with the fixture's handle.
class Whole : public acc::Access {
 protected:
  uint8_t *make(const std::string &type, uint8_t seed = 11, uint32_t alt = 6,
                uint32_t var_len = 0) {
    uint8_t *p = acc::create(h, type);
    bixtest::fill(h, type, p, seed, alt, var_len);
    return p;
  }
  void drop(const std::string &type, void *p) { acc::destroy(h, type, p); }
  // The type's shared null instance, as a _cr create hands it out after a failure.
  void *null_instance(const std::string &type) {
    h->error = 12;
    void *p = call<void *>(type, "create_cr", h);
    h->error = 0;
    return p;
  }
};

}  // namespace whole
