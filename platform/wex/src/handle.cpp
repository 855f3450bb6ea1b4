// Handles, the error store, the type registry, domains, statistics,
// state-tracking offsets, object mappings and the recorder.
#include <atomic>
#include <cstdlib>
#include <mutex>
#include <new>

#include "internal.h"

using wex::HandleState;
using wex::state_of;

wex_module_root wex_module_tot_root = {0, 0, nullptr, &wex_module_tot_root.first};

namespace {

// Callers may point alloc_ctx (or the registry contexts) at their own
// data while keeping the default functions, so those only trust a context
// that is a live handle state.
std::mutex g_live_lock;
std::unordered_set<const void *> g_live_states;

HandleState *live_state(void *ctx) {
  std::lock_guard<std::mutex> guard(g_live_lock);
  return g_live_states.count(ctx) ? static_cast<HandleState *>(ctx) : nullptr;
}

void *default_allocate(void *ctx, uint32_t, uint32_t size) {
  HandleState *s = live_state(ctx);
  if (size > (s ? s->alloc_limit : WEX_DEFAULT_ALLOC_LIMIT)) return nullptr;
  return std::malloc(size ? size : 1);
}

void default_release(void *, uint32_t, void *p) {
  std::free(p);
}

void no_notify(void *, void *, uint32_t, uint32_t) {}

void *registry_alloc(void *ctx, uint32_t, uint32_t size) {
  HandleState *s = live_state(ctx);
  if (!s || size > s->alloc_limit) return nullptr;
  void *p = std::malloc(size ? size : 1);
  if (!p) return nullptr;
  try {
    s->type_copies.push_back(p);
  } catch (...) {
    std::free(p);
    return nullptr;
  }
  return p;
}

std::string_view luid_view(const char *luid_text) {
  return std::string_view(luid_text, strnlen(luid_text, sizeof(wex_type_info{}.luid_text) - 1));
}

std::string luid_key(const char *luid_text) {
  return std::string(luid_text, strnlen(luid_text, sizeof(wex_type_info{}.luid_text) - 1));
}

wex_type_info *registry_lookup(void *registry, uint32_t, const char *luid_text) {
  HandleState *s = live_state(registry);
  if (!s || !luid_text) return nullptr;
  try {
    auto it = s->registry.find(luid_key(luid_text));
    return it == s->registry.end() ? nullptr : it->second;
  } catch (...) {
    return nullptr;
  }
}

void registry_register(void *registry, uint32_t, const char *luid_text, wex_type_info *rec) {
  HandleState *s = live_state(registry);
  if (!s || !luid_text || !rec) return;
  try {
    s->registry[luid_key(luid_text)] = rec;
  } catch (...) {
    // An unregistered copy is looked up again and re-registered later.
  }
}

bool valid_type_info(const wex_type_info *t) {
  return t && t->magic == WEX_TYPE_INFO_MAGIC;
}

void count_into(const wex_type_info *tinfo, uint64_t *counter) {
  if (tinfo && tinfo->indirect) {
    ++*counter;
  } else {
    std::atomic_ref<uint64_t>(*counter).fetch_add(1, std::memory_order_relaxed);
  }
}

// Both mapping destroys share the failure armed by wex_mapping_fail_next.
// Returns the code it reported, 0 when none was armed.
uint32_t injected_failure(wex_handle *h, HandleState *s, uint32_t *err) {
  if (!s || !s->fail_next_mapping) return 0;
  uint32_t code = s->fail_next_mapping;
  s->fail_next_mapping = 0;
  wex::fail(h, err, code);
  return code;
}

std::atomic<int> g_recorder_on{0};
std::atomic<FILE *> g_recorder_stream{nullptr};

}  // namespace

