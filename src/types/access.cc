// Field accessors of records: one body per field kind, driven by the field descriptor.
// Every accessor follows the same skeleton: error-slot guard, clear the last error,
// (writers) adjust the variant, the variant check, the work, then (writers) mark the
// field's state bytes with 2 when the handle tracks state.
#include <atomic>
#include <cstring>

#include "bix/core.h"

namespace bix {

// ---- the six primitive codecs, by kind ----

namespace {

struct Codec {
  void *(*get)(wex_handle *, uint32_t, void *, uint32_t *);
  void (*set)(wex_handle *, uint32_t, void *, const void *, uint32_t *);
  uint32_t (*get_value)(wex_handle *, uint32_t, const void *, uint32_t *);
  void (*set_value)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);
};

// Values widen through int32_t for signed kinds, so -5 travels as 0xFFFFFFFB.
template <typename T, auto Get, auto Set, auto GetValue, auto SetValue>
constexpr Codec codec() {
  return {Get, Set,
          [](wex_handle *h, uint32_t ws, const void *f, uint32_t *err) -> uint32_t {
            return static_cast<uint32_t>(static_cast<int32_t>(GetValue(h, ws, f, err)));
          },
          [](wex_handle *h, uint32_t ws, void *f, uint32_t v, uint32_t *err) {
            SetValue(h, ws, f, static_cast<T>(v), err);
          }};
}

// Indexed by Prim.
constexpr Codec kCodecs[] = {
    codec<int8_t, int8_get, int8_set, int8_get_value, int8_set_value>(),
    codec<uint8_t, u_int8_get, u_int8_set, u_int8_get_value, u_int8_set_value>(),
    codec<int16_t, int16_get, int16_set, int16_get_value, int16_set_value>(),
    codec<uint16_t, u_int16_get, u_int16_set, u_int16_get_value, u_int16_set_value>(),
    codec<int32_t, int32_get, int32_set, int32_get_value, int32_set_value>(),
    codec<uint32_t, u_int32_get, u_int32_set, u_int32_get_value, u_int32_set_value>(),
};

const Codec &codec_of(Prim p) { return kCodecs[static_cast<unsigned>(p)]; }

}  // namespace

void *prim_get(Prim p, wex_handle *h, uint32_t ws, void *field, uint32_t *err) {
  return codec_of(p).get(h, ws, field, err);
}
uint32_t prim_get_value(Prim p, wex_handle *h, uint32_t ws, const void *field, uint32_t *err) {
  return codec_of(p).get_value(h, ws, field, err);
}
void prim_set(Prim p, wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err) {
  codec_of(p).set(h, ws, field, src, err);
}
void prim_set_value(Prim p, wex_handle *h, uint32_t ws, void *field, uint32_t value,
                    uint32_t *err) {
  codec_of(p).set_value(h, ws, field, value, err);
}

