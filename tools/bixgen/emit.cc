// Writes the generated sources. Every number in them comes from the schema or from the
// layout computed in layout.cc.
#include <bzlib.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "emit.h"
#include "ops.h"

namespace bixgen {
namespace {

std::string replace_all(std::string s, const std::string &from, const std::string &to) {
  for (size_t p = 0; (p = s.find(from, p)) != std::string::npos; p += to.size())
    s.replace(p, from.size(), to);
  return s;
}

std::string c_string(const std::string &s) {
  std::string o = "\"";
  for (char c : s) {
    if (c == '"' || c == '\\') o += '\\';
    o += c;
  }
  return o + "\"";
}

std::string luid_bytes(const std::string &hex) {
  std::ostringstream o;
  for (size_t i = 0; i < 32; i += 2) o << (i ? ", " : "") << "0x" << hex.substr(i, 2);
  return o.str();
}

const char *kind_text(TypeKind k) {
  switch (k) {
    case TypeKind::Record: return "type";
    case TypeKind::Enum: return "enum";
    case TypeKind::Flags: return "flag";
    default: return "message";
  }
}

const char *field_kind(FieldKind k) {
  static const char *n[] = {"Prim",     "Count",    "Enum",        "Flags",    "Record",
                            "FixedArray", "VarArray", "RecordArray", "Selector", "UnionAlt"};
  return n[static_cast<int>(k)];
}

// Symbol of a type's info record: messages carry a _message suffix.
std::string tinfo_symbol(const Type &t) {
  return "_" + t.name + (t.kind == TypeKind::Message ? "_message" : "") + "_type_info_internal";
}

unsigned kind_bit(const Type &t) {
  switch (t.kind) {
    case TypeKind::Record: return kOnRecord;
    case TypeKind::Enum: return kOnEnum;
    case TypeKind::Flags: return kOnFlags;
    default: return kOnMessage;
  }
}

// The C name of a type, which also prefixes its operations: a message's is <msg>_message.
std::string c_name(const Type &t) {
  return t.name + (t.kind == TypeKind::Message ? "_message" : "");
}

// A message member's name (its type's, or app_sess_hdr) and C type.
std::string member_name(const Type *m) { return m ? m->name : "app_sess_hdr"; }

// The application's handler of a message, which the library references weakly.
std::string handler_symbol(const Type &t) { return "bix_ipc_shim_" + t.name + "_message_handler"; }

// The C type a field's get_value returns and set_value takes.
std::string value_ctype(const Field &f) {
  switch (f.kind) {
    case FieldKind::Enum:
    case FieldKind::Selector: return "uint32_t";
    default: return prim_ctype(f.prim);
  }
}

std::string expand_field(const char *tmpl, const Type &t, const Field &f, size_t index) {
  std::string s = replace_all(tmpl, "$FD", "bix::gen::fd_" + t.name + "[" + std::to_string(index) + "]");
  s = replace_all(s, "$F", f.name);
  s = replace_all(s, "$E", value_ctype(f));
  // $S: what one element or member is stored as (member type name, else the primitive)
  s = replace_all(s, "$S", f.type ? f.type->name : std::string(prim_ctype(f.prim)));
  return s;
}

// Where an operation belongs: the type itself, a message member, or a field.
struct OpSite {
  const char *suffix;
  const Field *field;  // field operations
  bool member;         // message member operations
};

// Calls fn(prototype-without-semicolon, body, doc, site) for every operation of the type.
template <typename Fn>
void for_each_op(const Type &t, Fn &&fn);

// The scalar fields of a record that get_all reads or set_all writes, in schema order,
// as parameters ("$GET_ALL_PARAMS": ", uint32_t *rc, uint8_t *is_present"), as the
// initialiser of the array the core body takes ("$GET_ALL_OUTS": "rc, is_present,
// nullptr"; set_all's values widened to u32) and as names for the doc comment.
struct AllFields {
  std::string params, array, names;
};
AllFields all_fields(const Type &t, bool set) {
  AllFields a;
  for (auto &f : t.fields) {
    if (!(set ? f.in_set_all : f.in_get_all)) continue;
    std::string c = value_ctype(f);
    a.params += ", " + c + (set ? " " : " *") + f.name;
    a.array += (set ? "static_cast<uint32_t>(" + f.name + ")" : f.name) + ", ";
    a.names += (a.names.empty() ? "" : ", ") + f.name;
  }
  a.array += set ? "0u" : "nullptr";  // never an empty array
  if (a.names.empty()) a.names = "none";
  return a;
}

std::string expand(const std::string &tmpl, const Type &t) {
  std::string s = tmpl;
  if (s.find("$GET_ALL") != std::string::npos || s.find("$SET_ALL") != std::string::npos) {
    const AllFields get = all_fields(t, false), set = all_fields(t, true);
    s = replace_all(s, "$GET_ALL_PARAMS", get.params);
    s = replace_all(s, "$GET_ALL_OUTS", get.array);
    s = replace_all(s, "$GET_ALL_NAMES", get.names);
    s = replace_all(s, "$SET_ALL_PARAMS", set.params);
    s = replace_all(s, "$SET_ALL_INS", set.array);
    s = replace_all(s, "$SET_ALL_NAMES", set.names);
  }
  return replace_all(replace_all(s, "$T", c_name(t)), "$D", "bix::gen::td_" + t.name);
}

std::string expand_member(const char *tmpl, const Type *m, size_t index) {
  std::string s = replace_all(tmpl, "$MT", member_name(m));
  s = replace_all(s, "$MI", std::to_string(index));
  return replace_all(s, "$M", member_name(m));
}

template <typename Fn>
void for_each_op(const Type &t, Fn &&fn) {
  auto proto = [&](const std::string &ret, const std::string &name, const std::string &params) {
    return ret + (ret.back() == '*' ? "" : " ") + name + "(" + params + ")";
  };
  for (auto &op : type_ops()) {
    if (!(op.kinds & kind_bit(t))) continue;
    fn(proto(expand(op.ret, t), c_name(t) + "_" + op.suffix, expand(op.params, t)),
       expand(op.body, t), expand(op.doc, t), OpSite{op.suffix, nullptr, false});
  }
  for (size_t i = 0; i < t.members.size(); ++i) {
    const Type *m = t.members[i];
    for (auto &op : all_member_ops())
      fn(proto(expand(expand_member(op.ret, m, i), t),
               c_name(t) + "_" + member_name(m) + "_" + op.suffix,
               expand(expand_member(op.params, m, i), t)),
         expand(expand_member(op.body, m, i), t), op.doc, OpSite{op.suffix, nullptr, true});
  }
  for (size_t i = 0; i < t.fields.size(); ++i) {
    const Field &f = t.fields[i];
    for (auto &op : all_field_ops()) {
      if (!(op.field_kinds & field_bit(f.kind))) continue;
      fn(proto(expand(expand_field(op.ret, t, f, i), t),
               t.name + "_" + f.name + "_" + op.suffix,
               expand(expand_field(op.params, t, f, i), t)),
         expand(expand_field(op.body, t, f, i), t), std::string(op.doc), OpSite{op.suffix, &f, false});
    }
  }
}

// Records in an order where every member type precedes its holder.
std::vector<const Type *> record_order(const Schema &s) {
  std::vector<const Type *> out;
  std::set<std::string> done;
  std::function<void(const Type *)> visit = [&](const Type *t) {
    if (done.count(t->name)) return;
    done.insert(t->name);
    for (auto &f : t->fields)
      if (f.type && f.type->kind == TypeKind::Record && f.kind != FieldKind::UnionAlt) visit(f.type);
    out.push_back(t);
  };
  for (auto &t : s.types)
    if (t.kind == TypeKind::Record) visit(&t);
  return out;
}

void struct_header_fields(std::ostream &o) {
  o << "  wex_type_info *tinfo;\n  int8_t variant;\n  int8_t init_variant;\n  uint8_t flags;\n";
}

void emit_asserts(std::ostream &o, const Type &t) {
  o << "BIX_LAYOUT_ASSERT(sizeof(" << t.name << ") == " << t.fixed_size << ");\n";
  for (auto &f : t.fields)
    o << "BIX_LAYOUT_ASSERT(offsetof(" << t.name << ", " << f.name << ") == " << f.offset << ");\n";
}

// A field's kind as a reader of the header sees it: "u_int8[37]", "enum wex_xcvr_rc".
std::string field_kind_text(const Field &f) {
  switch (f.kind) {
    case FieldKind::Prim: return prim_name(f.prim);
    case FieldKind::Count: return std::string(prim_name(f.prim)) + ", read-only count";
    case FieldKind::Enum: return "enum " + f.type->name;
    case FieldKind::Selector: return "enum " + f.type->name + ", union selector";
    case FieldKind::Flags: return "flags " + f.type->name;
    case FieldKind::Record: return "record " + f.type->name;
    case FieldKind::FixedArray: return std::string(prim_name(f.prim)) + "[" + std::to_string(f.count) + "]";
    case FieldKind::VarArray: return std::string(prim_name(f.prim)) + "[], variable";
    case FieldKind::RecordArray: return "record " + f.type->name + "[" + std::to_string(f.count) + "]";
    case FieldKind::UnionAlt:
      return "union alternative " + std::to_string(f.count) + ", " + f.type->name;
  }
  return "";
}

// One type's operations in the public header, grouped as the header's preamble says.
void emit_operations(std::ostream &o, const Type &t) {
  const char *kind = t.kind == TypeKind::Record ? "record" : t.kind == TypeKind::Enum ? "enumeration"
                   : t.kind == TypeKind::Flags ? "flag set" : "message";
  o << "/* ==== " << kind << " " << c_name(t) << (t.doc.empty() ? "" : ": " + t.doc) << " ==== */\n";
  std::ostringstream runtime;
  const Field *group = nullptr;
  for_each_op(t, [&](const std::string &proto, const std::string &, const std::string &doc,
                     const OpSite &site) {
    if (!site.field && !site.member && runtime_facing_op(site.suffix)) {
      runtime << "/* " << doc << " */\n" << proto << ";\n";
      return;
    }
    if (site.field && site.field != group) {
      group = site.field;
      o << "/* -- field " << group->name << " (" << field_kind_text(*group) << ")"
        << (group->doc.empty() ? "" : ": " + group->doc) << " -- */\n";
    }
    o << "/* " << doc << " */\n" << proto << ";\n";
  });
  if (!runtime.str().empty())
    o << "/* -- runtime-facing operations of " << c_name(t)
      << ": called by the type runtime and generated code; applications rarely need them -- */\n"
      << runtime.str();
  o << "\n";
}

}  // namespace

bool write_if_changed(const std::string &path, const std::string &text) {
  {
    std::ifstream in(path, std::ios::binary);
    if (in) {
      std::stringstream cur;
      cur << in.rdbuf();
      if (cur.str() == text) return true;
    }
  }
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) std::fprintf(stderr, "bixgen: cannot write %s\n", path.c_str());
  return static_cast<bool>(out);
}

