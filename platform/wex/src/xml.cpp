// XML documents (libxml2), path queries and the primitive from_xml parsers.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlversion.h>
#include <libxml/xpath.h>

#include <array>
#include <charconv>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <limits>
#include <memory>
#include <mutex>
#include <new>

#include "internal.h"

namespace {

using Nodes = std::vector<xmlNodePtr>;

// The matches of a path: a run of nodes that the document's index holds, or a caller's
// scratch vector (XPath answers).
struct Found {
  const xmlNodePtr *nodes = nullptr;
  size_t n = 0;
  void of(const Nodes &v) {
    nodes = v.data();
    n = v.size();
  }
};

// The element children of one parent grouped by name, in document order: those named
// `name` are nodes[first, first + count). Looked up by a scan of the runs while they are
// few (a record's fields), by hash beyond that.
struct Run {
  std::string_view name;  // the nodes' own
  uint32_t first = 0, count = 0;
};
struct ChildIndex {
  static constexpr size_t kScanned = 32;
  std::vector<Run> runs;
  std::unordered_map<std::string_view, uint32_t, KeyHash> by_name;  // run numbers, when many
  Nodes nodes;

  const Run *find(std::string_view name) const {
    if (!by_name.empty()) {
      auto it = by_name.find(name);
      return it == by_name.end() ? nullptr : &runs[it->second];
    }
    for (const Run &r : runs)
      if (r.name.size() == name.size() && r.name == name) return &r;
    return nullptr;
  }
  uint32_t add(std::string_view name) {
    if (const Run *r = find(name)) return static_cast<uint32_t>(r - runs.data());
    runs.push_back({name});
    const auto k = static_cast<uint32_t>(runs.size() - 1);
    if (runs.size() > kScanned) {
      if (by_name.empty())
        for (uint32_t j = 0; j < runs.size(); ++j) by_name.emplace(runs[j].name, j);
      else
        by_name.emplace(name, k);
    }
    return k;
  }
};

// A parent path that was resolved, and the index of its children when it is one element.
struct Parent {
  std::string path;
  Found nodes;
  const ChildIndex *index = nullptr;
};

// A parsed document with the one XPath context it is queried through.
//
// A record is parsed field by field, each field by its own path ("P/f",
// "P/arr[k]" for k = 1..N). Evaluating each of those from scratch costs
// the size of the document, which makes a whole record quadratic. So a
// path "P/name" or "P/name[k]" whose parent P is a single element is
// answered from P's children, indexed by name in one scan of P. The parents
// resolved last are kept as a chain of ancestors ("/r", "/r/a", "/r/a/b[2]"),
// so moving from one record to its sibling resolves one step, and the last
// name asked for is remembered, so an array's elements cost no lookup at
// all. Only the first step of a path ("//name", a root-relative name, or a
// path outside that simple form) goes to XPath. A query allocates nothing
// once its parent is indexed.
struct XmlDoc {
  xmlDocPtr doc = nullptr;
  xmlXPathContextPtr xpath = nullptr;
  // Parents that XPath found, kept for their nodes' storage.
  std::unordered_map<std::string, Nodes, KeyHash, std::equal_to<>> found_by_xpath;
  std::unordered_map<xmlNodePtr, ChildIndex> children;
  // chain[0, depth): each entry's path is the parent of the next one's; entries beyond
  // depth keep their storage for reuse. `last` is the entry asked for last.
  std::vector<Parent> chain;
  size_t depth = 0, last = 0;
  // The run of the name asked for last under chain[last], when there was one.
  const Run *last_run = nullptr;

