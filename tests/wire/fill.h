// Fills any record with non-zero values by walking the generated layout facts, so
// round trips cover every field of every type without per-type test code.
#pragma once

#include <string>
#include <vector>

#include "../runtime/support.h"
#include "bix_schema_facts.h"

namespace bixtest {

// Every record type, in schema order.
inline std::vector<std::string> records() {
  std::vector<std::string> out;
  for (const auto &t : bixfacts::kTypes)
    if (std::string(t.kind) == "type") out.push_back(t.name);
  return out;
}

inline const bixfacts::Type *facts_type(const std::string &name) {
  for (const auto &t : bixfacts::kTypes)
    if (name == t.name) return &t;
  return nullptr;
}

inline uint8_t *area_of(wex_handle *h, void *inst, const bixfacts::Type &t) {
  uint8_t *b = static_cast<uint8_t *>(inst);
  return (b[10] & 0x40) ? b + wexlib_get_sttr_offset(h, 0, inst) : b + t.fixed_size;
}

// `seed` varies the values; `alt` picks the union alternative (1..7); `var_len` sets the
// variable array's length (0: derived from the seed).
inline void fill(wex_handle *h, const std::string &type, void *inst, uint8_t seed, uint32_t alt = 1,
                 uint32_t var_len = 0) {
  const bixfacts::Type &t = *facts_type(type);
  uint8_t *b = static_cast<uint8_t *>(inst);
  const bool tracked = b[10] & 0x08;
  uint8_t *area = tracked ? area_of(h, inst, t) : nullptr;
  uint8_t v = seed;
  auto next = [&] { return v = static_cast<uint8_t>(v * 13 + 7) | 1; };
  for (const auto &f : bixfacts::kFields) {
    if (type != f.type) continue;
    std::string kind = f.kind;
    uint8_t *at = b + f.offset;
    if (kind == "Prim" || kind == "FixedArray") {
      std::string p = f.prim;
      const char last = p.back();  // int8 .. u_int32; C++17 suites include this too
      uint32_t width = last == '2' ? 4 : last == '6' ? 2 : 1;
      uint32_t n = width * (kind == "Prim" ? 1 : f.count);
      for (uint32_t i = 0; i < n; ++i) at[i] = next();
    } else if (kind == "Enum") {
      uint32_t value = 1;  // a literal of every enumeration
      std::memcpy(at + 12, &value, 4);
    } else if (kind == "Selector") {
      std::memcpy(at + 12, &alt, 4);
    } else if (kind == "Flags") {
      at[11] = next();
      at[12] = next() & 0x1F;
    } else if (kind == "Record") {
      fill(h, f.member, at, next(), alt, var_len);
    } else if (kind == "RecordArray") {
      for (uint32_t k = 0; k < f.count; ++k) fill(h, f.member, at + k * f.elem_size, next(), alt, var_len);
    } else if (kind == "Count") {
      // set with the variable array below
    } else if (kind == "VarArray") {
      uint32_t k = var_len ? var_len : 5 + seed % 7;
      auto *data = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, k));
      for (uint32_t i = 0; i < k; ++i) data[i] = next();
      std::memcpy(at, &data, sizeof data);
      for (const auto &c : bixfacts::kFields)  // the count field named by the array
        if (type == c.type && std::string(c.kind) == "Count") std::memcpy(b + c.offset, &k, 4);
      if (area) {
        auto *states = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, k));
        for (uint32_t i = 0; i < k; ++i) states[i] = next();
        std::memcpy(area + f.sttr_ptr, &states, sizeof states);
      }
    } else if (kind == "UnionAlt" && f.count == alt) {
      void *a = op<CreateFn>(f.member, "create")(h, 0);
      fill(h, f.member, a, next(), alt, var_len);
      std::memcpy(at, &a, sizeof a);
    }
    if (area) {
      // Mark every state byte this field owns, leaving the variable array's pointer alone.
      area[f.sttr] = next();
      if (kind == "FixedArray" || kind == "RecordArray")
        for (uint32_t k = 0; k < f.count; ++k) area[f.sttr_elems + k] = next();
    }
  }
}

}  // namespace bixtest
