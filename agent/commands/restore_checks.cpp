#include "agent/commands/restore_checks.h"

#include "agent/prompt.h"

#include <algorithm>

namespace {

/// More are not read in an error message.
constexpr unsigned MOST_NAMED = 10;

/// "'a', 'b' and more".
std::string listed(const std::vector<std::string>& names) {
  std::string text;
  for (size_t i = 0; i < names.size() && i < MOST_NAMED; ++i)
    text += (i == 0 ? "'" : ", '") + names[i] + "'";
  return text + (names.size() > MOST_NAMED ? " and more" : "");
}

/// What a folder of the set has, folders first.
std::vector<std::string> entries_of(Catalog_Reader& catalog, const std::string& folder) {
  Catalog_Page page;
  std::string error;
  if (!catalog.list(folder, std::string(), MOST_NAMED + 1, page, error))
    throw Command_Error(error);
  std::vector<std::string> names;
  for (const std::string& one : page.folders)
    names.push_back("/" + one);
  for (const Catalog_Object& one : page.objects)
    names.push_back("/" + one.path);
  return names;
}

/// The folder that holds `path`; empty for a bucket.
std::string folder_above(const std::string& path) {
  const size_t end = path.empty() ? 0 : path.size() - 1;
  const size_t slash = end == 0 ? std::string::npos : path.rfind('/', end - 1);
  return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

/// Whether the account reaches the service that the set was made of. One that is not known may be any.
bool is_origin(Context& context, const Set& set, const Account& target) {
  if (target.uuid == set.account_uuid)
    return true;
  Account origin;
  bool found = false;
  std::string error;
  if (!context.store().find_account(set.account_uuid, origin, found, error))
    throw Command_Error(error);
  return !found || origin.endpoint == target.endpoint;
}

} // namespace

void refuse_idle_maps(const Restore_Plan& plan, const Bucket_Maps& maps) {
  const std::vector<std::string> buckets = plan.buckets();
  for (const Bucket_Maps::Map& map : maps.maps())
    if (map.source != "*" && std::find(buckets.begin(), buckets.end(), map.source) == buckets.end())
      throw Command_Error("nothing is restored, because no object that would be restored lies in bucket '" +
                          map.source + "', which --map names: " +
                          (buckets.empty() ? std::string("there are none") : "they lie in " + listed(buckets)));
}

void refuse_idle_paths(Catalog_Reader& catalog, const Catalog_Selection& selection) {
  unsigned long long objects = 0, bytes = 0;
  std::vector<std::string> unmatched;
  std::string error;
  if (!catalog.count(selection, objects, bytes, unmatched, error))
    throw Command_Error(error);
  if (unmatched.empty())
    return;
  // The nearest folder that is there shows what was meant.
  std::string near = unmatched.front();
  do
    near = folder_above(near);
  while (!near.empty() && !catalog.has_folder(near, error));
  if (!error.empty())
    throw Command_Error(error);
  const std::vector<std::string> instead = entries_of(catalog, near);
  for (std::string& path : unmatched)
    path.insert(0, 1, '/');
  throw Command_Error("nothing is restored, because the set has nothing at " + listed(unmatched) + "; " +
                      (near.empty() ? std::string("its buckets: ") : "below '/" + near + "' it has: ") +
                      (instead.empty() ? std::string("nothing") : listed(instead)));
}

void refuse_in_place(Context& context, const Set& set, const Account& target, const Restore_Plan& plan, bool wanted) {
  if (wanted || !is_origin(context, set, target))
    return;
  std::vector<std::string> places;
  for (const std::string& bucket : plan.buckets())
    if (plan.target(bucket + "/") == bucket + "/")
      places.push_back(bucket);
  if (places.empty())
    return;
  const std::string what = "the objects of " + listed(places) + " would be written back over what is there now";
  if (can_prompt() && confirm("obs-agent: " + what + ". Go on?"))
    return;
  throw Command_Error("nothing is restored: " + what + "; --in-place does that, --map '" + places.front() +
                          "=TARGET[/PREFIX]' restores to another place",
                      EXIT_USAGE);
}
