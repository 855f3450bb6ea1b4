// Test helpers around the runtime's handle.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wex.h"

namespace wex_test {

struct HandleDeleter {
  void operator()(wex_handle *h) const { wex_handle_free(h); }
};
using Handle = std::unique_ptr<wex_handle, HandleDeleter>;

inline Handle make_handle() {
  return Handle(wex_handle_new());
}

// Takes over a handle's hooks and records every write they announce.
struct WriteLog {
  struct Write {
    void *addr;
    uint32_t len;
  };
  std::vector<Write> writes;

  static void on_write(void *ctx, void *addr, uint32_t len, uint32_t) {
    static_cast<WriteLog *>(ctx)->writes.push_back({addr, len});
  }
  void attach(wex_handle *h) {
    h->alloc_ctx = this;
    h->notify_write = on_write;
  }
};

inline std::vector<uint8_t> bytes(const uint8_t *p, size_t n) {
  return {p, p + n};
}

}  // namespace wex_test
