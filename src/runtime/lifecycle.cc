// Create, initialise and destroy for records, enumerations and flag sets: one body per
// step, driven by the type's descriptor.
#include <cstring>

#include "bix/core.h"

BIX_EXPORT void bix_ipc_shim_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err);

// Optional in a runtime: tells whether its offset store ran out of memory.
#pragma weak wex_get_last_error

namespace bix {

bool tracking_on(wex_handle *h) {
  const wex_sttr_profile *p = h->sttr_profile;
  if (!p) return false;
  if (p->tracking_mode == WEX_STTR_ON) return true;
  if (p->tracking_mode == WEX_STTR_OFF) return false;
  fatal(Tm::kCorruptedHandle);
}

bool is_instance_of(const TypeDesc &d, const void *inst) {
  const wex_type_info *t = wex_get_manifested_type_info(inst);
  if (t == d.tinfo) return t != nullptr;
  return t && t->magic == WEX_TYPE_INFO_MAGIC &&
         std::memcmp(t->luid, d.tinfo->luid, sizeof t->luid) == 0;
}

bool foreign_instance(const TypeDesc &d, const void *inst) {
  return wex_get_manifested_type_info(inst) && !is_instance_of(d, inst);
}

wex_type_info *checked_tinfo(const void *inst) {
  wex_type_info *t = wex_get_manifested_type_info(const_cast<void *>(inst));
  if (!t || t->magic != WEX_TYPE_INFO_MAGIC) fatal(Tm::kTinfoCorrupted);
  return t;
}

wex_variant_info *checked_varinfo(const wex_type_info *t) {
  if (!t->variant_info) fatal(Tm::kVarinfoNull);
  return t->variant_info;
}

// Instances of a negative variant (a domain that does not admit the type) are not
// counted: there is no entry for them, and nothing outside the table may be touched.
wex_variant_entry *variant_entry(const TypeDesc &d, wex_variant_info *vi, int8_t v) {
  if (vi->count < v) trace_u(Tm::kVariantRange, static_cast<uint32_t>(v), static_cast<uint32_t>(vi->count));
  int cap = variant_cap(d, v);
  if (cap >= vi->count) cap = vi->count - 1;  // a registered copy may carry a shorter table
  if (cap < 0 || !vi->entries) return nullptr;
  return &vi->entries[cap];
}

void bump_counter(const wex_type_info *t, uint64_t *counter) {
  if (t->indirect)
    ++*counter;
  else
    __atomic_fetch_add(counter, 1, __ATOMIC_SEQ_CST);
}

namespace {

// An area at `off` from an instance of d must not overlap the instance's fixed part.
// Offsets are read signed, so an area placed below the instance is reachable too.
bool area_offset_ok(const TypeDesc &d, int64_t off) {
  return off <= -static_cast<int64_t>(d.sttr_size) || off >= static_cast<int64_t>(d.fixed_size);
}

uint8_t *at_offset(void *inst, int64_t off) {
  return reinterpret_cast<uint8_t *>(reinterpret_cast<uintptr_t>(inst) + static_cast<uintptr_t>(off));
}

}  // namespace

uint8_t *sttr_area(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst) {
  uint8_t *b = bytes(inst);
  const uint8_t flags = b[kHdrFlags];
  if (!(flags & kFlagTracked)) return nullptr;
  if (flags & kFlagSttrOffset) {
    // An offset over the instance itself is no area at all (e.g. a runtime that does not
    // know the instance answers 0).
    const int64_t off = static_cast<int32_t>(wexlib_get_sttr_offset(h, ws, inst));
    return area_offset_ok(d, off) ? at_offset(inst, off) : nullptr;
  }
  // A member whose parent never placed its area: right after its fixed part lie the
  // parent's next fields, so it has none.
  if (flags & kFlagNested) return nullptr;
  return b + d.fixed_size;
}

int8_t variant_cap(const TypeDesc &d, int8_t v) { return v > d.latest_variant ? d.latest_variant : v; }

uint32_t instance_sizeof(const TypeDesc &d, wex_handle *h) {
  if (d.kind != TypeKind::Record) return d.fixed_size;
  return d.fixed_size + (tracking_on(h) ? d.sttr_size : 0);
}

bool place_sttr_area(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint8_t *area,
                     uint32_t *err) {
  const int64_t off = static_cast<int64_t>(reinterpret_cast<uintptr_t>(area) -
                                           reinterpret_cast<uintptr_t>(inst));
  if (off < INT32_MIN || off > INT32_MAX || !area_offset_ok(d, off)) {
    store_err(h, err, 22);
    return false;
  }
  const uint32_t word = static_cast<uint32_t>(static_cast<int32_t>(off));
  wex_clear_last_error(h);
  wexlib_update_sttr_offset(h, ws, inst, word);
  // The runtime may not have taken it (out of memory, or a handle without offset store):
  // an instance that does not carry 0x40 would take the bytes after its fixed part, i.e.
  // its parent's next fields, as its area.
  if ((hdr_flags(inst) & kFlagSttrOffset) && wexlib_get_sttr_offset(h, ws, inst) == word) return true;
  store_err(h, err, wex_get_last_error && wex_get_last_error(h) == 12 ? 12 : 22);
  return false;
}

namespace {

bool is_leaf(const TypeDesc &d) { return d.kind == TypeKind::Enum || d.kind == TypeKind::Flags; }

// Visits every instance embedded in a record (enumeration, flag-set and record fields,
// record-array elements) in declaration order.
template <typename Fn>
void for_each_embedded(const TypeDesc &d, void *inst, Fn &&fn) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    switch (f.kind) {
      case FieldKind::Enum:
      case FieldKind::Selector:
      case FieldKind::Flags:
      case FieldKind::Record: fn(f, *f.type, bytes(inst) + f.offset); break;
      case FieldKind::RecordArray:
        for (uint32_t k = 0; k < f.count; ++k) fn(f, *f.type, bytes(inst) + f.offset + k * f.elem_size);
        break;
      default: break;
    }
  }
}

