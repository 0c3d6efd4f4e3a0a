#include "agent/times.h"

namespace {

bool has_form(const std::string& time) {
  const std::string form = "0000-00-00 00:00:00";
  if (time.size() != form.size())
    return false;
  for (size_t i = 0; i < form.size(); ++i)
    if (form[i] == '0' ? time[i] < '0' || time[i] > '9' : time[i] != form[i])
      return false;
  return true;
}

} // namespace

std::string zoned_time(const std::string& time) {
  return has_form(time) ? time + "Z" : time;
}

std::string json_time(const std::string& time) {
  std::string text = zoned_time(time);
  if (has_form(time))
    text[10] = 'T';
  return text;
}
