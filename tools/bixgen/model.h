// bixgen's view of the schema: parsed declarations plus the layout it computes.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bixgen {

enum class Prim { I8, U8, I16, U16, I32, U32 };
enum class FieldKind { Prim, Count, Enum, Flags, Record, FixedArray, VarArray, RecordArray, Selector, UnionAlt };
enum class TypeKind { Record, Enum, Flags, Message };

struct Type;

struct Field {
  std::string name;
  FieldKind kind = FieldKind::Prim;
  Prim prim = Prim::U8;
  uint32_t count = 0;        // array bound, or alternative position
  std::string type_name;     // member type
  std::string link_name;     // counted-by field of a variable array
  std::string doc;           // what the field means, from the schema line's "-- ..." part
  int line = 0;
  // resolved / computed
  const Type *type = nullptr;
  int link = -1;
  uint32_t offset = 0, size = 0, align = 1, elem_size = 0;
  uint32_t sttr = 0, sttr_elems = 0, sttr_areas = 0, sttr_ptr = 0;
  bool in_get_all = false, in_set_all = false;
  uint32_t run_fields = 1, run_elems = 1;
};

struct Literal {
  std::string name;
  std::string doc;
  uint32_t user = 0;
  int since = 0;
};

struct Type {
  std::string name;
  std::string doc;  // what the type is, from its head line's "-- ..." part
  TypeKind kind = TypeKind::Record;
  std::string luid, hash;
  uint32_t used = 0, slop = 0, size_off = 0, size_on = 0;  // identity data from the schema
  bool has_identity_sizes = false;
  std::vector<Field> fields;
  std::vector<Literal> literals;   // enumeration literals, or flag names (user = flag number)
  bool shifted = false;
  std::vector<std::string> member_names;  // messages
  int line = 0;
  // computed
  uint32_t computed_used = 0, fixed_size = 0, sttr_size = 0;
  int latest_variant = 0;
  bool has_embedded = false;
  uint32_t wire_len_off = 0, wire_len_on = 0;  // 0: depends on the instance
  std::vector<const Type *> members;  // message members (null for app_sess_hdr)
  std::vector<uint32_t> member_offsets;  // where each member's reference lies
};

struct TracePoint {
  std::string id, level, text;
  bool each = false;  // one copy per message, with its name in place of <msg>
};
struct TraceTable {
  std::string name, luid;
  std::vector<TracePoint> points;
};

struct Schema {
  std::vector<Type> types;            // registration-list order
  std::vector<std::string> manifest;  // manifest order of non-message types
  std::map<std::string, size_t> by_name;
  const Type *find(const std::string &n) const {
    auto it = by_name.find(n);
    return it == by_name.end() ? nullptr : &types[it->second];
  }
};

// Each returns false after printing "file:line: message" diagnostics.
bool parse_schema(const std::string &path, Schema &out);
bool compute_layout(Schema &s);
bool parse_trace_table(const std::string &path, TraceTable &out);
// A table's trace points in index order: the shared ones, then one run of the
// per-message ones for each message in schema order.
std::vector<TracePoint> expanded_points(const Schema &s, const TraceTable &t);

uint32_t prim_size(Prim p);
const char *prim_name(Prim p);     // schema / codec name: u_int8 ...
const char *prim_ctype(Prim p);    // C type: uint8_t ...
const char *prim_enum(Prim p);     // bix::Prim enumerator
inline uint32_t round_up(uint32_t v, uint32_t a) { return (v + a - 1) / a * a; }

}  // namespace bixgen
