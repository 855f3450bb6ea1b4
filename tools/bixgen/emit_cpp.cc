// Writes bix_ipc_shim.hpp, the typed C++ layer over the C ABI, and the visitor that lets
// tests run one check over every C++ accessor. What is the same for every type lives in the
// hand-written bix_ipc_shim_base.hpp; this emits only what the schema decides: enumerations,
// the C functions behind each type, and one accessor set per field, named after it.
#include "emit_cpp.h"

#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <sstream>

namespace bixgen {
namespace {

// C++ type of a record or message's instance, and of the owner standing for it.
std::string c_type(const Type &t) {
  return "::" + t.name + (t.kind == TypeKind::Message ? "_message" : "");
}
std::string owner(const Type &t) {
  return "::bix::" + t.name + (t.kind == TypeKind::Message ? "_message" : "");
}
std::string ref(const std::string &type, bool mut) {
  return "::bix::" + type + (mut ? "_ref" : "_cref");
}
// The reference a non-const accessor hands out: mutable unless the holder is read-only.
std::string ref_like(const std::string &type) {
  return "::bix::detail::pick_t<typename Base::c_type, " + ref(type, true) + ", " +
         ref(type, false) + ">";
}
std::string quoted(const std::string &s) {
  return "\"" + s + "\"";
}

// Names the generic bases already use: a field named so would hide or break them.
const std::set<std::string> kRecordBaseNames = {
    "get",       "handle",   "encoded_size", "encode",   "decode",      "to_text", "to_xml",
    "compare",   "hash",     "clone",        "release",  "reset",       "read",    "write",
    "ws",        "readable", "writable",     "c_type",   "object_type", "ops",     "alternative",
    "hand_over", "h_",       "p_",           "ref_type", "cref_type"};
const std::set<std::string> kMessageBaseNames = {
    "get",    "handle",     "encoded_size", "encode", "decode", "to_text", "to_xml",
    "clone",  "release",    "reset",        "ws",     "call",   "member",  "replace",
    "c_type", "owner_type", "ops",          "h_",     "p_"};

// The members a field's accessors take: its name and the prefixed forms.
std::vector<std::string> accessor_names(const Field &f) {
  switch (f.kind) {
    case FieldKind::Count:
      return {f.name};
    case FieldKind::UnionAlt:
      return {f.name, "set_" + f.name, "has_" + f.name, "emplace_" + f.name, "detach_" + f.name};
    default:
      return {f.name, "set_" + f.name};
  }
}

// False (with a diagnostic) when two accessors, or an accessor and the base, share a name.
bool names_clash(const Type &t) {
  std::set<std::string> taken;
  const auto &base = t.kind == TypeKind::Message ? kMessageBaseNames : kRecordBaseNames;
  bool clash = false;
  auto take = [&](const std::string &n) {
    if (base.count(n) || !taken.insert(n).second) {
      std::fprintf(stderr, "schema:%d: %s: the C++ accessor %s clashes with another member\n",
                   t.line, t.name.c_str(), n.c_str());
      clash = true;
    }
  };
  for (const Field &f : t.fields)
    for (const std::string &n : accessor_names(f)) take(n);
  for (const Type *m : t.members) {
    const std::string n = m ? m->name : "app_sess_hdr";
    for (const char *prefix : {"", "set_", "detach_"}) take(prefix + n);
  }
  return clash;
}

class Writer {
 public:
  explicit Writer(std::ostringstream &o) : o_(o) {}

  // this->template read<&::T_F_op>("T_F_op"[, args])
  std::string read(const Type &t, const Field &f, const std::string &op,
                   const std::string &args = "") const {
    return call("read", t.name + "_" + f.name + "_" + op, args);
  }
  std::string write(const Type &t, const Field &f, const std::string &op,
                    const std::string &args = "") const {
    return call("write", t.name + "_" + f.name + "_" + op, args);
  }

