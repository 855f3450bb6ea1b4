// What happens around a message: its text and XML forms, building one from XML, the
// recorder, and delivery to a handler.
#include <gtest/gtest.h>

#include "msg_support.h"

namespace {
int g_app_calls = 0;
uint64_t g_app_context = 0;
}  // namespace

// The application's handler of one message, found by the library through its weak
// reference; the other ten messages have none in this program.
extern "C" void bix_ipc_shim_ipc_shim_xcvr_presence_info_message_handler(wex_handle *, uint32_t,
                                                                         uint64_t context, void *,
                                                                         uint32_t *) {
  ++g_app_calls;
  g_app_context = context;
}

namespace bixtest {
namespace {

// A presence answer with small, readable values.
void *presence(wex_handle *h) {
  auto *msg = ipc_shim_xcvr_presence_info_message_create(h, 0);
  uint32_t err = 0;
  app_sess_hdr_session_id_set_value(h, 0, msg->app_sess_hdr, 7, &err);
  app_sess_hdr_seq_num_set_value(h, 0, msg->app_sess_hdr, 9, &err);
  app_sess_hdr_flags_set_value(h, 0, msg->app_sess_hdr, 1, &err);
  wex_ipc_shim_hdr_version_set_value(h, 0, msg->wex_ipc_shim_hdr, 1, &err);
  wex_ipc_shim_hdr_src_addr_set_value(h, 0, msg->wex_ipc_shim_hdr, 3, &err);
  wex_ipc_shim_hdr_dst_addr_set_value(h, 0, msg->wex_ipc_shim_hdr, 4, &err);
  wex_ipc_shim_hdr_transaction_id_set_value(h, 0, msg->wex_ipc_shim_hdr, 42, &err);
  wex_xcvr_presence_info_rc_set_value(h, 0, msg->wex_xcvr_presence_info, WEX_XCVR_SUCCESS_RC, &err);
  wex_xcvr_presence_info_is_present_set_value(h, 0, msg->wex_xcvr_presence_info, 1, &err);
  return msg;
}

const char kPresenceText[] =
    "message@ipc_shim_xcvr_presence_info: {\n"
    "  app_sess_hdr@app_sess_hdr: {\n"
    "    session_id@u_int32:7\n"
    "    seq_num@u_int32:9\n"
    "    flags@u_int16:1\n"
    "  }\n"
    "  wex_ipc_shim_hdr@wex_ipc_shim_hdr: {\n"
    "    version@u_int16:1\n"
    "    private_flags@u_int16:0\n"
    "    exported_flags@u_int32:0\n"
    "    src_addr@u_int32:3\n"
    "    dst_addr@u_int32:4\n"
    "    appl_data_size@u_int16:0\n"
    "    transaction_id@u_int32:42\n"
    "  }\n"
    "  wex_xcvr_presence_info@wex_xcvr_presence_info: {\n"
    "    rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC\n"
    "    is_present@u_int8:1\n"
    "  }\n"
    "}\n";

const char kPresenceXml[] =
    "<ipc_shim_xcvr_presence_info>\n"
    "<app_sess_hdr>\n<session_id>7</session_id>\n<seq_num>9</seq_num>\n<flags>1</flags>\n</"
    "app_sess_hdr>\n"
    "<wex_ipc_shim_hdr>\n<version>1</version>\n<private_flags>0</private_flags>\n"
    "<exported_flags>0</exported_flags>\n<src_addr>3</src_addr>\n<dst_addr>4</dst_addr>\n"
    "<appl_data_size>0</appl_data_size>\n<transaction_id>42</transaction_id>\n</wex_ipc_shim_hdr>\n"
    "<wex_xcvr_presence_info>\n<rc>\n<WEX_XCVR_SUCCESS_RC/></rc>\n<is_present>1</is_present>\n"
    "</wex_xcvr_presence_info>\n"
    "</ipc_shim_xcvr_presence_info>\n";

TEST(MessageForms, TextAndXmlOfAPresenceAnswer) {
  const Msg &m = message("ipc_shim_xcvr_presence_info");
  Handle h;
  void *msg = presence(h);
  EXPECT_EQ(print_text(h, m, msg), kPresenceText);
  EXPECT_EQ(xml_text(h, m, msg), kPresenceXml);
  char buf[2048];
  EXPECT_EQ(m.print_cr(h, msg, buf, sizeof buf), static_cast<int32_t>(sizeof kPresenceText - 1));
  EXPECT_EQ(m.print_cr(h, msg, buf, 100), -1);  // too small: the handle's error is set
  EXPECT_EQ(h->error, 90u);
  EXPECT_EQ(m.print_cr(h, msg, buf, sizeof buf), 0);
  m.destroy(h, 0, msg);
}

TEST(MessageForms, ErrorsBetweenMembersBecome90) {
  const Msg &m = message("ipc_shim_xcvr_presence_info");
  Handle h;
  Traces t;
  void *msg = presence(h);
  char buf[4096];
  uint32_t err = 0;
  // The opener does not fit: 90, and no member is printed.
  m.print(h, 0, buf, msg, 20, &err);
  EXPECT_EQ(err, 90u);
  EXPECT_EQ(std::string(buf).find("app_sess_hdr"), std::string::npos);
  // A member that fails otherwise (here: an instance of another type in its slot) is
  // reported as 90 before the next member; the last member's own error stands.
  void *foreign = wex_xcvr_rpc_req_create(h, 0);
  for (size_t k : {1u, 2u}) {
    void *kept = member_of(m, msg, k);
    std::memcpy(static_cast<uint8_t *>(msg) + m.members[k].offset, &foreign, sizeof foreign);
    err = 0;
    m.print(h, 0, buf, msg, sizeof buf, &err);
    EXPECT_EQ(err, k == 1 ? 90u : 22u);
    std::memcpy(static_cast<uint8_t *>(msg) + m.members[k].offset, &kept, sizeof kept);
  }
  wex_xcvr_rpc_req_destroy(h, 0, static_cast<wex_xcvr_rpc_req *>(foreign));
  // An error pending: nothing but a debug trace.
  err = 5;
  EXPECT_EQ(m.print(h, 0, buf, msg, sizeof buf, &err), 0);
  EXPECT_EQ(m.to_xml(h, 0, buf, msg, sizeof buf, &err), 0);
  void *doc = wex_xml_doc_parse(kPresenceXml, sizeof kPresenceXml - 1);
  EXPECT_EQ(m.from_xml(h, 0, doc, &err, buf, sizeof buf), nullptr);
  const std::string why = std::strerror(5);
  EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG,
                    "Already have error when printing ipc_shim_xcvr_presence_info: " + why));
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_DEBUG,
            "Already have error when rendering XML for ipc_shim_xcvr_presence_info: " + why));
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_DEBUG,
            "Already have error when rendering ipc_shim_xcvr_presence_info to XML: " + why));
  wex_xml_doc_free(doc);
  m.destroy(h, 0, msg);
}

