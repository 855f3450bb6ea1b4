// Test support for the C++ layer: the generated visitor over every record's and message's
// C++ accessors, the C functions of the same fields looked up by name, and error checks.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "../messages/msg_support.h"
#include "bix_cpp_facts.h"

namespace bixtest {

// fn must throw a bix::error carrying exactly this code and C function.
template <class Fn>
void expect_error(Fn &&fn, uint32_t code, const std::string &call) {
  try {
    fn();
    ADD_FAILURE() << "no error; expected " << code << " from " << call;
  } catch (const bix::error &e) {
    EXPECT_EQ(e.code(), code) << e.what();
    EXPECT_EQ(e.call(), call) << e.what();
    EXPECT_STREQ(e.name(), bix_ipc_shim_error_text(code));
    EXPECT_EQ(std::string(e.what()), call + ": " + bix_ipc_shim_error_text(code) + " (error " +
                                         std::to_string(code) + ")");
  }
}

inline const bixfacts::Field &facts_field(const std::string &type, const std::string &name) {
  for (const auto &f : bixfacts::kFields)
    if (type == f.type && name == f.name) return f;
  std::abort();
}

// The user value of enumeration `type`'s literal number k (counted from 0, wrapping).
inline uint32_t literal_of(const std::string &type, size_t k) {
  std::vector<uint32_t> users;
  for (const auto &l : bixfacts::kLiterals)
    if (type == l.type) users.push_back(l.user);
  return users.at(k % users.size());
}

// The C accessor <type>_<field>_<suffix>, called through the generic instance pointer.
template <class Fn>
Fn c_field_op(const std::string &type, const std::string &field, const char *suffix) {
  Fn fn = op<Fn>(type + "_" + field, suffix);
  if (!fn) ADD_FAILURE() << "no " << type << "_" << field << "_" << suffix;
  return fn;
}
using CStateFn = uint8_t (*)(wex_handle *, uint32_t, void *, uint32_t *);
using CIndexStateFn = uint8_t (*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);
using CMemberFn = void *(*)(wex_handle *, uint32_t, void *, uint32_t *);
using CElementFn = void *(*)(wex_handle *, uint32_t, void *, uint32_t, uint32_t *);

// The owner type behind a reference type.
template <class Ref>
using owner_of = typename bix::detail::record_ops<typename Ref::object_type>::owner;

}  // namespace bixtest
