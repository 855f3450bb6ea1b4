/* bix-card-sim: a port-adapter carrier card with four transceiver ports, answering the
 * host over the channel socket whose descriptor it is given.
 *
 *   port 0: SFP+ 10GBASE-SR    port 1: QSFP28 100GBASE-LR4
 *   port 2: VORN 400G ZR       port 3: empty
 *
 * Requests arrive as messages; the library hands each to this program's handler of its
 * kind (bix_ipc_shim_<msg>_message_handler), which builds the answer and sends it. The
 * card's handle tracks field state, so its answers carry state bytes. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "channel.h"

struct card {
  int fd;
  uint32_t seq;
  int failed;
};

struct module {
  uint32_t type;      /* wex_xcvr_type; 0: no module */
  uint8_t identifier; /* SFF identifier byte */
  const char *vendor, *pn, *rev, *sn, *date, *name, *model;
  uint8_t oui[3];
  uint16_t wavelength_nm;
  uint8_t rate_100mb;
  int16_t temp_256ths;       /* module temperature, 1/256 degC */
  uint16_t vcc_100uv;        /* supply, 100 uV */
  uint16_t bias_2ua;         /* laser bias, 2 uA */
  uint16_t tx_01uw, rx_01uw; /* optical power, 0.1 uW */
  uint32_t lanes;
};

static const struct module kPorts[4] = {
    {WEX_XCVR_TYPE_SFP,
     0x03,
     "NORDLIGHT OPTICS",
     "NLO-SFP10G-SR",
     "A2",
     "NLO21480117",
     "210611  ",
     "SFP-10G-SR",
     "NLO-10GSR-85",
     {0x00, 0x1b, 0x21},
     850,
     103,
     8653,
     32900,
     3400,
     5754,
     4898,
     1},
    {WEX_XCVR_TYPE_QSFP,
     0x11,
     "KESTREL PHOTONIC",
     "KP-Q28-LR4-10",
     "03",
     "KPQ2204A0193",
     "220415  ",
     "QSFP-100G-LR4",
     "KP-Q28LR4",
     {0x00, 0x0e, 0x7d},
     1310,
     255,
     10624,
     32750,
     3810,
     8912,
     7420,
     4},
    {WEX_XCVR_TYPE_VORN,
     0x18,
     "ARGENT FIBERWORK",
     "AFW-VRN400-ZR",
     "B1",
     "AFW2309Z0042",
     "230227  ",
     "VORN-400G-ZR",
     "AFW-400ZR-C",
     {0x00, 0x25, 0x9e},
     1550,
     255,
     13376,
     33010,
     0,
     9120,
     6310,
     8},
    {0},
};

/* The SFF identification page: identifier, vendor, OUI, part number, revision,
 * wavelength, serial number, date code and both check codes at the offsets SFF-8472
 * (A0h) and SFF-8636 (upper page 00h) share. */
static void id_page(const struct module *m, uint8_t *p, size_t n) {
  memset(p, 0, n);
  p[0] = m->identifier;
  p[1] = 0x04;
  p[2] = m->identifier == 0x03 ? 0x07 : 0x0c; /* LC / MPO */
  p[12] = m->rate_100mb;
#define PUT(off, len, text)                                                 \
  do {                                                                      \
    memset(p + (off), ' ', (len));                                          \
    memcpy(p + (off), (text), strlen(text) < (len) ? strlen(text) : (len)); \
  } while (0)
  PUT(20, 16, m->vendor);
  memcpy(p + 37, m->oui, 3);
  PUT(40, 16, m->pn);
  PUT(56, 4, m->rev);
  p[60] = (uint8_t)(m->wavelength_nm >> 8);
  p[61] = (uint8_t)m->wavelength_nm;
  PUT(68, 16, m->sn);
  PUT(84, 8, m->date);
#undef PUT
  p[92] = 0x68;
  p[94] = 0x08;
  uint8_t sum = 0;
  for (int i = 0; i < 63; ++i) sum = (uint8_t)(sum + p[i]);
  p[63] = sum;
  sum = 0;
  for (int i = 64; i < 95; ++i) sum = (uint8_t)(sum + p[i]);
  p[95] = sum;
}

