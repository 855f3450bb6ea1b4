// Module registry, trace formatting and sinks of the trace facility.

#include "lumo.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace {

// ---------------------------------------------------------------------------
// Module registry.

constexpr size_t kMaxModules = 0xFFFF;  // ids are u16 and 0 means "none"

std::mutex g_registry_mutex;
// A deque never moves its elements, so c_str() pointers handed out by
// lumo_module_name stay valid while later modules register.
std::deque<std::string> g_module_names;  // id i is at index i - 1
std::unordered_map<std::string, uint16_t> g_module_ids;

int register_module(const char *name, uint16_t *module_id, uint32_t *reg_state) noexcept {
  std::atomic_ref<uint32_t> state(*reg_state);
  try {
    std::lock_guard lock(g_registry_mutex);
    // Another thread may have finished while this one waited for the lock.
    if (state.load(std::memory_order_acquire) == LUMO_REG_STATE_REGISTERED) return 0;
    std::string key(name, strnlen(name, LUMO_MODULE_NAME_MAX));
    auto found = g_module_ids.find(key);
    uint16_t id;
    if (found != g_module_ids.end()) {
      id = found->second;
    } else {
      if (g_module_names.size() >= kMaxModules) return -1;
      id = static_cast<uint16_t>(g_module_names.size() + 1);
      g_module_names.push_back(key);
      try {
        g_module_ids.emplace(std::move(key), id);
      } catch (...) {
        g_module_names.pop_back();  // keep the two views in step
        throw;
      }
    }
    *module_id = id;
    // Release: whoever sees the mark also sees the id.
    state.store(LUMO_REG_STATE_REGISTERED, std::memory_order_release);
    return 0;
  } catch (...) {
    return -1;
  }
}

// ---------------------------------------------------------------------------
// Formatting.

struct Arg {
  const char *str;  // used when is_string
  uint32_t num;
  bool is_string;
};

// Appends into a fixed buffer, silently dropping what does not fit.
class TextBuffer {
 public:
  void append(const char *s, size_t n) {
    size_t room = LUMO_TEXT_MAX - 1 - len_;
    if (n > room) n = room;
    memcpy(buf_ + len_, s, n);
    len_ += n;
    buf_[len_] = '\0';
  }
  void append(const char *s) { append(s, strlen(s)); }

  // snprintf straight into the remaining room; `fmt` is built by us, never
  // taken from a trace table, so its conversion always matches `value`.
  template <typename T>
  void append_formatted(const char *fmt, T value) {
    size_t room = LUMO_TEXT_MAX - len_;
    int n = snprintf(buf_ + len_, room, fmt, value);
    if (n < 0) return;
    len_ += static_cast<size_t>(n) < room ? static_cast<size_t>(n) : room - 1;
  }

  const char *text() const { return buf_; }

 private:
  char buf_[LUMO_TEXT_MAX] = {};
  size_t len_ = 0;
};

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_length_modifier(char c) {
  return c == 'h' || c == 'l' || c == 'L' || c == 'q' || c == 'j' || c == 'z' || c == 't';
}

// Widths and precisions beyond this only pad into the truncated tail and
// could overflow snprintf's int result.
constexpr int kMaxFieldWidth = LUMO_TEXT_MAX;

// A conversion directive as read from a table text, rebuilt for snprintf with only
// the flags the final conversion defines (C leaves e.g. "%#d" or "%05s"
// undefined).
struct ConversionSpec {
  std::string_view flags_seen;
  int width = -1;
  int precision = -1;

  void build(char conv, char (&out)[32]) const {
    const char *allowed = "-";
    if (conv == 'd') allowed = "-+ 0";
    if (conv == 'u') allowed = "-0";
    if (conv == 'x' || conv == 'X' || conv == 'o') allowed = "-#0";
    size_t n = 0;
    out[n++] = '%';
    for (char f : std::string_view("-+ #0")) {
      if (strchr(allowed, f) && flags_seen.find(f) != std::string_view::npos) out[n++] = f;
    }
    if (width >= 0) n += static_cast<size_t>(snprintf(out + n, sizeof out - n, "%d", width));
    if (precision >= 0 && conv != 'c') {
      n += static_cast<size_t>(snprintf(out + n, sizeof out - n, ".%d", precision));
    }
    out[n++] = conv;
    out[n] = '\0';
  }
};

int read_number(const char *&q) {
  int value = 0;
  while (is_digit(*q)) {
    value = value * 10 + (*q - '0');
    if (value > kMaxFieldWidth) value = kMaxFieldWidth;
    ++q;
  }
  return value;
}

