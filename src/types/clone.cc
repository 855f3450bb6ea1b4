// Clone and copy through the wire encoding, the clean-up after the runtime copied an
// instance's bytes, and removal of embedded records' handle-data mappings.
#include <climits>
#include <cstring>

#include "bix/core.h"

namespace bix {
namespace {

// Calls fn(member type, member) for every record embedded in inst (record fields and
// record-array elements) in declaration order, as long as fn answers true.
template <typename Fn>
bool each_embedded_record(const TypeDesc &d, uint8_t *inst, Fn &&fn) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind == FieldKind::Record && !fn(*f.type, inst + f.offset)) return false;
    if (f.kind == FieldKind::RecordArray)
      for (uint32_t k = 0; k < f.count; ++k)
        if (!fn(*f.type, inst + f.offset + static_cast<size_t>(k) * f.elem_size)) return false;
  }
  return true;
}

// Whether a decode into inst can take the state bytes a tracking handle sends: every record
// it may write (inst, its embedded records, the alternatives it holds) must be tracked,
// or the decoder stops the process.
bool takes_state_bytes(const TypeDesc &d, uint8_t *inst) {
  if (!(hdr_flags(inst) & kFlagTracked)) return false;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    auto *alt = f.kind == FieldKind::UnionAlt ? load<uint8_t *>(inst + f.offset) : nullptr;
    if (alt && !takes_state_bytes(*f.type, alt)) return false;
  }
  return each_embedded_record(
      d, inst, [](const TypeDesc &md, uint8_t *m) { return takes_state_bytes(md, m); });
}

// The address of the variable array's element-state buffer pointer, or null without area.
uint8_t *states_ref(wex_handle *h, uint32_t ws, const TypeDesc &d, void *inst, const FieldDesc &f) {
  uint8_t *area = sttr_area(h, ws, d, inst);
  return area ? area + f.sttr_ptr : nullptr;
}

// Clears source's reference at `at` when target holds the same one at the same place: the
// target owns it from now on. Anything else stays with the source, so nothing is lost.
template <typename T>
bool give_up(wex_handle *h, uint32_t ws, uint8_t *source_at, const uint8_t *target_at) {
  T *mine = load<T *>(source_at);
  if (!mine || !target_at || load<T *>(target_at) != mine) return false;
  store<T *>(h, ws, source_at, nullptr);
  return true;
}

// The body behind clone_internal, clone, clone_cr and copy_cr. destroy_on_failure: a failed
// decode destroys the destination and clears the reference (the clone forms); copy_cr
// keeps the caller's destination.
void clone_into(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *src, void **dst_ref,
                uint8_t *buf, uint32_t buflen, uint32_t *err, bool destroy_on_failure) {
  if (*err) return;
  wex_clear_last_error(h);
  ensure_trace_module();
  if (!dst_ref || !buf) {
    store_err(h, err, 2);
    return;
  }
  void *dst = *dst_ref;
  // The source is read at this type's offsets and the destination written at them.
  if (!is_instance_of(d, src) || (dst && !is_instance_of(d, dst))) {
    store_err(h, err, 22);
    return;
  }
  if (dst && tracking_on(h) && !takes_state_bytes(d, bytes(dst))) {
    store_err(h, err, 22);
    trace(Tm::kNotTracked);
    return;
  }
  const int32_t room = buflen > INT32_MAX ? INT32_MAX : static_cast<int32_t>(buflen);
  const uint32_t n = record_marshal(d, h, ws, buf, src, room, err, true);
  if (*err) return;  // the destination is untouched
  if (!dst) {
    dst = instance_create_internal(d, h, ws);
    if (!dst || dst == d.null_instance) {
      store_err(h, err, 12);
      return;
    }
    *dst_ref = dst;
  }
  record_unmarshal(d, h, ws, buf, dst, static_cast<int32_t>(n), 0, err);
  if (!*err || !destroy_on_failure) return;
  instance_destroy_internal(d, h, ws, dst, 1);
  *dst_ref = nullptr;
}

}  // namespace

void record_clone_internal(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *src,
                           void **dst_ref, uint8_t *buf, uint32_t buflen, uint32_t *err) {
  uint32_t local = 0;
  clone_into(d, h, ws, src, dst_ref, buf, buflen, err ? err : &local, true);
}

void record_clone(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *src, void **dst_ref,
                  uint8_t *buf, uint32_t buflen, uint32_t *err) {
  if (dst_ref) *dst_ref = nullptr;  // always a new instance; whatever it named stays the caller's
  record_clone_internal(d, h, ws, src, dst_ref, buf, buflen, err);
}

void *record_clone_cr(const TypeDesc &d, wex_handle *h, const void *src) {
  if (h->error) return nullptr;
  void *buf = nullptr, *dst = nullptr;
  uint32_t len = 0;
  wexlib_get_handle_ws(h, &buf, &len);
  clone_into(d, h, h->default_ws, src, &dst, static_cast<uint8_t *>(buf), len, &h->error, true);
  return dst;
}

void record_copy_cr(const TypeDesc &d, wex_handle *h, const void *src, void *dst) {
  if (h->error) return;
  if (!dst) {
    wex_clear_last_error(h);
    store_err(h, &h->error, 2);
    return;
  }
  void *buf = nullptr;
  uint32_t len = 0;
  wexlib_get_handle_ws(h, &buf, &len);
  clone_into(d, h, h->default_ws, src, &dst, static_cast<uint8_t *>(buf), len, &h->error, false);
}

void record_post_copyout_cleanup(const TypeDesc &d, wex_handle *h, uint32_t ws, void *target,
                                 void *source, uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err) return;
  wex_clear_last_error(h);
  if (!is_instance_of(d, target) || !is_instance_of(d, source)) {
    store_err(h, err, 22);
    return;
  }
  if (target == source) return;  // giving up its references would lose them
  uint8_t *t = bytes(target), *s = bytes(source);
  // Embedded records are set member by member, so their state bytes land where the target
  // keeps them (their areas are placed per instance, not copied with the bytes).
  each_embedded_record(d, t, [&](const TypeDesc &md, uint8_t *member) {
    record_set(md, h, ws, member, s + (member - t), err);
    return true;
  });
  // Whatever happened above, the references move: destroying both must not free twice.
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind == FieldKind::UnionAlt) give_up<void>(h, ws, s + f.offset, t + f.offset);
    if (f.kind != FieldKind::VarArray) continue;
    uint8_t *count = s + d.fields[f.link].offset;
    const bool moved = give_up<uint8_t>(h, ws, s + f.offset, t + f.offset);
    if ((moved || !load<void *>(s + f.offset)) && load<uint32_t>(count))
      store<uint32_t>(h, ws, count, 0);
    if (uint8_t *ref = states_ref(h, ws, d, source, f))
      give_up<uint8_t>(h, ws, ref, states_ref(h, ws, d, target, f));
  }
}

void record_offset_remove(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst,
                          uint32_t *err) {
  uint32_t local = 0;
  if (!err) err = &local;
  if (*err) return;
  wex_clear_last_error(h);
  if (!is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return;
  }
  each_embedded_record(d, bytes(inst), [&](const TypeDesc &md, uint8_t *m) {
    if (uint32_t code = wex_hd_mapping_destroy(h, ws, m, err)) {
      store_err(h, err, code);
      return false;
    }
    if (md.has_embedded) record_offset_remove(md, h, ws, m, err);
    return !*err;
  });
}

}  // namespace bix
