#include "ops.h"

#include <set>
#include <string>

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

bool runtime_facing_op(const char *suffix) {
  static const std::set<std::string> kRuntime = {
      "create_internal", "initialize", "sizeof", "destroy_internal", "set_instance_embedded",
      "get_luid", "variant_data_index_cap", "is_valid_cr", "adjust_variant", "get_oid_count",
      "get_object_references", "offset_update", "offset_remove", "marshal_for_clone",
      "clone_internal", "post_copyout_cleanup", "map_to_user_value", "map_to_internal_value",
      "create_unsafe", "destroy_unsafe", "len_unsafe", "marshal_unsafe", "print_unsafe",
      "to_xml_unsafe", "from_xml_unsafe", "unmarshal_only"};
  return kRuntime.count(suffix) != 0;
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
