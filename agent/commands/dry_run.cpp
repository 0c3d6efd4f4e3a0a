#include "agent/commands/dry_run.h"

#include "agent/commands/browse_page.h"
#include "agent/commands/open_set.h"
#include "agent/times.h"
#include "sdk/file_backup/file_backup.h"
#include "sdk/mtf/filter.h"

#include <cstdio>
#include <memory>

namespace {

class Dry_Run {
public:
  Dry_Run(Context& context, const Account& account, const MTF::IFilter* filter)
      : context_(context), account_(account), filter_(filter) {}

  /// `path` is "/bucket/", "/bucket/prefix/" or "/bucket/key".
  void source(const std::string& path) {
    if (path.back() == '/')
      folder(path);
    else
      object(path);
  }

  unsigned long long objects = 0;
  unsigned long long bytes = 0;
  unsigned long long excluded = 0;
  unsigned long long skipped = 0; ///< folder objects with data

private:
  /// A folder's own objects first, then its subfolders, as a backup lists them.
  void folder(const std::string& path) {
    std::vector<std::string> subfolders;
    Browse_Page page;
    do {
      page = browse_page(context_, account_.uuid, path, 0, page.marker);
      for (const Browse_Page::File& file : page.files) {
        // A key that equals its folder: nothing is lost with an empty one.
        if (file.name.empty())
          ++(file.size == 0 ? excluded : skipped);
        else if (!MTF::is_included((path + file.name).c_str(), false, filter_))
          ++excluded;
        else
          count(path + file.name, file);
      }
      for (const std::string& name : page.folders)
        if (MTF::is_included((path + name).c_str(), true, filter_))
          subfolders.push_back(path + name);
    } while (page.truncated);
    for (const std::string& subfolder : subfolders)
      folder(subfolder);
  }

  /// The first key that begins with the object's own is the object, if it is there.
  void object(const std::string& path) {
    const Browse_Page page = browse_page(context_, account_.uuid, path, 1, std::string());
    if (page.files.empty() || !page.files.front().name.empty())
      throw Command_Error(has_objects_below(context_, account_.uuid, path) ? folder_instead(path)
                                                                           : "there is no object '" + path + "'");
    count(path, page.files.front());
  }

  void count(const std::string& path, const Browse_Page::File& file) {
    ++objects;
    bytes += file.size;
    if (context_.json) {
      print_json_line(json_spirit::Object{{"file", path}, {"size", file.size}, {"mtime", json_time(file.mtime)}});
      return;
    }
    char size[32];
    std::snprintf(size, sizeof size, "%12llu  ", file.size);
    print_line(size + path);
  }

  Context& context_;
  const Account& account_;
  const MTF::IFilter* filter_;
};

} // namespace

void dry_run(Context& context, const Account& account, const Selection& selection) {
  std::unique_ptr<MTF::IFilter> filter;
  if (!file_backup::make_filter(selection.exclusions, selection.inclusions, filter))
    throw Command_Error(context.log().last_error());
  std::vector<std::string> sources = selection.paths;
  if (sources.empty())
    for (const std::string& bucket : browse_page(context, account.uuid, std::string(), 0, std::string()).folders)
      if (MTF::is_included(bucket.c_str(), true, filter.get()))
        sources.push_back(bucket);

  Dry_Run run(context, account, filter.get());
  for (const std::string& source : sources)
    run.source(source);
  json_spirit::Object json;
  json["objects"] = run.objects;
  json["bytes"] = run.bytes;
  json["excluded"] = run.excluded;
  json["skipped"] = run.skipped;
  context.print(json, std::to_string(run.objects) + " objects, " + human_bytes(run.bytes) + " would be backed up; " +
                          std::to_string(run.excluded) + " listed ones excluded, " + std::to_string(run.skipped) +
                          " skipped");
}
