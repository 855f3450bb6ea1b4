// Fixed arrays of every record, and the variable array of ipc_shim_data.
#include "access_support.h"

using namespace acc;

namespace {

TEST_F(Access, FixedArraysOfEveryRecord) {
  std::map<std::string, uint32_t> bounds = {  // documented, independent of the facts
      {"wex_xcvr_info_dev_if_name", 33},         {"wex_dev_msa_info_data", 254},
      {"wex_qsfp_env_mon_rx_power_lane", 4},     {"wex_vorn_env_mon_tx_bias_lane", 16},
      {"ipc_shim_xcvr_data_manufacturer", 36},   {"wex_bix_plugin_card_info_SysBootImageList", 256}};
  for (const Field *fp : fields("FixedArray")) {
    const Field &f = *fp;
    const uint32_t n = f.count;
    SCOPED_TRACE(name_of(f));
    EXPECT_EQ(bounds.count(name_of(f)) ? bounds.at(name_of(f)) : n, n);
    bounds.erase(name_of(f));
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type);
    by_prim(f.prim, [&](auto v) {
      using T = decltype(v);
      T *first = reinterpret_cast<T *>(inst + f.offset);
      for (uint32_t i : {0u, n / 2, n - 1}) {
        EXPECT_TRUE(watched([&] { on(f, "set_value", inst, i, v); },
                            range(first + i, sizeof v) + range(st + f.sttr, 1) + range(st + f.sttr_elems + i, 1)));
        EXPECT_EQ((std::tuple{on<T>(f, "get_value", inst, i), on<T *>(f, "get", inst, i),
                              on<uint8_t>(f, "state_flag_get", inst, i), err}),
                  std::tuple(v, first + i, uint8_t{2}, 0u));
      }
      // index at the bound: 2; a count above it (or negative): 22; nothing written
      std::vector<T> buf(n + 1, v), out(n + 1, T{});
      const T *src = buf.data(), *none = nullptr;
      EXPECT_TRUE(watched([&] {
        EXPECT_EQ(V({code<T *>(f, "get", inst, n), code<T>(f, "get_value", inst, n), code(f, "set", inst, n, src),
                     code(f, "set_value", inst, n, v), code<uint8_t>(f, "state_flag_get", inst, n),
                     code(f, "state_flag_set", inst, n, uint8_t{1}), code(f, "get_mem", inst, out.data(), int32_t{-1}),
                     code(f, "get_mem", inst, out.data(), int32_t(n + 1)), code(f, "set_mem", inst, src, int32_t(n + 1)),
                     cr(f, "set_mem_cr", inst, src, int32_t(n + 1)), code(f, "set", inst, 0u, none)}),
                  V({2, 2, 2, 2, 2, 2, 22, 22, 22, 22, 0}));
      }, Bytes{}));

      // set_mem marks the whole byte only; get_mem copies n elements and no more
      for (uint32_t i = 0; i < n; ++i) buf[i] = static_cast<T>(i + 1);
      st[f.sttr] = 0;
      const Bytes whole = range(st + f.sttr, 1);
      EXPECT_TRUE(watched([&] { on(f, "set_mem", inst, src, int32_t(n)); }, range(first, n * sizeof v) + whole));
      on(f, "get_mem", inst, out.data(), int32_t(n));
      EXPECT_TRUE(std::equal(out.begin(), out.begin() + n, buf.begin()));
      EXPECT_EQ(std::tuple(out[n], st[f.sttr], cr(f, "set_mem_cr", inst, src, int32_t(n))),
                std::tuple(T{}, uint8_t{2}, 0u));
      array_states(f, inst, n, st + f.sttr_elems, st + f.sttr);
    });
    destroy(h, f.type, inst);
  }
  EXPECT_EQ(fields("FixedArray").size(), 40u);
  EXPECT_TRUE(bounds.empty());
}

