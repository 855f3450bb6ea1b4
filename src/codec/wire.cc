// Wire encoding and decoding of records: one walker over the field descriptors for
// len, marshal and unmarshal. Invariants (docs/security.md): the encoder never writes
// outside [buf, buf + len), the decoder never reads outside it, and no allocation is
// larger than the bytes present justify.
#include <array>
#include <cstdlib>
#include <cstring>

#include "bix/core.h"

// Bulk array codecs are an optional extension of the runtime: referenced weakly, so a
// runtime without them still loads and the per-element path is taken.
#pragma weak wex_int8_array_marshal
#pragma weak wex_u_int8_array_marshal
#pragma weak wex_int16_array_marshal
#pragma weak wex_u_int16_array_marshal
#pragma weak wex_int32_array_marshal
#pragma weak wex_u_int32_array_marshal
#pragma weak wex_int8_array_unmarshal
#pragma weak wex_u_int8_array_unmarshal
#pragma weak wex_int16_array_unmarshal
#pragma weak wex_u_int16_array_unmarshal
#pragma weak wex_int32_array_unmarshal
#pragma weak wex_u_int32_array_unmarshal

namespace bix {
namespace {

using PrimMarshal = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t,
                                 uint32_t *);
using PrimUnmarshal = uint32_t (*)(wex_handle *, uint32_t, const uint8_t *, void *, int32_t,
                                   uint32_t, uint32_t *);
using BulkMarshal = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, const void *, uint32_t,
                                 int32_t, uint32_t *);
using BulkUnmarshal = uint32_t (*)(wex_handle *, uint32_t, const uint8_t *, void *, uint32_t,
                                   int32_t, uint32_t *);

struct PrimCodec {
  PrimMarshal marshal;
  PrimUnmarshal unmarshal;
  BulkMarshal bulk_marshal;  // null when the runtime lacks it or it is switched off
  BulkUnmarshal bulk_unmarshal;
};

bool bulk_disabled_by_env() {
  const char *e = std::getenv("BIX_IPC_SHIM_NO_BULK");
  return e && *e && *e != '0';
}

const std::array<PrimCodec, 6> &codecs() {
  static const std::array<PrimCodec, 6> table = [] {
    const bool off = bulk_disabled_by_env();
    auto bm = [off](BulkMarshal f) { return off ? nullptr : f; };
    auto bu = [off](BulkUnmarshal f) { return off ? nullptr : f; };
    return std::array<PrimCodec, 6>{{
        {int8_marshal, int8_unmarshal, bm(wex_int8_array_marshal), bu(wex_int8_array_unmarshal)},
        {u_int8_marshal, u_int8_unmarshal, bm(wex_u_int8_array_marshal),
         bu(wex_u_int8_array_unmarshal)},
        {int16_marshal, int16_unmarshal, bm(wex_int16_array_marshal),
         bu(wex_int16_array_unmarshal)},
        {u_int16_marshal, u_int16_unmarshal, bm(wex_u_int16_array_marshal),
         bu(wex_u_int16_array_unmarshal)},
        {int32_marshal, int32_unmarshal, bm(wex_int32_array_marshal),
         bu(wex_int32_array_unmarshal)},
        {u_int32_marshal, u_int32_unmarshal, bm(wex_u_int32_array_marshal),
         bu(wex_u_int32_array_unmarshal)},
    }};
  }();
  return table;
}

using CodecTable = std::array<PrimCodec, 6>;

uint32_t load_u32(const uint8_t *p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
void *load_ptr(const uint8_t *p) {
  void *v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
void store_ptr(uint8_t *p, void *v) { std::memcpy(p, &v, sizeof v); }

// The union alternative at position sel, or -1: alternatives follow their selector.
bool selected(const TypeDesc &d, const FieldDesc &alt, const uint8_t *inst) {
  const FieldDesc &sel = d.fields[alt.link];
  return load_u32(inst + sel.offset + kEnumValueOffset) == alt.count;
}

// ---- len ----

// The generator's constant length assumes every embedded record encodes its fields; one
// of a negative variant encodes as its 6-byte prefix instead.
bool members_have_fields(const TypeDesc &d, const uint8_t *b) {
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind != FieldKind::Record && f.kind != FieldKind::RecordArray) continue;
    const uint32_t n = f.kind == FieldKind::Record ? 1 : f.count;
    for (uint32_t k = 0; k < n; ++k) {
      const uint8_t *m = b + f.offset + k * f.elem_size;
      if (wex_get_instance_variant(m, 1, 0) < 0) return false;
      if (f.type->has_embedded && !members_have_fields(*f.type, m)) return false;
    }
  }
  return true;
}

