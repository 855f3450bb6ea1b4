// Test support for the text and XML forms: the exported operations by type name, and two
// readings of what the forms must hold, taken from the layout facts and the instance's
// bytes alone: the expected text, and a check of a parsed XML element against it.
#pragma once

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <sstream>

#include "../wire/fill.h"

namespace bixtest {

using CrTextFn = int32_t (*)(wex_handle *, const void *, char *, uint32_t);

template <typename T>
T load_as(const uint8_t *at) {
  T v;
  std::memcpy(&v, at, sizeof v);
  return v;
}

inline std::vector<const bixfacts::Field *> fields_of(const std::string &type) {
  std::vector<const bixfacts::Field *> out;
  for (const auto &f : bixfacts::kFields)
    if (type == f.type) out.push_back(&f);
  return out;
}

inline bool has_union(const std::string &type) {
  for (const auto &f : bixfacts::kFields)
    if (type == f.type && std::string(f.kind) == "Selector") return true;
  return false;
}

inline void *create(wex_handle *h, const std::string &type) {
  return op<CreateFn>(type, "create")(h, 0);
}
inline void destroy(wex_handle *h, const std::string &type, void *inst) {
  op<DestroyFn>(type, "destroy")(h, 0, inst);
}

inline std::string print(wex_handle *h, const std::string &type, const void *inst, uint32_t *err,
                         uint32_t indent = 0, const std::string &name = "") {
  std::string buf(1 << 20, '\0');
  int32_t n = op<PrintFn>(type, "print")(h, 0, buf.data(), indent,
                                         name.empty() ? type.c_str() : name.c_str(), inst,
                                         static_cast<uint32_t>(buf.size()), err);
  buf.resize(static_cast<size_t>(n));
  return buf;
}

inline std::string to_xml(wex_handle *h, const std::string &type, const void *inst, uint32_t *err,
                          uint8_t state = 0) {
  std::string buf(1 << 20, '\0');
  int32_t n = op<ToXmlFn>(type, "to_xml")(h, 0, type.c_str(), buf.data(), inst,
                                          static_cast<uint32_t>(buf.size()), state, err);
  buf.resize(static_cast<size_t>(n));
  return buf;
}

// Parses `xml` with the runtime and fills inst from its element "/type".
inline void from_xml(wex_handle *h, const std::string &type, const std::string &xml, void *inst,
                     uint32_t *err, const std::string &path = "") {
  void *doc = wex_xml_doc_parse(xml.data(), xml.size());
  ASSERT_NE(doc, nullptr) << xml.substr(0, 200);
  char msg[128] = "";
  op<FromXmlFn>(type, "from_xml")(h, 0, path.empty() ? ("/" + type).c_str() : path.c_str(), doc,
                                  inst, err, msg, sizeof msg);
  wex_xml_doc_free(doc);
}

inline std::vector<uint8_t> encode(wex_handle *h, const std::string &type, const void *inst) {
  std::vector<uint8_t> buf(1 << 16);
  uint32_t err = 0;
  uint32_t n = op<MarshalFn>(type, "marshal")(h, 0, buf.data(), inst,
                                              static_cast<int32_t>(buf.size()), &err);
  EXPECT_EQ(err, 0u) << type;
  buf.resize(n);
  return buf;
}

// The names an enumeration or flag-set value shows (its literal, or every flag on), as its
// own print body writes them.
inline std::vector<std::string> leaf_names(wex_handle *h, const std::string &type, const void *at) {
  char line[512];
  op<CrTextFn>(type, "print_cr")(h, at, line, sizeof line);
  std::istringstream words(std::strchr(line, ':') + 1);
  std::vector<std::string> out;
  for (std::string w; words >> w;) out.push_back(w);
  return out;
}

inline std::string decimal(const std::string &prim, const uint8_t *at) {
  int64_t v = 0;
  if (prim == "int8") v = static_cast<int8_t>(*at);
  if (prim == "u_int8") v = *at;
  if (prim == "int16") v = load_as<int16_t>(at);
  if (prim == "u_int16") v = load_as<uint16_t>(at);
  if (prim == "int32") v = load_as<int32_t>(at);
  if (prim == "u_int32") v = load_as<uint32_t>(at);
  return std::to_string(v);
}

// Every element of a field, as (name suffix, address, state byte address or null).
struct Shown {
  const bixfacts::Field &f;
  std::string member;  // type of a record shown, empty for primitives and leaves
  std::string name;    // text name
  const uint8_t *at;
  const uint8_t *state;  // null: shown with state 0
};

// What a record shows, field by field, by the rules of both forms. `area` is the
// instance's state area, or null when states are not shown.
inline std::vector<Shown> shown(const std::string &type, const uint8_t *inst, const uint8_t *area) {
  std::vector<Shown> out;
  auto fields = fields_of(type);
  for (const bixfacts::Field *fp : fields) {
    const bixfacts::Field &f = *fp;
    std::string kind = f.kind, member = f.member ? f.member : "";
    const uint8_t *at = inst + f.offset;
    auto own = area ? area + f.sttr : nullptr;
    if (kind == "FixedArray" || kind == "RecordArray" || kind == "VarArray") {
      uint32_t n = f.count;
      const uint8_t *states = area ? area + f.sttr_elems : nullptr;
      if (kind == "VarArray") {
        n = load_as<uint32_t>(inst + fields[f.link]->offset);
        at = load_as<const uint8_t *>(at);
        states = area ? load_as<const uint8_t *>(area + f.sttr_ptr) : nullptr;
      }
      for (uint32_t k = 0; k < n; ++k)
        out.push_back({f, kind == "RecordArray" ? member : "",
                       std::string(f.name) + "[" + std::to_string(k) + "]", at + k * f.elem_size,
                       states ? states + k : nullptr});
    } else if (kind == "UnionAlt") {
      const bixfacts::Field &sel = *fields[f.link];
      const uint8_t *alt = load_as<const uint8_t *>(at);
      if (load_as<uint32_t>(inst + sel.offset + 12) == f.count && alt)
        out.push_back({f, member, std::string(sel.name) + "." + f.name, alt, own});
    } else {
      out.push_back(
          {f, kind == "Record" ? member : "", f.name, at, kind == "Count" ? nullptr : own});
    }
  }
  return out;
}

inline std::string pad(uint32_t n) {
  return std::string(n, ' ');
}

// The text form of a record, as the rules describe it.
inline std::string expected_text(wex_handle *h, const std::string &type, const uint8_t *inst,
                                 uint32_t indent, const std::string &name) {
  std::string out = pad(indent) + name + "@" + type + ": {\n";
  if (static_cast<int8_t>(inst[8]) >= 0) {
    for (const Shown &s : shown(type, inst, nullptr)) {
      std::string kind = s.f.kind;
      if (!s.member.empty()) {
        out += expected_text(h, s.member, s.at, indent + 2, s.name);
      } else if (kind == "Enum" || kind == "Selector" || kind == "Flags") {
        char line[512];  // the member type's own print body, tested with the values
        op<PrintFn>(s.f.member, "print")(h, 0, line, indent + 2, s.name.c_str(), s.at, sizeof line,
                                         nullptr);
        out += line;
      } else {
        out += pad(indent + 2) + s.name + "@" + s.f.prim + ":" + decimal(s.f.prim, s.at) + "\n";
      }
    }
  }
  return out + pad(indent) + "}\n";
}

inline std::vector<xmlNodePtr> elements(xmlNodePtr parent) {
  std::vector<xmlNodePtr> out;
  for (xmlNodePtr c = parent->children; c; c = c->next)
    if (c->type == XML_ELEMENT_NODE) out.push_back(c);
  return out;
}

inline std::string attr(xmlNodePtr n, const char *name) {
  xmlChar *v = xmlGetProp(n, reinterpret_cast<const xmlChar *>(name));
  std::string s = v ? reinterpret_cast<const char *>(v) : "";
  xmlFree(v);
  return s;
}

inline std::string content(xmlNodePtr n) {
  xmlChar *v = xmlNodeGetContent(n);
  std::string s = reinterpret_cast<const char *>(v);
  xmlFree(v);
  return s;
}

// Checks the element `node` as the XML form of inst: its name and state, then one child per
// shown item, with its value, its state flag (none on enumeration and flag-set children) and
// its literal or flag elements. States are those of the instance's area when `states`.
inline void check_xml(wex_handle *h, xmlNodePtr node, const std::string &type, const uint8_t *inst,
                      const std::string &name, uint8_t state, bool states) {
  SCOPED_TRACE(type + " as " + name);
  ASSERT_EQ(reinterpret_cast<const char *>(node->name), name);
  EXPECT_EQ(attr(node, "state"), state ? std::to_string(state) : "");
  auto kids = elements(node);
  if (static_cast<int8_t>(inst[8]) < 0) {
    EXPECT_TRUE(kids.empty());
    return;
  }
  auto items = shown(type, inst,
                     states ? area_of(h, const_cast<uint8_t *>(inst), *facts_type(type)) : nullptr);
  ASSERT_EQ(kids.size(), items.size());
  for (size_t i = 0; i < items.size(); ++i) {
    const Shown &s = items[i];
    std::string kind = s.f.kind, xml_name = s.name;
    if (kind == "UnionAlt") xml_name[xml_name.find('.')] = '-';
    if (size_t cut = xml_name.find('['); cut != std::string::npos) xml_name.resize(cut);
    uint8_t st = s.state ? *s.state : 0;
    if (!s.member.empty()) {
      check_xml(h, kids[i], s.member, s.at, xml_name, st, states);
      continue;
    }
    EXPECT_EQ(reinterpret_cast<const char *>(kids[i]->name), xml_name);
    if (kind == "Enum" || kind == "Selector" || kind == "Flags") {
      EXPECT_EQ(attr(kids[i], "state"), "") << xml_name;
      std::vector<std::string> got;
      for (xmlNodePtr e : elements(kids[i])) got.push_back(reinterpret_cast<const char *>(e->name));
      EXPECT_EQ(got, leaf_names(h, s.f.member, s.at)) << xml_name;
    } else {
      EXPECT_EQ(attr(kids[i], "state"), st ? std::to_string(st) : "") << xml_name;
      EXPECT_EQ(content(kids[i]), decimal(s.f.prim, s.at)) << xml_name;
    }
  }
}

// Parses text with libxml2 itself and checks its root element.
inline void check_xml_text(wex_handle *h, const std::string &xml, const std::string &type,
                           const void *inst, bool states) {
  xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr, 0);
  ASSERT_NE(doc, nullptr) << xml.substr(0, 300);
  check_xml(h, xmlDocGetRootElement(doc), type, static_cast<const uint8_t *>(inst), type, 0,
            states);
  xmlFreeDoc(doc);
}

}  // namespace bixtest
