// Core family: field accessors and state bytes of records.
//
// Every accessor takes the record's descriptor d, the field's descriptor f, then the C
// arguments of the exported function. Error slots may be null (a private slot is used).
#pragma once

#include <cstring>

#include "bix/desc.h"
#include "wex.h"

namespace bix {

// Start of an instance's state-tracking area: at the offset the runtime remembers when
// flag 0x40 is set, else right after the fixed part of a top-level instance. Null when
// the instance has none that can be located: no flag 0x08, a nested member without 0x40,
// or an offset that would overlap the instance itself. Callers treat null as untracked.
uint8_t *sttr_area(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst);

// Resizes the variable array f of inst to `count` elements. Storage grows with zero fill;
// when the instance has a state-tracking area its element-state buffer follows (new
// bytes 0). With `content`, the new storage holds count elements copied from there
// instead, and every element state is 0; content may point into the old storage, which
// is released only after the copy. count 0 releases both buffers. On allocation failure:
// 12 in the slot and the handle, and the array is left exactly as it was. Shared by the
// accessors, decoding, clone and XML parsing.
bool var_array_resize(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst,
                      const FieldDesc &f, uint32_t count, uint32_t *err,
                      const uint8_t *content = nullptr);

// Small helpers shared by the accessor units: unaligned reads, announced writes.
inline bool is_tracked(const void *inst) { return static_cast<const uint8_t *>(inst)[kHdrFlags] & kFlagTracked; }
template <typename T>
T load(const void *at) {
  T v;
  std::memcpy(&v, at, sizeof v);
  return v;
}
template <typename T>
void store(wex_handle *h, uint32_t ws, void *at, T v) {
  h->notify_write(h->alloc_ctx, at, sizeof v, ws);
  std::memcpy(at, &v, sizeof v);
}

// The six primitive codecs by kind. Values travel as u32: signed kinds sign-extended.
void *prim_get(Prim p, wex_handle *h, uint32_t ws, void *field, uint32_t *err);
uint32_t prim_get_value(Prim p, wex_handle *h, uint32_t ws, const void *field, uint32_t *err);
void prim_set(Prim p, wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err);
void prim_set_value(Prim p, wex_handle *h, uint32_t ws, void *field, uint32_t value,
                    uint32_t *err);

// ---- scalars: primitive, count, enumeration and selector fields ----
void *scalar_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                 uint32_t *err);
uint32_t scalar_get_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                          void *inst, uint32_t *err);
void scalar_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                const void *src, uint32_t *err);
void scalar_set_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst, uint32_t value, uint32_t *err);

// ---- embedded records and flag sets ----
void *member_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                 uint32_t *err);
void member_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                void *src, uint32_t *err);

// ---- union alternatives ----
void *alt_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
              uint32_t *err);
void *alt_get_detach(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint32_t *err);
void alt_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
             void *member, uint32_t *err);

// ---- the state byte a field owns (scalars, members, alternatives) ----
uint8_t state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                  uint32_t *err);
void state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
               uint8_t value, uint32_t *err);

// ---- arrays of primitives, fixed or variable ----
void *array_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                uint32_t index, uint32_t *err);
uint32_t array_get_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                         void *inst, uint32_t index, uint32_t *err);
void array_get_mem(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                   void *dst, int32_t n, uint32_t *err);
void array_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
               uint32_t index, const void *src, uint32_t *err);
void array_set_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint32_t index, uint32_t value, uint32_t *err);
void array_set_mem(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                   const void *src, int32_t n, uint32_t *err);
void var_array_remove(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst);

// ---- arrays of embedded records ----
void *record_array_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                       void *inst, uint32_t index, uint32_t *err);
void record_array_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst, uint32_t index, void *src, uint32_t *err);

// ---- whole and per-element state bytes of every array kind ----
uint8_t elem_state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                       void *inst, uint32_t index, uint32_t *err);
void elem_state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                    uint32_t index, uint8_t value, uint32_t *err);
void elem_state_get_arr(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, uint8_t **out, uint32_t *err);
void elem_state_set_arr(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, const uint8_t *src, uint32_t n, uint32_t *err);
uint8_t whole_state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, uint32_t *err);
void whole_state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint8_t value, uint32_t *err);

// ---- whole instance ----
// Copies src over dst: fixed part, and the state area when both are tracked and tracking
// is on. dst (and each record embedded in it) keeps its own flag byte; src gives up its
// union alternatives and variable-array storage to dst. No error-slot guard.
void record_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, void *src,
                uint32_t *err);

}  // namespace bix