// Header stores shared by every kind: variant bytes, type pointer, flags.
void write_header(const TypeDesc &d, wex_handle *h, uint32_t ws, void *mem, wex_type_info *rec,
                  bool notify_on, int8_t v, uint8_t flags) {
  uint8_t *b = bytes(mem);
  if (notify_on) notify(h, ws, b + kHdrInitVariant, 1);
  b[kHdrInitVariant] = static_cast<uint8_t>(v);
  if (notify_on) notify(h, ws, b + kHdrVariant, 1);
  b[kHdrVariant] = static_cast<uint8_t>(v);
  void **slot = reinterpret_cast<void **>(wex_get_manifested_type_info_ptr_mem(mem));
  if (notify_on) notify(h, ws, slot, 8);
  wex_type_info *t =
      h->types_indirect ? wex_type_info_ptr_get(h, ws, rec, bix_ipc_shim_typeinfo_initialize) : rec;
  *slot = t;
  if (notify_on) notify(h, ws, b + kHdrFlags, 1);
  b[kHdrFlags] |= flags;
  (void)d;
}

void leaf_initialize(const TypeDesc &d, wex_handle *h, uint32_t ws, void *mem, wex_type_info *rec,
                     uint32_t notify_on, uint8_t flags, uint32_t *err) {
  int8_t v = wex_domain_lookup_variant(h, &h->domain, rec, err);
  write_header(d, h, ws, mem, rec, notify_on != 0, v, flags);
}

