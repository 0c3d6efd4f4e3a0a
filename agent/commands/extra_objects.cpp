#include "agent/commands/extra_objects.h"

#include "agent/entry.h"
#include "agent/set_choice.h"
#include "sdk/base/clock.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr size_t MOST_SHOWN = 10;
constexpr size_t MOST_ERRORS = 1000;
/// How often a request is sent, with waits of 1, 2, 4 ... seconds between.
constexpr unsigned TRIES = 5;
/// So many failing removals in a row are no fault of the objects: the rest is left.
constexpr unsigned MOST_FAILURES_IN_A_ROW = 10;

bool begins_with(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

template <typename REQUEST>
bool with_retries(S3_Service_Base& service, REQUEST request) {
  for (unsigned tries = 1;; ++tries) {
    if (request())
      return true;
    if (tries == TRIES || !service.last_error().retriable())
      return false;
    Clock::instance().sleep(1u << (tries - 1));
  }
}

/// Whether an interrupt is pending; the job that is over had the signals blocked.
bool is_interrupted() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  const timespec now = {0, 0};
  return sigtimedwait(&set, nullptr, &now) > 0;
}

Command_Error refusal(const std::string& why) {
  return Command_Error("nothing is restored or removed: --delete-extra cannot be used, because " + why);
}

/// What the set's selection covers, "bucket/" and "bucket/a/"; empty: every bucket.
std::vector<std::string> covered(Context& context, const Set& set) {
  Selection selection;
  bool found = false;
  std::string error;
  if (!context.store().find_selection(set.minor_resource_id, selection, found, error))
    throw Command_Error(error);
  if (!found)
    throw refusal("the selection that the set was made of is not known here, nor whether it had rules");
  if (!selection.exclusions.empty() || !selection.inclusions.empty())
    throw refusal("the set was made by rules: what they left out is not in it and would be removed");
  std::vector<std::string> folders;
  for (const std::string& path : selection.paths) {
    if (path.back() != '/')
      throw refusal("the set was made of single objects, as '" + path + "'");
    folders.push_back(path.substr(1));
  }
  return folders;
}

} // namespace

Extra_Objects::Extra_Objects(Context& context, const Set& set, const Account& account, Catalog_Reader& catalog,
                             const Catalog_Selection& selection, const Restore_Plan& plan)
    : catalog_(catalog), service_(make_account_service(account)), names_(nullptr, &std::fclose) {
  if (set.missing != 0ull)
    throw refusal("the set is not known to be whole: what it misses would be removed");
  if (!selection.objects.empty())
    throw refusal("single objects are restored");
  const std::vector<std::string> known = covered(context, set);
  std::vector<std::string> folders = selection.folders;
  if (selection.everything())
    folders = known;
  if (folders.empty())
    for (const std::string& bucket : plan.buckets())
      folders.push_back(bucket + "/");
  std::string error;
  for (const std::string& folder : folders) {
    if (!known.empty() &&
        std::none_of(known.begin(), known.end(), [&](const std::string& one) { return begins_with(folder, one); }))
      throw refusal("'/" + folder + "' reaches beyond what was backed up");
    // Where nothing is restored to, nothing is removed.
    if (catalog_.has_folder(folder, error))
      add_place(folder, plan);
    else if (!error.empty())
      throw Command_Error(error);
  }
  for (const Place& one : places_)
    for (const Place& other : places_)
      if (&one != &other && one.bucket == other.bucket && begins_with(one.prefix, other.prefix))
        throw refusal("'/" + one.folder + "' and '/" + other.folder + "' are restored to places inside each other");
}

void Extra_Objects::add_place(const std::string& folder, const Restore_Plan& plan) {
  for (const Place& place : places_)
    if (begins_with(folder, place.folder))
      return;
  places_.erase(std::remove_if(places_.begin(), places_.end(),
                               [&](const Place& place) { return begins_with(place.folder, folder); }),
                places_.end());
  const std::string target = plan.target(folder);
  const size_t slash = target.find('/');
  places_.push_back({folder, target.substr(0, slash), target.substr(slash + 1)});
}

void Extra_Objects::find() {
  names_.reset(std::tmpfile());
  if (!names_)
    throw Command_Error(std::string("no temporary file can be made: ") + std::strerror(errno));
  count_ = bytes_ = 0;
  first_.clear();
  for (const Place& place : places_)
    find_in(place);
  if (std::fflush(names_.get()) != 0)
    throw Command_Error(std::string("the temporary file cannot be written: ") + std::strerror(errno));
}