TEST_F(Access, VariableArrayGrowsIsReplacedAndEmptied) {
  const Field &f = *fields("VarArray").at(0);
  auto *d = ipc_shim_data_create(h, 0);
  auto *inst = reinterpret_cast<uint8_t *>(d), *whole = inst + 40 + f.sttr;
  EXPECT_TRUE(watched([&] { ipc_shim_data_data_set_value(h, 0, d, 9, 0x77, &err); }));  // past the end: zeros between
  ASSERT_EQ(ipc_shim_data_size_get_value(h, 0, d, &err), 10u);  // the count: read-only
  EXPECT_EQ(ipc_shim_data_size_get(h, 0, d, &err), &d->size);
  for (auto s : {"set", "set_value", "state_flag_get", "state_flag_set"})
    EXPECT_EQ(op<void *>("ipc_shim_data_size", s), nullptr) << s;
  EXPECT_EQ(std::pair(h.live.at(d->data), h.live.at(var_states(d))), std::pair(10u, 10u));
  for (int i = 0; i < 9; ++i) EXPECT_EQ(d->data[i] | var_states(d)[i], 0) << i;
  EXPECT_EQ(V({d->data[9], var_states(d)[9], *whole, err, ipc_shim_data_data_get_value(h, 0, d, 9, &err),
               ipc_shim_data_data_state_flag_get(h, 0, d, 9, &err)}),
            V({0x77, 2, 2, 0, 0x77, 2}));

  // growing keeps elements and their state bytes; set_cr reports through the handle
  EXPECT_EQ(cr("ipc_shim_data_data", "set_cr", d, 11u, uint8_t{0x55}), 0u);
  EXPECT_EQ(V({d->size, d->data[9], d->data[11]}), V({12, 0x77, 0x55}));
  EXPECT_EQ(at(var_states(d), {9, 10, 11}), V({2, 0, 2}));
  uint8_t out[12], zero = 0;
  EXPECT_EQ(code([&] { ipc_shim_data_data_get_mem(h, 0, d, out, 13, &err); }), 22u);
  EXPECT_EQ(code(f, "state_flag_set_arr", inst, static_cast<const uint8_t *>(out), 3u), 2u);  // not the count
  EXPECT_EQ(code([&] { ipc_shim_data_data_set(h, 0, d, 12, &zero, &err); }), 0u);  // set grows too
  ipc_shim_data_data_state_flag_set(h, 0, d, 10, 0x10, &err);
  EXPECT_EQ(V({var_states(d)[10], var_states(d)[12], d->size, d->data[12], err}), V({0x10, 2, 13, 0, 0}));
  array_states(f, inst, 13, var_states(d), whole);

  // set_mem replaces everything: new count, element states back to 0, whole byte 2
  const uint8_t four[4] = {1, 2, 3, 4};
  EXPECT_EQ(cr("ipc_shim_data_data", "set_mem_cr", d, four, 4), 0u);
  EXPECT_EQ(std::tuple(d->size, std::memcmp(d->data, four, 4), h.live.at(var_states(d)), *whole),
            std::tuple(4u, 0, 4u, uint8_t{2}));
  EXPECT_EQ(at(var_states(d), {0, 1, 2, 3}), V({0, 0, 0, 0}));

  // remove_elements: no storage, count 0, state bytes left as they are
  ipc_shim_data_data_remove_elements(h, 0, d);
  EXPECT_EQ(std::tuple(d->size, d->data == nullptr, var_states(d) != nullptr), std::tuple(0u, true, true));
  EXPECT_EQ(code([&] { EXPECT_EQ(ipc_shim_data_data_get(h, 0, d, 0, &err), nullptr); }), 2u);

  // Failures leave the array as it was.
  EXPECT_EQ(code([&] { ipc_shim_data_data_set_value(h, 0, d, 2, 9, &err); }), 0u);
  uint8_t *data = d->data, *states = var_states(d);
  for (uint32_t fail : {1u, 2u}) {  // storage, then the element-state buffer
    h.fail_at = h.allocs + fail;
    EXPECT_EQ(code([&] { ipc_shim_data_data_set_value(h, 0, d, 5, 1, &err); }), 12u);
    EXPECT_EQ(std::tuple(d->size, d->data, var_states(d)), std::tuple(3u, data, states));
  }
  h.fail_at = 0;  // one past the largest index cannot be counted
  EXPECT_EQ(code([&] { ipc_shim_data_data_set_value(h, 0, d, 0xFFFFFFFFu, 1, &err); }), 12u);
  ipc_shim_data_destroy(h, 0, d);

  // An instance without state area is not grown while the handle tracks.
  auto *bare = untracked<ipc_shim_data>("ipc_shim_data");
  tr.lines.clear();
  EXPECT_EQ(code([&] { ipc_shim_data_data_set_value(h, 0, bare, 3, 1, &err); }), 22u);
  EXPECT_EQ(std::pair(bare->size, tr.lines), std::pair(0u, not_tracked));
  ipc_shim_data_destroy(h, 0, bare);
  EXPECT_TRUE(h.live.empty());
}

// Sources that point into the array itself: growing or replacing moves the storage, so
// the value must be taken before the old storage goes (ASan: no use after free).
TEST_F(Access, VariableArraySourcesInsideTheArrayItself) {
  auto *d = ipc_shim_data_create(h, 0);
  const uint8_t five[5] = {1, 2, 3, 4, 5};
  ipc_shim_data_data_set_mem(h, 0, d, five, 5, &err);
  ipc_shim_data_data_set(h, 0, d, 5, d->data, &err);  // append a copy of element 0
  ASSERT_EQ(std::pair(d->size, err), std::pair(6u, 0u));
  EXPECT_EQ(d->data[5], 1);
  ipc_shim_data_data_set_mem(h, 0, d, d->data + 1, 5, &err);  // drop the first element
  ASSERT_EQ(std::pair(d->size, err), std::pair(5u, 0u));
  EXPECT_EQ(V(d->data, d->data + 5), V({2, 3, 4, 5, 1}));
  EXPECT_EQ(at(var_states(d), {0, 1, 2, 3, 4}), V({0, 0, 0, 0, 0}));
  auto *x = wex_xcvr_info_create(h, 0);  // a fixed array may overlap itself too
  for (int i = 0; i < 33; ++i) x->dev_if_name[i] = static_cast<int8_t>(i);
  wex_xcvr_info_dev_if_name_set_mem(h, 0, x, x->dev_if_name + 1, 32, &err);
  EXPECT_EQ(std::pair(x->dev_if_name[0], x->dev_if_name[31]), std::pair(int8_t{1}, int8_t{32}));
  wex_xcvr_info_destroy(h, 0, x);
  ipc_shim_data_destroy(h, 0, d);
  EXPECT_TRUE(h.live.empty());
}

// The enlargement trace is once per process: checked in a fresh process of its own.
using AccessDeathTest = Access;
TEST_F(AccessDeathTest, EnlargementTracesOncePerProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto grow = [&] {
    auto *d = ipc_shim_data_create(h, 0);
    ipc_shim_data_data_set_value(h, 0, d, 3, 1, &err);  // from empty: no trace
    const bool quiet = tr.lines.empty();
    ipc_shim_data_data_set_value(h, 0, d, 5, 1, &err);  // enlarged twice: traced once
    ipc_shim_data_data_set_value(h, 0, d, 8, 1, &err);
    ipc_shim_data_destroy(h, 0, d);
    const Lines once{{LUMO_LEVEL_ERROR, "Reallocating resource for ipc_shim_data"}};
    std::exit(quiet && tr.lines == once && err == 0 ? 0 : 1);
  };
  EXPECT_EXIT(grow(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
