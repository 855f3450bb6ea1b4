// Text and XML forms of every record: exact texts, the XML checked element by element with
// libxml2 in both tracking modes, round trips, partial and hostile documents, cut buffers.
#include <sys/mman.h>
#include <unistd.h>

#include <clocale>

#include "text_support.h"

using namespace bixtest;

namespace {

const char *const kPresence = "wex_xcvr_presence_info";

// ---- exact texts ----

TEST(Print, PresenceInfoIsFourLines) {
  Handle h;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  p->rc.value = WEX_XCVR_SUCCESS_RC;
  p->is_present = 1;
  char buf[256];
  const std::string want =
      "wex_xcvr_presence_info@wex_xcvr_presence_info: {\n"
      "  rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC\n"
      "  is_present@u_int8:1\n"
      "}\n";
  EXPECT_EQ(wex_xcvr_presence_info_print_cr(h, p, buf, sizeof buf),
            static_cast<int32_t>(want.size()));
  EXPECT_EQ(buf, want);
  uint32_t err = 0;
  EXPECT_EQ(print(h, kPresence, p, &err, 4, "body"),
            "    body@wex_xcvr_presence_info: {\n      rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC\n"
            "      is_present@u_int8:1\n    }\n");
  p->variant = -1;  // a variant the domain does not know: opener and closer only
  EXPECT_EQ(print(h, kPresence, p, &err), "wex_xcvr_presence_info@wex_xcvr_presence_info: {\n}\n");
  EXPECT_EQ(to_xml(h, kPresence, p, &err, 3),
            "<wex_xcvr_presence_info state=\"3\">\n</wex_xcvr_presence_info>\n");
  EXPECT_EQ(err, 0u);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

TEST(Print, NestedRecordArrayAndVariableArray) {
  Handle h;
  uint32_t err = 0;
  auto *r = wex_bix_mgmt_rpc_req_create(h, 0);
  r->slot = 3, r->request_size = 4000000000u, r->get_info.port = 7;
  r->get_info.info_type.value = WEX_BIX_MGMT_GET_PORT_INFO_E;
  EXPECT_EQ(print(h, "wex_bix_mgmt_rpc_req", r, &err),
            "wex_bix_mgmt_rpc_req@wex_bix_mgmt_rpc_req: {\n  slot@u_int8:3\n  subslot@u_int8:0\n"
            "  req_type@wex_bix_mgmt_ipc_req_type:WEX_BIX_MGMT_IPC_GET_INFO\n"
            "  request_size@u_int32:4000000000\n  expected_reply_size@u_int32:0\n"
            "  get_info@wex_bix_get_info: {\n    info_type@wex_bix_get_info_type:"
            "WEX_BIX_MGMT_GET_PORT_INFO_E\n    port@u_int32:7\n  }\n}\n");
  wex_bix_mgmt_rpc_req_destroy(h, 0, r);

  auto *d = ipc_shim_data_create(h, 0);
  d->slot = 1, d->subslot = 2;
  const std::string head =
      "ipc_shim_data@ipc_shim_data: {\n  slot@u_int32:1\n  subslot@u_int32:2\n";
  EXPECT_EQ(print(h, "ipc_shim_data", d, &err), head + "  size@u_int32:0\n}\n");
  uint8_t three[] = {0, 7, 255};
  ipc_shim_data_data_set_mem(h, 0, d, three, 3, &err);
  EXPECT_EQ(
      print(h, "ipc_shim_data", d, &err),
      head + "  size@u_int32:3\n  data[0]@u_int8:0\n  data[1]@u_int8:7\n  data[2]@u_int8:255\n}\n");
  EXPECT_EQ(
      to_xml(h, "ipc_shim_data", d, &err),
      "<ipc_shim_data>\n<slot>1</slot>\n<subslot>2</subslot>\n<size>3</size>\n<data>0</data>\n"
      "<data>7</data>\n<data>255</data>\n</ipc_shim_data>\n");
  EXPECT_EQ(err, 0u);
  ipc_shim_data_destroy(h, 0, d);
}

// The union shows its selector, then the alternative it names if that one is present.
TEST(Print, UnionWithAndWithoutItsAlternative) {
  Handle h;
  uint32_t err = 0;
  auto *s = wex_xcvr_status_info_create(h, 0);
  s->rc.value = WEX_XCVR_SUCCESS_RC;
  s->status_bm = 9;
  auto *n = wex_nosfp_dummy_create(h, 0);
  n->dummy_data = 5;
  wex_xcvr_status_info_nosfp_data_set(h, 0, s, n, &err);
  const std::string info = print(h, "wex_xcvr_info", &s->info, &err, 4, "info");
  const std::string head =
      "  wex_xcvr_status_info@wex_xcvr_status_info: {\n    rc@wex_xcvr_rc:WEX_XCVR_SUCCESS_RC\n" +
      info + "    status_bm@u_int32:9\n";
  EXPECT_EQ(
      print(h, "wex_xcvr_status_info", s, &err, 2, "wex_xcvr_status_info"),
      head +
          "    xcvr_type@wex_xcvr_type:WEX_XCVR_TYPE_NOSFP\n"
          "    xcvr_type.nosfp_data@wex_nosfp_dummy: {\n      dummy_data@u_int8:5\n    }\n  }\n");
  for (uint32_t sel : {0u, 6u, 8u}) {  // nothing selected, selected but absent, out of range
    s->xcvr_type.value = sel;
    std::string line = sel == 6 ? "WEX_XCVR_TYPE_QSFP\n" : "Enum value out of range";
    EXPECT_EQ(print(h, "wex_xcvr_status_info", s, &err, 2, "wex_xcvr_status_info"),
              head + "    xcvr_type@wex_xcvr_type:" + line + "  }\n");
  }
  EXPECT_EQ(err, 0u);
  wex_xcvr_status_info_destroy(h, 0, s);
  EXPECT_TRUE(h.live.empty());
}

// Every record, every field set, in both tracking modes: the text as the rules say it, and
// the XML parsed by libxml2 holding each field's value and state, element by element.
TEST(Forms, EveryRecordEveryFieldKind) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode);
    for (const std::string &type : records()) {
      for (uint32_t alt = 1; alt <= (has_union(type) ? 7u : 1u); ++alt) {
        void *inst = create(h, type);
        fill(h, type, inst, static_cast<uint8_t>(alt * 3), alt);
        uint32_t err = 0;
        EXPECT_EQ(print(h, type, inst, &err, 2, "x"),
                  expected_text(h, type, static_cast<uint8_t *>(inst), 2, "x"))
            << type;
        check_xml_text(h, to_xml(h, type, inst, &err), type, inst, mode != 0);
        EXPECT_EQ(err, 0u) << type;
        destroy(h, type, inst);
      }
    }
    EXPECT_TRUE(h.live.empty());
  }
}

