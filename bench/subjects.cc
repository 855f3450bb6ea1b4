#include "subjects.h"

#include <dlfcn.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

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

const bixfacts::Type *facts_type(std::string_view name) {
  for (const auto &t : bixfacts::kTypes)
    if (name == t.name) return &t;
  return nullptr;
}

// The fields of one type, in declaration order (the order `link` indexes).
std::vector<const bixfacts::Field *> facts_fields(std::string_view type) {
  std::vector<const bixfacts::Field *> out;
  for (const auto &f : bixfacts::kFields)
    if (type == f.type) out.push_back(&f);
  return out;
}

uint8_t *state_area(wex_handle *h, void *inst, const bixfacts::Type &t) {
  uint8_t *b = static_cast<uint8_t *>(inst);
  return (b[10] & WEX_OBJ_FLAG_STTR_OFFSET) ? b + wexlib_get_sttr_offset(h, 0, inst)
                                            : b + t.fixed_size;
}

// Every field non-zero, every nested record and record array element filled, the union
// alternative `alt` created and filled, variable arrays `var_len` elements long; on a
// tracked instance every state byte is set as well.
bool fill(wex_handle *h, std::string_view type, void *inst, uint8_t seed, uint32_t alt,
          uint32_t var_len) {
  const bixfacts::Type *t = facts_type(type);
  if (!t || !inst) return false;
  uint8_t *b = static_cast<uint8_t *>(inst);
  uint8_t *area = (b[10] & WEX_OBJ_FLAG_STTR) ? state_area(h, inst, *t) : nullptr;
  uint8_t v = seed;
  auto next = [&] { return v = static_cast<uint8_t>(v * 13 + 7) | 1; };
  const auto fields = facts_fields(type);
  for (const bixfacts::Field *fp : fields) {
    const bixfacts::Field &f = *fp;
    const std::string_view kind = f.kind;
    uint8_t *at = b + f.offset;
    if (kind == "Prim" || kind == "FixedArray") {
      const std::string_view p = f.prim;
      uint32_t width = p.ends_with("32") ? 4 : p.ends_with("16") ? 2 : 1;
      uint32_t n = width * (kind == "Prim" ? 1 : f.count);
      for (uint32_t i = 0; i < n; ++i) at[i] = next();
    } else if (kind == "Enum") {
      uint32_t value = 1;  // a literal of every enumeration
      std::memcpy(at + 12, &value, 4);
    } else if (kind == "Selector") {
      std::memcpy(at + 12, &alt, 4);
    } else if (kind == "Flags") {
      at[11] = next();
      at[12] = next() & 0x1F;
    } else if (kind == "Record") {
      if (!fill(h, f.member, at, next(), alt, var_len)) return false;
    } else if (kind == "RecordArray") {
      for (uint32_t k = 0; k < f.count; ++k)
        if (!fill(h, f.member, at + k * f.elem_size, next(), alt, var_len)) return false;
    } else if (kind == "VarArray") {
      if (f.link < 0 || static_cast<size_t>(f.link) >= fields.size()) return false;
      const uint32_t bytes = var_len * f.elem_size;
      auto *data = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, bytes ? bytes : 1));
      if (!data) return false;
      for (uint32_t i = 0; i < bytes; ++i) data[i] = next();
      std::memcpy(at, &data, sizeof data);
      std::memcpy(b + fields[static_cast<size_t>(f.link)]->offset, &var_len, 4);
      if (area) {
        auto *states = static_cast<uint8_t *>(h->allocate(h->alloc_ctx, 0, var_len ? var_len : 1));
        if (!states) return false;
        for (uint32_t i = 0; i < var_len; ++i) states[i] = next();
        std::memcpy(area + f.sttr_ptr, &states, sizeof states);
      }
    } else if (kind == "UnionAlt" && f.count == alt) {
      auto create = reinterpret_cast<CreateFn>(
          dlsym(RTLD_DEFAULT, (std::string(f.member) + "_create").c_str()));
      void *a = create ? create(h, 0) : nullptr;
      if (!a || !fill(h, f.member, a, next(), alt, var_len)) return false;
      std::memcpy(at, &a, sizeof a);
    }
    // kind "Count" is set with its variable array.
    if (area) {
      area[f.sttr] = next();
      if (kind == "FixedArray" || kind == "RecordArray")
        for (uint32_t k = 0; k < f.count; ++k) area[f.sttr_elems + k] = next();
    }
  }
  return true;
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
  if (!src || !dst || !fill(h, c.ops.type, src, 11, c.alt, c.var_len)) {
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
