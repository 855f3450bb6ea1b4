/* An error reply: the request failed, there are no readings. The union must still select
 * an alternative, because its selector travels as value - 1 and "none" (0) would arrive
 * as the first alternative: WEX_XCVR_TYPE_NOSFP with a wex_nosfp_dummy is the form for
 * "no module" and for errors. */
#include <stdio.h>

#include "bix_ipc_shim.h"

int main(void) {
  wex_handle *h = wex_handle_new();
  uint32_t err = 0;
  wex_xcvr_status_info *st = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_rc_set_value(h, 0, st, WEX_XCVR_RPC_NO_XCVR_RC, &err);
  wex_xcvr_status_info_nosfp_data_set(h, 0, st, wex_nosfp_dummy_create(h, 0), &err);

  uint8_t wire[1024];
  uint32_t n = wex_xcvr_status_info_marshal(h, 0, wire, st, (int32_t)sizeof wire, &err);
  wex_xcvr_status_info *got = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_unmarshal(h, 0, wire, got, (int32_t)n, 0, &err);
  printf("error reply: %u bytes, rc %s, selector %s, error %u (%s)\n", n,
         wex_xcvr_rc_literal_name(wex_xcvr_status_info_rc_get_value(h, 0, got, &err)),
         wex_xcvr_type_literal_name(wex_xcvr_status_info_xcvr_type_get_value(h, 0, got, &err)),
         err, bix_ipc_shim_error_text(err));

  /* The trap: without an alternative the answer encodes, but does not decode. */
  wex_xcvr_status_info *bare = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_rc_set_value(h, 0, bare, WEX_XCVR_RPC_NO_XCVR_RC, &err);
  n = wex_xcvr_status_info_marshal(h, 0, wire, bare, (int32_t)sizeof wire, &err);
  wex_xcvr_status_info *lost = wex_xcvr_status_info_create(h, 0);
  uint32_t derr = 0;
  wex_xcvr_status_info_unmarshal(h, 0, wire, lost, (int32_t)n, 0, &derr);
  printf("without an alternative: decode error %u (%s)\n", derr, bix_ipc_shim_error_text(derr));

  wex_xcvr_status_info_destroy(h, 0, st);
  wex_xcvr_status_info_destroy(h, 0, got);
  wex_xcvr_status_info_destroy(h, 0, bare);
  wex_xcvr_status_info_destroy(h, 0, lost);
  wex_handle_free(h);
  return err != 0 || derr == 0;
}