std::string emit_public_header(const Schema &s) {
  std::ostringstream o;
  o << "/* bix_ipc_shim.h: the whole C ABI of libbix_ipc_shim. Generated by bixgen from the\n"
       " * schema; do not edit. docs/guide.md explains how to use it; reference.md (installed\n"
       " * under share/doc/bix_ipc_shim) lists every type, field and literal.\n"
       " *\n"
       " * Conventions of every operation:\n"
       " * - h, the wex handle, comes first: the runtime's per-caller context (allocator,\n"
       " *   state-tracking mode, domain). wex_handle_new() makes one; wex_handle_set_tracking()\n"
       " *   turns change tracking on before any instance is created.\n"
       " * - ws, a workspace id, comes second. The library only passes it on to the handle's\n"
       " *   allocator and hooks; 0 is fine unless your allocator uses it.\n"
       " * - err, the error slot (uint32_t *), comes last. 0 means no error. An operation that\n"
       " *   finds a code already there does nothing, so a chain of calls can be checked once\n"
       " *   at the end. bix_ipc_shim_error_text() says what a code means (they are errno\n"
       " *   numbers, but strerror() names them otherwise). Most failures are also stored in\n"
       " *   the handle's own error member, which _cr forms read: clear h->error after handling.\n"
       " * - _cr forms take no ws and no slot: they use h->default_ws and h->error.\n"
       " * - len is the bytes marshal needs; with tracking on it may be an upper bound (one\n"
       " *   byte over for an empty variable array), and it never counts the 9-byte ra item of\n"
       " *   records the runtime flags 0x20: keep room when re-encoding what you decoded.\n"
       " * - reuse (unmarshal): 1 keeps a variable array's storage when the count is unchanged;\n"
       " *   0, what every caller in this library passes, takes fresh storage.\n"
       " * - The null instance: a failed _cr create returns a shared static instance, not NULL.\n"
       " *   Operations refuse to write it (22); destroy ignores it. */\n"
       "#ifndef BIX_IPC_SHIM_H\n#define BIX_IPC_SHIM_H\n\n#include <stddef.h>\n#include <stdint.h>\n\n"
       "#include \"app_sess.h\"\n#include \"wex.h\"\n\n"
       "#ifdef __cplusplus\n#define BIX_LAYOUT_ASSERT(c) static_assert(c, #c)\nextern \"C\" {\n"
       "#else\n#define BIX_LAYOUT_ASSERT(c) _Static_assert(c, #c)\n#endif\n\n"
       "struct app_sess_hdr;\n\n";
  o << "/* ---- instance layouts ---- */\n";
  for (auto &t : s.types)
    if (t.kind == TypeKind::Record) o << "typedef struct " << t.name << " " << t.name << ";\n";
  o << "\n";
  for (auto &t : s.types) {
    if (t.kind == TypeKind::Enum) {
      o << "/* enumeration " << t.name << (t.doc.empty() ? "" : " (" + t.doc + ")")
        << ": user value at byte 12 */\n";
      o << "typedef struct " << t.name << " {\n";
      struct_header_fields(o);
      o << "  uint32_t value;\n} " << t.name << ";\n";
      o << "BIX_LAYOUT_ASSERT(sizeof(" << t.name << ") == 16);\n";
      o << "enum {\n";
      for (auto &l : t.literals) o << "  " << l.name << " = " << l.user << ",\n";
      o << "};\n\n";
    } else if (t.kind == TypeKind::Flags) {
      uint32_t nbytes = (static_cast<uint32_t>(t.literals.size()) + 7) / 8;
      o << "/* flag set " << t.name << (t.doc.empty() ? "" : " (" + t.doc + ")")
        << ": flag n is bit n%8 of bits[n/8] */\n";
      o << "typedef struct " << t.name << " {\n";
      struct_header_fields(o);
      o << "  uint8_t bits[" << nbytes << "];\n  uint8_t reserved_[" << 13 - nbytes << "];\n} "
        << t.name << ";\n";
      o << "BIX_LAYOUT_ASSERT(sizeof(" << t.name << ") == 24);\n";
      o << "enum { /* flag numbers */\n";
      for (auto &l : t.literals) o << "  " << l.name << " = " << l.user << ",\n";
      o << "};\n\n";
    }
  }
  for (const Type *tp : record_order(s)) {
    const Type &t = *tp;
    o << "/* record " << t.name << (t.doc.empty() ? "" : " (" + t.doc + ")") << ": " << t.fixed_size
      << " bytes, " << t.fixed_size + t.sttr_size << " with state tracking */\n";
    o << "struct " << t.name << " {\n";
    struct_header_fields(o);
    for (auto &f : t.fields) {
      o << "  ";
      switch (f.kind) {
        case FieldKind::Prim:
        case FieldKind::Count: o << prim_ctype(f.prim) << " " << f.name; break;
        case FieldKind::Enum:
        case FieldKind::Selector:
        case FieldKind::Flags:
        case FieldKind::Record: o << f.type->name << " " << f.name; break;
        case FieldKind::FixedArray: o << prim_ctype(f.prim) << " " << f.name << "[" << f.count << "]"; break;
        case FieldKind::VarArray: o << prim_ctype(f.prim) << " *" << f.name; break;
        case FieldKind::RecordArray: o << f.type->name << " " << f.name << "[" << f.count << "]"; break;
        case FieldKind::UnionAlt: o << f.type->name << " *" << f.name; break;
      }
      o << ";";
      if (!f.doc.empty()) o << "  /* " << f.doc << " */";
      o << "\n";
    }
    if (t.fixed_size > t.used) o << "  uint8_t reserved_[" << t.fixed_size - t.used << "];\n";
    o << "};\n";
    emit_asserts(o, t);
    o << "\n";
  }
  for (auto &t : s.types) {
    if (t.kind != TypeKind::Message) continue;
    o << "/* message " << t.name << " */\ntypedef struct " << t.name << "_message {\n";
    struct_header_fields(o);
    o << "  uint8_t pad_[5];\n  uint8_t header_record[16];\n";
    for (size_t i = 0; i < t.members.size(); ++i) {
      if (!t.members[i]) o << "  struct app_sess_hdr *app_sess_hdr;\n";
      // A member named like its type: the elaborated form keeps C++ from reading the
      // member's name as a change of the type name's meaning inside the struct.
      else o << "  struct " << t.members[i]->name << " *" << t.members[i]->name << ";\n";
    }
    o << "} " << t.name << "_message;\n";
    o << "BIX_LAYOUT_ASSERT(sizeof(" << t.name << "_message) == " << t.fixed_size << ");\n\n";
  }

  o << "/* ---- type info records and message objects ---- */\n";
  for (auto &t : s.types) o << "extern wex_type_info " << tinfo_symbol(t) << ";\n";
  for (auto &t : s.types) {
    if (t.kind != TypeKind::Message) continue;
    o << "extern const uint8_t message_" << t.name << "_luid[16];\n";
    o << "extern const char message_" << t.name << "_luid_text[33];\n";
    o << "extern const char message_" << t.name << "_name[64];\n";
  }
  o << "\n/* ---- receiving messages ---- */\n"
       "/* What a decoded message is handed to: (handle, ws, the context given to unmarshal,\n"
       " * the message, the error slot). Who destroys the message is the application's\n"
       " * convention: the handler, or the caller holding unmarshal's out argument. */\n"
       "typedef void (*bix_ipc_shim_message_handler_fn)(wex_handle *h, uint32_t ws,\n"
       "                                                uint64_t context, void *message,\n"
       "                                                uint32_t *err);\n"
       "/* Application handlers. The library references each weakly: an application that\n"
       " * defines one receives every message of that kind that unmarshal decodes without a\n"
       " * handler of its own; without either, unmarshal stores 38. */\n";
  for (auto &t : s.types)
    if (t.kind == TypeKind::Message)
      o << "void " << handler_symbol(t)
        << "(wex_handle *h, uint32_t ws, uint64_t context, void *message, uint32_t *err);\n";
  o << "/* Receives any of the messages: reads the LUID at bytes 27..42 of buffer and runs\n"
       " * that message's <msg>_message_unmarshal with these arguments (recording and\n"
       " * dispatch included). Returns the bytes consumed. A buffer shorter than 43 bytes\n"
       " * stores 74, an unknown LUID 2; both return 0 with *message (when given) NULL and\n"
       " * call no handler. An error already in the slot: 0, nothing done. */\n"
       "uint32_t bix_ipc_shim_message_receive(wex_handle *h, uint32_t ws, uint64_t context,\n"
       "                                      void **message, const uint8_t *buffer,\n"
       "                                      int32_t length,\n"
       "                                      bix_ipc_shim_message_handler_fn handler,\n"
       "                                      uint32_t *err);\n"
       "/* The bundle handler registered last through this library, or NULL. */\n"
       "extern app_sess_bundle_handler_fn bix_ipc_shim_bundle_registered_handler;\n"
       "/* Registers handler with the session-header library (arguments forwarded as given);\n"
       " * returns the handler this library registered before. */\n"
       "app_sess_bundle_handler_fn bix_ipc_shim_bundle_handler_register(\n"
       "    app_sess_bundle_handler_fn handler, void *ctx);\n"
       "/* Unregisters it there; returns the handler this library registered before. */\n"
       "app_sess_bundle_handler_fn bix_ipc_shim_bundle_handler_unregister(void);\n";
  o << "\n/* ---- module ---- */\n"
       "/* Register a copy of every type info record with the handle's registry. */\n"
       "void bix_ipc_shim_typeinfo_initialize(wex_handle *h, uint32_t ws, uint32_t *err);\n"
       "/* Print every type's variant table through a printf-like function. */\n"
       "void bix_ipc_shim_type_variant_dump(int (*print)(const char *fmt, ...));\n"
       "/* Register the trace module; returns the trace facility's result. */\n"
       "int wex_bix_ipc_shim_trace_init(void);\n"
       "/* What an error code in a slot means here, as a short text (\"buffer too small\" for\n"
       " * 90). The codes are errno numbers, but strerror() gives them other meanings. Never\n"
       " * NULL; \"unknown error code\" for a code neither this library nor the runtime stores. */\n"
       "const char *bix_ipc_shim_error_text(uint32_t code);\n"
       "extern uint16_t g_wex_bix_ipc_shim_trace_module_id;\n"
       "extern uint16_t g_wex_bix_ipc_shim_stub_trace_module_id;\n\n";

  o << "/* ---- operations ----\n"
       " * Per type: what applications call, then one group per field (its accessors), then\n"
       " * the runtime-facing operations that the type runtime and generated code call. */\n";
  for (auto &t : s.types) emit_operations(o, t);
  o << "#ifdef __cplusplus\n}\n#endif\n#endif /* BIX_IPC_SHIM_H */\n";
  return o.str();
}

