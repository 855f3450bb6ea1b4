// Wire codec timing: len, marshal, unmarshal and create+unmarshal+destroy of three records
// with state tracking off (and on), beside memcpy of the same number of encoded bytes,
// measured in the same run. Each operation's result carries an `x_memcpy` counter (its
// time over memcpy's), and a summary table with the aims closes the run.
//
//   bench_wire [--walker] [--per-element] [--tracking] [google benchmark flags]
//
// --walker       the library's reference walker instead of its fast path (the handles
//                withhold the runtime's byte form): the numbers the fast path improves on.
// --per-element  sets BIX_IPC_SHIM_NO_BULK=1 before the first library call, so the walker
//                takes the per-element primitive codecs (chosen once per process) instead
//                of the runtime's bulk array codecs.
// --tracking     also measures state tracking on (off is always measured).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "bench_args.h"
#include "subjects.h"

namespace {

using bixbench::Subject;

enum class Op { Memcpy, Len, Marshal, Unmarshal, Cud };
const char *const kOpNames[] = {"memcpy", "len", "marshal", "unmarshal", "cud"};

struct Entry {
  const Subject *subject;
  Op op;
};
std::map<std::string, Entry> g_entries;  // by benchmark name

std::string name_of(const Subject &s, Op op) {
  return std::string(s.c.label) + (s.tracking ? "/sttr_on/" : "/sttr_off/") +
         kOpNames[static_cast<int>(op)];
}

void fail_unless(benchmark::State &state, uint32_t err, uint32_t got, size_t want) {
  if (err || got != want)
    state.SkipWithError(("err " + std::to_string(err) + ", " + std::to_string(got) + " of " +
                         std::to_string(want) + " bytes")
                            .c_str());
}

void bm_memcpy(benchmark::State &state, Subject *s) {
  uint8_t *dst = s->out.data();
  const uint8_t *src = s->wire.data();
  const size_t n = s->wire.size();
  for (auto _ : state) {
    benchmark::DoNotOptimize(src);
    std::memcpy(dst, src, n);
    benchmark::DoNotOptimize(dst);
    benchmark::ClobberMemory();
  }
}

void bm_len(benchmark::State &state, Subject *s) {
  uint32_t n = 0;
  for (auto _ : state) {
    n = s->len();
    benchmark::DoNotOptimize(n);
  }
  fail_unless(state, 0, n, s->room);
}

// One operation of the subject that returns the bytes it handled, over and over.
template <uint32_t (Subject::*Fn)(uint32_t *)>
void bm_op(benchmark::State &state, Subject *s) {
  uint32_t err = 0, n = 0;
  for (auto _ : state) {
    n = (s->*Fn)(&err);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  fail_unless(state, err, n, s->wire.size());
}

// The aims of the fast path: operation time over memcpy of the same bytes, state tracking
// off (with it on, each operation's ratio is to stay within twice its ratio with it off).
double aim_for(const std::string &label, Op op) {
  if (label == "status_info") return op == Op::Marshal ? 4 : op == Op::Unmarshal ? 5 : 0;
  if (label == "envm_sensor_data") return op == Op::Marshal ? 12 : op == Op::Unmarshal ? 15 : 0;
  if (label == "shim_data_1k") return op == Op::Marshal || op == Op::Unmarshal ? 2 : 0;
  return 0;
}

// The console reporter, with each operation's time over memcpy's added as a counter and
// a summary table at the end. memcpy of a subject is registered before its operations,
// so its time is known when they are reported.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  struct Row {
    const Subject *subject;
    Op op;
    double ns, memcpy_ns;
  };

  explicit RatioReporter(OutputOptions opts) : ConsoleReporter(opts) {}

