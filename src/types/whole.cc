// Whole-record operations: every scalar at once (get_all, set_all), every state byte at
// once, compare and hash. One walker per operation over the field descriptors.
#include <cstring>

#include "bix/core.h"
#include "superfasthash.h"

namespace bix {
namespace {

using PrimHash = uint32_t (*)(const void *, uint32_t);
// Indexed by Prim.
constexpr PrimHash kPrimHash[] = {int8_hash,    u_int8_hash, int16_hash,
                                  u_int16_hash, int32_hash,  u_int32_hash};

// A primitive as stored, widened by its signedness.
int64_t prim_load(Prim p, const uint8_t *at) {
  switch (p) {
    case Prim::I8:
      return load<int8_t>(at);
    case Prim::U8:
      return load<uint8_t>(at);
    case Prim::I16:
      return load<int16_t>(at);
    case Prim::U16:
      return load<uint16_t>(at);
    case Prim::I32:
      return load<int32_t>(at);
    case Prim::U32:
      return load<uint32_t>(at);
  }
  return 0;
}

// Writes the low bytes of a value the codecs widened to u32, as the field's C type.
void prim_put(Prim p, void *out, uint32_t v) {
  switch (prim_size(p)) {
    case 1: {
      uint8_t b = static_cast<uint8_t>(v);
      std::memcpy(out, &b, 1);
      break;
    }
    case 2: {
      uint16_t w = static_cast<uint16_t>(v);
      std::memcpy(out, &w, 2);
      break;
    }
    default:
      std::memcpy(out, &v, 4);
  }
}

bool is_enum(const FieldDesc &f) {
  return f.kind == FieldKind::Enum || f.kind == FieldKind::Selector;
}

const uint8_t *elem(const uint8_t *b, const FieldDesc &f, uint32_t k) {
  return b + f.offset + static_cast<size_t>(k) * f.elem_size;
}
uint8_t *elem(uint8_t *b, const FieldDesc &f, uint32_t k) {
  return b + f.offset + static_cast<size_t>(k) * f.elem_size;
}
uint32_t count_of(const TypeDesc &d, const FieldDesc &var, const uint8_t *b) {
  return load<uint32_t>(b + d.fields[var.link].offset);
}
uint32_t selector_of(const TypeDesc &d, const FieldDesc &alt, const uint8_t *b) {
  return load<uint32_t>(b + d.fields[alt.link].offset + kEnumValueOffset);
}

// ---- state bytes ----

// Fills runs of state bytes with one value, each contiguous run announced once.
class StateFill {
 public:
  StateFill(wex_handle *h, uint32_t ws, uint8_t value) : h_(h), ws_(ws), value_(value) {}
  ~StateFill() { flush(); }
  void add(uint8_t *at, uint32_t n) {
    if (!n) return;
    if (at != end_) flush(), begin_ = at;
    end_ = at + n;
  }
  void flush() {
    if (begin_ != end_) {
      notify(h_, ws_, begin_, static_cast<uint32_t>(end_ - begin_));
      std::memset(begin_, value_, static_cast<size_t>(end_ - begin_));
    }
    begin_ = end_ = nullptr;
  }