static void module_info(wex_handle *h, wex_xcvr_info *info, const struct module *m, uint32_t port,
                        uint32_t *err) {
  char ifname[33];
  snprintf(ifname, sizeof ifname, "HundredGigE0/1/%u", port);
  if (!m->type) return;
  wex_xcvr_info_info_valid_set_value(h, 0, info, 1, err);
  wex_xcvr_info_security_pass_set_value(h, 0, info, 1, err);
  wex_xcvr_info_dev_state_set_value(h, 0, info, 3, err); /* enabled */
  wex_xcvr_info_supportedRates_set_value(h, 0, info,
                                         m->rate_100mb == 103 ? 10000
                                         : m->lanes > 4       ? 400000
                                                              : 100000,
                                         err);
  wex_xcvr_info_optics_type_set_value(h, 0, info, m->identifier, err);
  wex_xcvr_info_xcvr_type_set_value(h, 0, info, m->type, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_dev_if_name_set_mem, info, 33, ifname, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_xcvrCode_set_mem, info, 37, m->name, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_vendorName_set_mem, info, 37, m->vendor, err);
  wex_xcvr_info_vendorName_len_set_value(h, 0, info, (uint8_t)strlen(m->vendor), err);
  for (uint32_t i = 0; i < 3; ++i) wex_xcvr_info_vendorOUI_set_value(h, 0, info, i, m->oui[i], err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_vendorPN_set_mem, info, 37, m->pn, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_vendorRev_set_mem, info, 37, m->rev, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_vendorSN_set_mem, info, 37, m->sn, err);
  wex_xcvr_info_vendorSN_len_set_value(h, 0, info, (uint8_t)strlen(m->sn), err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_clei_set_mem, info, 11, "WMOTCZPBAA", err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_partNumber_set_mem, info, 11, "10-3110-01", err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_xcvrName_set_mem, info, 37, m->name, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_xcvrMfgAssemblyNum_set_mem, info, 37, "68-5204-02", err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_xcvrMfgAssemblyRev_set_mem, info, 37, "B0", err);
  wex_xcvr_info_xcvrIsFRU_set_value(h, 0, info, 1, err);
  CHANNEL_SET_TEXT(h, wex_xcvr_info_modelNumber_set_mem, info, 21, m->model, err);
}

/* Readings for each kind of module, in the units of its management interface. */
static void sensors(wex_handle *h, wex_xcvr_status_info *st, const struct module *m,
                    uint32_t *err) {
  switch (m->type) {
    case WEX_XCVR_TYPE_SFP: {
      wex_sfp_env_mon *s = wex_sfp_env_mon_create(h, 0);
      wex_sfp_env_mon_temp_set_value(h, 0, s, m->temp_256ths, err);
      wex_sfp_env_mon_tx_voltage_set_value(h, 0, s, m->vcc_100uv, err);
      wex_sfp_env_mon_tx_bias_set_value(h, 0, s, m->bias_2ua, err);
      wex_sfp_env_mon_tx_power_set_value(h, 0, s, m->tx_01uw, err);
      wex_sfp_env_mon_rx_power_set_value(h, 0, s, m->rx_01uw, err);
      wex_sfp_env_mon_valid_data_set_value(h, 0, s, 1, err);
      wex_xcvr_status_info_sfp_sensors_set(h, 0, st, s, err);
      break;
    }
    case WEX_XCVR_TYPE_QSFP: {
      wex_qsfp_env_mon *s = wex_qsfp_env_mon_create(h, 0);
      wex_qsfp_env_mon_temp_set_value(h, 0, s, m->temp_256ths, err);
      wex_qsfp_env_mon_tx_voltage_set_value(h, 0, s, m->vcc_100uv, err);
      wex_qsfp_env_mon_tx_power_set_value(h, 0, s, (uint16_t)(m->tx_01uw * 4 / 10), err);
      wex_qsfp_env_mon_rx_power_set_value(h, 0, s, (uint16_t)(m->rx_01uw * 4 / 10), err);
      for (uint32_t l = 0; l < 4; ++l) {
        wex_qsfp_env_mon_tx_bias_lane_set_value(h, 0, s, l, (uint16_t)(m->bias_2ua + 35 * l), err);
        wex_qsfp_env_mon_tx_power_lane_set_value(h, 0, s, l, (uint16_t)(m->tx_01uw - 110 * l), err);
        wex_qsfp_env_mon_rx_power_lane_set_value(h, 0, s, l, (uint16_t)(m->rx_01uw + 95 * l), err);
      }
      wex_qsfp_env_mon_valid_data_set_value(h, 0, s, 1, err);
      wex_xcvr_status_info_qsfp_sensors_set(h, 0, st, s, err);
      break;
    }
    case WEX_XCVR_TYPE_VORN: {
      wex_vorn_env_mon *s = wex_vorn_env_mon_create(h, 0);
      wex_vorn_env_mon_temp_set_value(h, 0, s, m->temp_256ths, err);
      wex_vorn_env_mon_tx_voltage_set_value(h, 0, s, m->vcc_100uv, err);
      wex_vorn_env_mon_tx_power_set_value(h, 0, s, m->tx_01uw, err);
      wex_vorn_env_mon_rx_power_set_value(h, 0, s, m->rx_01uw, err);
      for (uint32_t l = 0; l < m->lanes; ++l) {
        wex_vorn_env_mon_tx_bias_lane_set_value(h, 0, s, l, (uint16_t)(2960 + 41 * l), err);
        wex_vorn_env_mon_tx_power_lane_set_value(h, 0, s, l, (uint16_t)(m->tx_01uw - 60 * l), err);
        wex_vorn_env_mon_rx_power_lane_set_value(h, 0, s, l, (uint16_t)(m->rx_01uw + 45 * l), err);
      }
      wex_vorn_env_mon_valid_data_set_value(h, 0, s, 1, err);
      wex_xcvr_status_info_vorn_sensors_set(h, 0, st, s, err);
      break;
    }
    default: {
      wex_nosfp_dummy *s = wex_nosfp_dummy_create(h, 0);
      wex_xcvr_status_info_nosfp_data_set(h, 0, st, s, err);
    }
  }
}

