#include "agent/set_outcome.h"

#include "agent/lines.h"

std::string set_outcome_text(const std::optional<unsigned long long>& missing) {
  if (!missing)
    return "not known whether whole";
  if (*missing == 0)
    return "whole";
  return std::to_string(*missing) + (*missing == 1 ? " object missing" : " objects missing");
}

void add_set_outcome(const std::optional<unsigned long long>& missing, json_spirit::Object& json) {
  json["missing"] = missing ? json_spirit::Value(*missing) : json_spirit::Value();
  json["whole"] = missing ? json_spirit::Value(*missing == 0) : json_spirit::Value();
}

std::string incomplete_set_warning(const Set& set) {
  if (!set.missing)
    return "set " + set.uuid + ": it is not known whether it is whole: \"problems " + set.uuid +
           "\" lists what its run named";
  if (*set.missing == 0)
    return std::string();
  return "set " + set.uuid + " is not whole: " + set_outcome_text(set.missing) + " (\"problems " + set.uuid +
         "\" lists them)";
}

void warn_of_incomplete_set(const Set& set) {
  const std::string warning = incomplete_set_warning(set);
  if (!warning.empty())
    print_error(warning);
}
