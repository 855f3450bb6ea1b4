// What the wire tests share: the record operations by name.
#pragma once

#include <string>
#include <vector>

#include "fill.h"

namespace bixtest {

using Bytes = std::vector<uint8_t>;

}  // namespace bixtest
