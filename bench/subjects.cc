#include "subjects.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "../tests/wire/fill.h"
#include "bix_schema_facts.h"

namespace bixbench {
namespace {

#define BIX_BENCH_OPS(T)                                                                       \
  Ops {                                                                                        \
#T, [](wex_handle *h, uint32_t ws) -> void * { return T##_create(h, ws); },                  \
        [](wex_handle *h, uint32_t ws, void *i) { T##_destroy(h, ws, static_cast<T *>(i)); },    \
        [](wex_handle *h, uint32_t ws, const void *i) {                                          \
          return T##_len(h, ws, static_cast<const T *>(i));                                      \
        },                                                                                       \
        [](wex_handle *h, uint32_t ws, uint8_t *buf, const void *i, int32_t len, uint32_t *err) { \
          return T##_marshal(h, ws, buf, static_cast<const T *>(i), len, err);                   \
        },                                                                                       \
        [](wex_handle *h, uint32_t ws, const uint8_t *buf, void *i, int32_t len, uint32_t reuse, \
           uint32_t *err) { return T##_unmarshal(h, ws, buf, static_cast<T *>(i), len, reuse, err); } \
  }

}  // namespace

const std::vector<Case> &cases() {
  static const std::vector<Case> all = {
      {"status_info", BIX_BENCH_OPS(wex_xcvr_status_info), 6, 0},  // 6: qsfp_sensors
      {"envm_sensor_data", BIX_BENCH_OPS(wex_bix_envm_sensor_data), 1, 0},
      {"shim_data_1k", BIX_BENCH_OPS(ipc_shim_data), 1, 1024},
  };
  return all;
}

const Case *find_case(const std::string &name) {
  for (const Case &c : cases())
    if (name == c.label || name == c.ops.type) return &c;
  return nullptr;
}

void Buffer::assign(const uint8_t *from, size_t n) {
  mem_.assign(n + 64, 0);
  p_ = mem_.data() + (64 - reinterpret_cast<uintptr_t>(mem_.data()) % 64) % 64;
  n_ = n;
  std::memcpy(p_, from, n);
}

Subject::Subject(const Case &cs, bool track) : c(cs), tracking(track) {
  h = wex_handle_new();
  if (!h) {
    error = "wex_handle_new failed";
    return;
  }
  profile_.tracking_mode = WEX_STTR_ON;
  h->sttr_profile = tracking ? &profile_ : nullptr;
  src = c.ops.create(h, 0);
  dst = c.ops.create(h, 0);
  if (src) bixtest::fill(h, std::string(c.ops.type), src, 11, c.alt, c.var_len);
  if (!src || !dst) {
    error = std::string("cannot create and fill ") + c.ops.type;
    return;
  }
  room = len();
  std::vector<uint8_t> zeros(room, 0);
  out.assign(zeros.data(), room);
  uint32_t err = 0;
  const uint32_t n = marshal(&err);
  // With state tracking on, a record ending in a union is one byte shorter than len()
  // says (its last state byte wants two bytes of room).
  if (err || n > room || n + 1 < room) {
    error = std::string(c.ops.type) + "_marshal: err " + std::to_string(err) + ", " +
            std::to_string(n) + " of " + std::to_string(room) + " bytes";
    return;
  }
  wire.assign(out.data(), n);
  const uint32_t read = unmarshal(&err);
  if (err || read != n) {
    error = std::string(c.ops.type) + "_unmarshal: err " + std::to_string(err) + ", " +
            std::to_string(read) + " of " + std::to_string(n) + " bytes";
    return;
  }
  // The decoded copy must encode to the same bytes.
  const uint32_t again = c.ops.marshal(h, 0, out.data(), dst, static_cast<int32_t>(room), &err);
  if (err || again != n || std::memcmp(out.data(), wire.data(), n) != 0)
    error = std::string(c.ops.type) + ": decoded copy encodes differently";
}

Subject::~Subject() {
  if (!h) return;
  if (src) c.ops.destroy(h, 0, src);
  if (dst) c.ops.destroy(h, 0, dst);
  h->sttr_profile = nullptr;
  wex_handle_free(h);
}

const char *codec_path() {
  const char *e = std::getenv("BIX_IPC_SHIM_NO_BULK");
  const bool off = e && *e && *e != '0';
  const bool present = dlsym(RTLD_DEFAULT, "wex_u_int8_array_marshal") != nullptr;
  return off || !present ? "per-element" : "bulk";
}

void use_per_element_codecs() {
  setenv("BIX_IPC_SHIM_NO_BULK", "1", 1);
}

}  // namespace bixbench
