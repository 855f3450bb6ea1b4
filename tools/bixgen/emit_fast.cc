// The wire codec's fast path: per record and layout (state bytes off or on), the plan of
// steps the core's templates execute (src/include/bix/fast.h). A plan lays out the
// record at its latest variant, where every wire offset is known here, and merges
// back-to-back primitives of one width into one step. What a plan cannot express (a
// variable item in a member, two variable items in one record) makes it unsupported: the
// walker then handles every call of that record.
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "emit.h"

namespace bixgen {
namespace {

struct GenStep {
  const char *op;
  uint32_t field = 0, n = 0, src = 0, dst = 0, area = 0, stride = 0, wire = 0, tail = 0;
  std::string type, plan;  // descriptor and plan symbols, empty for none
};

struct GenPlan {
  std::vector<GenStep> steps;
  uint32_t len = 6, end = 0;
  bool dynamic = false, supported = true;
};

std::string plan_name(const Type &t, bool on) {
  return "kPlan_" + t.name + (on ? "_on" : "_off");
}
std::string desc_name(const Type &t) {
  return "&td_" + t.name;
}

const char *prim_op(Prim p) {
  switch (prim_size(p)) {
    case 1:
      return "Bytes";
    case 2:
      return "Be16";
    default:
      return "Be32";
  }
}

using Plans = std::map<std::string, GenPlan>;  // by plan name

bool fixed_plan(const Plans &plans, const Type &t, bool on) {
  auto it = plans.find(plan_name(t, on));
  return it != plans.end() && it->second.supported && !it->second.dynamic;
}

GenPlan make_plan(const Plans &plans, const Type &t, bool on) {
  GenPlan p;
  uint32_t cur = 6;  // from the cursor: the record's start, or the end of its variable item
  int variable = -1;
  auto advance = [&](uint32_t n) { cur += n, p.len += n; };
  auto states = [&](uint32_t n, uint32_t area) {
    if (!on) return;
    p.steps.push_back({"States", 0, n, 0, cur, area});
    advance(n);
  };
  for (size_t i = 0; i < t.fields.size() && p.supported; ++i) {
    const Field &f = t.fields[i];
    switch (f.kind) {
      case FieldKind::Prim:
      case FieldKind::FixedArray: {
        const uint32_t w = prim_size(f.prim), n = f.kind == FieldKind::Prim ? 1 : f.count;
        GenStep *last = p.steps.empty() ? nullptr : &p.steps.back();
        if (!on && last && std::string(last->op) == prim_op(f.prim) &&
            last->src + last->n * w == f.offset && last->dst + last->n * w == cur)
          last->n += n;
        else
          p.steps.push_back({prim_op(f.prim), 0, n, f.offset, cur});
        advance(n * w);
        states(f.kind == FieldKind::Prim ? 1 : 1 + f.count, f.sttr);
        break;
      }
      case FieldKind::Count: {
        // The count travels right before its array, which the step reads with it.
        const bool next_is_array = i + 1 < t.fields.size() &&
                                   t.fields[i + 1].kind == FieldKind::VarArray &&
                                   t.fields[i + 1].link == static_cast<int>(i);
        if (!next_is_array || variable >= 0) {
          p.supported = false;
          break;
        }
        variable = static_cast<int>(p.steps.size());
        p.steps.push_back(
            {"VarArray", static_cast<uint32_t>(i + 1), 1, f.offset, cur, 0, 0, 0, 0, desc_name(t)});
        p.len += 4;
        cur = 0;
        ++i;
        break;
      }
      case FieldKind::VarArray:
        p.supported = false;
        break;
      case FieldKind::Enum:
      case FieldKind::Selector:
        p.steps.push_back({"Enum", 0, 1, f.offset, cur, 0, 0, 0, 0, desc_name(*f.type)});
        advance(5);
        states(1, f.sttr);
        break;
      case FieldKind::Flags: {
        const uint32_t nb = (static_cast<uint32_t>(f.type->literals.size()) + 7) / 8;
        p.steps.push_back({"Flags", 0, nb, f.offset, cur, 0, 0, 0, 0, desc_name(*f.type)});
        advance(5 + nb);
        states(1, f.sttr);
        break;
      }
      case FieldKind::Record:
      case FieldKind::RecordArray: {
        if (!fixed_plan(plans, *f.type, on)) {
          p.supported = false;
          break;
        }
        const uint32_t n = f.kind == FieldKind::Record ? 1 : f.count;
        const uint32_t wire = plans.at(plan_name(*f.type, on)).len;
        p.steps.push_back({"Members", 0, n, f.offset, cur, 0, f.type->fixed_size, wire, 0,
                           desc_name(*f.type), plan_name(*f.type, on)});
        advance(n * wire);
        states(f.kind == FieldKind::Record ? 1 : 1 + f.count, f.sttr);
        break;
      }
      case FieldKind::UnionAlt: {
        // Alternatives are found by position (the selector's value), their references and
        // state bytes by the first one's.
        size_t j = i;
        for (; j < t.fields.size() && t.fields[j].kind == FieldKind::UnionAlt &&
               t.fields[j].link == f.link;
             ++j) {
          const Field &a = t.fields[j];
          const uint32_t k = static_cast<uint32_t>(j - i);
          if (!fixed_plan(plans, *a.type, false) || !fixed_plan(plans, *a.type, true) ||
              a.count != k + 1 || a.offset != f.offset + 8 * k || a.sttr != f.sttr + k)
            p.supported = false;
        }
        if (variable >= 0) p.supported = false;
        variable = static_cast<int>(p.steps.size());
        const uint32_t selector = t.fields[f.link].offset + 12;
        p.steps.push_back({"Union", static_cast<uint32_t>(i), static_cast<uint32_t>(j - i),
                           selector, cur, f.sttr, f.offset, 0, 0, desc_name(t)});
        cur = 0;
        i = j - 1;
        break;
      }
    }
  }
  p.end = cur;
  if (variable >= 0) {
    p.dynamic = true;
    p.steps[variable].tail = cur;
  }
  return p;
}

// Records, each after the records it embeds.
std::vector<const Type *> member_order(const Schema &s) {
  std::vector<const Type *> out;
  std::set<std::string> done;
  std::function<void(const Type &)> visit = [&](const Type &t) {
    if (!done.insert(t.name).second) return;
    for (const Field &f : t.fields)
      if (f.kind == FieldKind::Record || f.kind == FieldKind::RecordArray) visit(*f.type);
    out.push_back(&t);
  };
  for (const Type &t : s.types)
    if (t.kind == TypeKind::Record) visit(t);
  return out;
}

void emit_plan(std::ostream &o, const Type &t, bool on, const GenPlan &p) {
  const std::string name = plan_name(t, on);
  if (!p.steps.empty() && p.supported) {
    o << "inline constexpr fast::Step kSteps" << name.substr(5) << "[] = {\n";
    for (const GenStep &s : p.steps)
      o << "    {fast::Op::" << s.op << ", " << s.field << ", " << s.n << ", " << s.src << ", "
        << s.dst << ", " << s.area << ", " << s.stride << ", " << s.wire << ", " << s.tail << ", "
        << (s.type.empty() ? "nullptr" : s.type) << ", "
        << (s.plan.empty() ? "nullptr" : "&" + s.plan) << "},\n";
    o << "};\n";
  }
  const bool steps = !p.steps.empty() && p.supported;
  o << "inline constexpr fast::Plan " << name << "{"
    << (steps ? "kSteps" + name.substr(5) : "nullptr") << ", " << (steps ? p.steps.size() : 0)
    << ", " << p.len << ", " << p.end << ", " << (on ? "true" : "false") << ", "
    << (p.dynamic ? "true" : "false") << ", " << (p.supported ? "true" : "false") << ", "
    << t.latest_variant << "};\n";
}

}  // namespace

bool emit_plans(const Schema &s, std::string &out) {
  std::ostringstream o;
  o << "// Generated by bixgen: the wire codec's fast-path plans of every record, in the\n"
       "// state-bytes-off and -on layouts (see bix/fast.h).\n"
       "#pragma once\n#include \"bix/fast.h\"\n#include \"bix_gen.h\"\n\nnamespace bix::gen {\n\n";
  Plans plans;
  uint32_t widest = 0;
  for (const Type *t : member_order(s)) {
    widest = std::max(widest, t->sttr_size);
    for (bool on : {false, true}) {
      GenPlan p = make_plan(plans, *t, on);
      // The walker's constant lengths and the plan's must agree: both follow the schema.
      const uint32_t want = on ? t->wire_len_on : t->wire_len_off;
      if (p.supported && !p.dynamic && p.len != want) {
        std::fprintf(stderr, "bixgen: %s: plan length %u, wire length %u\n", t->name.c_str(), p.len,
                     want);
        return false;
      }
      emit_plan(o, *t, on, p);
      plans[plan_name(*t, on)] = std::move(p);
    }
    o << "\n";
  }
  o << "static_assert(" << widest
    << " + 8 <= fast::kZeroAreaSize, \"an area outgrows the zero area\");\n";
  o << "\n}  // namespace bix::gen\n";
  out = o.str();
  return true;
}

std::string emit_fast_unit(const Type &t) {
  if (t.kind != TypeKind::Record) return "";
  // Its wire operations call these directly; the core reaches them through the descriptor.
  return "#include \"bix_plans.h\"\n\nnamespace bix::gen {\nconst fast::FastOps fo_" + t.name +
         " = fast::ops<" + plan_name(t, false) + ", " + plan_name(t, true) + ">();\n}\n";
}

}  // namespace bixgen
