// Fixed arrays of every record, and the variable array of ipc_shim_data.
#include "access_support.h"

using namespace acc;

namespace {

TEST(FixedArrays, ElementsStateBytesAndBoundsOfEveryArray) {
  Handle h(WEX_STTR_ON);
  auto arrays = fields("FixedArray");
  EXPECT_EQ(arrays.size(), 40u);
  for (const Field *fp : arrays) {
    const Field &f = *fp;
    SCOPED_TRACE(std::string(f.type) + "." + f.name);
    uint8_t *inst = create(h, f.type), *st = area(inst, f.type);
    const uint32_t n = f.count;
    by_prim(f.prim, [&](auto v) {
      using T = decltype(v);
      T *first = reinterpret_cast<T *>(inst + f.offset);
      uint32_t err = 0;
      for (uint32_t i : {0u, n / 2, n - 1}) {
        Watch w(h);
        call(f, "set_value", h, 0u, inst, i, v, &err);
        EXPECT_EQ(w.notified(), range(first + i, sizeof v) + range(st + f.sttr, 1) + range(st + f.sttr_elems + i, 1));
        EXPECT_TRUE(w.sound());
        EXPECT_EQ(call<T>(f, "get_value", h, 0u, inst, i, &err), v);
        EXPECT_EQ(call<T *>(f, "get", h, 0u, inst, i, &err), first + i);
        EXPECT_EQ(call<uint8_t>(f, "state_flag_get", h, 0u, inst, i, &err), 2);
      }
      EXPECT_EQ(err, 0u);

      // index at the bound: 2; a count above it (or negative): 22; nothing written
      Watch w(h);
      std::vector<T> buf(n + 1, v);
      std::vector<uint8_t> flags(n + 1);
      const T *src = buf.data();
      for (int step = 0; step < 11; ++step) {
        err = 0;
        switch (step) {
          case 0: EXPECT_EQ(call<T *>(f, "get", h, 0u, inst, n, &err), nullptr); break;
          case 1: call<T>(f, "get_value", h, 0u, inst, n, &err); break;
          case 2: call(f, "set", h, 0u, inst, n, src, &err); break;
          case 3: call(f, "set_value", h, 0u, inst, n, v, &err); break;
          case 4: call<uint8_t>(f, "state_flag_get", h, 0u, inst, n, &err); break;
          case 5: call(f, "state_flag_set", h, 0u, inst, n, uint8_t{1}, &err); break;
          case 6: call(f, "state_flag_set_arr", h, 0u, inst, static_cast<const uint8_t *>(flags.data()), n + 1, &err); break;
          case 7: call(f, "get_mem", h, 0u, inst, buf.data(), static_cast<int32_t>(n + 1), &err); break;
          case 8: call(f, "get_mem", h, 0u, inst, buf.data(), int32_t{-1}, &err); break;
          case 9: call(f, "set_mem", h, 0u, inst, src, static_cast<int32_t>(n + 1), &err); break;
          case 10: call(f, "set", h, 0u, inst, 0u, static_cast<const T *>(nullptr), &err); break;
        }
        EXPECT_EQ(err, step < 7 ? 2u : step < 10 ? 22u : 0u) << "step " << step;
      }
      EXPECT_EQ(w.writes(), 0u);

      // set_mem marks the whole byte only; get_mem copies n elements and no more
      st[f.sttr] = 0;
      std::vector<uint8_t> elem_states(st + f.sttr_elems, st + f.sttr_elems + n);
      for (uint32_t i = 0; i < n; ++i) buf[i] = static_cast<T>(i + 1);
      call(f, "set_mem", h, 0u, inst, src, static_cast<int32_t>(n), &err);
      std::vector<T> out(n + 1, T{});
      call(f, "get_mem", h, 0u, inst, out.data(), static_cast<int32_t>(n), &err);
      EXPECT_TRUE(std::equal(out.begin(), out.begin() + n, buf.begin()));
      EXPECT_EQ(out[n], T{});
      EXPECT_EQ(st[f.sttr], 2);
      EXPECT_TRUE(std::equal(elem_states.begin(), elem_states.end(), st + f.sttr_elems));

      // element state bytes as a block; the rest of the area untouched
      std::vector<uint8_t> whole_area(st, st + type_of(f.type).sttr_size);
      for (uint32_t i = 0; i < n; ++i) whole_area[f.sttr_elems + i] = flags[i] = static_cast<uint8_t>(0x40 + i);
      call(f, "state_flag_set_arr", h, 0u, inst, static_cast<const uint8_t *>(flags.data()), n, &err);
      uint8_t *got = nullptr;
      call(f, "state_flag_get_arr", h, 0u, inst, &got, &err);
      EXPECT_EQ(got, st + f.sttr_elems);
      EXPECT_TRUE(std::equal(whole_area.begin(), whole_area.end(), st));
      call(f, "state_flag_whole_set", h, 0u, inst, uint8_t{0x33}, &err);
      EXPECT_EQ(call<uint8_t>(f, "state_flag_whole_get", h, 0u, inst, &err), 0x33);
      EXPECT_EQ(st[f.sttr], 0x33);
      EXPECT_EQ(err, 0u);
    });
    destroy(h, f.type, inst);
  }
}

TEST(FixedArrays, GoldenLayoutAndBounds) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *x = wex_xcvr_info_create(h, 0);
  uint8_t *st = reinterpret_cast<uint8_t *>(x) + 464;
  wex_xcvr_info_dev_if_name_set_value(h, 0, x, 32, -5, &err);
  EXPECT_EQ(x->dev_if_name[32], -5);
  EXPECT_EQ(st[9], 2);   // whole byte
  EXPECT_EQ(st[42], 2);  // element 32
  EXPECT_EQ(st[43], 0);  // xcvrCode's whole byte
  uint8_t *arr = nullptr;
  wex_xcvr_info_dev_if_name_state_flag_get_arr(h, 0, x, &arr, &err);
  EXPECT_EQ(arr, st + 10);
  EXPECT_EQ(wex_xcvr_info_dev_if_name_get(h, 0, x, 32, &err), &x->dev_if_name[32]);
  int8_t name[34];
  EXPECT_EQ(wex_xcvr_info_dev_if_name_set_mem_cr(h, x, name, 34), 22u);
  h->error = 0;
  EXPECT_EQ(wex_xcvr_info_dev_if_name_set_mem_cr(h, x, name, 33), 0u);
  wex_xcvr_info_destroy(h, 0, x);

