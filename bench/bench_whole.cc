// Whole-object operations beside their baselines, measured in the same run: clone
// (clone_cr, then destroy) and copy (copy_cr into an existing instance) beside marshal +
// unmarshal of the same record; compare beside memcmp and hash beside SuperFastHash of the
// bytes they walk (the fixed part and the selected alternative's). A summary table gives
// each operation's time over its baseline's.
//
//   bench_whole [--per-element] [--tracking] [google benchmark flags]
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench_args.h"
#include "subjects.h"

namespace {

using bixbench::Subject;
using bixbench::WholeOp;

const char *baseline_of(const std::string &op) {
  if (op == "clone" || op == "copy") return "marshal_unmarshal";
  if (op == "compare") return "memcmp";
  if (op == "hash") return "superfasthash";
  return nullptr;
}

void bm_whole(benchmark::State &state, Subject *s, const WholeOp *op) {
  uint32_t r = 0;
  for (auto _ : state) {
    r = (s->*op->run)();
    benchmark::DoNotOptimize(r);
    benchmark::ClobberMemory();
  }
  if (op->zero && r) state.SkipWithError(("answered " + std::to_string(r)).c_str());
}

// The summary: each operation over its baseline.
class Reporter : public bixbench::TimesReporter {
 public:
  void Summary(const std::vector<std::unique_ptr<Subject>> &subjects) const {
    std::printf("\nWhole-object operations: CPU time per operation (ns) over the baseline's.\n");
    std::printf("%-17s %-8s %-8s %10s  %-17s %10s %7s\n", "record", "tracking", "op", "ns/op",
                "baseline", "ns/op", "x");
    for (const auto &s : subjects)
      for (const WholeOp &op : bixbench::whole_ops()) {
        const char *base = baseline_of(op.name);
        auto mine = ns_.find(name_of(*s, op.name)),
             theirs = base ? ns_.find(name_of(*s, base)) : ns_.end();
        if (!base || mine == ns_.end() || theirs == ns_.end() || theirs->second <= 0) continue;
        std::printf("%-17s %-8s %-8s %10.1f  %-17s %10.1f %7.2f\n", s->c.label,
                    s->tracking ? "on" : "off", op.name, mine->second, base, theirs->second,
                    mine->second / theirs->second);
      }
  }
  static std::string name_of(const Subject &s, const std::string &op) {
    return std::string(s.c.label) + (s.tracking ? "/sttr_on/" : "/sttr_off/") + op;
  }
};

}  // namespace

int main(int argc, char **argv) {
  bool tracking = false;
  if (!bixbench::init_benchmark(argc, argv, &tracking)) return 2;

  std::vector<std::unique_ptr<Subject>> subjects;
  if (!bixbench::make_subjects("bench_whole",
                               {bixbench::find_case("status_info"),
                                bixbench::find_case("envm_sensor_data")},
                               tracking, subjects))
    return 1;
  for (const auto &s : subjects)
    for (const WholeOp &op : bixbench::whole_ops())
      benchmark::RegisterBenchmark(Reporter::name_of(*s, op.name).c_str(), bm_whole, s.get(), &op)
          ->Unit(benchmark::kNanosecond);
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary(subjects);
  benchmark::Shutdown();
  return 0;
}
