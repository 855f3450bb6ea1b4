#include "ops.h"

namespace bixgen {

const std::vector<OpSpec> &type_ops() {
  static const std::vector<OpSpec> all = [] {
    std::vector<OpSpec> v;
    for (auto family : {lifecycle_ops, value_ops, access_ops, whole_ops, clone_ops, wire_ops, text_ops,
                        message_ops}) {
      auto f = family();
      v.insert(v.end(), f.begin(), f.end());
    }
    return v;
  }();
  return all;
}

const std::vector<FieldOpSpec> &all_field_ops() {
  static const std::vector<FieldOpSpec> all = field_ops();
  return all;
}

const std::vector<MemberOpSpec> &all_member_ops() {
  static const std::vector<MemberOpSpec> all = member_ops();
  return all;
}

}  // namespace bixgen