namespace {

// ---- the skeleton's steps ----

// Callers may pass no error slot; the steps below then report into a private one.
#define BIX_SLOT(err)     \
  uint32_t local_err = 0; \
  if (!(err)) (err) = &local_err

// Enumeration and flag-set typed fields are reached with (1, 1), all others with (1, 0).
bool variant_ok(const FieldDesc &f, wex_handle *h, const void *inst, uint32_t *err) {
  bool typed = f.kind == FieldKind::Enum || f.kind == FieldKind::Selector || f.kind == FieldKind::Flags;
  if (wex_get_instance_variant(inst, 1, typed ? 1 : 0) >= 0) return true;
  wex_store_epoch_err(h, 43, err);
  return false;
}

void adjust(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err) {
  wexlib_adjust_variant(h, ws, inst, inst ? wex_get_manifested_type_info(inst) : nullptr,
                        d.latest_variant, err);
}

// Start of every reader: guard, clear, type check, variant check.
bool begin_read(const TypeDesc &d, const FieldDesc &f, wex_handle *h, const void *inst,
                uint32_t *err) {
  if (*err) return false;
  wex_clear_last_error(h);
  if (foreign_instance(d, inst)) {
    store_err(h, err, 22);
    return false;
  }
  return variant_ok(f, h, inst, err);
}

// Start of every writer: guard, clear, adjust, variant check, type check. A type's
// shared null instance (and every member of one) has no type pointer: never written.
bool begin_write(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                 uint32_t *err) {
  if (*err) return false;
  wex_clear_last_error(h);
  adjust(d, h, ws, inst, err);
  if (*err || !variant_ok(f, h, inst, err)) return false;
  if (!is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return false;
  }
  return true;
}

// The area of an instance that must have one while tracking is on: 22 and a trace when
// it has none that can be located.
uint8_t *required_area(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err) {
  uint8_t *area = sttr_area(h, ws, d, inst);
  if (!area) {
    store_err(h, err, 22);
    trace(Tm::kNotTracked);
  }
  return area;
}

// The area to mark after a store, or null when nothing is to be marked: tracking off, or
// the instance has no area (22 and a trace; the value is stored already).
uint8_t *marking_area(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err) {
  return tracking_on(h) ? required_area(d, h, ws, inst, err) : nullptr;
}

void put_state(wex_handle *h, uint32_t ws, uint8_t *at, uint8_t value) {
  notify(h, ws, at, 1);
  *at = value;
}

// State-flag operations run with tracking on or without a profile (then the instance's
// own flag decides); mode 0xDDDD refuses them silently.
bool state_mode_ok(wex_handle *h, uint32_t *err) {
  if (h->sttr_profile && !tracking_on(h)) {
    store_err(h, err, 22);
    return false;
  }
  return true;
}

// Start of a state-flag operation: the instance's area, or null after 22. A null
// pointer and an instance of another type are refused without a trace; an instance
// without a locatable area with the reader's or the writer's trace.
uint8_t *begin_state(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err,
                     Tm untracked) {
  if (*err || !state_mode_ok(h, err)) return nullptr;
  if (!inst || foreign_instance(d, inst)) {
    store_err(h, err, 22);
    return nullptr;
  }
  uint8_t *area = sttr_area(h, ws, d, inst);
  if (!area) {
    trace(untracked);
    store_err(h, err, 22);
  }
  return area;
}
uint8_t *begin_state_read(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                          uint32_t *err) {
  return begin_state(d, h, ws, inst, err, Tm::kNonTracked);
}
// Up to (not including) the variant steps.
uint8_t *begin_state_write(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                           uint32_t *err) {
  return begin_state(d, h, ws, inst, err, Tm::kNotTracked);
}

uint8_t *field_at(void *inst, const FieldDesc &f) { return bytes(inst) + f.offset; }


// ---- arrays: where elements and their state bytes are ----

struct Elems {
  uint8_t *data;  // first element (null: a variable array without storage)
  uint32_t n;     // element count: the bound, or the current count of a variable array
};

const FieldDesc &count_field(const TypeDesc &d, const FieldDesc &f) { return d.fields[f.link]; }

Elems elems_of(const TypeDesc &d, const FieldDesc &f, void *inst) {
  if (f.kind != FieldKind::VarArray) return {field_at(inst, f), f.count};
  return {load<uint8_t *>(field_at(inst, f)), load<uint32_t>(field_at(inst, count_field(d, f)))};
}

struct ElemStates {
  uint8_t *whole;
  uint8_t *elems;  // null: a variable array without element-state buffer
  uint32_t n;
};

// area: the instance's state-tracking area (never null).
ElemStates elem_states_of(const TypeDesc &d, const FieldDesc &f, void *inst, uint8_t *area) {
  if (f.kind != FieldKind::VarArray) return {area + f.sttr, area + f.sttr_elems, f.count};
  uint8_t *buf = load<uint8_t *>(area + f.sttr_ptr);
  return {area + f.sttr, buf, elems_of(d, f, inst).n};
}

// Marks the whole byte and element `index` of an array after a store into it.
void mark_element(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                  uint32_t index, uint32_t *err) {
  uint8_t *area = marking_area(d, h, ws, inst, err);
  if (!area) return;
  ElemStates s = elem_states_of(d, f, inst, area);
  put_state(h, ws, s.whole, 2);
  if (s.elems && index < s.n) put_state(h, ws, s.elems + index, 2);
}

// Element count n of a get_mem or set_mem: within the length, and n elements of memory
// at p when there is something to copy.
bool count_ok(int32_t n, uint32_t length, const void *p, wex_handle *h, uint32_t *err) {
  if (n < 0 || static_cast<uint32_t>(n) > length || (n > 0 && !p)) {
    store_err(h, err, 22);
    return false;
  }
  return true;
}

// Once per process: the first enlargement of a variable array that had storage.
std::atomic<bool> g_realloc_traced{false};

// Grows a variable array so that `index` exists. False: stopped with an error.
bool var_array_reach(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint32_t index, uint32_t *err) {
  Elems e = elems_of(d, f, inst);
  if (e.data && index < e.n) return true;
  if (index == UINT32_MAX) {  // one past it cannot be counted
    store_err(h, err, 12);
    return false;
  }
  if (e.data && !g_realloc_traced.exchange(true, std::memory_order_relaxed))
    trace(Tm::kVarArrayRealloc, d.name);
  return var_array_resize(h, ws, d, inst, f, index + 1, err);
}

// Writers of a variable array refuse an untracked instance while tracking is on, before
// anything grows.
bool var_array_writable(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, uint32_t *err) {
  if (f.kind != FieldKind::VarArray || !tracking_on(h)) return true;
  return required_area(d, h, ws, inst, err) != nullptr;
}

uint8_t *selector_value(const TypeDesc &d, const FieldDesc &alt, void *inst) {
  return field_at(inst, d.fields[alt.link]) + kEnumValueOffset;
}

}  // namespace

