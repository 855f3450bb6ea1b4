// XML form of records: one rendering body and one parsing body for every record type, over
// the field descriptors. Parsing reads the runtime's document through child paths only
// ("P/name", "P/name[k]"), which the runtime answers from the parent's children, so a
// whole record costs time linear in the document.

#include "bix/core.h"
#include "shown.h"

namespace bix {
namespace {

using PrimToXml = int32_t (*)(wex_handle *, uint32_t, const char *, char *, const void *, int32_t,
                              uint8_t, uint32_t *);
using PrimFromXml = void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *,
                             char *, uint32_t);

// Indexed by Prim.
constexpr PrimToXml kPrimToXml[] = {int8_to_xml,    u_int8_to_xml, int16_to_xml,
                                    u_int16_to_xml, int32_to_xml,  u_int32_to_xml};
constexpr PrimFromXml kPrimFromXml[] = {int8_from_xml,    u_int8_from_xml, int16_from_xml,
                                        u_int16_from_xml, int32_from_xml,  u_int32_from_xml};

// ---- rendering ----

struct XmlShow {
  const TypeDesc &d;
  wex_handle *h;
  uint32_t ws;
  char *buf;
  uint32_t len;
  void *inst;
  bool states;  // field state flags are shown (the handle tracks state)
  uint32_t *err;
  uint32_t n = 0;

  int32_t room() const { return static_cast<int32_t>(len - n); }
  void add(int32_t wrote) { n += static_cast<uint32_t>(wrote); }

  // A field's own state flag, read as its state_flag_get accessor reads it: an instance
  // without state bytes stops the rendering there with 22.
  uint8_t state(const FieldDesc &f) { return states ? state_get(d, f, h, ws, inst, err) : 0; }
  uint8_t state(const FieldDesc &f, uint32_t k) {
    return states ? elem_state_get(d, f, h, ws, inst, k, err) : 0;
  }

  void prim(Prim p, const char *name, const void *at, uint8_t s) {
    add(kPrimToXml[static_cast<unsigned>(p)](h, ws, name, buf + n, at, room(), s, err));
  }
  void record(const TypeDesc &t, const char *name, const void *at, uint8_t s) {
    add(record_to_xml(t, h, ws, name, buf + n, at, len - n, s, err));
  }

  void field(const FieldDesc &f, const uint8_t *at) {
    if (f.kind == FieldKind::Count) return prim(f.prim, f.name, at, 0);  // owns no state byte
    const uint8_t s = state(f);
    if (*err) return;
    switch (f.kind) {
      case FieldKind::Enum:
      case FieldKind::Selector:
      case FieldKind::Flags:  // read for its check, but these children carry no state
        add(leaf_to_xml(*f.type, h, ws, f.name, buf + n, at, len - n, err));
        break;
      case FieldKind::Record:
        record(*f.type, f.name, at, s);
        break;
      default:
        prim(f.prim, f.name, at, s);
    }
  }
  void element(const FieldDesc &f, uint32_t k, const uint8_t *at) {
    const uint8_t s = state(f, k);
    if (*err) return;
    if (f.kind == FieldKind::RecordArray)
      record(*f.type, f.name, at, s);
    else
      prim(f.prim, f.name, at, s);
  }
  void alternative(const FieldDesc &sel, const FieldDesc &f, const void *alt) {
    const uint8_t s = state(f);
    if (*err) return;
    char name[kShownNameMax];
    joined_name(name, sel.name, '-', f.name);
    record(*f.type, name, alt, s);
  }
};

// ---- parsing ----

constexpr size_t kPathMax = 256;

// The path of a record's element with room to append one child step: "P/" is written
// once, each child name after it.
class ChildPath {
 public:
  // False when the record's own path leaves no room for a child.
  bool start(const char *parent) {
    base_ = std::strlen(parent);
    if (base_ + 2 > kPathMax) return false;
    std::memcpy(text_, parent, base_);
    text_[base_++] = '/';
    elements_.place(text_ + base_, kPathMax - base_);
    return true;
  }
  // "P/name"; null when it does not fit. Paths stay below kPathMax - 1 characters, so one
  // that filled the buffer is never taken for a whole one.
  const char *child(const char *name) { return put(name); }
  // "P/name[k]", k counted from 1; null when it does not fit.
  const char *element(const char *name, uint32_t k) {
    elements_.name(name, k);
    return elements_.length() + 1 < kPathMax - base_ ? text_ : nullptr;
  }
  const char *alternative(const FieldDesc &sel, const FieldDesc &f) {
    char step[kShownNameMax];
    joined_name(step, sel.name, '-', f.name);
    return put(step);
  }

