// The command line shared by the Google Benchmark drivers: our own flags first (the codec
// path must be chosen before any library call), short runs by default, then benchmark's.
#pragma once

#include <benchmark/benchmark.h>

#include <cstring>
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

}  // namespace bixbench