  void field(const Type &t, const Field &f) {
    const std::string &n = f.name;
    const std::string elem = prim_ctype(f.prim);
    switch (f.kind) {
      case FieldKind::Prim:
        line(elem + " " + n + "() const { return " + read(t, f, "get_value") + "; }");
        line("void set_" + n + "(" + elem + " value) { " + write(t, f, "set_value", "value") +
             "; }");
        break;
      case FieldKind::Count:
        line(elem + " " + n + "() const { return " + read(t, f, "get_value") + "; }");
        break;
      case FieldKind::Enum:
      case FieldKind::Selector: {
        const std::string e = "::bix::" + f.type->name;
        line(e + " " + n + "() const { return static_cast<" + e + ">(" + read(t, f, "get_value") +
             "); }");
        line("void set_" + n + "(" + e + " value) { " +
             write(t, f, "set_value", "static_cast<uint32_t>(value)") + "; }");
        break;
      }
      case FieldKind::Flags:
      case FieldKind::Record: {
        const std::string &m = f.type->name;
        line(ref(m, false) + " " + n + "() const { return {this->h_, " + read(t, f, "get") +
             "}; }");
        line(ref_like(m) + " " + n + "() { return {this->h_, " + read(t, f, "get") + "}; }");
        // A record given to set gives up its alternatives and variable storage: mutable.
        line("void set_" + n + "(" + ref(m, f.kind == FieldKind::Record) + " src) { " +
             write(t, f, "set", "src.get()") + "; }");
        break;
      }
      case FieldKind::FixedArray:
      case FieldKind::VarArray: {
        const std::string view = "::bix::span<const " + elem + ">";
        if (f.kind == FieldKind::FixedArray) {
          line(view + " " + n + "() const { return {" + read(t, f, "get", "0u") + ", " +
               std::to_string(f.count) + "u}; }");
        } else {
          const Field &count = t.fields[static_cast<size_t>(f.link)];
          line(view + " " + n + "() const {");
          line("  const uint32_t n = " + read(t, count, "get_value") + ";");
          line("  if (!n) return {};");
          line("  return {" + read(t, f, "get", "0u") + ", n};");
          line("}");
        }
        const std::string set_mem = t.name + "_" + n + "_set_mem";
        line("void set_" + n + "(" + view + " values) { " +
             write(
                 t, f, "set_mem",
                 "values.data(), ::bix::detail::count_of(values.size(), " + quoted(set_mem) + ")") +
             "; }");
        line("void set_" + n + "(uint32_t index, " + elem + " value) { " +
             write(t, f, "set_value", "index, value") + "; }");
        if (prim_size(f.prim) == 1)
          line("void set_" + n + "(std::string_view bytes) { set_" + n + "(" + view +
               "(reinterpret_cast<const " + elem + " *>(bytes.data()), bytes.size())); }");
        break;
      }
      case FieldKind::RecordArray: {
        const std::string &m = f.type->name;
        const std::string tail =
            ", " + std::to_string(f.count) + "u, " + quoted(t.name + "_" + n + "_get") + "}; }";
        line("::bix::detail::records<" + ref(m, false) + "> " + n +
             "() const { return {this->h_, " + read(t, f, "get", "0u") + tail);
        line("::bix::detail::records<" + ref_like(m) + "> " + n + "() { return {this->h_, " +
             read(t, f, "get", "0u") + tail);
        line("void set_" + n + "(uint32_t index, " + ref(m, true) + " src) { " +
             write(t, f, "set", "index, src.get()") + "; }");
        break;
      }
      case FieldKind::UnionAlt: {
        const std::string &m = f.type->name;
        const Field &sel = t.fields[static_cast<size_t>(f.link)];
        const std::string get = t.name + "_" + n + "_get";
        const std::string args = "<&::" + get + ", &" + c_type(t) + "::" + sel.name + ">(" +
                                 quoted(get) + ", " + std::to_string(f.count) + "u)";
        const std::string at = "this->template alternative" + args;
        line("bool has_" + n + "() const { return this->template has_alternative" + args + "; }");
        line(ref(m, false) + " " + n + "() const { return {this->h_, " + at + "}; }");
        line(ref_like(m) + " " + n + "() { return {this->h_, " + at + "}; }");
        line("void set_" + n + "(::bix::" + m + " &&owned) { this->template hand_over<&::" + get +
             ", &::" + t.name + "_" + n + "_set>(" + quoted(get) + ", " +
             quoted(t.name + "_" + n + "_set") + ", owned); }");
        line(ref(m, true) + " emplace_" + n + "() {");
        line("  ::bix::" + m + " owned(this->h_);");
        line("  " + c_type(*f.type) + " *at = owned.get();");
        line("  set_" + n + "(std::move(owned));");
        line("  return {this->h_, at};");
        line("}");
        line("::bix::" + m + " detach_" + n + "() { return ::bix::" + m +
             "(::bix::adopt, this->h_, " + write(t, f, "get_detach") + "); }");
        break;
      }
    }
  }