void record_initialize(const TypeDesc &d, wex_handle *h, uint32_t ws, void *mem,
                       wex_type_info *rec, uint32_t notify_on, uint32_t skip_stats,
                       uint8_t flags, void *sttr_base, uint32_t *err) {
  if (*err) return;
  wex_clear_last_error(h);
  int8_t v = variant_cap(d, wex_domain_lookup_variant(h, &h->domain, rec, err));
  write_header(d, h, ws, mem, rec, notify_on != 0, v, flags);
  uint8_t *b = bytes(mem);
  if (tracking_on(h)) {
    if (notify_on) notify(h, ws, b + kHdrFlags, 1);
    b[kHdrFlags] |= kFlagTracked;
  }

  void *child_base = sttr_base;
  if (!skip_stats) {
    wex_type_info *t = wex_get_manifested_type_info(mem);
    wex_variant_entry *e = variant_entry(d, checked_varinfo(t), hdr_variant(mem));
    wexlib_type_stats_create_object(h, ws, t, e ? &e->created : nullptr, err);
    if (tracking_on(h)) {
      bool nested = b[kHdrFlags] & kFlagNested;
      if (nested && !sttr_base) {
        store_err(h, err, 22);
        trace(Tm::kSttrBaseNull);
        return;
      }
      uint8_t *area = nullptr;
      if (b[kHdrFlags] & kFlagSttrOffset) {
        if (!(area = sttr_area(h, ws, d, mem))) {  // placed over itself: unusable
          store_err(h, err, 22);
          return;
        }
      } else if (nested) {
        (void)wexlib_get_sttr_offset(h, ws, mem);  // asked, but a plain nested member places nothing
      } else if (sttr_base) {
        // A top-level instance whose area the caller keeps elsewhere (often only the
        // fixed part is allocated): the runtime remembers it, so that every later
        // access finds the area there and never past the fixed part.
        area = static_cast<uint8_t *>(sttr_base);
        if (!place_sttr_area(d, h, ws, mem, area, err)) return;
      } else {
        area = b + d.fixed_size;
      }
      if (area && d.has_embedded && !record_offset_update(d, h, ws, mem, area, err)) return;
      if (!sttr_base) child_base = b + d.fixed_size;
    }
  }
  for_each_embedded(d, mem, [&](const FieldDesc &, const TypeDesc &md, uint8_t *member) {
    instance_initialize(md, h, ws, member, md.tinfo, notify_on, skip_stats, kFlagNested, child_base,
                        err);
  });
}

void record_destroy_internal(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                             uint32_t free_it) {
  uint8_t *b = bytes(inst);
  // Nothing of an instance is touched before its type info record is known good, and an
  // instance of another type (a cast in the caller) is left alone: tearing it down with
  // this type's layout would free what its fields happen to hold.
  checked_tinfo(inst);
  if (!is_instance_of(d, inst)) {
    wex_store_err(h, 22);
    return;
  }
  if (b[kHdrFlags] & kFlagOidMapped) {
    uint32_t local = 0;
    uint32_t removed = wex_request_oid_mapping_destroy(h, ws, inst, &local);
    if (local) {
      trace(Tm::kOidRemoveFailed, d.name, std::strerror(static_cast<int>(local)));
      wex_store_err(h, local);
      return;
    }
    if (!removed) {
      trace(Tm::kOidReferenced, d.name);
      return;
    }
    trace(Tm::kOidRemoved, d.name);
  }
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    switch (f.kind) {
      case FieldKind::Record: instance_destroy_internal(*f.type, h, ws, b + f.offset, 0); break;
      case FieldKind::RecordArray:
        for (uint32_t k = 0; k < f.count; ++k)
          instance_destroy_internal(*f.type, h, ws, b + f.offset + k * f.elem_size, 0);
        break;
      case FieldKind::VarArray: {
        uint32_t local = 0;  // releasing cannot fail
        var_array_resize(h, ws, d, inst, f, 0, &local);
        break;
      }
      case FieldKind::UnionAlt: {
        void *alt = nullptr;
        std::memcpy(&alt, b + f.offset, sizeof alt);
        if (alt) {
          instance_destroy_internal(*f.type, h, ws, alt, 1);
          notify(h, ws, b + f.offset, 8);
          std::memset(b + f.offset, 0, 8);
        }
        break;
      }
      default: break;
    }
  }
  if ((b[kHdrFlags] & kFlagTracked) && (b[kHdrFlags] & kFlagSttrOffset))
    (void)wexlib_get_sttr_offset(h, ws, inst);
  wex_type_info *t = checked_tinfo(inst);
  wex_variant_entry *e = variant_entry(d, checked_varinfo(t), hdr_variant(inst));
  uint32_t local = 0;
  wexlib_type_stats_destroy_object(h, ws, t, e ? &e->created : nullptr, &local);
  if ((b[kHdrFlags] & (kFlagSttrOffset | kFlagHandleData)) && h->hd_mapping) {
    uint32_t code = 0;
    wex_hd_mapping_destroy(h, ws, inst, &code);
    if (code) {
      trace(Tm::kOidRemoveFailed, d.name, std::strerror(static_cast<int>(code)));
      wex_store_err(h, code);
      return;
    }
  }
  if (!free_it) return;
  void *block = nullptr;
  std::memcpy(&block, b, sizeof block);
  if ((b[kHdrFlags] & kFlagOwnsTypeBlock) && block) h->release(h->alloc_ctx, ws, block);
  notify(h, ws, b, 8);
  std::memset(b, 0, 8);
  h->release(h->alloc_ctx, ws, inst);
}

