// The QSFP status answer of status_qsfp.c through the C++ API: built through typed
// accessors, sent as a whole message, received through a handler per message type and
// printed. Owners destroy what they made; a failed call throws bix::error.
#include <cstdio>
#include <vector>

#include "bix_ipc_shim.hpp"

int main() try {
  bix::handle h;  // tracking off; bix::handle h(bix::tracking::on) for state bytes

  bix::ipc_shim_xcvr_status_info_message answer(h);
  answer.wex_ipc_shim_hdr().set_transaction_id(7);
  bix::wex_xcvr_status_info_ref st = answer.wex_xcvr_status_info();
  st.set_rc(bix::wex_xcvr_rc::WEX_XCVR_SUCCESS_RC);
  st.info().set_vendorName("ACME OPTICS");
  st.info().set_vendorName_len(11);  // the length field is the caller's to keep
  st.info().set_info_valid(1);

  // The readings: emplace makes the alternative and sets the selector to QSFP.
  bix::wex_qsfp_env_mon_ref q = st.emplace_qsfp_sensors();
  q.set_temp(38 * 256);  // 1/256 degree
  const uint16_t rx[4] = {12000, 11800, 12150, 11990};
  q.set_rx_power_lane(rx);
  q.set_valid_data(1);

  const std::vector<uint8_t> wire = answer.encode();

  std::size_t used = bix::receive(
      h, wire,
      [](bix::ipc_shim_xcvr_status_info_message &got) {
        bix::wex_xcvr_status_info_cref s = std::as_const(got).wex_xcvr_status_info();
        std::printf("selector %s; temp %d C; rx lane 2 %u; transaction %u\n",
                    bix::literal_name(s.xcvr_type()), s.qsfp_sensors().temp() / 256,
                    s.qsfp_sensors().rx_power_lane()[2],
                    std::as_const(got).wex_ipc_shim_hdr().transaction_id());
      },
      [](auto &other) { std::printf("unexpected message %s\n", other.to_text().c_str()); });
  std::printf("%zu of %zu bytes received\n", used, wire.size());
  return 0;
} catch (const bix::error &e) {
  std::fprintf(stderr, "%s\n", e.what());  // names the C call, the code and its text
  return 1;
}
