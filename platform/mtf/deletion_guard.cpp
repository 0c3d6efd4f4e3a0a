#include "platform/mtf/deletion_guard.h"

#include <algorithm>

bool Deletion_Limits::parse(const std::string& text, Deletion_Limits& limits) {
  const bool share = !text.empty() && text.back() == '%';
  const std::string digits = text.substr(0, text.size() - share);
  if (digits.empty() || digits.size() > 18 || digits.find_first_not_of("0123456789") != std::string::npos)
    return false;
  const unsigned long long number = std::stoull(digits);
  if (share && number > 100)
    return false;
  limits.given = true;
  limits.percent = share;
  limits.most = number;
  return true;
}

bool Deletion_Limits::exceeded(unsigned long long gone, unsigned long long had) const {
  if (!given && had <= DEFAULT_ABOVE)
    return false;
  if (!percent)
    return gone > most;
  // Without an overflow, whatever the numbers are.
  return most < 100 && gone > had / 100 * most + had % 100 * most / 100;
}

std::string Deletion_Limits::text() const {
  return std::to_string(most) + (percent ? "%" : "");
}

Earlier_Sets Earlier_Sets::of(const std::vector<Set_Record>& sets) {
  const Set_Record* newest = nullptr;
  const Set_Record* whole = nullptr;
  const auto later = [](const Set_Record& one, const Set_Record* than) {
    return than == nullptr || one.start_time >= than->start_time;
  };
  for (const Set_Record& set : sets) {
    if (later(set, newest))
      newest = &set;
    if (set.whole() && later(set, whole))
      whole = &set;
  }
  const auto objects = [](const Set_Record* set) -> unsigned long long {
    if (set == nullptr)
      return 0;
    return figure_of(set->figures, "objects")
        .value_or(figure_of(set->figures, "saved").value_or(0) + figure_of(set->figures, "unchanged").value_or(0));
  };
  return {objects(newest), objects(whole != nullptr ? whole : newest),
          newest != nullptr ? std::optional<Set_Record>(*newest) : std::nullopt};
}

Guarded_Definition::Guarded_Definition(Settings settings, const Deletion_Limits& limits)
    : Job_Definition(std::move(settings)), limits_(limits) {}

Guarded_Definition::~Guarded_Definition() = default;

Deletion_Limits deletion_limits(const Job_Definition& definition) {
  const auto* const guarded = dynamic_cast<const Guarded_Definition*>(&definition);
  return guarded != nullptr ? guarded->deletion_limits() : Deletion_Limits();
}
