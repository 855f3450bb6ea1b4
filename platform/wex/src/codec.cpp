// Byte forms: instance prefix items, the message header and the primitive
// integer codecs. Integers travel in network byte order.
#include <bit>
#include <type_traits>

#include "internal.h"

namespace {

template <typename T>
using Unsigned = std::make_unsigned_t<T>;

template <typename T>
void store_be(uint8_t *p, T value) {
  auto u = static_cast<Unsigned<T>>(value);
  for (size_t i = sizeof(T); i-- > 0;) {
    p[i] = static_cast<uint8_t>(u & 0xFFu);
    if constexpr (sizeof(T) > 1) u = static_cast<Unsigned<T>>(u >> 8);
  }
}

template <typename T>
T load_be(const uint8_t *p) {
  Unsigned<T> u = 0;
  for (size_t i = 0; i < sizeof(T); ++i) u = static_cast<Unsigned<T>>((u << 8) | p[i]);
  return static_cast<T>(u);
}

template <typename T>
T load_host(const void *field) {
  T v;
  std::memcpy(&v, field, sizeof v);
  return v;
}

// Room and length checks shared by every writer and reader. A writer with
// too little room writes nothing (90); a reader with too few bytes reads
// nothing (74).
//
// Framing items (variant, flags, ra, jump) are written and read whatever
// the slot holds: a record keeps its prefix and its jump even after a
// failure (a type its domain does not admit encodes as the bare prefix).
// They never replace a pending code with their own.
enum class Mode { kGuarded, kFraming };

bool check(wex_handle *h, const void *pos, const void *value, int32_t have, size_t need,
           uint32_t short_code, Mode mode, uint32_t *err) {
  const bool was_pending = wex::pending(err);
  if (was_pending && mode == Mode::kGuarded) return false;
  uint32_t code = 0;
  if (!pos || !value) {
    code = WEX_ERR_INVALID;
  } else if (have < 0 || static_cast<size_t>(have) < need) {
    code = short_code;
  }
  if (code && !was_pending) wex::fail(h, err, code);
  return code == 0;
}

bool can_write(wex_handle *h, const void *pos, const void *value, int32_t room, size_t need,
               uint32_t *err, Mode mode = Mode::kGuarded) {
  return check(h, pos, value, room, need, WEX_ERR_NOROOM, mode, err);
}

bool can_read(wex_handle *h, const void *pos, const void *value, int32_t len, size_t need,
              uint32_t *err, Mode mode = Mode::kGuarded) {
  return check(h, pos, value, len, need, WEX_ERR_TRUNCATED, mode, err);
}

template <typename T>
uint32_t write_item(wex_handle *h, uint8_t *pos, const T *value, int32_t room, uint32_t *err,
                    Mode mode = Mode::kGuarded) {
  if (!can_write(h, pos, value, room, sizeof(T), err, mode)) return 0;
  store_be<T>(pos, load_host<T>(value));
  return sizeof(T);
}

template <typename T>
uint32_t read_item(wex_handle *h, const uint8_t *pos, T *value, int32_t len, uint32_t *err,
                   Mode mode = Mode::kGuarded) {
  if (!can_read(h, pos, value, len, sizeof(T), err, mode)) return 0;
  T v = load_be<T>(pos);
  std::memcpy(value, &v, sizeof v);
  return sizeof(T);
}

// ---- Primitive operations ----------------------------------------------------

template <typename T>
T prim_get_value(wex_handle *h, const void *field, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  return load_host<T>(field);
}

// Stores even while a code is pending: a caller setting several fields in one call (a
// record's set_all) keeps storing the later ones after one of them was refused. A NULL
// field reports 22 only when nothing is pending, so the first code stays.
template <typename T>
void prim_set_value(wex_handle *h, uint32_t ws, void *field, T value, uint32_t *err) {
  if (!field) {
    if (!wex::pending(err)) wex::fail(h, err, WEX_ERR_INVALID);
    return;
  }
  wex::notify_write(h, ws, field, sizeof(T));
  std::memcpy(field, &value, sizeof value);
}

template <typename T>
void prim_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err) {
  if (wex::pending(err)) return;
  if (!src) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return;
  }
  prim_set_value<T>(h, ws, field, load_host<T>(src), err);
}

