// Runs the fuzz target over corpus files without libFuzzer, so the committed corpus is
// replayed by the ordinary test suite (under the sanitizers in the sanitized build).
//   fuzz_replay FILE|DIR...        replay
//   fuzz_replay --make-seeds DIR   write the target's seeds: its own bixfuzz_make_seeds
//                                  when it has one, else one valid encoding per type and
//                                  tracking mode
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "../tests/wire/fill.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int bixfuzz_make_seeds(const char *dir) __attribute__((weak));

namespace fs = std::filesystem;

static int make_seeds(const fs::path &dir) {
  fs::create_directories(dir);
  const auto &types = bixfuzz::types();
  for (size_t i = 0; i < types.size(); ++i) {
    for (uint8_t mode : {0, 1}) {
      bixtest::Handle h(mode ? WEX_STTR_ON : WEX_STTR_OFF);
      void *inst = types[i].create(h, 0);
      if (bixtest::facts_type(types[i].name)->kind == std::string("type"))
        bixtest::fill(h, types[i].name, inst, static_cast<uint8_t>(i), 1 + i % 7);
      std::vector<uint8_t> buf(8192);
      uint32_t err = 0;
      uint32_t n = types[i].marshal(h, 0, buf.data(), inst, static_cast<int32_t>(buf.size()), &err);
      types[i].destroy(h, 0, inst);
      std::vector<uint8_t> seed{static_cast<uint8_t>(i), mode};
      seed.insert(seed.end(), buf.begin(), buf.begin() + n);
      std::ofstream(dir / (types[i].name + (mode ? "_tracked" : "")), std::ios::binary)
          .write(reinterpret_cast<const char *>(seed.data()), static_cast<std::streamsize>(seed.size()));
    }
  }
  return 0;
}

static void replay(const fs::path &file) {
  std::ifstream in(file, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

int main(int argc, char **argv) {
  if (argc == 3 && std::string(argv[1]) == "--make-seeds")
    return bixfuzz_make_seeds ? bixfuzz_make_seeds(argv[2]) : make_seeds(argv[2]);
  size_t n = 0;
  for (int i = 1; i < argc; ++i) {
    fs::path p(argv[i]);
    if (fs::is_directory(p)) {
      for (const auto &e : fs::directory_iterator(p))
        if (e.is_regular_file()) replay(e.path()), ++n;
    } else {
      replay(p), ++n;
    }
  }
  std::printf("replayed %zu inputs: %zu passed, 0 failed\n", n, n);
  return n ? 0 : 1;
}