static void idprom(wex_handle *h, wex_xcvr_idprom_info *ip, const struct module *m, uint32_t *err) {
  uint8_t page[224];
  switch (m->type) {
    case WEX_XCVR_TYPE_SFP: {
      wex_dev_sfp_info *d = wex_dev_sfp_info_create(h, 0);
      id_page(m, page, 224);
      wex_dev_sfp_info_id_info_set_mem(h, 0, d, page, 224, err);
      wex_dev_sfp_info_status_info_chksum_ok_set_value(h, 0, d, 1, err);
      wex_dev_sfp_info_legacy_sfp_status_info_chksum_ok_set_value(h, 0, d, 1, err);
      wex_xcvr_idprom_info_sfp_idprom_set(h, 0, ip, d, err);
      break;
    }
    case WEX_XCVR_TYPE_QSFP: {
      wex_dev_qsfp_info *d = wex_dev_qsfp_info_create(h, 0);
      id_page(m, page, 128);
      wex_dev_qsfp_info_id_info_set_mem(h, 0, d, page, 128, err);
      uint8_t lower[128] = {m->identifier};
      lower[22] = (uint8_t)(m->temp_256ths >> 8);
      lower[23] = (uint8_t)m->temp_256ths;
      lower[26] = (uint8_t)(m->vcc_100uv >> 8);
      lower[27] = (uint8_t)m->vcc_100uv;
      wex_dev_qsfp_info_lower_info_set_mem(h, 0, d, lower, 128, err);
      wex_dev_qsfp_info_status_info_chksum_ok_set_value(h, 0, d, 1, err);
      wex_xcvr_idprom_info_qsfp_idprom_set(h, 0, ip, d, err);
      break;
    }
    case WEX_XCVR_TYPE_VORN: {
      wex_dev_vorn_info *d = wex_dev_vorn_info_create(h, 0);
      id_page(m, page, 128);
      wex_dev_vorn_info_id_info_set_mem(h, 0, d, page, 128, err);
      wex_dev_vorn_info_status_info_chksum_ok_set_value(h, 0, d, 1, err);
      wex_dev_vorn_info_orvik_info_chksum_ok_set_value(h, 0, d, 1, err);
      wex_dev_vorn_info_orvik_info_2_chksum_ok_set_value(h, 0, d, 1, err);
      wex_xcvr_idprom_info_vorn_idprom_set(h, 0, ip, d, err);
      break;
    }
    default: {
      wex_nosfp_dummy *d = wex_nosfp_dummy_create(h, 0);
      wex_xcvr_idprom_info_nosfp_data_set(h, 0, ip, d, err);
    }
  }
}

