// The reference page: every type of the schema with its fields, their kinds, bounds and
// meanings, every enumeration literal and flag, every message. Written into the build
// tree and installed with the headers; never committed.
#include <sstream>

#include "emit.h"

namespace bixgen {
namespace {

std::string code(const std::string &s) { return "`" + s + "`"; }

const char *sign_text(Prim p) {
  switch (p) {
    case Prim::I8:
    case Prim::I16:
    case Prim::I32: return "signed";
    default: return "unsigned";
  }
}

std::string kind_cell(const Field &f) {
  switch (f.kind) {
    case FieldKind::Prim: return code(prim_name(f.prim)) + " (" + sign_text(f.prim) + ")";
    case FieldKind::Count: return code(prim_name(f.prim)) + ", read-only element count";
    case FieldKind::Enum: return "enumeration " + code(f.type->name);
    case FieldKind::Selector: return "enumeration " + code(f.type->name) + ", union selector";
    case FieldKind::Flags: return "flag set " + code(f.type->name);
    case FieldKind::Record: return "embedded record " + code(f.type->name);
    case FieldKind::FixedArray: return "fixed array of " + code(prim_name(f.prim));
    case FieldKind::VarArray: return "variable array of " + code(prim_name(f.prim));
    case FieldKind::RecordArray: return "fixed array of records " + code(f.type->name);
    case FieldKind::UnionAlt: return "union alternative " + std::to_string(f.count) + ": " + code(f.type->name);
  }
  return "";
}

std::string bound_cell(const Field &f, const Type &t) {
  switch (f.kind) {
    case FieldKind::FixedArray:
    case FieldKind::RecordArray: return std::to_string(f.count);
    case FieldKind::VarArray: return "count in " + code(t.fields[static_cast<size_t>(f.link)].name);
    default: return "";
  }
}

// The literal of the selector's enumeration whose user value selects this alternative.
std::string selecting_literal(const Type &t, const Field &alt) {
  const Field &sel = t.fields[static_cast<size_t>(alt.link)];
  for (auto &l : sel.type->literals)
    if (l.user == alt.count) return l.name;
  return std::to_string(alt.count);
}

void record_section(std::ostream &o, const Type &t) {
  o << "### " << code(t.name) << (t.doc.empty() ? "" : ": " + t.doc) << "\n\n";
  o << "LUID " << code(t.luid) << "; instance " << t.fixed_size << " bytes, " << t.fixed_size + t.sttr_size
    << " with state tracking";
  if (t.wire_len_off)
    o << "; encoded length " << t.wire_len_off << " bytes (" << t.wire_len_on << " with state bytes)";
  o << ".\n\n| # | Field | Kind | Bound | Meaning |\n|---|---|---|---|---|\n";
  int n = 0;
  for (auto &f : t.fields) {
    std::string meaning = f.doc;
    if (f.kind == FieldKind::UnionAlt) meaning += " (selected by " + code(selecting_literal(t, f)) + ")";
    o << "| " << ++n << " | " << code(f.name) << " | " << kind_cell(f) << " | " << bound_cell(f, t) << " | "
      << meaning << " |\n";
  }
  std::string get_all, set_all;
  for (auto &f : t.fields) {
    if (f.in_get_all) get_all += (get_all.empty() ? "" : ", ") + code(f.name);
    if (f.in_set_all) set_all += (set_all.empty() ? "" : ", ") + code(f.name);
  }
  o << "\n`get_all`: " << (get_all.empty() ? "none" : get_all) << ". `set_all`: "
    << (set_all.empty() ? "none" : set_all) << ".\n\n";
}

void enum_section(std::ostream &o, const Type &t) {
  o << "### " << code(t.name) << (t.doc.empty() ? "" : ": " + t.doc) << "\n\n";
  o << "LUID " << code(t.luid) << "; latest variant " << t.latest_variant << ".";
  if (t.shifted)
    o << " The wire carries the user value minus 1 for the literals' values (any other value"
         " travels unchanged), and the decoder adds 1 back: a stored 0, which the setters"
         " accept, arrives as the first literal. Always set it.";
  o << "\n\n| Literal | User value | Wire value | Known from variant |\n|---|---|---|---|\n";
  for (auto &l : t.literals)
    o << "| " << code(l.name) << " | " << l.user << " | " << (t.shifted ? l.user - 1 : l.user) << " | "
      << l.since << " |\n";
  o << "\n";
}

void flags_section(std::ostream &o, const Type &t) {
  o << "### " << code(t.name) << (t.doc.empty() ? "" : ": " + t.doc) << "\n\n";
  o << "LUID " << code(t.luid) << "; " << (t.literals.size() + 7) / 8 << " flag byte(s).\n\n"
    << "| Flag | Number | Byte, mask |\n|---|---|---|\n";
  for (auto &l : t.literals) {
    char mask[8];
    std::snprintf(mask, sizeof mask, "0x%02x", 1u << (l.user % 8));
    o << "| " << code(l.name) << " | " << l.user << " | " << l.user / 8 << ", " << mask << " |\n";
  }
  o << "\n";
}

}  // namespace

std::string emit_reference(const Schema &s) {
  std::ostringstream o;
  o << "# bix_ipc_shim reference\n\n"
       "Generated from the schema by the build. Every record, enumeration, flag set and message\n"
       "of the library, with what each field means. Field order is the order of the wire, the\n"
       "text and XML forms, `compare`, `hash` and the arguments of `get_all`/`set_all`. Byte\n"
       "arrays are plain bytes: no terminator is added or expected. How to use them:\n"
       "`docs/guide.md`; the operations of each type: `bix_ipc_shim.h`.\n\n";
  o << "## Records\n\n";
  for (auto &t : s.types)
    if (t.kind == TypeKind::Record) record_section(o, t);
  o << "## Enumerations\n\n";
  for (auto &t : s.types)
    if (t.kind == TypeKind::Enum) enum_section(o, t);
  o << "## Flag sets\n\n";
  for (auto &t : s.types)
    if (t.kind == TypeKind::Flags) flags_section(o, t);
  o << "## Messages\n\n"
       "Every message is a session header (`app_sess_hdr`), a channel header\n"
       "(`wex_ipc_shim_hdr`, except in `bix_ipc_shim_msg`) and a body record; on the wire the\n"
       "27-byte message header, the 16-byte LUID, then the members in this order.\n\n"
       "| Message | LUID | Members |\n|---|---|---|\n";
  for (auto &t : s.types) {
    if (t.kind != TypeKind::Message) continue;
    std::string members;
    for (auto *m : t.members) members += (members.empty() ? "" : ", ") + code(m ? m->name : "app_sess_hdr");
    o << "| " << code(t.name) << " | " << code(t.luid) << " | " << members << " |\n";
  }
  return o.str();
}

}  // namespace bixgen
