// The record codec's entry points: the generated fast path when the runtime declares a
// byte form the library knows and the domain admits the latest variant of every type the
// record holds, the walker otherwise (see bix/fast.h and docs/performance.md).
#include "bix/fast.h"

#include <atomic>
#include <cstdlib>

#include "bix/core.h"

namespace bix {
namespace fast {

const uint8_t kZeroArea[kZeroAreaSize] = {};

uint64_t variable_len(const Plan &p, const TypeDesc &d, wex_handle *h, uint32_t ws,
                      const uint8_t *inst) {
  uint64_t n = 0;
  for (uint32_t i = 0; i < p.nsteps; ++i) {
    const Step &s = p.steps[i];
    if (s.op == Op::VarArray) {
      const uint32_t k = ld<uint32_t>(inst + s.src);
      // The whole-array state byte counts even for an empty array.
      n += uint64_t{k} * d.fields[s.field].elem_size + (p.states ? 1 + uint64_t{k} : 0);
    } else if (s.op == Op::Union) {
      const FieldDesc *alts = d.fields + s.field;
      const uint32_t sel = ld<uint32_t>(inst + d.fields[alts[0].link].offset + kEnumValueOffset);
      for (uint32_t j = 0; j < s.n; ++j)
        if (alts[j].count == sel)
          if (const void *alt = ld<const void *>(inst + alts[j].offset))
            n += record_len(*alts[j].type, h, ws, alt);
      n += p.states ? s.n : 0;
    }
  }
  return n;
}

}  // namespace fast

namespace {

// The one byte form this library writes and reads itself.
bool known_form(const wex_byte_form *f) {
  static const uint8_t kPrims[6] = {1, 1, 2, 2, 4, 4};
  return f->version == WEX_BYTE_FORM_VERSION && f->byte_order == WEX_BYTE_ORDER_BIG &&
         f->variant_size == 1 && f->flags_size == 1 && f->jump_size == 4 && f->ra_size == 9 &&
         std::memcmp(f->prim_size, kPrims, sizeof kPrims) == 0 && f->twos_complement &&
         f->header_direct;
}

bool fast_disabled_by_env() {
  const char *e = std::getenv("BIX_IPC_SHIM_NO_FAST");
  return e && *e && *e != '0';
}

// Whether the domain admits at least the latest variant of d and of every type d holds
// (members, elements, alternatives, enumerations and flag sets).
bool admits_latest(const TypeDesc &d, wex_handle *h) {
  uint32_t local = 0;
  if (wex_domain_lookup_variant(h, &h->domain, d.tinfo, &local) < d.latest_variant || local)
    return false;
  for (uint16_t i = 0; i < d.nfields; ++i)
    if (d.fields[i].type && !admits_latest(*d.fields[i].type, h)) return false;
  return true;
}

}  // namespace

namespace fast {

std::atomic<const wex_byte_form *> g_known_form{nullptr};

bool learn_form(const wex_byte_form *f) {
  static const bool off = fast_disabled_by_env();
  if (off || !known_form(f)) return false;
  g_known_form.store(f, std::memory_order_relaxed);
  return true;
}

// admits_latest per type under the domain generation it was found in (generation << 2 |
// 2 | answer). The runtime gives every change of a domain a generation never used before,
// so an entry is either right for the caller's domain or ignored; a lost race between
// threads costs a lookup, never a wrong answer.
std::atomic<uint64_t> g_admits[kCachedTypes];

bool admits_uncached(const TypeDesc &d, wex_handle *h) {
  const bool ok = admits_latest(d, h);
  if (wex_domain_generation && d.id < kCachedTypes) {
    const uint64_t gen = wex_domain_generation(h, &h->domain) & (UINT64_MAX >> 2);
    g_admits[d.id].store(gen << 2 | 2 | (ok ? 1 : 0), std::memory_order_relaxed);
  }
  return ok;
}

}  // namespace fast

// Every record has its entry points (fast.h); descriptors without them are the walker's.
uint32_t record_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst) {
  return d.fast ? d.fast->len(d, h, ws, inst) : walker_len(d, h, ws, inst);
}

uint32_t record_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                        const void *inst, int32_t len, uint32_t *err, bool clone) {
  return d.fast ? d.fast->marshal(d, h, ws, buf, inst, len, err, clone)
                : walker_marshal(d, h, ws, buf, inst, len, err, clone);
}

uint32_t record_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                          void *inst, int32_t len, uint32_t reuse, uint32_t *err) {
  return d.fast ? d.fast->unmarshal(d, h, ws, buf, inst, len, reuse, err)
                : walker_unmarshal(d, h, ws, buf, inst, len, reuse, err);
}

}  // namespace bix
