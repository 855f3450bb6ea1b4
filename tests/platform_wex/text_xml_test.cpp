// Text and XML writers, document queries and the primitive XML parsers.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <string>

#include "wex_test_util.h"

namespace {

class WexText : public ::testing::Test {
 protected:
  wex_test::Handle h = wex_test::make_handle();
  uint32_t err = 0;
  char buf[256] = {};
};

TEST_F(WexText, PrimitivePrintLines) {
  uint8_t present = 1;
  int16_t temp = -5;
  uint32_t big = 4000000000u;
  int32_t n = u_int8_print(h.get(), 0, buf, 2, "is_present", &present, sizeof buf, &err);
  n += int16_print(h.get(), 0, buf + n, 0, "temp", &temp, sizeof buf - n, &err);
  n += u_int32_print(h.get(), 0, buf + n, 4, "status_bm", &big, sizeof buf - n, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_STREQ(buf, "  is_present@u_int8:1\ntemp@int16:-5\n    status_bm@u_int32:4000000000\n");
  EXPECT_EQ(n, static_cast<int32_t>(std::strlen(buf)));
}

TEST_F(WexText, PrimitiveXmlElements) {
  int8_t v = -128;
  uint16_t w = 65535;
  int32_t n = int8_to_xml(h.get(), 0, "offset", buf, &v, sizeof buf, 0, &err);
  n += u_int16_to_xml(h.get(), 0, "limit", buf + n, &w, sizeof buf - n, 2, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_STREQ(buf, "<offset>-128</offset>\n<limit state=\"2\">65535</limit>\n");
}

TEST_F(WexText, TagsAndEnumText) {
  int32_t n = start_tag(h.get(), 0, buf, "rec", sizeof buf, 0, &err);
  n += start_tag(h.get(), 0, buf + n, "rc", sizeof buf - n, 3, &err);
  const char literal[] = "<WEX_XCVR_SUCCESS_RC/>trailing";
  n += xml_enum_print(h.get(), 0, buf + n, literal, sizeof buf - n, 22, &err);
  n += end_tag(h.get(), 0, buf + n, "rc", sizeof buf - n, &err);
  n += end_tag(h.get(), 0, buf + n, "rec", sizeof buf - n, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_STREQ(buf, "<rec>\n<rc state=\"3\">\n<WEX_XCVR_SUCCESS_RC/></rc>\n</rec>\n");
  EXPECT_EQ(n, static_cast<int32_t>(std::strlen(buf)));
}

TEST_F(WexText, TimestampTagIsUtcWithMicroseconds) {
  int32_t n = start_tag_timestamp(h.get(), 0, buf, "bix_ipc_shim", sizeof buf, &err);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(n, static_cast<int32_t>(std::strlen(buf)));
  EXPECT_TRUE(std::regex_match(
      buf, std::regex("<bix_ipc_shim timestamp=\"\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\."
                      "\\d{6}Z\">\n")))
      << buf;
}

TEST_F(WexText, WritersCutAtTheRoomAndReport90) {
  int32_t n = wex_snprintf(h.get(), 0, buf, 6, &err, "%s=%d", "value", 42);
  EXPECT_EQ(n, 5);
  EXPECT_STREQ(buf, "value");
  EXPECT_EQ(err, WEX_ERR_NOROOM);

  // Nothing more is written once the slot holds an error ...
  std::strcpy(buf, "keep");
  EXPECT_EQ(wex_snprintf(h.get(), 0, buf, 100, &err, "x"), 0);
  EXPECT_EQ(wex_print_space(h.get(), 0, buf, 3, 100, &err), 0);
  EXPECT_EQ(start_tag(h.get(), 0, buf, "a", 100, 0, &err), 0);
  EXPECT_STREQ(buf, "keep");
  // ... except the closing tag, which keeps the output well formed and
  // leaves the pending code in place.
  EXPECT_EQ(end_tag(h.get(), 0, buf, "a", 100, &err), 5);
  EXPECT_STREQ(buf, "</a>\n");
  EXPECT_EQ(err, WEX_ERR_NOROOM);

  err = 0;
  EXPECT_EQ(wex_print_space(h.get(), 0, buf, 4, 5, &err), 4);
  EXPECT_STREQ(buf, "    ");
  EXPECT_EQ(err, 0u) << "4 blanks and the NUL fit in 5";
  EXPECT_EQ(wex_print_space(h.get(), 0, buf, 5, 5, &err), 4);
  EXPECT_EQ(err, WEX_ERR_NOROOM);

  err = 0;
  uint32_t v = 123456;
  EXPECT_EQ(u_int32_print(h.get(), 0, buf, 0, "x", &v, 0, &err), 0);
  EXPECT_EQ(err, WEX_ERR_NOROOM);
  err = 0;
  EXPECT_EQ(wex_snprintf(h.get(), 0, buf, 1, &err, "%s", ""), 0);
  EXPECT_EQ(err, 0u) << "an empty text fits any room";
}

TEST_F(WexText, HugeIndentationIsBoundedByTheRoom) {
  uint8_t v = 9;
  EXPECT_EQ(u_int8_print(h.get(), 0, buf, 0xFFFFFFFFu, "x", &v, 16, &err), 15);
  EXPECT_EQ(err, WEX_ERR_NOROOM);
  EXPECT_EQ(std::string(buf), std::string(15, ' '));
}

// ---- Documents and queries ---------------------------------------------------

struct DocDeleter {
  void operator()(void *d) const { wex_xml_doc_free(d); }
};
using Doc = std::unique_ptr<void, DocDeleter>;

Doc parse(const std::string &text) {
  return Doc(wex_xml_doc_parse(text.data(), text.size()));
}

const char kRecord[] =
    "<msg>\n"
    "  <app_sess_hdr><session_id>7</session_id></app_sess_hdr>\n"
    "  <rec>\n"
    "    <slot> 3 </slot>\n"
    "    <data>10</data><data>11</data><data>12</data>\n"
    "    <rc><WEX_XCVR_SUCCESS_RC/></rc>\n"
    "    <temp><value>-40</value></temp>\n"
    "    <temp><value>85</value></temp>\n"
    "  </rec>\n"
    "</msg>\n";

TEST(WexXml, MalformedDocumentsAreRefused) {
  EXPECT_EQ(parse("<a><b></a>"), nullptr);
  EXPECT_EQ(parse(""), nullptr);
  EXPECT_EQ(wex_xml_doc_parse(nullptr, 3), nullptr);
  EXPECT_NE(parse("<a/>"), nullptr);
}

TEST(WexXml, ElementValuesByPath) {
  Doc doc = parse(kRecord);
  ASSERT_NE(doc, nullptr);
  char value[32];
  EXPECT_EQ(xml_get_element_value(doc.get(), "msg/rec/slot", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, " 3 ");
  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/data[2]", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, "11");
  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/temp[2]/value", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, "85");
  EXPECT_EQ(xml_get_element_value(doc.get(), "//session_id", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, "7");
  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/rc/WEX_XCVR_SUCCESS_RC", value, 4, 0), 0);
  EXPECT_STREQ(value, "");
  // The text is cut to the buffer, NUL included.
  EXPECT_EQ(xml_get_element_value(doc.get(), "//app_sess_hdr", value, 1, 0), 0);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(xml_get_element_value(doc.get(), "//app_sess_hdr", nullptr, 0, 0), 0);

  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/data[4]", value, sizeof value, 0), 2);
  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/missing", value, sizeof value, 0), 2);
  EXPECT_EQ(xml_get_element_value(doc.get(), "//nowhere/slot", value, sizeof value, 0), 2);
  EXPECT_EQ(xml_get_element_value(doc.get(), "//rec/[", value, sizeof value, 0), 22);
  EXPECT_EQ(xml_get_element_value(nullptr, "//rec", value, sizeof value, 0), 22);
}

TEST(WexXml, NodeCounts) {
  Doc doc = parse(kRecord);
  uint32_t count = 99;
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//rec/data", &count), 0);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//rec/data[3]", &count), 0);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//value", &count), 0);
  EXPECT_EQ(count, 2u);
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//rec/none", &count), 0);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//rec/data[0]", &count), 0)
      << "position 0 selects nothing";
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "", &count), 22);
}

TEST(WexXml, PathsThroughSeveralParentsFollowXPath) {
  // Two "a" elements: "//a/b[1]" is the first b of each of them.
  Doc doc = parse("<r><a><b>1</b><b>2</b></a><a><b>3</b></a></r>");
  uint32_t count = 0;
  EXPECT_EQ(xml_get_element_nodecount(doc.get(), "//a/b[1]", &count), 0);
  EXPECT_EQ(count, 2u);
  char value[8];
  EXPECT_EQ(xml_get_element_value(doc.get(), "//a/b[2]", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, "2");
  EXPECT_EQ(xml_get_element_value(doc.get(), "/r/a[2]/b", value, sizeof value, 0), 0);
  EXPECT_STREQ(value, "3");
}

TEST(WexXml, LongArraysResolveEveryElement) {
  std::string text = "<r><arr>";
  for (int k = 0; k < 2000; ++k) text += "<data>" + std::to_string(k % 256) + "</data>";
  text += "</arr></r>";
  Doc doc = parse(text);
  char path[64], value[8];
  for (int k = 1; k <= 2000; ++k) {
    std::snprintf(path, sizeof path, "%s/data[%d]", "//arr", k);
    ASSERT_EQ(xml_get_element_value(doc.get(), path, value, sizeof value, 0), 0) << k;
    ASSERT_EQ(std::atoi(value), (k - 1) % 256);
  }
  std::snprintf(path, sizeof path, "%s/data[%d]", "//arr", 2001);
  EXPECT_EQ(xml_get_element_value(doc.get(), path, value, sizeof value, 0), 2);
}

class WexFromXml : public WexText {
 protected:
  Doc doc = parse(
      "<r><u8>255</u8><u8big>256</u8big><i8>-128</i8><i8low>-129</i8low>"
      "<i16>\n  -32768 </i16><u16>65535</u16><u32>4294967295</u32><u32neg>-1</u32neg>"
      "<i32>-2147483648</i32><huge>99999999999999999999999</huge>"
      "<junk>12a</junk><plus>+5</plus><hex>0x10</hex><empty></empty><blank> </blank></r>");
  char msg[128] = {};
};

TEST_F(WexFromXml, ParsesDecimalValuesAtEveryWidthLimit) {
  uint8_t u8 = 0;
  int8_t i8 = 0;
  int16_t i16 = 0;
  uint16_t u16 = 0;
  uint32_t u32 = 0;
  int32_t i32 = 0;
  u_int8_from_xml(h.get(), 0, "//u8", doc.get(), &u8, &err, msg, sizeof msg);
  int8_from_xml(h.get(), 0, "//i8", doc.get(), &i8, &err, msg, sizeof msg);
  int16_from_xml(h.get(), 0, "//i16", doc.get(), &i16, &err, msg, sizeof msg);
  u_int16_from_xml(h.get(), 0, "//u16", doc.get(), &u16, &err, msg, sizeof msg);
  u_int32_from_xml(h.get(), 0, "//u32", doc.get(), &u32, &err, msg, sizeof msg);
  int32_from_xml(h.get(), 0, "//i32", doc.get(), &i32, &err, msg, sizeof msg);
  EXPECT_EQ(err, 0u);
  EXPECT_EQ(u8, 255);
  EXPECT_EQ(i8, -128);
  EXPECT_EQ(i16, -32768);
  EXPECT_EQ(u16, 65535);
  EXPECT_EQ(u32, 4294967295u);
  EXPECT_EQ(i32, INT32_MIN);
}

TEST_F(WexFromXml, RejectsOutOfRangeJunkAndAbsentValues) {
  struct Case {
    const char *path;
    uint32_t code;
  } cases[] = {
      {"//u8big", WEX_ERR_RANGE},   {"//i8low", WEX_ERR_RANGE},   {"//u32neg", WEX_ERR_RANGE},
      {"//huge", WEX_ERR_RANGE},    {"//junk", WEX_ERR_INVALID},  {"//plus", WEX_ERR_INVALID},
      {"//hex", WEX_ERR_INVALID},   {"//empty", WEX_ERR_INVALID}, {"//blank", WEX_ERR_INVALID},
      {"//absent", WEX_ERR_ABSENT}, {"//r/[", WEX_ERR_INVALID}};
  for (const Case &c : cases) {
    err = 0;
    int8_t i8 = 42;
    uint8_t u8 = 42;
    uint32_t u32 = 42;
    if (std::strstr(c.path, "i8")) {
      int8_from_xml(h.get(), 0, c.path, doc.get(), &i8, &err, msg, sizeof msg);
    } else if (std::strstr(c.path, "u32")) {
      u_int32_from_xml(h.get(), 0, c.path, doc.get(), &u32, &err, msg, sizeof msg);
    } else {
      u_int8_from_xml(h.get(), 0, c.path, doc.get(), &u8, &err, msg, sizeof msg);
    }
    EXPECT_EQ(err, c.code) << c.path;
    EXPECT_EQ(i8 + u8 + u32, 126u) << c.path << ": the field keeps its value";
  }
}

TEST_F(WexFromXml, ExplainsFailuresInTheMessageBuffer) {
  uint8_t u8 = 0;
  u_int8_from_xml(h.get(), 0, "//u8big", doc.get(), &u8, &err, msg, sizeof msg);
  EXPECT_STREQ(msg, "Value out of range for u_int8 at //u8big: \"256\"");
  err = 0;
  u_int8_from_xml(h.get(), 0, "//junk", doc.get(), &u8, &err, msg, sizeof msg);
  EXPECT_STREQ(msg, "Not a decimal u_int8 at //junk: \"12a\"");
  err = 0;
  u_int8_from_xml(h.get(), 0, "//r/[", doc.get(), &u8, &err, msg, sizeof msg);
  EXPECT_STREQ(msg, "Failed xpath: //r/[");
  err = 0;
  char tiny[8];
  u_int8_from_xml(h.get(), 0, "//junk", doc.get(), &u8, &err, tiny, sizeof tiny);
  EXPECT_STREQ(tiny, "Not a d");
}

}  // namespace