/* Answers carry the request's transaction id back. */
static uint32_t transaction_of(wex_handle *h, wex_ipc_shim_hdr *hdr) {
  uint32_t err = 0;
  return wex_ipc_shim_hdr_transaction_id_get_value(h, 0, hdr, &err);
}

#define ANSWER_HEADERS(h, card, answer, req, err)                                                 \
  channel_set_headers((h), (answer)->app_sess_hdr, (answer)->wex_ipc_shim_hdr, CHANNEL_CARD_ADDR, \
                      CHANNEL_HOST_ADDR, ++(card)->seq,                                           \
                      transaction_of((h), (req)->wex_ipc_shim_hdr), (err))

void bix_ipc_shim_ipc_shim_xcvr_rpc_req_message_handler(wex_handle *h, uint32_t ws,
                                                        uint64_t context, void *message,
                                                        uint32_t *err) {
  struct card *card = (struct card *)(uintptr_t)context;
  ipc_shim_xcvr_rpc_req_message *req = message;
  const uint32_t port = wex_xcvr_rpc_req_port_num_get_value(h, ws, req->wex_xcvr_rpc_req, err);
  const uint32_t opcode = wex_xcvr_rpc_req_opcode_get_value(h, ws, req->wex_xcvr_rpc_req, err);
  const struct module *m = port < 4 ? &kPorts[port] : &kPorts[3];
  const uint32_t rc = port >= 4 ? WEX_XCVR_RPC_INVALID_PORT_NUM_RC
                      : m->type ? WEX_XCVR_SUCCESS_RC
                                : WEX_XCVR_RPC_NO_XCVR_RC;
  int sent = -1;
  if (opcode == WEX_XCVR_GET_PRESENCE_RPC_OC) {
    ipc_shim_xcvr_presence_info_message *a = ipc_shim_xcvr_presence_info_message_create(h, ws);
    ANSWER_HEADERS(h, card, a, req, err);
    wex_xcvr_presence_info_rc_set_value(h, ws, a->wex_xcvr_presence_info, WEX_XCVR_SUCCESS_RC, err);
    wex_xcvr_presence_info_is_present_set_value(h, ws, a->wex_xcvr_presence_info, m->type != 0,
                                                err);
    CHANNEL_SEND(sent, card->fd, h, a, ipc_shim_xcvr_presence_info);
    ipc_shim_xcvr_presence_info_message_destroy(h, ws, a);
  } else if (opcode == WEX_XCVR_GET_STATUS_RPC_OC) {
    ipc_shim_xcvr_status_info_message *a = ipc_shim_xcvr_status_info_message_create(h, ws);
    wex_xcvr_status_info *st = a->wex_xcvr_status_info;
    ANSWER_HEADERS(h, card, a, req, err);
    wex_xcvr_status_info_rc_set_value(h, ws, st, rc, err);
    module_info(h, wex_xcvr_status_info_info_get(h, ws, st, err), m, port, err);
    wex_xcvr_status_info_status_bm_set_value(h, ws, st,
                                             m->type ? 1u << WEX_XCVR_STATUS_BM_PRESENT : 0, err);
    wex_xcvr_status_info_xcvr_type_set_value(h, ws, st, m->type ? m->type : WEX_XCVR_TYPE_NOSFP,
                                             err);
    sensors(h, st, m, err);
    CHANNEL_SEND(sent, card->fd, h, a, ipc_shim_xcvr_status_info);
    ipc_shim_xcvr_status_info_message_destroy(h, ws, a);
  } else if (opcode == WEX_XCVR_GET_IDPROM_RPC_OC) {
    ipc_shim_xcvr_idprom_info_message *a = ipc_shim_xcvr_idprom_info_message_create(h, ws);
    wex_xcvr_idprom_info *ip = a->wex_xcvr_idprom_info;
    ANSWER_HEADERS(h, card, a, req, err);
    wex_xcvr_idprom_info_rc_set_value(h, ws, ip, rc, err);
    module_info(h, wex_xcvr_idprom_info_info_get(h, ws, ip, err), m, port, err);
    wex_xcvr_idprom_info_xcvr_type_set_value(h, ws, ip, m->type ? m->type : WEX_XCVR_TYPE_NOSFP,
                                             err);
    idprom(h, ip, m, err);
    CHANNEL_SEND(sent, card->fd, h, a, ipc_shim_xcvr_idprom_info);
    ipc_shim_xcvr_idprom_info_message_destroy(h, ws, a);
  }
  card->failed |= sent != 0 || *err != 0;
  ipc_shim_xcvr_rpc_req_message_destroy(h, ws, req);
}