// XML of every message, filled, parses back into a message with the same values.
TEST(MessageForms, EveryMessageComesBackFromItsXml) {
  for (const Msg &m : messages()) {
    for (uint32_t mode : {0u, WEX_STTR_ON}) {
      SCOPED_TRACE(m.name);
      Handle h(mode);
      Encoded e = encode(h, m, 12, 5);
      const std::string xml = xml_text(h, m, e.msg);
      void *doc = wex_xml_doc_parse(xml.data(), xml.size());
      ASSERT_TRUE(doc);
      char why[256] = "";
      uint32_t err = 0;
      void *back = m.from_xml(h, 0, doc, &err, why, sizeof why);
      ASSERT_TRUE(back) << err << " " << why;
      EXPECT_EQ(print_text(h, m, back), print_text(h, m, e.msg));
      m.destroy(h, 0, back);
      // Every allocation failing in turn: 12 or success, nothing left behind.
      const size_t live = h.live.size();
      for (uint32_t k = 1;; ++k) {
        const uint32_t before = h.allocs;
        h.fail_at = before + k;
        err = 0;
        back = m.from_xml(h, 0, doc, &err, why, sizeof why);
        const bool failed = h.allocs >= before + k;
        h.fail_at = 0;
        ASSERT_EQ(err, failed ? 12u : 0u) << "allocation " << k;
        ASSERT_EQ(back == nullptr, failed);
        m.destroy(h, 0, back);
        ASSERT_EQ(h.live.size(), live);
        if (!failed) break;
      }
      wex_xml_doc_free(doc);
      m.destroy(h, 0, e.msg);
      EXPECT_TRUE(h.live.empty());
    }
  }
}

