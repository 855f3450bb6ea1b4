// The C++ layer's generated sources: the public bix_ipc_shim.hpp and the tests' visitor.
#pragma once
#include <string>

#include "model.h"

namespace bixgen {
// False (after diagnostics) when an accessor's name would clash with another member.
bool emit_cpp_header(const Schema &s, std::string &out);
std::string emit_cpp_facts(const Schema &s);
}  // namespace bixgen
