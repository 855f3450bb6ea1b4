#pragma once
#include <string>
#include <vector>

#include "model.h"

namespace bixgen {
bool write_if_changed(const std::string &path, const std::string &text);
std::string emit_public_header(const Schema &s);
std::string emit_internal_header(const Schema &s);
std::string emit_tables(const Schema &s);
std::string emit_unit(const Schema &s, const Type &t);
std::string manifest_text(const Schema &s);
std::string emit_facts(const Schema &s);
std::string emit_reference(const Schema &s);
std::string emit_trace_texts(const Schema &s, const TraceTable &t);
// The fast path of the wire codec: every record's plans, and what a record's unit adds.
bool emit_plans(const Schema &s, std::string &out);
std::string emit_fast_unit(const Type &t);
bool emit_sections(const Schema &s, const std::vector<TraceTable> &tables, std::string &out);
}  // namespace bixgen
