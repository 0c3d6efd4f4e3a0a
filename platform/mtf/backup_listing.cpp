#include "platform/mtf/backup_listing.h"

#include "platform/mtf/known_attributes.h"
#include "sdk/mtf/attributes_update.h"

#include <algorithm>
#include <cerrno>

using namespace MTF;

namespace {

/// Objects that are kept one by one, beside those that were asked for by name.
constexpr size_t MAX_UNSEEN = 1000;
/// Objects that go to the catalog at once.
constexpr size_t KNOWN_AT_ONCE = 128;

std::string without_root(const std::string& path) {
  return path.substr(!path.empty() && path.front() == '/' ? 1 : 0);
}

/// Whether a listing that begins at the first `from` bytes of the path, with no filter for what is above, would come to
/// the object: what is left out from now on was not deleted.
bool is_asked_for(const std::string& path, size_t from, const IFilter* filter) {
  // What was asked for by its own name, and the bucket that a source leads into, are taken whatever the filter says.
  if (filter == nullptr || from == path.size())
    return true;
  const std::string rooted = "/" + path;
  // Where all buckets are listed, the filter is asked about each of them.
  size_t slash = from == 0 ? 0 : std::max(rooted.find('/', 1), from);
  while ((slash = rooted.find('/', slash + 1)) != std::string::npos)
    if (!is_included(rooted.substr(0, slash + 1).c_str(), true, filter))
      return false;
  return is_included(rooted.c_str(), false, filter);
}

/// The sources as the catalog names them, "" for all buckets: what leads into no bucket counts where nothing else does.
std::vector<std::string> listed_paths(const std::list<std::string>& sources) {
  std::vector<std::string> paths;
  for (const std::string& source : sources) {
    const std::string path = without_root(source);
    if (!path.empty())
      paths.push_back(path.find('/') == std::string::npos ? path + "/" : path);
  }
  if (paths.empty())
    paths.emplace_back();
  return paths;
}

/// Which of the listed paths an object lies below.
class Listed_Paths {
public:
  explicit Listed_Paths(const std::vector<std::string>& paths) : paths_(paths.begin(), paths.end()) {}

  /// True with the length of the path: that of the object itself, or of a folder above it.
  bool cover(const std::string& object, size_t& length) const {
    length = 0;
    if (paths_.count(std::string()) != 0)
      return true;
    for (size_t slash = object.find('/'); slash != std::string::npos; slash = object.find('/', slash + 1)) {
      length = slash + 1;
      if (paths_.count(object.substr(0, length)) != 0)
        return true;
    }
    length = object.size();
    return paths_.count(object) != 0;
  }
  bool everything() const { return paths_.count(std::string()) != 0; }

private:
  std::unordered_set<std::string> paths_;
};

} // namespace

bool count_deselected(Catalog_Reader& catalog, const std::list<std::string>& sources, const IFilter* filter,
                      const std::function<bool()>& stopped, Run_Account::Deselected& counts, unsigned long long& asked,
                      std::string& error) {
  const Listed_Paths paths(listed_paths(sources));
  counts = Run_Account::Deselected();
  asked = 0;
  bool done = true;
  const auto one = [&](const Catalog_Object& object) {
    size_t length = 0;
    if (!paths.cover(object.path, length))
      ++counts.outside;
    else if (!is_asked_for(object.path, length, filter))
      ++counts.excluded;
    else
      ++asked;
    return done = !stopped();
  };
  return catalog.walk("", one, error) && done;
}

Listing_Events::Listing_Events(Event_Handler_var handler, Run_Account& account, Catalog_Writer& catalog,
                               const std::list<std::string>& sources)
    : Event_Handler(handler.null() ? 0 : handler->mode()), handler_(handler), account_(account), catalog_(catalog) {
  for (const std::string& source : sources)
    sources_.insert(without_root(source));
}