// One block of a well-known 32-bit mixer: cheap, and every input bit
// reaches every output bit.
template <typename T>
uint32_t prim_hash(const void *field, uint32_t seed) {
  if (!field) return seed;
  auto k = static_cast<uint32_t>(static_cast<int64_t>(load_host<T>(field)));
  k *= 0xcc9e2d51u;
  k = std::rotl(k, 15);
  k *= 0x1b873593u;
  uint32_t x = seed ^ k;
  x = std::rotl(x, 13) * 5u + 0xe6546b64u;
  x ^= static_cast<uint32_t>(sizeof(T));
  x ^= x >> 16;
  x *= 0x85ebca6bu;
  x ^= x >> 13;
  x *= 0xc2b2ae35u;
  x ^= x >> 16;
  return x;
}

template <typename T>
uint32_t prim_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field, int32_t len,
                        uint32_t *err) {
  if (!can_read(h, pos, field, len, sizeof(T), err)) return 0;
  wex::notify_write(h, ws, field, sizeof(T));
  T v = load_be<T>(pos);
  std::memcpy(field, &v, sizeof v);
  return sizeof(T);
}

template <typename T>
uint32_t array_marshal(wex_handle *h, uint8_t *pos, const void *elems, uint32_t count, int32_t room,
                       uint32_t *err) {
  if (wex::pending(err) || count == 0) return 0;
  if (!pos || !elems) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  size_t fit = room > 0 ? static_cast<size_t>(room) / sizeof(T) : 0;
  size_t n = fit < count ? fit : count;
  const auto *src = static_cast<const uint8_t *>(elems);
  if constexpr (sizeof(T) == 1) {
    std::memcpy(pos, src, n);  // bytes have no order to convert
  } else {
    for (size_t i = 0; i < n; ++i)
      store_be<T>(pos + i * sizeof(T), load_host<T>(src + i * sizeof(T)));
  }
  if (n < count) wex::fail(h, err, WEX_ERR_NOROOM);
  return static_cast<uint32_t>(n * sizeof(T));
}

template <typename T>
uint32_t array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *elems,
                         uint32_t count, int32_t len, uint32_t *err) {
  if (wex::pending(err) || count == 0) return 0;
  if (!pos || !elems) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  size_t fit = len > 0 ? static_cast<size_t>(len) / sizeof(T) : 0;
  size_t n = fit < count ? fit : count;
  if (n) wex::notify_write(h, ws, elems, static_cast<uint32_t>(n * sizeof(T)));
  auto *dst = static_cast<uint8_t *>(elems);
  if constexpr (sizeof(T) == 1) {
    std::memcpy(dst, pos, n);
  } else {
    for (size_t i = 0; i < n; ++i) {
      T v = load_be<T>(pos + i * sizeof(T));
      std::memcpy(dst + i * sizeof(T), &v, sizeof v);
    }
  }
  if (n < count) wex::fail(h, err, WEX_ERR_TRUNCATED);
  return static_cast<uint32_t>(n * sizeof(T));
}

// Header record bytes, as the message object lays them out.
constexpr size_t kRecordStamp = 8;
constexpr size_t kRecordLength = 12;
// Message header bytes.
constexpr size_t kHeaderVersion = 8;
constexpr size_t kHeaderSize = 9;
constexpr size_t kHeaderStamp = 11;
constexpr size_t kHeaderLength = 15;
constexpr size_t kHeaderReserved = 19;

}  // namespace

