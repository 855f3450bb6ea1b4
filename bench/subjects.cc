#include "subjects.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "../tests/wire/fill.h"
#include "bix_schema_facts.h"
#include "superfasthash.h"

namespace bixbench {
namespace {

#define BIX_BENCH_OPS(T)                                                                       \
  Ops {                                                                                        \
#T, [](wex_handle *h, uint32_t ws) -> void * { return T##_create(h, ws); },                  \
        [](wex_handle *h, uint32_t ws, void *i) { T##_destroy(h, ws, static_cast<T *>(i)); },    \
        [](wex_handle *h, uint32_t ws, const void *i) {                                          \
          return T##_len(h, ws, static_cast<const T *>(i));                                      \
        },                                                                                       \
        [](wex_handle *h, uint32_t ws, uint8_t *buf, const void *i, int32_t len, uint32_t *err) { \
          return T##_marshal(h, ws, buf, static_cast<const T *>(i), len, err);                   \
        },                                                                                       \
        [](wex_handle *h, uint32_t ws, const uint8_t *buf, void *i, int32_t len, uint32_t reuse, \
           uint32_t *err) { return T##_unmarshal(h, ws, buf, static_cast<T *>(i), len, reuse, err); }, \
        [](wex_handle *h, const void *i) -> void * { return T##_clone_cr(h, static_cast<const T *>(i)); }, \
        [](wex_handle *h, const void *i, void *d) { T##_copy_cr(h, static_cast<const T *>(i), static_cast<T *>(d)); }, \
        [](const void *a, const void *b) { return T##_compare(static_cast<const T *>(a), static_cast<const T *>(b)); }, \
        [](const void *i, uint32_t seed) { return T##_hash(static_cast<const T *>(i), seed); }, \
        [](wex_handle *h, uint32_t ws, char *buf, uint32_t indent, const char *name, const void *i, \
           uint32_t len, uint32_t *err) { return T##_print(h, ws, buf, indent, name, static_cast<const T *>(i), len, err); }, \
        [](wex_handle *h, uint32_t ws, const char *name, char *buf, const void *i, uint32_t len, \
           uint8_t state, uint32_t *err) { return T##_to_xml(h, ws, name, buf, static_cast<const T *>(i), len, state, err); }, \
        [](wex_handle *h, uint32_t ws, const char *path, void *doc, void *i, uint32_t *err, char *msg, \
           uint32_t msglen) { T##_from_xml(h, ws, path, doc, static_cast<T *>(i), err, msg, msglen); } \
  }

// An instance's fixed part followed by its selected alternative's.
std::vector<uint8_t> flat_bytes(const std::string &type, const void *inst) {
  const auto *b = static_cast<const uint8_t *>(inst);
  std::vector<uint8_t> out(b, b + bixtest::facts_type(type)->fixed_size);
  const bixfacts::Field *first = nullptr;  // the type's fields lie together in the facts
  for (const auto &f : bixfacts::kFields) {
    if (type != f.type) continue;
    if (!first) first = &f;
    if (std::string_view(f.kind) != "UnionAlt") continue;
    uint32_t selector = 0;
    const uint8_t *alt = nullptr;
    std::memcpy(&selector, b + first[f.link].offset + 12, sizeof selector);
    std::memcpy(&alt, b + f.offset, sizeof alt);
    if (selector == f.count && alt)
      out.insert(out.end(), alt, alt + bixtest::facts_type(f.member)->fixed_size);
  }
  return out;
}

}  // namespace

const std::vector<Case> &cases() {
  static const std::vector<Case> all = {
      {"status_info", BIX_BENCH_OPS(wex_xcvr_status_info), 6, 0},  // 6: qsfp_sensors
      {"envm_sensor_data", BIX_BENCH_OPS(wex_bix_envm_sensor_data), 1, 0},
      {"shim_data_1k", BIX_BENCH_OPS(ipc_shim_data), 1, 1024},
  };
  return all;
}

const Case *find_case(const std::string &name) {
  for (const Case &c : cases())
    if (name == c.label || name == c.ops.type) return &c;
  return nullptr;
}

const std::vector<WholeOp> &whole_ops() {
  static const std::vector<WholeOp> all = {
      {"marshal_unmarshal", &Subject::marshal_unmarshal, true},
      {"clone", &Subject::clone_destroy, true},
      {"copy", &Subject::copy, true},
      {"memcmp", &Subject::memcmp_flat, true},
      {"compare", &Subject::compare, true},
      {"superfasthash", &Subject::superfasthash_flat, false},
      {"hash", &Subject::hash, false},
  };
  return all;
}

const WholeOp *find_whole_op(const std::string &name) {
  for (const WholeOp &w : whole_ops())
    if (name == w.name) return &w;
  return nullptr;
}

void Buffer::assign(const uint8_t *from, size_t n) {
  mem_.assign(n + 64, 0);
  p_ = mem_.data() + (64 - reinterpret_cast<uintptr_t>(mem_.data()) % 64) % 64;
  n_ = n;
  std::memcpy(p_, from, n);
}

Subject::Subject(const Case &cs, bool track, bool walk) : c(cs), tracking(track), walker(walk) {
  h = wex_handle_new();
  if (!h) {
    error = "wex_handle_new failed";
    return;
  }
  wex_handle_declare_byte_form(h, walker ? 0 : 1);
  profile_.tracking_mode = WEX_STTR_ON;
  h->sttr_profile = tracking ? &profile_ : nullptr;
  src = c.ops.create(h, 0);
  dst = c.ops.create(h, 0);
  if (src) bixtest::fill(h, std::string(c.ops.type), src, 11, c.alt, c.var_len);
  if (!src || !dst) {
    error = std::string("cannot create and fill ") + c.ops.type;
    return;
  }
  room = len();
  std::vector<uint8_t> zeros(room, 0);
  out.assign(zeros.data(), room);
  uint32_t err = 0;
  const uint32_t n = marshal(&err);
  // With state tracking on, a record ending in a union is one byte shorter than len()
  // says (its last state byte wants two bytes of room).
  if (err || n > room || n + 1 < room) {
    error = std::string(c.ops.type) + "_marshal: err " + std::to_string(err) + ", " +
            std::to_string(n) + " of " + std::to_string(room) + " bytes";
    return;
  }
  wire.assign(out.data(), n);
  const uint32_t read = unmarshal(&err);
  if (err || read != n) {
    error = std::string(c.ops.type) + "_unmarshal: err " + std::to_string(err) + ", " +
            std::to_string(read) + " of " + std::to_string(n) + " bytes";
    return;
  }
  const std::vector<uint8_t> bytes = flat_bytes(c.ops.type, src);
  flat.assign(bytes.data(), bytes.size());
  flat_copy.assign(bytes.data(), bytes.size());
  // The decoded copy must encode to the same bytes.
  const uint32_t again = c.ops.marshal(h, 0, out.data(), dst, static_cast<int32_t>(room), &err);
  if (err || again != n || std::memcmp(out.data(), wire.data(), n) != 0)
    error = std::string(c.ops.type) + ": decoded copy encodes differently";
  if (error.empty()) error = take_text_forms();
}

// Takes src's text forms and checks that a copy read back from the XML encodes as src does
// (without state tracking: the XML shows state bytes, parsing leaves them).
std::string Subject::take_text_forms() {
  const std::string type = c.ops.type;
  text_out.assign(1 << 22, '\0');
  uint32_t err = 0;
  int32_t n = print(&err);
  if (err) return type + "_print: err " + std::to_string(err);
  text.assign(text_out.data(), static_cast<size_t>(n));
  n = to_xml(&err);
  if (err) return type + "_to_xml: err " + std::to_string(err);
  xml.assign(text_out.data(), static_cast<size_t>(n));
  text_out.assign(std::max(text.size(), xml.size()) + 1, '\0');
  path = "/" + type;
  for (size_t at = xml.find('<'); at != std::string::npos; at = xml.find('<', at + 1))
    if (xml[at + 1] != '/') ++xml_elements;
  void *doc = parse_xml();
  if (!doc) return type + ": its XML does not parse";
  void *copy = c.ops.create(h, 0);
  from_xml(doc, &err, copy);
  wex_xml_doc_free(doc);
  std::vector<uint8_t> again(room);
  uint32_t back = 0;
  if (!err && !tracking)
    back = c.ops.marshal(h, 0, again.data(), copy, static_cast<int32_t>(room), &err);
  c.ops.destroy(h, 0, copy);
  if (err) return type + "_from_xml: err " + std::to_string(err);
  if (!tracking && (back != wire.size() || std::memcmp(again.data(), wire.data(), back) != 0))
    return type + ": the copy read from XML encodes differently";
  return {};
}

Subject::~Subject() {
  if (!h) return;
  if (src) c.ops.destroy(h, 0, src);
  if (dst) c.ops.destroy(h, 0, dst);
  h->sttr_profile = nullptr;
  wex_handle_free(h);
}

uint32_t Subject::memcmp_flat() {
  return static_cast<uint32_t>(std::memcmp(flat.data(), flat_copy.data(), flat.size()));
}

uint32_t Subject::superfasthash_flat() {
  return SuperFastHash(flat.data(), static_cast<uint32_t>(flat.size()), 0x5eed);
}

const char *codec_path() {
  const char *e = std::getenv("BIX_IPC_SHIM_NO_BULK");
  const bool off = e && *e && *e != '0';
  const bool present = dlsym(RTLD_DEFAULT, "wex_u_int8_array_marshal") != nullptr;
  return off || !present ? "per-element" : "bulk";
}

void use_per_element_codecs() {
  setenv("BIX_IPC_SHIM_NO_BULK", "1", 1);
}

}  // namespace bixbench