 private:
  wex_handle *h_;
  uint32_t ws_;
  uint8_t value_;
  uint8_t *begin_ = nullptr, *end_ = nullptr;
};

// Every area is found the one way the accessors find it; an instance without a locatable
// area (never placed, untracked) has nothing to set.
void fill_states(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *inst, StateFill &out) {
  uint8_t *area = sttr_area(h, ws, d, inst);
  if (!area) return;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    switch (f.kind) {
      case FieldKind::Count:
        break;  // owns no state byte
      case FieldKind::Record:
        out.add(area + f.sttr, 1);
        fill_states(*f.type, h, ws, inst + f.offset, out);
        break;
      case FieldKind::RecordArray:
        out.add(area + f.sttr, 1);
        out.add(area + f.sttr_elems, f.count);
        for (uint32_t k = 0; k < f.count; ++k) fill_states(*f.type, h, ws, elem(inst, f, k), out);
        break;
      case FieldKind::FixedArray:
        out.add(area + f.sttr, 1);
        out.add(area + f.sttr_elems, f.count);
        break;
      case FieldKind::VarArray:
        // The buffer's address in the area stays as it is; the buffer holds one byte per
        // element of the current count.
        out.add(area + f.sttr, 1);
        if (uint8_t *states = load<uint8_t *>(area + f.sttr_ptr))
          out.add(states, count_of(d, f, inst));
        break;
      default:
        out.add(area + f.sttr, 1);
        break;
    }
  }
}

// ---- compare ----

template <typename T>
int32_t three_way(T a, T b) {
  return a > b ? 1 : a < b ? -1 : 0;
}

int32_t compare_fields(const TypeDesc &d, const uint8_t *a, const uint8_t *b);

// A record referred to by pointer: null first, another type as null.
int32_t compare_refs(const TypeDesc &d, const void *a, const void *b) {
  if (foreign_instance(d, a)) a = nullptr;
  if (foreign_instance(d, b)) b = nullptr;
  if (!a || !b) return a ? 1 : b ? -1 : 0;
  return compare_fields(d, bytes(a), bytes(b));
}

int32_t compare_field(const TypeDesc &d, const FieldDesc &f, const uint8_t *a, const uint8_t *b) {
  const uint8_t *fa = a + f.offset, *fb = b + f.offset;
  switch (f.kind) {
    case FieldKind::Prim:
    case FieldKind::Count:
      return three_way(prim_load(f.prim, fa), prim_load(f.prim, fb));
    case FieldKind::Enum:
    case FieldKind::Selector:
      return enum_compare(fa, fb);
    case FieldKind::Flags:
      return flags_compare(*f.type, fa, fb);
    case FieldKind::FixedArray:
      return std::memcmp(fa, fb, static_cast<size_t>(f.count) * f.elem_size);
    case FieldKind::Record:
      return compare_fields(*f.type, fa, fb);
    case FieldKind::RecordArray:
      for (uint32_t k = 0; k < f.count; ++k)
        if (int32_t r = compare_fields(*f.type, elem(a, f, k), elem(b, f, k))) return r;
      return 0;
    case FieldKind::VarArray: {
      // The counts were compared in their place; compared again so storage is never read
      // past the shorter one.
      const uint32_t na = count_of(d, f, a), nb = count_of(d, f, b);
      if (na != nb) return three_way(na, nb);
      if (!na) return 0;
      const void *pa = load<const void *>(fa), *pb = load<const void *>(fb);
      if (!pa || !pb) return pa ? 1 : pb ? -1 : 0;
      return std::memcmp(pa, pb, static_cast<size_t>(na) * f.elem_size);
    }
    case FieldKind::UnionAlt:
      // Only the alternative both selectors name (they are equal by now); a selector
      // outside the alternatives names none.
      if (selector_of(d, f, a) != f.count || selector_of(d, f, b) != f.count) return 0;
      return compare_refs(*f.type, load<const void *>(fa), load<const void *>(fb));
  }
  return 0;
}

bool is_reference(const FieldDesc &f) {
  return f.kind == FieldKind::VarArray || f.kind == FieldKind::UnionAlt;
}

// Whether the two instances hold the same bytes everywhere after the header but in their
// references. Then every field held in place compares equal under its own rule, and only
// what the references reach is left to compare (the common case of equal instances costs a
// few memcmp calls instead of a visit per field). Any other difference, padding or a
// member's header included, takes the field-by-field walk, which finds the first one.
bool same_in_place(const TypeDesc &d, const uint8_t *a, const uint8_t *b) {
  uint32_t at = kHdrSize;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (!is_reference(f)) continue;
    if (std::memcmp(a + at, b + at, f.offset - at)) return false;
    at = f.offset + sizeof(void *);
  }
  return !std::memcmp(a + at, b + at, d.fixed_size - at);
}

int32_t compare_fields(const TypeDesc &d, const uint8_t *a, const uint8_t *b) {
  const bool only_references = same_in_place(d, a, b);
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (only_references && !is_reference(f)) continue;
    if (int32_t r = compare_field(d, f, a, b)) return r;
  }
  return 0;
}

// ---- hash ----

uint32_t hash_fields(const TypeDesc &d, const uint8_t *b, uint32_t h);