  ~XmlDoc() {
    if (xpath) xmlXPathFreeContext(xpath);
    if (doc) xmlFreeDoc(doc);
  }
};

#if LIBXML_VERSION >= 21200
void silent(void *, const xmlError *) {}
#else
void silent(void *, xmlErrorPtr) {}
#endif

// Characters of the element names answered from the index: 1 may start a name, 2 may
// continue one.
constexpr auto kNameChars = [] {
  std::array<uint8_t, 256> t{};
  for (int c = 0; c < 256; ++c) {
    bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
    bool more = alpha || (c >= '0' && c <= '9') || c == '-' || c == '.';
    t[c] = static_cast<uint8_t>((alpha ? 1 : 0) | (more ? 2 : 0));
  }
  return t;
}();

// "[k]" with k >= 1.
bool parse_index(std::string_view s, size_t *index) {
  if (s.size() < 3 || s.front() != '[' || s.back() != ']') return false;
  size_t k = 0;
  for (char c : s.substr(1, s.size() - 2)) {
    if (c < '0' || c > '9' || k > (SIZE_MAX - 9) / 10) return false;  // beyond any count: XPath's
    k = k * 10 + static_cast<size_t>(c - '0');
  }
  *index = k;
  return k >= 1;
}

// "name" or "name[k]" with k >= 1; index 0 means every match.
bool parse_step(std::string_view s, std::string_view *name, size_t *index) {
  const char *p = s.data(), *end = p + s.size();
  if (p == end || !(kNameChars[static_cast<uint8_t>(*p)] & 1)) return false;
  const char *q = p + 1;
  while (q < end && (kNameChars[static_cast<uint8_t>(*q)] & 2)) ++q;
  *name = std::string_view(p, static_cast<size_t>(q - p));
  *index = 0;
  return q == end || parse_index(std::string_view(q, static_cast<size_t>(end - q)), index);
}

int xpath_eval(XmlDoc &d, std::string_view path, Nodes *scratch, Found *out) {
  const std::string text(path);  // XPath wants it terminated
  d.xpath->node = reinterpret_cast<xmlNodePtr>(d.doc);
  xmlXPathObjectPtr r =
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(text.c_str()), d.xpath);
  if (!r) return WEX_ERR_INVALID;
  int rc = 0;
  if (r->type != XPATH_NODESET) {
    rc = WEX_ERR_INVALID;
  } else if (r->nodesetval) {
    scratch->assign(r->nodesetval->nodeTab, r->nodesetval->nodeTab + r->nodesetval->nodeNr);
    out->of(*scratch);
  }
  xmlXPathFreeObject(r);
  return rc;
}

const ChildIndex &children_of(XmlDoc &d, xmlNodePtr parent) {
  auto [it, fresh] = d.children.try_emplace(parent);
  ChildIndex &index = it->second;
  if (!fresh) return index;
  // Unqualified XPath names match elements outside any namespace only. Counted first,
  // then placed: one array for all of them. Neighbours mostly share a name (arrays).
  auto each = [parent](auto &&fn) {
    for (xmlNodePtr c = parent->children; c; c = c->next)
      if (c->type == XML_ELEMENT_NODE && !c->ns)
        fn(c, std::string_view(reinterpret_cast<const char *>(c->name)));
  };
  uint32_t run = UINT32_MAX, total = 0;
  index.runs.reserve(16);  // a record's fields, mostly
  each([&](xmlNodePtr, std::string_view name) {
    if (run == UINT32_MAX || index.runs[run].name != name) run = index.add(name);
    ++index.runs[run].count;
    ++total;
  });
  uint32_t first = 0;
  for (Run &r : index.runs) {
    r.first = first;
    first += r.count;
    r.count = 0;
  }
  index.nodes.resize(total);
  const Run *at = nullptr;
  each([&](xmlNodePtr c, std::string_view name) {
    if (!at || at->name != name) at = index.find(name);
    Run &r = index.runs[static_cast<size_t>(at - index.runs.data())];
    index.nodes[r.first + r.count++] = c;
  });
  return index;
}

int resolve(XmlDoc &d, std::string_view path, Nodes *scratch, Found *out);

void select_parent(XmlDoc &d, size_t at) {
  if (at != d.last) d.last_run = nullptr;
  d.last = at;
}

bool is_parent_of(std::string_view parent, std::string_view path) {
  return path.size() > parent.size() && path[parent.size()] == '/' &&
         path.substr(0, parent.size()) == parent;
}

// A parent path: taken from the chain, or resolved and put on it in place of whatever
// is not its ancestor. It becomes the parent asked for last.
int resolve_parent(XmlDoc &d, std::string_view path) {
  for (size_t j = d.depth; j-- > 0;) {
    if (d.chain[j].path == path) {
      select_parent(d, j);
      return 0;
    }
  }
  Nodes scratch;
  Found found;
  if (int rc = resolve(d, path, &scratch, &found)) return rc;
  if (found.n && found.nodes == scratch.data()) {
    // Elements of an unordered_map keep their address, so the entry's nodes stay valid.
    auto kept = d.found_by_xpath.try_emplace(std::string(path), std::move(scratch)).first;
    found.of(kept->second);
  }
  size_t at = d.depth;
  while (at > 0 && !is_parent_of(d.chain[at - 1].path, path)) --at;
  if (d.chain.size() <= at) d.chain.resize(at + 1);
  Parent &p = d.chain[at];
  p.path.assign(path);
  p.nodes = found;
  p.index = found.n == 1 ? &children_of(d, found.nodes[0]) : nullptr;
  d.depth = at + 1;
  d.last_run = nullptr;
  d.last = at;
  return 0;
}

