// Test support: a wex handle whose allocator and hooks are observable, trace capture,
// and iteration over every type the library registers.
#pragma once

#include <dlfcn.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "bix_ipc_shim.h"
#include "lumo.h"
#include "record_fns.h"

namespace bixtest {

using namespace bixfns;

struct Write {
  const uint8_t *addr;
  uint32_t len;
};

// Wraps a reference handle; counts allocations, can fail the k-th one, logs hooks.
class Handle {
 public:
  explicit Handle(uint32_t mode = 0) : h_(wex_handle_new()) {
    profile_.tracking_mode = mode;
    h_->sttr_profile = mode ? &profile_ : nullptr;
    h_->alloc_ctx = this;
    h_->allocate = [](void *ctx, uint32_t, uint32_t size) -> void * {
      auto *self = static_cast<Handle *>(ctx);
      if (++self->allocs == self->fail_at) return nullptr;
      void *p = std::malloc(size);
      self->live[p] = size;
      return p;
    };
    h_->release = [](void *ctx, uint32_t, void *p) {
      auto *self = static_cast<Handle *>(ctx);
      self->live.erase(p);
      ++self->releases;
      std::free(p);
    };
    h_->notify_write = [](void *ctx, void *addr, uint32_t len, uint32_t) {
      static_cast<Handle *>(ctx)->writes.push_back({static_cast<uint8_t *>(addr), len});
    };
    h_->notify_count = [](void *ctx, void *addr, uint32_t, uint32_t) {
      static_cast<Handle *>(ctx)->counts.push_back(addr);
    };
  }
  ~Handle() {
    h_->sttr_profile = nullptr;
    wex_handle_free(h_);
  }
  Handle(const Handle &) = delete;
  Handle &operator=(const Handle &) = delete;

  wex_handle *operator->() { return h_; }
  operator wex_handle *() { return h_; }
  void set_mode(uint32_t mode) {
    profile_.tracking_mode = mode;
    h_->sttr_profile = mode ? &profile_ : nullptr;
  }

  uint32_t allocs = 0, releases = 0, fail_at = 0;
  std::map<void *, uint32_t> live;
  std::vector<Write> writes;
  std::vector<void *> counts;

 private:
  wex_handle *h_;
  wex_sttr_profile profile_{};
};

// Captures every trace while alive.
class Traces {
 public:
  Traces() {
    lumo_set_sink([](void *ctx, uint32_t level, const char *text) {
      static_cast<Traces *>(ctx)->lines.push_back({level, text});
    }, this);
  }
  ~Traces() { lumo_set_sink(nullptr, nullptr); }
  bool has(uint32_t level, const std::string &text) const {
    for (auto &l : lines)
      if (l.first == level && l.second == text) return true;
    return false;
  }
  std::vector<std::pair<uint32_t, std::string>> lines;
};

inline const wex_module_desc *our_module() {
  for (const wex_module_desc *m = wex_module_tot_root.first; m; m = m->next)
    if (std::strcmp(m->name, "bix_ipc_shim") == 0) return m;
  return nullptr;
}

// Every registered type, in registration-list order.
inline std::vector<const wex_type_info *> all_types() {
  std::vector<const wex_type_info *> out;
  if (const wex_module_desc *m = our_module())
    for (wex_type_info *const *p = m->types; *p; ++p) out.push_back(*p);
  return out;
}

// An exported operation looked up by name, for loops over every type.
template <typename Fn>
Fn op(const std::string &type, const char *suffix) {
  return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, (type + "_" + suffix).c_str()));
}

inline uint8_t flags_of(const void *inst) { return static_cast<const uint8_t *>(inst)[10]; }

}  // namespace bixtest
