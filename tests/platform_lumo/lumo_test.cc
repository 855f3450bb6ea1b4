#include "lumo.h"

#include <bzlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace {

// ---------------------------------------------------------------------------
// Module registration.

// Ids are process-wide, so the cases that need a fresh registry run in a
// child that re-executes only their test.
void ExitZeroIfIdsCountFromOne() {
  uint16_t a = 0, b = 0, a_again = 0;
  uint32_t sa = 0, sb = 0, sa2 = 0;
  bool ok = lumo_module_init_fn("alpha", &a, &sa) == 0 &&
            lumo_module_init_fn("beta", &b, &sb) == 0 &&
            lumo_module_init_fn("alpha", &a_again, &sa2) == 0;
  ok = ok && a == 1 && b == 2 && a_again == 1;
  ok = ok && std::string(lumo_module_name(1)) == "alpha" &&
       std::string(lumo_module_name(2)) == "beta" && lumo_module_name(3) == nullptr &&
       lumo_module_name(0) == nullptr;
  _exit(ok ? 0 : 1);
}

void ExitZeroIfIdsRunOut() {
  uint16_t id = 0;
  for (unsigned i = 1; i <= 0xFFFF; ++i) {
    uint32_t state = 0;
    std::string name = "m" + std::to_string(i);
    if (lumo_module_init_fn(name.c_str(), &id, &state) != 0 || id != i) _exit(1);
  }
  uint32_t state = 0;
  bool full = lumo_module_init_fn("one-too-many", &id, &state) == -1 && state == 0;
  // Names already known still resolve.
  bool known = lumo_module_init_fn("m7", &id, &state) == 0 && id == 7;
  _exit(full && known ? 0 : 2);
}

TEST(LumoModulesDeathTest, IdsCountFromOneByDistinctName) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitZeroIfIdsCountFromOne(), testing::ExitedWithCode(0), "");
}

TEST(LumoModulesDeathTest, FailsOnceAllIdsAreTaken) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(ExitZeroIfIdsRunOut(), testing::ExitedWithCode(0), "");
}

TEST(LumoModules, RegisteredStateMakesLaterCallsTouchNothing) {
  uint16_t id = 0;
  uint32_t state = 0;
  ASSERT_EQ(lumo_module_init_fn("lumo-test-idempotent", &id, &state), 0);
  EXPECT_NE(id, 0u);
  EXPECT_EQ(state, LUMO_REG_STATE_REGISTERED);
  const uint16_t first = id;

  // Once marked, the state word alone decides: the id is not rewritten.
  id = 0xBEEF;
  EXPECT_EQ(lumo_module_init_fn("lumo-test-idempotent", &id, &state), 0);
  EXPECT_EQ(id, 0xBEEF);

  // A second state word for the same name gets the same id, not a new one.
  uint16_t other_id = 0;
  uint32_t other_state = 0;
  EXPECT_EQ(lumo_module_init_fn("lumo-test-idempotent", &other_id, &other_state), 0);
  EXPECT_EQ(other_id, first);
}

TEST(LumoModules, RacingFirstCallsRegisterOnce) {
  constexpr int kThreads = 16;
  uint16_t id = 0;
  uint32_t state = 0;
  std::latch start(kThreads);
  std::vector<uint16_t> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      lumo_module_init_fn("lumo-test-race", &id, &state);
      seen[i] = id;
    });
  }
  for (auto &t : threads) t.join();
  for (uint16_t s : seen) EXPECT_EQ(s, id);

  // Exactly one id was taken: the next new name gets the one after it.
  uint16_t next = 0;
  uint32_t next_state = 0;
  ASSERT_EQ(lumo_module_init_fn("lumo-test-race-next", &next, &next_state), 0);
  EXPECT_EQ(next, id + 1);
}

TEST(LumoModules, RejectsNullArgumentsAndCutsLongNames) {
  uint16_t id = 0;
  uint32_t state = 0;
  EXPECT_EQ(lumo_module_init_fn(nullptr, &id, &state), -1);
  EXPECT_EQ(lumo_module_init_fn("x", nullptr, &state), -1);
  EXPECT_EQ(lumo_module_init_fn("x", &id, nullptr), -1);
  EXPECT_EQ(state, 0u);

  std::string long_name(LUMO_MODULE_NAME_MAX + 40, 'n');
  ASSERT_EQ(lumo_module_init_fn(long_name.c_str(), &id, &state), 0);
  EXPECT_EQ(std::string(lumo_module_name(id)), long_name.substr(0, LUMO_MODULE_NAME_MAX));
}

// ---------------------------------------------------------------------------
// Formatting, seen through a capturing sink.

struct Trace {
  uint32_t level;
  std::string text;
};

void capture(void *ctx, uint32_t level, const char *text) {
  static_cast<std::vector<Trace> *>(ctx)->push_back(Trace{level, text});
}

