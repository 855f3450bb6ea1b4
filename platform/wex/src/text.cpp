// Bounded text writers: indentation, formatted output, XML tags and the
// primitive print / to_xml forms.
//
// Every writer composes its text straight into the caller's buffer: a record
// of a few hundred elements calls them once per element, so they build no
// temporary strings and format integers without the C library's printf.
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <type_traits>

#include "internal.h"

namespace {

// The writers' one truncation rule: at most room - 1 characters are stored,
// always followed by a NUL when room > 0; a text that does not fit whole is
// cut there and reported with 90. Pieces are appended in order, so a
// writer's output is the concatenation of its pieces, cut at the room.
class TextOut {
 public:
  TextOut(char *pos, int32_t room)
      : pos_(pos),
        cap_(pos && room > 0 ? static_cast<size_t>(room) - 1 : 0),
        usable_(pos && room > 0) {}

  void put(const char *text, size_t n) {
    size_t k = n < cap_ - n_ ? n : cap_ - n_;
    if (k) std::memcpy(pos_ + n_, text, k);
    n_ += k;
    if (k < n) cut_ = true;
  }
  void put(std::string_view text) { put(text.data(), text.size()); }
  void put(char c) { put(&c, 1); }
  void blanks(size_t n, size_t = 0) {
    size_t k = n < cap_ - n_ ? n : cap_ - n_;
    std::memset(pos_ + n_, ' ', k);
    n_ += k;
    if (k < n) cut_ = true;
  }
  template <typename T>
  void decimal(T v) {
    char digits[24];
    auto r = std::to_chars(digits, digits + sizeof digits, v);
    put(digits, static_cast<size_t>(r.ptr - digits));
  }
  bool cut() const { return cut_; }

  // Terminates the text and reports a cut; returns the characters stored.
  int32_t finish(wex_handle *h, uint32_t *err) {
    if (usable_) pos_[n_] = '\0';
    if (cut_) wex::fail(h, err, WEX_ERR_NOROOM);
    return static_cast<int32_t>(n_);
  }

 private:
  char *pos_;
  size_t cap_;
  bool usable_;
  size_t n_ = 0;
  bool cut_ = false;
};

// The same pieces written without a check each: for a text known to fit, which is nearly
// always the case, so the cutting path above is the exception.
class FastOut {
 public:
  explicit FastOut(char *pos) : pos_(pos), w_(pos) {}
  void put(const char *text, size_t n) {
    std::memcpy(w_, text, n);
    w_ += n;
  }
  void put(std::string_view text) { put(text.data(), text.size()); }
  void put(char c) { *w_++ = c; }
  // `after`: characters surely written after the blanks. Indentations are short: when the
  // text covers 16 characters anyway, a fixed 16-blank store costs less than a call.
  void blanks(size_t n, size_t after = 0) {
    if (n <= 16 && n + after >= 16)
      std::memcpy(w_, "                ", 16);
    else
      std::memset(w_, ' ', n);
    w_ += n;
  }
  template <typename T>
  void decimal(T v) {
    w_ = std::to_chars(w_, w_ + kMaxDigits, v).ptr;
  }
  int32_t finish() {
    *w_ = '\0';
    return static_cast<int32_t>(w_ - pos_);
  }
  static constexpr size_t kMaxDigits = 20;  // any 64-bit value, sign included

