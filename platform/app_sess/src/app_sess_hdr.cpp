// The session header record: lifecycle, wire form, text and XML.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app_sess.h"

namespace {

wex_variant_entry g_variant_entries[1] = {{0, 22, 2, 0, 0, 0, 0}};
wex_variant_info g_variant_info = {1, {}, g_variant_entries};

// Shared by every _cr caller; never allocated, initialised or freed.
alignas(8) unsigned char g_null_instance[APP_SESS_HDR_SIZE];

constexpr int8_t kLatestVariant = 0;

app_sess_hdr *as_hdr(void *p) {
  return static_cast<app_sess_hdr *>(p);
}
const app_sess_hdr *as_hdr(const void *p) {
  return static_cast<const app_sess_hdr *>(p);
}

bool pending(const uint32_t *err) {
  return err && *err;
}

void report(wex_handle *h, uint32_t *err, uint32_t code) {
  if (err) *err = code;
  wex_store_err(h, code);
}

void notify(wex_handle *h, uint32_t ws, void *addr, uint32_t len) {
  if (h && h->notify_write) h->notify_write(h->alloc_ctx, addr, len, ws);
}

int32_t clamp_room(uint32_t len) {
  return len > INT32_MAX ? INT32_MAX : static_cast<int32_t>(len);
}

int8_t capped(int8_t v) {
  return v > kLatestVariant ? kLatestVariant : v;
}

wex_type_info *type_for(wex_handle *h, uint32_t ws) {
  if (h->types_indirect)
    return wex_type_info_ptr_get(h, ws, &_app_sess_hdr_type_info_internal,
                                 app_sess_typeinfo_initialize);
  return &_app_sess_hdr_type_info_internal;
}

uint64_t *counters_of(const wex_type_info *t, int8_t v) {
  if (!t || !t->variant_info || !t->variant_info->entries) return nullptr;
  int idx = v < 0 ? 0 : v >= t->variant_info->count ? t->variant_info->count - 1 : v;
  return idx < 0 ? nullptr : &t->variant_info->entries[idx].created;
}

// Field accessors share one shape: guard, instance check, variant check.
bool reachable(wex_handle *h, const void *inst, uint32_t *err) {
  if (pending(err)) return false;
  wex_clear_last_error(h);
  if (!inst) {
    report(h, err, WEX_ERR_INVALID);
    return false;
  }
  if (wex_get_instance_variant(inst, 1, 0) < 0) {
    wex_store_epoch_err(h, WEX_ERR_VARIANT, err);
    return false;
  }
  return true;
}

}  // namespace

wex_type_info _app_sess_hdr_type_info_internal = {WEX_TYPE_INFO_MAGIC,
                                                  {0x3a, 0x9e, 0x5c, 0x0d, 0x7b, 0x21, 0x4f, 0x86,
                                                   0xa1, 0xc2, 0xe4, 0xd6, 0xf8, 0x09, 0x1b, 0x2c},
                                                  "3a9e5c0d7b214f86a1c2e4d6f8091b2c",
                                                  "app_sess_hdr",
                                                  "app_sess",
                                                  "type",
                                                  {},
                                                  0xFFFFFFFFu,
                                                  0,
                                                  &g_variant_info,
                                                  0,
                                                  0};

extern "C" {

void app_sess_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err) {
  if (!h || !h->type_lookup || !h->type_register || !h->type_alloc) return;
  wex_type_info *rec = &_app_sess_hdr_type_info_internal;
  wex_type_info *copy = h->type_lookup(h->type_registry, ws, rec->luid_text);
  uint32_t is_new = 0;
  if (!copy) {
    copy = static_cast<wex_type_info *>(
        h->type_alloc(h->type_alloc_ctx, 0xFFFFFFFFu, WEX_TYPE_INFO_COPY_SIZE));
    if (!copy) {
      report(h, err, WEX_ERR_NOMEM);
      return;
    }
    std::memset(copy, 0, WEX_TYPE_INFO_COPY_SIZE);
    std::memcpy(copy, rec, sizeof *rec);
    copy->indirect = h->types_indirect;
    copy->reg_marker = 0xFFFFFFFFu;
    h->type_register(h->type_registry, ws, copy->luid_text, copy);
    is_new = 1;
  }
  wex_update_variant_info(h, ws, copy, rec, is_new);
}