extern "C" {

uint32_t _wex_instance_variant_marshal(wex_handle *h, uint32_t, uint8_t *pos, const int8_t *variant,
                                       int32_t room, uint32_t *err) {
  return write_item(h, pos, variant, room, err, Mode::kFraming);
}

uint32_t _wex_instance_variant_unmarshal(wex_handle *h, uint32_t, const uint8_t *pos,
                                         int8_t *variant, int32_t len, uint32_t *err) {
  return read_item(h, pos, variant, len, err, Mode::kFraming);
}

uint32_t _wex_instance_obj_flag_marshal(wex_handle *h, uint32_t, uint8_t *pos, const uint8_t *flags,
                                        int32_t room, uint32_t *err) {
  return write_item(h, pos, flags, room, err, Mode::kFraming);
}

uint32_t _wex_instance_obj_flag_unmarshal(wex_handle *h, uint32_t, const uint8_t *pos,
                                          uint8_t *flags, int32_t len, uint32_t *err) {
  return read_item(h, pos, flags, len, err, Mode::kFraming);
}

uint32_t _wex_instance_ra_data_marshal(wex_handle *h, uint32_t, uint8_t *pos, const uint64_t *value,
                                       const uint8_t *byte, int32_t room, uint32_t *err) {
  const void *both = byte ? value : nullptr;
  if (!can_write(h, pos, both, room, WEX_INSTANCE_RA_DATA_SIZE, err, Mode::kFraming)) return 0;
  store_be<uint64_t>(pos, *value);
  pos[8] = *byte;
  return WEX_INSTANCE_RA_DATA_SIZE;
}

uint32_t _wex_instance_ra_data_unmarshal(wex_handle *h, uint32_t, const uint8_t *pos,
                                         uint64_t *value, uint8_t *byte, int32_t len,
                                         uint32_t *err) {
  const void *both = byte ? value : nullptr;
  if (!can_read(h, pos, both, len, WEX_INSTANCE_RA_DATA_SIZE, err, Mode::kFraming)) return 0;
  *value = load_be<uint64_t>(pos);
  *byte = pos[8];
  return WEX_INSTANCE_RA_DATA_SIZE;
}

uint32_t _wex_variant_jump_marshal(wex_handle *h, uint32_t, uint8_t *pos, const uint32_t *jump,
                                   int32_t room, uint32_t *err) {
  return write_item(h, pos, jump, room, err, Mode::kFraming);
}

uint32_t _wex_variant_jump_unmarshal(wex_handle *h, uint32_t, const uint8_t *pos, uint32_t *jump,
                                     int32_t len, uint32_t *err) {
  return read_item(h, pos, jump, len, err, Mode::kFraming);
}

uint32_t _wex_message_header_marshal(wex_handle *h, uint32_t, uint8_t *pos,
                                     const void *header_record, int32_t room, uint32_t *err) {
  if (!can_write(h, pos, header_record, room, WEX_MESSAGE_HEADER_SIZE, err)) return 0;
  const auto *rec = static_cast<const uint8_t *>(header_record);
  std::memcpy(pos, rec, kHeaderVersion);
  pos[kHeaderVersion] = WEX_MESSAGE_HEADER_VERSION;
  store_be<uint16_t>(pos + kHeaderSize, WEX_MESSAGE_HEADER_SIZE);
  store_be<uint32_t>(pos + kHeaderStamp, load_host<uint32_t>(rec + kRecordStamp));
  store_be<uint32_t>(pos + kHeaderLength, load_host<uint32_t>(rec + kRecordLength));
  std::memset(pos + kHeaderReserved, 0, WEX_MESSAGE_HEADER_SIZE - kHeaderReserved);
  return WEX_MESSAGE_HEADER_SIZE;
}

uint32_t _wex_message_header_unmarshal(wex_handle *h, uint32_t, const uint8_t *pos,
                                       void *header_record, int32_t len, uint32_t *err) {
  if (!can_read(h, pos, header_record, len, WEX_MESSAGE_HEADER_SIZE, err)) return 0;
  uint32_t total = load_be<uint32_t>(pos + kHeaderLength);
  if (pos[kHeaderVersion] != WEX_MESSAGE_HEADER_VERSION ||
      load_be<uint16_t>(pos + kHeaderSize) != WEX_MESSAGE_HEADER_SIZE ||
      total < WEX_MESSAGE_HEADER_SIZE || total > static_cast<uint32_t>(len)) {
    wex::fail(h, err, WEX_ERR_TRUNCATED);
    return 0;
  }
  auto *rec = static_cast<uint8_t *>(header_record);
  std::memcpy(rec, pos, kHeaderVersion);
  uint32_t stamp = load_be<uint32_t>(pos + kHeaderStamp);
  std::memcpy(rec + kRecordStamp, &stamp, sizeof stamp);
  std::memcpy(rec + kRecordLength, &total, sizeof total);
  return WEX_MESSAGE_HEADER_SIZE;
}

const wex_byte_form *wex_byte_form_get(const wex_handle *h) {
  static const wex_byte_form form = {WEX_BYTE_FORM_VERSION,
                                     WEX_BYTE_ORDER_BIG,
                                     WEX_INSTANCE_VARIANT_SIZE,
                                     WEX_INSTANCE_OBJ_FLAG_SIZE,
                                     WEX_VARIANT_JUMP_SIZE,
                                     WEX_INSTANCE_RA_DATA_SIZE,
                                     {1, 1, 2, 2, 4, 4},
                                     1,
                                     1,
                                     {0, 0, 0}};
  const wex::HandleState *s = wex::state_of(const_cast<wex_handle *>(h));
  return s && s->byte_form_withheld ? nullptr : &form;
}

void wex_handle_declare_byte_form(wex_handle *h, int declare) {
  if (wex::HandleState *s = wex::state_of(h)) s->byte_form_withheld = declare == 0;
}

uint64_t wex_domain_generation(const wex_handle *, const wex_domain *domain) {
  return domain && domain->state ? domain->state->generation : 0;
}

#define WEX_PRIMITIVE_CODEC(P, T)                                                                  \
  void *P##_get(wex_handle *, uint32_t, void *field, uint32_t *err) {                              \
    return wex::pending(err) ? nullptr : field;                                                    \
  }                                                                                                \
  T P##_get_value(wex_handle *h, uint32_t, const void *field, uint32_t *err) {                     \
    return prim_get_value<T>(h, field, err);                                                       \
  }                                                                                                \
  void P##_set(wex_handle *h, uint32_t ws, void *field, const void *src, uint32_t *err) {          \
    prim_set<T>(h, ws, field, src, err);                                                           \
  }                                                                                                \
  void P##_set_value(wex_handle *h, uint32_t ws, void *field, T value, uint32_t *err) {            \
    prim_set_value<T>(h, ws, field, value, err);                                                   \
  }                                                                                                \
  uint32_t P##_hash(const void *field, uint32_t seed) {                                            \
    return prim_hash<T>(field, seed);                                                              \
  }                                                                                                \
  uint32_t P##_marshal(wex_handle *h, uint32_t, uint8_t *pos, const void *field, int32_t room,     \
                       uint32_t *err) {                                                            \
    return write_item(h, pos, static_cast<const T *>(field), room, err);                           \
  }                                                                                                \
  uint32_t P##_len(wex_handle *, uint32_t, const void *) {                                         \
    return sizeof(T);                                                                              \
  }                                                                                                \
  uint32_t P##_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *field, int32_t len, \
                         uint32_t, uint32_t *err) {                                                \
    return prim_unmarshal<T>(h, ws, pos, field, len, err);                                         \
  }                                                                                                \
  uint32_t wex_##P##_array_marshal(wex_handle *h, uint32_t, uint8_t *pos, const void *elems,       \
                                   uint32_t count, int32_t room, uint32_t *err) {                  \
    return array_marshal<T>(h, pos, elems, count, room, err);                                      \
  }                                                                                                \
  uint32_t wex_##P##_array_unmarshal(wex_handle *h, uint32_t ws, const uint8_t *pos, void *elems,  \
                                     uint32_t count, int32_t len, uint32_t *err) {                 \
    return array_unmarshal<T>(h, ws, pos, elems, count, len, err);                                 \
  }

WEX_FOR_EACH_PRIMITIVE(WEX_PRIMITIVE_CODEC)

}  // extern "C"
