#include "annotate.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bix_schema_facts.h"

namespace bixipc {
namespace {

// The runtime's 27-byte message header (wex.h) and the session header (app_sess.h).
constexpr size_t kHeaderSize = 27;
constexpr size_t kLuidSize = 16;
constexpr uint8_t kWireTracked = 0x08;
constexpr uint8_t kWireRa = 0x20;
constexpr size_t kRaSize = 9;

struct Truncated {
  size_t offset;
  std::string what;
};

const bixfacts::Type *type_named(const std::string &name) {
  for (const auto &t : bixfacts::kTypes)
    if (name == t.name) return &t;
  return nullptr;
}

const char *literal_name(const std::string &type, uint32_t user) {
  for (const auto &l : bixfacts::kLiterals)
    if (type == l.type && l.user == user) return l.name;
  return nullptr;
}

uint32_t prim_width(const std::string &prim) {
  return prim.ends_with("32") ? 4 : prim.ends_with("16") ? 2 : 1;
}

class Walker {
 public:
  Walker(const uint8_t *data, std::string &out) : data_(data), out_(out) {}

  // One message starting at pos; returns the offset after it.
  size_t message(size_t pos, size_t size) {
    end_ = size;
    need(pos, kHeaderSize, "message header");
    const uint8_t *b = data_ + pos;
    const uint32_t total = be(b + 15, 4);
    if (b[8] != 1 || be(b + 9, 2) != kHeaderSize || total < kHeaderSize)
      throw Truncated{pos, "malformed message header"};
    // A message cut short is labelled as far as its bytes go.
    const bool cut = total > size - pos;
    line(pos, 1, "message header: marker");
    line(pos + 1, 6, "message header: reserved");
    line(pos + 7, 1, std::string("message header: sender tracks state: ") + (b[7] ? "yes" : "no"));
    line(pos + 8, 1, "message header: format version 1");
    line(pos + 9, 2, "message header: header length 27");
    line(pos + 11, 4, "message header: stamp " + std::to_string(be(b + 11, 4)));
    line(pos + 15, 4, "message header: total length " + std::to_string(total));
    line(pos + 19, 8, "message header: reserved");
    end_ = cut ? size : pos + total;  // members are read within the message, as the library does
    size_t at = pos + kHeaderSize;
    need(at, kLuidSize, "message LUID");
    char hex[33];
    for (size_t i = 0; i < kLuidSize; ++i) std::snprintf(hex + 2 * i, 3, "%02x", data_[at + i]);
    const bixfacts::Type *msg = nullptr;
    for (const auto &t : bixfacts::kTypes)
      if (std::string(t.kind) == "message" && std::strcmp(t.luid, hex) == 0) msg = &t;
    if (!msg) throw Truncated{at, std::string("unknown message LUID ") + hex};
    line(at, kLuidSize, std::string("message LUID: ") + msg->name);
    at += kLuidSize;
    for (const auto &m : bixfacts::kMembers) {
      if (std::strcmp(m.message, msg->name) != 0) continue;
      at = m.type ? record(at, m.type, m.name) : session_header(at, m.name);
    }
    if (cut)
      throw Truncated{size, "the input ends " + std::to_string(pos + total - size) +
                                " bytes before the end of the message"};
    if (at < end_) line(at, end_ - at, "inside the message, after its members");
    return end_;
  }

 private:
  const uint8_t *data_;
  std::string &out_;
  size_t end_ = 0;