TEST(MessageForms, FromXmlWithoutAChannelHeaderStillFillsTheBody) {
  const Msg &m = message("ipc_shim_xcvr_presence_info");
  Handle h;
  void *msg = presence(h);
  std::string xml = kPresenceXml;
  xml.erase(xml.find("<wex_ipc_shim_hdr>"),
            xml.find("<wex_xcvr_presence_info>") - xml.find("<wex_ipc_shim_hdr>"));
  void *doc = wex_xml_doc_parse(xml.data(), xml.size());
  uint32_t err = 0;
  char why[128];
  void *back = m.from_xml(h, 0, doc, &err, why, sizeof why);
  ASSERT_TRUE(back);
  EXPECT_EQ(err, 0u);
  std::string want = kPresenceText;
  for (const char *f : {"version@u_int16:1", "src_addr@u_int32:3", "dst_addr@u_int32:4",
                        "transaction_id@u_int32:42"}) {
    std::string zero = f;
    zero.replace(zero.find(':') + 1, std::string::npos, "0");
    want.replace(want.find(f), std::strlen(f), zero);
  }
  EXPECT_EQ(print_text(h, m, back), want);
  m.destroy(h, 0, back);
  wex_xml_doc_free(doc);
  // A value that does not parse ends the parse: NULL, its error, nothing leaked.
  xml = kPresenceXml;
  xml.replace(xml.find("<flags>1"), 8, "<flags>x");
  doc = wex_xml_doc_parse(xml.data(), xml.size());
  EXPECT_EQ(m.from_xml(h, 0, doc, &err, why, sizeof why), nullptr);
  EXPECT_EQ(err, 22u);
  wex_xml_doc_free(doc);
  m.destroy(h, 0, msg);
  EXPECT_TRUE(h.live.empty());
}

// ---- recording and dispatch ----

void noop_handler(wex_handle *, uint32_t, uint64_t, void *, uint32_t *) {}

struct Recorder {
  Recorder() : file(std::tmpfile()) { wexlib_msg_recorder_start(file); }
  ~Recorder() {
    wexlib_msg_recorder_stop();
    std::fclose(file);
  }
  std::string text() const {
    std::fflush(file);
    std::string out;
    std::rewind(file);
    for (int c; (c = std::fgetc(file)) != EOF;) out += static_cast<char>(c);
    std::fseek(file, 0, SEEK_END);
    return out;
  }
  std::FILE *file;
};

const Recorder *g_recorder = nullptr;
std::string g_seen_by_handler;
void recording_handler(wex_handle *, uint32_t, uint64_t, void *, uint32_t *err) {
  g_seen_by_handler = g_recorder->text();
  *err = 99;  // a failing handler does not undo the recording
}

// A record is at most 4096 bytes: a time-stamped element around the message's XML, written
// before the handler runs. A message whose record does not fit is not recorded, traced,
// and received all the same.
TEST(MessageForms, EveryReceivedMessageIsRecordedBeforeItsHandlerRunsWhenItFits) {
  Recorder rec;
  g_recorder = &rec;
  std::string all;
  int recorded = 0, too_large = 0;
  for (const Msg &m : messages()) {
    Handle h;
    Traces t;
    Encoded e = encode(h, m, 13, 4);
    void *out = nullptr;
    uint32_t err = 0;
    m.unmarshal(h, 0, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()),
                recording_handler, &err);
    EXPECT_EQ(err, 99u);
    const std::string text = g_seen_by_handler.substr(all.size());
    const std::string open = "<bix_ipc_shim timestamp=\"YYYY-MM-DDThh:mm:ss.uuuuuuZ\">\n";
    const std::string body = xml_text(h, m, out) + "</bix_ipc_shim>\n";
    if (open.size() + body.size() < 4096) {
      ASSERT_EQ(text.substr(0, 25), open.substr(0, 25)) << m.name;
      EXPECT_EQ(text.substr(text.find(">\n") + 2), body) << m.name;
      ++recorded;
    } else {
      EXPECT_EQ(text, "") << m.name;
      const std::string name = std::string(m.name);
      bool traced = false;
      for (auto &[level, line] : t.lines)
        traced |= level == LUMO_LEVEL_ERROR && line.rfind("Error 90 " + name + " message not recorded, xml len ", 0) == 0;
      EXPECT_TRUE(traced) << m.name;
      EXPECT_TRUE(t.has(LUMO_LEVEL_ERROR, "Error 90 in recording " + name + " message")) << m.name;
      ++too_large;
    }
    all = g_seen_by_handler;
    m.destroy(h, 0, out);
    m.destroy(h, 0, e.msg);
  }
  EXPECT_EQ(rec.text(), all);
  EXPECT_GT(recorded, 0);
  EXPECT_GT(too_large, 0);
}