uint32_t field_len(const FieldDesc &f, wex_handle *h, uint32_t ws, const TypeDesc &d,
                   const uint8_t *b, bool states) {
  uint32_t n = 0, st = states ? 1 : 0;
  switch (f.kind) {
    case FieldKind::Prim: return prim_size(f.prim) + st;
    case FieldKind::Count: return prim_size(f.prim);
    case FieldKind::Enum:
    case FieldKind::Selector:
    case FieldKind::Flags: return leaf_len(*f.type) + st;
    case FieldKind::Record: return record_len(*f.type, h, ws, b + f.offset) + st;
    case FieldKind::FixedArray: return f.count * f.elem_size + (states ? 1 + f.count : 0);
    case FieldKind::RecordArray:
      for (uint32_t k = 0; k < f.count; ++k)
        n += record_len(*f.type, h, ws, b + f.offset + k * f.elem_size);
      return n + (states ? 1 + f.count : 0);
    case FieldKind::VarArray: {
      uint32_t k = load_u32(b + d.fields[f.link].offset);
      // The whole-array byte counts even for an empty array.
      return k * f.elem_size + (states ? 1 + k : 0);
    }
    case FieldKind::UnionAlt: {
      void *alt = load_ptr(b + f.offset);
      return (selected(d, f, b) && alt ? record_len(*f.type, h, ws, alt) : 0) + st;
    }
  }
  return 0;
}

// ---- marshal ----

struct Encoder {
  const CodecTable &codecs;
  wex_handle *h;
  uint32_t ws;
  uint8_t *buf;
  int32_t len;
  uint32_t *err;
  uint32_t pos = 0;

  int32_t room() const { return len - static_cast<int32_t>(pos); }
  // A single state byte is written only while there is room for it.
  void state_byte(uint8_t v, int32_t need = 1) {
    if (room() >= need) buf[pos++] = v;
  }
  void state_bytes(const uint8_t *src, uint32_t n) {
    uint32_t m = room() > 0 ? std::min<uint32_t>(n, static_cast<uint32_t>(room())) : 0;
    if (src)
      std::memcpy(buf + pos, src, m);
    else
      std::memset(buf + pos, 0, m);
    pos += m;
  }
  const PrimCodec &codec(Prim p) const { return codecs[static_cast<size_t>(p)]; }
  void prim_array(Prim p, const uint8_t *elems, uint32_t count) {
    const PrimCodec &c = codec(p);
    if (c.bulk_marshal) {
      pos += c.bulk_marshal(h, ws, buf + pos, elems, count, room(), err);
      return;
    }
    uint32_t w = prim_size(p);
    for (uint32_t k = 0; k < count; ++k) pos += c.marshal(h, ws, buf + pos, elems + k * w, room(), err);
  }
};

void marshal_fields(const TypeDesc &d, Encoder &e, const uint8_t *b, const uint8_t *area,
                    bool states) {
  auto st = [&](uint32_t i) -> uint8_t { return area ? area[i] : 0; };
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    const uint8_t *at = b + f.offset;
    if (!states && f.run_fields > 1 && e.codec(f.prim).bulk_marshal) {
      e.prim_array(f.prim, at, f.run_elems);
      i = static_cast<uint16_t>(i + f.run_fields - 1);
      continue;
    }
    switch (f.kind) {
      case FieldKind::Count:  // travels without a state byte of its own
        e.pos += e.codec(f.prim).marshal(e.h, e.ws, e.buf + e.pos, at, e.room(), e.err);
        continue;
      case FieldKind::Prim:
        e.pos += e.codec(f.prim).marshal(e.h, e.ws, e.buf + e.pos, at, e.room(), e.err);
        break;
      case FieldKind::Enum:
      case FieldKind::Selector:
      case FieldKind::Flags:
        e.pos += leaf_marshal(*f.type, e.h, e.ws, e.buf + e.pos, at, e.room(), e.err);
        break;
      case FieldKind::Record:
        e.pos += record_marshal(*f.type, e.h, e.ws, e.buf + e.pos, at, e.room(), e.err, false);
        break;
      case FieldKind::FixedArray: e.prim_array(f.prim, at, f.count); break;
      case FieldKind::RecordArray:
        for (uint32_t k = 0; k < f.count; ++k)
          e.pos += record_marshal(*f.type, e.h, e.ws, e.buf + e.pos, at + k * f.elem_size,
                                  e.room(), e.err, false);
        break;
      case FieldKind::VarArray: {
        uint32_t k = load_u32(b + d.fields[f.link].offset);
        if (!k) continue;  // no payload and no state bytes
        const uint8_t *data = static_cast<const uint8_t *>(load_ptr(at));
        if (!data) {  // a count without storage: the instance is inconsistent
          store_err(e.h, e.err, 22);
          continue;
        }
        uint32_t bytes_out = k * f.elem_size;
        if (e.room() < 0 || bytes_out > static_cast<uint32_t>(e.room())) {
          store_err(e.h, e.err, 90);
          bytes_out = e.room() > 0 ? static_cast<uint32_t>(e.room()) : 0;
        }
        std::memcpy(e.buf + e.pos, data, bytes_out);
        e.pos += bytes_out;
        if (states) {
          e.state_byte(st(f.sttr));
          e.state_bytes(area ? static_cast<const uint8_t *>(load_ptr(area + f.sttr_ptr)) : nullptr, k);
        }
        continue;
      }
      case FieldKind::UnionAlt: {
        if (selected(d, f, b)) {
          const void *alt = load_ptr(at);
          if (alt)
            e.pos += record_marshal(*f.type, e.h, e.ws, e.buf + e.pos, alt, e.room(), e.err, false);
          else
            store_err(e.h, e.err, 2);
        }
        if (states) e.state_byte(st(f.sttr), 2);  // a union's state byte wants two bytes of room
        continue;
      }
    }
    if (!states) continue;
    e.state_byte(st(f.sttr));
    if (f.kind == FieldKind::FixedArray || f.kind == FieldKind::RecordArray)
      e.state_bytes(area ? area + f.sttr_elems : nullptr, f.count);
  }
}

