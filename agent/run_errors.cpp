#include "agent/run_errors.h"

#include <set>

using json_spirit::Object;
using json_spirit::Value;

namespace {

/// More than this many are not listed, as in the engines' accounts.
constexpr size_t MAX_ERRORS = 1000;

bool holds(const std::string& line, const std::string& text) {
  return !text.empty() && line.find(text) != std::string::npos;
}

/// Whether `line` is about what the entry names.
bool covers(const Object& entry, const std::string& line) {
  return holds(line, json_spirit::optional_str(entry, "message")) ||
         is_about(line, json_spirit::optional_str(entry, "name"));
}

} // namespace

bool is_about(const std::string& line, std::string path) {
  if (!path.empty() && path.front() == '/')
    path.erase(0, 1);
  if (holds(line, path))
    return true;
  const size_t slash = path.find('/');
  return slash != std::string::npos && slash + 1 < path.size() && holds(line, "'" + path.substr(slash + 1) + "'");
}

unsigned long long name_uncovered_errors(Object& figures, const std::string& name,
                                         const std::vector<std::string>& lines) {
  if (lines.empty())
    return 0;
  Value& value = figures["errors"];
  if (value.type() != json_spirit::array_type)
    value = json_spirit::Array();
  json_spirit::Array& errors = value.get_array();
  const size_t known = errors.size();
  // The account is cut off: nobody can tell what the lines are about, and it says enough as it is.
  if (known >= MAX_ERRORS)
    return 0;
  std::set<std::string> added;
  for (const std::string& line : lines) {
    bool covered = false;
    for (size_t at = 0; at < known && !covered; ++at)
      covered = errors[at].type() == json_spirit::obj_type && covers(errors[at].get_obj(), line);
    if (covered || !added.insert(line).second || errors.size() >= MAX_ERRORS)
      continue;
    errors.push_back(Object{{"type", "job"}, {"name", name}, {"errno", Value()}, {"message", line}});
  }
  const Value* const problems = json_spirit::find(figures, "problems");
  if (problems != nullptr && problems->type() == json_spirit::int_type)
    figures["problems"] = problems->get_uint64() + added.size();
  return added.size();
}
