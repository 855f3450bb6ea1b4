// The C++ layer beside the C calls it forwards to, in one run: field set and get, encode and
// decode of a status answer with QSFP readings, tracking off and on. Each C++ benchmark
// carries an `x_c` counter, its CPU time over its C twin's; the summary lists them. The layer
// is inline forwarding, so the aim is x_c within 1.05.
//
//   bench_cpp [google benchmark flags]
//   bench_cpp c_OP|cpp_OP status_info N [--tracking]   OP = set_get, encode, decode: one
//       operation N times, for instruction counts (bench/instructions.sh cpp)
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bench_args.h"
#include "bix_ipc_shim.hpp"

namespace {

// A filled status answer, its encoding, and a second instance to decode into.
struct Subject {
  explicit Subject(bix::tracking mode)
      : h(mode), src(h), dst(h) {
    src.set_rc(bix::wex_xcvr_rc::WEX_XCVR_SUCCESS_RC);
    src.info().set_vendorName("ACME OPTICS");
    src.info().set_vendorName_len(11);
    src.set_status_bm(0x11);
    bix::wex_qsfp_env_mon_ref q = src.emplace_qsfp_sensors();
    q.set_temp(38 * 256);
    const uint16_t lanes[4] = {12000, 11800, 12150, 11990};
    q.set_rx_power_lane(lanes);
    q.set_tx_bias_lane(lanes);
    q.set_valid_data(1);
    wire = src.encode();
    out.resize(wire.size() + 64);
    dst.decode(wire);
  }
  bix::handle h;
  bix::wex_xcvr_status_info src, dst;
  std::vector<uint8_t> wire, out;
  uint32_t sum = 0;  // what set_get reads back, so the reads cannot be left out
};

Subject &subject(bool tracking) {
  static Subject off(bix::tracking::off), on(bix::tracking::on);
  return tracking ? on : off;
}

// One operation each, C and C++, on the subject; what they return keeps the work alive and
// is non-zero when a C call reported an error (the C++ forms throw instead).
//
// Three fields of the answer and of its readings written and read back, as an application
// filling and checking a reply does.
uint32_t set_get_c(Subject &s) {
  wex_handle *h = s.h.get();
  wex_xcvr_status_info *st = s.src.get();
  uint32_t err = 0, sum = s.sum;
  wex_xcvr_status_info_status_bm_set_value(h, 0, st, sum & 0xff, &err);
  wex_qsfp_env_mon *q = wex_xcvr_status_info_qsfp_sensors_get(h, 0, st, &err);
  wex_qsfp_env_mon_temp_set_value(h, 0, q, static_cast<int16_t>(sum), &err);
  wex_qsfp_env_mon_rx_power_lane_set_value(h, 0, q, 2, 12150, &err);
  sum += wex_xcvr_status_info_status_bm_get_value(h, 0, st, &err);
  sum += static_cast<uint32_t>(wex_qsfp_env_mon_temp_get_value(h, 0, q, &err));
  sum += wex_qsfp_env_mon_rx_power_lane_get(h, 0, q, 0, &err)[2];
  s.sum = sum;
  return err;
}
uint32_t set_get_cpp(Subject &s) {
  bix::wex_xcvr_status_info &st = s.src;
  uint32_t sum = s.sum;
  st.set_status_bm(sum & 0xff);
  bix::wex_qsfp_env_mon_ref q = st.qsfp_sensors();
  q.set_temp(static_cast<int16_t>(sum));
  q.set_rx_power_lane(2, 12150);
  sum += st.status_bm();
  sum += static_cast<uint32_t>(q.temp());
  sum += q.rx_power_lane()[2];
  s.sum = sum;
  return 0;
}

uint32_t encode_c(Subject &s) {
  uint32_t err = 0;
  wex_xcvr_status_info_marshal(s.h.get(), 0, s.out.data(), s.src.get(),
                               static_cast<int32_t>(s.out.size()), &err);
  return err;
}
uint32_t encode_cpp(Subject &s) {
  s.src.encode(bix::span<uint8_t>(s.out));
  return 0;
}

// Into an instance that decoded the same bytes before, as a receive loop reuses one.
uint32_t decode_c(Subject &s) {
  uint32_t err = 0;
  wex_xcvr_status_info_unmarshal(s.h.get(), 0, s.wire.data(), s.dst.get(),
                                 static_cast<int32_t>(s.wire.size()), 1, &err);
  return err;
}
uint32_t decode_cpp(Subject &s) {
  s.dst.decode(bix::span<const uint8_t>(s.wire));
  return 0;
}

using Op = uint32_t (*)(Subject &);
void timed(benchmark::State &state, Op op, bool tracking, bool bytes) {
  Subject &s = subject(tracking);
  for (auto _ : state) {
    if (op(s)) state.SkipWithError("a C call failed");
    benchmark::DoNotOptimize(s.sum);
  }
  if (bytes) state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * s.wire.size()));
}

struct Pair {
  const char *op;
  Op c, cpp;
};
const Pair kPairs[] = {{"set_get", set_get_c, set_get_cpp},
                       {"encode", encode_c, encode_cpp},
                       {"decode", decode_c, decode_cpp}};

}  // namespace

// bench_cpp <c|cpp>_<op> status_info N [--tracking]: the operation N times and nothing
// else, for instruction counts under callgrind (bench/instructions.sh cpp).
int count_mode(int argc, char **argv) {
  const std::string name = argv[1];
  const bool tracking = argc > 4 && std::string(argv[4]) == "--tracking";
  const long n = std::atol(argv[3]);
  for (const Pair &p : kPairs) {
    const bool c = name == std::string("c_") + p.op, cpp = name == std::string("cpp_") + p.op;
    if (!c && !cpp) continue;
    Subject &s = subject(tracking);
    uint32_t failed = 0;
    for (long i = 0; i < n; ++i) failed |= (cpp ? p.cpp : p.c)(s);
    benchmark::DoNotOptimize(s.sum);
    std::printf("bytes %zu\n", s.wire.size());
    return failed ? 1 : 0;
  }
  std::fprintf(stderr, "bench_cpp: unknown operation %s\n", name.c_str());
  return 2;
}

int main(int argc, char **argv) {
  if (argc >= 4 && argv[1][0] != '-') return count_mode(argc, argv);
  for (const Pair &p : kPairs)
    for (bool tracking : {false, true}) {
      const std::string tail = tracking ? "/tracking" : "/off";
      const bool bytes = p.op != std::string("set_get");
      benchmark::RegisterBenchmark((std::string("c/") + p.op + tail).c_str(), timed, p.c, tracking,
                                   bytes);
      benchmark::RegisterBenchmark((std::string("cpp/") + p.op + tail).c_str(), timed, p.cpp,
                                   tracking, bytes);
    }
  bool tracking = false;  // both modes are always measured
  if (!bixbench::init_benchmark(argc, argv, &tracking)) return 2;
  bixbench::TimesReporter report;
  benchmark::RunSpecifiedBenchmarks(&report);
  const auto &ns = report.times();

  std::printf("\nC++ over C, CPU time (aim: within 1.05)\n");
  for (const Pair &p : kPairs)
    for (const char *tail : {"/off", "/tracking"}) {
      const std::string name = std::string(p.op) + tail;
      auto c = ns.find("c/" + name), cpp = ns.find("cpp/" + name);
      if (c == ns.end() || cpp == ns.end() || c->second <= 0) continue;
      std::printf("  %-18s C %8.1f ns  C++ %8.1f ns  x %.3f\n", name.c_str(), c->second,
                  cpp->second, cpp->second / c->second);
    }
  return 0;
}
