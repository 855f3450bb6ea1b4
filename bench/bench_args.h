// The command line shared by the Google Benchmark drivers: our own flags first (the codec
// path must be chosen before any library call), short runs by default, then benchmark's.
#pragma once

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "subjects.h"

namespace bixbench {

// --per-element: the per-element primitive codecs; --tracking: also measure state
// tracking on; --walker (where the driver passes `walker`): the record codec's walker
// instead of its fast path. False when an argument is not understood.
inline bool init_benchmark(int argc, char **argv, bool *tracking, bool *walker = nullptr) {
  bool min_time_given = false;
  std::vector<char *> args;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strcmp(argv[i], "--per-element") == 0) {
      use_per_element_codecs();
    } else if (i > 0 && std::strcmp(argv[i], "--tracking") == 0) {
      *tracking = true;
    } else if (i > 0 && walker && std::strcmp(argv[i], "--walker") == 0) {
      *walker = true;
    } else {
      if (std::strncmp(argv[i], "--benchmark_min_time", 20) == 0) min_time_given = true;
      args.push_back(argv[i]);
    }
  }
  // Every benchmark well under a second unless told otherwise.
  static char default_min_time[] = "--benchmark_min_time=0.2";
  if (!min_time_given) args.push_back(default_min_time);
  int n = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&n, args.data());
  return !benchmark::ReportUnrecognizedArguments(n, args.data());
}

// The run a summary takes: the median with --benchmark_repetitions, else the one run.
inline bool summary_run(const benchmark::BenchmarkReporter::Run &r) {
  return !r.error_occurred &&
         (r.repetitions > 1 ? r.aggregate_name == "median" : r.aggregate_name.empty());
}

// The console reporter (coloured on a terminal), keeping each summary run's time per
// operation by benchmark name for a summary table: CPU time, steadier on a shared machine,
// unless the driver says a benchmark is timed by hand. Every driver measures in ns.
class TimesReporter : public benchmark::ConsoleReporter {
 public:
  TimesReporter()
      : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {}
  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs)
      if (summary_run(r))
        ns_[r.run_name.function_name] = wall_time(r.run_name.function_name)
                                            ? r.GetAdjustedRealTime()
                                            : r.GetAdjustedCPUTime();
    ConsoleReporter::ReportRuns(runs);
  }

  // Time per operation (ns) by benchmark name.
  const std::map<std::string, double> &times() const { return ns_; }

 protected:
  virtual bool wall_time(const std::string &) const { return false; }
  std::map<std::string, double> ns_;
};

// One subject per case, state tracking off (and on with `tracking`); false, with the
// reason on stderr, when one cannot be set up.
inline bool make_subjects(const char *driver, const std::vector<const Case *> &cases, bool tracking,
                          std::vector<std::unique_ptr<Subject>> &out) {
  for (bool track : {false, true}) {
    if (track && !tracking) continue;
    for (const Case *c : cases) {
      auto s = std::make_unique<Subject>(*c, track);
      if (!s->error.empty()) {
        std::fprintf(stderr, "%s: %s\n", driver, s->error.c_str());
        return false;
      }
      out.push_back(std::move(s));
    }
  }
  return true;
}

}  // namespace bixbench