 private:
  const char *put(const char *step) {
    size_t n = std::strlen(step);
    if (base_ + n + 1 >= kPathMax) return nullptr;
    std::memcpy(text_ + base_, step, n + 1);
    elements_.place(text_ + base_, kPathMax - base_);  // the step took the element's place
    return text_;
  }
  char text_[kPathMax];
  size_t base_ = 0;
  ElementNames elements_;
};

// After a child: its absence (2) is no error, the field keeps its value. True when
// parsing goes on.
bool settle(uint32_t *err) {
  if (*err == WEX_ERR_ABSENT) *err = 0;
  return *err == 0;
}

struct XmlParse {
  const TypeDesc &d;
  wex_handle *h;
  uint32_t ws;
  void *doc;
  uint8_t *inst;
  uint32_t *err;
  char *msg;
  uint32_t msglen;
  ChildPath path;

  // A path that cannot be formed names no element this library wrote: refused as an
  // invalid argument rather than cut into another element's path.
  bool usable(const char *p) {
    if (!p) store_err(h, err, 22);
    return p != nullptr;
  }

  void prim(Prim p, const char *at_path, void *at) {
    kPrimFromXml[static_cast<unsigned>(p)](h, ws, at_path, doc, at, err, msg, msglen);
  }

  // One field; false when the record's parse must stop with the error in the slot.
  bool field(const FieldDesc &f) {
    uint8_t *at = inst + f.offset;
    switch (f.kind) {
      case FieldKind::Count:     // follows the elements actually read, never a claim
      case FieldKind::UnionAlt:  // read after its selector, below
        return true;
      case FieldKind::FixedArray:
      case FieldKind::RecordArray:
        return fixed_array(f, at);
      case FieldKind::VarArray:
        return var_array(f);
      default:
        break;
    }
    const char *p = path.child(f.name);
    if (!usable(p)) return false;
    switch (f.kind) {
      case FieldKind::Enum:
      case FieldKind::Flags:
        leaf_from_xml(*f.type, h, ws, p, doc, at, err, msg, msglen);
        break;
      case FieldKind::Selector:
        leaf_from_xml(*f.type, h, ws, p, doc, at, err, msg, msglen);
        if (!settle(err)) return false;
        return alternative(f);
      case FieldKind::Record:
        record_from_xml(*f.type, h, ws, p, doc, at, err, msg, msglen);
        break;
      default:
        prim(f.prim, p, at);
    }
    return settle(err);
  }

  // Elements 1, 2, ... until the first absent one; the rest keep their values.
  bool fixed_array(const FieldDesc &f, uint8_t *at) {
    for (uint32_t k = 0; k < f.count; ++k) {
      const char *p = path.element(f.name, k + 1);
      if (!usable(p)) return false;
      uint8_t *elem = at + size_t{k} * f.elem_size;
      if (f.kind == FieldKind::RecordArray)
        record_from_xml(*f.type, h, ws, p, doc, elem, err, msg, msglen);
      else
        prim(f.prim, p, elem);
      if (*err) return settle(err);  // the first absent element ends the array
    }
    return true;
  }

