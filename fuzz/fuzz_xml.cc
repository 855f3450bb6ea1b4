// Fuzz target: arbitrary bytes as an XML document into from_xml of every record, with state
// tracking off and on, into a fresh or an already filled instance. Asserts the parser's
// invariants: no crash, nothing leaked, no more allocated than the document justifies, and
// whatever it accepted renders to XML that reads back to the same XML.
//
// Input: byte 0 picks the record, byte 1 the mode (bit 0 tracking, bit 1 a filled
// instance), the rest is the document, whose root element is the record's.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "../tests/wire/fill.h"
#include "fuzz_support.h"

namespace {

using CreateFn = void *(*)(wex_handle *, uint32_t);
using DestroyFn = void (*)(wex_handle *, uint32_t, void *);
using ToXmlFn = int32_t (*)(wex_handle *, uint32_t, const char *, char *, const void *, uint32_t,
                            uint8_t, uint32_t *);
using FromXmlFn = void (*)(wex_handle *, uint32_t, const char *, void *, void *, uint32_t *, char *,
                           uint32_t);

struct RecordOps {
  std::string name;
  CreateFn create;
  DestroyFn destroy;
  ToXmlFn to_xml;
  FromXmlFn from_xml;
};

const std::vector<RecordOps> &records() {
  static const std::vector<RecordOps> all = [] {
    std::vector<RecordOps> v;
    wex_bix_ipc_shim_trace_init();  // also keeps the library linked in
    for (const auto &t : bixfacts::kTypes)
      if (std::string(t.kind) == "type")
        v.push_back({t.name, bixtest::op<CreateFn>(t.name, "create"),
                     bixtest::op<DestroyFn>(t.name, "destroy"),
                     bixtest::op<ToXmlFn>(t.name, "to_xml"),
                     bixtest::op<FromXmlFn>(t.name, "from_xml")});
    return v;
  }();
  return all;
}

using bixfuzz::Counting;
using bixfuzz::counting_handle;
using bixfuzz::free_handle;
using bixfuzz::require;

std::string render(wex_handle *h, const RecordOps &r, const void *inst) {
  static std::vector<char> buf(8u << 20);
  uint32_t err = 0;
  int32_t n =
      r.to_xml(h, 0, r.name.c_str(), buf.data(), inst, static_cast<uint32_t>(buf.size()), 0, &err);
  require(err == 0 && n >= 0, "to_xml of a parsed instance fails", r.name);
  return std::string(buf.data(), static_cast<size_t>(n));
}

// Reads xml into a fresh instance and renders that; "" when xml is no document.
std::string reread(wex_handle *h, const RecordOps &r, const std::string &xml) {
  void *doc = wex_xml_doc_parse(xml.data(), xml.size());
  if (!doc) return "";
  void *inst = r.create(h, 0);
  uint32_t err = 0;
  r.from_xml(h, 0, ("/" + r.name).c_str(), doc, inst, &err, nullptr, 0);
  wex_xml_doc_free(doc);
  require(err == 0, "own XML does not parse", r.name);
  std::string again = render(h, r, inst);
  r.destroy(h, 0, inst);
  return again;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2 || size > (1u << 20)) return 0;
  const RecordOps &r = records()[data[0] % records().size()];
  const bool tracking = data[1] & 1, filled = data[1] & 2;
  wex_sttr_profile profile{tracking ? 0xEEEEu : 0xDDDDu};
  Counting c;
  wex_handle *h = counting_handle(c, &profile);

  void *inst = r.create(h, 0);
  require(inst, "create", r.name);
  if (filled) bixtest::fill(h, r.name, inst, data[0], 1 + data[0] % 7);
  const size_t len = size - 2;
  void *doc = wex_xml_doc_parse(reinterpret_cast<const char *>(data + 2), len);
  const uint64_t before = c.bytes;
  uint32_t err = 0;
  char msg[64];
  if (doc) {
    r.from_xml(h, 0, ("/" + r.name).c_str(), doc, inst, &err, msg, sizeof msg);
    wex_xml_doc_free(doc);
  }
  // A fresh union alternative is one bounded instance; the variable array's storage, its
  // state bytes and the parser's staging copy are one byte each per element present.
  require(c.bytes - before <= 4096 + 3 * len, "allocation beyond what the document justifies",
          r.name);

  if (doc && err == 0) {
    // Rendered, read back and rendered again, the XML stays the same. A value outside its
    // enumeration renders as text that is no XML element; nothing reads that back. Filled
    // state bytes are shown but not read, so with them only the values must match.
    const std::string first = render(h, r, inst), second = reread(h, r, first);
    if (second.empty()) {
      require(first.find(" value out of range/>") != std::string::npos, "own XML is no document",
              r.name);
    } else if (tracking && filled) {
      static const std::regex states(" state=\"[0-9]+\"");
      require(std::regex_replace(first, states, "") == std::regex_replace(second, states, ""),
              "XML read back renders differently", r.name);
    } else {
      require(first == second, "XML read back renders differently", r.name);
    }
  }
  r.destroy(h, 0, inst);
  require(c.live.empty(), "leak after destroy", r.name);
  free_handle(h);
  return 0;
}

// Seeds for the corpus: every record filled, rendered, in every mode.
extern "C" int bixfuzz_make_seeds(const char *dir) {
  std::filesystem::create_directories(dir);
  const auto &all = records();
  for (size_t i = 0; i < all.size(); ++i) {
    for (uint8_t mode = 0; mode < 4; ++mode) {
      bixtest::Handle h(mode & 1 ? WEX_STTR_ON : WEX_STTR_OFF);
      void *inst = all[i].create(h, 0);
      bixtest::fill(h, all[i].name, inst, static_cast<uint8_t>(i * 5 + mode), 1 + (i + mode) % 7,
                    3);
      std::string seed{static_cast<char>(i), static_cast<char>(mode)};
      seed += render(h, all[i], inst);
      all[i].destroy(h, 0, inst);
      std::ofstream(std::filesystem::path(dir) / (all[i].name + "_" + std::to_string(mode)),
                    std::ios::binary)
          .write(seed.data(), static_cast<std::streamsize>(seed.size()));
    }
  }
  return 0;
}
