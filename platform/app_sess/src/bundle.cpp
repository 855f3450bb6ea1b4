// Bundles of messages and the application's bundle handler.
#include <array>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "app_sess.h"

namespace {

struct Bundle {
  uint32_t id = 0;
  uint32_t max_messages = 0;  // 0: no limit
  uint32_t count = 0;
  // The message validated last and not counted yet. A message whose
  // encoding failed after validation is simply replaced by the next one.
  bool awaiting = false;
  std::array<uint8_t, 16> awaiting_luid{};
};

struct Registry {
  std::mutex lock;
  std::unordered_map<const wex_handle *, Bundle> bundles;
  uint32_t last_id = 0;
  app_sess_bundle_handler_fn handler = nullptr;
  void *handler_ctx = nullptr;
};

Registry &registry() {
  static Registry r;
  return r;
}

// The handle's bundle, if the one it names is still open. Caller holds the lock.
Bundle *open_bundle(Registry &r, const wex_handle *h) {
  if (!h || !h->bundle) return nullptr;
  auto it = r.bundles.find(h);
  return it != r.bundles.end() && it->second.id == h->bundle ? &it->second : nullptr;
}

uint32_t report(wex_handle *h, uint32_t *err, uint32_t code) {
  if (err) *err = code;
  wex_store_err(h, code);
  return code;
}

}  // namespace

extern "C" {

app_sess_bundle_handler_fn app_sess_bundle_handler_register(app_sess_bundle_handler_fn handler,
                                                            void *ctx) {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  app_sess_bundle_handler_fn before = r.handler;
  r.handler = handler;
  r.handler_ctx = ctx;
  return before;
}

app_sess_bundle_handler_fn app_sess_bundle_handler_unregister(void) {
  return app_sess_bundle_handler_register(nullptr, nullptr);
}

uint32_t app_sess_bundle_begin(wex_handle *h, uint32_t max_messages) {
  if (!h) return 0;
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  uint32_t id = ++r.last_id;
  if (id == 0) id = ++r.last_id;  // 0 means "no bundle"
  try {
    r.bundles[h] = Bundle{id, max_messages};
  } catch (...) {
    return 0;
  }
  h->bundle = id;
  return id;
}

uint32_t app_sess_bundle_end(wex_handle *h) {
  if (!h) return 0;
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  uint32_t count = 0;
  if (Bundle *b = open_bundle(r, h)) count = b->count;
  r.bundles.erase(h);
  h->bundle = 0;
  return count;
}

uint32_t app_sess_bundle_count(wex_handle *h) {
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  Bundle *b = open_bundle(r, h);
  return b ? b->count : 0;
}

uint32_t bundle_message_validate_add(wex_handle *h, uint32_t, const uint8_t *msg_luid,
                                     const char *msg_name, uint32_t *err) {
  if (err && *err) return 0;
  wex_clear_last_error(h);
  if (!msg_luid || !msg_name) return report(h, err, WEX_ERR_INVALID);
  Registry &r = registry();
  app_sess_bundle_handler_fn handler;
  void *ctx;
  uint32_t id;
  {
    std::lock_guard<std::mutex> guard(r.lock);
    Bundle *b = open_bundle(r, h);
    if (!b) return report(h, err, WEX_ERR_INVALID);
    if (b->max_messages && b->count >= b->max_messages)
      return report(h, err, APP_SESS_ERR_BUNDLE_FULL);
    handler = r.handler;
    ctx = r.handler_ctx;
    id = b->id;
  }
  // The handler runs unlocked: it may well ask about the bundle itself.
  if (handler) {
    if (uint32_t code = handler(ctx, h, id, msg_luid, msg_name)) return report(h, err, code);
  }
  std::lock_guard<std::mutex> guard(r.lock);
  Bundle *b = open_bundle(r, h);
  if (!b) return report(h, err, WEX_ERR_INVALID);
  b->awaiting = true;
  std::memcpy(b->awaiting_luid.data(), msg_luid, b->awaiting_luid.size());
  return 0;
}

uint32_t bundle_message_increment_count(wex_handle *h, const uint8_t *msg_luid, uint32_t *err) {
  if (err && *err) return 0;
  wex_clear_last_error(h);
  if (!msg_luid) return report(h, err, WEX_ERR_INVALID);
  Registry &r = registry();
  std::lock_guard<std::mutex> guard(r.lock);
  Bundle *b = open_bundle(r, h);
  if (!b) return report(h, err, WEX_ERR_INVALID);
  if (!b->awaiting || std::memcmp(b->awaiting_luid.data(), msg_luid, 16) != 0)
    return report(h, err, WEX_ERR_ABSENT);
  b->awaiting = false;
  ++b->count;
  return 0;
}

}  // extern "C"
