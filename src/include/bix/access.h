// Core family: field accessors and state bytes of records.
#pragma once

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Start of an instance's state-tracking area: at the offset the runtime remembers when
// flag 0x40 is set, else right after the fixed part. Only meaningful with flag 0x08.
uint8_t *sttr_area(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst);

// Resizes the variable array f of inst to `count` elements. Storage grows with zero fill;
// when the instance is state tracked its element-state buffer follows (new bytes 0).
// count 0 releases both buffers. On allocation failure: 12 in the slot and the handle,
// and the array is left exactly as it was. Shared by the accessors, decoding, clone
// and XML parsing.
bool var_array_resize(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst,
                      const FieldDesc &f, uint32_t count, uint32_t *err);

}  // namespace bix