  struct Bound {
    const char *type, *field;
    int32_t n;
  };
  for (Bound b : {Bound{"wex_xcvr_info", "dev_if_name", 33}, {"wex_dev_msa_info", "data", 254},
                  {"wex_qsfp_env_mon", "rx_power_lane", 4}, {"wex_vorn_env_mon", "tx_bias_lane", 16},
                  {"ipc_shim_xcvr_data", "manufacturer", 36}, {"wex_bix_plugin_card_info", "SysBootImageList", 256}}) {
    SCOPED_TRACE(b.field);
    uint8_t *inst = create(h, b.type);
    std::vector<uint32_t> out(260);
    std::string name = std::string(b.type) + "_" + b.field;
    err = 0;
    call(name, "get_mem", h, 0u, inst, static_cast<void *>(out.data()), b.n, &err);
    EXPECT_EQ(err, 0u);
    call(name, "get_mem", h, 0u, inst, static_cast<void *>(out.data()), b.n + 1, &err);
    EXPECT_EQ(err, 22u);
    destroy(h, b.type, inst);
  }
  // u_int16 lanes: n elements are 2n bytes
  auto *q = wex_qsfp_env_mon_create(h, 0);
  uint16_t lanes[5] = {1, 2, 3, 4, 0xBEEF}, back[5] = {0, 0, 0, 0, 0xBEEF};
  err = 0;
  wex_qsfp_env_mon_rx_power_lane_set_mem(h, 0, q, lanes, 4, &err);
  wex_qsfp_env_mon_rx_power_lane_get_mem(h, 0, q, back, 4, &err);
  EXPECT_EQ(std::memcmp(back, lanes, sizeof back), 0);
  wex_qsfp_env_mon_destroy(h, 0, q);
}

// ---- the variable array ----

uint8_t whole_of(ipc_shim_data *d) {
  return reinterpret_cast<uint8_t *>(d)[40 + fields("VarArray", "ipc_shim_data").at(0)->sttr];
}