// ---- unmarshal ----

struct Decoder {
  const CodecTable &codecs;
  wex_handle *h;
  uint32_t ws;
  const uint8_t *buf;
  int32_t len;
  uint32_t reuse;
  uint32_t *err;
  uint32_t pos = 0;
  bool copy = false, skip = false;  // what to do with received state bytes

  int32_t left() const { return len - static_cast<int32_t>(pos); }
  void state_byte(uint8_t *dst) {
    if (!(copy || skip) || left() <= 0) return;
    if (copy) *dst = buf[pos];
    ++pos;
  }
  void state_bytes(uint8_t *dst, uint32_t n) {
    if (!(copy || skip)) return;
    uint32_t m = left() > 0 ? std::min<uint32_t>(n, static_cast<uint32_t>(left())) : 0;
    if (copy && dst) std::memcpy(dst, buf + pos, m);
    pos += m;
  }
  const PrimCodec &codec(Prim p) const { return codecs[static_cast<size_t>(p)]; }
  void prim_array(Prim p, uint8_t *elems, uint32_t count) {
    const PrimCodec &c = codec(p);
    if (c.bulk_unmarshal) {
      pos += c.bulk_unmarshal(h, ws, buf + pos, elems, count, left(), err);
      return;
    }
    uint32_t w = prim_size(p);
    for (uint32_t k = 0; k < count; ++k)
      pos += c.unmarshal(h, ws, buf + pos, elems + k * w, left(), reuse, err);
  }
};

// Decodes the payload of a variable array whose count k was just read. Returns false
// when decoding must stop at once; the count is then back at k0, so the instance never
// claims more elements than it holds.
bool unmarshal_var_array(const TypeDesc &d, const FieldDesc &f, Decoder &dc, uint8_t *b,
                         uint8_t *area, uint32_t k0) {
  uint8_t *count_at = b + d.fields[f.link].offset;
  uint32_t k = load_u32(count_at);
  if (!k) return true;
  const bool keep = dc.reuse && k == k0 && load_ptr(b + f.offset);
  if (!keep) std::memcpy(count_at, &k0, 4);  // resize works from what the instance holds
  // A sender cannot make us allocate more than the bytes it actually sent.
  if (dc.left() < 0 || static_cast<uint64_t>(k) * f.elem_size > static_cast<uint32_t>(dc.left())) {
    store_err(dc.h, dc.err, kErrShortInput);
    return false;
  }
  if (!keep && !var_array_resize(dc.h, dc.ws, d, b, f, k, dc.err)) return false;
  std::memcpy(load_ptr(b + f.offset), dc.buf + dc.pos, k * f.elem_size);
  dc.pos += k * f.elem_size;
  uint8_t *states = area ? static_cast<uint8_t *>(load_ptr(area + f.sttr_ptr)) : nullptr;
  // Element states taken or kept start at 0, so a run the input cuts short leaves no
  // stale byte behind.
  if (dc.copy && states) std::memset(states, 0, k);
  dc.state_byte(area ? area + f.sttr : nullptr);
  dc.state_bytes(states, k);
  return true;
}