/* Inlet, outlet, ASIC and optics-cage temperatures (degC); five rails (mV); the card's
 * input power (W). */
static const struct {
  int8_t low, warn, crit, shut, now;
} kTemps[] = {
    {-5, 45, 55, 65, 29}, {-5, 60, 70, 80, 37}, {0, 95, 105, 110, 58}, {-5, 70, 75, 85, 44}};
static const int16_t kRails[][2] = {
    {12000, 11988}, {3300, 3309}, {1800, 1797}, {1000, 1002}, {850, 851}};

void bix_ipc_shim_ipc_shim_envm_rpc_req_message_handler(wex_handle *h, uint32_t ws,
                                                        uint64_t context, void *message,
                                                        uint32_t *err) {
  struct card *card = (struct card *)(uintptr_t)context;
  ipc_shim_envm_rpc_req_message *req = message;
  ipc_shim_envm_sensor_data_message *a = ipc_shim_envm_sensor_data_message_create(h, ws);
  ANSWER_HEADERS(h, card, a, req, err);
  wex_bix_envm_sensor_data *data = a->wex_bix_envm_sensor_data;
  const uint32_t query =
      wex_bix_envm_rpc_req_message_type_get_value(h, ws, req->wex_bix_envm_rpc_req, err);
  wex_bix_envm_sensor_data_result_set_value(
      h, ws, data, query == WEX_BIX_ENV_QUERY_SENSORS ? WEX_BIX_ENV_SUCCESS : WEX_BIX_ENV_FAILURE,
      err);
  wex_bix_env_sensor_table *t = wex_bix_envm_sensor_data_table_get(h, ws, data, err);
  wex_bix_env_sensor_table_num_temp_sensors_set_value(h, ws, t, 4, err);
  for (uint32_t i = 0; i < 4; ++i) {
    wex_bix_env_temp_sensor_info *s = wex_bix_env_sensor_table_temp_get(h, ws, t, i, err);
    wex_bix_env_temp_sensor_info_sensor_number_set_value(h, ws, s, (int8_t)i, err);
    wex_bix_env_temp_sensor_info_low_limit_set_value(h, ws, s, kTemps[i].low, err);
    wex_bix_env_temp_sensor_info_warn_limit_set_value(h, ws, s, kTemps[i].warn, err);
    wex_bix_env_temp_sensor_info_crit_limit_set_value(h, ws, s, kTemps[i].crit, err);
    wex_bix_env_temp_sensor_info_shut_limit_set_value(h, ws, s, kTemps[i].shut, err);
    wex_bix_env_temp_sensor_info_current_reading_set_value(h, ws, s, kTemps[i].now, err);
    wex_bix_env_temp_sensor_info_reading_valid_set_value(h, ws, s, 1, err);
  }
  wex_bix_env_sensor_table_num_volt_sensors_set_value(h, ws, t, 5, err);
  for (uint32_t i = 0; i < 5; ++i) {
    wex_bix_env_volt_sensor_info *s = wex_bix_env_sensor_table_volt_get(h, ws, t, i, err);
    wex_bix_env_volt_sensor_info_sensor_number_set_value(h, ws, s, (int8_t)(4 + i), err);
    wex_bix_env_volt_sensor_info_nominal_set_value(h, ws, s, kRails[i][0], err);
    wex_bix_env_volt_sensor_info_warn_limit_set_value(h, ws, s, (int16_t)(kRails[i][0] / 20), err);
    wex_bix_env_volt_sensor_info_shut_limit_set_value(h, ws, s, (int16_t)(kRails[i][0] / 10), err);
    wex_bix_env_volt_sensor_info_current_reading_set_value(h, ws, s, kRails[i][1], err);
    wex_bix_env_volt_sensor_info_reading_valid_set_value(h, ws, s, 1, err);
  }
  wex_bix_env_sensor_table_num_power_sensors_set_value(h, ws, t, 1, err);
  wex_bix_env_power_sensor_info *p = wex_bix_env_sensor_table_power_get(h, ws, t, 0, err);
  wex_bix_env_power_sensor_info_sensor_number_set_value(h, ws, p, 9, err);
  wex_bix_env_power_sensor_info_reading_valid_set_value(h, ws, p, 1, err);
  wex_bix_env_power_sensor_info_current_reading_set_value(h, ws, p, 47, err);
  wex_bix_env_power_sensor_info_warn_limit_set_value(h, ws, p, 90, err);
  int sent = -1;
  CHANNEL_SEND(sent, card->fd, h, a, ipc_shim_envm_sensor_data);
  card->failed |= sent != 0 || *err != 0;
  ipc_shim_envm_sensor_data_message_destroy(h, ws, a);
  ipc_shim_envm_rpc_req_message_destroy(h, ws, req);
}

