// Whole-record set and variable-array storage: the operations that move memory a
// record owns outside its fixed part (union alternatives, variable-array storage and
// its element-state buffer) between instances.
#include <algorithm>
#include <cstring>

#include "bix/core.h"

namespace bix {
namespace {


// Calls fn(member type, dst member, src member) for every embedded record (record fields
// and record-array elements) of a pair of instances of d.
template <typename Fn>
void for_each_member_record(const TypeDesc &d, uint8_t *dst, uint8_t *src, Fn &&fn) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind == FieldKind::Record) fn(*f.type, dst + f.offset, src + f.offset);
    if (f.kind == FieldKind::RecordArray)
      for (uint32_t k = 0; k < f.count; ++k)
        fn(*f.type, dst + f.offset + k * f.elem_size, src + f.offset + k * f.elem_size);
  }
}

uint8_t *states_slot(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst, const FieldDesc &f) {
  uint8_t *area = sttr_area(h, ws, d, inst);
  return area ? area + f.sttr_ptr : nullptr;
}

// Before the copy: the destination's variable storage is about to be overwritten by the
// source's; nobody else owns it, so it goes back to the allocator.
void release_storage(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *dst, uint8_t *src) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind != FieldKind::VarArray) continue;
    void *mine = load<void *>(dst + f.offset);
    if (mine && mine != load<void *>(src + f.offset)) h->release(h->alloc_ctx, ws, mine);
    uint8_t *dslot = states_slot(h, ws, d, dst, f), *sslot = states_slot(h, ws, d, src, f);
    void *my_states = dslot ? load<void *>(dslot) : nullptr;
    if (my_states && my_states != (sslot ? load<void *>(sslot) : nullptr))
      h->release(h->alloc_ctx, ws, my_states);
  }
  for_each_member_record(d, dst, src, [&](const TypeDesc &md, uint8_t *dm, uint8_t *sm) {
    release_storage(md, h, ws, dm, sm);
  });
}

// Copies the fixed part, level by level. Every instance in the tree (the record and each
// embedded record) keeps its flag byte: the flags describe the instance at its address
// (allocated with a state area or not, where that area is, nesting, runtime mappings,
// an owned type block), not its content. Announced by the caller.
void copy_fixed(const TypeDesc &d, uint8_t *dst, const uint8_t *src) {
  uint8_t keep = dst[kHdrFlags];
  bool keep_type = (dst[kHdrFlags] | src[kHdrFlags]) & kFlagOwnsTypeBlock;
  uint8_t type_word[8];
  std::memcpy(type_word, dst, sizeof type_word);
  uint32_t at = 0;
  auto copy_to = [&](uint32_t end) {
    std::memcpy(dst + at, src + at, end - at);
    at = end;
  };
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind == FieldKind::Record) {
      copy_to(f.offset);
      copy_fixed(*f.type, dst + f.offset, src + f.offset);
      at = f.offset + f.type->fixed_size;
    } else if (f.kind == FieldKind::RecordArray) {
      copy_to(f.offset);
      for (uint32_t k = 0; k < f.count; ++k)
        copy_fixed(*f.type, dst + f.offset + k * f.elem_size, src + f.offset + k * f.elem_size);
      at = f.offset + f.count * f.elem_size;
    }
  }
  copy_to(d.fixed_size);
  dst[kHdrFlags] = keep;
  if (keep_type) std::memcpy(dst, type_word, sizeof type_word);  // an owned block stays with its owner
}

