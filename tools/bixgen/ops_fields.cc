// Field accessors of records, by field kind.
#include "ops.h"

namespace bixgen {

std::vector<OpSpec> access_ops() { return {}; }

std::vector<FieldOpSpec> field_ops() { return {}; }

}  // namespace bixgen