 private:
  char *pos_;
  char *w_;
};

// Writes what `compose` puts into an output: straight when at most `bound` characters
// surely fit (with their NUL), else cut at the room as every writer cuts.
template <typename Compose>
int32_t write_text(wex_handle *h, char *pos, int32_t room, uint32_t *err, size_t bound,
                   Compose &&compose) {
  if (pos && room > 0 && bound < static_cast<size_t>(room)) {
    FastOut out(pos);
    compose(out);
    return out.finish();
  }
  TextOut out(pos, room);
  compose(out);
  return out.finish(h, err);
}

std::string_view safe(const char *s) {
  return s ? s : "";
}

// ` state="S"`: at most this long.
constexpr size_t kStateMax = 12;

template <typename Out>
void open_tag(Out &out, std::string_view name, uint8_t state) {
  out.put('<');
  out.put(name);
  if (state) {
    out.put(" state=\"");
    out.decimal(static_cast<unsigned>(state));
    out.put('"');
  }
  out.put('>');
}

template <typename Out>
void close_tag(Out &out, std::string_view name) {
  out.put("</");
  out.put(name);
  out.put(">\n");
}

// Decimal text of a primitive value, signed or not by the value's type.
template <typename T, typename Out>
void value(Out &out, const void *field) {
  T v;
  std::memcpy(&v, field, sizeof v);
  out.decimal(v);
}

template <typename T>
int32_t prim_print(wex_handle *h, char *pos, uint32_t indent, const char *name,
                   std::string_view type_name, const void *field, int32_t room, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  const std::string_view n = safe(name);
  const size_t bound = size_t{indent} + n.size() + type_name.size() + 3 + FastOut::kMaxDigits;
  return write_text(h, pos, room, err, bound, [&](auto &out) {
    out.blanks(indent, n.size() + type_name.size() + 4);  // "@", ":", a digit, "\n"
    out.put(n);
    out.put('@');
    out.put(type_name);
    out.put(':');
    value<T>(out, field);
    out.put('\n');
  });
}

template <typename T>
int32_t prim_to_xml(wex_handle *h, const char *name, char *pos, const void *field, int32_t room,
                    uint8_t state, uint32_t *err) {
  if (wex::pending(err)) return 0;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  const std::string_view n = safe(name);
  const size_t bound = 2 * n.size() + 6 + kStateMax + FastOut::kMaxDigits;
  return write_text(h, pos, room, err, bound, [&](auto &out) {
    open_tag(out, n, state);
    value<T>(out, field);
    close_tag(out, n);
  });
}

// The conversions the fast formatter handles itself: %s, %d, %i, %u and %%,
// without flags, width, precision or length. Anything else goes to vsnprintf.
bool plain_format(const char *fmt) {
  for (const char *p = fmt; *p; ++p) {
    if (*p != '%') continue;
    char c = *++p;
    if (c != 's' && c != 'd' && c != 'i' && c != 'u' && c != '%') return false;
  }
  return true;
}

void format_plain(TextOut &out, const char *fmt, va_list ap) {
  const char *run = fmt;
  for (const char *p = fmt; *p; ++p) {
    if (*p != '%') continue;
    out.put(run, static_cast<size_t>(p - run));
    switch (*++p) {
      case 's': {
        const char *s = va_arg(ap, const char *);
        out.put(s ? s : "(null)");  // as the C library prints it
        break;
      }
      case 'd':
      case 'i':
        out.decimal(va_arg(ap, int));
        break;
      case 'u':
        out.decimal(va_arg(ap, unsigned));
        break;
      default:
        out.put('%');
        break;
    }
    run = p + 1;
  }
  out.put(run);
}

}  // namespace

namespace wex {

int32_t put_text(wex_handle *h, char *pos, int32_t room, const char *text, size_t n,
                 uint32_t *err) {
  TextOut out(pos, room);
  out.put(text, n);
  return out.finish(h, err);
}

int32_t put_text(wex_handle *h, char *pos, int32_t room, std::string_view text, uint32_t *err) {
  return put_text(h, pos, room, text.data(), text.size(), err);
}

}  // namespace wex

extern "C" {

int32_t wex_print_space(wex_handle *h, uint32_t, char *pos, uint32_t indent, int32_t room,
                        uint32_t *err) {
  if (wex::pending(err)) return 0;
  TextOut out(pos, room);
  out.blanks(indent);
  return out.finish(h, err);
}

int32_t wex_snprintf(wex_handle *h, uint32_t, char *pos, int32_t room, uint32_t *err,
                     const char *fmt, ...) {
  if (wex::pending(err)) return 0;
  if (!fmt) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return 0;
  }
  va_list ap;
  va_start(ap, fmt);
  TextOut out(pos, room);
  if (plain_format(fmt)) {
    format_plain(out, fmt, ap);
    va_end(ap);
    return out.finish(h, err);
  }
  // Bounded by the room itself: the C library cuts and terminates; its count
  // says whether everything fitted. An encoding error stores nothing.
  const bool usable = pos && room > 0;
  char none[1];
  int n = std::vsnprintf(usable ? pos : none, usable ? static_cast<size_t>(room) : 1, fmt, ap);
  va_end(ap);
  if (n <= 0) {
    if (usable) pos[0] = '\0';
    return 0;
  }
  const int32_t cap = usable ? room - 1 : 0;
  if (n > cap) {
    wex::fail(h, err, WEX_ERR_NOROOM);
    return cap;
  }
  return n;
}

int32_t start_tag(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room, uint8_t state,
                  uint32_t *err) {
  if (wex::pending(err)) return 0;
  const std::string_view n = safe(name);
  return write_text(h, pos, room, err, n.size() + 3 + kStateMax, [&](auto &out) {
    open_tag(out, n, state);
    out.put('\n');
  });
}

int32_t end_tag(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room, uint32_t *err) {
  // Closes the element even after a failure, so output stays well formed;
  // a pending code is never replaced by this writer's own.
  uint32_t local = 0;
  const std::string_view n = safe(name);
  return write_text(h, pos, room, wex::pending(err) ? &local : err, n.size() + 4,
                    [&](auto &out) { close_tag(out, n); });
}

int32_t start_tag_timestamp(wex_handle *h, uint32_t, char *pos, const char *name, int32_t room,
                            uint32_t *err) {
  if (wex::pending(err)) return 0;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char stamp[48];
  int n = std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ",
                        utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min,
                        utc.tm_sec, now.tv_nsec / 1000);
  TextOut out(pos, room);
  out.put('<');
  out.put(safe(name));
  out.put(" timestamp=\"");
  out.put(stamp, n > 0 ? static_cast<size_t>(n) : 0);
  out.put("\">\n");
  return out.finish(h, err);
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
