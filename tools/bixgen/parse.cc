// Schema and trace-table readers. The schema format is line oriented; see schema/.
#include <cstdio>
#include <fstream>
#include <regex>
#include <sstream>

#include "model.h"

namespace bixgen {
namespace {

struct Lexer {
  std::string path;
  std::vector<std::pair<int, std::vector<std::string>>> lines;  // tokens per line
  std::vector<std::string> docs;                                 // per line: its "-- ..." text
  size_t pos = 0;
  bool ok = true;

  void error(int line, const std::string &msg) {
    std::fprintf(stderr, "%s:%d: %s\n", path.c_str(), line, msg.c_str());
    ok = false;
  }
};

bool parse_prim(const std::string &s, Prim &p) {
  static const std::map<std::string, Prim> m = {{"int8", Prim::I8},   {"u_int8", Prim::U8},
                                                {"int16", Prim::I16}, {"u_int16", Prim::U16},
                                                {"int32", Prim::I32}, {"u_int32", Prim::U32}};
  auto it = m.find(s);
  if (it == m.end()) return false;
  p = it->second;
  return true;
}

bool is_hex32(const std::string &s) {
  return s.size() == 32 && s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

bool to_u32(const std::string &s, uint32_t &v) {
  if (s.empty() || s.find_first_not_of("0123456789") != std::string::npos || s.size() > 9) return false;
  v = static_cast<uint32_t>(std::stoul(s));
  return true;
}

// Reads "key value" attribute pairs of a declaration head up to the opening brace.
bool parse_head(Lexer &lx, int line, const std::vector<std::string> &t, size_t from, Type &ty) {
  if (t.empty() || t.back() != "{") {
    lx.error(line, "declaration must end with '{'");
    return false;
  }
  for (size_t i = from; i + 1 < t.size();) {
    const std::string &k = t[i];
    if (k == "shifted") {
      ty.shifted = true;
      ++i;
      continue;
    }
    if (t[i + 1] == "{") {
      lx.error(line, "attribute '" + k + "' has no value");
      return false;
    }
    const std::string &v = t[i + 1];
    if (k == "luid" || k == "hash") {
      if (!is_hex32(v)) {
        lx.error(line, k + " must be 32 lower-case hex digits");
        return false;
      }
      (k == "luid" ? ty.luid : ty.hash) = v;
    } else if (k == "used" || k == "slop") {
      if (!to_u32(v, k == "used" ? ty.used : ty.slop)) {
        lx.error(line, "bad number for " + k);
        return false;
      }
    } else if (k == "size") {
      auto slash = v.find('/');
      if (slash == std::string::npos || !to_u32(v.substr(0, slash), ty.size_off) ||
          !to_u32(v.substr(slash + 1), ty.size_on)) {
        lx.error(line, "size must be <off>/<on>");
        return false;
      }
      ty.has_identity_sizes = true;
    } else {
      lx.error(line, "unknown attribute '" + k + "'");
      return false;
    }
    i += 2;
  }
  if (ty.luid.empty() || ty.hash.empty()) {
    lx.error(line, "type '" + ty.name + "' needs luid and hash");
    return false;
  }
  return true;
}

bool parse_field(Lexer &lx, int line, const std::vector<std::string> &t, Type &ty,
                 bool &opens_union) {
  Field f;
  f.line = line;
  f.name = t[0];
  opens_union = false;
  if (t.size() < 2) {
    lx.error(line, "field '" + f.name + "' has no kind");
    return false;
  }
  const std::string &k = t[1];
  auto bracket = k.find('[');
  std::string base = k.substr(0, bracket);
  if (parse_prim(base, f.prim)) {
    if (bracket == std::string::npos) {
      f.kind = FieldKind::Prim;
      if (t.size() == 3 && t[2] == "count") {
        f.kind = FieldKind::Count;
      } else if (t.size() != 2) {
        lx.error(line, "unexpected tokens after primitive field");
        return false;
      }
    } else if (k.substr(bracket) == "[]") {
      if (t.size() != 4 || t[2] != "counted-by") {
        lx.error(line, "variable array needs 'counted-by <field>'");
        return false;
      }
      f.kind = FieldKind::VarArray;
      f.link_name = t[3];
    } else {
      if (k.back() != ']' || !to_u32(k.substr(bracket + 1, k.size() - bracket - 2), f.count) ||
          f.count == 0) {
        lx.error(line, "bad array bound in '" + k + "'");
        return false;
      }
      f.kind = FieldKind::FixedArray;
    }
  } else if (k == "enum" || k == "flags" || k == "record") {
    if (t.size() < 3) {
      lx.error(line, "missing member type");
      return false;
    }
    std::string tn = t[2];
    auto b = tn.find('[');
    f.type_name = tn.substr(0, b);
    if (k == "enum") {
      f.kind = FieldKind::Enum;
      if (t.size() == 5 && t[3] == "selects" && t[4] == "{") {
        f.kind = FieldKind::Selector;
        opens_union = true;
      } else if (t.size() != 3) {
        lx.error(line, "unexpected tokens after enum field");
        return false;
      }
    } else if (k == "flags") {
      f.kind = FieldKind::Flags;
    } else if (b != std::string::npos) {
      if (!to_u32(tn.substr(b + 1, tn.size() - b - 2), f.count) || f.count == 0) {
        lx.error(line, "bad record array bound");
        return false;
      }
      f.kind = FieldKind::RecordArray;
    } else {
      f.kind = FieldKind::Record;
    }
  } else {
    lx.error(line, "unknown field kind '" + k + "'");
    return false;
  }
  ty.fields.push_back(f);
  return true;
}

}  // namespace

bool parse_schema(const std::string &path, Schema &out) {
  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "%s: cannot open\n", path.c_str());
    return false;
  }
  Lexer lx;
  lx.path = path;
  std::string raw;
  int n = 0;
  while (std::getline(in, raw)) {
    ++n;
    auto hash = raw.find('#');
    if (hash != std::string::npos) raw.resize(hash);
    // "  -- text" ends a line with what its type, field or literal means.
    std::string doc;
    auto dashes = raw.find(" -- ");
    if (dashes != std::string::npos) {
      doc = raw.substr(dashes + 4);
      doc.erase(0, doc.find_first_not_of(' '));
      raw.resize(dashes);
    }
    std::istringstream ss(raw);
    std::vector<std::string> toks;
    for (std::string tok; ss >> tok;) toks.push_back(tok);
    if (!toks.empty()) lx.lines.push_back({n, toks}), lx.docs.push_back(doc);
  }

