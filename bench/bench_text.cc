// Text and XML forms: print, to_xml and from_xml of the benchmark records, with the
// runtime's document parse beside them, measured in the same run. A summary table gives
// each operation's time, its time per XML element and its time over to_xml of the same
// record, with the speed targets.
//
//   bench_text [--tracking] [google benchmark flags]
//
// from_xml is handed a freshly parsed document each time, as a reader of a new document
// is (the runtime indexes a document's elements as they are first asked for); the parse
// itself is timed apart as xml_parse and left out.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_args.h"
#include "subjects.h"

namespace {

using bixbench::Subject;

// Runs one form; answers its error code, or kWrongLength when it wrote or read other
// than the whole form.
using Form = uint32_t (*)(benchmark::State &, Subject &);
constexpr uint32_t kWrongLength = 0xFFFF;

uint32_t print(benchmark::State &, Subject &s) {
  uint32_t err = 0;
  const auto n = static_cast<size_t>(s.print(&err));
  return err ? err : n == s.text.size() ? 0 : kWrongLength;
}

uint32_t to_xml(benchmark::State &, Subject &s) {
  uint32_t err = 0;
  const auto n = static_cast<size_t>(s.to_xml(&err));
  return err ? err : n == s.xml.size() ? 0 : kWrongLength;
}

uint32_t xml_parse(benchmark::State &, Subject &s) {
  void *doc = s.parse_xml();
  benchmark::DoNotOptimize(doc);
  wex_xml_doc_free(doc);
  return doc ? 0 : kWrongLength;
}

// Timed by hand: the parse before and the free after stay out.
uint32_t from_xml(benchmark::State &state, Subject &s) {
  uint32_t err = 0;
  void *doc = s.parse_xml();
  auto start = std::chrono::steady_clock::now();
  s.from_xml(doc, &err);
  auto stop = std::chrono::steady_clock::now();
  benchmark::ClobberMemory();
  wex_xml_doc_free(doc);
  state.SetIterationTime(std::chrono::duration<double>(stop - start).count());
  return err;
}

const std::pair<const char *, Form> kForms[] = {
    {"to_xml", to_xml}, {"print", print}, {"xml_parse", xml_parse}, {"from_xml", from_xml}};

void bm_form(benchmark::State &state, Subject *s, Form form) {
  uint32_t err = 0;
  for (auto _ : state) {
    err = form(state, *s);
    benchmark::ClobberMemory();
  }
  if (err == kWrongLength) state.SkipWithError("not the whole form");
  if (err && err != kWrongLength) state.SkipWithError(("err " + std::to_string(err)).c_str());
}

std::string name_of(const Subject &s, const std::string &form) {
  return std::string(s.c.label) + (s.tracking ? "/sttr_on/" : "/sttr_off/") + form;
}

// Where the targets stand (tracking off): status_info's print and to_xml in time, from_xml
// of both big records against their own to_xml.
std::string target(const Subject &s, const std::string &form, double ns, double to_xml_ns) {
  const std::string label = s.c.label;
  if (s.tracking) return "";
  char text[48] = "";
  if (label == "status_info" && (form == "to_xml" || form == "print")) {
    const double limit = form == "to_xml" ? 15000 : 10000;
    std::snprintf(text, sizeof text, "<= %.0f ns %s", limit, ns <= limit ? "met" : "MISSED");
  } else if ((label == "status_info" || label == "envm_sensor_data") && form == "from_xml") {
    std::snprintf(text, sizeof text, "<= 5x %s", ns <= 5 * to_xml_ns ? "met" : "MISSED");
  }
  return text;
}

// The summary over to_xml; from_xml is timed by hand, in wall time.
class Reporter : public bixbench::TimesReporter {
 public:
  void Summary(const std::vector<std::unique_ptr<Subject>> &subjects) const {
    std::printf("\nText and XML forms: time per operation (ns), per XML element, over to_xml.\n");
    std::printf("%-17s %-8s %6s %5s  %-9s %9s %7s %8s  %s\n", "record", "tracking", "bytes",
                "elems", "op", "ns/op", "ns/elem", "x_to_xml", "target");
    for (const auto &s : subjects) {
      auto base = ns_.find(name_of(*s, "to_xml"));
      for (const auto &[form, fn] : kForms) {
        auto it = ns_.find(name_of(*s, form));
        if (it == ns_.end() || base == ns_.end()) continue;
        const size_t bytes = std::string(form) == "print" ? s->text.size() : s->xml.size();
        std::printf("%-17s %-8s %6zu %5u  %-9s %9.0f %7.1f %8.2f  %s\n", s->c.label,
                    s->tracking ? "on" : "off", bytes, s->xml_elements, form, it->second,
                    it->second / s->xml_elements, it->second / base->second,
                    target(*s, form, it->second, base->second).c_str());
      }
    }
  }


 protected:
  bool wall_time(const std::string &name) const override {
    return name.find("/from_xml") != std::string::npos;
  }
};

}  // namespace

int main(int argc, char **argv) {
  bool tracking = false;
  if (!bixbench::init_benchmark(argc, argv, &tracking)) return 2;
  std::vector<const bixbench::Case *> cases;
  for (const bixbench::Case &c : bixbench::cases()) cases.push_back(&c);
  std::vector<std::unique_ptr<Subject>> subjects;
  if (!bixbench::make_subjects("bench_text", cases, tracking, subjects)) return 1;
  for (const auto &s : subjects)
    for (const auto &[form, fn] : kForms) {
      auto *b = benchmark::RegisterBenchmark(name_of(*s, form).c_str(), bm_form, s.get(), fn);
      if (fn == from_xml) b->UseManualTime();
    }
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary(subjects);
  benchmark::Shutdown();
  return 0;
}
