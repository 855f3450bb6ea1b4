// Message framing: marshal and unmarshal of a whole message beside the same operations on
// its body record alone, create + destroy of a message, and receive by LUID, measured in
// one run. Each message operation carries an `x_body` counter: its time over the body's.
//
//   bench_messages [--tracking] [google benchmark flags]
//       timing; a summary table closes the run
//   bench_messages <op> <case> <iterations> [--tracking]
//       repeats one operation, nothing else, for instruction counts under callgrind
//       (bench/instructions.sh messages)
//
// Cases: status_info (ipc_shim_xcvr_status_info, QSFP readings), envm_sensor_data
// (ipc_shim_envm_sensor_data, a full sensor table). Ops: body_marshal, msg_marshal,
// body_unmarshal (into a new body, as a message decode does: create, decode, destroy),
// msg_unmarshal (unmarshal_only and destroy), msg_receive (by LUID, a handler, destroy),
// msg_create (create and destroy) beside body_create (the body record's create and destroy).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "../tests/messages/msg_support.h"

namespace {

using bixtest::Msg;
using namespace bixfns;

struct Case {
  const char *label;
  const char *message;
  uint32_t alt;
};
const Case kCases[] = {{"status_info", "ipc_shim_xcvr_status_info", 6},
                       {"envm_sensor_data", "ipc_shim_envm_sensor_data", 1}};

const char *const kOps[] = {"body_marshal",  "body_unmarshal", "body_create", "msg_marshal",
                            "msg_unmarshal", "msg_receive",    "msg_create"};

void keep_handler(wex_handle *, uint32_t, uint64_t, void *, uint32_t *) {}

// A filled message, its encoding and its body's encoding, on a handle of its own.
class Subject {
 public:
  Subject(const Case &c, bool tracking)
      : c_(c), m(bixtest::message(c.message)), tracking_(tracking) {
    profile_.tracking_mode = WEX_STTR_ON;
    h = wex_handle_new();
    h->sttr_profile = tracking ? &profile_ : nullptr;
    bixtest::Encoded e = bixtest::encode(h, m, 11, c.alt);
    msg = e.msg;
    wire = e.wire;
    body = bixtest::member_of(m, msg, m.members.size() - 1);
    body_type = m.body()->type;
    body_len = bixtest::op<LenFn>(body_type, "len");
    body_marshal_fn = bixtest::op<MarshalFn>(body_type, "marshal");
    body_unmarshal_fn = bixtest::op<UnmarshalFn>(body_type, "unmarshal");
    body_create = bixtest::op<CreateFn>(body_type, "create");
    body_destroy = bixtest::op<DestroyFn>(body_type, "destroy");
    body_wire.resize(body_len(h, 0, body));
    uint32_t err = 0;
    body_wire.resize(body_marshal_fn(h, 0, body_wire.data(), body,
                                     static_cast<int32_t>(body_wire.size()), &err));
    out.resize(std::max(wire.size(), body_wire.size()) + 8);
    if (err || wire.empty()) error = "cannot encode " + m.name;
  }
  ~Subject() {
    m.destroy(h, 0, msg);
    h->sttr_profile = nullptr;
    wex_handle_free(h);
  }

  // One operation; returns the bytes it handled (the encoding's size), err its error.
  uint32_t run(const std::string &op, uint32_t *err) {
    *err = 0;
    if (op == "body_marshal")
      return body_marshal_fn(h, 0, out.data(), body, static_cast<int32_t>(body_wire.size()), err);
    if (op == "msg_marshal")
      return m.marshal(h, 0, out.data(), msg, static_cast<int32_t>(wire.size()), err);
    if (op == "body_create") {
      body_destroy(h, 0, body_create(h, 0));
      return static_cast<uint32_t>(body_wire.size());
    }
    if (op == "body_unmarshal") {
      void *b = body_create(h, 0);
      uint32_t n = body_unmarshal_fn(h, 0, body_wire.data(), b,
                                     static_cast<int32_t>(body_wire.size()), 0, err);
      body_destroy(h, 0, b);
      return n;
    }
    void *back = nullptr;
    uint32_t n = 0;
    if (op == "msg_unmarshal") {
      n = m.unmarshal_only(h, 0, &back, wire.data(), static_cast<int32_t>(wire.size()), err);
    } else if (op == "msg_receive") {
      n = bix_ipc_shim_message_receive(h, 0, 0, &back, wire.data(),
                                       static_cast<int32_t>(wire.size()), keep_handler, err);
    } else {
      back = m.create(h, 0);
      n = static_cast<uint32_t>(wire.size());
    }
    m.destroy(h, 0, back);
    return n;
  }
  // The size an operation handles: the body's encoding for body operations.
  size_t bytes(const std::string &op) const {
    return op.starts_with("body") ? body_wire.size() : wire.size();
  }

  const Case &c_;
  const Msg &m;
  const bool tracking_;
  wex_handle *h;
  void *msg, *body;
  std::vector<uint8_t> wire, body_wire, out;
  std::string error;