uint32_t hash_field(const TypeDesc &d, const FieldDesc &f, const uint8_t *b, uint32_t h) {
  const uint8_t *at = b + f.offset;
  switch (f.kind) {
    case FieldKind::Prim:
    case FieldKind::Count:
      return kPrimHash[static_cast<size_t>(f.prim)](at, h);
    case FieldKind::Enum:
    case FieldKind::Selector:
      return enum_hash(at, h);
    case FieldKind::Flags:
      return flags_hash(*f.type, at, h);
    case FieldKind::FixedArray:
      return SuperFastHash(at, f.count * f.elem_size, h);
    case FieldKind::Record:
      return hash_fields(*f.type, at, h);
    case FieldKind::RecordArray:
      for (uint32_t k = 0; k < f.count; ++k) h = hash_fields(*f.type, elem(b, f, k), h);
      return h;
    case FieldKind::VarArray: {
      // The count once more, as the array's length, then its bytes (none without storage).
      const FieldDesc &count = d.fields[f.link];
      h = kPrimHash[static_cast<size_t>(count.prim)](b + count.offset, h);
      const void *data = load<const void *>(at);
      const uint64_t n = data ? static_cast<uint64_t>(count_of(d, f, b)) * f.elem_size : 0;
      return SuperFastHash(data, static_cast<uint32_t>(n), h);
    }
    case FieldKind::UnionAlt: {
      // The selector again at every position, and every alternative present, selected or not.
      h = SuperFastHash(b + d.fields[f.link].offset + kEnumValueOffset, 4, h);
      return record_hash(*f.type, load<const void *>(at), h);
    }
  }
  return h;
}

uint32_t hash_fields(const TypeDesc &d, const uint8_t *b, uint32_t h) {
  for (uint16_t i = 0; i < d.nfields; ++i) h = hash_field(d, d.fields[i], b, h);
  return h;
}

}  // namespace

void record_get_all(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst,
                    void *const *out, uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err) return;
  wex_clear_last_error(h);
  if (foreign_instance(d, inst)) {
    store_err(h, err, 22);
    return;
  }
  if (wex_get_instance_variant(inst, 1, 0) < 0) return;
  const uint8_t *b = bytes(inst);
  size_t k = 0;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (!f.in_get_all) continue;
    void *o = out[k++];
    uint32_t v = 0;
    if (is_enum(f)) {
      wex_clear_last_error(h);
      if (!*err && b) v = load<uint32_t>(b + f.offset + kEnumValueOffset);
      if (o) std::memcpy(o, &v, 4);
      continue;
    }
    void *field = b ? const_cast<uint8_t *>(b) + f.offset : nullptr;
    if (prim_get(f.prim, h, ws, field, err) == field && field)
      v = prim_get_value(f.prim, h, ws, field, err);
    if (o) prim_put(f.prim, o, v);
  }
}

void record_set_all(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, const uint32_t *in,
                    uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err) return;
  wex_clear_last_error(h);
  wexlib_adjust_variant(h, ws, inst, inst ? wex_get_manifested_type_info(inst) : nullptr,
                        d.latest_variant, err);
  if (*err) return;
  if (!is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return;
  }
  if (wex_get_instance_variant(inst, 1, 0) < 0) return;
  uint8_t *b = bytes(inst);
  size_t k = 0;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (!f.in_set_all) continue;
    const uint32_t v = in[k++];
    // An enumeration after a refusal is left alone; the runtime's primitive setters are
    // called whatever the slot holds (they store regardless).
    if (is_enum(f)) {
      if (!*err) enum_set_value(*f.type, h, ws, b + f.offset, v, err);
    } else {
      prim_set_value(f.prim, h, ws, b + f.offset, v, err);
    }
  }
}

void record_set_all_sttr_flag(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                              uint32_t value) {
  if (!tracking_on(h) || !inst) return;
  if (!is_instance_of(d, inst)) {
    wex_store_err(h, 22);
    return;
  }
  StateFill fill(h, ws, static_cast<uint8_t>(value));
  fill_states(d, h, ws, bytes(inst), fill);
}

int32_t record_compare(const TypeDesc &d, const void *a, const void *b) {
  return compare_refs(d, a, b);
}

uint32_t record_hash(const TypeDesc &d, const void *inst, uint32_t seed) {
  if (!inst || foreign_instance(d, inst)) return seed;
  return hash_fields(d, bytes(inst), seed);
}

}  // namespace bix