  void line(const std::string &s) { o_ << "  " << s << "\n"; }

 private:
  static std::string call(const char *how, const std::string &fn, const std::string &args) {
    return std::string("this->template ") + how + "<&::" + fn + ">(" + quoted(fn) +
           (args.empty() ? "" : ", " + args) + ")";
  }
  std::ostringstream &o_;
};

const char *field_kind_text(FieldKind k) {
  static const char *n[] = {"Prim",       "Count",    "Enum",        "Flags",    "Record",
                            "FixedArray", "VarArray", "RecordArray", "Selector", "UnionAlt"};
  return n[static_cast<int>(k)];
}

void emit_enum(std::ostringstream &o, const Type &t) {
  const std::string e = t.name;
  o << "// " << (t.kind == TypeKind::Enum ? "enumeration " : "flag numbers of the flag set ") << e
    << "\nenum class " << e << " : uint32_t {\n";
  for (const Literal &l : t.literals) o << "  " << l.name << " = " << l.user << "u,\n";
  o << "};\n";
  if (t.kind == TypeKind::Enum) {
    o << "// The literal's name as the text form shows it; NULL for a value without one.\n"
      << "inline const char *literal_name(" << e << " value) noexcept {\n"
      << "  return ::" << e << "_literal_name(static_cast<uint32_t>(value));\n}\n"
      << "// True, with the value in *out, when name is one of the literals.\n"
      << "inline bool literal_value(const char *name, " << e << " &out) noexcept {\n"
      << "  uint32_t v = 0;\n  if (!::" << e << "_literal_value(name, &v)) return false;\n"
      << "  out = static_cast<" << e << ">(v);\n  return true;\n}\n\n";
    return;
  }
  o << "using " << e << "_ref = detail::flag_set<::" << e << ">;\n"
    << "using " << e << "_cref = detail::flag_set<const ::" << e << ">;\n"
    << "namespace detail {\ntemplate <>\nstruct flag_ops<::" << e << "> {\n"
    << "  using flag = ::bix::" << e << ";\n"
    << "  static constexpr auto get_value = &::" << e << "_get_value;\n"
    << "  static constexpr const char *get_call = \"" << e << "_get_value\";\n"
    << "  static constexpr auto set_value = &::" << e << "_set_value;\n"
    << "  static constexpr const char *set_call = \"" << e << "_set_value\";\n};\n"
    << "}  // namespace detail\n\n";
}

void emit_record_ops(std::ostringstream &o, const Type &t) {
  o << "template <>\nstruct record_ops<::" << t.name << "> {\n"
    << "  static constexpr const char *name = \"" << t.name << "\";\n";
  for (const char *op : {"create", "destroy", "len", "marshal", "unmarshal", "print", "to_xml",
                         "clone", "compare", "hash"})
    o << "  static constexpr auto " << op << " = &::" << t.name << "_" << op << ";\n";
  o << "  using owner = ::bix::" << t.name << ";\n};\n";
}

// Records with every record they hold (members, record-array elements, alternatives) before
// them: a record's accessors make and return owners of its alternatives, whose classes must
// be complete where the accessors are defined. False for a cycle, which that rules out.
bool owner_order(const Schema &s, std::vector<const Type *> &out) {
  std::map<const Type *, int> state;  // 1 visiting, 2 done
  std::function<bool(const Type *)> visit = [&](const Type *t) {
    if (state[t] == 2) return true;
    if (state[t] == 1) {
      std::fprintf(stderr, "schema:%d: %s holds itself: no C++ owner order exists\n", t->line,
                   t->name.c_str());
      return false;
    }
    state[t] = 1;
    for (const Field &f : t->fields)
      if (f.type && f.type->kind == TypeKind::Record && !visit(f.type)) return false;
    state[t] = 2;
    out.push_back(t);
    return true;
  };
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Record && !visit(&t)) return false;
  return true;
}

// The accessors template of a record, then its owner.
void emit_record(std::ostringstream &o, const Type &t) {
  o << "// record " << t.name << "\ntemplate <class Base>\nclass " << t.name
    << "_fields : public Base {\n public:\n  using Base::Base;\n";
  Writer w(o);
  for (const Field &f : t.fields) {
    o << "  // " << f.name << ": " << field_kind_text(f.kind) << "\n";
    w.field(t, f);
  }
  o << "};\nclass " << t.name << " final : public " << t.name
    << "_fields<detail::owner<::" << t.name << ">> {\n public:\n  using " << t.name
    << "_fields::" << t.name << "_fields;\n  using ref_type = " << ref(t.name, true)
    << ";\n  using cref_type = " << ref(t.name, false) << ";\n};\n\n";
}

void emit_message(std::ostringstream &o, const Type &t) {
  const std::string cn = t.name + "_message";
  o << "namespace detail {\ntemplate <>\nstruct message_ops<::" << cn << "> {\n"
    << "  static constexpr const char *name = \"" << cn << "\";\n";
  for (const char *op : {"create", "destroy", "create_shallow", "len", "marshal", "unmarshal_only",
                         "print", "to_xml"})
    o << "  static constexpr auto " << op << " = &::" << cn << "_" << op << ";\n";
  o << "  using owner = ::bix::" << cn << ";\n"
    << "  static void clone_members(wex_handle *h, uint32_t ws, ::" << cn << " *src, ::" << cn
    << " *dst) {\n";
  for (const Type *m : t.members) {
    const std::string p = cn + "_" + (m ? m->name : "app_sess_hdr");
    o << "    clone_member<&::" << p << "_get, &::" << p << "_set>(h, ws, src, dst, \"" << p
      << "_get\", \"" << p << "_set\");\n";
  }
  o << "  }\n};\n}  // namespace detail\n\n";

  o << "// message " << t.name << "\nclass " << cn << " final : public detail::message<::" << cn
    << "> {\n public:\n  using message::message;\n";
  for (const Type *m : t.members) {
    const std::string mn = m ? m->name : "app_sess_hdr";
    const std::string p = cn + "_" + mn;
    const std::string get = "member<&::" + p + "_get>(\"" + p + "_get\")";
    o << "  " << ref(mn, false) << " " << mn << "() const { return {h_, " << get << "}; }\n"
      << "  " << ref(mn, true) << " " << mn << "() { return {h_, " << get << "}; }\n"
      << "  // Destroys the member it replaces.\n"
      << "  void set_" << mn << "(::bix::" << mn << " &&owned) { replace<&::" << p
      << "_get, &::" << p << "_free_and_set>(\"" << p << "_free_and_set\", owned); }\n"
      << "  ::bix::" << mn << " detach_" << mn << "() { return ::bix::" << mn
      << "(::bix::adopt, h_, call<&::" << p << "_get_detach>(\"" << p << "_get_detach\")); }\n";
  }
  o << "};\n\n";
}

}  // namespace