  bool var_array(const FieldDesc &f);
  bool alternative(const FieldDesc &sel);
};

// The variable array: elements 1, 2, ... until the first absent one, each stored at its
// index as the array's element setter stores it (the array grows, never shrinks; with
// state tracking each stored element is marked). Read first and stored after, so the
// storage grows once: growing element by element would copy the array once per element.
// What is read is bounded by the elements the document holds.
bool XmlParse::var_array(const FieldDesc &f) {
  const char *all = path.child(f.name);
  if (!usable(all)) return false;
  uint32_t present = 0;
  if (int rc = xml_get_element_nodecount(doc, all, &present)) {
    store_err(h, err, static_cast<uint32_t>(rc));
    return false;
  }
  if (!present) return true;
  auto *got = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, ws, present * f.elem_size));
  void *elem = got ? u_int8_create(h, ws) : nullptr;
  if (!elem) {
    if (got) h->release(h->alloc_ctx, ws, got);
    store_err(h, err, 12);
    return false;
  }
  uint32_t read = 0, failed = 0;
  for (; read < present; ++read) {
    const char *p = path.element(f.name, read + 1);
    if (!p) {
      failed = 22;
      break;
    }
    u_int8_from_xml(h, ws, p, doc, elem, &failed, msg, msglen);
    if (failed) break;
    std::memcpy(got + size_t{read} * f.elem_size, elem, f.elem_size);
  }
  u_int8_destroy(h, ws, elem);
  if (failed == WEX_ERR_ABSENT) failed = 0;
  // The last element first: the one store that grows the array.
  for (uint32_t k = read; k-- > 0 && !*err;)
    array_set(d, f, h, ws, inst, k, got + size_t{k} * f.elem_size, err);
  h->release(h->alloc_ctx, ws, got);
  if (!*err && failed) store_err(h, err, failed);
  return *err == 0;
}

// The alternative the selector names is created afresh and read from "P/sel-alt". One
// the instance already held in that slot is released once the fresh one is in place: the
// instance owns it and nothing else would ever free it. A failed creation leaves the
// slot as it was.
bool XmlParse::alternative(const FieldDesc &sel) {
  const uint32_t chosen = load<uint32_t>(inst + sel.offset + kEnumValueOffset);
  for (uint16_t i = static_cast<uint16_t>(sel.link); i < d.nfields; ++i) {
    const FieldDesc &f = d.fields[i];
    if (f.kind != FieldKind::UnionAlt || &d.fields[f.link] != &sel) break;
    if (f.count != chosen) continue;
    const char *p = path.alternative(sel, f);
    if (!usable(p)) return false;
    void *fresh = instance_create(*f.type, h, ws);
    if (!fresh) {
      store_err(h, err, 12);
      return false;
    }
    uint8_t *slot = inst + f.offset;
    void *old = load<void *>(slot);
    store(h, ws, slot, fresh);
    if (old) instance_destroy(*f.type, h, ws, old);
    record_from_xml(*f.type, h, ws, p, doc, fresh, err, msg, msglen);
    return settle(err);
  }
  return true;
}

}  // namespace

int32_t record_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *name, char *buf,
                      const void *inst, uint32_t len, uint8_t state, uint32_t *err) {
  uint32_t own = 0;
  if (!err) err = &own;
  if (!begin_shown(d, h, inst, err, &len)) return 0;
  const int8_t variant = wex_get_instance_variant(inst, 1, 0);
  const bool states = tracking_on(h);  // fatal on a corrupted mode word
  XmlShow out{d, h, ws, buf, len, const_cast<void *>(inst), states, err};
  out.add(start_tag(h, ws, buf, name, out.room(), state, err));
  if (variant >= 0) walk_shown(d, h, bytes(inst), err, out);
  out.add(end_tag(h, ws, buf + out.n, name, out.room(), err));  // closes even after a failure
  return static_cast<int32_t>(out.n);
}

void record_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *path, void *doc,
                     void *inst, uint32_t *err, char *msg, uint32_t msglen) {
  uint32_t own = 0;
  if (!err) err = &own;
  if (*err) return;
  wex_clear_last_error(h);
  if (!is_instance_of(d, inst) || !path) {
    store_err(h, err, 22);
    return;
  }
  wexlib_adjust_variant(h, ws, inst, wex_get_manifested_type_info(inst), d.latest_variant, err);
  if (*err) return;
  uint32_t count = 0;
  if (xml_get_element_nodecount(doc, path, &count) != 0 || count == 0) {
    store_err(h, err, WEX_ERR_ABSENT);  // the record is absent
    return;
  }
  XmlParse parse{d, h, ws, doc, bytes(inst), err, msg, msglen, {}};
  if (!parse.path.start(path)) {
    store_err(h, err, 22);
    return;
  }
  for (uint16_t i = 0; i < d.nfields; ++i)
    if (!parse.field(d.fields[i])) return;
}

}  // namespace bix
