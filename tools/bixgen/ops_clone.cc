// Clone, copy, post-copy clean-up and offset removal of records. Each forwards to one
// core body in src/types/clone.cc.
#include "ops.h"

namespace bixgen {

// The destination reference crosses as void ** without punning the caller's pointer type.
#define BIX_DST_REF(call)                   \
  "void *ref = dst ? *dst : nullptr; " call \
  "(dst ? &ref : nullptr), buf, len, err); if (dst) *dst = static_cast<$T *>(ref);"

std::vector<OpSpec> clone_ops() {
  return {
      {kOnRecord, "clone_internal", "void",
       "wex_handle *h, uint32_t ws, const $T *src, $T **dst, uint8_t *buf, uint32_t len, "
       "uint32_t *err",
       BIX_DST_REF("bix::record_clone_internal($D, h, ws, src, "),
       "Encodes src into buf and decodes it into *dst, creating *dst when NULL. 2 without dst "
       "or buf; when the decode fails, *dst is destroyed and set to NULL."},
      {kOnRecord, "clone", "void",
       "wex_handle *h, uint32_t ws, const $T *src, $T **dst, uint8_t *buf, uint32_t len, "
       "uint32_t *err",
       BIX_DST_REF("bix::record_clone($D, h, ws, src, "),
       "clone_internal into a new instance: *dst is set to NULL first."},
      {kOnRecord, "clone_cr", "$T *", "wex_handle *h, const $T *src",
       "return static_cast<$T *>(bix::record_clone_cr($D, h, src));",
       "A new copy of src made through the handle's scratch buffer, or NULL (the handle's error "
       "says why)."},
      {kOnRecord, "copy_cr", "void", "wex_handle *h, const $T *src, $T *dst",
       "bix::record_copy_cr($D, h, src, dst);",
       "Decodes src's encoding into the existing dst, which keeps its address (2 for NULL). "
       "After a failed decode dst stays valid, partly updated, and still the caller's."},
      {kOnRecord, "post_copyout_cleanup", "void",
       "wex_handle *h, uint32_t ws, $T *target, $T *source, uint32_t *err",
       "bix::record_post_copyout_cleanup($D, h, ws, target, source, err);",
       "After the runtime copied source's bytes into target: embedded records are set from "
       "source's, and what source refers to (alternatives, variable storage) is target's alone."},
      {kOnRecord, "offset_remove", "void", "wex_handle *h, uint32_t ws, $T *inst, uint32_t *err",
       "bix::record_offset_remove($D, h, ws, inst, err);",
       "Removes the handle-data mapping of every embedded record."},
  };
}

#undef BIX_DST_REF

}  // namespace bixgen