bool emit_cpp_header(const Schema &s, std::string &out) {
  bool clash = false;
  for (const Type &t : s.types) clash = names_clash(t) || clash;
  if (clash) return false;

  std::ostringstream o;
  o << "// bix_ipc_shim.hpp: the C++ API over libbix_ipc_shim (C++17 or later). Generated by\n"
       "// bixgen from the schema; do not edit. See bix_ipc_shim_base.hpp for owners,\n"
       "// references, errors and receive().\n"
       "//\n"
       "//   bix::handle h;                          // a runtime handle (tracking off)\n"
       "//   bix::ipc_shim_xcvr_presence_info_message m(h);\n"
       "//   m.wex_xcvr_presence_info().set_is_present(1);\n"
       "//   std::vector<uint8_t> bytes = m.encode();\n"
       "//   bix::receive(h, bytes, [](bix::ipc_shim_xcvr_presence_info_message &got) { ... });\n"
       "//\n"
       "// Every type keeps its C name inside namespace bix; spell them bix::<name> (a using-\n"
       "// directive for bix would make each one ambiguous with the C type of that name).\n"
       "// Accessors are named after the fields: f() reads (a value, an enum class value, a span\n"
       "// of an array, a reference to an embedded record or flag set, a range of a record\n"
       "// array), set_f(...) writes through the library's setter (so state tracking marks it);\n"
       "// a union alternative a adds has_a(), emplace_a() and detach_a(), and a() refuses with\n"
       "// 2 unless the selector picks a and a is there.\n"
       "#ifndef BIX_IPC_SHIM_HPP\n#define BIX_IPC_SHIM_HPP\n\n#include "
       "\"bix_ipc_shim_base.hpp\"\n\n"
       "namespace bix {\n\n";
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Enum || t.kind == TypeKind::Flags) emit_enum(o, t);

  o << "// Every record's references and owner, declared before any is defined: records refer\n"
       "// to each other through fields and union alternatives.\n";
  for (const Type &t : s.types) {
    if (t.kind != TypeKind::Record) continue;
    o << "template <class Base>\nclass " << t.name << "_fields;\n"
      << "using " << t.name << "_ref = " << t.name << "_fields<detail::ref<::" << t.name << ">>;\n"
      << "using " << t.name << "_cref = " << t.name << "_fields<detail::ref<const ::" << t.name
      << ">>;\nclass " << t.name << ";\n";
  }
  o << "class "
    << "app_sess_hdr;\n";
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Message) o << "class " << t.name << "_message;\n";
  o << "\nnamespace detail {\n";
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Record) emit_record_ops(o, t);
  o << "}  // namespace detail\n\n";

  std::vector<const Type *> order;
  if (!owner_order(s, order)) return false;
  for (const Type *t : order) emit_record(o, *t);
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Message) emit_message(o, t);

  o << "namespace detail {\n\ntemplate <class Fn>\n"
       "bool deliver_message(wex_handle *h, void *msg, Fn &fn) {\n"
       "  uint8_t luid[16] = {};\n  uint32_t err = 0;\n"
       "  ::wex_get_luid(h, ws_of(h), msg, luid, &err);\n  if (err) return false;\n";
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Message)
      o << "  if (std::memcmp(luid, ::message_" << t.name << "_luid, 16) == 0)\n"
        << "    return deliver_as<" << owner(t) << ">(h, msg, fn);\n";
  o << "  // Unreachable: the library hands over only messages it found by these LUIDs.\n"
       "  return false;\n}\n\n}  // namespace detail\n}  // namespace bix\n\n"
       "#endif  // BIX_IPC_SHIM_HPP\n";
  out = o.str();
  return true;
}

