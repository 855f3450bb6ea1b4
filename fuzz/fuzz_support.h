// The decoders under test, looked up by name from the generated layout facts.
#pragma once

#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "bix_ipc_shim.h"
#include "bix_schema_facts.h"

namespace bixfuzz {

struct TypeOps {
  std::string name;
  void *(*create)(wex_handle *, uint32_t);
  void (*destroy)(wex_handle *, uint32_t, void *);
  uint32_t (*len)(wex_handle *, uint32_t, const void *);
  uint32_t (*marshal)(wex_handle *, uint32_t, uint8_t *, const void *, int32_t, uint32_t *);
  uint32_t (*unmarshal)(wex_handle *, uint32_t, const uint8_t *, void *, int32_t, uint32_t, uint32_t *);
};

// A handle whose allocator keeps count of what is live and of the bytes handed out, and
// can refuse its fail_at-th allocation. Requests above 16 MiB are refused.
struct Counting {
  std::map<void *, uint32_t> live;
  uint64_t bytes = 0;
  uint32_t allocs = 0, fail_at = 0, refused = 0;
};

inline void require(bool ok, const char *what, const std::string &type) {
  if (ok) return;
  std::fprintf(stderr, "fuzz invariant broken: %s (%s)\n", what, type.c_str());
  std::abort();
}

inline wex_handle *counting_handle(Counting &c, wex_sttr_profile *profile, bool indirect = false) {
  wex_handle *h = wex_handle_new();
  h->sttr_profile = profile;
  h->types_indirect = indirect;
  h->alloc_ctx = &c;
  h->allocate = [](void *ctx, uint32_t, uint32_t size) -> void * {
    auto *c = static_cast<Counting *>(ctx);
    if (++c->allocs == c->fail_at) return ++c->refused, nullptr;
    if (size > (16u << 20)) return nullptr;
    void *p = std::malloc(size ? size : 1);
    c->live[p] = size;
    c->bytes += size;
    return p;
  };
  h->release = [](void *ctx, uint32_t, void *p) {
    static_cast<Counting *>(ctx)->live.erase(p);
    std::free(p);
  };
  return h;
}

// The last `len` bytes before a page that is not mapped: an encoder that writes one byte
// past the room it was given faults at once. Null above 64 KiB.
inline uint8_t *guarded(uint32_t len) {
  static const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  static const size_t room = 64 * 1024;
  static uint8_t *base = [] {
    void *m =
        mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) std::abort();
    mprotect(static_cast<uint8_t *>(m) + room, page, PROT_NONE);
    return static_cast<uint8_t *>(m);
  }();
  return len <= room ? base + room - len : nullptr;
}

inline void free_handle(wex_handle *h) {
  h->sttr_profile = nullptr;
  wex_handle_free(h);
}

template <typename Fn>
Fn lookup(const std::string &type, const char *op) {
  return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, (type + "_" + op).c_str()));
}

// Records, enumerations and flag sets, in schema order.
inline const std::vector<TypeOps> &types() {
  static const std::vector<TypeOps> all = [] {
    std::vector<TypeOps> v;
    wex_bix_ipc_shim_trace_init();  // also keeps the library linked in
    for (const auto &t : bixfacts::kTypes) {
      if (std::string(t.kind) == "message") continue;
      v.push_back({t.name, lookup<decltype(TypeOps::create)>(t.name, "create"),
                   lookup<decltype(TypeOps::destroy)>(t.name, "destroy"),
                   lookup<decltype(TypeOps::len)>(t.name, "len"),
                   lookup<decltype(TypeOps::marshal)>(t.name, "marshal"),
                   lookup<decltype(TypeOps::unmarshal)>(t.name, "unmarshal")});
    }
    return v;
  }();
  return all;
}

// An exported operation by name, looked up once.
template <typename Fn>
Fn cached(const std::string &name) {
  static std::unordered_map<std::string, void *> cache;
  auto it = cache.find(name);
  if (it == cache.end()) it = cache.emplace(name, dlsym(RTLD_DEFAULT, name.c_str())).first;
  return reinterpret_cast<Fn>(it->second);
}

// Reads every field of an instance back through the exported accessors, members and
// alternatives included, as a receiving program would. Errors (a negative variant, an
// untracked instance) are expected; reading outside the instance is not.
inline void read_back(wex_handle *h, const std::string &type, void *inst) {
  using GetValue = uint32_t (*)(wex_handle *, uint32_t, void *, uint32_t *);
  using Get = void *(*)(wex_handle *, uint32_t, void *, uint32_t *);
  using GetAt = void *(*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);
  using GetMem = void (*)(wex_handle *, uint32_t, void *, void *, int32_t, uint32_t *);
  using StateAt = uint8_t (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);
  using State = uint8_t (*)(wex_handle *, uint32_t, void *, uint32_t *);
  using FlagValue = int32_t (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);
  std::string kind;
  for (const auto &t : bixfacts::kTypes)
    if (type == t.name) kind = t.kind;
  uint32_t err = 0;
  if (kind == "enum") {
    cached<GetValue>(type + "_get_value")(h, 0, inst, &err);
    return;
  }
  if (kind == "flag") {
    for (uint32_t n = 0; n < 16; ++n) err = 0, cached<FlagValue>(type + "_get_value")(h, 0, inst, n, &err);
    return;
  }
  uint32_t var_count = 0;
  for (const auto &f : bixfacts::kFields) {
    if (type != f.type) continue;
    const std::string k = f.kind, op = type + "_" + f.name + "_";
    err = 0;
    if (k == "Prim" || k == "Enum" || k == "Selector" || k == "Count") {
      uint32_t v = cached<GetValue>(op + "get_value")(h, 0, inst, &err);
      if (k == "Count") var_count = err ? 0 : v;
    } else if (k == "FixedArray" || k == "VarArray") {
      const uint32_t n = k == "FixedArray" ? f.count : var_count;
      std::vector<uint8_t> out(static_cast<size_t>(n) * f.elem_size + 1);
      cached<GetMem>(op + "get_mem")(h, 0, inst, out.data(), static_cast<int32_t>(n), &err);
      for (uint32_t i = 0; i < n; ++i) err = 0, cached<StateAt>(op + "state_flag_get")(h, 0, inst, i, &err);
    } else if (k == "RecordArray") {
      for (uint32_t i = 0; i < f.count; ++i) {
        err = 0;
        if (void *m = cached<GetAt>(op + "get")(h, 0, inst, i, &err)) read_back(h, f.member, m);
      }
    } else if (void *m = cached<Get>(op + "get")(h, 0, inst, &err)) {  // members, alternatives
      read_back(h, f.member, m);
    }
    err = 0;
    if (k != "Count") {
      if (k == "FixedArray" || k == "VarArray" || k == "RecordArray")
        cached<State>(op + "state_flag_whole_get")(h, 0, inst, &err);
      else
        cached<State>(op + "state_flag_get")(h, 0, inst, &err);
    }
  }
}

}  // namespace bixfuzz