extern "C" {

// ---- Handle control ---------------------------------------------------------

wex_handle *wex_handle_new(void) {
  auto *h = static_cast<wex_handle *>(std::calloc(1, sizeof(wex_handle)));
  if (!h) return nullptr;
  auto *s = new (std::nothrow) HandleState;
  auto *d = new (std::nothrow) wex_domain_state;
  bool live = false;
  if (s && d) {
    try {
      std::lock_guard<std::mutex> guard(g_live_lock);
      live = g_live_states.insert(s).second;
    } catch (...) {
    }
  }
  if (!live) {
    delete s;
    delete d;
    std::free(h);
    return nullptr;
  }
  h->allocate = default_allocate;
  h->release = default_release;
  h->notify_write = no_notify;
  h->notify_count = no_notify;
  h->alloc_ctx = s;
  h->type_alloc = registry_alloc;
  h->type_alloc_ctx = s;
  h->type_lookup = registry_lookup;
  h->type_register = registry_register;
  h->type_registry = s;
  h->domain.state = d;
  h->domain_name = "default";
  h->priv = s;
  return h;
}

void wex_handle_free(wex_handle *h) {
  if (!h) return;
  if (HandleState *s = state_of(h)) {
    {
      std::lock_guard<std::mutex> guard(g_live_lock);
      g_live_states.erase(s);
    }
    for (void *p : s->type_copies) std::free(p);
    std::free(s->scratch);
    delete s;
  }
  delete h->domain.state;
  std::free(h);
}

void wex_handle_set_tracking(wex_handle *h, int on) {
  HandleState *s = state_of(h);
  if (!s) return;
  s->tracking.tracking_mode = on ? WEX_STTR_ON : WEX_STTR_OFF;
  h->sttr_profile = &s->tracking;
}

void wex_handle_set_alloc_limit(wex_handle *h, uint32_t bytes) {
  if (HandleState *s = state_of(h)) s->alloc_limit = bytes ? bytes : WEX_DEFAULT_ALLOC_LIMIT;
}

void wex_domain_set_variant(wex_handle *h, const char *type_luid_text, int variant) {
  if (!h || !h->domain.state || !type_luid_text) return;
  int clamped = variant < INT8_MIN ? INT8_MIN : variant > INT8_MAX ? INT8_MAX : variant;
  try {
    h->domain.state->variants[luid_key(type_luid_text)] = static_cast<int8_t>(clamped);
  } catch (...) {
  }
  // Whatever was cached under the old generation no longer describes this domain.
  h->domain.state->generation = wex::next_domain_generation();
}

void wex_domain_set_message_allowed(wex_handle *h, const char *msg_luid_text, int allowed) {
  if (!h || !h->domain.state || !msg_luid_text) return;
  try {
    h->domain.state->messages[luid_key(msg_luid_text)] = allowed != 0;
  } catch (...) {
  }
}

void wex_set_suppress_messages(wex_handle *h, int enabled) {
  if (HandleState *s = state_of(h)) s->suppress_messages = enabled;
}

void wex_oid_mapping_create(wex_handle *h, void *inst, uint32_t refs) {
  HandleState *s = state_of(h);
  if (!s || !inst) return;
  try {
    s->oid_refs[inst] = refs;
  } catch (...) {
    return;
  }
  wex::obj_flags(inst) |= WEX_OBJ_FLAG_OID;
}

void wex_oid_mapping_drop_ref(wex_handle *h, void *inst) {
  HandleState *s = state_of(h);
  if (!s) return;
  auto it = s->oid_refs.find(inst);
  if (it != s->oid_refs.end() && it->second > 0) --it->second;
}

int wex_oid_mapping_exists(wex_handle *h, const void *inst) {
  HandleState *s = state_of(h);
  return s && s->oid_refs.count(inst) ? 1 : 0;
}

void wex_hd_mapping_create(wex_handle *h, void *inst) {
  HandleState *s = state_of(h);
  if (!s || !inst) return;
  try {
    s->hd_mappings.insert(inst);
  } catch (...) {
    return;
  }
  wex::obj_flags(inst) |= WEX_OBJ_FLAG_HD;
}

int wex_hd_mapping_exists(wex_handle *h, const void *inst) {
  HandleState *s = state_of(h);
  return s && s->hd_mappings.count(inst) ? 1 : 0;
}

void wex_mapping_fail_next(wex_handle *h, uint32_t code) {
  if (HandleState *s = state_of(h)) s->fail_next_mapping = code;
}

void wex_sttr_offset_fail_at(wex_handle *h, uint32_t n) {
  if (HandleState *s = state_of(h)) s->sttr_offset_fail_in = n;
}

// ---- Errors -------------------------------------------------------------------

void wex_clear_last_error(wex_handle *h) {
  if (HandleState *s = state_of(h)) s->last_error = 0;
}

void wex_store_err(wex_handle *h, uint32_t code) {
  if (!h) return;
  if (HandleState *s = state_of(h)) s->last_error = code;
  h->error = code;
}

void wex_store_epoch_err(wex_handle *h, uint32_t code, uint32_t *err) {
  if (HandleState *s = state_of(h)) s->last_error = code;
  if (err) *err = code;
}

uint32_t wex_get_last_error(wex_handle *h) {
  HandleState *s = state_of(h);
  return s ? s->last_error : 0;
}

// ---- Type info, variants and domains -------------------------------------------

wex_type_info *wex_type_info_ptr_get(wex_handle *h, uint32_t ws, wex_type_info *static_rec,
                                     wex_module_init_fn module_init) {
  if (!h || !static_rec || !h->type_lookup) return static_rec;
  if (wex_type_info *t = h->type_lookup(h->type_registry, ws, static_rec->luid_text)) return t;
  if (!module_init) return static_rec;
  uint32_t local_err = 0;
  module_init(h, ws, &local_err);
  wex_type_info *t = h->type_lookup(h->type_registry, ws, static_rec->luid_text);
  return t ? t : static_rec;
}

wex_type_info *wex_get_manifested_type_info(const void *instance) {
  if (!instance) return nullptr;
  wex_type_info *t;
  std::memcpy(&t, instance, sizeof t);
  return t;
}

wex_type_info **wex_get_manifested_type_info_ptr_mem(void *instance) {
  return static_cast<wex_type_info **>(instance);
}

int8_t wex_domain_lookup_variant(wex_handle *h, wex_domain *domain, const wex_type_info *tinfo,
                                 uint32_t *err) {
  if (!tinfo) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return -1;
  }
  if (domain && domain->state && !domain->state->variants.empty()) {
    auto it = domain->state->variants.find(luid_view(tinfo->luid_text));
    if (it != domain->state->variants.end()) return it->second;
  }
  if (!tinfo->variant_info || tinfo->variant_info->count <= 0) return 0;
  return static_cast<int8_t>(tinfo->variant_info->count - 1);
}