TEST(Forms, CrFormsPendingErrorsAndForeignInstances) {
  Handle h;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  auto *other = wex_bix_envm_rpc_reply_create(h, 0);
  char buf[32] = "keep";
  h->error = 43;
  EXPECT_EQ(wex_xcvr_presence_info_print_cr(h, p, buf, sizeof buf), 0);
  EXPECT_EQ(wex_xcvr_presence_info_toxml_cr(h, p, buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "keep");
  h->error = 0;
  // Cut short: the text written so far stands, the handle's slot says 90.
  EXPECT_EQ(wex_xcvr_presence_info_print_cr(h, p, buf, sizeof buf), -1);
  EXPECT_EQ(h->error, 90u);
  EXPECT_EQ(buf, std::string("wex_xcvr_presence_info@wex_xcvr_presence_info").substr(0, 31));
  uint32_t err = 0;
  auto cast = reinterpret_cast<wex_xcvr_presence_info *>(other);
  EXPECT_EQ(wex_xcvr_presence_info_print(h, 0, buf, 0, "x", cast, sizeof buf, &err), 0);
  EXPECT_EQ(err, 22u);
  err = 0;
  EXPECT_EQ(wex_xcvr_presence_info_to_xml(h, 0, "x", buf, cast, sizeof buf, 0, &err), 0);
  EXPECT_EQ(err, 22u);
  wex_xcvr_presence_info_destroy(h, 0, p);
  wex_bix_envm_rpc_reply_destroy(h, 0, other);
}

// An instance without state bytes while the handle tracks: the first field's state read
// refuses it, no child is written, the element is still closed.
TEST(Forms, UntrackedInstanceUnderTrackingStopsAtTheFirstField) {
  for (const std::string &type : records()) {
    Handle h;
    void *inst = create(h, type);
    h.set_mode(WEX_STTR_ON);
    Traces tr;
    uint32_t err = 0;
    EXPECT_EQ(to_xml(h, type, inst, &err), "<" + type + ">\n</" + type + ">\n");
    EXPECT_EQ(err, 22u) << type;
    EXPECT_TRUE(tr.has(LUMO_LEVEL_ERROR, "The object is non state tracked")) << type;
    h.set_mode(0);
    destroy(h, type, inst);
  }
}

TEST(FormsDeathTest, CorruptedModeWordIsFatal) {
  Handle h;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  h.set_mode(0x1234);
  char buf[256];
  EXPECT_DEATH(wex_xcvr_presence_info_toxml_cr(h, p, buf, sizeof buf), "Corrupted WEX Handle");
  h.set_mode(0);
  wex_xcvr_presence_info_destroy(h, 0, p);
}

// Every length from 0 to one past the whole text, in a buffer that ends at an unmapped
// page: never a byte past the end, the text cut as a prefix, 90 whenever it did not fit.
TEST(Forms, EveryCutLengthStaysInsideTheBuffer) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), room = 64 * page;
  auto *map = static_cast<char *>(
      mmap(nullptr, room + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(map, MAP_FAILED);
  ASSERT_EQ(mprotect(map + room, page, PROT_NONE), 0);
  char *end = map + room;
  Handle h(WEX_STTR_ON);
  for (const std::string &type : records()) {
    void *inst = create(h, type);
    fill(h, type, inst, 7, 6);
    for (const char *form : {"print", "to_xml"}) {
      uint32_t err = 0;
      const bool text = std::string(form) == "print";
      const std::string whole = text ? print(h, type, inst, &err) : to_xml(h, type, inst, &err);
      ASSERT_LT(whole.size(), room);
      // The long records take every length near both ends and a spread in between.
      const size_t step = whole.size() > 4000 ? 97 : 1;
      for (size_t len = 0; len <= whole.size() + 1;
           len += (len < 512 || len + 512 > whole.size()) ? 1 : step) {
        char *buf = end - len;
        err = 0;
        int32_t n = text ? op<PrintFn>(type, "print")(h, 0, buf, 0, type.c_str(), inst,
                                                      static_cast<uint32_t>(len), &err)
                         : op<ToXmlFn>(type, "to_xml")(h, 0, type.c_str(), buf, inst,
                                                       static_cast<uint32_t>(len), 0, &err);
        const size_t want = len ? std::min(len - 1, whole.size()) : 0;
        ASSERT_EQ(static_cast<size_t>(n), want) << type << " " << form << " " << len;
        ASSERT_EQ(err, len > whole.size() ? 0u : 90u) << type << " " << form << " " << len;
        if (len) {
          ASSERT_EQ(std::string(buf, n + 1), whole.substr(0, want) + '\0') << type << " " << len;
        }
      }
    }
    destroy(h, type, inst);
  }
  munmap(map, room + page);
}

// ---- parsing ----

// from_xml(to_xml(x)) holds what x holds, in both tracking modes (values compared through
// their encodings, made by a handle that leaves state bytes out).
TEST(FromXml, EveryRecordRoundTrips) {
  for (uint32_t mode : {0u, WEX_STTR_ON}) {
    Handle h(mode), plain;
    for (const std::string &type : records()) {
      for (uint32_t alt = 1; alt <= (has_union(type) ? 7u : 1u); ++alt) {
        void *src = create(h, type), *dst = create(h, type);
        fill(h, type, src, static_cast<uint8_t>(alt + 40), alt, 3 + alt);
        uint32_t err = 0;
        from_xml(h, type, to_xml(h, type, src, &err), dst, &err);
        EXPECT_EQ(err, 0u) << type;
        EXPECT_EQ(encode(plain, type, dst), encode(plain, type, src)) << type << " alt " << alt;
        destroy(h, type, src);
        destroy(h, type, dst);
      }
    }
    EXPECT_TRUE(h.live.empty());
  }
}

// An element without children changes nothing, but for a union: the alternative its
// selector names is made afresh (and the one it replaces released). A missing element is
// 2 and touches nothing.
TEST(FromXml, AbsentElementsKeepTheirValues) {
  Handle h, plain;
  for (const std::string &type : records()) {
    void *inst = create(h, type), *want = create(h, type);
    fill(h, type, inst, 21, 2);
    fill(h, type, want, 21, 2);
    for (const bixfacts::Field *f : fields_of(type)) {  // what a fresh alternative holds
      if (std::string(f->kind) != "UnionAlt" || f->count != 2) continue;
      auto *alt = load_as<uint8_t *>(static_cast<uint8_t *>(want) + f->offset);
      std::memset(alt + 11, 0,
                  facts_type(f->member)->fixed_size - 11);  // primitives and arrays only
    }
    uint32_t err = 0;
    from_xml(h, type, "<" + type + "/>", inst, &err);
    EXPECT_EQ(err, 0u) << type;
    EXPECT_EQ(encode(plain, type, inst), encode(plain, type, want)) << type;
    from_xml(h, type, "<other/>", inst, &err);
    EXPECT_EQ(err, 2u) << type;
    destroy(h, type, inst);
    destroy(h, type, want);
  }
  EXPECT_TRUE(h.live.empty());
}

// Arrays stop at the first absent element; the variable array grows, never shrinks, and
// marks what it stored; a union's selector brings its alternative even without an element.
TEST(FromXml, ArraysStopAtTheFirstGapAndUnionsCreateTheirAlternative) {
  Handle h(WEX_STTR_ON);
  uint32_t err = 0;
  auto *x = ipc_shim_xcvr_data_create(h, 0);
  std::memset(x->manufacturer, 9, sizeof x->manufacturer);
  from_xml(h, "ipc_shim_xcvr_data",
           "<r><manufacturer>1</manufacturer><manufacturer>2</manufacturer><serialNumber>3</"
           "serialNumber></r>",
           x, &err, "/r");
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(std::vector<uint8_t>(x->manufacturer, x->manufacturer + 4),
            (std::vector<uint8_t>{1, 2, 9, 9}));
  EXPECT_EQ(x->serialNumber[0], 3);
  ipc_shim_xcvr_data_destroy(h, 0, x);

  auto *d = ipc_shim_data_create(h, 0);
  uint8_t five[] = {10, 11, 12, 13, 14};
  ipc_shim_data_data_set_mem(h, 0, d, five, 5, &err);
  from_xml(h, "ipc_shim_data", "<d><size>900</size><data>1</data><data>2</data></d>", d, &err,
           "/d");
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(std::vector<uint8_t>(d->data, d->data + d->size),
            (std::vector<uint8_t>{1, 2, 12, 13, 14}));
  uint8_t *states = nullptr;
  ipc_shim_data_data_state_flag_get_arr(h, 0, d, &states, &err);
  EXPECT_EQ(std::vector<uint8_t>(states, states + 5), (std::vector<uint8_t>{2, 2, 0, 0, 0}));
  ipc_shim_data_destroy(h, 0, d);

  auto *s = wex_xcvr_status_info_create(h, 0);
  auto *old = wex_msa_env_mon_create(h, 0);
  wex_xcvr_status_info_msa_sensors_set(h, 0, s, old, &err);
  old->temp = 5;
  from_xml(h, "wex_xcvr_status_info", "<s><xcvr_type><WEX_XCVR_TYPE_MSA/></xcvr_type></s>", s, &err,
           "/s");
  EXPECT_EQ(err, 0u);
  ASSERT_NE(s->msa_sensors, nullptr);
  EXPECT_EQ(s->msa_sensors->temp, 0);  // made afresh, the old one released
  wex_xcvr_status_info_destroy(h, 0, s);
  EXPECT_TRUE(h.live.empty());
}

// A value outside the field's width is the runtime's 34, and ends the parse there.
TEST(FromXml, RefusalsStopTheParse) {
  Handle h;
  uint32_t err = 0;
  auto *p = wex_xcvr_presence_info_create(h, 0);
  from_xml(h, kPresence, "<p><is_present>256</is_present></p>", p, &err, "/p");
  EXPECT_EQ(err, 34u);
  EXPECT_EQ(p->is_present, 0);
  auto *t = wex_bix_env_sensor_table_create(h, 0);
  err = 0;
  from_xml(h, "wex_bix_env_sensor_table",
           "<t><temp><low_limit>-129</low_limit></temp><num_volt_sensors>4</num_volt_sensors></t>",
           t, &err, "/t");
  EXPECT_EQ(err, 34u);
  EXPECT_EQ(t->num_volt_sensors, 0);
  err = 7;  // pending: nothing is read
  from_xml(h, kPresence, "<p><is_present>1</is_present></p>", p, &err, "/p");
  EXPECT_EQ(p->is_present, 0);
  // Child paths are formed in 256 bytes: one that does not fit is refused, not cut.
  const std::string root(248, 'r');
  auto *id = wex_xcvr_identifier_create(h, 0);
  err = 0;
  from_xml(h, "wex_xcvr_identifier",
           "<" + root + "><slot>1</slot><subslot>2</subslot></" + root + ">", id, &err, "/" + root);
  EXPECT_EQ(std::tuple(err, id->slot, id->subslot), std::tuple(22u, uint16_t{1}, uint16_t{0}));
  wex_xcvr_identifier_destroy(h, 0, id);
  h->error = 1;  // a _cr create under a pending error hands out the shared null instance
  auto *shared = wex_xcvr_presence_info_create_cr(h);
  h->error = 0;
  for (wex_xcvr_presence_info *target : {shared, static_cast<wex_xcvr_presence_info *>(nullptr)}) {
    err = 0;
    from_xml(h, kPresence, "<p><is_present>1</is_present></p>", target, &err, "/p");
    EXPECT_EQ(err, 22u);
  }
  EXPECT_EQ(shared->is_present, 0);
  wex_xcvr_presence_info_destroy(h, 0, p);
  wex_bix_env_sensor_table_destroy(h, 0, t);
}

// A hostile element count costs what the document itself holds, and an allocation that
// fails is 12 with nothing leaked.
TEST(FromXml, AllocationIsBoundedByTheDocumentAndMayFail) {
  std::string doc = "<d><size>4000000000</size>";  // claims more than it holds
  for (int k = 0; k < 3000; ++k) doc += "<data>7</data>";
  doc += "</d>";
  for (uint32_t fail = 0; fail <= 4; ++fail) {
    Handle h(WEX_STTR_ON);
    auto *d = ipc_shim_data_create(h, 0);
    h.allocs = 0;
    h.fail_at = fail;
    uint32_t biggest = 0, err = 0;
    from_xml(h, "ipc_shim_data", doc, d, &err, "/d");
    for (auto &[p, size] : h.live) biggest = std::max(biggest, size);
    EXPECT_LE(biggest, 3000u);
    EXPECT_EQ(err, fail && fail <= h.allocs ? 12u : 0u) << fail;
    EXPECT_EQ(d->size, err ? 0u : 3000u);
    h.fail_at = 0;
    ipc_shim_data_destroy(h, 0, d);
    EXPECT_TRUE(h.live.empty());
  }
}

// The forms do not follow the process's numeric locale.
TEST(Forms, SameUnderAGermanNumericLocale) {
  Handle h(WEX_STTR_ON), plain;
  auto *s = wex_bix_envm_sensor_data_create(h, 0);
  fill(h, "wex_bix_envm_sensor_data", s, 99);
  s->table.num_temp_sensors = -1234567;
  uint32_t err = 0;
  const std::string text = print(h, "wex_bix_envm_sensor_data", s, &err);
  const std::string xml = to_xml(h, "wex_bix_envm_sensor_data", s, &err);
  if (!std::setlocale(LC_NUMERIC, "de_DE.UTF-8"))
    GTEST_SKIP() << "locale de_DE.UTF-8 is not installed (./run installs it when run as root)";
  EXPECT_EQ(print(h, "wex_bix_envm_sensor_data", s, &err), text);
  EXPECT_EQ(to_xml(h, "wex_bix_envm_sensor_data", s, &err), xml);
  auto *back = wex_bix_envm_sensor_data_create(h, 0);
  from_xml(h, "wex_bix_envm_sensor_data", xml, back, &err);
  EXPECT_EQ(encode(plain, "wex_bix_envm_sensor_data", back),
            encode(plain, "wex_bix_envm_sensor_data", s));
  std::setlocale(LC_NUMERIC, "C");
  EXPECT_EQ(err, 0u);
  wex_bix_envm_sensor_data_destroy(h, 0, s);
  wex_bix_envm_sensor_data_destroy(h, 0, back);
}

}  // namespace