TEST(VariableArray, SettingPastTheEndGrowsWithZerosAndElementStates) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *d = ipc_shim_data_create(h, 0);
  Watch w(h);
  ipc_shim_data_data_set_value(h, 0, d, 9, 0x77, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_TRUE(w.sound());
  ASSERT_EQ(d->size, 10u);
  EXPECT_EQ(h.live.at(d->data), 10u);
  EXPECT_EQ(h.live.at(var_states(d)), 10u);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(d->data[i] | var_states(d)[i], 0) << i;
  EXPECT_EQ(d->data[9], 0x77);
  EXPECT_EQ(var_states(d)[9], 2);
  EXPECT_EQ(whole_of(d), 2);
  EXPECT_EQ(ipc_shim_data_data_state_flag_get(h, 0, d, 9, &err), 2);

  // growing keeps elements and their state bytes; set_cr reports through the handle
  EXPECT_EQ(ipc_shim_data_data_set_cr(h, d, 11, 0x55), 0u);
  EXPECT_EQ(d->size, 12u);
  EXPECT_EQ(d->data[9], 0x77);
  EXPECT_EQ(var_states(d)[9], 2);
  EXPECT_EQ(var_states(d)[11], 2);
  uint8_t out[12];
  ipc_shim_data_data_get_mem(h, 0, d, out, 13, &err);
  EXPECT_EQ(err, 22u);
  err = 0;
  uint8_t bad[3] = {};
  ipc_shim_data_data_state_flag_set_arr(h, 0, d, bad, 3, &err);
  EXPECT_EQ(err, 2u);

  // set_mem replaces everything: new count, element states back to 0, whole byte 2
  err = 0;
  const uint8_t four[4] = {1, 2, 3, 4};
  ipc_shim_data_data_set_mem(h, 0, d, four, 4, &err);
  EXPECT_EQ(d->size, 4u);
  EXPECT_EQ(std::memcmp(d->data, four, 4), 0);
  EXPECT_EQ(h.live.at(var_states(d)), 4u);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(var_states(d)[i], 0);
  EXPECT_EQ(whole_of(d), 2);

  // remove_elements: no storage, count 0, state bytes left as they are
  ipc_shim_data_data_remove_elements(h, 0, d);
  EXPECT_EQ(d->size, 0u);
  EXPECT_EQ(d->data, nullptr);
  EXPECT_NE(var_states(d), nullptr);
  EXPECT_EQ(ipc_shim_data_data_get(h, 0, d, 0, &err), nullptr);
  EXPECT_EQ(err, 2u);
  ipc_shim_data_destroy(h, 0, d);
  EXPECT_TRUE(h.live.empty());
}

TEST(VariableArray, FailuresLeaveTheArrayAsItWas) {
  Handle h(WEX_STTR_ON);
  Traces tr;
  uint32_t err = 0;
  auto *d = ipc_shim_data_create(h, 0);
  ipc_shim_data_data_set_value(h, 0, d, 2, 9, &err);
  uint8_t *data = d->data, *states = var_states(d);
  for (uint32_t fail : {1u, 2u}) {  // storage, then the element-state buffer
    h.fail_at = h.allocs + fail;
    err = 0;
    ipc_shim_data_data_set_value(h, 0, d, 5, 1, &err);
    EXPECT_EQ(err, 12u);
    EXPECT_EQ(d->size, 3u);
    EXPECT_EQ(d->data, data);
    EXPECT_EQ(var_states(d), states);
  }
  h.fail_at = 0;
  err = 0;
  ipc_shim_data_data_set_value(h, 0, d, 0xFFFFFFFFu, 1, &err);  // one past it cannot be counted
  EXPECT_EQ(err, 12u);
  ipc_shim_data_destroy(h, 0, d);

  // An instance without state area is not grown while the handle tracks.
  Handle plain;
  auto *bare = ipc_shim_data_create(plain, 0);
  plain.set_mode(WEX_STTR_ON);
  err = 0;
  ipc_shim_data_data_set_value(plain, 0, bare, 3, 1, &err);
  EXPECT_EQ(err, 22u);
  EXPECT_EQ(bare->size, 0u);
  EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is not state tracked"));
  plain.set_mode(0);
  ipc_shim_data_destroy(plain, 0, bare);
  EXPECT_TRUE(h.live.empty());
  EXPECT_TRUE(plain.live.empty());
}

// The enlargement trace is once per process: checked in a fresh process of its own.
TEST(VariableArrayDeathTest, EnlargementTracesOncePerProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        Handle h(WEX_STTR_ON);
        Traces tr;
        const char *text = "Reallocating resource for ipc_shim_data";
        uint32_t err = 0;
        auto *d = ipc_shim_data_create(h, 0);
        ipc_shim_data_data_set_value(h, 0, d, 3, 1, &err);  // from empty: no trace
        bool quiet = !tr.has(LUMO_LEVEL_ERROR, text);
        ipc_shim_data_data_set_value(h, 0, d, 5, 1, &err);
        ipc_shim_data_data_set_value(h, 0, d, 8, 1, &err);
        size_t n = 0;
        for (auto &l : tr.lines) n += l.second == text;
        ipc_shim_data_destroy(h, 0, d);
        std::exit(quiet && n == 1 && err == 0 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