TEST(MessageForms, RecordingWithoutAStreamOnlyTraces) {
  const Msg &m = message("ipc_shim_xcvr_msg");
  Handle h;
  Traces t;
  Encoded e = encode(h, m, 1);
  wexlib_msg_recorder_start(nullptr);
  void *out = nullptr;
  uint32_t err = 0;
  m.unmarshal(h, 0, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()), noop_handler,
              &err);
  wexlib_msg_recorder_stop();
  EXPECT_EQ(err, 0u);
  EXPECT_TRUE(
      t.has(LUMO_LEVEL_ERROR, "WEX record - NULL file handle for message ipc_shim_xcvr_msg"));
  m.destroy(h, 0, out);
  m.destroy(h, 0, e.msg);
}

int g_passed_calls = 0;
void passed_handler(wex_handle *, uint32_t, uint64_t, void *, uint32_t *) {
  ++g_passed_calls;
}

TEST(MessageForms, HandlerPrecedence) {
  Handle h;
  Traces t;
  const Msg &p = message("ipc_shim_xcvr_presence_info");
  Encoded e = encode(h, p, 14);
  const int32_t n = static_cast<int32_t>(e.wire.size());
  void *out = nullptr;
  uint32_t err = 0;
  g_app_calls = g_passed_calls = 0;
  // A handler passed in wins over the application's.
  EXPECT_EQ(p.unmarshal(h, 0, 5, &out, e.wire.data(), n, passed_handler, &err), e.wire.size());
  EXPECT_EQ(g_passed_calls, 1);
  EXPECT_EQ(g_app_calls, 0);
  p.destroy(h, 0, out);
  // Without one, the application's handler gets the message and the context.
  EXPECT_EQ(p.unmarshal(h, 0, 77, &out, e.wire.data(), n, nullptr, &err), e.wire.size());
  EXPECT_EQ(g_app_calls, 1);
  EXPECT_EQ(g_app_context, 77u);
  EXPECT_EQ(err, 0u);
  p.destroy(h, 0, out);
  p.destroy(h, 0, e.msg);
  // Without either: 38 and the info trace; the message stays the caller's.
  for (const Msg &m : messages()) {
    if (m.name == p.name) continue;
    e = encode(h, m, 15);
    err = 0;
    EXPECT_EQ(m.unmarshal(h, 0, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()),
                          nullptr, &err),
              e.wire.size());
    EXPECT_EQ(err, 38u);
    EXPECT_EQ(h->error, 38u);
    ASSERT_TRUE(out);
    EXPECT_TRUE(
        t.has(LUMO_LEVEL_INFO, "default bix_ipc_shim_" + m.name + "_message handler called"));
    m.destroy(h, 0, out);
    err = 0;  // and with nobody to own it, it is released at once
    m.unmarshal(h, 0, 0, nullptr, e.wire.data(), static_cast<int32_t>(e.wire.size()), nullptr,
                &err);
    EXPECT_EQ(err, 38u);
    // An error already pending: nothing happens.
    out = &out;
    EXPECT_EQ(m.unmarshal(h, 0, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()),
                          passed_handler, &err),
              0u);
    EXPECT_EQ(
        m.unmarshal_only(h, 0, &out, e.wire.data(), static_cast<int32_t>(e.wire.size()), &err), 0u);
    EXPECT_EQ(out, &out);
    EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG, "Error present in call to " + m.name +
                                            " message unmarshal: " + std::strerror(38)));
    EXPECT_TRUE(t.has(LUMO_LEVEL_DEBUG,
                      "Error present in call to " + m.name + " unmarshal: " + std::strerror(38)));
    m.destroy(h, 0, e.msg);
    h->error = 0;
  }
  EXPECT_EQ(g_passed_calls, 1);
  EXPECT_TRUE(h.live.empty());
}

}  // namespace
}  // namespace bixtest
