// The decoders under test, looked up by name from the generated layout facts.
#pragma once

#include <dlfcn.h>

#include <string>
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

}  // namespace bixfuzz
