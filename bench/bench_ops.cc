// A small driver for instruction counting: repeats one operation on one record, nothing
// else, so that two runs under callgrind with N and 2N iterations differ by exactly N
// operations (bench/instructions.sh).
//
//   bench_ops <op> <record> <iterations> [--walker] [--per-element] [--tracking]
//
// <op>: memcpy, len, marshal, unmarshal, cud (the wire codec; cud is create, unmarshal and
// destroy of a fresh instance), or a whole-object operation with its baseline:
// marshal_unmarshal, clone (clone_cr and destroy), copy (copy_cr), memcmp, compare,
// superfasthash, hash (memcmp and SuperFastHash over the bytes compare and hash walk), or a
// text form: print, to_xml, xml_parse (the runtime's document parse) or from_xml (which
// parses its document each time too: its own count is the difference of the two).
//
// <record> is a case label (status_info, envm_sensor_data, shim_data_1k) or its type name.
// memcpy copies as many bytes as the record's encoding holds. --walker: the record codec's
// reference walker instead of its fast path (the handle withholds the runtime's byte form).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "subjects.h"

namespace {

int usage() {
  std::fprintf(stderr,
               "usage: bench_ops <op> <record> <iterations> [--walker] [--per-element] "
               "[--tracking]\n"
               "ops: memcpy len marshal unmarshal cud marshal_unmarshal clone copy memcmp compare "
               "superfasthash hash print to_xml xml_parse from_xml\nrecords:");
  for (const auto &c : bixbench::cases()) std::fprintf(stderr, " %s", c.label);
  std::fprintf(stderr, "\n");
  return 2;
}

// Keeps the compiler from dropping or merging the work of one iteration.
template <typename T>
void keep(T const &v) {
  asm volatile("" : : "r,m"(v) : "memory");
}

}  // namespace

int main(int argc, char **argv) {
  bool tracking = false, walker = false;
  std::string pos[3];
  int npos = 0;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--per-element") == 0)
      bixbench::use_per_element_codecs();  // before any library call
    else if (std::strcmp(argv[i], "--tracking") == 0)
      tracking = true;
    else if (std::strcmp(argv[i], "--walker") == 0)
      walker = true;
    else if (npos < 3)
      pos[npos++] = argv[i];
    else
      return usage();
  }
  if (npos != 3) return usage();
  const std::string op = pos[0];
  const bixbench::Case *c = bixbench::find_case(pos[1]);
  char *end = nullptr;
  const unsigned long iterations = std::strtoul(pos[2].c_str(), &end, 10);
  const bixbench::WholeOp *whole = bixbench::find_whole_op(op);
  const bool form = op == "print" || op == "to_xml" || op == "xml_parse" || op == "from_xml";
  if (!c || *end ||
      (!whole && !form && op != "memcpy" && op != "len" && op != "marshal" && op != "unmarshal" &&
       op != "cud"))
    return usage();

  bixbench::Subject s(*c, tracking, walker);
  if (!s.error.empty()) {
    std::fprintf(stderr, "bench_ops: %s\n", s.error.c_str());
    return 1;
  }
  uint8_t *dst = s.out.data();
  const uint8_t *src = s.wire.data();
  const size_t bytes = s.wire.size();
  uint32_t err = 0, n = 0;
  // One operation outside the counted difference: lazy binding and first-use set-up.
  if (whole) {
    // Reported with the bytes the operation covers: the encoding for the clone forms,
    // the walked bytes for compare, hash and their baselines.
    const bool walks = s.flat.size() &&
                       (op == "memcmp" || op == "compare" || op == "superfasthash" || op == "hash");
    uint32_t r = (s.*whole->run)();
    for (unsigned long i = 0; i < iterations && !(whole->zero && r); ++i) {
      r = (s.*whole->run)();
      keep(r);
    }
    if (whole->zero && r) {
      std::fprintf(stderr, "bench_ops: %s %s: answered %u\n", op.c_str(), c->label, r);
      return 1;
    }
    std::printf("%s %s %s bytes %zu codecs %s\n", op.c_str(), c->label,
                tracking ? "sttr_on" : "sttr_off", walks ? s.flat.size() : bytes,
                bixbench::codec_path());
    return 0;
  }
  if (form) {
    // Reported with the characters of the form written or read, and the XML's elements.
    auto once = [&]() -> size_t {
      if (op == "print") return static_cast<size_t>(s.print(&err));
      if (op == "to_xml") return static_cast<size_t>(s.to_xml(&err));
      void *doc = s.parse_xml();
      if (!doc) err = 22;
      if (doc && op == "from_xml") s.from_xml(doc, &err);
      wex_xml_doc_free(doc);
      return s.xml.size();
    };
    const size_t want = op == "print" ? s.text.size() : s.xml.size();
    size_t got = once();
    for (unsigned long i = 0; i < iterations && !err; ++i) {
      got = once();
      keep(got);
    }
    if (err || got != want) {
      std::fprintf(stderr, "bench_ops: %s %s: err %u, %zu of %zu characters\n", op.c_str(),
                   c->label, err, got, want);
      return 1;
    }
    std::printf("%s %s %s bytes %zu elements %u\n", op.c_str(), c->label,
                tracking ? "sttr_on" : "sttr_off", want, s.xml_elements);
    return 0;
  }
  if (op == "memcpy") {
    std::memcpy(dst, src, bytes);
    for (unsigned long i = 0; i < iterations; ++i) {
      keep(src);
      std::memcpy(dst, src, bytes);
      keep(dst);
    }
    n = static_cast<uint32_t>(bytes);
  } else if (op == "len") {
    n = s.len();
    for (unsigned long i = 0; i < iterations; ++i) {
      n = s.len();
      keep(n);
    }
    n = n == s.room ? static_cast<uint32_t>(bytes) : n;
  } else if (op == "marshal") {
    n = s.marshal(&err);
    for (unsigned long i = 0; i < iterations && !err; ++i) {
      n = s.marshal(&err);
      keep(n);
    }
  } else if (op == "unmarshal") {
    n = s.unmarshal(&err);
    for (unsigned long i = 0; i < iterations && !err; ++i) {
      n = s.unmarshal(&err);
      keep(n);
    }
  } else {
    n = s.create_unmarshal_destroy(&err);
    for (unsigned long i = 0; i < iterations && !err; ++i) {
      n = s.create_unmarshal_destroy(&err);
      keep(n);
    }
  }
  if (err || n != bytes) {
    std::fprintf(stderr, "bench_ops: %s %s: err %u, %u of %zu bytes\n", op.c_str(), c->label, err,
                 n, bytes);
    return 1;
  }
  std::printf("%s %s %s bytes %zu path %s\n", op.c_str(), c->label,
              tracking ? "sttr_on" : "sttr_off", bytes, walker ? bixbench::codec_path() : "fast");
  return 0;
}
