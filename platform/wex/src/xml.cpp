// XML documents (libxml2), path queries and the primitive from_xml parsers.
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlversion.h>
#include <libxml/xpath.h>

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

// A parsed document with the one XPath context it is queried through.
//
// A record is parsed field by field, each field by its own path ("P/f",
// "P/arr[k]" for k = 1..N). Evaluating each of those from scratch costs
// the size of the document, which makes a whole record quadratic. So every
// path resolved is remembered, and a path "P/name" or "P/name[k]" whose
// parent P is a single element is answered from P's children, indexed by
// name in one scan of P. Only the first step of a path ("//name", a
// root-relative name, or a path outside that simple form) goes to XPath.
struct XmlDoc {
  xmlDocPtr doc = nullptr;
  xmlXPathContextPtr xpath = nullptr;
  std::unordered_map<std::string, std::vector<xmlNodePtr>> resolved;
  std::unordered_map<xmlNodePtr, std::unordered_map<std::string, std::vector<xmlNodePtr>>> children;

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

bool name_char(char c, bool first) {
  bool alpha = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
  return first ? alpha : alpha || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// "name" or "name[k]" with k >= 1; index 0 means every match.
bool parse_step(std::string_view s, std::string *name, size_t *index) {
  size_t open = s.find('[');
  std::string_view n = s.substr(0, open);
  if (n.empty()) return false;
  for (size_t i = 0; i < n.size(); ++i)
    if (!name_char(n[i], i == 0)) return false;
  *name = std::string(n);
  *index = 0;
  if (open == std::string_view::npos) return true;
  std::string_view k = s.substr(open + 1);
  if (k.size() < 2 || k.back() != ']') return false;
  k.remove_suffix(1);
  auto [end, ec] = std::from_chars(k.data(), k.data() + k.size(), *index);
  return ec == std::errc() && end == k.data() + k.size() && *index >= 1;
}

int xpath_eval(XmlDoc &d, const std::string &path, std::vector<xmlNodePtr> *out) {
  d.xpath->node = reinterpret_cast<xmlNodePtr>(d.doc);
  xmlXPathObjectPtr r =
      xmlXPathEvalExpression(reinterpret_cast<const xmlChar *>(path.c_str()), d.xpath);
  if (!r) return WEX_ERR_INVALID;
  int rc = 0;
  if (r->type != XPATH_NODESET) {
    rc = WEX_ERR_INVALID;
  } else if (r->nodesetval) {
    out->assign(r->nodesetval->nodeTab, r->nodesetval->nodeTab + r->nodesetval->nodeNr);
  }
  xmlXPathFreeObject(r);
  return rc;
}

const std::unordered_map<std::string, std::vector<xmlNodePtr>> &children_of(XmlDoc &d,
                                                                            xmlNodePtr parent) {
  auto [it, fresh] = d.children.try_emplace(parent);
  if (fresh) {
    // Unqualified XPath names match elements outside any namespace only.
    for (xmlNodePtr c = parent->children; c; c = c->next)
      if (c->type == XML_ELEMENT_NODE && !c->ns)
        it->second[reinterpret_cast<const char *>(c->name)].push_back(c);
  }
  return it->second;
}

int resolve(XmlDoc &d, const std::string &path, const std::vector<xmlNodePtr> **out);

int resolve_uncached(XmlDoc &d, const std::string &path, std::vector<xmlNodePtr> *out) {
  size_t cut = path.rfind('/');
  std::string name;
  size_t index = 0;
  bool child_step = cut != std::string::npos && cut > 0 && path[cut - 1] != '/' &&
                    parse_step(std::string_view(path).substr(cut + 1), &name, &index);
  if (!child_step) return xpath_eval(d, path, out);

  const std::vector<xmlNodePtr> *parents = nullptr;
  if (int rc = resolve(d, path.substr(0, cut), &parents)) return rc;
  if (parents->empty()) return 0;
  // Several parents would need the matches merged in document order: leave
  // that rare case to XPath.
  if (parents->size() > 1) return xpath_eval(d, path, out);

  const auto &by_name = children_of(d, parents->front());
  auto it = by_name.find(name);
  if (it == by_name.end()) return 0;
  if (index == 0) {
    *out = it->second;
  } else if (index <= it->second.size()) {
    out->push_back(it->second[index - 1]);
  }
  return 0;
}

int resolve(XmlDoc &d, const std::string &path, const std::vector<xmlNodePtr> **out) {
  if (auto it = d.resolved.find(path); it != d.resolved.end()) {
    *out = &it->second;
    return 0;
  }
  std::vector<xmlNodePtr> nodes;
  if (int rc = resolve_uncached(d, path, &nodes)) return rc;
  // Elements of an unordered_map keep their address, so parents resolved
  // further up the recursion stay valid.
  *out = &d.resolved.emplace(path, std::move(nodes)).first->second;
  return 0;
}

int lookup(void *doc, const char *path, const std::vector<xmlNodePtr> **nodes) {
  if (!doc || !path || !*path) return WEX_ERR_INVALID;
  try {
    return resolve(*static_cast<XmlDoc *>(doc), path, nodes);
  } catch (...) {
    return WEX_ERR_NOMEM;
  }
}

// Full text content of the first match.
int element_text(void *doc, const char *path, std::string *text) {
  const std::vector<xmlNodePtr> *nodes = nullptr;
  if (int rc = lookup(doc, path, &nodes)) return rc;
  if (nodes->empty()) return WEX_ERR_ABSENT;
  xmlChar *content = xmlNodeGetContent(nodes->front());
  try {
    text->assign(content ? reinterpret_cast<const char *>(content) : "");
  } catch (...) {
    xmlFree(content);
    return WEX_ERR_NOMEM;
  }
  xmlFree(content);
  return 0;
}

enum class Parsed { kOk, kJunk, kRange };

Parsed parse_decimal(std::string_view text, int64_t *out) {
  constexpr std::string_view kBlanks = " \t\r\n";
  size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return Parsed::kJunk;
  text = text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
  // from_chars takes a leading '-' but no '+', exactly the form we accept.
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), *out, 10);
  if (end != text.data() + text.size()) return Parsed::kJunk;
  if (ec == std::errc::result_out_of_range) return Parsed::kRange;
  return ec == std::errc() ? Parsed::kOk : Parsed::kJunk;
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
    std::string text;
    int rc = element_text(doc, path, &text);
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
               path + ": \"" + text + "\"");
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
  std::string text;
  if (int rc = element_text(doc, path, &text)) return rc;
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
  const std::vector<xmlNodePtr> *nodes = nullptr;
  if (int rc = lookup(doc, path, &nodes)) return rc;
  *count = static_cast<uint32_t>(nodes->size());
  return 0;
}

#define WEX_PRIMITIVE_FROM_XML(P, T)                                                      \
  void P##_from_xml(wex_handle *h, uint32_t ws, const char *path, void *doc, void *field, \
                    uint32_t *err, char *msgbuf, uint32_t msglen) {                       \
    prim_from_xml<T>(h, ws, #P, path, doc, field, err, msgbuf, msglen);                   \
  }

WEX_FOR_EACH_PRIMITIVE(WEX_PRIMITIVE_FROM_XML)

}  // extern "C"