// "P/step" where P is the parent asked for last and step a simple step: the common case,
// every field of a record. Parses the step; false for anything else.
bool child_of_last(XmlDoc &d, std::string_view path, std::string_view *name, size_t *index) {
  if (d.depth == 0) return false;
  const std::string &parent = d.chain[d.last].path;
  const size_t last = parent.size();
  if (last == 0 || path.size() <= last + 1 || path[last] != '/' || parent[last - 1] == '/' ||
      std::memcmp(path.data(), parent.data(), last) != 0)
    return false;
  const std::string_view step = path.substr(last + 1);
  if (d.last_run) {
    const std::string_view named = d.last_run->name;
    const size_t n = named.size();
    if (step.size() > n && step[n] == '[' && std::memcmp(step.data(), named.data(), n) == 0) {
      *name = named;  // another element of the array asked for last
      return parse_index(step.substr(n), index);
    }
  }
  return parse_step(step, name, index);
}

// Paths longer than this are left to XPath whole: resolving step by step recurses once
// per step.
constexpr size_t kStepwiseMax = 1024;

int resolve(XmlDoc &d, std::string_view path, Nodes *scratch, Found *out) {
  *out = Found{};
  std::string_view name;
  size_t index = 0;
  if (path.size() > kStepwiseMax) return xpath_eval(d, path, scratch, out);
  if (!child_of_last(d, path, &name, &index)) {
    size_t cut = path.size();
    while (cut > 0 && path[cut - 1] != '/') --cut;
    bool child_step =
        cut > 1 && path[cut - 2] != '/' && parse_step(path.substr(cut), &name, &index);
    if (!child_step) return xpath_eval(d, path, scratch, out);
    if (int rc = resolve_parent(d, path.substr(0, cut - 1))) return rc;
  }
  const Parent &p = d.chain[d.last];
  if (!p.nodes.n) return 0;
  // Several parents would need the matches merged in document order: leave
  // that rare case to XPath.
  if (!p.index) return xpath_eval(d, path, scratch, out);

  // The name asked for last is remembered: an array's elements cost no lookup.
  if (!d.last_run || name != d.last_run->name) d.last_run = p.index->find(name);
  if (!d.last_run) return 0;
  const xmlNodePtr *matches = p.index->nodes.data() + d.last_run->first;
  if (index == 0) {
    out->nodes = matches;
    out->n = d.last_run->count;
  } else if (index <= d.last_run->count) {
    out->nodes = matches + index - 1;
    out->n = 1;
  }
  return 0;
}

int lookup(void *doc, const char *path, Nodes *scratch, Found *found) {
  if (!doc || !path || !*path) return WEX_ERR_INVALID;
  try {
    return resolve(*static_cast<XmlDoc *>(doc), path, scratch, found);
  } catch (...) {
    return WEX_ERR_NOMEM;
  }
}

// Full text content of the first match, in *text. An element holding one piece of
// text (or none) is read in place; anything else is gathered into *holder.
int element_text(void *doc, const char *path, std::string *holder, std::string_view *text) {
  Nodes scratch;
  Found found;
  if (int rc = lookup(doc, path, &scratch, &found)) return rc;
  if (!found.n) return WEX_ERR_ABSENT;
  xmlNodePtr n = found.nodes[0];
  xmlNodePtr c = n->children;
  if (!c || (!c->next && (c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE))) {
    *text = c && c->content ? reinterpret_cast<const char *>(c->content) : "";
    return 0;
  }
  xmlChar *content = xmlNodeGetContent(n);
  try {
    holder->assign(content ? reinterpret_cast<const char *>(content) : "");
  } catch (...) {
    xmlFree(content);
    return WEX_ERR_NOMEM;
  }
  xmlFree(content);
  *text = *holder;
  return 0;
}

enum class Parsed { kOk, kJunk, kRange };

