/* bix-host-manager: the host end of the channel. It starts the carrier-card simulator
 * (bix-card-sim, next to this program) on one end of a Unix-domain socket pair, asks it
 * about each transceiver port, its environment sensors and its card information, and
 * prints every answer the library decodes.
 *
 *   bix-host-manager [--out DIR]
 *
 * Answers are received with bix_ipc_shim_message_receive, which picks the message by
 * its LUID and hands it to this program's handler of that kind. The runtime's recorder
 * writes each received message whose XML record fits its 4096 bytes to DIR/recording.xml
 * (the others are counted); the answers' wire bytes go
 * to DIR/received.bin and the text printed for them to DIR/received.txt, so that
 * `bix-ipc decode DIR/received.bin` can be compared with it. Without --out, DIR is a
 * new directory under $TMPDIR (or /tmp). */
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "channel.h"
#include "lumo.h"

struct host {
  int fd;
  uint32_t seq, transaction;
  FILE *text; /* received.txt */
  unsigned answers;
  int failed;
};

static char g_text[1 << 18];

/* The text form of an answer: on stdout, and into received.txt; then the answer, which the
 * handler owns, is destroyed. */
#define SHOW_AND_DESTROY(host, NAME, msg, summary)                               \
  do {                                                                           \
    uint32_t e_ = 0;                                                             \
    int32_t n_ = NAME##_message_print(h, ws, g_text, (msg), sizeof g_text, &e_); \
    printf("\n== answer %u: %s: %s\n", ++(host)->answers, #NAME, (summary));     \
    if (e_) {                                                                    \
      printf("(cannot print: error %u)\n", e_);                                  \
      (host)->failed = 1;                                                        \
    } else {                                                                     \
      fwrite(g_text, 1, (size_t)n_, stdout);                                     \
      fwrite(g_text, 1, (size_t)n_, (host)->text);                               \
    }                                                                            \
    NAME##_message_destroy(h, ws, (msg));                                        \
  } while (0)

static const char *kModuleNames[] = {"none", "SFP",  "XFP",  "MSA",
                                     "SFP+", "VORN", "QSFP", "no module"};

static const char *module_name(uint32_t type) {
  return type < 8 ? kModuleNames[type] : "unknown";
}

/* Byte arrays are not strings: the printable prefix of one, for a summary line. */
static void text_of(const uint8_t *bytes, size_t n, char *out) {
  size_t i = 0;
  for (; i < n && bytes[i] >= ' ' && bytes[i] < 127; ++i) out[i] = (char)bytes[i];
  out[i] = 0;
}

void bix_ipc_shim_ipc_shim_xcvr_presence_info_message_handler(wex_handle *h, uint32_t ws,
                                                              uint64_t context, void *message,
                                                              uint32_t *err) {
  struct host *host = (struct host *)(uintptr_t)context;
  ipc_shim_xcvr_presence_info_message *m = message;
  char summary[96];
  snprintf(summary, sizeof summary, "module %s",
           wex_xcvr_presence_info_is_present_get_value(h, ws, m->wex_xcvr_presence_info, err)
               ? "present"
               : "absent");
  SHOW_AND_DESTROY(host, ipc_shim_xcvr_presence_info, m, summary);
}

void bix_ipc_shim_ipc_shim_xcvr_status_info_message_handler(wex_handle *h, uint32_t ws,
                                                            uint64_t context, void *message,
                                                            uint32_t *err) {
  struct host *host = (struct host *)(uintptr_t)context;
  ipc_shim_xcvr_status_info_message *m = message;
  wex_xcvr_status_info *st = m->wex_xcvr_status_info;
  const uint32_t type = wex_xcvr_status_info_xcvr_type_get_value(h, ws, st, err);
  char vendor[40], summary[160];
  text_of(st->info.vendorName, sizeof st->info.vendorName, vendor);
  int16_t temp = 0;
  if (st->sfp_sensors) temp = wex_sfp_env_mon_temp_get_value(h, ws, st->sfp_sensors, err);
  if (st->qsfp_sensors) temp = wex_qsfp_env_mon_temp_get_value(h, ws, st->qsfp_sensors, err);
  if (st->vorn_sensors) temp = wex_vorn_env_mon_temp_get_value(h, ws, st->vorn_sensors, err);
  if (type == WEX_XCVR_TYPE_NOSFP)
    snprintf(summary, sizeof summary, "no module");
  else
    snprintf(summary, sizeof summary, "%s module from %s, %.1f degC", module_name(type), vendor,
             temp / 256.0);
  SHOW_AND_DESTROY(host, ipc_shim_xcvr_status_info, m, summary);
}

void bix_ipc_shim_ipc_shim_xcvr_idprom_info_message_handler(wex_handle *h, uint32_t ws,
                                                            uint64_t context, void *message,
                                                            uint32_t *err) {
  struct host *host = (struct host *)(uintptr_t)context;
  ipc_shim_xcvr_idprom_info_message *m = message;
  wex_xcvr_idprom_info *ip = m->wex_xcvr_idprom_info;
  char sn[40], summary[128];
  text_of(ip->info.vendorSN, sizeof ip->info.vendorSN, sn);
  const uint32_t type = wex_xcvr_idprom_info_xcvr_type_get_value(h, ws, ip, err);
  snprintf(summary, sizeof summary, "%s IDPROM%s%s", module_name(type),
           *sn ? ", serial number " : "", sn);
  SHOW_AND_DESTROY(host, ipc_shim_xcvr_idprom_info, m, summary);
}

void bix_ipc_shim_ipc_shim_envm_sensor_data_message_handler(wex_handle *h, uint32_t ws,
                                                            uint64_t context, void *message,
                                                            uint32_t *err) {
  struct host *host = (struct host *)(uintptr_t)context;
  ipc_shim_envm_sensor_data_message *m = message;
  wex_bix_env_sensor_table *t =
      wex_bix_envm_sensor_data_table_get(h, ws, m->wex_bix_envm_sensor_data, err);
  char summary[128];
  snprintf(summary, sizeof summary, "%d temperature, %d voltage and %d power sensors",
           wex_bix_env_sensor_table_num_temp_sensors_get_value(h, ws, t, err),
           wex_bix_env_sensor_table_num_volt_sensors_get_value(h, ws, t, err),
           wex_bix_env_sensor_table_num_power_sensors_get_value(h, ws, t, err));
  SHOW_AND_DESTROY(host, ipc_shim_envm_sensor_data, m, summary);
}

void bix_ipc_shim_ipc_shim_mgmt_rpc_reply_message_handler(wex_handle *h, uint32_t ws,
                                                          uint64_t context, void *message,
                                                          uint32_t *err) {
  struct host *host = (struct host *)(uintptr_t)context;
  ipc_shim_mgmt_rpc_reply_message *m = message;
  wex_bix_plugin_card_info *c =
      wex_bix_mgmt_rpc_reply_card_info_get(h, ws, m->wex_bix_mgmt_rpc_reply, err);
  char fw[40], summary[128];
  text_of(c->bixFwVersion, sizeof c->bixFwVersion, fw);
  snprintf(summary, sizeof summary, "%u ports, firmware %s",
           wex_bix_plugin_card_info_bixNumPorts_get_value(h, ws, c, err), fw);
  SHOW_AND_DESTROY(host, ipc_shim_mgmt_rpc_reply, m, summary);
}

/* Waits for one answer and has the library decode and dispatch it. */
static void receive_answer(struct host *host, wex_handle *h, FILE *wire) {
  uint8_t *frame;
  int64_t n = channel_recv(host->fd, &frame);
  if (n <= 0) {
    fprintf(stderr, "host: the card closed the channel\n");
    host->failed = 1;
    return;
  }
  fwrite(frame, 1, (size_t)n, wire);
  uint32_t err = 0;
  bix_ipc_shim_message_receive(h, 0, (uint64_t)(uintptr_t)host, NULL, frame, (int32_t)n, NULL,
                               &err);
  if (err) {
    fprintf(stderr, "host: an answer was refused with error %u\n", err);
    host->failed = 1;
  }
  free(frame);
}

static void send_xcvr_request(struct host *host, wex_handle *h, uint32_t port, uint32_t opcode) {
  uint32_t err = 0;
  int sent = -1;
  ipc_shim_xcvr_rpc_req_message *req = ipc_shim_xcvr_rpc_req_message_create(h, 0);
  channel_set_headers(h, req->app_sess_hdr, req->wex_ipc_shim_hdr, CHANNEL_HOST_ADDR,
                      CHANNEL_CARD_ADDR, ++host->seq, ++host->transaction, &err);
  wex_xcvr_rpc_req_slot_num_set_value(h, 0, req->wex_xcvr_rpc_req, 1, &err);
  wex_xcvr_rpc_req_subslot_num_set_value(h, 0, req->wex_xcvr_rpc_req, 0, &err);
  wex_xcvr_rpc_req_port_num_set_value(h, 0, req->wex_xcvr_rpc_req, (uint16_t)port, &err);
  wex_xcvr_rpc_req_opcode_set_value(h, 0, req->wex_xcvr_rpc_req, opcode, &err);
  CHANNEL_SEND(sent, host->fd, h, req, ipc_shim_xcvr_rpc_req);
  host->failed |= sent != 0 || err != 0;
  ipc_shim_xcvr_rpc_req_message_destroy(h, 0, req);
}

static void send_envm_request(struct host *host, wex_handle *h) {
  uint32_t err = 0;
  int sent = -1;
  ipc_shim_envm_rpc_req_message *req = ipc_shim_envm_rpc_req_message_create(h, 0);
  channel_set_headers(h, req->app_sess_hdr, req->wex_ipc_shim_hdr, CHANNEL_HOST_ADDR,
                      CHANNEL_CARD_ADDR, ++host->seq, ++host->transaction, &err);
  wex_bix_envm_rpc_req_message_type_set_value(h, 0, req->wex_bix_envm_rpc_req,
                                              WEX_BIX_ENV_QUERY_SENSORS, &err);
  wex_bix_envm_rpc_req_slot_set_value(h, 0, req->wex_bix_envm_rpc_req, 1, &err);
  CHANNEL_SEND(sent, host->fd, h, req, ipc_shim_envm_rpc_req);
  host->failed |= sent != 0 || err != 0;
  ipc_shim_envm_rpc_req_message_destroy(h, 0, req);
}

static void send_mgmt_request(struct host *host, wex_handle *h) {
  uint32_t err = 0;
  int sent = -1;
  ipc_shim_mgmt_rpc_req_message *req = ipc_shim_mgmt_rpc_req_message_create(h, 0);
  channel_set_headers(h, req->app_sess_hdr, req->wex_ipc_shim_hdr, CHANNEL_HOST_ADDR,
                      CHANNEL_CARD_ADDR, ++host->seq, ++host->transaction, &err);
  wex_bix_mgmt_rpc_req *r = req->wex_bix_mgmt_rpc_req;
  wex_bix_mgmt_rpc_req_slot_set_value(h, 0, r, 1, &err);
  wex_bix_mgmt_rpc_req_req_type_set_value(h, 0, r, WEX_BIX_MGMT_IPC_GET_INFO, &err);
  wex_bix_mgmt_rpc_req_expected_reply_size_set_value(h, 0, r, 364, &err);
  wex_bix_get_info_info_type_set_value(h, 0, wex_bix_mgmt_rpc_req_get_info_get(h, 0, r, &err),
                                       WEX_BIX_MGMT_GET_CARD_INFO_E, &err);
  CHANNEL_SEND(sent, host->fd, h, req, ipc_shim_mgmt_rpc_req);
  host->failed |= sent != 0 || err != 0;
  ipc_shim_mgmt_rpc_req_message_destroy(h, 0, req);
}

/* The card simulator lives next to this program. */
static int card_path(char *out, size_t n) {
  ssize_t k = readlink("/proc/self/exe", out, n - 32);
  if (k <= 0) return -1;
  out[k] = 0;
  char *slash = strrchr(out, '/');
  strcpy(slash ? slash + 1 : out, "bix-card-sim");
  return 0;
}

static FILE *open_in(const char *dir, const char *name, const char *mode, char *path, size_t n) {
  snprintf(path, n, "%s/%s", dir, name);
  FILE *f = fopen(path, mode);
  if (!f) fprintf(stderr, "host: %s: %s\n", path, strerror(errno));
  return f;
}

/* The library reports through the trace facility. The recorder keeps records of at most
 * 4096 bytes: larger answers (status, IDPROM, sensors, card information) are not recorded
 * and say so in two error traces each. This sink counts those and passes every other
 * trace on to stderr, as the default sink would. */
static unsigned g_not_recorded;
static void trace_sink(void *ctx, uint32_t level, const char *text) {
  (void)ctx;
  if (strstr(text, "message not recorded, xml len")) {
    ++g_not_recorded;
    return;
  }
  if (strstr(text, "in recording")) return;
  if (level <= LUMO_LEVEL_ERROR) fprintf(stderr, "wex_bix_ipc_shim: %s\n", text);
}

int main(int argc, char **argv) {
  char dir[PATH_MAX];
  if (argc == 3 && strcmp(argv[1], "--out") == 0) {
    snprintf(dir, sizeof dir, "%s", argv[2]);
    mkdir(dir, 0755);
  } else if (argc == 1) {
    const char *tmp = getenv("TMPDIR");
    snprintf(dir, sizeof dir, "%s/bix-channel-XXXXXX", tmp && *tmp ? tmp : "/tmp");
    if (!mkdtemp(dir)) {
      perror("host: mkdtemp");
      return 1;
    }
  } else {
    fprintf(stderr, "usage: bix-host-manager [--out DIR]\n");
    return 2;
  }
  char card[PATH_MAX], recording_path[PATH_MAX + 32], wire_path[PATH_MAX + 32],
      text_path[PATH_MAX + 32];
  if (card_path(card, sizeof card) != 0) return 1;
  FILE *recording = open_in(dir, "recording.xml", "w", recording_path, sizeof recording_path);
  FILE *wire = open_in(dir, "received.bin", "wb", wire_path, sizeof wire_path);
  struct host host = {-1, 0, 0, open_in(dir, "received.txt", "w", text_path, sizeof text_path),
                      0,  0};
  if (!recording || !wire || !host.text) return 1;

  int sv[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, sv) != 0) {
    perror("host: socketpair");
    return 1;
  }
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    close(sv[0]);
    char fd[16];
    snprintf(fd, sizeof fd, "%d", sv[1]);
    execl(card, card, fd, (char *)NULL);
    fprintf(stderr, "host: cannot start %s: %s\n", card, strerror(errno));
    _exit(127);
  }
  close(sv[1]);
  host.fd = sv[0];
  printf("host: carrier-card simulator started (pid %d)\n", (int)pid);
  printf("host: recording received messages to %s\n", recording_path);
  wexlib_msg_recorder_start(recording);
  lumo_set_sink(trace_sink, NULL);

  wex_handle *h = wex_handle_new();
  static const char *kPorts[] = {"SFP+ port", "QSFP28 port", "VORN port", "empty port"};
  for (uint32_t port = 0; port < 4 && !host.failed; ++port) {
    printf("\nhost: port %u (%s): presence, status, IDPROM\n", port, kPorts[port]);
    const uint32_t ops[] = {WEX_XCVR_GET_PRESENCE_RPC_OC, WEX_XCVR_GET_STATUS_RPC_OC,
                            WEX_XCVR_GET_IDPROM_RPC_OC};
    for (int i = 0; i < 3; ++i) {
      send_xcvr_request(&host, h, port, ops[i]);
      receive_answer(&host, h, wire);
    }
  }
  printf("\nhost: environment sensors\n");
  send_envm_request(&host, h);
  receive_answer(&host, h, wire);
  printf("\nhost: card information\n");
  send_mgmt_request(&host, h);
  receive_answer(&host, h, wire);

  close(host.fd); /* the card sees the end of the stream and exits */
  int status = 0;
  waitpid(pid, &status, 0);
  wexlib_msg_recorder_stop();
  fclose(recording);
  fclose(wire);
  fclose(host.text);
  wex_handle_free(h);
  const int card_ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  printf("\nhost: %u answers decoded; card simulator %s\n", host.answers,
         card_ok ? "exited cleanly" : "FAILED");
  printf("host: recording: %s (%u answers; %u larger than the recorder's 4096-byte records)\n",
         recording_path, host.answers - g_not_recorded, g_not_recorded);
  printf("host: answers on the wire: %s (try: bix-ipc annotate %s)\n", wire_path, wire_path);
  return host.failed || !card_ok || host.answers != 14 ? 1 : 0;
}