std::string emit_internal_header(const Schema &s) {
  std::ostringstream o;
  o << "// Generated by bixgen: descriptors of every type, for the library's own units.\n"
       "#pragma once\n#include \"bix/desc.h\"\n\nnamespace bix::gen {\n";
  for (auto &t : s.types) {
    o << "extern const TypeDesc td_" << t.name << ";\n";
    if (t.kind == TypeKind::Record) o << "extern const fast::FastOps fo_" << t.name << ";\n";
    if (!t.fields.empty()) o << "extern const FieldDesc fd_" << t.name << "[];\n";
  }
  o << "}  // namespace bix::gen\n";
  return o.str();
}

std::string emit_tables(const Schema &s) {
  std::ostringstream o;
  o << "// Generated by bixgen: type info records, variant tables, descriptors, record list\n"
       "// and message objects.\n"
       "#include \"bix_gen.h\"\n#include \"bix_ipc_shim.h\"\n\n"
       "// A record's variant info table sits right before the record itself.\n"
       "struct TypeInfoBlock {\n  wex_variant_info vi;\n  wex_type_info ti;\n};\n"
       "static_assert(offsetof(TypeInfoBlock, ti) == 16);\n\n";
  // Variant entries and info blocks.
  for (auto &t : s.types) {
    o << "static wex_variant_entry ve_" << t.name << "[] = {";
    for (int v = 0; v <= t.latest_variant; ++v)
      o << (v ? ", " : "") << "{" << v << ", " << t.used << ", " << t.slop << ", 0, 0, 0, 0}";
    o << "};\n";
    std::string sym = "bix_tib_" + t.name;
    o << "extern \"C\" {\n__attribute__((visibility(\"hidden\"), used, aligned(16))) TypeInfoBlock " << sym
      << " = {\n    {" << t.latest_variant + 1 << ", {}, ve_" << t.name << "},\n"
      << "    {WEX_TYPE_INFO_MAGIC, {" << luid_bytes(t.luid) << "}, \"" << t.luid << "\", "
      << c_string(t.name) << ", \"bix_ipc_shim\", \"" << kind_text(t.kind) << "\", {}, 0xFFFFFFFFu, 0, &"
      << sym << ".vi, 0, 0}};\n}\n";
    std::string ex = tinfo_symbol(t);
    o << "asm(\".globl " << ex << "\\n.type " << ex << ", @object\\n.size " << ex << ", 272\\n.set "
      << ex << ", " << sym << " + 16\\n\");\n";
    o << "alignas(16) static unsigned char null_" << t.name << "[" << t.fixed_size << "];\n\n";
  }
  // The application's handlers: weak references, null when the application has none.
  for (auto &t : s.types)
    if (t.kind == TypeKind::Message)
      o << "extern \"C\" __attribute__((weak, visibility(\"default\"))) void " << handler_symbol(t)
        << "(wex_handle *, uint32_t, uint64_t, void *, uint32_t *);\n";
  o << "\nnamespace bix::gen {\n\n";
  uint16_t msg_index = 0;
  for (auto &t : s.types) {
    if (!t.fields.empty()) {
      o << "const FieldDesc fd_" << t.name << "[] = {\n";
      for (size_t i = 0; i < t.fields.size(); ++i) {
        const Field &f = t.fields[i];
        o << "    {\"" << f.name << "\", FieldKind::" << field_kind(f.kind) << ", Prim::"
          << prim_enum(f.prim) << ", " << i << ", " << f.offset << ", " << f.count << ", "
          << f.elem_size << ", " << f.sttr << ", " << f.sttr_elems << ", " << f.sttr_areas << ", "
          << f.sttr_ptr << ", " << (f.type ? "&td_" + f.type->name : "nullptr") << ", " << f.link
          << ", " << (f.in_get_all ? "true" : "false") << ", " << (f.in_set_all ? "true" : "false")
          << ", " << f.run_fields << ", " << f.run_elems << "},\n";
      }
      o << "};\n";
    }
    if (!t.literals.empty()) {
      o << "static const LiteralDesc lit_" << t.name << "[] = {\n";
      for (auto &l : t.literals)
        o << "    {\"" << l.name << "\", " << l.user << ", " << l.since << "},\n";
      o << "};\n";
    }
    if (!t.members.empty()) {
      o << "static const MemberDesc mem_" << t.name << "[] = {\n";
      for (size_t i = 0; i < t.members.size(); ++i) {
        const Type *m = t.members[i];
        o << "    {\"" << member_name(m) << "\", " << t.member_offsets[i] << ", "
          << (m ? "&td_" + m->name : "nullptr") << "},\n";
      }
      o << "};\n";
    }
    const char *kinds[] = {"Record", "Enum", "Flags", "Message"};
    o << "const TypeDesc td_" << t.name << " = {\"" << t.name << "\", TypeKind::"
      << kinds[static_cast<int>(t.kind)] << ", &" << tinfo_symbol(t) << ", null_" << t.name
      << ", " << t.fixed_size << ", " << t.sttr_size << ", " << t.latest_variant << ", "
      << (t.has_embedded ? "true" : "false") << ", "
      << (t.fields.empty() ? "nullptr" : "fd_" + t.name) << ", " << t.fields.size() << ", "
      << (t.literals.empty() ? "nullptr" : "lit_" + t.name) << ", " << t.literals.size() << ", "
      << (t.shifted ? "true" : "false") << ", "
      << (t.kind == TypeKind::Flags ? (t.literals.size() + 7) / 8 : 0) << ", "
      << (t.members.empty() ? "nullptr" : "mem_" + t.name) << ", " << t.members.size() << ", "
      << t.wire_len_off << ", " << t.wire_len_on << ", ";
    if (t.kind == TypeKind::Message)
      o << "message_" << t.name << "_luid, message_" << t.name << "_name, &" << handler_symbol(t)
        << ", " << msg_index++;
    else
      o << "nullptr, nullptr, nullptr, 0";
    o << ", " << (&t - s.types.data()) << ", "
      << (t.kind == TypeKind::Record ? "&fo_" + t.name : "nullptr") << "};\n\n";
  }
  o << "}  // namespace bix::gen\n\nnamespace bix {\n";
  o << "const TypeDesc *const kAllTypes[] = {\n";
  for (auto &t : s.types) o << "    &gen::td_" << t.name << ",\n";
  o << "};\nconst uint32_t kAllTypesCount = " << s.types.size() << ";\n";
  o << "wex_type_info *const kRecordList[] = {\n";
  // Through the exported symbols: an executable that copies a record by copy relocation
  // must see the same address the library stores into instances.
  for (auto &t : s.types) o << "    &" << tinfo_symbol(t) << ",\n";
  o << "    nullptr};\n}  // namespace bix\n\n";
  for (auto &t : s.types) {
    if (t.kind != TypeKind::Message) continue;
    o << "BIX_EXPORT const uint8_t message_" << t.name << "_luid[16] = {" << luid_bytes(t.luid) << "};\n";
    o << "BIX_EXPORT const char message_" << t.name << "_luid_text[33] = \"" << t.luid << "\";\n";
    o << "BIX_EXPORT const char message_" << t.name << "_name[64] = \"message " << t.name << "\";\n";
  }
  return o.str();
}

