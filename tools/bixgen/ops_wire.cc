// Wire encoding and decoding of records: each through its own entry points (the fast
// path's, falling back to the walker), which the unit defines from the record's plans.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> wire_ops() {
  return {
      {kOnRecord, "len", "uint32_t", "wex_handle *h, uint32_t ws, const $T *inst",
       "return bix::gen::fo_$T.len($D, h, ws, inst);",
       "Bytes the encoding needs (state bytes included when tracking is on)."},
      {kOnRecord, "len_cr", "uint32_t", "wex_handle *h, const $T *inst",
       "return h->error ? 0 : bix::gen::fo_$T.len($D, h, h->default_ws, inst);",
       "len with the handle's default_ws; 0 when an error is pending."},
      {kOnRecord, "marshal", "uint32_t",
       "wex_handle *h, uint32_t ws, uint8_t *buf, const $T *inst, int32_t len, uint32_t *err",
       "return bix::gen::fo_$T.marshal($D, h, ws, buf, inst, len, err, false);",
       "Encode into buf (never past len); bytes written. Check err afterwards."},
      {kOnRecord, "marshal_for_clone", "uint32_t",
       "wex_handle *h, uint32_t ws, uint8_t *buf, const $T *inst, int32_t len, uint32_t *err",
       "return bix::gen::fo_$T.marshal($D, h, ws, buf, inst, len, err, true);",
       "marshal without the domain check for the record itself."},
      {kOnRecord, "unmarshal", "uint32_t",
       "wex_handle *h, uint32_t ws, const uint8_t *buf, $T *inst, int32_t len, uint32_t reuse, "
       "uint32_t *err",
       "bix::ensure_trace_module(); return bix::gen::fo_$T.unmarshal($D, h, ws, buf, inst, len, reuse, "
       "err);",
       "Decode into an initialised instance; bytes consumed. Never reads past len."},
  };
}

}  // namespace bixgen
