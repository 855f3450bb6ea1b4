// The eleven messages as tests see them: their operations looked up by name from the
// generated layout facts, and a filler that gives every member non-zero values.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "../wire/fill.h"

namespace bixtest {

using MsgHandler = bix_ipc_shim_message_handler_fn;

struct Member {
  std::string name;
  const char *type;  // null: the session header
  uint32_t offset;
};

// One message's operations, called through generic pointer types.
struct Msg {
  std::string name;  // bare name: ipc_shim_xcvr_msg
  std::vector<Member> members;
  const uint8_t *luid;
  const char *luid_text;
  void *(*create)(wex_handle *, uint32_t);
  void *(*create_cr)(wex_handle *);
  void *(*create_shallow)(wex_handle *, uint32_t);
  void (*destroy)(wex_handle *, uint32_t, void *);
  void (*destroy_cr)(wex_handle *, void *);
  uint32_t (*is_valid_cr)(wex_handle *);
  uint32_t (*len)(wex_handle *, uint32_t, const void *);
  uint32_t (*len_cr)(wex_handle *, const void *);
  uint32_t (*marshal)(wex_handle *, uint32_t, uint8_t *, void *, int32_t, uint32_t *);
  uint32_t (*marshal_cr)(wex_handle *, void *, uint8_t *, int32_t);
  uint32_t (*unmarshal_only)(wex_handle *, uint32_t, void **, const uint8_t *, int32_t, uint32_t *);
  uint32_t (*unmarshal)(wex_handle *, uint32_t, uint64_t, void **, const uint8_t *, int32_t,
                        MsgHandler, uint32_t *);
  int32_t (*print)(wex_handle *, uint32_t, char *, const void *, uint32_t, uint32_t *);
  int32_t (*print_cr)(wex_handle *, const void *, char *, uint32_t);
  int32_t (*to_xml)(wex_handle *, uint32_t, char *, const void *, uint32_t, uint32_t *);
  void *(*from_xml)(wex_handle *, uint32_t, void *, uint32_t *, char *, uint32_t);

  template <typename Fn>
  Fn member_op(size_t m, const char *suffix) const {
    return op<Fn>(name + "_message_" + members[m].name, suffix);
  }
  void *get(wex_handle *h, void *msg, size_t m, uint32_t *err) const {
    return member_op<void *(*)(wex_handle *, uint32_t, void *, uint32_t *)>(m, "get")(h, 0, msg,
                                                                                      err);
  }
  const Member *body() const { return &members.back(); }
};

inline const std::vector<Msg> &messages() {
  static const std::vector<Msg> all = [] {
    std::vector<Msg> v;
    for (const auto &t : bixfacts::kTypes) {
      if (std::string(t.kind) != "message") continue;
      Msg m{t.name};
      for (const auto &mem : bixfacts::kMembers)
        if (m.name == mem.message) m.members.push_back({mem.name, mem.type, mem.offset});
      const std::string p = m.name + "_message";
      m.luid = static_cast<const uint8_t *>(
          dlsym(RTLD_DEFAULT, ("message_" + m.name + "_luid").c_str()));
      m.luid_text = static_cast<const char *>(
          dlsym(RTLD_DEFAULT, ("message_" + m.name + "_luid_text").c_str()));
      m.create = op<decltype(m.create)>(p, "create");
      m.create_cr = op<decltype(m.create_cr)>(p, "create_cr");
      m.create_shallow = op<decltype(m.create_shallow)>(p, "create_shallow");
      m.destroy = op<decltype(m.destroy)>(p, "destroy");
      m.destroy_cr = op<decltype(m.destroy_cr)>(p, "destroy_cr");
      m.is_valid_cr = op<decltype(m.is_valid_cr)>(p, "is_valid_cr");
      m.len = op<decltype(m.len)>(p, "len");
      m.len_cr = op<decltype(m.len_cr)>(p, "len_cr");
      m.marshal = op<decltype(m.marshal)>(p, "marshal");
      m.marshal_cr = op<decltype(m.marshal_cr)>(p, "marshal_cr");
      m.unmarshal_only = op<decltype(m.unmarshal_only)>(p, "unmarshal_only");
      m.unmarshal = op<decltype(m.unmarshal)>(p, "unmarshal");
      m.print = op<decltype(m.print)>(p, "print");
      m.print_cr = op<decltype(m.print_cr)>(p, "print_cr");
      m.to_xml = op<decltype(m.to_xml)>(p, "to_xml");
      m.from_xml = op<decltype(m.from_xml)>(p, "from_xml");
      v.push_back(m);
    }
    return v;
  }();
  return all;
}

inline const Msg &message(const std::string &name) {
  for (const Msg &m : messages())
    if (m.name == name) return m;
  std::abort();
}

inline void *member_of(const Msg &m, const void *msg, size_t k) {
  void *p;
  std::memcpy(&p, static_cast<const uint8_t *>(msg) + m.members[k].offset, sizeof p);
  return p;
}

// Non-zero values in every member: session header fields, then every record field.
inline void fill_message(wex_handle *h, const Msg &m, void *msg, uint8_t seed, uint32_t alt = 1) {
  uint32_t err = 0;
  for (size_t k = 0; k < m.members.size(); ++k) {
    void *inst = member_of(m, msg, k);
    if (!m.members[k].type) {
      app_sess_hdr_session_id_set_value(h, 0, inst, 0x10000u * seed + 7, &err);
      app_sess_hdr_seq_num_set_value(h, 0, inst, seed + 100u, &err);
      app_sess_hdr_flags_set_value(h, 0, inst, static_cast<uint16_t>(seed | 1), &err);
    } else {
      fill(h, m.members[k].type, inst, static_cast<uint8_t>(seed + k), alt);
    }
  }
}

// A filled message and its encoding (empty when marshal failed).
struct Encoded {
  void *msg;
  std::vector<uint8_t> wire;
};
inline Encoded encode(wex_handle *h, const Msg &m, uint8_t seed, uint32_t alt = 1) {
  Encoded e{m.create(h, 0), {}};
  fill_message(h, m, e.msg, seed, alt);
  e.wire.resize(m.len(h, 0, e.msg));
  uint32_t err = 0;
  e.wire.resize(m.marshal(h, 0, e.wire.data(), e.msg, static_cast<int32_t>(e.wire.size()), &err));
  if (err) e.wire.clear();
  return e;
}

// The text form, in a buffer large enough for any message.
inline std::string print_text(wex_handle *h, const Msg &m, const void *msg) {
  std::vector<char> buf(1 << 18);
  uint32_t err = 0;
  int32_t n = m.print(h, 0, buf.data(), msg, static_cast<uint32_t>(buf.size()), &err);
  return err ? "error " + std::to_string(err) : std::string(buf.data(), static_cast<size_t>(n));
}
inline std::string xml_text(wex_handle *h, const Msg &m, const void *msg) {
  std::vector<char> buf(1 << 18);
  uint32_t err = 0;
  int32_t n = m.to_xml(h, 0, buf.data(), msg, static_cast<uint32_t>(buf.size()), &err);
  return err ? "error " + std::to_string(err) : std::string(buf.data(), static_cast<size_t>(n));
}

}  // namespace bixtest