  void ReportRuns(const std::vector<Run> &reports) override {
    std::vector<Run> runs = reports;
    for (Run &r : runs) {
      auto it = g_entries.find(r.run_name.function_name);
      // A ratio of spreads means nothing: those aggregates keep their own counters.
      if (it == g_entries.end() || r.error_occurred || r.aggregate_name == "stddev" ||
          r.aggregate_name == "cv")
        continue;
      const Entry &e = it->second;
      // CPU time: the ratio should not move when another process takes the core.
      const double ns = r.GetAdjustedCPUTime() * ns_per_unit(r.time_unit);
      const auto key = std::make_tuple(e.subject, r.aggregate_name, r.repetition_index);
      if (e.op == Op::Memcpy) {
        memcpy_ns_[key] = ns;
        r.counters["x_memcpy"] = benchmark::Counter(1);  // keeps one table header
        continue;
      }
      auto m = memcpy_ns_.find(key);
      if (m == memcpy_ns_.end() || m->second <= 0) continue;
      r.counters["x_memcpy"] = benchmark::Counter(ns / m->second);
      // With --benchmark_repetitions, the summary takes the median.
      if (r.repetitions > 1 ? r.aggregate_name == "median" : r.aggregate_name.empty())
        rows_.push_back({e.subject, e.op, ns, m->second});
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void Summary(std::FILE *f, const char *path) const {
    if (rows_.empty()) return;
    std::fprintf(f,
                 "\nWire codecs: %s path. CPU time per operation (ns) and over memcpy of the same "
                 "bytes.\n",
                 path);
    std::fprintf(f, "%-17s %-8s %5s  %-9s %9s %9s %8s  %s\n", "record", "tracking", "bytes", "op",
                 "ns/op", "memcpy", "x_memcpy", "aim");
    for (const Row &r : rows_) {
      const std::string label = r.subject->c.label;
      const double x = r.ns / r.memcpy_ns;
      double aim = r.subject->tracking ? 0 : aim_for(label, r.op);
      if (r.subject->tracking && r.op != Op::Len)
        for (const Row &off : rows_)  // within twice the same operation's ratio, tracking off
          if (!off.subject->tracking && off.op == r.op && label == off.subject->c.label)
            aim = 2 * off.ns / off.memcpy_ns;
      char verdict[48] = "";
      if (aim > 0)
        std::snprintf(verdict, sizeof verdict, "<= %.1fx %s", aim, x <= aim ? "met" : "MISSED");
      std::fprintf(f, "%-17s %-8s %5zu  %-9s %9.1f %9.1f %8.2f  %s\n", label.c_str(),
                   r.subject->tracking ? "on" : "off", r.subject->wire.size(),
                   kOpNames[static_cast<int>(r.op)], r.ns, r.memcpy_ns, x, verdict);
    }
  }

 private:
  static double ns_per_unit(benchmark::TimeUnit u) {
    switch (u) {
      case benchmark::kNanosecond:
        return 1;
      case benchmark::kMicrosecond:
        return 1e3;
      case benchmark::kMillisecond:
        return 1e6;
      case benchmark::kSecond:
        return 1e9;
    }
    return 1;
  }
  std::map<std::tuple<const Subject *, std::string, int64_t>, double> memcpy_ns_;
  std::vector<Row> rows_;
};

}  // namespace

int main(int argc, char **argv) {
  bool tracking = false, walker = false;
  if (!bixbench::init_benchmark(argc, argv, &tracking, &walker)) return 2;

  const std::string path = walker ? std::string("walker (") + bixbench::codec_path() + ")" : "fast";
  std::vector<std::unique_ptr<Subject>> subjects;
  for (bool track : {false, true}) {
    if (track && !tracking) continue;
    for (const bixbench::Case &c : bixbench::cases()) {
      auto s = std::make_unique<Subject>(c, track, walker);
      if (!s->error.empty()) {
        std::fprintf(stderr, "bench_wire: %s\n", s->error.c_str());
        return 1;
      }
      const std::pair<Op, void (*)(benchmark::State &, Subject *)> ops[] = {
          {Op::Memcpy, bm_memcpy},
          {Op::Len, bm_len},
          {Op::Marshal, bm_op<&Subject::marshal>},
          {Op::Unmarshal, bm_op<&Subject::unmarshal>},
          {Op::Cud, bm_op<&Subject::create_unmarshal_destroy>}};
      for (const auto &[op, fn] : ops) {
        const std::string name = name_of(*s, op);
        g_entries[name] = {s.get(), op};
        benchmark::RegisterBenchmark(name.c_str(), fn, s.get());
      }
      subjects.push_back(std::move(s));
    }
  }

  benchmark::AddCustomContext("wire_codec_path", path);
  // Colour only on a terminal (the reporter made here does not read --benchmark_color).
  RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                               : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary(stdout, path.c_str());
  benchmark::Shutdown();
  return 0;
}
