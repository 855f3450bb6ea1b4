// Wire encoding and decoding of records.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> wire_ops() { return {}; }

}  // namespace bixgen
