// Value operations of enumerations and flag sets.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> value_ops() { return {}; }

}  // namespace bixgen
