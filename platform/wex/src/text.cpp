// Bounded text writers: indentation, formatted output, XML tags and the
// primitive print / to_xml forms.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <type_traits>

#include "internal.h"

namespace wex {

int32_t put_text(wex_handle *h, char *pos, int32_t room, const char *text, size_t n,
                 uint32_t *err) {
  if (!pos || room <= 0) {
    if (n) fail(h, err, WEX_ERR_NOROOM);
    return 0;
  }
  size_t cap = static_cast<size_t>(room) - 1;
  size_t stored = n < cap ? n : cap;
  std::memcpy(pos, text, stored);
  pos[stored] = '\0';
  if (stored < n) fail(h, err, WEX_ERR_NOROOM);
  return static_cast<int32_t>(stored);
}

int32_t put_text(wex_handle *h, char *pos, int32_t room, std::string_view text, uint32_t *err) {
  return put_text(h, pos, room, text.data(), text.size(), err);
}

}  // namespace wex

namespace {

// Formats into a std::string first so that one bounded copy serves every
// writer, whatever the length of the text.
std::string vformat(const char *fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int n = std::vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n <= 0) return {};
  std::string out(static_cast<size_t>(n), '\0');
  std::vsnprintf(out.data(), out.size() + 1, fmt, ap);
  return out;
}

std::string format(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string out = vformat(fmt, ap);
  va_end(ap);
  return out;
}

const char *safe(const char *s) {
  return s ? s : "";
}

std::string open_tag(const char *name, uint8_t state) {
  return state ? format("<%s state=\"%u\">", safe(name), state) : format("<%s>", safe(name));
}

// Decimal text of a primitive value, signed or not by the value's type.
template <typename T>
std::string decimal(const void *field) {
  T v;
  std::memcpy(&v, field, sizeof v);
  if constexpr (std::is_signed_v<T>) {
    return format("%" PRId64, static_cast<int64_t>(v));
  } else {
    return format("%" PRIu64, static_cast<uint64_t>(v));
  }
}

template <typename T>
int32_t prim_print(wex_handle *h, char *pos, uint32_t indent, const char *name,
                   const char *type_name, const void *field, int32_t room, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  int32_t n = wex_print_space(h, 0, pos, indent, room, err);
  if (wex::pending(err)) return n;
  try {
    std::string line = format("%s@%s:", safe(name), type_name) + decimal<T>(field) + "\n";
    return n + wex::put_text(h, pos + n, room - n, line, err);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
    return 0;
  }
}

template <typename T>
int32_t prim_to_xml(wex_handle *h, const char *name, char *pos, const void *field, int32_t room,
                    uint8_t state, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  try {
    std::string element = open_tag(name, state) + decimal<T>(field);
    element += format("</%s>\n", safe(name));
    return wex::put_text(h, pos, room, element, err);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
    return 0;
  }
}

}  // namespace

extern "C" {

int32_t wex_print_space(wex_handle *h, uint32_t, char *pos, uint32_t indent, int32_t room,
                        uint32_t *err) {
  if (wex::pending(err)) return 0;
  bool usable = pos && room > 0;
  size_t cap = usable ? static_cast<size_t>(room) - 1 : 0;
  size_t n = indent < cap ? indent : cap;
  if (usable) {
    std::memset(pos, ' ', n);
    pos[n] = '\0';
  }
  if (n < indent) wex::fail(h, err, WEX_ERR_NOROOM);
  return static_cast<int32_t>(n);
}

int32_t wex_snprintf(wex_handle *h, uint32_t, char *pos, int32_t room, uint32_t *err,
                     const char *fmt, ...) {
  if (wex::pending(err)) return 0;
  if (!fmt) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  try {
    va_list ap;
    va_start(ap, fmt);
    std::string text = vformat(fmt, ap);
    va_end(ap);
    return wex::put_text(h, pos, room, text, err);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
    return 0;
  }
}

int32_t start_tag(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room, uint8_t state,
                  uint32_t *err) {
  if (wex::pending(err)) return 0;
  try {
    return wex::put_text(h, pos, room, open_tag(name, state) + "\n", err);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
    return 0;
  }
}

int32_t end_tag(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room, uint32_t *err) {
  // Closes the element even after a failure, so output stays well formed;
  // a pending code is never replaced by this writer's own.
  uint32_t local = 0;
  uint32_t *slot = wex::pending(err) ? &local : err;
  try {
    return wex::put_text(h, pos, room, format("</%s>\n", safe(name)), slot);
  } catch (...) {
    wex::fail(h, slot, WEX_ERR_NOMEM);
    return 0;
  }
}

int32_t start_tag_timestamp(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room,
                            uint32_t *err) {
  if (wex::pending(err)) return 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  try {
    std::string tag = format("<%s timestamp=\"%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ\">\n",
                             safe(name), utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                             utc.tm_hour, utc.tm_min, utc.tm_sec, now.tv_nsec / 1000);
    return wex::put_text(h, pos, room, tag, err);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
    return 0;
  }
}

int32_t xml_enum_print(wex_handle *h, uint32_t, char *pos, const char *text, int32_t room,
                       uint32_t textlen, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!text) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  return wex::put_text(h, pos, room, text, strnlen(text, textlen), err);
}

#define WEX_PRIMITIVE_TEXT(P, T)                                                              \
  int32_t P##_print(wex_handle *h, uint32_t, char *pos, uint32_t indent, const char *name,    \
                    const void *field, int32_t room, uint32_t *err) {                         \
    return prim_print<T>(h, pos, indent, name, #P, field, room, err);                         \
  }                                                                                           \
  int32_t P##_to_xml(wex_handle *h, uint32_t, const char *name, char *pos, const void *field, \
                     int32_t room, uint8_t state, uint32_t *err) {                            \
    return prim_to_xml<T>(h, name, pos, field, room, state, err);                             \
  }

WEX_FOR_EACH_PRIMITIVE(WEX_PRIMITIVE_TEXT)

}  // extern "C"