  void need(size_t pos, size_t n, const std::string &what) const {
    if (pos > end_ || end_ - pos < n)
      throw Truncated{pos, what + " needs " + std::to_string(n) + " bytes, " +
                               std::to_string(pos > end_ ? 0 : end_ - pos) + " left"};
  }
  uint32_t be(const uint8_t *p, uint32_t n) const {
    uint32_t v = 0;
    for (uint32_t i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
  }
  // Up to eight bytes a row; the label goes on the first row.
  void line(size_t pos, size_t n, const std::string &label) {
    for (size_t row = 0; row == 0 || row < n; row += 8) {
      char buf[64];
      int k = std::snprintf(buf, sizeof buf, "%06zx ", pos + row);
      for (size_t i = row; i < n && i < row + 8; ++i)
        k += std::snprintf(buf + k, sizeof buf - k, " %02x", data_[pos + i]);
      out_ += buf;
      out_.append(static_cast<size_t>(k < 32 ? 32 - k : 1), ' ');
      out_ += row ? "" : label;
      out_ += '\n';
    }
  }
  uint32_t item(size_t &pos, uint32_t n, const std::string &what) {
    need(pos, n, what);
    uint32_t v = be(data_ + pos, n);
    pos += n;
    return v;
  }
  std::string value_text(const std::string &prim, uint32_t v) const {
    if (prim[0] == 'u') return std::to_string(v);
    const uint32_t w = prim_width(prim) * 8;
    int64_t s = (w < 32 && (v >> (w - 1))) ? static_cast<int64_t>(v) - (int64_t{1} << w)
                                           : static_cast<int32_t>(v);
    return std::to_string(s);
  }

  // Byte arrays mostly hold text (names, serial numbers): printable bytes are shown.
  static std::string char_text(uint32_t width, uint32_t v) {
    if (width != 1 || v < 0x20 || v > 0x7e || v == '\'') return "";
    return std::string(" '") + static_cast<char>(v) + "'";
  }

  // Variant, flags, ra item and jump; returns flags, sets the variant and the jump end.
  uint8_t prefix(size_t &pos, const std::string &path, int8_t &variant, size_t &jump_end) {
    variant = static_cast<int8_t>(item(pos, 1, path + " variant"));
    line(pos - 1, 1, path + ": variant " + std::to_string(variant));
    const uint8_t flags = static_cast<uint8_t>(item(pos, 1, path + " flags"));
    std::string f = path + ": flags";
    char hex[8];
    std::snprintf(hex, sizeof hex, " 0x%02x", flags);
    f += hex;
    if (flags & kWireTracked) f += ", state bytes follow";
    if (flags & kWireRa) f += ", ra item follows";
    line(pos - 1, 1, f);
    if (flags & kWireRa) {
      need(pos, kRaSize, path + " ra item");
      line(pos, kRaSize, path + ": ra item");
      pos += kRaSize;
    }
    const size_t base = pos;
    const uint32_t jump = item(pos, 4, path + " jump");
    line(base, 4, path + ": jump " + std::to_string(jump));
    jump_end = base + jump;
    return flags;
  }
  // A newer sender's appended fields: stepped over by the jump.
  size_t finish(size_t pos, size_t jump_end, const std::string &path) {
    if (jump_end <= pos) return pos;
    if (jump_end > end_) throw Truncated{pos, path + " jump points past the message"};
    line(pos, jump_end - pos, path + ": skipped by the jump (fields this library does not know)");
    return jump_end;
  }
  void state(size_t &pos, bool states, const std::string &label) {
    if (!states || pos >= end_) return;
    line(pos, 1, label + ": state " + std::to_string(data_[pos]));
    ++pos;
  }
  void states_run(size_t &pos, bool states, uint32_t n, const std::string &label) {
    if (!states) return;
    const size_t m = std::min<size_t>(n, end_ > pos ? end_ - pos : 0);
    for (size_t i = 0; i < m; i += 8) {
      const size_t last = std::min<size_t>(m, i + 8) - 1;
      line(pos + i, last - i + 1,
           label + "[" + std::to_string(i) + ".." + std::to_string(last) + "]: element states");
    }
    pos += m;
  }

  size_t session_header(size_t pos, const std::string &path) {
    int8_t variant;
    size_t jump_end;
    const bool states = prefix(pos, path, variant, jump_end) & kWireTracked;
    if (variant >= 0) {
      for (auto [name, w] : {std::pair{"session_id", 4u}, {"seq_num", 4u}, {"flags", 2u}}) {
        const std::string label = path + "." + name;
        const uint32_t v = item(pos, w, label);
        line(pos - w, w, label + " = " + std::to_string(v));
        state(pos, states, label);
      }
    }
    return finish(pos, jump_end, path);
  }

  size_t leaf(size_t pos, const bixfacts::Type &t, const std::string &path, uint32_t *user_out) {
    const int8_t variant = static_cast<int8_t>(item(pos, 1, path + " variant"));
    line(pos - 1, 1, path + ": variant " + std::to_string(variant));
    if (std::string(t.kind) == "enum") {
      const uint32_t wire = item(pos, 4, path);
      const uint32_t user = t.shifted && wire < t.nliterals ? wire + 1 : wire;
      const char *name = literal_name(t.name, user);
      line(pos - 4, 4,
           path + " = " + (name ? name : "(no literal)") + " (user " + std::to_string(user) +
               ", wire " + std::to_string(wire) + ")");
      if (user_out) *user_out = user;
      return pos;
    }
    const size_t base = pos;
    const uint32_t jump = item(pos, 4, path + " jump");
    line(base, 4, path + ": jump " + std::to_string(jump));
    const uint32_t nbytes = (t.nliterals + 7) / 8;
    need(pos, nbytes, path + " flags");
    std::string set;
    for (uint32_t bit = 0; bit < 8 * nbytes; ++bit) {
      if (!(data_[pos + bit / 8] >> (bit % 8) & 1)) continue;
      const char *name = literal_name(t.name, bit);
      set += std::string(" ") + (name ? name : ("flag " + std::to_string(bit)).c_str());
    }
    line(pos, nbytes, path + " =" + (set.empty() ? " (no flags)" : set));
    pos += nbytes;
    end_check(base + jump, path);
    return std::max(pos, static_cast<size_t>(base + jump));
  }
  // What a union selector selects, and the trap of its wire form: the value travels
  // minus 1, so a sender's "nothing selected" (0) arrives as the first alternative.
  void selector_note(const std::vector<const bixfacts::Field *> &fields, uint32_t user) {
    std::string alt;
    for (const bixfacts::Field *f : fields)
      if (std::string(f->kind) == "UnionAlt" && f->count == user) alt = f->name;
    out_ += "#   the selector above selects " + (alt.empty() ? std::string("no alternative") : alt) +
            ". Wire 0 is also what a sender's selector 0 (none) becomes: always select an"
            " alternative, WEX_XCVR_TYPE_NOSFP with nosfp_data for no module and error replies\n";
  }
  void end_check(size_t to, const std::string &path) const {
    if (to > end_) throw Truncated{to, path + " jump points past the message"};
  }

  size_t record(size_t pos, const std::string &type, const std::string &path) {
    int8_t variant;
    size_t jump_end;
    const bool states = prefix(pos, path, variant, jump_end) & kWireTracked;
    if (variant < 0) return finish(pos, jump_end, path);
    std::vector<const bixfacts::Field *> fields;
    for (const auto &f : bixfacts::kFields)
      if (type == f.type) fields.push_back(&f);
    std::vector<uint32_t> values(fields.size(), 0);  // counts and selectors, as read
    for (size_t i = 0; i < fields.size(); ++i) {
      const bixfacts::Field &f = *fields[i];
      const std::string kind = f.kind, label = path + "." + f.name;
      if (kind == "Prim" || kind == "Count") {
        const uint32_t w = prim_width(f.prim);
        values[i] = item(pos, w, label);
        line(pos - w, w, label + " = " + value_text(f.prim, values[i]));
        if (kind == "Prim") state(pos, states, label);
      } else if (kind == "Enum" || kind == "Selector" || kind == "Flags") {
        pos = leaf(pos, *type_named(f.member), label, &values[i]);
        if (kind == "Selector") selector_note(fields, values[i]);
        state(pos, states, label);
      } else if (kind == "Record") {
        pos = record(pos, f.member, label);
        state(pos, states, label);
      } else if (kind == "FixedArray" || kind == "RecordArray") {
        for (uint32_t k = 0; k < f.count; ++k) {
          const std::string el = label + "[" + std::to_string(k) + "]";
          if (kind == "RecordArray") {
            pos = record(pos, f.member, el);
          } else {
            const uint32_t w = prim_width(f.prim);
            const uint32_t v = item(pos, w, el);
            line(pos - w, w, el + " = " + value_text(f.prim, v) + char_text(w, v));
          }
        }
        state(pos, states, label + " (whole array)");
        states_run(pos, states, f.count, label);
      } else if (kind == "VarArray") {
        const uint32_t k = values[f.link];
        need(pos, k, label + " (" + std::to_string(k) + " elements)");
        for (uint32_t e = 0; e < k; ++e)
          line(pos + e, 1,
               label + "[" + std::to_string(e) + "] = " + std::to_string(data_[pos + e]) +
                   char_text(1, data_[pos + e]));
        pos += k;
        if (k) {
          state(pos, states, label + " (whole array)");
          states_run(pos, states, k, label);
        }
      } else if (kind == "UnionAlt") {
        if (values[f.link] == f.count) pos = record(pos, f.member, label);
        state(pos, states, label);
      }
    }
    return finish(pos, jump_end, path);
  }
};

}  // namespace

bool annotate(const uint8_t *data, size_t size, std::string &out, std::string *error) {
  Walker w(data, out);
  size_t pos = 0;
  try {
    while (pos < size) {
      char head[64];
      std::snprintf(head, sizeof head, "# message at offset %zu\n", pos);
      out += head;
      pos = w.message(pos, size);
    }
  } catch (const Truncated &t) {
    if (error) *error = "offset " + std::to_string(t.offset) + ": " + t.what;
    return false;
  }
  return true;
}

}  // namespace bixipc
