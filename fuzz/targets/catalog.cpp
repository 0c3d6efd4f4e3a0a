#include "fuzz/fuzz_target.h"

#include "platform/catalog/catalog_reader.h"

#include <cstdlib>
#include <memory>
#include <unistd.h>

// A damaged catalog file: everything that readers of a catalog are asked, page by page, each within bounds that a whole
// catalog of this size cannot reach.

namespace {

constexpr unsigned MANY = 100000;

/// A folder with the file: SQLite goes by the name, so that a file without one does not do.
class Folder {
public:
  Folder() : path_("/dev/shm/fuzz_catalog.XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
      path_ = "/tmp/fuzz_catalog.XXXXXX";
      if (::mkdtemp(path_.data()) == nullptr)
        std::abort();
    }
    file_ = std::make_unique<Fuzz_File>(path_ + "/" + catalog::FILE_NAME);
  }
  ~Folder() {
    file_.reset();
    ::rmdir(path_.c_str());
  }
  const std::string& path() const { return path_; }
  void fill(std::string_view bytes) { file_->fill(bytes); }

private:
  std::string path_;
  std::unique_ptr<Fuzz_File> file_;
};

void list_all(Catalog_Reader& catalog, const std::string& path, unsigned depth, unsigned& asked) {
  std::string error, marker;
  unsigned pages = 0;
  Catalog_Page page;
  do {
    if (++pages > MANY)
      fuzz_fail("a folder has no last page");
    if (++asked > 2000 || !catalog.list(path, marker, 3, page, error))
      return;
    if (page.truncated && page.next_marker.empty())
      fuzz_fail("a page is not the last one and does not say where the next begins");
    marker = page.next_marker;
    if (depth < 6)
      for (const std::string& folder : page.folders)
        list_all(catalog, folder, depth + 1, asked);
  } while (page.truncated);
}

} // namespace

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {"CREATE TABLE",    "objects",       "folders", "visits", "meta",
                                                 "SQLite format 3", "WITHOUT ROWID", "bucket/", "INTEGER"};
  return words;
}

void fuzz_one(std::string_view input) {
  static Folder folder;
  folder.fill(input);

  std::string error;
  const auto catalog = Catalog_Reader::open(folder.path(), error);
  if (!catalog) {
    if (error.empty())
      fuzz_fail("a catalog is refused without a reason");
    return;
  }
  catalog->set_uuid();
  unsigned asked = 0;
  list_all(*catalog, "", 0, asked);

  std::vector<std::string> paths;
  unsigned told = 0;
  catalog->walk(
      "",
      [&](const Catalog_Object& object) {
        if (paths.size() < 8)
          paths.push_back(object.path);
        return ++told < MANY;
      },
      error);
  catalog->walk(
      "bucket/a/", [&](const Catalog_Object&) { return ++told < MANY; }, error);

  Catalog_Object object;
  for (const std::string& path : paths) {
    catalog->find(path, object, error);
    const size_t slash = path.rfind('/');
    if (slash != std::string::npos && catalog->enter(path.substr(0, slash + 1), error)) {
      catalog->match(path.substr(slash + 1), object, error);
      catalog->match("zzz", object, error);
    }
  }
  catalog->find("bucket/nothing", object, error);
  catalog->has_folder("bucket/a/", error);

  Catalog_Selection selection;
  catalog->walk_media(
      selection, [&](const Catalog_Object&) { return ++told < 2 * MANY; }, error);
  selection.folders = {"bucket/a/", "bucket/nowhere/"};
  selection.objects = paths;
  catalog->walk_media(
      selection, [&](const Catalog_Object&) { return ++told < 3 * MANY; }, error);
  unsigned long long objects = 0, bytes = 0;
  std::vector<std::string> unmatched;
  catalog->count(selection, objects, bytes, unmatched, error);
  catalog->problems([&](const Catalog_Problem&) { return ++told < 4 * MANY; }, error);
}
