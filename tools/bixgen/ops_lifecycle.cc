// Lifecycle of every record, enumeration and flag set.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> lifecycle_ops() {
  return {
      {kOnAll, "create", "$T *", "wex_handle *h, uint32_t ws",
       "return static_cast<$T *>(bix::instance_create($D, h, ws));",
       "New instance, or NULL when allocation fails."},
      {kOnAll, "create_cr", "$T *", "wex_handle *h",
       "return static_cast<$T *>(bix::instance_create_cr($D, h));",
       "create with the handle's default_ws; the null instance on failure or pending error."},
      {kOnAll, "create_internal", "$T *", "wex_handle *h, uint32_t ws",
       "return static_cast<$T *>(bix::instance_create_internal($D, h, ws));",
       "Allocate, zero and initialise; the body behind create and create_cr."},
      {kOnAll, "initialize", "void",
       "wex_handle *h, uint32_t ws, void *mem, wex_type_info *tinfo, uint32_t notify, "
       "uint32_t skip_stats, uint8_t flags, void *sttr_base, uint32_t *err",
       "bix::instance_initialize($D, h, ws, mem, tinfo, notify, skip_stats, flags, sttr_base, err);",
       "Initialise zeroed memory in place (header, flags, counters, embedded members)."},
      {kOnAll, "sizeof", "uint32_t", "wex_handle *h", "return bix::instance_sizeof($D, h);",
       "Bytes to allocate under the handle's state-tracking mode."},
      {kOnAll, "destroy", "void", "wex_handle *h, uint32_t ws, $T *inst",
       "bix::instance_destroy($D, h, ws, inst);", "Destroy and free; ignores the null instance."},
      {kOnAll, "destroy_cr", "void", "wex_handle *h, $T *inst",
       "bix::instance_destroy_internal($D, h, h->default_ws, inst, 1);",
       "destroy with the handle's default_ws."},
      {kOnAll, "destroy_internal", "void", "wex_handle *h, uint32_t ws, $T *inst, uint32_t free_it",
       "bix::instance_destroy_internal($D, h, ws, inst, free_it);",
       "Tear down members; free the instance too when free_it is nonzero."},
      {kOnAll, "set_instance_embedded", "void", "wex_handle *h, uint32_t ws, $T *inst",
       "bix::instance_set_embedded($D, h, ws, inst);",
       "Mark the instance and its embedded members as embedded (flag 0x02)."},
      {kOnAll, "get_luid", "uint32_t",
       "wex_handle *h, uint32_t ws, const void *inst, uint8_t *luid_out, uint32_t *err",
       "return wex_get_luid(h, ws, inst, luid_out, err);",
       "Forwarded unchanged to the runtime's wex_get_luid."},
      {kOnAll, "variant_data_index_cap", "int8_t", "int8_t variant",
       "return bix::variant_cap($D, variant);",
       "The variant capped at the latest variant; negative values pass through."},
      {kOnRecord, "is_valid_cr", "uint32_t", "wex_handle *h, uint32_t ignored, uint32_t n",
       "(void)ignored; return bix::record_is_valid_cr($D, h, n);",
       "0 when the domain variant is 0 or less and n is above 1, else 1."},
      {kOnEnum, "is_valid_cr", "uint32_t", "wex_handle *h, uint32_t value",
       "return bix::enum_is_valid_cr($D, h, value);",
       "1 when the value is acceptable for the handle's domain variant of this type."},
      {kOnFlags, "is_valid_cr", "uint32_t", "wex_handle *h, uint32_t flag",
       "return bix::flags_is_valid_cr($D, h, flag);",
       "0 when the flag number is out of range and the domain variant is 0 or less."},
      {kOnRecord, "offset_update", "void", "wex_handle *h, uint32_t ws, $T *inst, void *sttr_base",
       "bix::record_offset_update($D, h, ws, inst, static_cast<uint8_t *>(sttr_base), nullptr);",
       "Tell each embedded record where its state bytes live inside sttr_base."},
  };
}

}  // namespace bixgen
