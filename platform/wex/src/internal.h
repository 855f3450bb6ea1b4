// Private pieces shared by the runtime's translation units.
#pragma once

#include <atomic>
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
  // Identifies the variant answers (wex_domain_generation); 0 until a variant is set.
  uint64_t generation = 0;
};

namespace wex {

// State-tracking offsets by instance address. Every tracked encode and decode asks for
// one per nested record, so lookups are a multiply, a shift and a probe or two: open
// addressing over a power-of-two table, never more than half full. Entries are only
// added or overwritten (see HandleState).
class OffsetMap {
 public:
  struct Entry {
    const void *first = nullptr;  // null: a free slot (no instance lives at address 0)
    uint32_t second = 0;
  };
  const Entry *end() const { return nullptr; }
  const Entry *find(const void *key) const {
    if (!key || slots_.empty()) return end();
    for (size_t i = slot(key);; i = (i + 1) & mask()) {
      if (slots_[i].first == key) return &slots_[i];
      if (!slots_[i].first) return end();
    }
  }
  // The entry for key, added with 0 when missing. May throw std::bad_alloc.
  uint32_t &operator[](const void *key) {
    if (2 * (used_ + 1) > slots_.size()) grow();
    Entry *e = &slots_[slot(key)];
    while (e->first && e->first != key) e = &slots_[(e - slots_.data() + 1) & mask()];
    if (!e->first) e->first = key, ++used_;
    return e->second;
  }

 private:
  size_t mask() const { return slots_.size() - 1; }
  size_t slot(const void *key) const {
    const uint64_t h = (reinterpret_cast<uintptr_t>(key) >> 3) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h >> 32) & mask();
  }
  void grow() {
    std::vector<Entry> old(slots_.empty() ? 64 : 2 * slots_.size());
    old.swap(slots_);
    used_ = 0;
    for (const Entry &e : old)
      if (e.first) (*this)[e.first] = e.second;
  }
  std::vector<Entry> slots_;
  size_t used_ = 0;
};

struct HandleState {
  uint32_t last_error = 0;
  uint32_t alloc_limit = WEX_DEFAULT_ALLOC_LIMIT;
  int suppress_messages = 0;
  uint32_t fail_next_mapping = 0;
  uint32_t sttr_offset_fail_in = 0;  // the n-th offset store from now fails; 0: none
  bool byte_form_withheld = false;   // wex_handle_declare_byte_form(h, 0)
  // Offsets stay until overwritten or the handle goes; addresses of freed
  // instances are reused by later ones, which re-register theirs.
  OffsetMap sttr_offsets;
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

// A generation no domain has had: drawn from one process-wide counter.
inline uint64_t next_domain_generation() {
  static std::atomic<uint64_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
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
