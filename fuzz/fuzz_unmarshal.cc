// Fuzz target: arbitrary bytes into the decoder of every type. Asserts the decoder's
// invariants: it stays inside the input, allocates no more than the input justifies,
// leaks nothing, and anything it accepts re-encodes to a stable byte string.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fuzz_support.h"

namespace {

struct Counting {
  std::map<void *, uint32_t> live;
  uint64_t bytes = 0;
};

void require(bool ok, const char *what, const std::string &type) {
  if (ok) return;
  std::fprintf(stderr, "fuzz invariant broken: %s (%s)\n", what, type.c_str());
  std::abort();
}

wex_handle *counting_handle(Counting &c, wex_sttr_profile *profile) {
  wex_handle *h = wex_handle_new();
  h->sttr_profile = profile;
  h->alloc_ctx = &c;
  h->allocate = [](void *ctx, uint32_t, uint32_t size) -> void * {
    auto *c = static_cast<Counting *>(ctx);
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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > (1u << 20)) return 0;
  const auto &types = bixfuzz::types();
  const bixfuzz::TypeOps &t = types[data[0] % types.size()];
  wex_sttr_profile profile{(data[1] & 1) ? 0xEEEEu : 0xDDDDu};
  Counting c;
  wex_handle *h = counting_handle(c, &profile);

  const size_t len = size - 2;
  // An exact-size heap copy: any read past the input is caught by the address sanitizer.
  std::unique_ptr<uint8_t[]> input(new uint8_t[len ? len : 1]);
  std::memcpy(input.get(), data + 2, len);

  void *inst = t.create(h, 0);
  require(inst, "create", t.name);
  const uint64_t before = c.bytes;
  uint32_t err = 0;
  uint32_t used = t.unmarshal(h, 0, input.get(), inst, static_cast<int32_t>(len), 0, &err);
  require(used <= len, "decoder consumed more than it was given", t.name);
  // Alternatives are instances of a bounded size; everything else must be paid for by
  // input bytes.
  require(c.bytes - before <= 7u * 4096 + 2 * len, "allocation beyond what the input justifies",
          t.name);

  if (err == 0) {
    // len never counts the ra item that records flagged 0x20 carry, so leave room for it.
    uint32_t need = t.len(h, 0, inst);
    std::vector<uint8_t> first(2 * need + 1024), second(2 * need + 1024);
    uint32_t e1 = 0, e2 = 0, e3 = 0;
    uint32_t n1 = t.marshal(h, 0, first.data(), inst, static_cast<int32_t>(first.size()), &e1);
    if (e1 == 0) {
      void *again = t.create(h, 0);
      uint32_t back = t.unmarshal(h, 0, first.data(), again, static_cast<int32_t>(n1), 0, &e2);
      require(e2 == 0 && back == n1, "own encoding does not decode", t.name);
      uint32_t n2 = t.marshal(h, 0, second.data(), again, static_cast<int32_t>(second.size()), &e3);
      require(e3 == 0 && n1 == n2 && std::memcmp(first.data(), second.data(), n1) == 0,
              "decode/encode is not stable", t.name);
      t.destroy(h, 0, again);
    }
  }
  t.destroy(h, 0, inst);
  require(c.live.empty(), "leak after destroy", t.name);
  h->sttr_profile = nullptr;
  wex_handle_free(h);
  return 0;
}