// After the copy: the source gives up what the destination now holds. An element-state
// buffer follows its elements when both sides are tracked; an untracked source's
// elements start unwritten in a tracked destination.
void take_over(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *dst, uint8_t *src,
               bool area_copied, uint32_t *err) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind == FieldKind::UnionAlt && load<void *>(src + f.offset)) {
      store<void *>(h, ws, src + f.offset, nullptr);
    } else if (f.kind == FieldKind::VarArray) {
      uint8_t *src_count = src + d.fields[f.link].offset;
      if (load<void *>(src + f.offset)) store<void *>(h, ws, src + f.offset, nullptr);
      if (load<uint32_t>(src_count)) store<uint32_t>(h, ws, src_count, 0);
      uint8_t *sslot = states_slot(h, ws, d, src, f);
      void *states = sslot ? load<void *>(sslot) : nullptr;
      if (!area_copied) {  // else the destination received the pointer with the area
        if (uint8_t *dslot = states_slot(h, ws, d, dst, f)) {
          uint32_t n = load<uint32_t>(dst + d.fields[f.link].offset);
          if (!states && n) {
            states = h->allocate(h->alloc_ctx, ws, n);
            if (states)
              std::memset(states, 0, n);
            else
              store_err(h, err, 12);  // element states unavailable until the next resize
          }
          store(h, ws, dslot, states);
        } else if (states) {
          h->release(h->alloc_ctx, ws, states);
        }
      }
      if (sslot && load<void *>(sslot)) store<void *>(h, ws, sslot, nullptr);
    }
  }
  for_each_member_record(d, dst, src, [&](const TypeDesc &md, uint8_t *dm, uint8_t *sm) {
    take_over(md, h, ws, dm, sm, area_copied, err);
  });
}

}  // namespace

void record_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, void *src,
                uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  wexlib_adjust_variant(h, ws, dst, dst ? wex_get_manifested_type_info(dst) : nullptr,
                        d.latest_variant, err);
  if (dst == src) return;
  // Both must be instances of d: null instances (and members of one) are shared and
  // never written nor given up, and an instance of another type has another layout.
  if (!is_instance_of(d, dst) || !is_instance_of(d, src)) {
    store_err(h, err, 22);
    return;
  }
  bool on = tracking_on(h);
  // Decided on the destination's flags as allocated, before the copy touches them.
  uint8_t *dst_area = sttr_area(h, ws, d, dst), *src_area = sttr_area(h, ws, d, src);
  bool dst_tracked = dst_area != nullptr, area_copied = on && dst_tracked && src_area;
  uint8_t *d8 = bytes(dst), *s8 = bytes(src);
  // The area stays where it is; its embedded records are told again where theirs are,
  // before anything changes, so a refusal leaves both instances as they were.
  if (area_copied && d.has_embedded && !record_offset_update(d, h, ws, dst, dst_area, err)) return;
  release_storage(d, h, ws, d8, s8);
  notify(h, ws, dst, d.fixed_size);
  copy_fixed(d, d8, s8);
  if (on && !dst_tracked) {
    store_err(h, err, 22);
    trace(Tm::kNotTracked);
  } else if (area_copied) {
    notify(h, ws, dst_area, d.sttr_size);
    std::memcpy(dst_area, src_area, d.sttr_size);
  }
  take_over(d, h, ws, d8, s8, area_copied, err);
}

bool var_array_resize(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst,
                      const FieldDesc &f, uint32_t count, uint32_t *err, const uint8_t *content) {
  uint32_t local = 0;
  if (!err) err = &local;
  uint8_t *b = bytes(inst);
  uint8_t *count_at = b + d.fields[f.link].offset;
  uint8_t *old = load<uint8_t *>(b + f.offset);
  uint32_t old_n = load<uint32_t>(count_at);
  uint8_t *slot = states_slot(h, ws, d, inst, f);
  uint8_t *old_states = slot ? load<uint8_t *>(slot) : nullptr;

  // Everything is allocated before anything changes, so a failure leaves the array as it was.
  uint8_t *data = nullptr, *states = nullptr;
  if (count) {
    uint64_t len = static_cast<uint64_t>(count) * f.elem_size;
    if (len > UINT32_MAX ||
        !(data = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, ws, static_cast<uint32_t>(len))))) {
      store_err(h, err, 12);
      return false;
    }
    if (slot && !(states = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, ws, count)))) {
      h->release(h->alloc_ctx, ws, data);
      store_err(h, err, 12);
      return false;
    }
    uint32_t keep = content ? 0 : std::min(old_n, count);
    if (content) {
      std::memcpy(data, content, len);
    } else {
      std::memset(data, 0, len);
      if (old) std::memcpy(data, old, static_cast<size_t>(keep) * f.elem_size);
    }
    if (states) {
      std::memset(states, 0, count);
      if (old_states) std::memcpy(states, old_states, keep);
    }
  }
  if (old) h->release(h->alloc_ctx, ws, old);
  store(h, ws, b + f.offset, data);
  store(h, ws, count_at, count);
  if (slot) {
    if (old_states) h->release(h->alloc_ctx, ws, old_states);
    store(h, ws, slot, states);
  }
  return true;
}

}  // namespace bix