class LumoFormat : public testing::Test {
 protected:
  void SetUp() override { lumo_set_sink(capture, &traces_); }
  void TearDown() override { lumo_set_sink(nullptr, nullptr); }

  // Formats `fmt` through the entry point matching the argument count.
  std::string ints(const char *fmt, std::vector<uint32_t> a) {
    const char *formats[] = {fmt};
    lumo_trace_table t = {{0}, 1, formats};
    switch (a.size()) {
      case 0:
        lumo_emit(&t, 0, 1, LUMO_LEVEL_ERROR);
        break;
      case 1:
        lumo_emit_i1(&t, 0, 1, LUMO_LEVEL_ERROR, a[0]);
        break;
      case 2:
        lumo_emit_i2(&t, 0, 1, LUMO_LEVEL_ERROR, a[0], a[1]);
        break;
      default:
        lumo_emit_i3(&t, 0, 1, LUMO_LEVEL_ERROR, a[0], a[1], a[2]);
        break;
    }
    return last();
  }
  std::string strs(const char *fmt, std::vector<const char *> a) {
    const char *formats[] = {fmt};
    lumo_trace_table t = {{0}, 1, formats};
    switch (a.size()) {
      case 1:
        lumo_emit_s1(&t, 0, 1, LUMO_LEVEL_ERROR, a[0]);
        break;
      case 2:
        lumo_emit_s2(&t, 0, 1, LUMO_LEVEL_ERROR, a[0], a[1]);
        break;
      default:
        lumo_emit_s3(&t, 0, 1, LUMO_LEVEL_ERROR, a[0], a[1], a[2]);
        break;
    }
    return last();
  }
  std::string last() { return traces_.empty() ? "<no trace>" : traces_.back().text; }

  std::vector<Trace> traces_;
};

TEST_F(LumoFormat, EachEntryPointFillsItsArguments) {
  EXPECT_EQ(ints("Corrupted WEX Handle", {}), "Corrupted WEX Handle");
  EXPECT_EQ(strs("domain %s refuses", {"lab"}), "domain lab refuses");
  EXPECT_EQ(strs("%s/%s", {"a", "b"}), "a/b");
  EXPECT_EQ(strs("%s %s %s", {"x", "y", "z"}), "x y z");
  EXPECT_EQ(ints("variant %u", {7}), "variant 7");
  EXPECT_EQ(ints("%u of %u", {3, 4}), "3 of 4");
  EXPECT_EQ(ints("%u.%u.%u", {1, 2, 3}), "1.2.3");
}

TEST_F(LumoFormat, IntegersAreU32ReadPerConversion) {
  EXPECT_EQ(ints("%u", {0xFFFFFFFFu}), "4294967295");
  EXPECT_EQ(ints("%d %i", {0xFFFFFFFFu, 0x80000000u}), "-1 -2147483648");
  EXPECT_EQ(ints("%x %X %o", {0xBEEFu, 0xBEEFu, 8}), "beef BEEF 10");
  EXPECT_EQ(ints("%08x|%-4u|%+d", {0x1F, 5, 3}), "0000001f|5   |+3");
  EXPECT_EQ(ints("%#x|%#o|% d", {255, 8, 2}), "0xff|010| 2");
  EXPECT_EQ(ints("%c%c", {'o', 0x16B}), "ok");
  // Length modifiers change nothing: every argument is a u32.
  EXPECT_EQ(ints("%lu %lld %hhx", {1, 0xFFFFFFFFu, 0x1FF}), "1 -1 1ff");
}

TEST_F(LumoFormat, OddFormatsNeverReachPrintfUnchecked) {
  // The other kind of argument prints in its own form.
  EXPECT_EQ(strs("%d", {"text"}), "text");
  EXPECT_EQ(ints("%s", {42}), "42");
  // Missing arguments, unknown conversions and '*' widths stay verbatim.
  EXPECT_EQ(strs("%s and %s", {"one"}), "one and %s");
  EXPECT_EQ(ints("%n %p %f %*d", {1}), "%n %p %f %*d");
  EXPECT_EQ(ints("100%% done, 100%", {}), "100% done, 100%");
  EXPECT_EQ(strs("[%s]", {nullptr}), "[(null)]");
  // Flags C leaves undefined for a conversion are dropped.
  EXPECT_EQ(strs("[%05s|%#s|%.2s|%-3s]", {"ab", "cd", "xyz"}), "[   ab|cd|xy|%-3s]");
  EXPECT_EQ(ints("%#d|%+u", {5, 5}), "5|5");
}