  for (size_t i = 0; i < lx.lines.size() && lx.ok; ++i) {
    auto &[line, t] = lx.lines[i];
    const std::string &what = t[0];
    if (what == "manifest") {
      for (++i; i < lx.lines.size() && lx.lines[i].second[0] != "}"; ++i)
        for (auto &name : lx.lines[i].second) out.manifest.push_back(name);
      continue;
    }
    if (t.size() < 2) {
      lx.error(line, "expected a declaration");
      break;
    }
    Type ty;
    ty.name = t[1];
    ty.line = line;
    ty.doc = lx.docs[i];
    if (what == "record") ty.kind = TypeKind::Record;
    else if (what == "enum") ty.kind = TypeKind::Enum;
    else if (what == "flags") ty.kind = TypeKind::Flags;
    else if (what == "message") ty.kind = TypeKind::Message;
    else {
      lx.error(line, "unknown declaration '" + what + "'");
      break;
    }
    if (!parse_head(lx, line, t, 2, ty)) break;
    if (out.by_name.count(ty.name)) {
      lx.error(line, "type '" + ty.name + "' declared twice");
      break;
    }
    bool in_union = false;
    uint32_t alt_pos = 0;
    for (++i; i < lx.lines.size(); ++i) {
      auto &[bl, bt] = lx.lines[i];
      if (bt[0] == "}") {
        if (in_union) {
          in_union = false;
          continue;
        }
        break;
      }
      switch (ty.kind) {
        case TypeKind::Record:
          if (in_union) {
            if (bt.size() != 2) {
              lx.error(bl, "alternative needs '<name> <record>'");
              break;
            }
            Field f;
            f.line = bl;
            f.name = bt[0];
            f.doc = lx.docs[i];
            f.kind = FieldKind::UnionAlt;
            f.type_name = bt[1];
            f.count = ++alt_pos;
            ty.fields.push_back(f);
          } else {
            bool opens = false;
            const bool ok = parse_field(lx, bl, bt, ty, opens);
            if (ok) ty.fields.back().doc = lx.docs[i];
            if (ok && opens) {
              in_union = true;
              alt_pos = 0;
            }
          }
          break;
        case TypeKind::Enum: {
          Literal l;
          l.name = bt[0];
          l.doc = lx.docs[i];
          if (bt.size() < 2 || !to_u32(bt[1], l.user)) {
            lx.error(bl, "literal needs a user value");
            break;
          }
          if (bt.size() == 4 && bt[2] == "since") {
            uint32_t s = 0;
            if (!to_u32(bt[3], s) || s > 100) lx.error(bl, "bad variant after 'since'");
            l.since = static_cast<int>(s);
          } else if (bt.size() != 2) {
            lx.error(bl, "unexpected tokens after literal");
          }
          ty.literals.push_back(l);
          break;
        }
        case TypeKind::Flags:
          if (bt.size() != 1) lx.error(bl, "one flag name per line");
          ty.literals.push_back({bt[0], lx.docs[i], static_cast<uint32_t>(ty.literals.size()), 0});
          break;
        case TypeKind::Message:
          for (auto &m : bt) ty.member_names.push_back(m);
          break;
      }
      if (!lx.ok) break;
    }
    out.by_name[ty.name] = out.types.size();
    out.types.push_back(std::move(ty));
  }
  return lx.ok;
}

