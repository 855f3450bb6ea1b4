// Pieces of the encoders and decoders shared by every kind of type.
#include "bix/core.h"

BIX_EXPORT void bix_ipc_shim_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err);

namespace bix {

bool codec_begin(const TypeDesc &d, wex_handle *h, uint32_t *err, const void *inst, int32_t len,
                 bool writes) {
  if (*err) return false;
  wex_clear_last_error(h);
  if (len < 1) {
    store_err(h, err, 12);
    return false;
  }
  if (!inst || (writes ? !is_instance_of(d, inst) : foreign_instance(d, inst))) {
    store_err(h, err, 22);
    return false;
  }
  return true;
}

uint32_t jump_correct(wex_handle *h, uint32_t *err, uint32_t pos, uint32_t jump_base,
                      uint32_t jump, int32_t len) {
  int64_t target = static_cast<int64_t>(jump_base) + jump;
  if (target <= static_cast<int64_t>(pos)) return pos;
  if (target > len) {
    store_err(h, err, kErrShortInput);
    return static_cast<uint32_t>(len);
  }
  trace_u(Tm::kJumpSkip, pos, jump_base, jump);
  return static_cast<uint32_t>(target);
}

wex_type_info *decoded_tinfo(wex_handle *h, uint32_t ws, const TypeDesc &d) {
  return h->types_indirect ? wex_type_info_ptr_get(h, ws, d.tinfo, bix_ipc_shim_typeinfo_initialize)
                           : d.tinfo;
}

}  // namespace bix
