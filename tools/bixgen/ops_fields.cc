// Field accessors of records, by field kind.
#include "ops.h"

namespace bixgen {

std::vector<FieldOpSpec> field_ops() { return {}; }

}  // namespace bixgen