// ---- scalars ----

void *scalar_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                 uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_read(d, f, h, inst, err)) return nullptr;
  if (f.kind == FieldKind::Enum || f.kind == FieldKind::Selector) return field_at(inst, f);
  return prim_get(f.prim, h, ws, field_at(inst, f), err);
}

uint32_t scalar_get_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                          void *inst, uint32_t *err) {
  BIX_SLOT(err);
  void *at = scalar_get(d, f, h, ws, inst, err);
  if (!at || *err) return 0;
  if (f.kind == FieldKind::Enum || f.kind == FieldKind::Selector)
    return load<uint32_t>(bytes(at) + kEnumValueOffset);
  return prim_get_value(f.prim, h, ws, at, err);
}

void scalar_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                const void *src, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  if (f.kind == FieldKind::Enum || f.kind == FieldKind::Selector)
    enum_set(*f.type, h, ws, field_at(inst, f), src, err);  // range rule of the member's type
  else
    prim_set(f.prim, h, ws, field_at(inst, f), src, err);
  // Marked whatever the store reported: the caller did write the field.
  if (uint8_t *area = marking_area(d, h, ws, inst, err)) put_state(h, ws, area + f.sttr, 2);
}

void scalar_set_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst, uint32_t value, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  void *at = scalar_get(d, f, h, ws, inst, err);
  if (*err) return;
  if (!at) {
    store_err(h, err, 2);
    return;
  }
  if (f.kind == FieldKind::Enum || f.kind == FieldKind::Selector)
    enum_set_value(*f.type, h, ws, at, value, err);
  else
    prim_set_value(f.prim, h, ws, at, value, err);
  if (uint8_t *area = marking_area(d, h, ws, inst, err)) put_state(h, ws, area + f.sttr, 2);
}

// ---- embedded records and flag sets ----

void *member_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t, void *inst,
                 uint32_t *err) {
  BIX_SLOT(err);
  return begin_read(d, f, h, inst, err) ? field_at(inst, f) : nullptr;
}

void member_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                void *src, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  if (f.kind == FieldKind::Flags)
    flags_set(*f.type, h, ws, field_at(inst, f), src, err);
  else
    record_set(*f.type, h, ws, field_at(inst, f), src, err);
  if (uint8_t *area = marking_area(d, h, ws, inst, err)) put_state(h, ws, area + f.sttr, 2);
}

// ---- union alternatives ----

void *alt_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t, void *inst,
              uint32_t *err) {
  BIX_SLOT(err);
  return begin_read(d, f, h, inst, err) ? load<void *>(field_at(inst, f)) : nullptr;
}

void alt_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
             void *member, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  // The parent will encode, decode and destroy the member as the alternative's type, so
  // nothing else is taken in, a type's shared null instance included.
  if (member && !is_instance_of(*f.type, member)) {
    store_err(h, err, 22);
    return;
  }
  store(h, ws, field_at(inst, f), member);  // a previous member stays the caller's
  store(h, ws, selector_value(d, f, inst), f.count);
  uint8_t *area = marking_area(d, h, ws, inst, err);
  if (!area) return;
  if (!member || !is_tracked(member)) {
    store_err(h, err, 22);
    trace(Tm::kValNotTracked);
    return;
  }
  put_state(h, ws, area + f.sttr, 2);
}

