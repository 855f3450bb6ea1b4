// bixgen: schema -> public header, descriptor tables, sections and per-type units.
//   bixgen --schema FILE --trace FILE [--trace FILE] --out DIR
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "emit.h"
#include "emit_cpp.h"

int main(int argc, char **argv) {
  using namespace bixgen;
  std::string schema_path, out;
  std::vector<std::string> traces;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (!std::strcmp(argv[i], "--schema")) schema_path = argv[i + 1];
    else if (!std::strcmp(argv[i], "--trace")) traces.push_back(argv[i + 1]);
    else if (!std::strcmp(argv[i], "--out")) out = argv[i + 1];
    else {
      std::fprintf(stderr, "bixgen: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  if (schema_path.empty() || out.empty()) {
    std::fprintf(stderr, "usage: bixgen --schema FILE --trace FILE... --out DIR\n");
    return 2;
  }
  Schema s;
  if (!parse_schema(schema_path, s) || !compute_layout(s)) return 1;
  std::vector<TraceTable> tables(traces.size());
  for (size_t i = 0; i < traces.size(); ++i)
    if (!parse_trace_table(traces[i], tables[i])) return 1;

  namespace fs = std::filesystem;
  fs::create_directories(fs::path(out) / "include");
  fs::create_directories(fs::path(out) / "units");
  fs::create_directories(fs::path(out) / "facts");
  fs::create_directories(fs::path(out) / "doc");
  std::string sections, plans, cpp_header;
  bool ok = emit_sections(s, tables, sections) && emit_plans(s, plans) &&
            emit_cpp_header(s, cpp_header) &&
            write_if_changed(out + "/bix_plans.h", plans) &&
            write_if_changed(out + "/include/bix_ipc_shim.h", emit_public_header(s)) &&
            write_if_changed(out + "/bix_gen.h", emit_internal_header(s)) &&
            write_if_changed(out + "/bix_tables.cc", emit_tables(s)) &&
            write_if_changed(out + "/bix_sections.cc", sections) &&
            write_if_changed(out + "/facts/bix_schema_facts.h", emit_facts(s)) &&
            write_if_changed(out + "/doc/reference.md", emit_reference(s)) &&
            write_if_changed(out + "/include/bix_ipc_shim.hpp", cpp_header) &&
            write_if_changed(out + "/facts/bix_cpp_facts.h", emit_cpp_facts(s));
  for (auto &t : tables)
    ok = ok && write_if_changed(out + "/trace_" + t.name + ".inc", emit_trace_texts(s, t));
  for (auto &t : s.types) ok = ok && write_if_changed(out + "/units/" + t.name + ".cc", emit_unit(s, t));
  return ok ? 0 : 1;
}
