/* A status answer for a QSFP port, as a card would send it: identification, readings,
 * the union selected through its alternative's setter; encoded, decoded again and read
 * back through the accessors, with every error named by the library's own text. */
#include <stdio.h>
#include <string.h>

#include "bix_ipc_shim.h"

static int check(const char *what, uint32_t err) {
  if (err) fprintf(stderr, "%s: error %u (%s)\n", what, err, bix_ipc_shim_error_text(err));
  return err != 0;
}

int main(void) {
  wex_handle *h = wex_handle_new();
  uint32_t err = 0;
  wex_xcvr_status_info *st = wex_xcvr_status_info_create(h, 0);

  wex_xcvr_status_info_rc_set_value(h, 0, st, WEX_XCVR_SUCCESS_RC, &err);
  /* the embedded identification record, reached through its getter */
  wex_xcvr_info *info = wex_xcvr_status_info_info_get(h, 0, st, &err);
  static const char vendor[] = "ACME OPTICS";
  wex_xcvr_info_vendorName_set_mem(h, 0, info, (const uint8_t *)vendor, (int32_t)strlen(vendor), &err);
  wex_xcvr_info_vendorName_len_set_value(h, 0, info, (uint8_t)strlen(vendor), &err); /* not automatic */
  wex_xcvr_info_info_valid_set_value(h, 0, info, 1, &err);

  /* The readings: a separate instance that the answer owns once set. Setting it also sets
   * the selector xcvr_type to WEX_XCVR_TYPE_QSFP. */
  wex_qsfp_env_mon *q = wex_qsfp_env_mon_create(h, 0);
  wex_qsfp_env_mon_temp_set_value(h, 0, q, 38 * 256, &err); /* 38 degrees, in 1/256 */
  const uint16_t rx[4] = {12000, 11800, 12150, 11990};
  wex_qsfp_env_mon_rx_power_lane_set_mem(h, 0, q, rx, 4, &err);
  wex_qsfp_env_mon_valid_data_set_value(h, 0, q, 1, &err);
  wex_xcvr_status_info_qsfp_sensors_set(h, 0, st, q, &err);
  if (check("building the answer", err)) return 1;

  uint8_t wire[2048];
  uint32_t n = wex_xcvr_status_info_marshal(h, 0, wire, st, (int32_t)sizeof wire, &err);
  wex_xcvr_status_info *got = wex_xcvr_status_info_create(h, 0);
  wex_xcvr_status_info_unmarshal(h, 0, wire, got, (int32_t)n, 0, &err);
  if (check("encode/decode", err)) return 1;

  uint32_t sel = wex_xcvr_status_info_xcvr_type_get_value(h, 0, got, &err);
  const wex_qsfp_env_mon *rq = wex_xcvr_status_info_qsfp_sensors_get(h, 0, got, &err);
  uint16_t lanes[4];
  wex_qsfp_env_mon_rx_power_lane_get_mem(h, 0, (wex_qsfp_env_mon *)rq, lanes, 4, &err);
  printf("%u bytes; selector %s; temp %d C; rx lane 2 %u; equal %d\n", n,
         wex_xcvr_type_literal_name(sel), rq->temp / 256, lanes[2],
         wex_xcvr_status_info_compare(st, got) == 0);
  wex_xcvr_status_info_destroy(h, 0, st); /* destroys the readings it owns too */
  wex_xcvr_status_info_destroy(h, 0, got);
  wex_handle_free(h);
  return check("reading back", err);
}