// Returns false when decoding must stop at once.
bool unmarshal_fields(const TypeDesc &d, Decoder &dc, uint8_t *b, uint8_t *area) {
  uint8_t scratch = 0;
  auto st = [&](uint32_t i) { return area ? area + i : &scratch; };
  uint32_t k0 = 0;
  for (uint16_t i = 0; i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    uint8_t *at = b + f.offset;
    if (!dc.copy && !dc.skip && f.run_fields > 1 && dc.codec(f.prim).bulk_unmarshal) {
      dc.prim_array(f.prim, at, f.run_elems);
      i = static_cast<uint16_t>(i + f.run_fields - 1);
      continue;
    }
    switch (f.kind) {
      case FieldKind::Count:
        k0 = load_u32(at);
        dc.pos += dc.codec(f.prim).unmarshal(dc.h, dc.ws, dc.buf + dc.pos, at, dc.left(), dc.reuse, dc.err);
        continue;  // a count has no state byte of its own
      case FieldKind::Prim:
        dc.pos += dc.codec(f.prim).unmarshal(dc.h, dc.ws, dc.buf + dc.pos, at, dc.left(), dc.reuse, dc.err);
        break;
      case FieldKind::Enum:
      case FieldKind::Selector:
      case FieldKind::Flags:
        dc.pos += leaf_unmarshal(*f.type, dc.h, dc.ws, dc.buf + dc.pos, at, dc.left(), dc.reuse, dc.err);
        break;
      case FieldKind::Record:
        dc.pos += record_unmarshal(*f.type, dc.h, dc.ws, dc.buf + dc.pos, at, dc.left(), dc.reuse, dc.err);
        break;
      case FieldKind::FixedArray: dc.prim_array(f.prim, at, f.count); break;
      case FieldKind::RecordArray:
        for (uint32_t k = 0; k < f.count; ++k)
          dc.pos += record_unmarshal(*f.type, dc.h, dc.ws, dc.buf + dc.pos, at + k * f.elem_size,
                                     dc.left(), dc.reuse, dc.err);
        break;
      case FieldKind::VarArray:
        if (!unmarshal_var_array(d, f, dc, b, area, k0)) return false;
        continue;
      case FieldKind::UnionAlt:
        if (*dc.err) return true;  // alternatives are decoded only while no error stands
        if (selected(d, f, b)) {
          void *alt = load_ptr(at);
          if (!alt) {
            dc.h->notify_write(dc.h->alloc_ctx, at, 8, dc.ws);
            alt = instance_create_internal(*f.type, dc.h, dc.ws);
            if (!alt) {
              store_err(dc.h, dc.err, 12);
              return true;
            }
            store_ptr(at, alt);
          }
          dc.pos += record_unmarshal(*f.type, dc.h, dc.ws, dc.buf + dc.pos, alt, dc.left(),
                                     dc.reuse, dc.err);
        }
        dc.state_byte(st(f.sttr));
        continue;
    }
    if (!dc.copy && !dc.skip) continue;
    dc.state_byte(st(f.sttr));
    if (f.kind == FieldKind::FixedArray || f.kind == FieldKind::RecordArray)
      dc.state_bytes(area ? area + f.sttr_elems : nullptr, f.count);
  }
  return true;
}

}  // namespace

bool bulk_codecs_in_use() { return codecs()[static_cast<size_t>(Prim::U8)].bulk_marshal != nullptr; }

uint32_t walker_len(const TypeDesc &d, wex_handle *h, uint32_t ws, const void *inst) {
  int8_t v = wex_get_instance_variant(inst, 1, 0);
  bool states = tracking_on(h) && inst && v >= 0;
  // An instance of another type is measured as no instance: its fields are not ours.
  if (!inst || v < 0 || foreign_instance(d, inst)) return 6;
  if (d.wire_len_off && (!d.has_embedded || members_have_fields(d, bytes(inst))))
    return states ? d.wire_len_on : d.wire_len_off;
  uint32_t n = 6;
  for (uint16_t i = 0; i < d.nfields; ++i) n += field_len(d.fields[i], h, ws, d, bytes(inst), states);
  return n;
}