TEST_F(LumoFormat, LongOutputIsCutToTheBuffer) {
  std::string big(3000, 'x');
  std::string text = strs("<%s>", {big.c_str()});
  EXPECT_EQ(text.size(), LUMO_TEXT_MAX - 1);
  EXPECT_EQ(text, "<" + big.substr(0, LUMO_TEXT_MAX - 2));

  // A huge width is clamped, not handed to snprintf as is.
  EXPECT_EQ(ints("%999999999999u", {1}), std::string(LUMO_TEXT_MAX - 1, ' '));
}

TEST_F(LumoFormat, BadIndexOrTableEmitsFixedText) {
  const char *formats[] = {"zero", "one", nullptr};
  lumo_trace_table t = {{0}, 3, formats};
  lumo_emit_i1(&t, 3, 1, LUMO_LEVEL_ERROR, 9);
  EXPECT_EQ(last(), "bad trace index 3");
  lumo_emit(&t, 0xFFFFFFFFu, 1, LUMO_LEVEL_ERROR);
  EXPECT_EQ(last(), "bad trace index 4294967295");
  lumo_emit(&t, 2, 1, LUMO_LEVEL_ERROR);
  EXPECT_EQ(last(), "bad trace index 2");
  lumo_emit_s1(nullptr, 5, 1, LUMO_LEVEL_ERROR, "a");
  EXPECT_EQ(last(), "bad trace index 5");
  lumo_trace_table no_formats = {{0}, 10, nullptr};
  lumo_emit(&no_formats, 0, 1, LUMO_LEVEL_ERROR);
  EXPECT_EQ(last(), "bad trace index 0");
}

TEST_F(LumoFormat, SinkGetsEveryLevelUnchanged) {
  const char *formats[] = {"t"};
  lumo_trace_table t = {{0}, 1, formats};
  for (uint32_t level :
       {LUMO_LEVEL_FATAL, LUMO_LEVEL_ERROR, LUMO_LEVEL_INFO, LUMO_LEVEL_DEBUG, 0x06000123u}) {
    lumo_emit(&t, 0, 1, level);
    ASSERT_FALSE(traces_.empty());
    EXPECT_EQ(traces_.back().level, level);
  }
  EXPECT_EQ(traces_.size(), 5u);
}

// ---------------------------------------------------------------------------
// Default sink.

// Redirects file descriptor 2 into a temporary file for the scope's duration.
class StderrCapture {
 public:
  StderrCapture() : file_(tmpfile()) {
    fflush(stderr);
    saved_ = dup(2);
    dup2(fileno(file_), 2);
  }
  std::string finish() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    std::string out;
    rewind(file_);
    for (int c; (c = fgetc(file_)) != EOF;) out.push_back(static_cast<char>(c));
    fclose(file_);
    return out;
  }

 private:
  FILE *file_;
  int saved_;
};

TEST(LumoDefaultSink, PrintsFatalAndErrorLinesOnly) {
  uint16_t id = 0;
  uint32_t state = 0;
  ASSERT_EQ(lumo_module_init_fn("wex_bix_ipc_shim", &id, &state), 0);
  const char *formats[] = {"fatal %u", "error %s", "info", "debug", "ends in newline\n"};
  lumo_trace_table t = {{0}, 5, formats};

  StderrCapture cap;
  lumo_emit_i1(&t, 0, id, LUMO_LEVEL_FATAL, 1);
  lumo_emit_s1(&t, 1, id, LUMO_LEVEL_ERROR, "two");
  lumo_emit(&t, 2, id, LUMO_LEVEL_INFO);
  lumo_emit(&t, 3, id, LUMO_LEVEL_DEBUG);
  lumo_emit(&t, 4, id, LUMO_LEVEL_ERROR);
  lumo_emit(&t, 1, 0xFFFE, LUMO_LEVEL_ERROR);  // never registered
  EXPECT_EQ(cap.finish(),
            "wex_bix_ipc_shim: fatal 1\n"
            "wex_bix_ipc_shim: error two\n"
            "wex_bix_ipc_shim: ends in newline\n"
            "module 65534: error %s\n");
}

TEST(LumoDefaultSink, NullSinkRestoresIt) {
  std::vector<Trace> traces;
  const char *formats[] = {"back to stderr"};
  lumo_trace_table t = {{0}, 1, formats};
  lumo_set_sink(capture, &traces);
  lumo_set_sink(nullptr, &traces);
  StderrCapture cap;
  lumo_emit(&t, 0, 0xFFFE, LUMO_LEVEL_ERROR);
  EXPECT_EQ(cap.finish(), "module 65534: back to stderr\n");
  EXPECT_TRUE(traces.empty());
}

// The caller's fatal path: the trace line must be out before abort().
void FatalTraceThenAbort() {
  uint16_t id = 0;
  uint32_t state = 0;
  lumo_module_init_fn("wex_bix_ipc_shim", &id, &state);
  const char *formats[] = {"Corrupted WEX Handle"};
  lumo_trace_table t = {{0}, 1, formats};
  lumo_emit(&t, 0, id, LUMO_LEVEL_FATAL);
  abort();
}