 private:
  std::string body_type;
  LenFn body_len;
  MarshalFn body_marshal_fn;
  UnmarshalFn body_unmarshal_fn;
  CreateFn body_create;
  DestroyFn body_destroy;
  wex_sttr_profile profile_{};
};

void bm_op(benchmark::State &state, Subject *s, std::string op) {
  uint32_t err = 0, n = 0;
  for (auto _ : state) {
    n = s->run(op, &err);
    benchmark::DoNotOptimize(n);
    benchmark::ClobberMemory();
  }
  if (err || n != s->bytes(op)) state.SkipWithError(("err " + std::to_string(err)).c_str());
}

// The console reporter with each message operation's time over its body counterpart's.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;
  void ReportRuns(const std::vector<Run> &reports) override {
    std::vector<Run> runs = reports;
    for (Run &r : runs) {
      if (r.error_occurred || !r.aggregate_name.empty()) continue;
      const std::string name = r.run_name.function_name;
      const double ns = r.GetAdjustedCPUTime();
      ns_[name] = ns;
      const std::string body = counterpart(name);
      if (!body.empty() && ns_.count(body))
        r.counters["x_body"] = benchmark::Counter(ns / ns_[body]);
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void Summary() const {
    std::printf(
        "\nMessage framing: CPU time per operation (ns) and over the same operation on the body "
        "alone.\n");
    std::printf("%-34s %9s %9s %7s  %s\n", "operation", "ns/op", "body", "x_body", "target");
    for (const auto &[name, ns] : ns_) {
      const std::string body = counterpart(name);
      if (body.empty() || !ns_.count(body)) continue;
      const double x = ns / ns_.at(body);
      const bool targeted = name.starts_with("status_info/sttr_off/msg_marshal");
      std::printf("%-34s %9.1f %9.1f %7.2f  %s\n", name.c_str(), ns, ns_.at(body), x,
                  targeted ? (x <= 1.3 ? "<= 1.3x met" : "<= 1.3x MISSED") : "");
    }
  }

 private:
  // msg_marshal <- body_marshal; msg_unmarshal and msg_receive <- body_unmarshal.
  static std::string counterpart(const std::string &name) {
    const size_t slash = name.rfind('/');
    const std::string op = name.substr(slash + 1);
    if (op == "msg_marshal") return name.substr(0, slash + 1) + "body_marshal";
    if (op == "msg_unmarshal" || op == "msg_receive")
      return name.substr(0, slash + 1) + "body_unmarshal";
    if (op == "msg_create") return name.substr(0, slash + 1) + "body_create";
    return "";
  }
  std::map<std::string, double> ns_;
};

int count_mode(const std::string &op, const std::string &label, unsigned long iterations,
               bool tracking) {
  for (const Case &c : kCases) {
    if (label != c.label && label != c.message) continue;
    Subject s(c, tracking);
    if (!s.error.empty()) return std::fprintf(stderr, "bench_messages: %s\n", s.error.c_str()), 1;
    uint32_t err = 0, n = s.run(op, &err);  // first use outside the counted difference
    for (unsigned long i = 0; i < iterations && !err; ++i) n = s.run(op, &err);
    if (err || n != s.bytes(op))
      return std::fprintf(stderr, "bench_messages: %s: err %u\n", op.c_str(), err), 1;
    std::printf("%s %s %s bytes %zu\n", op.c_str(), c.label, tracking ? "sttr_on" : "sttr_off",
                s.bytes(op));
    return 0;
  }
  return std::fprintf(stderr, "bench_messages: no case %s\n", label.c_str()), 2;
}

}  // namespace

int main(int argc, char **argv) {
  wex_bix_ipc_shim_trace_init();
  bool tracking = false;
  std::vector<char *> args;
  for (int i = 0; i < argc; ++i) {
    if (i > 0 && std::strcmp(argv[i], "--tracking") == 0)
      tracking = true;
    else
      args.push_back(argv[i]);
  }
  for (const char *op : kOps)
    if (args.size() == 4 && args[1] == std::string(op))
      return count_mode(op, args[2], std::strtoul(args[3], nullptr, 10), tracking);
  char default_min_time[] = "--benchmark_min_time=0.2";
  bool min_time_given = false;
  for (char *a : args) min_time_given |= std::strncmp(a, "--benchmark_min_time", 20) == 0;
  if (!min_time_given) args.push_back(default_min_time);
  int n = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&n, args.data());
  if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 2;
  std::vector<std::unique_ptr<Subject>> subjects;
  for (bool track : {false, true}) {
    if (track && !tracking) continue;
    for (const Case &c : kCases) {
      subjects.push_back(std::make_unique<Subject>(c, track));
      Subject *s = subjects.back().get();
      if (!s->error.empty())
        return std::fprintf(stderr, "bench_messages: %s\n", s->error.c_str()), 1;
      for (const char *op : kOps)
        benchmark::RegisterBenchmark(
            (std::string(c.label) + (track ? "/sttr_on/" : "/sttr_off/") + op).c_str(), bm_op, s,
            std::string(op));
    }
  }
  RatioReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                               : benchmark::ConsoleReporter::OO_Tabular);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.Summary();
  benchmark::Shutdown();
  return 0;
}
