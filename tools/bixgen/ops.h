// The exported operation families, one list per kind of type. Each entry yields a
// prototype in the public header and a one-line forwarding function in the type's unit.
// `$T` is the type name, `$D` its descriptor.
#pragma once

#include <vector>

#include "model.h"

namespace bixgen {

struct OpSpec {
  const char *suffix;
  const char *ret;
  const char *params;  // with names
  const char *body;    // statement forwarding to the core
  const char *doc;
};

const std::vector<OpSpec> &record_ops();
const std::vector<OpSpec> &enum_ops();
const std::vector<OpSpec> &flags_ops();

}  // namespace bixgen