void *app_sess_hdr_create_internal(wex_handle *h, uint32_t ws) {
  if (!h || !h->allocate) return nullptr;
  void *p = h->allocate(h->alloc_ctx, ws, APP_SESS_HDR_SIZE);
  if (!p) return nullptr;
  std::memset(p, 0, APP_SESS_HDR_SIZE);
  app_sess_hdr *hdr = as_hdr(p);
  uint32_t local = 0;
  wex_type_info *t = type_for(h, ws);
  int8_t v = capped(wex_domain_lookup_variant(h, &h->domain, t, &local));
  notify(h, ws, p, APP_SESS_HDR_SIZE);
  hdr->type_info = t;
  hdr->variant = v;
  hdr->initial_variant = v;
  wexlib_type_stats_create_object(h, ws, t, counters_of(t, v), &local);
  return p;
}

void *app_sess_hdr_create(wex_handle *h, uint32_t ws) {
  if (h && h->cr_create && h->error) return g_null_instance;
  void *p = app_sess_hdr_create_internal(h, ws);
  if (!p && h && h->cr_create) {
    if (!h->error) wex_store_err(h, WEX_ERR_NOMEM);
    return g_null_instance;
  }
  return p;
}

void app_sess_hdr_destroy(wex_handle *h, uint32_t ws, void *inst) {
  if (!h || !inst || inst == g_null_instance) return;
  app_sess_hdr *hdr = as_hdr(inst);
  const wex_type_info *t = hdr->type_info;
  if (!t || t->magic != WEX_TYPE_INFO_MAGIC) {
    // Releasing memory whose header is garbage would corrupt the heap further.
    std::fprintf(stderr, "app_sess_hdr destroy: tinfo is null or corrupted\n");
    std::abort();
  }
  uint32_t local = 0;
  wexlib_type_stats_destroy_object(h, ws, t, counters_of(t, hdr->variant), &local);
  notify(h, ws, &hdr->type_info, sizeof hdr->type_info);
  hdr->type_info = nullptr;
  if (h->release) h->release(h->alloc_ctx, ws, inst);
}

uint32_t app_sess_hdr_sizeof(wex_handle *) {
  return APP_SESS_HDR_SIZE;
}

// Common start of the encoder and decoder: nothing under a pending error, 12 for a length
// below 1, 22 for a missing instance or buffer.
static bool codec_begin(wex_handle *h, uint32_t *err, const void *inst, const void *pos,
                        int32_t len) {
  if (pending(err)) return false;
  wex_clear_last_error(h);
  if (len < 1) {
    report(h, err, WEX_ERR_NOMEM);
    return false;
  }
  if (!inst || !pos) {
    report(h, err, WEX_ERR_INVALID);
    return false;
  }
  return true;
}

uint32_t app_sess_hdr_len(wex_handle *, uint32_t, const void *inst) {
  return inst && as_hdr(inst)->variant < 0 ? 6 : APP_SESS_HDR_WIRE_SIZE;
}

uint32_t app_sess_hdr_marshal(wex_handle *h, uint32_t ws, uint8_t *pos, const void *inst,
                              int32_t room, uint32_t *err) {
  if (!codec_begin(h, err, inst, pos, room)) return 0;
  const app_sess_hdr *hdr = as_hdr(inst);
  int8_t v = hdr->variant;
  int8_t d = wex_domain_lookup_variant(h, &h->domain, hdr->type_info, err);
  if (v > d) {
    wex_store_epoch_err(h, WEX_ERR_VARIANT, err);
    v = d;
  }
  v = capped(v);
  const uint8_t flags = 0;
  uint32_t jump = 0;
  uint32_t n = _wex_instance_variant_marshal(h, ws, pos, &v, room, err);
  n += _wex_instance_obj_flag_marshal(h, ws, pos + n, &flags, room - static_cast<int32_t>(n), err);
  const uint32_t base = n;
  n += _wex_variant_jump_marshal(h, ws, pos + n, &jump, room - static_cast<int32_t>(n), err);
  if (v >= 0) {
    n += u_int32_marshal(h, ws, pos + n, &hdr->session_id, room - static_cast<int32_t>(n), err);
    n += u_int32_marshal(h, ws, pos + n, &hdr->seq_num, room - static_cast<int32_t>(n), err);
    n += u_int16_marshal(h, ws, pos + n, &hdr->flags, room - static_cast<int32_t>(n), err);
  }
  if (n >= base + WEX_VARIANT_JUMP_SIZE) {
    jump = n - base;
    uint32_t local = 0;  // the placeholder fitted, so this rewrite does too
    _wex_variant_jump_marshal(h, ws, pos + base, &jump, WEX_VARIANT_JUMP_SIZE, &local);
  }
  return n;
}