void leaf_count(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst, bool destroyed) {
  wex_type_info *t = destroyed ? checked_tinfo(inst) : wex_get_manifested_type_info(inst);
  wex_variant_entry *e = variant_entry(d, checked_varinfo(t), hdr_variant(inst));
  if (!e) return;
  uint64_t *counter = destroyed ? &e->destroyed : &e->created;
  h->notify_count(h->alloc_ctx, counter, 1, ws);
  bump_counter(t, counter);
}

}  // namespace

void instance_initialize(const TypeDesc &d, wex_handle *h, uint32_t ws, void *mem,
                         wex_type_info *tinfo, uint32_t notify_on, uint32_t skip_stats,
                         uint8_t flags, void *sttr_base, uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (is_leaf(d))
    leaf_initialize(d, h, ws, mem, tinfo, notify_on, flags, err);
  else
    record_initialize(d, h, ws, mem, tinfo, notify_on, skip_stats, flags, sttr_base, err);
}

void *instance_create_internal(const TypeDesc &d, wex_handle *h, uint32_t ws) {
  if (h->cr_create && h->error) return d.null_instance;
  uint32_t size = instance_sizeof(d, h);
  void *mem = h->allocate(h->alloc_ctx, ws, size);
  if (!mem) {
    if (!h->cr_create) return nullptr;
    if (!h->error) wex_store_err(h, 12);
    return d.null_instance;
  }
  std::memset(mem, 0, instance_sizeof(d, h));
  uint32_t local = 0;
  if (is_leaf(d)) {
    int8_t v = wex_domain_lookup_variant(h, &h->domain, d.tinfo, &local);
    write_header(d, h, ws, mem, d.tinfo, true, v, 0);
    if (local) trace(Tm::kEnumCreateError, d.name, std::strerror(static_cast<int>(local)));
    leaf_count(h, ws, d, mem, false);
    return mem;
  }
  record_initialize(d, h, ws, mem, d.tinfo, 1, 0, 0, nullptr, &local);
  if (local) {
    trace(Tm::kRecordCreateError, d.name, std::strerror(static_cast<int>(local)));
    h->release(h->alloc_ctx, ws, mem);
    return nullptr;
  }
  return mem;
}

void *instance_create(const TypeDesc &d, wex_handle *h, uint32_t ws) {
  if (!is_leaf(d)) ensure_trace_module();
  return instance_create_internal(d, h, ws);
}

void *instance_create_cr(const TypeDesc &d, wex_handle *h) {
  if (!is_leaf(d)) ensure_trace_module();
  h->cr_create = 1;
  void *inst = instance_create_internal(d, h, h->default_ws);
  h->cr_create = 0;
  return inst;
}

void instance_destroy(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst) {
  if (inst == d.null_instance) return;
  instance_destroy_internal(d, h, ws, inst, 1);
}

