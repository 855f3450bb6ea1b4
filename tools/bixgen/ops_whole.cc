// Whole-record operations: all scalars at once, the state-flag sweep, compare and hash.
// Each forwards to one core body in src/types/whole.cc; get_all and set_all pass their
// per-record arguments as one array.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> whole_ops() {
  return {
      {kOnRecord, "get_all", "void",
       "wex_handle *h, uint32_t ws, const $T *inst$GET_ALL_PARAMS, uint32_t *err",
       "void *const outs[] = {$GET_ALL_OUTS}; bix::record_get_all($D, h, ws, inst, outs, err);",
       "Reads every scalar field, in schema order: $GET_ALL_NAMES. Enumerations give their "
       "user value. Nothing is written for a negative variant; NULL outputs are skipped."},
      {kOnRecord, "set_all", "void",
       "wex_handle *h, uint32_t ws, $T *inst$SET_ALL_PARAMS, uint32_t *err",
       "const uint32_t ins[] = {$SET_ALL_INS}; bix::record_set_all($D, h, ws, inst, ins, err);",
       "Stores, in schema order: $SET_ALL_NAMES. An enumeration value its variant refuses "
       "leaves 43 and the field as it was; later integer fields are still stored, later "
       "enumerations are not. Nothing for a negative variant."},
      {kOnRecord, "set_all_state_tracking_flag", "void",
       "wex_handle *h, uint32_t ws, $T *inst, uint32_t flag",
       "bix::record_set_all_sttr_flag($D, h, ws, inst, flag);",
       "Sets every state byte of the instance (embedded records and variable-array elements "
       "included, union alternatives not) to the low byte of flag; nothing while the handle "
       "does not track."},
      {kOnRecord, "compare", "int32_t", "const $T *a, const $T *b",
       "return bix::record_compare($D, a, b);",
       "Orders two instances field by field in schema order; NULL sorts first. An instance of "
       "another type compares as NULL."},
      {kOnRecord, "hash", "uint32_t", "const $T *inst, uint32_t seed",
       "return bix::record_hash($D, inst, seed);",
       "Folds every field into seed in schema order; seed for NULL or an instance of another "
       "type."},
  };
}

}  // namespace bixgen