std::string emit_cpp_facts(const Schema &s) {
  std::ostringstream o;
  o << "// Generated by bixgen for tests: every record's and message's C++ accessors, by field\n"
       "// kind, so one check runs over each of them. for_each_record(v) calls\n"
       "//   v(tag<owner>{}, \"type\", fields) and fields(f) calls per field, in schema order:\n"
       "//   f.scalar(name, kind, get, set)          Prim, Enum, Selector\n"
       "//   f.count(name, get)                      Count\n"
       "//   f.array(name, kind, get, set_all, set_one)   FixedArray, VarArray\n"
       "//   f.record(name, get, set)                Record\n"
       "//   f.flags(name, get, set)                 Flags\n"
       "//   f.records(name, get, set_one)           RecordArray\n"
       "//   f.alternative(name, position, has, get, set, emplace, detach)   UnionAlt\n"
       "// for_each_message(v) calls v(tag<owner>{}, \"msg\", members), members(f) calls\n"
       "//   f.member(name, get, set, detach) per member.\n"
       "#pragma once\n#include <utility>\n\n#include \"bix_ipc_shim.hpp\"\n\nnamespace bixcpp {\n\n"
       "template <class T>\nstruct tag {\n  using type = T;\n};\n\n"
       "template <class V>\nvoid for_each_record(V &&v) {\n";
  auto get = [](const std::string &n) { return "[](auto &r) { return r." + n + "(); }"; };
  for (const Type &t : s.types) {
    if (t.kind != TypeKind::Record) continue;
    o << "  v(tag<" << owner(t) << ">{}, \"" << t.name << "\", [](auto &f) {\n";
    for (const Field &f : t.fields) {
      const std::string &n = f.name, k = quoted(field_kind_text(f.kind));
      const std::string set = "[](auto &r, auto &&x) { r.set_" + n + "(x); }";
      const std::string set_one = "[](auto &r, uint32_t i, auto &&x) { r.set_" + n + "(i, x); }";
      o << "    f.";
      switch (f.kind) {
        case FieldKind::Prim:
        case FieldKind::Enum:
        case FieldKind::Selector:
          o << "scalar(\"" << n << "\", " << k << ", " << get(n) << ", " << set;
          break;
        case FieldKind::Count:
          o << "count(\"" << n << "\", " << get(n);
          break;
        case FieldKind::FixedArray:
        case FieldKind::VarArray:
          o << "array(\"" << n << "\", " << k << ", " << get(n) << ", " << set << ", " << set_one;
          break;
        case FieldKind::Record:
          o << "record(\"" << n << "\", " << get(n) << ", " << set;
          break;
        case FieldKind::Flags:
          o << "flags(\"" << n << "\", " << get(n) << ", " << set;
          break;
        case FieldKind::RecordArray:
          o << "records(\"" << n << "\", " << get(n) << ", " << set_one;
          break;
        case FieldKind::UnionAlt:
          o << "alternative(\"" << n << "\", " << f.count << "u, " << get("has_" + n) << ", "
            << get(n) << ", [](auto &r, auto &&m) { r.set_" << n << "(std::move(m)); }, "
            << get("emplace_" + n) << ", " << get("detach_" + n);
          break;
      }
      o << ");\n";
    }
    o << "  });\n";
  }
  o << "}\n\ntemplate <class V>\nvoid for_each_message(V &&v) {\n";
  for (const Type &t : s.types) {
    if (t.kind != TypeKind::Message) continue;
    o << "  v(tag<" << owner(t) << ">{}, \"" << t.name << "\", [](auto &f) {\n";
    for (const Type *m : t.members) {
      const std::string mn = m ? m->name : "app_sess_hdr";
      o << "    f.member(\"" << mn << "\", " << get(mn) << ", [](auto &r, auto &&m) { r.set_" << mn
        << "(std::move(m)); }, " << get("detach_" + mn) << ");\n";
    }
    o << "  });\n";
  }
  o << "}\n\n}  // namespace bixcpp\n";
  return o.str();
}

}  // namespace bixgen
