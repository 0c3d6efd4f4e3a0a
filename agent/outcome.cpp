#include "agent/outcome.h"

#include <cstdio>

namespace {

const char* const FIGURES[] = {"listed", "saved",   "unchanged",  "excluded",     "skipped",
                               "failed", "deleted", "bytes_read", "bytes_stored", "requests"};
/// More than this many problems are not read on a terminal; all of them are in the JSON.
constexpr size_t ERRORS_SHOWN = 20;

} // namespace

std::string human_bytes(unsigned long long bytes) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < sizeof units / sizeof *units) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

const char* Outcome::name() const {
  switch (code) {
  case EXIT_COMPLETED:
    return "completed";
  case EXIT_COMPLETED_WITH_ERRORS:
    return "completed with errors";
  case EXIT_CANCELLED:
    return "cancelled";
  default:
    return "failed";
  }
}

unsigned long long Outcome::figure(const char* name) const {
  const json_spirit::Value* value = json_spirit::find(figures, name);
  return value != nullptr && value->type() == json_spirit::int_type ? value->get_uint64() : 0;
}

json_spirit::Object Outcome::to_json() const {
  json_spirit::Object json = figures;
  json["outcome"] = name();
  json["set"] = set;
  for (const char* figure_name : FIGURES)
    json[figure_name] = figure(figure_name);
  if (json_spirit::find(figures, "seconds") == nullptr)
    json["seconds"] = 0;
  if (json_spirit::find(figures, "errors") == nullptr)
    json["errors"] = json_spirit::Array();
  if (!failure.empty())
    json["message"] = failure;
  return json;
}

Lines Outcome::to_text() const {
  Lines text;
  if (!figures.empty()) {
    text.add(std::to_string(figure("listed")) + " listed = " + std::to_string(figure("saved")) + " saved + " +
             std::to_string(figure("unchanged")) + " unchanged + " + std::to_string(figure("excluded")) +
             " excluded + " + std::to_string(figure("skipped")) + " skipped + " + std::to_string(figure("failed")) +
             " failed");
    if (figure("deleted") != 0)
      text.add(std::to_string(figure("deleted")) + " deleted since the set before");
    if (const unsigned long long excluded = figure("excluded_since"); excluded != 0)
      text.add(std::to_string(excluded) + " of the set before excluded by the rules now");
    if (const std::string changed = json_spirit::optional_str(figures, "paths_changed"); !changed.empty())
      text.add(changed);
    if (figure("incomplete") != 0)
      text.add(std::to_string(figure("incomplete")) + " of the saved ones without all that belongs to them");
    if (json_spirit::find(figures, "removed") != nullptr)
      text.add(std::to_string(figure("removed")) + " removed that the set does not have");
    std::string sizes = human_bytes(figure("bytes_read")) + " read, " + human_bytes(figure("bytes_stored")) +
                        " stored, " + std::to_string(figure("requests")) + " requests";
    const json_spirit::Value* seconds = json_spirit::find(figures, "seconds");
    if (seconds != nullptr && (seconds->type() == json_spirit::real_type || seconds->type() == json_spirit::int_type)) {
      char duration[32];
      std::snprintf(duration, sizeof duration, ", %.1f s", seconds->get_real());
      sizes += duration;
    }
    text.add(sizes);
  }
  const json_spirit::Value* errors = json_spirit::find(figures, "errors");
  if (errors != nullptr && errors->type() == json_spirit::array_type) {
    size_t shown = 0;
    for (const json_spirit::Value& item : errors->get_array()) {
      if (item.type() != json_spirit::obj_type)
        continue;
      if (shown++ == ERRORS_SHOWN) {
        text.add("... and " + std::to_string(errors->get_array().size() - ERRORS_SHOWN) + " more (--json has them)");
        break;
      }
      text.add(json_spirit::optional_str(item.get_obj(), "type") + " '" +
               json_spirit::optional_str(item.get_obj(), "name") +
               "': " + json_spirit::optional_str(item.get_obj(), "message"));
    }
  }
  if (const unsigned long long objects = figure("resumable"); objects != 0)
    text.add("the next run of the same paths goes on with " + std::to_string(objects) +
             (objects == 1 ? " object that is stored" : " objects that are stored"));
  if (!set.empty())
    text.add("set " + set);
  text.add(name() + (failure.empty() ? std::string() : ": " + failure));
  return text;
}