int Listing_Events::notify_event(unsigned code, const json_spirit::Object& options) {
  if (code == EVENT_ITEM_ERROR) {
    const std::string type = json_spirit::optional_str(options, "type");
    if (canceling()) {
      cut_ += type != "directory" && refused_ == 0;
      return 0;
    }
    const std::string name = json_spirit::optional_str(options, "name");
    const std::string path = without_root(name);
    const std::string message = json_spirit::optional_str(options, "message");
    const json_spirit::Value* number = json_spirit::find(options, "errno");
    const bool known = number != nullptr && number->type() == json_spirit::int_type;
    account_.note(type, name, number != nullptr ? *number : json_spirit::Value(), message);
    const int why = known ? static_cast<int>(number->get_int64()) : 0;
    catalog_.add_problem(
        {type == "directory" ? Catalog_Problem::NOT_LISTED : Catalog_Problem::SKIPPED, path, why, message});
    const bool source = sources_.count(path) != 0;
    // Without a number nobody could be asked; with this one the service has said that there is no such object.
    if (type != "directory" && refused_ == 0 && (!source || !known || why != ENOENT)) {
      unanswered_ += source;
      const std::lock_guard<std::mutex> guard(mutex_);
      if (source || unseen_objects_.size() < MAX_UNSEEN)
        unseen_objects_.push_back(path);
      else
        more_unseen_ = true;
    }
  }
  return handler_.null() ? 0 : handler_->notify_event(code, options);
}

int Listing_Events::handle_progress(int code, unsigned long long a, unsigned long long b, unsigned long long c) {
  return handler_.null() ? 0 : handler_->handle_progress(code, a, b, c);
}

bool Listing_Events::canceling() {
  return stopping_ || (!handler_.null() && handler_->is_canceling());
}

bool Listing_Events::pausing() {
  return !handler_.null() && handler_->pausing();
}

void Listing_Events::settle() {
  const unsigned long long files = skipped_files() - std::min<unsigned long long>(skipped_files(), refused_ + cut_);
  account_.lister_skipped(files);
  if (handler_.null())
    return;
  handler_->add_skipped_files(files);
  handler_->add_skipped_dirs(skipped_dirs());
}

bool Backup_Listing::take(const Cat_Blk& block) {
  if (!block.valid()) {
    error_ = "the source lister gave a damaged block";
    return false;
  }
  switch (block.hdr().type()) {
  case MTF_CAT_DIRB_BLK:
    return enter(block.name());
  case MTF_CAT_FILE_BLK:
    return object(block);
  default:
    return true;
  }
}

bool Backup_Listing::finish() {
  return end_folder() && hand_over();
}

bool Backup_Listing::end_folder() {
  if (visit_.first == 0)
    return true;
  const bool done = catalog_.add_visit(visit_);
  visit_.first = 0;
  return done;
}

/// The object in the making is one for the catalog.
bool Backup_Listing::keep() {
  known_[known_count_].ordinal = ordinal_;
  return ++known_count_ < KNOWN_AT_ONCE || hand_over();
}

bool Backup_Listing::hand_over() {
  const bool done = known_count_ == 0 || catalog_.add_objects(known_, known_count_);
  known_count_ = 0;
  return done;
}

bool Backup_Listing::enter(const std::string& name) {
  if (!end_folder())
    return false;
  std::string path = name;
  std::replace(path.begin(), path.end(), '\0', '/');
  if (path.empty() || path.back() != '/') {
    error_ = "the source lister gave a folder without a name";
    return false;
  }
  folder_ = std::make_shared<const std::string>(std::move(path));
  return catalog_.add_folder(*folder_);
}

bool Backup_Listing::object(const Cat_Blk& block) {
  if (!folder_) {
    error_ = "the source lister gave an object outside of any folder";
    return false;
  }
  account_.handed_out();
  if (visit_.first == 0)
    watch_.saw(*folder_);
  std::string name = block.name();
  const unsigned long long size = block.hdr().size();
  const long long mtime = block.mtime();
  ++ordinal_;
  if (name.find('\0') != std::string::npos) {
    // Readers take paths as C strings: the object asked for would be another one.
    account_.skipped(*folder_ + name, "A key with a NUL byte is not supported.");
    return true;
  }
  if (visit_.first == 0 && base_ != nullptr && !base_->enter(*folder_)) {
    error_ = base_->error();
    return false;
  }
  if (visit_.first == 0 && partial_ != nullptr && !partial_->enter(*folder_)) {
    error_ = partial_->error();
    return false;
  }
  visit(name);
  if (known_.size() < KNOWN_AT_ONCE)
    known_.resize(KNOWN_AT_ONCE);
  Catalog_Object& known = known_[known_count_];
  std::unique_ptr<Catalog_Object> older;
  if (base_ != nullptr)
    switch (base_->match(name, size, mtime, known)) {
    case Backup_Base::Match::UNCHANGED:
      return stored_already(known, false);
    case Backup_Base::Match::CHANGED:
      older = std::make_unique<Catalog_Object>(known);
      break;
    case Backup_Base::Match::NONE:
      break;
    }
  if (base_ != nullptr && !base_->error().empty()) {
    error_ = base_->error();
    return false;
  }
  if (partial_ != nullptr && partial_->find(name, size, mtime, known)) {
    return stored_already(known, true);
  }
  if (partial_ != nullptr && !partial_->error().empty()) {
    error_ = partial_->error();
    return false;
  }
  auto item = std::make_unique<Backup_Item>();
  item->folder = folder_;
  item->name = std::move(name);
  item->size = item->listed_size = size;
  item->mtime = item->listed_mtime = mtime;
  item->ordinal = ordinal_;
  item->older = std::move(older);
  return queue_.push(std::move(item));
}

