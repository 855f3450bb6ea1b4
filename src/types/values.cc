// Enumeration and flag-set values: range-checked stores, comparison, hashing, and the
// text, XML and wire forms that name each value by its literal.
#include <cstdio>
#include <cstring>

#include "bix/core.h"
#include "superfasthash.h"

namespace bix {
namespace {

constexpr uint32_t kPathMax = 256;   // element paths handed to the XML queries
constexpr uint32_t kValueMax = 128;  // element text read back (unused beyond presence)
constexpr uint32_t kLiteralTagMax = 160;

uint32_t value_of(const void *inst) {
  uint32_t v;
  std::memcpy(&v, bytes(inst) + kEnumValueOffset, 4);
  return v;
}

const LiteralDesc *literal_of(const TypeDesc &d, uint32_t user) {
  for (uint16_t i = 0; i < d.nliterals; ++i)
    if (d.literals[i].user == user) return &d.literals[i];
  return nullptr;
}

bool pending(const uint32_t *err) { return err && *err; }

bool flag_on(const void *inst, uint32_t n) {
  return bytes(inst)[kFlagBitsOffset + n / 8] & (1u << (n % 8));
}

// "<NAME/>" for a literal or flag name.
int empty_element(char *out, const char *name) {
  return std::snprintf(out, kLiteralTagMax, "<%s/>", name);
}

int32_t room(uint32_t len, int32_t used) { return static_cast<int32_t>(len) - used; }

}  // namespace

// ---- enumerations ----

uint32_t enum_get_value(const TypeDesc &, wex_handle *h, uint32_t, const void *inst, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  if (!inst) {
    store_err(h, err, 22);
    return 0;
  }
  return value_of(inst);
}

void enum_set_value(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t value,
                    uint32_t *err) {
  if (pending(err)) return;
  wex_clear_last_error(h);
  wexlib_adjust_variant(h, ws, inst, inst ? wex_get_manifested_type_info(inst) : nullptr,
                        d.latest_variant, err);
  if (enum_refuses(d, value, wex_get_instance_variant(inst, 0, 1))) {
    wex_store_epoch_err(h, 43, err);
    return;
  }
  if (!is_instance_of(d, inst)) {  // nothing to store into, or shared, or another type
    store_err(h, err, 22);
    return;
  }
  notify(h, ws, bytes(inst) + kEnumValueOffset, 4);
  std::memcpy(bytes(inst) + kEnumValueOffset, &value, 4);
}

void enum_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, const void *src,
              uint32_t *err) {
  if (pending(err)) return;
  wex_clear_last_error(h);
  // The source's header is copied too: both must be instances of this type.
  if (!is_instance_of(d, dst) || !is_instance_of(d, src)) {
    store_err(h, err, 22);
    return;
  }
  wexlib_adjust_variant(h, ws, dst, wex_get_manifested_type_info(dst), d.latest_variant, err);
  if (enum_refuses(d, value_of(src), wex_get_instance_variant(dst, 0, 1))) {
    wex_store_epoch_err(h, 43, err);
    return;
  }
  notify(h, ws, dst, d.fixed_size);
  std::memcpy(dst, src, d.fixed_size);
}

const char *enum_literal_name(const TypeDesc &d, uint32_t user_value) {
  const LiteralDesc *lit = literal_of(d, user_value);
  return lit ? lit->name : nullptr;
}

int enum_literal_value(const TypeDesc &d, const char *name, uint32_t *user_value) {
  if (!name) return 0;
  for (uint16_t i = 0; i < d.nliterals; ++i) {
    if (std::strcmp(d.literals[i].name, name) != 0) continue;
    if (user_value) *user_value = d.literals[i].user;
    return 1;
  }
  return 0;
}

int32_t enum_compare(const void *a, const void *b) {
  if (!a) return b ? -1 : 0;
  if (!b) return 1;
  return static_cast<int32_t>(value_of(a) - value_of(b));
}

uint32_t enum_hash(const void *inst, uint32_t seed) {
  return inst ? SuperFastHash(bytes(inst) + kEnumValueOffset, 4, seed) : seed;
}

// ---- flag sets ----

int32_t flags_get_value(const TypeDesc &d, wex_handle *h, uint32_t, const void *inst,
                        uint32_t flag, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  if (!inst || flag >= d.nliterals) {
    wex_store_epoch_err(h, 43, err);
    return 0;
  }
  // The bit as it stands in a signed byte: flag 7 of a byte reads as -128.
  return static_cast<int8_t>(bytes(inst)[kFlagBitsOffset + flag / 8] & (1u << (flag % 8)));
}

void flags_set_value(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t flag,
                     uint32_t on, uint32_t *err) {
  if (pending(err)) return;
  wex_clear_last_error(h);
  wexlib_adjust_variant(h, ws, inst, inst ? wex_get_manifested_type_info(inst) : nullptr,
                        d.latest_variant, err);
  if (flag >= d.nliterals && wex_get_instance_variant(inst, 0, 1) <= 0) {
    wex_store_epoch_err(h, 43, err);
    return;
  }
  if (!inst || flag >= d.nliterals) return;  // a newer variant's flag: nothing to store here
  if (!is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return;
  }
  uint8_t *byte = bytes(inst) + kFlagBitsOffset + flag / 8;
  notify(h, ws, byte, 1);
  if (on)
    *byte = static_cast<uint8_t>(*byte | (1u << (flag % 8)));
  else
    *byte = static_cast<uint8_t>(*byte & ~(1u << (flag % 8)));
}