uint32_t app_sess_hdr_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *inst,
                                int32_t len, uint32_t, uint32_t *err) {
  if (!codec_begin(h, err, inst, pos, len)) return 0;
  app_sess_hdr *hdr = as_hdr(inst);
  int8_t v = 0;
  uint8_t flags = 0;
  uint32_t jump = 0;
  auto left = [&](uint32_t at, uint32_t end) { return static_cast<int32_t>(end - at); };
  const auto total = static_cast<uint32_t>(len);
  uint32_t n = _wex_instance_variant_unmarshal(h, ws, pos, &v, len, err);
  n += _wex_instance_obj_flag_unmarshal(h, ws, pos + n, &flags, left(n, total), err);
  if (flags & WEX_OBJ_FLAG_HD) {
    uint64_t ra = 0;
    uint8_t ra_byte = 0;
    n += _wex_instance_ra_data_unmarshal(h, ws, pos + n, &ra, &ra_byte, left(n, total), err);
  }
  const uint32_t base = n;
  n += _wex_variant_jump_unmarshal(h, ws, pos + n, &jump, left(n, total), err);
  if (pending(err)) return n;
  if (jump < WEX_VARIANT_JUMP_SIZE || jump > total - base) {
    report(h, err, WEX_ERR_TRUNCATED);
    return n;
  }
  const uint32_t end = base + jump;
  if (v >= 0) {
    const bool state_bytes = flags & WEX_OBJ_FLAG_STTR;
    auto skip_state = [&] {
      if (state_bytes && n < end) ++n;
    };
    n += u_int32_unmarshal(h, ws, pos + n, &hdr->session_id, left(n, end), 0, err);
    skip_state();
    n += u_int32_unmarshal(h, ws, pos + n, &hdr->seq_num, left(n, end), 0, err);
    skip_state();
    n += u_int16_unmarshal(h, ws, pos + n, &hdr->flags, left(n, end), 0, err);
    skip_state();
  }
  // A newer sender may append fields; the jump steps over them.
  if (n < end) n = end;
  notify(h, ws, hdr, 11);
  hdr->variant = capped(v);
  hdr->type_info = type_for(h, ws);
  return n;
}

int32_t app_sess_hdr_print(wex_handle *h, uint32_t ws, char *buf, uint32_t indent, const char *name,
                           const void *inst, uint32_t len, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  if (!inst || !buf) {
    report(h, err, WEX_ERR_INVALID);
    return 0;
  }
  const app_sess_hdr *hdr = as_hdr(inst);
  const int32_t room = clamp_room(len);
  int32_t n = wex_print_space(h, ws, buf, indent, room, err);
  n += wex_snprintf(h, ws, buf + n, room - n, err, "%s@%s: {\n", name ? name : "",
                    _app_sess_hdr_type_info_internal.type_name);
  if (hdr->variant >= 0) {
    const uint32_t in = indent + 2;
    n += u_int32_print(h, ws, buf + n, in, "session_id", &hdr->session_id, room - n, err);
    n += u_int32_print(h, ws, buf + n, in, "seq_num", &hdr->seq_num, room - n, err);
    n += u_int16_print(h, ws, buf + n, in, "flags", &hdr->flags, room - n, err);
  }
  n += wex_print_space(h, ws, buf + n, indent, room - n, err);
  n += wex_snprintf(h, ws, buf + n, room - n, err, "}\n");
  return n;
}