/// The object's data need not be read.
bool Backup_Listing::stored_already(Catalog_Object& object, bool continued) {
  if (update_ != nullptr && update_->lacks(object.attributes)) {
    auto item = std::make_unique<Backup_Item>();
    item->folder = folder_;
    item->name = object.path.substr(folder_->size());
    item->ordinal = object.ordinal = ordinal_;
    item->known = std::make_unique<Catalog_Object>(object);
    item->continued = continued;
    return queue_.push(std::move(item));
  }
  if (continued)
    account_.continued(object.size);
  else
    account_.unchanged();
  if (has_tags_not_saved(object.attributes))
    account_.without_tags();
  return keep();
}

/// Takes the object that has just been numbered into the folder's run.
void Backup_Listing::visit(const std::string& name) {
  if (visit_.first == 0) {
    visit_.folder = *folder_;
    visit_.first = ordinal_;
    visit_.ascending = true;
  } else if (name <= last_name_) {
    visit_.ascending = false;
  }
  visit_.last = ordinal_;
  last_name_ = name;
}

bool Backup_Listing::carry(Catalog_Object& object) {
  const size_t name = object.path.rfind('/') + 1;
  const std::string folder = object.path.substr(0, name);
  if (!folder_ || *folder_ != folder) {
    if (!end_folder() || !catalog_.add_folder(folder))
      return false;
    folder_ = std::make_shared<const std::string>(folder);
  }
  object.ordinal = ++ordinal_;
  object.flags |= catalog::FLAG_UNSEEN;
  visit(object.path.substr(name));
  return catalog_.add_object(object);
}

bool Backup_Listing::compare(const Unlisted& unlisted, const std::list<std::string>& sources, const IFilter* filter) {
  if (base_ == nullptr)
    return true;
  const std::vector<std::string> paths = listed_paths(sources);
  bool done = true;
  const auto take_over = [&](const std::string& path) {
    done = done &&
           base_->not_shown(
               path, true, [&](const Catalog_Object& object) { return is_asked_for(object.path, path.size(), filter); },
               [this](Catalog_Object& object) { return carry(object); });
  };
  for (const std::string& one : unlisted.prefixes) {
    std::string path = without_root(one);
    if (!path.empty() && path.back() != '/')
      path.push_back('/');
    take_over(path);
  }
  for (const std::string& path : unlisted.objects)
    take_over(path);
  if (unlisted.anything)
    for (const std::string& path : paths)
      take_over(path);
  unsigned long long gone = 0;
  Run_Account::Deselected deselected;
  for (const std::string& path : paths)
    done = done && base_->not_shown(
                       path, false,
                       [&](const Catalog_Object& object) {
                         const bool asked = is_asked_for(object.path, path.size(), filter);
                         deselected.excluded += !asked;
                         return asked;
                       },
                       [&](Catalog_Object& object) {
                         ++gone;
                         watch_.gone(object.path);
                         return catalog_.add_deletion({object.path, object.size, object.mtime});
                       });
  const Listed_Paths listed(paths);
  size_t ignored = 0;
  if (!listed.everything())
    done = done && base_->not_shown(
                       "", false,
                       [&](const Catalog_Object& object) {
                         deselected.outside += !listed.cover(object.path, ignored);
                         return false;
                       },
                       [](Catalog_Object&) { return true; });
  account_.deleted(gone);
  account_.deselected(deselected);
  if (!done)
    error_ = base_->error();
  return done;
}