int wex_domain_lookup_message_ok(wex_handle *h, wex_domain *domain, const wex_type_info *tinfo,
                                 uint32_t *err) {
  if (!tinfo) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  if (!domain || !domain->state) return 1;
  try {
    auto it = domain->state->messages.find(luid_view(tinfo->luid_text));
    return it == domain->state->messages.end() || it->second ? 1 : 0;
  } catch (...) {
    return 1;
  }
}

int8_t wex_get_instance_variant(const void *instance, uint32_t, uint32_t) {
  return instance ? static_cast<const int8_t *>(instance)[8] : -1;
}

uint8_t wex_get_instance_obj_flag(const void *instance, uint32_t, uint32_t) {
  return instance ? static_cast<const uint8_t *>(instance)[10] : 0;
}

void wexlib_adjust_variant(wex_handle *h, uint32_t, void *instance, const wex_type_info *tinfo,
                           int8_t, uint32_t *err) {
  if (wex::pending(err) || !instance) return;
  if (tinfo && !valid_type_info(tinfo)) wex::fail(h, err, WEX_ERR_INVALID);
}

void wex_update_variant_info(wex_handle *, uint32_t, wex_type_info *registered,
                             const wex_type_info *static_rec, uint32_t) {
  if (registered && static_rec && static_rec->variant_info)
    registered->variant_info = static_rec->variant_info;
}

uint32_t wex_get_luid(wex_handle *h, uint32_t, const void *instance, uint8_t luid_out[16],
                      uint32_t *err) {
  if (wex::pending(err)) return *err;
  const wex_type_info *t = wex_get_manifested_type_info(instance);
  if (!luid_out || !valid_type_info(t)) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return WEX_ERR_INVALID;
  }
  std::memcpy(luid_out, t->luid, sizeof t->luid);
  return 0;
}

void wexlib_get_handle_ws(wex_handle *h, void **buf, uint32_t *len) {
  HandleState *s = state_of(h);
  if (s && !s->scratch) s->scratch = std::malloc(WEX_HANDLE_WS_SIZE);
  if (buf) *buf = s ? s->scratch : nullptr;
  if (len) *len = s && s->scratch ? WEX_HANDLE_WS_SIZE : 0;
}