std::string emit_unit(const Schema &, const Type &t) {
  std::ostringstream o;
  o << "// Generated by bixgen: the exported operations of " << t.name << ".\n"
       "#include \"bix_ipc_shim.h\"\n#include \"bix/core.h\"\n#include \"bix_gen.h\"\n";
  o << emit_fast_unit(t) << "\n";
  for_each_op(t, [&](const std::string &proto, const std::string &body, const std::string &, const OpSite &) {
    o << "BIX_EXPORT " << proto << " { " << body << " }\n";
  });
  return o.str();
}

std::string emit_facts(const Schema &s) {
  std::ostringstream o;
  o << "// Generated by bixgen for tests: the computed layout of every type and field, so a\n"
       "// test can run one behaviour across every field of a kind.\n#pragma once\n#include <cstdint>\n\n"
       "namespace bixfacts {\n"
       "struct Type { const char *name; const char *kind; uint32_t fixed_size, sttr_size;\n"
       "  int latest; const char *luid; uint32_t nliterals; bool shifted; };\n"
       "// Enumeration literals and flag names (user value or flag number).\n"
       "struct Literal { const char *type; const char *name; uint32_t user; };\n"
       "// Members of each message in order; type null for the session header.\n"
       "struct Member { const char *message; const char *name; const char *type;\n"
       "  uint32_t offset; };\n"
       "struct Field { const char *type; const char *name; const char *kind; const char *prim;\n"
       "  uint32_t offset, count, elem_size, sttr, sttr_elems, sttr_areas, sttr_ptr;\n"
       "  const char *member; int link; bool in_get_all, in_set_all; };\n"
       "inline constexpr Type kTypes[] = {\n";
  for (auto &t : s.types)
    o << "    {\"" << t.name << "\", \"" << kind_text(t.kind) << "\", " << t.fixed_size << ", "
      << t.sttr_size << ", " << t.latest_variant << ", \"" << t.luid << "\", " << t.literals.size()
      << ", " << (t.shifted ? "true" : "false") << "},\n";
  o << "};\ninline constexpr Field kFields[] = {\n";
  for (auto &t : s.types)
    for (auto &f : t.fields)
      o << "    {\"" << t.name << "\", \"" << f.name << "\", \"" << field_kind(f.kind) << "\", \""
        << prim_name(f.prim) << "\", " << f.offset << ", " << f.count << ", " << f.elem_size << ", "
        << f.sttr << ", " << f.sttr_elems << ", " << f.sttr_areas << ", " << f.sttr_ptr << ", "
        << (f.type ? "\"" + f.type->name + "\"" : "nullptr") << ", " << f.link << ", "
        << (f.in_get_all ? "true" : "false") << ", " << (f.in_set_all ? "true" : "false") << "},\n";
  o << "};\ninline constexpr Literal kLiterals[] = {\n";
  for (auto &t : s.types)
    for (auto &l : t.literals)
      o << "    {\"" << t.name << "\", \"" << l.name << "\", " << l.user << "},\n";
  o << "};\ninline constexpr Member kMembers[] = {\n";
  for (auto &t : s.types)
    for (size_t i = 0; i < t.members.size(); ++i)
      o << "    {\"" << t.name << "\", \"" << member_name(t.members[i]) << "\", "
        << (t.members[i] ? "\"" + t.members[i]->name + "\"" : "nullptr") << ", "
        << t.member_offsets[i] << "},\n";
  o << "};\n}  // namespace bixfacts\n";
  return o.str();
}