void *alt_get_detach(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return nullptr;
  if (load<uint32_t>(selector_value(d, f, inst)) != f.count) return nullptr;
  // Refused before anything moves: detaching first would leave the member owned by
  // nobody once the call fails.
  uint8_t *area = nullptr;
  if (tracking_on(h) && !(area = required_area(d, h, ws, inst, err))) return nullptr;
  void *member = load<void *>(field_at(inst, f));
  store<void *>(h, ws, field_at(inst, f), nullptr);
  store<uint32_t>(h, ws, selector_value(d, f, inst), 0);
  if (area) put_state(h, ws, area + f.sttr, 0);
  return member;
}

// ---- a field's own state byte ----

uint8_t state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                  uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_read(d, h, ws, inst, err);
  return area ? area[f.sttr] : 0;
}

void state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
               uint8_t value, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_write(d, h, ws, inst, err);
  if (!area) return;
  adjust(d, h, ws, inst, err);
  if (*err || !variant_ok(f, h, inst, err)) return;
  put_state(h, ws, area + f.sttr, value);
}

// ---- arrays of primitives ----

void *array_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                uint32_t index, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_read(d, f, h, inst, err)) return nullptr;
  Elems e = elems_of(d, f, inst);
  if (!e.data || index >= e.n) {
    store_err(h, err, 2);
    return nullptr;
  }
  return prim_get(f.prim, h, ws, e.data + static_cast<size_t>(index) * f.elem_size, err);
}

uint32_t array_get_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                         void *inst, uint32_t index, uint32_t *err) {
  BIX_SLOT(err);
  void *at = array_get(d, f, h, ws, inst, index, err);
  return at ? prim_get_value(f.prim, h, ws, at, err) : 0;
}

void array_get_mem(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t, void *inst,
                   void *dst, int32_t n, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_read(d, f, h, inst, err)) return;
  Elems e = elems_of(d, f, inst);
  if (!count_ok(n, e.data ? e.n : 0, dst, h, err)) return;
  if (n > 0) std::memcpy(dst, e.data, static_cast<size_t>(n) * f.elem_size);
}

void array_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
               uint32_t index, const void *src, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  uint32_t held = 0;
  if (f.kind == FieldKind::VarArray) {
    // Growing releases the old storage, which the source may point into ("append a copy
    // of element 0"): the value is held before anything moves.
    if (src) {
      std::memcpy(&held, src, f.elem_size);
      src = &held;
    }
    if (!var_array_writable(d, f, h, ws, inst, err) || !var_array_reach(d, f, h, ws, inst, index, err))
      return;
    if (!src) return;  // grown, nothing else written
  } else if (!src) {
    return;
  }
  Elems e = elems_of(d, f, inst);
  if (index >= e.n) {
    store_err(h, err, 2);
    return;
  }
  prim_set(f.prim, h, ws, e.data + static_cast<size_t>(index) * f.elem_size, src, err);
  mark_element(d, f, h, ws, inst, index, err);
}

void array_set_value(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint32_t index, uint32_t value, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  if (f.kind == FieldKind::VarArray &&
      (!var_array_writable(d, f, h, ws, inst, err) || !var_array_reach(d, f, h, ws, inst, index, err)))
    return;
  void *at = array_get(d, f, h, ws, inst, index, err);
  if (!at) {
    if (!*err) store_err(h, err, 2);
    return;
  }
  prim_set_value(f.prim, h, ws, at, value, err);
  mark_element(d, f, h, ws, inst, index, err);
}