TEST(LumoDefaultSinkDeathTest, FatalTraceIsWrittenBeforeAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(FatalTraceThenAbort(), "^wex_bix_ipc_shim: Corrupted WEX Handle\n$");
}

// ---------------------------------------------------------------------------
// Trace sections.

// The generator lays these out byte by byte; pin every field's offset.
static_assert(offsetof(lumo_luids_header, version) == 0);
static_assert(offsetof(lumo_luids_header, record_count) == 2);
static_assert(offsetof(lumo_luids_header, luid) == 4);
static_assert(offsetof(lumo_luids_record, text_len) == 0);
static_assert(offsetof(lumo_luids_record, text_offset) == 2);
static_assert(offsetof(lumo_decoder_record, version) == 8);
static_assert(offsetof(lumo_decoder_record, table_count) == 10);
static_assert(offsetof(lumo_decoder_record, strings_size) == 12);
static_assert(offsetof(lumo_decoder_record, strings_count) == 16);
static_assert(offsetof(lumo_decoder_record, compression) == 20);
static_assert(offsetof(lumo_decoder_record, reserved) == 21);

std::vector<uint8_t> bzip2(const std::string &plain) {
  std::vector<uint8_t> out(plain.size() + plain.size() / 100 + 600);
  unsigned len = static_cast<unsigned>(out.size());
  int rc = BZ2_bzBuffToBuffCompress(reinterpret_cast<char *>(out.data()), &len,
                                    const_cast<char *>(plain.data()),
                                    static_cast<unsigned>(plain.size()), 1, 0, 0);
  EXPECT_EQ(rc, BZ_OK);
  out.resize(len);
  return out;
}

struct Decoded {
  int rc;
  std::string text;
};

Decoded decode(const std::vector<uint8_t> &bz) {
  char *out = reinterpret_cast<char *>(1);
  size_t len = 99;
  int rc = lumo_decode_format_strings(bz.data(), bz.size(), &out, &len);
  Decoded d{rc, out ? std::string(out, len) : "<null>"};
  if (out) {
    EXPECT_EQ(out[len], '\0');
    free(out);
  } else {
    EXPECT_EQ(len, 0u);
  }
  return d;
}

TEST(LumoSections, FormatStringsRoundTrip) {
  const std::string blob("Corrupted WEX Handle\0tinfo is null or corrupted\0variant %u\0", 59);
  Decoded d = decode(bzip2(blob));
  EXPECT_EQ(d.rc, LUMO_DECODE_OK);
  EXPECT_EQ(d.text, blob);
}

TEST(LumoSections, MalformedStreamsAreRejected) {
  std::vector<uint8_t> good = bzip2(std::string(5000, 'q') + "tail");

  std::vector<uint8_t> truncated(good.begin(), good.end() - 8);
  EXPECT_EQ(decode(truncated).rc, LUMO_DECODE_ECORRUPT);
  std::vector<uint8_t> trailing = good;
  trailing.push_back(0);
  EXPECT_EQ(decode(trailing).rc, LUMO_DECODE_ECORRUPT);
  std::vector<uint8_t> garbage = good;
  garbage[good.size() / 2] ^= 0x55;
  EXPECT_EQ(decode(garbage).rc, LUMO_DECODE_ECORRUPT);
  EXPECT_EQ(decode({}).rc, LUMO_DECODE_ECORRUPT);
  EXPECT_EQ(decode({'B', 'Z', 'h', '9'}).rc, LUMO_DECODE_ECORRUPT);

  char *out = nullptr;
  size_t len = 0;
  EXPECT_EQ(lumo_decode_format_strings(good.data(), good.size(), nullptr, &len),
            LUMO_DECODE_EINVAL);
  EXPECT_EQ(lumo_decode_format_strings(good.data(), good.size(), &out, nullptr),
            LUMO_DECODE_EINVAL);
  EXPECT_EQ(lumo_decode_format_strings(nullptr, 4, &out, &len), LUMO_DECODE_EINVAL);
}

TEST(LumoSections, OutputIsCappedWhateverTheInputSize) {
  // A few hundred bytes that expand past the cap must not be decoded whole.
  Decoded at_cap = decode(bzip2(std::string(LUMO_FORMAT_STRINGS_MAX, 'a')));
  EXPECT_EQ(at_cap.rc, LUMO_DECODE_OK);
  EXPECT_EQ(at_cap.text.size(), LUMO_FORMAT_STRINGS_MAX);

  std::vector<uint8_t> bomb = bzip2(std::string(LUMO_FORMAT_STRINGS_MAX + 1u, 'a'));
  EXPECT_LT(bomb.size(), 4096u);
  EXPECT_EQ(decode(bomb).rc, LUMO_DECODE_ETOOBIG);
}

}  // namespace
