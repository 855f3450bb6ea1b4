// Everything an instance holds, as bytes that two instances share exactly when a decoder
// left them in the same state: the fixed part with each reference replaced by whether it
// is set, the state-tracking area, and what the references lead to (variable storage and
// its element states, union alternatives, recursively). Walks the generated layout facts.
#pragma once

#include <string>
#include <vector>

#include "wire_support.h"

namespace bixtest {

inline void snapshot_into(wex_handle *h, const std::string &type, const void *inst,
                          std::vector<uint8_t> &out) {
  const bixfacts::Type &t = *facts_type(type);
  const auto *b = static_cast<const uint8_t *>(inst);
  std::vector<uint8_t> fixed(b, b + t.fixed_size);
  const uint8_t *area =
      (b[10] & 0x08) && !(b[10] & 0x04) ? area_of(h, const_cast<void *>(inst), t) : nullptr;
  std::vector<uint8_t> states =
      area ? std::vector<uint8_t>(area, area + t.sttr_size) : std::vector<uint8_t>();
  std::vector<std::pair<const bixfacts::Field *, const uint8_t *>> refs;
  uint32_t count = 0;
  for (const auto &f : bixfacts::kFields) {
    if (type != f.type) continue;
    const std::string kind = f.kind;
    if (kind == "Count") std::memcpy(&count, b + f.offset, 4);
    if (kind != "VarArray" && kind != "UnionAlt") continue;
    const uint8_t *p;
    std::memcpy(&p, b + f.offset, sizeof p);
    std::memset(fixed.data() + f.offset, 0, 8);
    fixed[f.offset] = p != nullptr;
    refs.push_back({&f, p});
    if (kind == "VarArray" && area) {
      const uint8_t *es;
      std::memcpy(&es, area + f.sttr_ptr, sizeof es);
      std::memset(states.data() + f.sttr_ptr, 0, 8);
      states[f.sttr_ptr] = es != nullptr;
      if (es) out.insert(out.end(), es, es + count);
    }
  }
  out.insert(out.end(), fixed.begin(), fixed.end());
  out.insert(out.end(), states.begin(), states.end());
  for (auto [f, p] : refs) {
    if (!p) continue;
    if (std::string(f->kind) == "VarArray")
      out.insert(out.end(), p, p + count);
    else
      snapshot_into(h, f->member, p, out);
  }
}

inline std::vector<uint8_t> snapshot(wex_handle *h, const std::string &type, const void *inst) {
  std::vector<uint8_t> out;
  snapshot_into(h, type, inst, out);
  return out;
}

}  // namespace bixtest