// Formats `fmt` consuming `args` in order. Only conversions we understand
// reach snprintf, with a directive we rebuilt and an argument of the matching C
// type, so a table text can never make snprintf read a wrong-typed vararg.
void format_trace(TextBuffer &out, const char *fmt, const Arg *args, size_t nargs) {
  size_t next_arg = 0;
  const char *p = fmt;
  while (*p) {
    const char *pct = strchr(p, '%');
    if (!pct) {
      out.append(p);
      return;
    }
    out.append(p, static_cast<size_t>(pct - p));
    const char *q = pct + 1;
    if (*q == '%') {
      out.append("%", 1);
      p = q + 1;
      continue;
    }
    ConversionSpec cs;
    const char *flags = q;
    while (*q && strchr("-+ #0", *q)) ++q;
    cs.flags_seen = std::string_view(flags, static_cast<size_t>(q - flags));
    if (is_digit(*q)) cs.width = read_number(q);
    if (*q == '.') {
      ++q;
      cs.precision = read_number(q);
    }
    while (is_length_modifier(*q)) ++q;
    char conv = *q;
    bool integer_conv = conv == 'd' || conv == 'i' || conv == 'u' || conv == 'x' || conv == 'X' ||
                        conv == 'o' || conv == 'c';
    if ((!integer_conv && conv != 's') || next_arg >= nargs) {
      // Unknown or unsatisfiable: show the directive as written and carry on
      // after it (a trailing lone '%' is copied as is).
      const char *end = conv ? q + 1 : q;
      out.append(pct, static_cast<size_t>(end - pct));
      p = end;
      continue;
    }
    const Arg &arg = args[next_arg++];
    char directive[32];
    if (arg.is_string) {
      cs.build('s', directive);
      out.append_formatted(directive, arg.str ? arg.str : "(null)");
    } else if (conv == 's') {
      cs.build('u', directive);
      out.append_formatted(directive, static_cast<unsigned>(arg.num));
    } else if (conv == 'd' || conv == 'i') {
      cs.build('d', directive);
      out.append_formatted(directive, static_cast<int>(static_cast<int32_t>(arg.num)));
    } else if (conv == 'c') {
      cs.build('c', directive);
      out.append_formatted(directive, static_cast<int>(static_cast<unsigned char>(arg.num)));
    } else {
      cs.build(conv, directive);
      out.append_formatted(directive, static_cast<unsigned>(arg.num));
    }
    p = q + 1;
  }
}

// ---------------------------------------------------------------------------
// Sinks.

std::mutex g_sink_mutex;
lumo_sink_fn g_sink_fn = nullptr;  // null: default sink
void *g_sink_ctx = nullptr;

void default_sink(uint32_t level, uint16_t module_id, const char *text) {
  if (LUMO_LEVEL_SEVERITY(level) > LUMO_LEVEL_SEVERITY(LUMO_LEVEL_ERROR)) return;
  // One write per line so concurrent traces do not interleave mid-line.
  char line[LUMO_TEXT_MAX + LUMO_MODULE_NAME_MAX + 16];
  const char *name = lumo_module_name(module_id);
  size_t text_len = strlen(text);
  const char *newline = (text_len > 0 && text[text_len - 1] == '\n') ? "" : "\n";
  int n = name ? snprintf(line, sizeof line, "%s: %s%s", name, text, newline)
               : snprintf(line, sizeof line, "module %u: %s%s", module_id, text, newline);
  if (n <= 0) return;
  size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
  fwrite(line, 1, len, stderr);
  fflush(stderr);
}

void deliver(uint32_t level, uint16_t module_id, const char *text) {
  lumo_sink_fn fn;
  void *ctx;
  {
    std::lock_guard lock(g_sink_mutex);
    fn = g_sink_fn;
    ctx = g_sink_ctx;
  }
  // Called outside the lock so a sink may itself emit or replace the sink.
  if (fn) {
    fn(ctx, level, text);
  } else {
    default_sink(level, module_id, text);
  }
}

void emit(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
          const Arg *args, size_t nargs) noexcept {
  TextBuffer out;
  const char *fmt = (t && t->formats && idx < t->count) ? t->formats[idx] : nullptr;
  if (fmt) {
    format_trace(out, fmt, args, nargs);
  } else {
    out.append_formatted("bad trace index %u", static_cast<unsigned>(idx));
  }
  deliver(level, module_id, out.text());
}

Arg str_arg(const char *s) {
  return Arg{s, 0, true};
}
Arg num_arg(uint32_t n) {
  return Arg{nullptr, n, false};
}

}  // namespace

extern "C" {

int lumo_module_init_fn(const char *module_name, uint16_t *module_id, uint32_t *reg_state) {
  if (!module_name || !module_id || !reg_state) return -1;
  // The fast path every create takes: one acquire load.
  if (std::atomic_ref<uint32_t>(*reg_state).load(std::memory_order_acquire) ==
      LUMO_REG_STATE_REGISTERED) {
    return 0;
  }
  return register_module(module_name, module_id, reg_state);
}

const char *lumo_module_name(uint16_t id) {
  std::lock_guard lock(g_registry_mutex);
  if (id == 0 || id > g_module_names.size()) return nullptr;
  return g_module_names[id - 1u].c_str();
}

void lumo_emit(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level) {
  emit(t, idx, module_id, level, nullptr, 0);
}

void lumo_emit_s1(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  const char *a) {
  const Arg args[] = {str_arg(a)};
  emit(t, idx, module_id, level, args, 1);
}

void lumo_emit_s2(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  const char *a, const char *b) {
  const Arg args[] = {str_arg(a), str_arg(b)};
  emit(t, idx, module_id, level, args, 2);
}

void lumo_emit_s3(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  const char *a, const char *b, const char *c) {
  const Arg args[] = {str_arg(a), str_arg(b), str_arg(c)};
  emit(t, idx, module_id, level, args, 3);
}

void lumo_emit_i1(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  uint32_t a) {
  const Arg args[] = {num_arg(a)};
  emit(t, idx, module_id, level, args, 1);
}

void lumo_emit_i2(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  uint32_t a, uint32_t b) {
  const Arg args[] = {num_arg(a), num_arg(b)};
  emit(t, idx, module_id, level, args, 2);
}

void lumo_emit_i3(const lumo_trace_table *t, uint32_t idx, uint16_t module_id, uint32_t level,
                  uint32_t a, uint32_t b, uint32_t c) {
  const Arg args[] = {num_arg(a), num_arg(b), num_arg(c)};
  emit(t, idx, module_id, level, args, 3);
}

void lumo_set_sink(lumo_sink_fn fn, void *ctx) {
  std::lock_guard lock(g_sink_mutex);
  g_sink_fn = fn;
  g_sink_ctx = fn ? ctx : nullptr;
}

}  // extern "C"