void flags_set(const TypeDesc &d, wex_handle *h, uint32_t ws, void *dst, const void *src,
               uint32_t *err) {
  if (pending(err)) return;
  // The source's header is copied too: both must be instances of this type.
  if (!is_instance_of(d, dst) || !is_instance_of(d, src)) {
    store_err(h, err, 22);
    return;
  }
  notify(h, ws, dst, d.fixed_size);
  std::memcpy(dst, src, d.fixed_size);
}

int32_t flags_compare(const TypeDesc &d, const void *a, const void *b) {
  if (!a) return b ? -1 : 0;
  if (!b) return 1;
  const uint8_t *x = bytes(a) + kFlagBitsOffset, *y = bytes(b) + kFlagBitsOffset;
  if (d.nflag_bytes == 1) return static_cast<int32_t>(*x) - static_cast<int32_t>(*y);
  return std::memcmp(x, y, d.nflag_bytes);
}

uint32_t flags_hash(const TypeDesc &d, const void *inst, uint32_t seed) {
  return inst ? SuperFastHash(bytes(inst) + kFlagBitsOffset, d.nflag_bytes, seed) : seed;
}

// ---- both ----

void leaf_adjust_variant(const TypeDesc &d, wex_handle *h, uint32_t ws, void *inst, uint32_t *err) {
  if (pending(err)) return;
  wexlib_adjust_variant(h, ws, inst, inst ? wex_get_manifested_type_info(inst) : nullptr,
                        d.latest_variant, err);
}

int32_t leaf_print(const TypeDesc &d, wex_handle *h, uint32_t ws, char *buf, uint32_t indent,
                   const char *name, const void *inst, uint32_t len, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  int32_t n = wex_print_space(h, ws, buf, indent, room(len, 0), err);
  n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s@%s:", name, d.name);
  if (d.kind == TypeKind::Enum) {
    const LiteralDesc *lit = inst ? literal_of(d, value_of(inst)) : nullptr;
    if (lit)
      n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s\n", lit->name);
    else
      n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s", "Enum value out of range");
    return n;
  }
  for (uint32_t f = 0; f < d.nliterals; ++f) {
    if (!inst) {
      uint32_t own = 0;  // a missing instance is reported per flag, not to the caller
      wex_store_epoch_err(h, 43, &own);
      n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s", "ERR ");
    } else if (flag_on(inst, f)) {
      n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s ", d.literals[f].name);
    }
  }
  n += wex_snprintf(h, ws, buf + n, room(len, n), err, "%s", "\n");
  return n;
}

int32_t leaf_to_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *name, char *buf,
                    const void *inst, uint32_t len, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  int32_t n = start_tag(h, ws, buf, name, room(len, 0), 0, err);
  char text[kLiteralTagMax];
  auto put = [&](const char *t, int tlen) {
    n += xml_enum_print(h, ws, buf + n, t, room(len, n), static_cast<uint32_t>(tlen), err);
  };
  if (d.kind == TypeKind::Enum) {
    const LiteralDesc *lit = inst ? literal_of(d, value_of(inst)) : nullptr;
    int tlen = lit ? empty_element(text, lit->name)
                   : std::snprintf(text, sizeof text, "<%s value out of range/>", d.name);
    put(text, tlen);
  } else {
    for (uint32_t f = 0; f < d.nliterals; ++f) {
      if (!inst) {
        uint32_t own = 0;
        wex_store_epoch_err(h, 43, &own);
        put("<error>ERR</error>", 18);
      } else if (flag_on(inst, f)) {
        put(text, empty_element(text, d.literals[f].name));
      }
    }
  }
  n += end_tag(h, ws, buf + n, name, room(len, n), err);
  return n;
}

// Looks for one child element per literal (or flag) under `path`. Absence is the normal
// outcome of the search, so it is neither left in the slot nor recorded in the handle.
void leaf_from_xml(const TypeDesc &d, wex_handle *h, uint32_t ws, const char *path, void *doc,
                   void *inst, uint32_t *err, char *msg, uint32_t msglen) {
  if (pending(err)) return;
  wex_clear_last_error(h);
  if (!is_instance_of(d, inst)) {
    store_err(h, err, 22);
    return;
  }
  for (uint16_t i = 0; i < d.nliterals; ++i) {
    char child[kPathMax];
    char value[kValueMax];
    // A path cut short would name another element (..._SFP for ..._SFP_PLUS): refused.
    const int want = std::snprintf(child, sizeof child, "%s/%s", path ? path : "", d.literals[i].name);
    int r = want < 0 || static_cast<size_t>(want) >= sizeof child
                ? 22
                : xml_get_element_value(doc, child, value, sizeof value, 0);
    if (r == 2) continue;
    if (r != 0) {
      store_err(h, err, static_cast<uint32_t>(r));
      if (msg && msglen) std::snprintf(msg, msglen, "Failed xpath: %s", path);
      return;
    }
    if (d.kind == TypeKind::Enum) {
      // First literal present wins; stored as is, like a decoded value.
      std::memcpy(bytes(inst) + kEnumValueOffset, &d.literals[i].user, 4);
      return;
    }
    flags_set_value(d, h, ws, inst, i, 1, err);
  }
}