// ---- Statistics, state tracking and object mappings ------------------------------

void wexlib_type_stats_create_object(wex_handle *, uint32_t, const wex_type_info *tinfo,
                                     void *counters, uint32_t *) {
  if (counters) count_into(tinfo, static_cast<uint64_t *>(counters));
}

void wexlib_type_stats_destroy_object(wex_handle *, uint32_t, const wex_type_info *tinfo,
                                      void *counters, uint32_t *) {
  if (counters) count_into(tinfo, static_cast<uint64_t *>(counters) + 1);
}

uint32_t wexlib_get_sttr_offset(wex_handle *h, uint32_t, const void *instance) {
  HandleState *s = state_of(h);
  if (!s) return 0;
  auto it = s->sttr_offsets.find(instance);
  return it == s->sttr_offsets.end() ? 0 : it->second;
}

void wexlib_update_sttr_offset(wex_handle *h, uint32_t ws, void *member, uint32_t offset) {
  HandleState *s = state_of(h);
  if (!s || !member) return;  // no offset store: the member gets no 0x40 (see wex.h)
  try {
    if (s->sttr_offset_fail_in && --s->sttr_offset_fail_in == 0) throw std::bad_alloc();
    s->sttr_offsets[member] = offset;
  } catch (...) {
    // Without the offset the member must not claim one; the caller sees the missing
    // 0x40 and, through the last error, why.
    s->last_error = WEX_ERR_NOMEM;
    return;
  }
  wex::notify_write(h, ws, &wex::obj_flags(member), 1);
  wex::obj_flags(member) |= WEX_OBJ_FLAG_STTR_OFFSET;
}

uint32_t wex_request_oid_mapping_destroy(wex_handle *h, uint32_t ws, void *instance,
                                         uint32_t *err) {
  if (wex::pending(err)) return 0;
  HandleState *s = state_of(h);
  if (injected_failure(h, s, err)) return 0;
  if (s && instance) {
    auto it = s->oid_refs.find(instance);
    if (it != s->oid_refs.end()) {
      if (it->second > 0) return 0;
      s->oid_refs.erase(it);
    }
  }
  if (instance) {
    wex::notify_write(h, ws, &wex::obj_flags(instance), 1);
    wex::obj_flags(instance) &= static_cast<uint8_t>(~WEX_OBJ_FLAG_OID);
  }
  return 1;
}

uint32_t wex_hd_mapping_destroy(wex_handle *h, uint32_t, void *instance, uint32_t *err) {
  if (wex::pending(err)) return 0;
  HandleState *s = state_of(h);
  if (uint32_t code = injected_failure(h, s, err)) return code;
  if (s) s->hd_mappings.erase(instance);
  return 0;
}

// ---- Recorder, message suppression, plain memory ---------------------------------

void wexlib_msg_recorder_start(FILE *stream) {
  g_recorder_stream.store(stream);
  g_recorder_on.store(1);
}

void wexlib_msg_recorder_stop(void) {
  g_recorder_on.store(0);
  g_recorder_stream.store(nullptr);
}

int wexlib_msg_recorder_get_state(void) {
  return g_recorder_on.load();
}

FILE *wexlib_msg_recorder_get_handle(void) {
  return g_recorder_stream.load();
}

int wexlib_suppress_messages_enabled(wex_handle *h) {
  HandleState *s = state_of(h);
  return s ? s->suppress_messages : 0;
}

void *wexlib_malloc(void *, uint32_t, size_t size) {
  return std::malloc(size ? size : 1);
}

void wexlib_free(void *, uint32_t, void *p) {
  std::free(p);
}

// ---- The standalone u8 ---------------------------------------------------------------

void *u_int8_create(wex_handle *h, uint32_t ws) {
  if (!h || !h->allocate) return nullptr;
  void *p = h->allocate(h->alloc_ctx, ws, 1);
  if (p) *static_cast<uint8_t *>(p) = 0;
  return p;
}

void u_int8_destroy(wex_handle *h, uint32_t ws, void *inst) {
  if (h && inst && h->release) h->release(h->alloc_ctx, ws, inst);
}

uint32_t u_int8_sizeof(wex_handle *) {
  return 1;
}

}  // extern "C"
