// Resolves references and computes layouts, then checks them against the identity
// data the schema repeats. A disagreement stops the build: the ABI must not drift.
#include <cstdio>
#include <set>

#include "model.h"

namespace bixgen {

uint32_t prim_size(Prim p) {
  switch (p) {
    case Prim::I8:
    case Prim::U8: return 1;
    case Prim::I16:
    case Prim::U16: return 2;
    default: return 4;
  }
}
const char *prim_name(Prim p) {
  static const char *n[] = {"int8", "u_int8", "int16", "u_int16", "int32", "u_int32"};
  return n[static_cast<int>(p)];
}
const char *prim_ctype(Prim p) {
  static const char *n[] = {"int8_t", "uint8_t", "int16_t", "uint16_t", "int32_t", "uint32_t"};
  return n[static_cast<int>(p)];
}
const char *prim_enum(Prim p) {
  static const char *n[] = {"I8", "U8", "I16", "U16", "I32", "U32"};
  return n[static_cast<int>(p)];
}

namespace {

constexpr uint32_t kHeader = 11;
constexpr uint32_t kEnumSize = 16, kFlagsSize = 24;
constexpr uint32_t kPtr = 8;

bool fail(const Type &t, int line, const std::string &msg) {
  std::fprintf(stderr, "schema:%d: %s: %s\n", line ? line : t.line, t.name.c_str(), msg.c_str());
  return false;
}

bool layout_record(Schema &s, Type &t, std::set<std::string> &busy, std::set<std::string> &done);

bool ensure(Schema &s, const Type *m, std::set<std::string> &busy, std::set<std::string> &done) {
  Type &mt = s.types[s.by_name.at(m->name)];
  if (mt.kind != TypeKind::Record || done.count(mt.name)) return true;
  return layout_record(s, mt, busy, done);
}

// Runs of primitive scalars and arrays of one primitive kind that lie back to back.
void compute_runs(Type &t) {
  auto in_run = [](const Field &f) { return f.kind == FieldKind::Prim || f.kind == FieldKind::FixedArray; };
  auto elems = [](const Field &f) { return f.kind == FieldKind::Prim ? 1u : f.count; };
  for (size_t i = 0; i < t.fields.size(); ++i) {
    Field &f = t.fields[i];
    f.run_fields = 1, f.run_elems = in_run(f) ? elems(f) : 1;
    if (!in_run(f)) continue;
    uint32_t end = f.offset + f.size;
    for (size_t j = i + 1; j < t.fields.size(); ++j) {
      const Field &g = t.fields[j];
      if (!in_run(g) || g.prim != f.prim || g.offset != end) break;
      ++f.run_fields, f.run_elems += elems(g), end = g.offset + g.size;
    }
  }
}

// The encoded length of records whose encoding has no instance-dependent part: prefix,
// fields, and one state byte per field plus one per array element when tracking is on.
void compute_wire_len(Type &t) {
  uint32_t off = 6, on = 6;
  for (const Field &f : t.fields) {
    uint32_t w = prim_size(f.prim);
    switch (f.kind) {
      case FieldKind::Prim: off += w, on += w + 1; break;
      case FieldKind::Count: off += w, on += w; break;
      case FieldKind::Enum:
      case FieldKind::Selector: off += 5, on += 6; break;
      case FieldKind::Flags: {
        uint32_t n = 5 + (static_cast<uint32_t>(f.type->literals.size()) + 7) / 8;
        off += n, on += n + 1;
        break;
      }
      case FieldKind::Record:
        if (!f.type->wire_len_off) return;
        off += f.type->wire_len_off, on += f.type->wire_len_on + 1;
        break;
      case FieldKind::FixedArray: off += w * f.count, on += w * f.count + 1 + f.count; break;
      case FieldKind::RecordArray:
        if (!f.type->wire_len_off) return;
        off += f.type->wire_len_off * f.count, on += f.type->wire_len_on * f.count + 1 + f.count;
        break;
      case FieldKind::VarArray:
      case FieldKind::UnionAlt: return;
    }
  }
  t.wire_len_off = off, t.wire_len_on = on;
}

bool layout_record(Schema &s, Type &t, std::set<std::string> &busy, std::set<std::string> &done) {
  if (busy.count(t.name)) return fail(t, 0, "record contains itself");
  busy.insert(t.name);
  uint32_t off = kHeader, st = 0;
  for (size_t i = 0; i < t.fields.size(); ++i) {
    Field &f = t.fields[i];
    if (f.kind == FieldKind::Record || f.kind == FieldKind::RecordArray ||
        f.kind == FieldKind::UnionAlt) {
      if (!ensure(s, f.type, busy, done)) return false;
    }
    const Type *m = f.type;
    // A variable array's count owns no state byte: the array's whole byte stands for both.
    if (f.kind != FieldKind::Count) f.sttr = st++;
    switch (f.kind) {
      case FieldKind::Prim:
      case FieldKind::Count:
        f.size = f.align = prim_size(f.prim);
        break;
      case FieldKind::Enum:
      case FieldKind::Selector:
        f.size = kEnumSize, f.align = 8;
        break;
      case FieldKind::Flags:
        f.size = kFlagsSize, f.align = 8;
        break;
      case FieldKind::Record:
        f.size = m->fixed_size, f.align = 8;
        f.sttr_elems = st;
        st += m->sttr_size;
        t.has_embedded = true;
        break;
      case FieldKind::FixedArray:
        f.elem_size = prim_size(f.prim);
        f.size = f.elem_size * f.count, f.align = f.elem_size;
        f.sttr_elems = st;
        st += f.count;
        break;
      case FieldKind::VarArray:
        f.elem_size = prim_size(f.prim);
        f.size = kPtr, f.align = 8;
        // The element-state buffer pointer sits in the area at the next 8-byte boundary.
        f.sttr_ptr = round_up(st, 8);
        st = f.sttr_ptr + kPtr;
        break;
      case FieldKind::RecordArray:
        f.elem_size = m->fixed_size;
        f.size = f.elem_size * f.count, f.align = 8;
        f.sttr_elems = st;
        st += f.count;
        f.sttr_areas = st;
        st += f.count * m->sttr_size;
        t.has_embedded = true;
        break;
      case FieldKind::UnionAlt:
        f.size = kPtr, f.align = 8;
        break;
    }
    f.offset = round_up(off, f.align);
    off = f.offset + f.size;
    // get_all returns primitives, counts, enumerations and selectors; set_all leaves out
    // what the caller may not write directly (counts, selectors).
    f.in_get_all = f.kind == FieldKind::Prim || f.kind == FieldKind::Count ||
                   f.kind == FieldKind::Enum || f.kind == FieldKind::Selector;
    f.in_set_all = f.kind == FieldKind::Prim || f.kind == FieldKind::Enum;
    // Those fields become parameters of get_all and set_all beside these.
    static const std::set<std::string> kTaken = {"h", "ws", "inst", "err", "outs", "ins"};
    if (f.in_get_all && kTaken.count(f.name))
      return fail(t, f.line, "field name " + f.name + " is taken by a get_all/set_all parameter");
  }
  t.computed_used = off;
  t.fixed_size = t.used + t.slop;
  compute_wire_len(t);
  compute_runs(t);
  t.sttr_size = st;
  busy.erase(t.name);
  done.insert(t.name);

  if (t.computed_used != t.used)
    return fail(t, 0, "fields end at " + std::to_string(off) + " but the schema says used " +
                          std::to_string(t.used));
  if (t.fixed_size % 8)
    return fail(t, 0, "used + slop = " + std::to_string(t.fixed_size) + " is not 8-aligned");
  if (!t.has_identity_sizes) return fail(t, 0, "record needs 'size <off>/<on>'");
  if (t.fixed_size != t.size_off)
    return fail(t, 0, "fixed size " + std::to_string(t.fixed_size) + " != size " +
                          std::to_string(t.size_off));
  if (t.fixed_size + t.sttr_size != t.size_on)
    return fail(t, 0, "tracking-on size " + std::to_string(t.fixed_size + t.sttr_size) +
                          " != size " + std::to_string(t.size_on));
  return true;
}

bool resolve(Schema &s) {
  bool ok = true;
  for (Type &t : s.types) {
    for (size_t i = 0; i < t.fields.size(); ++i) {
      Field &f = t.fields[i];
      for (size_t j = 0; j < i; ++j)
        if (t.fields[j].name == f.name) ok = fail(t, f.line, "duplicate field " + f.name);
      if (!f.type_name.empty()) {
        f.type = s.find(f.type_name);
        TypeKind want = f.kind == FieldKind::Enum || f.kind == FieldKind::Selector
                            ? TypeKind::Enum
                        : f.kind == FieldKind::Flags ? TypeKind::Flags
                                                     : TypeKind::Record;
        if (!f.type || f.type->kind != want) ok = fail(t, f.line, "bad member type " + f.type_name);
      }
      if (f.kind == FieldKind::VarArray) {
        for (size_t j = 0; j < t.fields.size(); ++j)
          if (t.fields[j].name == f.link_name && t.fields[j].kind == FieldKind::Count)
            f.link = static_cast<int>(j);
        if (f.link < 0) ok = fail(t, f.line, "counted-by names no count field");
        // XML parsing reads each element through the runtime's u_int8 temporary.
        if (f.prim != Prim::U8) ok = fail(t, f.line, "a variable array holds u_int8");
      }
      if (f.kind == FieldKind::Selector) f.link = static_cast<int>(i + 1);
      if (f.kind == FieldKind::UnionAlt) {
        int sel = static_cast<int>(i) - static_cast<int>(f.count);
        if (sel < 0 || t.fields[sel].kind != FieldKind::Selector)
          ok = fail(t, f.line, "alternative without selector");
        f.link = sel;
      }
    }
    if (t.kind == TypeKind::Message) {
      for (auto &mn : t.member_names) {
        if (mn == "app_sess_hdr") {
          t.members.push_back(nullptr);
          continue;
        }
        const Type *m = s.find(mn);
        if (!m || m->kind != TypeKind::Record) ok = fail(t, t.line, "bad message member " + mn);
        t.members.push_back(m);
      }
    }
  }
  return ok;
}

}  // namespace

bool compute_layout(Schema &s) {
  if (!resolve(s)) return false;
  std::set<std::string> busy, done;
  for (Type &t : s.types) {
    switch (t.kind) {
      case TypeKind::Record:
        if (!done.count(t.name) && !layout_record(s, t, busy, done)) return false;
        break;
      case TypeKind::Enum:
        t.used = 16, t.slop = 0, t.fixed_size = 16;
        for (auto &l : t.literals) t.latest_variant = std::max(t.latest_variant, l.since);
        break;
      case TypeKind::Flags:
        t.used = 16, t.slop = 8, t.fixed_size = 24;
        if (t.literals.empty() || t.literals.size() > 13 * 8)
          return fail(t, 0, "a flag set holds 1 to 104 flags");
        break;
      case TypeKind::Message:
        // header, 16-byte header record at 16, one reference per member
        t.used = 32 + kPtr * static_cast<uint32_t>(t.members.size()), t.slop = 0;
        for (uint32_t i = 0; i < t.members.size(); ++i) t.member_offsets.push_back(32 + kPtr * i);
        t.fixed_size = t.used;
        break;
    }
  }
  // The manifest order must name every non-message type exactly once.
  std::set<std::string> seen;
  for (auto &n : s.manifest) {
    const Type *t = s.find(n);
    if (!t || t->kind == TypeKind::Message || !seen.insert(n).second) {
      std::fprintf(stderr, "schema: manifest entry '%s' is unknown, a message or repeated\n",
                   n.c_str());
      return false;
    }
  }
  for (auto &t : s.types)
    if (t.kind != TypeKind::Message && !seen.count(t.name)) {
      std::fprintf(stderr, "schema: %s missing from the manifest order\n", t.name.c_str());
      return false;
    }
  return true;
}

}  // namespace bixgen