int32_t app_sess_hdr_to_xml(wex_handle *h, uint32_t ws, const char *name, char *buf,
                            const void *inst, uint32_t len, uint8_t state, uint32_t *err) {
  if (pending(err)) return 0;
  wex_clear_last_error(h);
  if (!inst || !buf) {
    report(h, err, WEX_ERR_INVALID);
    return 0;
  }
  const app_sess_hdr *hdr = as_hdr(inst);
  const int32_t room = clamp_room(len);
  int32_t n = start_tag(h, ws, buf, name, room, state, err);
  if (hdr->variant >= 0) {
    n += u_int32_to_xml(h, ws, "session_id", buf + n, &hdr->session_id, room - n, 0, err);
    n += u_int32_to_xml(h, ws, "seq_num", buf + n, &hdr->seq_num, room - n, 0, err);
    n += u_int16_to_xml(h, ws, "flags", buf + n, &hdr->flags, room - n, 0, err);
  }
  n += end_tag(h, ws, buf + n, name, room - n, err);
  return n;
}

void app_sess_hdr_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *inst,
                           uint32_t *err, char *msgbuf, uint32_t msglen) {
  if (pending(err)) return;
  wex_clear_last_error(h);
  if (!inst || !path) {
    report(h, err, WEX_ERR_INVALID);
    return;
  }
  uint32_t count = 0;
  if (xml_get_element_nodecount(doc, path, &count) != 0 || count == 0) {
    report(h, err, WEX_ERR_ABSENT);
    return;
  }
  app_sess_hdr *hdr = as_hdr(inst);
  using Parse =
      void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *, uint32_t);
  const struct {
    const char *name;
    void *field;
    Parse parse;
  } fields[] = {{"session_id", &hdr->session_id, u_int32_from_xml},
                {"seq_num", &hdr->seq_num, u_int32_from_xml},
                {"flags", &hdr->flags, u_int16_from_xml}};
  for (const auto &f : fields) {
    char field_path[256];
    int w = std::snprintf(field_path, sizeof field_path, "%s/%s", path, f.name);
    if (w < 0 || static_cast<size_t>(w) >= sizeof field_path) {
      report(h, err, WEX_ERR_INVALID);
      return;
    }
    f.parse(h, ws, field_path, doc, f.field, err, msgbuf, msglen);
    if (pending(err) && *err != WEX_ERR_ABSENT) return;
    if (err) *err = 0;  // an absent field keeps its value
  }
}

uint32_t app_sess_hdr_session_id_get_value(wex_handle *h, uint32_t ws, const void *inst,
                                           uint32_t *err) {
  return reachable(h, inst, err) ? u_int32_get_value(h, ws, &as_hdr(inst)->session_id, err) : 0;
}

void app_sess_hdr_session_id_set_value(wex_handle *h, uint32_t ws, void *inst, uint32_t value,
                                       uint32_t *err) {
  if (reachable(h, inst, err)) u_int32_set_value(h, ws, &as_hdr(inst)->session_id, value, err);
}

uint32_t app_sess_hdr_seq_num_get_value(wex_handle *h, uint32_t ws, const void *inst,
                                        uint32_t *err) {
  return reachable(h, inst, err) ? u_int32_get_value(h, ws, &as_hdr(inst)->seq_num, err) : 0;
}

void app_sess_hdr_seq_num_set_value(wex_handle *h, uint32_t ws, void *inst, uint32_t value,
                                    uint32_t *err) {
  if (reachable(h, inst, err)) u_int32_set_value(h, ws, &as_hdr(inst)->seq_num, value, err);
}

uint16_t app_sess_hdr_flags_get_value(wex_handle *h, uint32_t ws, const void *inst, uint32_t *err) {
  return reachable(h, inst, err) ? u_int16_get_value(h, ws, &as_hdr(inst)->flags, err) : 0;
}

void app_sess_hdr_flags_set_value(wex_handle *h, uint32_t ws, void *inst, uint16_t value,
                                  uint32_t *err) {
  if (reachable(h, inst, err)) u_int16_set_value(h, ws, &as_hdr(inst)->flags, value, err);
}

}  // extern "C"
