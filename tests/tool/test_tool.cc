// bix-ipc decode, encode and annotate over every message, against a golden annotation,
// and over truncated and corrupted input.
#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <sstream>

#include "../messages/msg_support.h"
#include "annotate.h"
#include "convert.h"

namespace bixtest {
namespace {

std::string slurp(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

// A message the card simulator sends: an SFP+ module's status with state bytes.
TEST(ToolAnnotate, StatusInfoMatchesItsGoldenAnnotation) {
  const std::string wire = slurp(BIX_TOOL_DATA "/status_info_sfp.bin");
  ASSERT_EQ(wire.size(), 1021u);
  std::string out, err;
  ASSERT_TRUE(
      bixipc::annotate(reinterpret_cast<const uint8_t *>(wire.data()), wire.size(), out, &err))
      << err;
  EXPECT_EQ(out, slurp(BIX_TOOL_DATA "/status_info_sfp.annotate"));
}

// Counts the bytes the rows show, checking that each row starts where the last ended:
// every byte appears once, in order.
size_t bytes_labelled(const std::string &dump, std::string *why) {
  std::istringstream in(dump);
  size_t next = 0;
  for (std::string row; std::getline(in, row);) {
    if (row.empty() || row[0] == '#') continue;
    if (std::stoul(row.substr(0, 6), nullptr, 16) != next) {
      *why = "gap or overlap at " + row;
      return 0;
    }
    std::istringstream hex(row.substr(7, 24));
    for (std::string b; hex >> b;) ++next;
  }
  return next;
}

TEST(ToolAnnotate, EveryByteOfEveryMessageIsLabelledOnce) {
  for (const Msg &m : messages()) {
    for (uint32_t mode : {0u, WEX_STTR_ON}) {
      Handle h(mode);
      Encoded e = encode(h, m, 21, 1 + m.name.size() % 7);
      // Two messages back to back.
      std::vector<uint8_t> two = e.wire;
      two.insert(two.end(), e.wire.begin(), e.wire.end());
      std::string out, err, why;
      ASSERT_TRUE(bixipc::annotate(two.data(), two.size(), out, &err)) << m.name << ": " << err;
      EXPECT_EQ(bytes_labelled(out, &why), two.size()) << m.name << " " << why;
      EXPECT_NE(out.find("message LUID: " + m.name), std::string::npos);
      m.destroy(h, 0, e.msg);
    }
  }
}

// Cut anywhere or corrupted, the dump stops with one line naming an offset inside the
// input; the input is an exact-size copy, so reading past it is caught by ASan.
TEST(ToolAnnotate, TruncatedAndCorruptedInputEndsWithTheOffset) {
  std::mt19937 rng(5);
  for (const Msg &m : messages()) {
    Handle h(WEX_STTR_ON);
    Encoded e = encode(h, m, 22, 6);
    for (size_t k = 0; k < e.wire.size(); k += k < 160 ? 1 : 7) {
      std::unique_ptr<uint8_t[]> cut(new uint8_t[k ? k : 1]);
      std::memcpy(cut.get(), e.wire.data(), k);
      std::string out, err;
      ASSERT_EQ(bixipc::annotate(cut.get(), k, out, &err), k == 0) << m.name << " cut at " << k;
      if (k == 0) continue;
      ASSERT_EQ(err.rfind("offset ", 0), 0u) << err;
      ASSERT_LE(std::stoul(err.substr(7)), k);
      ASSERT_EQ(err.find('\n'), std::string::npos);
    }
    for (int round = 0; round < 300; ++round) {
      std::vector<uint8_t> bad = e.wire;
      for (int n = 0; n < 4; ++n) bad[rng() % bad.size()] = static_cast<uint8_t>(rng());
      std::unique_ptr<uint8_t[]> copy(new uint8_t[bad.size()]);
      std::memcpy(copy.get(), bad.data(), bad.size());
      std::string out, err;
      if (!bixipc::annotate(copy.get(), bad.size(), out, &err)) {
        ASSERT_EQ(err.rfind("offset ", 0), 0u);
      }
    }
    m.destroy(h, 0, e.msg);
  }
}

TEST(ToolDecode, TextAndXmlOfMessagesBackToBackAndBackToTheWire) {
  Handle h;
  std::vector<uint8_t> all;
  std::string text;
  std::vector<Encoded> sent;
  for (const Msg &m : messages()) {
    sent.push_back(encode(h, m, 23, 3));
    all.insert(all.end(), sent.back().wire.begin(), sent.back().wire.end());
    text += print_text(h, m, sent.back().msg);
  }
  std::string out, err;
  ASSERT_TRUE(bixipc::decode(all.data(), all.size(), false, out, &err)) << err;
  EXPECT_EQ(out, text);
  for (size_t i = 0; i < sent.size(); ++i) {
    const Msg &m = messages()[i];
    std::string xml;
    ASSERT_TRUE(bixipc::decode(sent[i].wire.data(), sent[i].wire.size(), true, xml, &err)) << err;
    EXPECT_EQ(xml, xml_text(h, m, sent[i].msg));
    std::vector<uint8_t> again;
    ASSERT_TRUE(bixipc::encode(xml, again, &err)) << m.name << ": " << err;
    EXPECT_EQ(again, sent[i].wire) << m.name;
    // The recorder's form, with its time-stamped wrapper, encodes the same.
    again.clear();
    ASSERT_TRUE(
        bixipc::encode("<bix_ipc_shim timestamp=\"x\">\n" + xml + "</bix_ipc_shim>\n", again, &err))
        << err;
    EXPECT_EQ(again, sent[i].wire);
    m.destroy(h, 0, sent[i].msg);
  }
}

TEST(ToolDecode, RefusalsNameTheOffsetOfTheMessage) {
  Handle h;
  const Msg &m = message("ipc_shim_xcvr_presence_info");
  Encoded e = encode(h, m, 24);
  std::vector<uint8_t> two = e.wire;
  two.insert(two.end(), e.wire.begin(), e.wire.end() - 1);
  std::string out, err;
  EXPECT_FALSE(bixipc::decode(two.data(), two.size(), false, out, &err));
  EXPECT_EQ(err, "offset " + std::to_string(e.wire.size()) +
                     ": truncated or malformed input (error 74)");
  EXPECT_EQ(out, print_text(h, m, e.msg));  // the first message was shown
  two.assign(e.wire.begin(), e.wire.end());
  two[30] ^= 1;
  EXPECT_FALSE(bixipc::decode(two.data(), two.size(), false, out, &err));
  EXPECT_EQ(err, "offset 0: unknown message LUID (error 2)");
  std::vector<uint8_t> none;
  EXPECT_FALSE(bixipc::encode("<not xml", none, &err));
  EXPECT_EQ(err, "not a well-formed XML document");
  EXPECT_FALSE(bixipc::encode("<wex_xcvr_rc/>", none, &err));
  EXPECT_EQ(err, "the document's root element names no message");
  EXPECT_FALSE(bixipc::encode("<x><ipc_shim_xcvr_msg/><ipc_shim_xcvr_msg/></x>", none, &err));
  EXPECT_FALSE(bixipc::encode(
      "<ipc_shim_xcvr_msg><app_sess_hdr><seq_num>-</seq_num></app_sess_hdr></ipc_shim_xcvr_msg>",
      none, &err));
  EXPECT_EQ(err.rfind("ipc_shim_xcvr_msg: ", 0), 0u) << err;
  EXPECT_TRUE(none.empty());
  m.destroy(h, 0, e.msg);
}

}  // namespace
}  // namespace bixtest