bool blank(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Optional blanks around an optional '-' and decimal digits.
Parsed parse_decimal(std::string_view text, int64_t *out) {
  while (!text.empty() && blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && blank(text.back())) text.remove_suffix(1);
  const bool negative = !text.empty() && text.front() == '-';
  if (negative) text.remove_prefix(1);
  if (text.empty()) return Parsed::kJunk;
  uint64_t magnitude = 0;
  bool overflow = false;
  for (char c : text) {
    if (c < '0' || c > '9') return Parsed::kJunk;
    overflow |= magnitude > (UINT64_MAX - 9) / 10;
    magnitude = magnitude * 10 + static_cast<uint64_t>(c - '0');
  }
  const uint64_t limit = negative ? uint64_t{1} << 63 : (uint64_t{1} << 63) - 1;
  if (overflow || magnitude > limit) return Parsed::kRange;
  *out = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
  return Parsed::kOk;
}

void note(char *msgbuf, uint32_t msglen, const std::string &text) {
  if (msgbuf && msglen) std::snprintf(msgbuf, msglen, "%s", text.c_str());
}

template <typename T>
void prim_from_xml(wex_handle *h, uint32_t ws, const char *type_name, const char *path, void *doc,
                   void *field, uint32_t *err, char *msgbuf, uint32_t msglen) {
  if (wex::pending(err)) return;
  if (!field) {
    wex::fail(h, err, WEX_ERR_INVALID);
    return;
  }
  try {
    std::string holder;
    std::string_view text;
    int rc = element_text(doc, path, &holder, &text);
    if (rc) {
      wex::fail(h, err, static_cast<uint32_t>(rc));
      if (rc != static_cast<int>(WEX_ERR_ABSENT))
        note(msgbuf, msglen, std::string("Failed xpath: ") + (path ? path : ""));
      return;
    }
    int64_t v = 0;
    Parsed p = parse_decimal(text, &v);
    if (p == Parsed::kOk &&
        (v < std::numeric_limits<T>::min() || v > std::numeric_limits<T>::max()))
      p = Parsed::kRange;
    if (p != Parsed::kOk) {
      bool range = p == Parsed::kRange;
      wex::fail(h, err, range ? WEX_ERR_RANGE : WEX_ERR_INVALID);
      note(msgbuf, msglen,
           std::string(range ? "Value out of range for " : "Not a decimal ") + type_name + " at " +
               path + ": \"" + std::string(text) + "\"");
      return;
    }
    T value = static_cast<T>(v);
    wex::notify_write(h, ws, field, sizeof value);
    std::memcpy(field, &value, sizeof value);
  } catch (...) {
    wex::fail(h, err, WEX_ERR_NOMEM);
  }
}

}  // namespace

extern "C" {

void *wex_xml_doc_parse(const char *text, size_t len) {
  static std::once_flag init;
  std::call_once(init, [] { xmlInitParser(); });
  if (!text || len > static_cast<size_t>(INT_MAX)) return nullptr;
  std::unique_ptr<XmlDoc> d(new (std::nothrow) XmlDoc);
  if (!d) return nullptr;
  d->doc = xmlReadMemory(text, static_cast<int>(len), nullptr, nullptr,
                         XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (!d->doc || !xmlDocGetRootElement(d->doc)) return nullptr;
  d->xpath = xmlXPathNewContext(d->doc);
  if (!d->xpath) return nullptr;
  d->xpath->error = silent;
  return d.release();
}

void wex_xml_doc_free(void *doc) {
  delete static_cast<XmlDoc *>(doc);
}

int xml_get_element_value(void *doc, const char *path, char *value, uint32_t value_len, uint32_t) {
  if (value_len && !value) return WEX_ERR_INVALID;
  std::string holder;
  std::string_view text;
  if (int rc = element_text(doc, path, &holder, &text)) return rc;
  if (value_len) {
    size_t n = text.size() < value_len - 1 ? text.size() : value_len - 1;
    std::memcpy(value, text.data(), n);
    value[n] = '\0';
  }
  return 0;
}

int xml_get_element_nodecount(void *doc, const char *path, uint32_t *count) {
  if (!count) return WEX_ERR_INVALID;
  *count = 0;
  Nodes scratch;
  Found found;
  if (int rc = lookup(doc, path, &scratch, &found)) return rc;
  *count = static_cast<uint32_t>(found.n);
  return 0;
}

#define WEX_PRIMITIVE_FROM_XML(P, T)                                                      \
  void P##_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field, \
                    uint32_t *err, char *msgbuf, uint32_t msglen) {                       \
    prim_from_xml<T>(h, ws, #P, path, doc, field, err, msgbuf, msglen);                   \
  }

WEX_FOR_EACH_PRIMITIVE(WEX_PRIMITIVE_FROM_XML)

}  // extern "C"