void Extra_Objects::find_in(const Place& place) {
  Get_Bucket_Parameter parameter;
  parameter.prefix(place.prefix.c_str());
  std::string marker;
  Get_Bucket_Content page;
  do {
    parameter.marker(marker.c_str());
    page = Get_Bucket_Content();
    const bool listed = with_retries(*service_, [&] {
      page = Get_Bucket_Content();
      return service_->get_bucket(place.bucket.c_str(), parameter, page);
    });
    if (!listed) {
      if (service_->last_error().code() == "NoSuchBucket")
        return;
      throw Command_Error("nothing is restored or removed: what '/" + place.bucket + "/" + place.prefix +
                          "' has could not be listed to the end: " + service_->error());
    }
    for (const S3_Object& object : page.objects)
      if (begins_with(object.name, place.prefix) &&
          !is_in_set(place.folder + object.name.substr(place.prefix.size()), object))
        keep(place, object);
    if (page.truncated && page.next_marker == marker)
      throw Command_Error("nothing is restored or removed: the listing of '/" + place.bucket + "/" + place.prefix +
                          "' does not get on from '" + marker + "'");
    marker = page.next_marker;
  } while (page.truncated);
}

/// A folder object is not in a set as an object: it is left where the set has its folder.
bool Extra_Objects::is_in_set(const std::string& path, const S3_Object& object) {
  std::string error;
  Catalog_Object found;
  const bool folder = !path.empty() && path.back() == '/' && object.size == 0;
  const bool there =
      (folder && catalog_.has_folder(path, error)) || (error.empty() && catalog_.find(path, found, error));
  if (!error.empty())
    throw Command_Error(error);
  return there;
}

void Extra_Objects::keep(const Place& place, const S3_Object& object) {
  ++count_;
  bytes_ += object.size;
  if (first_.size() < MOST_SHOWN)
    first_.push_back("/" + place.bucket + "/" + object.name);
  for (const std::string* text : {&place.bucket, &object.name}) {
    const size_t size = text->size();
    if (std::fwrite(&size, sizeof size, 1, names_.get()) != 1 ||
        (size != 0 && std::fwrite(text->data(), size, 1, names_.get()) != 1))
      throw Command_Error(std::string("the temporary file cannot be written: ") + std::strerror(errno));
  }
}

bool Extra_Objects::read_text(std::string& text) {
  size_t size = 0;
  if (std::fread(&size, sizeof size, 1, names_.get()) != 1)
    return false;
  text.resize(size);
  return size == 0 || std::fread(text.data(), size, 1, names_.get()) == 1;
}

std::string Extra_Objects::preview() const {
  std::string text = std::to_string(count_) + (count_ == 1 ? " object" : " objects") + " of the target, " +
                     human_bytes(bytes_) + ", that the set does not have would be removed:";
  for (const std::string& name : first_)
    text += " '" + name + "'";
  return text + (count_ > first_.size() ? " ..." : "");
}

void Extra_Objects::remove(Outcome& outcome) {
  unsigned long long removed = 0;
  json_spirit::Array errors;
  if (const json_spirit::Value* given = json_spirit::find(outcome.figures, "errors");
      given != nullptr && given->type() == json_spirit::array_type)
    errors = given->get_array();
  const auto problem = [&](const std::string& name, int number, const std::string& message) {
    outcome.code = EXIT_COMPLETED_WITH_ERRORS;
    if (errors.size() < MOST_ERRORS)
      errors.push_back(json_spirit::Object{{"type", "file"}, {"name", name}, {"errno", number}, {"message", message}});
  };
  if (outcome.code == EXIT_COMPLETED) {
    std::rewind(names_.get());
    std::string bucket, key;
    unsigned failures = 0;
    for (unsigned long long i = 0; i < count_; ++i) {
      if (is_interrupted()) {
        outcome.code = EXIT_CANCELLED;
        break;
      }
      if (!read_text(bucket) || !read_text(key)) {
        problem("/", EIO, "The list of objects to remove cannot be read back; the rest was left.");
        break;
      }
      if (with_retries(*service_, [&] { return service_->del_object(bucket.c_str(), key.c_str()); })) {
        ++removed;
        failures = 0;
        continue;
      }
      problem("/" + bucket + "/" + key, service_->last_error().number(),
              std::string("The object, which the set does not have, could not be removed: ") + service_->error() + ".");
      if (++failures == MOST_FAILURES_IN_A_ROW) {
        problem("/", 0, std::to_string(count_ - i - 1) + " more that the set does not have were left.");
        break;
      }
    }
  } else if (outcome.code == EXIT_COMPLETED_WITH_ERRORS && count_ != 0) {
    problem("/", 0, "Nothing that the set does not have was removed, because the restore did not end clean.");
  }
  outcome.figures["removed"] = removed;
  if (!errors.empty())
    outcome.figures["errors"] = errors;
}