uint32_t get_oid_count(wex_handle *h, uint32_t, const void *inst, uint32_t *err) {
  if (pending(err)) {
    trace(Tm::kOidCountPending);
    return 0;
  }
  if (!inst) {
    trace(Tm::kOidCountNull);
    store_err(h, err, 22);
  }
  return 0;
}

void get_object_references(wex_handle *h, uint32_t, const void *inst, uint32_t *err) {
  if (pending(err)) {
    trace(Tm::kRefsPending);
    return;
  }
  if (!inst) {
    trace(Tm::kRefsNull);
    store_err(h, err, 22);
  }
}

// ---- wire ----

uint32_t leaf_len(const TypeDesc &d) {
  return d.kind == TypeKind::Enum ? 5 : 5u + d.nflag_bytes;
}

uint32_t leaf_marshal(const TypeDesc &d, wex_handle *h, uint32_t ws, uint8_t *buf,
                      const void *inst, int32_t len, uint32_t *err) {
  if (!codec_begin(d, h, err, inst, len, false)) return 0;
  int8_t v = wex_get_instance_variant(inst, 0, 1);
  int8_t dv = wex_domain_lookup_variant(h, &h->domain, wex_get_manifested_type_info(inst), err);
  if (v > dv) {
    wex_store_epoch_err(h, 43, err);
    v = dv;
  }
  int8_t wire_variant = variant_cap(d, v);
  uint32_t n = _wex_instance_variant_marshal(h, ws, buf, &wire_variant, len, err);
  if (d.kind == TypeKind::Enum) {
    uint32_t internal = enum_to_internal(d, value_of(inst));
    return n + u_int32_marshal(h, ws, buf + n, &internal, len - static_cast<int32_t>(n), err);
  }
  const uint32_t jump_at = n;
  const uint32_t placeholder = 0;
  uint32_t wrote = _wex_variant_jump_marshal(h, ws, buf + n, &placeholder,
                                             len - static_cast<int32_t>(n), err);
  n += wrote;
  if (!pending(err)) {
    if (len - static_cast<int32_t>(n) < d.nflag_bytes) {
      store_err(h, err, 90);
    } else {
      std::memcpy(buf + n, bytes(inst) + kFlagBitsOffset, d.nflag_bytes);
      n += d.nflag_bytes;
    }
  }
  if (wrote == 4) {  // only where the placeholder fitted: never write past the buffer
    uint32_t jump = n - jump_at;
    _wex_variant_jump_marshal(h, ws, buf + jump_at, &jump, 4, err);
  }
  return n;
}

uint32_t leaf_unmarshal(const TypeDesc &d, wex_handle *h, uint32_t ws, const uint8_t *buf,
                        void *inst, int32_t len, uint32_t reuse, uint32_t *err) {
  if (!codec_begin(d, h, err, inst, len, true)) return 0;
  int8_t v = 0;
  uint32_t n = _wex_instance_variant_unmarshal(h, ws, buf, &v, len, err);
  if (!n) return 0;
  uint8_t *b = bytes(inst);
  notify(h, ws, b + kHdrVariant, 1);
  b[kHdrVariant] = static_cast<uint8_t>(variant_cap(d, v));
  auto set_tinfo = [&] {
    wex_type_info **slot = wex_get_manifested_type_info_ptr_mem(inst);
    notify(h, ws, slot, 8);
    *slot = decoded_tinfo(h, ws, d);
  };
  if (d.kind == TypeKind::Enum) {
    set_tinfo();
    uint32_t got = u_int32_unmarshal(h, ws, buf + n, b + kEnumValueOffset,
                                     len - static_cast<int32_t>(n), reuse, err);
    if (!got) return n;
    uint32_t value = value_of(inst);
    if (d.shifted && value < d.nliterals) ++value;  // back from the wire's 0-based numbering
    notify(h, ws, b + kEnumValueOffset, 4);
    std::memcpy(b + kEnumValueOffset, &value, 4);
    return n + got;
  }
  const uint32_t jump_base = n;
  uint32_t jump = 0;
  uint32_t got = _wex_variant_jump_unmarshal(h, ws, buf + n, &jump, len - static_cast<int32_t>(n), err);
  if (!got) return n;
  n += got;
  set_tinfo();
  if (len - static_cast<int32_t>(n) < d.nflag_bytes) {
    store_err(h, err, kErrShortInput);
    return static_cast<uint32_t>(len);
  }
  notify(h, ws, b + kFlagBitsOffset, d.nflag_bytes);
  std::memcpy(b + kFlagBitsOffset, buf + n, d.nflag_bytes);
  n += d.nflag_bytes;
  return jump_correct(h, err, n, jump_base, jump, len);
}

}  // namespace bix