void array_set_mem(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                   const void *src, int32_t n, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err)) return;
  bool var = f.kind == FieldKind::VarArray;
  if (!count_ok(n, var ? UINT32_MAX : f.count, src, h, err)) return;
  // Nothing is copied into an instance that cannot record having been written.
  const bool on = tracking_on(h);
  if (on && !required_area(d, h, ws, inst, err)) return;
  uint32_t count = static_cast<uint32_t>(n);
  if (var) {
    // New storage is filled from src before the old is released (src may point into
    // it, "drop the first element"); its element states start at 0.
    if (!var_array_resize(h, ws, d, inst, f, count, err, static_cast<const uint8_t *>(src)))
      return;
  } else if (count) {
    size_t len = static_cast<size_t>(count) * f.elem_size;
    notify(h, ws, field_at(inst, f), static_cast<uint32_t>(len));
    std::memmove(field_at(inst, f), src, len);
  }
  if (!on) return;
  put_state(h, ws, elem_states_of(d, f, inst, sttr_area(h, ws, d, inst)).whole, 2);
}

void var_array_remove(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst) {
  if (!inst) return;
  Elems e = elems_of(d, f, inst);
  if (!e.data && !e.n) return;
  if (e.data) h->release(h->alloc_ctx, ws, e.data);
  store<uint8_t *>(h, ws, field_at(inst, f), nullptr);
  store<uint32_t>(h, ws, field_at(inst, count_field(d, f)), 0);
}

// ---- arrays of embedded records ----

void *record_array_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t, void *inst,
                       uint32_t index, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_read(d, f, h, inst, err)) return nullptr;
  if (index >= f.count) {
    store_err(h, err, 2);
    return nullptr;
  }
  return field_at(inst, f) + static_cast<size_t>(index) * f.elem_size;
}

void record_array_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                      void *inst, uint32_t index, void *src, uint32_t *err) {
  BIX_SLOT(err);
  if (!begin_write(d, f, h, ws, inst, err) || !src) return;
  if (index >= f.count) {
    store_err(h, err, 2);
    return;
  }
  record_set(*f.type, h, ws, field_at(inst, f) + static_cast<size_t>(index) * f.elem_size, src, err);
  if (!marking_area(d, h, ws, inst, err)) return;
  if (!is_tracked(src)) {  // the flag as set at the source's creation
    store_err(h, err, 22);
    trace(Tm::kValNotTracked);
    return;
  }
  mark_element(d, f, h, ws, inst, index, err);
}

// ---- whole and per-element state bytes of arrays ----

uint8_t elem_state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                       void *inst, uint32_t index, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_read(d, h, ws, inst, err);
  if (!area) return 0;
  ElemStates s = elem_states_of(d, f, inst, area);
  if (!s.elems || index >= s.n) {
    store_err(h, err, 2);
    return 0;
  }
  return s.elems[index];
}

void elem_state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws, void *inst,
                    uint32_t index, uint8_t value, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_write(d, h, ws, inst, err);
  if (!area) return;
  ElemStates s = elem_states_of(d, f, inst, area);
  if (!s.elems || index >= s.n) {
    store_err(h, err, 2);
    return;
  }
  adjust(d, h, ws, inst, err);
  if (*err || !variant_ok(f, h, inst, err)) return;
  put_state(h, ws, s.elems + index, value);
}

void elem_state_get_arr(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, uint8_t **out, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_read(d, h, ws, inst, err);
  if (!area) return;
  if (!out) {
    store_err(h, err, 22);
    return;
  }
  *out = elem_states_of(d, f, inst, area).elems;
}

void elem_state_set_arr(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, const uint8_t *src, uint32_t n, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_write(d, h, ws, inst, err);
  if (!area) return;
  ElemStates s = elem_states_of(d, f, inst, area);
  if (n != s.n || (n && !s.elems)) {
    store_err(h, err, 2);
    return;
  }
  if (n && !src) {
    store_err(h, err, 22);
    return;
  }
  adjust(d, h, ws, inst, err);
  if (*err || !variant_ok(f, h, inst, err) || !n) return;
  notify(h, ws, s.elems, n);
  std::memcpy(s.elems, src, n);
}

uint8_t whole_state_get(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                        void *inst, uint32_t *err) {
  BIX_SLOT(err);
  uint8_t *area = begin_state_read(d, h, ws, inst, err);
  return area ? area[f.sttr] : 0;
}

void whole_state_set(const TypeDesc &d, const FieldDesc &f, wex_handle *h, uint32_t ws,
                     void *inst, uint8_t value, uint32_t *err) {
  state_set(d, f, h, ws, inst, value, err);  // the whole byte is the field's own
}

}  // namespace bix
