// Private pieces shared by the runtime's translation units.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "wex.h"

// Every primitive kind once: X(name, C type); the wire width is sizeof(C type).
#define WEX_FOR_EACH_PRIMITIVE(X) \
  X(int8, int8_t)                 \
  X(u_int8, uint8_t)              \
  X(int16, int16_t)               \
  X(u_int16, uint16_t)            \
  X(int32, int32_t)               \
  X(u_int32, uint32_t)

// Hash of a key by its characters, usable with std::string and std::string_view alike.
struct KeyHash {
  using is_transparent = void;
  size_t operator()(std::string_view k) const { return std::hash<std::string_view>{}(k); }
};

struct wex_domain_state {
  // Keyed by LUID text; looked up with a view, so a lookup allocates nothing.
  std::unordered_map<std::string, int8_t, KeyHash, std::equal_to<>> variants;
  std::unordered_map<std::string, bool, KeyHash, std::equal_to<>> messages;
};

namespace wex {

struct HandleState {
  uint32_t last_error = 0;
  uint32_t alloc_limit = WEX_DEFAULT_ALLOC_LIMIT;
  int suppress_messages = 0;
  uint32_t fail_next_mapping = 0;
  uint32_t sttr_offset_fail_in = 0;  // the n-th offset store from now fails; 0: none
  // Offsets stay until overwritten or the handle goes; addresses of freed
  // instances are reused by later ones, which re-register theirs.
  std::unordered_map<const void *, uint32_t> sttr_offsets;
  std::unordered_map<const void *, uint32_t> oid_refs;
  std::unordered_set<const void *> hd_mappings;
  std::unordered_map<std::string, wex_type_info *> registry;
  std::vector<void *> type_copies;  // everything type_alloc handed out
  void *scratch = nullptr;
  wex_sttr_profile tracking{WEX_STTR_OFF};  // what wex_handle_set_tracking points at
};

inline HandleState *state_of(wex_handle *h) {
  return h ? static_cast<HandleState *>(h->priv) : nullptr;
}

inline bool pending(const uint32_t *err) {
  return err && *err;
}

// The runtime's own failures: the caller's slot and the private last error,
// never h->error (that one belongs to wex_store_err and the _cr forms).
inline void fail(wex_handle *h, uint32_t *err, uint32_t code) {
  if (err) *err = code;
  if (HandleState *s = state_of(h)) s->last_error = code;
}

inline void notify_write(wex_handle *h, uint32_t ws, void *addr, uint32_t len) {
  if (h && h->notify_write) h->notify_write(h->alloc_ctx, addr, len, ws);
}

inline uint8_t &obj_flags(void *instance) {
  return static_cast<uint8_t *>(instance)[10];
}

// Stores text[0..n) at pos within room, always NUL-terminated when room > 0;
// reports 90 when it had to cut. Returns the characters stored.
int32_t put_text(wex_handle *h, char *pos, int32_t room, const char *text, size_t n, uint32_t *err);
int32_t put_text(wex_handle *h, char *pos, int32_t room, std::string_view text, uint32_t *err);

}  // namespace wex