bool parse_trace_table(const std::string &path, TraceTable &out) {
  std::ifstream in(path);
  if (!in) {
    std::fprintf(stderr, "%s: cannot open\n", path.c_str());
    return false;
  }
  static const std::regex table_re(R"re(^BIX_TRACE_TABLE\((\w+),\s*"([0-9a-f]{32})"\))re");
  static const std::regex point_re(
      R"re(^BIX_TRACE(_EACH)?\((\w+),\s*(\w+),\s*"((?:[^"\\]|\\.)*)"\))re");
  std::string line;
  int n = 0;
  while (std::getline(in, line)) {
    ++n;
    std::smatch m;
    if (std::regex_search(line, m, table_re)) {
      out.name = m[1];
      out.luid = m[2];
    } else if (std::regex_search(line, m, point_re)) {
      out.points.push_back({m[2], m[3], m[4], m[1].matched});
    } else if (line.rfind("BIX_TRACE", 0) == 0) {
      std::fprintf(stderr, "%s:%d: malformed trace line\n", path.c_str(), n);
      return false;
    }
  }
  if (out.luid.empty()) {
    std::fprintf(stderr, "%s: no BIX_TRACE_TABLE line\n", path.c_str());
    return false;
  }
  return true;
}

std::vector<TracePoint> expanded_points(const Schema &s, const TraceTable &t) {
  std::vector<TracePoint> out;
  for (auto &p : t.points)
    if (!p.each) out.push_back(p);
  for (auto &ty : s.types) {
    if (ty.kind != TypeKind::Message) continue;
    for (auto p : t.points) {
      if (!p.each) continue;
      for (size_t at; (at = p.text.find("<msg>")) != std::string::npos;)
        p.text.replace(at, 5, ty.name);
      out.push_back(p);
    }
  }
  return out;
}

}  // namespace bixgen