void bix_ipc_shim_ipc_shim_mgmt_rpc_req_message_handler(wex_handle *h, uint32_t ws,
                                                        uint64_t context, void *message,
                                                        uint32_t *err) {
  struct card *card = (struct card *)(uintptr_t)context;
  ipc_shim_mgmt_rpc_req_message *req = message;
  ipc_shim_mgmt_rpc_reply_message *a = ipc_shim_mgmt_rpc_reply_message_create(h, ws);
  ANSWER_HEADERS(h, card, a, req, err);
  wex_bix_mgmt_rpc_reply *r = a->wex_bix_mgmt_rpc_reply;
  wex_bix_mgmt_rpc_reply_is_valid_set_value(h, ws, r, 1, err);
  wex_bix_mgmt_rpc_reply_reply_size_set_value(h, ws, r, 364, err);
  wex_bix_plugin_card_info *c = wex_bix_mgmt_rpc_reply_card_info_get(h, ws, r, err);
  wex_bix_plugin_card_info_bixNumPorts_set_value(h, ws, c, 4, err);
  wex_bix_plugin_card_info_ProcessorRam_set_value(h, ws, c, 2048, err);
  wex_bix_plugin_card_info_NVRAMSize_set_value(h, ws, c, 524288, err);
  wex_bix_plugin_card_info_NVRAMUsed_set_value(h, ws, c, 18944, err);
  wex_bix_plugin_card_info_ConfigRegister_set_value(h, ws, c, 0x2102, err);
  wex_bix_plugin_card_info_ConfigRegNext_set_value(h, ws, c, 0x2102, err);
  CHANNEL_SET_TEXT(h, wex_bix_plugin_card_info_SysBootImageList_set_mem, c, 256,
                   "bootflash:pa-4x-carrier.1.4.2.SPA.bin,1;", err);
  CHANNEL_SET_TEXT(h, wex_bix_plugin_card_info_bixFwVersion_set_mem, c, 36, "1.4.2 (build 5107)",
                   err);
  CHANNEL_SET_TEXT(h, wex_bix_plugin_card_info_bixSwVersion_set_mem, c, 36, "17.9.3a", err);
  int sent = -1;
  CHANNEL_SEND(sent, card->fd, h, a, ipc_shim_mgmt_rpc_reply);
  card->failed |= sent != 0 || *err != 0;
  ipc_shim_mgmt_rpc_reply_message_destroy(h, ws, a);
  ipc_shim_mgmt_rpc_req_message_destroy(h, ws, req);
}

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: bix-card-sim SOCKET_FD\n");
    return 2;
  }
  struct card card = {atoi(argv[1]), 0, 0};
  wex_handle *h = wex_handle_new();
  wex_sttr_profile tracking = {WEX_STTR_ON};
  h->sttr_profile = &tracking;
  uint8_t *frame;
  int64_t n;
  while ((n = channel_recv(card.fd, &frame)) > 0) {
    uint32_t err = 0;
    /* No handler passed: each request goes to this program's handler of its kind. */
    bix_ipc_shim_message_receive(h, 0, (uint64_t)(uintptr_t)&card, NULL, frame, (int32_t)n, NULL,
                                 &err);
    free(frame);
    if (err) {
      fprintf(stderr, "card: a request was refused with error %u\n", err);
      card.failed = 1;
    }
  }
  h->sttr_profile = NULL;
  wex_handle_free(h);
  close(card.fd);
  return n < 0 || card.failed ? 1 : 0;
}