void instance_destroy_internal(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                               uint32_t free_it) {
  if (!inst || inst == d.null_instance) return;
  if (!is_leaf(d)) return record_destroy_internal(d, h, ws, inst, free_it);
  if (!free_it) return;
  checked_tinfo(inst);
  if (!is_instance_of(d, inst)) {
    wex_store_err(h, 22);
    return;
  }
  leaf_count(h, ws, d, inst, true);
  std::memset(inst, 0, 8);
  h->release(h->alloc_ctx, ws, inst);
}

void instance_set_embedded(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst) {
  if (!inst) {
    trace(is_leaf(d) ? Tm::kSetEmbeddedNullEnum : Tm::kSetEmbeddedNull);
    return;
  }
  if (inst == d.null_instance) return;  // shared by every caller: never written
  if (!is_instance_of(d, inst)) {
    trace(is_leaf(d) ? Tm::kSetEmbeddedNullEnum : Tm::kSetEmbeddedNull);
    return;
  }
  auto mark = [&](uint8_t *b) {
    notify(h, ws, b + kHdrFlags, 1);
    b[kHdrFlags] |= kFlagEmbedded;
  };
  if (!is_leaf(d))
    for_each_embedded(d, inst, [&](const FieldDesc &, const TypeDesc &, uint8_t *m) { mark(m); });
  mark(bytes(inst));
}

bool record_offset_update(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                          uint8_t *sttr_base, uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (!inst || !sttr_base) return true;
  auto place = [&](const TypeDesc &md, uint8_t *member, uint32_t k) {
    return place_sttr_area(md, h, ws, member, sttr_base + k, err) &&
           (!md.has_embedded || record_offset_update(md, h, ws, member, sttr_base + k, err));
  };
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    uint8_t *at = bytes(inst) + f.offset;
    if (f.kind == FieldKind::Record && !place(*f.type, at, f.sttr_elems)) return false;
    if (f.kind == FieldKind::RecordArray)
      for (uint32_t k = 0; k < f.count; ++k)
        if (!place(*f.type, at + k * f.elem_size, f.sttr_areas + k * f.type->sttr_size)) return false;
  }
  return true;
}

uint32_t record_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t n) {
  int8_t v = wex_domain_lookup_variant(h, &h->domain, d.tinfo, &h->error);
  return (v <= 0 && n > 1) ? 0 : 1;
}

uint32_t enum_to_internal(const TypeDesc &d, uint32_t user) {
  return (d.shifted && user >= 1 && user <= d.nliterals) ? user - 1 : user;
}

namespace {
// Literals a variant knows: those introduced at or before it.
int32_t literals_known_at(const TypeDesc &d, int w) {
  int32_t n = 0;
  for (uint16_t i = 0; i < d.nliterals; ++i) n += d.literals[i].since <= w;
  return n;
}
}  // namespace

bool enum_refuses(const TypeDesc &d, uint32_t user_value, int8_t variant) {
  uint32_t internal = enum_to_internal(d, user_value);
  for (int w = 0; w <= d.latest_variant; ++w)
    if (internal >= static_cast<uint32_t>(literals_known_at(d, w)) && variant <= w) return true;
  return false;
}

uint32_t enum_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t value) {
  int32_t internal = static_cast<int32_t>(enum_to_internal(d, value));
  int8_t v = wex_domain_lookup_variant(h, &h->domain, d.tinfo, &h->error);
  // Each variant w up to the latest refuses values beyond its literals unless the
  // domain speaks a newer variant; signed on purpose, so negative values pass.
  for (int w = 0; w <= d.latest_variant; ++w)
    if (internal >= literals_known_at(d, w) && v <= w) return 0;
  return 1;
}

uint32_t flags_is_valid_cr(const TypeDesc &d, wex_handle *h, uint32_t flag) {
  int8_t v = wex_domain_lookup_variant(h, &h->domain, d.tinfo, &h->error);
  return (flag >= d.nliterals && v <= 0) ? 0 : 1;
}

}  // namespace bix
