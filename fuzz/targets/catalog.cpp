#include "fuzz/fuzz_cipher.h"
#include "fuzz/fuzz_target.h"
#include "platform/catalog/catalog_moves.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/crypto/aead.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <unistd.h>

// A damaged catalog file, encrypted or not: everything that readers of a catalog are asked, page by page, each within
// bounds that a whole catalog of this size cannot reach.

namespace {

constexpr unsigned MANY = 100000;

// Of a page of an encrypted catalog.
constexpr size_t PAGE = Catalog_Vfs::PAGE;
constexpr size_t CONTENT = PAGE - Catalog_Vfs::RESERVED;
constexpr size_t AT_WRITE = CONTENT + 16;
constexpr size_t AT_MARK = AT_WRITE + 8;
constexpr size_t AT_TAG = PAGE - AEAD_TAG;
constexpr size_t MARK = 4;

/// Whether the first page says that it was encrypted for the set of the inputs.
bool encrypted(std::string_view input) {
  Secret_Key mark;
  return input.size() >= PAGE && fuzz_cipher()->derive("catalog mark", std::string_view(), mark) &&
         std::memcmp(input.data() + AT_MARK, mark.data(), MARK) == 0;
}

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

// What is encrypted is the plain text and a stream of bytes that depends on the key alone: encrypting it once more
// shows the page as the mutation has changed it, and that one gets its tag.
void fuzz_mend(std::string& input) {
  Secret_Key key;
  if (!encrypted(input) || !fuzz_cipher()->derive("catalog", std::string_view(input).substr(CONTENT, 16), key))
    return;
  for (size_t at = 0; at + PAGE <= input.size(); at += PAGE) {
    unsigned char* const page = reinterpret_cast<unsigned char*>(input.data()) + at;
    std::memcpy(page + CONTENT, input.data() + CONTENT, 16);
    unsigned char nonce[AEAD_NONCE] = {}, tag[AEAD_TAG], plain[CONTENT];
    std::memcpy(nonce, page + AT_WRITE, 8);
    std::string bound(page + CONTENT, page + AT_TAG);
    for (unsigned shift = 0; shift < 64; shift += 8)
      bound.push_back(static_cast<char>(static_cast<uint64_t>(at / PAGE + 1) >> shift));
    if (!aead_seal(key, nonce, bound, page, CONTENT, plain, tag) ||
        !aead_seal(key, nonce, bound, plain, CONTENT, page, page + AT_TAG))
      return;
  }
}

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = {
      "CREATE TABLE", "objects",   "folders",         "visits",        "meta",    "moved",
      "moved_sets",   "deletions", "SQLite format 3", "WITHOUT ROWID", "bucket/", "INTEGER"};
  return words;
}

void fuzz_one(std::string_view input) {
  static Folder folder;
  folder.fill(input);

  std::string error;
  const Set_Cipher_ptr cipher = encrypted(input) ? fuzz_cipher() : nullptr;
  if (cipher && Catalog_Reader::open(folder.path(), error))
    fuzz_fail("an encrypted catalog is read without its key");
  error.clear();
  const auto catalog = Catalog_Reader::open(folder.path(), error, cipher);
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
  catalog->deletions([&](const Catalog_Deletion&) { return ++told < 5 * MANY; }, error);
  catalog->check_pages(error);

  const auto moves = Catalog_Moves::open(folder.path(), error, cipher);
  if (!moves)
    return;
  Moved_Object to;
  for (const std::string& set : moves->sets())
    for (unsigned long long at = 0; at < 8; ++at)
      moves->find(set, 0, 4096 * at, to);
  moves->find("none", 1, 0, to);
}
