#include "convert.h"

#include <dlfcn.h>

#include <climits>
#include <cstring>

#include "bix_ipc_shim.h"
#include "bix_schema_facts.h"

namespace bixipc {
namespace {

// A message's operations, found by name (the library exports them all).
template <typename Fn>
Fn message_op(const std::string &msg, const char *op) {
  return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, (msg + "_message_" + op).c_str()));
}

struct Handle {
  Handle() : h(wex_handle_new()) {}
  ~Handle() { wex_handle_free(h); }
  wex_handle *h;
};

// What a code means here; receive stores 2 only for a LUID it does not know.
std::string why(uint32_t code, bool receiving = false) {
  return receiving && code == 2 ? "unknown message LUID" : bix_ipc_shim_error_text(code);
}

// The receiver owns what it decodes; the tool keeps the message from the out argument.
void keep(wex_handle *, uint32_t, uint64_t, void *, uint32_t *) {}

// A text form in a buffer that grows until the form fits.
bool render(wex_handle *h, const std::string &msg, void *inst, bool xml, std::string &out,
            uint32_t *err) {
  using Render = int32_t (*)(wex_handle *, uint32_t, char *, const void *, uint32_t, uint32_t *);
  Render fn = message_op<Render>(msg, xml ? "to_xml" : "print");
  for (uint32_t size = 1 << 16; size <= (1u << 26); size *= 4) {
    std::string buf(size, '\0');
    *err = 0;
    int32_t n = fn(h, 0, buf.data(), inst, size, err);
    if (*err == 90) continue;
    if (!*err) out.append(buf.data(), static_cast<size_t>(n));
    return !*err;
  }
  return false;
}

}  // namespace

bool decode(const uint8_t *data, size_t size, bool xml, std::string &out, std::string *error) {
  Handle h;
  size_t pos = 0;
  while (pos < size) {
    const size_t left = size - pos;
    const int32_t room = left > INT32_MAX ? INT32_MAX : static_cast<int32_t>(left);
    void *msg = nullptr;
    uint32_t err = 0;
    bix_ipc_shim_message_receive(h.h, 0, 0, &msg, data + pos, room, keep, &err);
    if (err || !msg) {
      *error = "offset " + std::to_string(pos) + ": " + why(err, true) + " (error " +
               std::to_string(err) + ")";
      return false;
    }
    const std::string name = (*static_cast<wex_type_info **>(msg))->type_name;
    // The next message starts where the header's total length says this one ends.
    uint32_t total = 0;
    std::memcpy(&total, static_cast<const uint8_t *>(msg) + 16 + 12, sizeof total);
    const bool shown = render(h.h, name, msg, xml, out, &err);
    message_op<void (*)(wex_handle *, uint32_t, void *)>(name, "destroy")(h.h, 0, msg);
    if (!shown) {
      *error = "offset " + std::to_string(pos) + ": " + name + " cannot be shown (error " +
               std::to_string(err) + ")";
      return false;
    }
    pos += total;
  }
  return true;
}

bool encode(const std::string &xml, std::vector<uint8_t> &out, std::string *error) {
  struct Doc {
    void *doc;
    ~Doc() { wex_xml_doc_free(doc); }
  } doc{wex_xml_doc_parse(xml.data(), xml.size())};
  if (!doc.doc) {
    *error = "not a well-formed XML document";
    return false;
  }
  std::string name;
  for (const auto &t : bixfacts::kTypes) {
    if (std::string(t.kind) != "message") continue;
    uint32_t count = 0;
    for (const char *at : {"/", "/bix_ipc_shim/"})
      if (xml_get_element_nodecount(doc.doc, (std::string(at) + t.name).c_str(), &count) == 0 &&
          count)
        break;
    if (!count) continue;
    if (!name.empty() || count > 1) {
      *error = "the document holds more than one message";
      return false;
    }
    name = t.name;
  }
  if (name.empty()) {
    *error = "the document's root element names no message";
    return false;
  }
  Handle h;
  uint32_t err = 0;
  char reason[256] = "";
  using FromXml = void *(*)(wex_handle *, uint32_t, void *, uint32_t *, char *, uint32_t);
  void *msg = message_op<FromXml>(name, "from_xml")(h.h, 0, doc.doc, &err, reason, sizeof reason);
  if (!msg) {
    *error = name + ": " + (reason[0] ? reason : why(err)) + " (error " + std::to_string(err) + ")";
    return false;
  }
  const uint32_t need =
      message_op<uint32_t (*)(wex_handle *, uint32_t, const void *)>(name, "len")(h.h, 0, msg);
  std::vector<uint8_t> wire(need);
  using Marshal = uint32_t (*)(wex_handle *, uint32_t, uint8_t *, void *, int32_t, uint32_t *);
  const uint32_t n = message_op<Marshal>(name, "marshal")(h.h, 0, wire.data(), msg,
                                                          static_cast<int32_t>(need), &err);
  message_op<void (*)(wex_handle *, uint32_t, void *)>(name, "destroy")(h.h, 0, msg);
  if (err) {
    *error = name + ": cannot be encoded: " + why(err) + " (error " + std::to_string(err) + ")";
    return false;
  }
  out.insert(out.end(), wire.begin(), wire.begin() + n);
  return true;
}

}  // namespace bixipc