uint32_t walker_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                        const void *inst, int32_t len, uint32_t *err, bool clone) {
  if (!codec_begin(d, h, err, inst, len, false)) return 0;
  Encoder e{codecs(), h, ws, buf, len, err};
  int8_t v = wex_get_instance_variant(inst, 1, 0);
  int8_t dv = wex_domain_lookup_variant(h, &h->domain, wex_get_manifested_type_info(inst), err);
  if (!clone && v > dv) {
    wex_store_epoch_err(h, 43, err);
    v = dv;
  }
  int8_t wire_variant = variant_cap(d, v);
  e.pos += _wex_instance_variant_marshal(h, ws, buf, &wire_variant, len, err);

  uint8_t flags = wex_get_instance_obj_flag(inst, 1, 0);
  const bool states = tracking_on(h);
  const uint8_t *area = nullptr;
  if (states) {
    if (flags & kFlagTracked) area = sttr_area(h, ws, d, const_cast<void *>(inst));
    flags |= kFlagTracked;
  } else {
    flags &= static_cast<uint8_t>(~kFlagTracked);
  }
  flags &= kFlagTracked | kFlagHandleData;
  e.pos += _wex_instance_obj_flag_marshal(h, ws, buf + e.pos, &flags, e.room(), err);
  if (flags & kFlagHandleData) {
    const uint64_t zero64 = 0;
    const uint8_t zero8 = 0;
    e.pos += _wex_instance_ra_data_marshal(h, ws, buf + e.pos, &zero64, &zero8, e.room(), err);
  }
  const uint32_t jump_base = e.pos;
  const uint32_t placeholder = 0;
  const uint32_t jump_written = _wex_variant_jump_marshal(h, ws, buf + e.pos, &placeholder, e.room(), err);
  e.pos += jump_written;
  if (wire_variant >= 0) marshal_fields(d, e, bytes(inst), area, states);
  if (jump_written == 4) {  // rewrite only where the placeholder fitted
    uint32_t jump = e.pos - jump_base;
    _wex_variant_jump_marshal(h, ws, buf + jump_base, &jump, 4, err);
  }
  return e.pos;
}

uint32_t walker_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                          void *inst, int32_t len, uint32_t reuse, uint32_t *err) {
  if (!codec_begin(d, h, err, inst, len, true)) return 0;
  Decoder dc{codecs(), h, ws, buf, len, reuse, err};
  int8_t v = 0;
  uint8_t rflags = 0;
  uint32_t got = _wex_instance_variant_unmarshal(h, ws, buf, &v, len, err);
  if (!got) return 0;
  dc.pos += got;
  // A prefix item cut short (74 from its reader) ends the reading, but not the decode:
  // the jump correction and the header update still run, on what was read.
  bool framed = (got = _wex_instance_obj_flag_unmarshal(h, ws, buf + dc.pos, &rflags, dc.left(), err));
  dc.pos += got;
  if (framed && (rflags & kFlagHandleData)) {
    uint64_t ra = 0;
    uint8_t rb = 0;
    framed = (got = _wex_instance_ra_data_unmarshal(h, ws, buf + dc.pos, &ra, &rb, dc.left(), err));
    dc.pos += got;
  }
  v = variant_cap(d, v);
  const uint32_t jump_base = dc.pos;
  uint32_t jump = 0;
  if (framed) {
    framed = (got = _wex_variant_jump_unmarshal(h, ws, buf + dc.pos, &jump, dc.left(), err));
    dc.pos += got;
  }

  // A conforming sender sets only these two; anything else would corrupt destroy.
  rflags &= kFlagTracked | kFlagHandleData;
  uint8_t *b = bytes(inst);
  uint8_t *area = nullptr;
  if (!tracking_on(h)) {
    dc.skip = rflags & kFlagTracked;
    rflags &= static_cast<uint8_t>(~kFlagTracked);
  } else {
    if (!(b[kHdrFlags] & kFlagTracked)) fatal(Tm::kSttrMismatch);
    dc.copy = rflags & kFlagTracked;
    // A tracked instance whose area cannot be located (a member its parent never placed)
    // cannot take state bytes: refused before anything in it changes.
    if (dc.copy && !(area = sttr_area(h, ws, d, inst))) {
      store_err(h, err, 22);
      return 0;
    }
    rflags |= kFlagTracked;
  }
  if (framed && v >= 0 && !unmarshal_fields(d, dc, b, area)) return 0;
  dc.pos = jump_correct(h, err, dc.pos, jump_base, jump, len);
  b[kHdrVariant] = static_cast<uint8_t>(v);
  b[kHdrFlags] |= rflags;
  *wex_get_manifested_type_info_ptr_mem(inst) = decoded_tinfo(h, ws, d);
  return dc.pos;
}

}  // namespace bix