std::string emit_trace_texts(const Schema &s, const TraceTable &t) {
  std::ostringstream o;
  o << "// Generated by bixgen: the " << t.name << " trace table in index order, as the library\n"
       "// hands it to the trace facility. BIX_TRACE_TEXT(level, \"format\")\n";
  for (auto &p : expanded_points(s, t))
    o << "BIX_TRACE_TEXT(" << p.level << ", \"" << p.text << "\")\n";
  return o.str();
}

// ---- data sections ----

namespace {

// Bytes of a section, emitted as assembler so that we control the section flags.
void asm_section(std::ostream &o, const std::string &name, const char *flags,
                 const std::vector<uint8_t> &bytes) {
  o << "asm(\".pushsection " << name << ",\\\"" << flags << "\\\",@progbits\\n\"\n";
  for (size_t i = 0; i < bytes.size(); i += 16) {
    o << "    \".byte ";
    for (size_t j = i; j < std::min(bytes.size(), i + 16); ++j)
      o << (j > i ? "," : "") << static_cast<int>(bytes[j]);
    o << "\\n\"\n";
  }
  o << "    \".popsection\\n\");\n";
}

void put32(std::vector<uint8_t> &b, uint32_t v) {
  for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void put16(std::vector<uint8_t> &b, uint16_t v) {
  b.push_back(static_cast<uint8_t>(v));
  b.push_back(static_cast<uint8_t>(v >> 8));
}

void manifest_record(std::vector<uint8_t> &b, uint32_t kind, const std::string &text) {
  put32(b, static_cast<uint32_t>(text.size() + 1));
  put32(b, kind);
  b.insert(b.end(), text.begin(), text.end());
  b.push_back(0);
  while (b.size() % 4) b.push_back(0);
}

}  // namespace

std::string manifest_text(const Schema &s) {
  std::string out = "# bix_ipc_shim.brev\n";
  auto line = [&](const Type &t) {
    char buf[128];
    const char *kind = t.kind == TypeKind::Message ? "mess" : kind_text(t.kind);
    uint32_t size = t.kind == TypeKind::Message ? 0 : round_up(t.used, 8);
    std::snprintf(buf, sizeof buf, "%s:%s%s%03d:%05uN\n", t.luid.c_str(), t.hash.c_str(), kind,
                  t.latest_variant, size);
    out += buf;
  };
  for (auto &n : s.manifest) line(*s.find(n));
  std::vector<const Type *> msgs;
  for (auto &t : s.types)
    if (t.kind == TypeKind::Message) msgs.push_back(&t);
  std::sort(msgs.begin(), msgs.end(), [](auto *a, auto *b) { return a->luid < b->luid; });
  for (auto *m : msgs) line(*m);
  return out;
}

bool emit_sections(const Schema &s, const std::vector<TraceTable> &tables, std::string &out) {
  std::ostringstream o;
  o << "// Generated by bixgen: the type manifest (not loaded) and the trace-point sections.\n";
  std::vector<uint8_t> man;
  manifest_record(man, 2, manifest_text(s));
  manifest_record(man, 1, "bixgen: types=" + std::to_string(s.types.size()) + " schema=bix_ipc_shim.schema");
  asm_section(o, ".orvik", "", man);

  std::string blob;
  for (auto &t : tables) {
    std::vector<uint8_t> sec;
    put16(sec, 1);  // version
    const std::vector<TracePoint> points = expanded_points(s, t);
    put16(sec, static_cast<uint16_t>(points.size()));
    for (size_t i = 0; i < 32; i += 2) sec.push_back(static_cast<uint8_t>(std::stoul(t.luid.substr(i, 2), nullptr, 16)));
    for (auto &p : points) {
      put16(sec, static_cast<uint16_t>(p.text.size() + 1));
      put32(sec, static_cast<uint32_t>(blob.size()));
      blob += p.text;
      blob.push_back('\0');
    }
    asm_section(o, ".lumo_luids_" + t.luid, "a", sec);
  }
  std::vector<char> bz(blob.size() + blob.size() / 100 + 1024);
  unsigned int bzlen = static_cast<unsigned int>(bz.size());
  if (BZ2_bzBuffToBuffCompress(bz.data(), &bzlen, blob.data(), static_cast<unsigned int>(blob.size()), 9, 0, 0) != BZ_OK) {
    std::fprintf(stderr, "bixgen: bzip2 compression of the trace texts failed\n");
    return false;
  }
  asm_section(o, ".lumo_format_strings", "a", std::vector<uint8_t>(bz.begin(), bz.begin() + bzlen));
  std::vector<uint8_t> dec = {'L', 'U', 'M', 'O', 'D', 'E', 'C', '1'};
  size_t ntexts = 0;
  for (auto &t : tables) ntexts += expanded_points(s, t).size();
  put16(dec, 1);  // version
  put16(dec, static_cast<uint16_t>(tables.size()));
  put32(dec, static_cast<uint32_t>(blob.size()));
  put32(dec, static_cast<uint32_t>(ntexts));
  dec.push_back(1);  // bzip2
  dec.resize(30, 0);
  asm_section(o, ".lumo_decoder", "a", dec);
  out = o.str();
  return true;
}

}  // namespace bixgen
