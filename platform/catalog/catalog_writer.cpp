#include "platform/catalog/catalog_writer.h"

#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_sum.h"
#include "platform/pool/durable_file.h"
#include "platform/pool/pool_files.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <variant>
#include <vector>

#include <xxhash.h>

namespace {

/// Rows that may wait for the database. A row is a few hundred bytes; a path, and what services keep beside an object,
/// are at most some thousand each. Rows that were written keep their memory for those that follow.
constexpr size_t QUEUE_LIMIT = 2048;
/// Texts of attributes whose ids are at hand.
constexpr size_t KNOWN_ATTRIBUTES = 1024;
constexpr size_t KNOWN_ATTRIBUTES_BYTES = 1u << 20;
/// Rows for which the database's thread is woken; fewer wait for others, or for the end.
constexpr size_t WORTH_WAKING = 1024;

const char* const SCHEMA = R"(
CREATE TABLE meta(name TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE sets(idx INTEGER PRIMARY KEY, uuid TEXT NOT NULL, uri TEXT NOT NULL, seq INTEGER NOT NULL);
CREATE TABLE folders(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, path BLOB NOT NULL UNIQUE);
CREATE TABLE visits(first INTEGER PRIMARY KEY, last INTEGER NOT NULL, folder INTEGER NOT NULL,
                    ascending INTEGER NOT NULL);
CREATE TABLE objects(ordinal INTEGER PRIMARY KEY, name BLOB NOT NULL, size INTEGER NOT NULL, mtime INTEGER NOT NULL,
                     place INTEGER NOT NULL, channel INTEGER NOT NULL, position INTEGER NOT NULL,
                     stored INTEGER NOT NULL, sha256 BLOB NOT NULL, flags INTEGER NOT NULL, attributes INTEGER,
                     own BLOB);
CREATE TABLE attributes(id INTEGER PRIMARY KEY, digest INTEGER NOT NULL, text BLOB NOT NULL);
CREATE INDEX attributes_digest ON attributes(digest);
CREATE TABLE problems(id INTEGER PRIMARY KEY, kind INTEGER NOT NULL, path BLOB NOT NULL, number INTEGER NOT NULL,
                      message TEXT NOT NULL);
CREATE TABLE deletions(id INTEGER PRIMARY KEY, path BLOB NOT NULL, size INTEGER NOT NULL, mtime INTEGER NOT NULL);
)";

std::string_view name_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string_view(path) : std::string_view(path).substr(slash + 1);
}

struct Folder {
  std::string path;
};

/// The first `count` of `objects`.
struct Batch {
  std::vector<Catalog_Object> objects;
  size_t count = 0;
};

typedef std::variant<Catalog_Object, Folder, Catalog_Visit, Catalog_Problem, Catalog_Deletion, Catalog_Set> Row;

bool sync_opened(int fd, const std::string& path, std::string& error) {
  if (fd < 0 || ::fsync(fd) != 0) {
    error = "cannot sync " + path + ": " + std::strerror(errno);
    if (fd >= 0)
      ::close(fd);
    return false;
  }
  ::close(fd);
  return true;
}

class Catalog_Writer_Impl : public Catalog_Writer {
public:
  Catalog_Writer_Impl(const std::string& folder, const Set_Cipher_ptr& cipher)
      : folder_(folder), path_(folder + "/" + catalog::FILE_NAME), cipher_(cipher) {}

  ~Catalog_Writer_Impl() override {
    fail("given up");
    stop();
  }

  bool open(std::string& error) {
    // SQLite would open a file that is there; two catalogs must never meet in one.
    const int fd = open_pool_file(path_, O_CREAT | O_EXCL | O_WRONLY);
    if (fd < 0) {
      error = "cannot make catalog " + path_ + ": " + std::strerror(errno);
      return false;
    }
    ::close(fd);
    std::string why;
    // Nothing refers to the file before the set's record does, so a torn one costs nothing and needs no journal.
    if (!db_.open(path_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, why, cipher_) ||
        !db_.execute("PRAGMA locking_mode=EXCLUSIVE; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF;"
                     "PRAGMA temp_store=FILE; PRAGMA cache_size=-4096; BEGIN",
                     why) ||
        !db_.execute(SCHEMA, why) || !prepare(why)) {
      error = "cannot make catalog " + path_ + ": " + why;
      return false;
    }
    try {
      thread_ = std::thread([this] { run(); });
    } catch (const std::exception& e) {
      error = std::string("cannot start the catalog's thread: ") + e.what();
      return false;
    }
    return true;
  }

  bool add_object(const Catalog_Object& object) override { return add(object); }
  bool add_objects(std::vector<Catalog_Object>& objects, size_t count) override {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!wait_for_room(lock))
      return false;
    Batch batch;
    if (!spare_.empty()) {
      batch = std::move(spare_.back());
      spare_.pop_back();
    }
    batch.objects.swap(objects);
    batch.count = count;
    batches_.push_back(std::move(batch));
    queued(count);
    return true;
  }
  bool add_folder(const std::string& path) override { return add(Folder{path}); }
  bool add_visit(const Catalog_Visit& visit) override { return add(visit); }
  bool add_problem(const Catalog_Problem& problem) override { return add(problem); }
  bool add_deletion(const Catalog_Deletion& deletion) override { return add(deletion); }
  bool add_set(const Catalog_Set& set) override { return add(set); }

  bool finish() override {
    stop();
    if (failed_)
      return false;
    std::string why;
    if (!complete(why)) {
      fail("cannot write catalog " + path_ + ": " + why);
      return false;
    }
    return true;
  }

  const Catalog_Counts& counts() const override { return counts_; }

  std::string error() const override {
    std::lock_guard<std::mutex> guard(mutex_);
    return error_;
  }

private:
  bool prepare(std::string& error) {
    return object_.prepare(db_.get(), "INSERT INTO objects VALUES(?,?,?,?,?,?,?,?,?,?,?,?)", error) &&
           attributes_id_.prepare(db_.get(), "SELECT id FROM attributes WHERE digest=? AND text=?", error) &&
           add_attributes_.prepare(db_.get(), "INSERT INTO attributes(digest,text) VALUES(?,?)", error) &&
           folder_id_.prepare(db_.get(), "SELECT id FROM folders WHERE path=?", error) &&
           add_folder_.prepare(db_.get(), "INSERT INTO folders(parent,path) VALUES(?,?)", error) &&
           visit_.prepare(db_.get(), "INSERT INTO visits VALUES(?,?,?,?)", error) &&
           problem_.prepare(db_.get(), "INSERT INTO problems(kind,path,number,message) VALUES(?,?,?,?)", error) &&
           deletion_.prepare(db_.get(), "INSERT INTO deletions(path,size,mtime) VALUES(?,?,?)", error) &&
           set_.prepare(db_.get(), "INSERT INTO sets VALUES(?,?,?,?)", error) &&
           meta_.prepare(db_.get(), "INSERT INTO meta VALUES(?,?)", error);
  }

  template <class Kind>
  bool add(const Kind& row) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!wait_for_room(lock))
      return false;
    if (single_ < queue_.size())
      queue_[single_] = row; // into the strings of a row of the same kind, most often
    else
      queue_.emplace_back(row);
    ++single_;
    queued(1);
    return true;
  }

  bool wait_for_room(std::unique_lock<std::mutex>& lock) {
    room_.wait(lock, [this] { return queued_ < QUEUE_LIMIT || failed_; });
    return !failed_;
  }

  void queued(size_t rows) {
    if (queued_ < WORTH_WAKING && queued_ + rows >= WORTH_WAKING)
      rows_.notify_one();
    queued_ += rows;
  }

  void fail(const std::string& error) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (!failed_)
      error_ = error;
    failed_ = true;
    room_.notify_all();
  }

  void stop() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      closing_ = true;
      rows_.notify_all();
    }
    if (thread_.joinable())
      thread_.join();
  }

  void run() {
    pthread_setname_np(pthread_self(), "Catalog");
    std::vector<Row> rows;
    std::vector<Batch> batches;
    size_t count = 0;
    for (;;) {
      {
        std::unique_lock<std::mutex> lock(mutex_);
        for (Batch& batch : batches)
          spare_.push_back(std::move(batch));
        batches.clear();
        rows_.wait(lock, [this] { return queued_ >= WORTH_WAKING || closing_; });
        if (queued_ == 0 || failed_)
          return;
        rows.swap(queue_);
        batches.swap(batches_);
        count = single_;
        queued_ = single_ = 0;
        room_.notify_all();
      }
      bool done = true;
      for (size_t i = 0; done && i < count; ++i)
        done = std::visit([this](const auto& row) { return write(row); }, rows[i]);
      for (size_t i = 0; done && i < batches.size(); ++i)
        done = write(batches[i]);
      if (!done) {
        fail("cannot write catalog " + path_ + ": " + catalog_error(db_.get()));
        return;
      }
    }
  }

  bool write(const Batch& batch) {
    for (size_t i = 0; i < batch.count; ++i)
      if (!write(batch.objects[i]))
        return false;
    return true;
  }

  bool write(const Catalog_Object& o) {
    unsigned long long attributes = 0;
    if (!o.attributes.common.empty() && (attributes = attributes_id(o.attributes.common)) == 0)
      return false;
    object_.bind(1, o.ordinal)
        .bind_lasting_blob(2, name_of(o.path))
        .bind(3, o.size)
        .bind_signed(4, o.mtime)
        .bind(5, o.set);
    object_.bind(6, o.channel).bind(7, o.offset).bind(8, o.stored).bind(10, o.flags);
    object_.bind_lasting_blob(9, std::string_view(reinterpret_cast<const char*>(o.sha256), sizeof o.sha256));
    if (attributes != 0)
      object_.bind(11, attributes);
    else
      object_.bind_null(11);
    if (!o.attributes.own.empty())
      object_.bind_lasting_blob(12, o.attributes.own);
    else
      object_.bind_null(12);
    ++counts_.objects;
    counts_.bytes += o.size;
    if (o.set == 0)
      counts_.stored += o.stored;
    return object_.run();
  }

  bool write(const Folder& f) { return folder_id(f.path) != 0; }

  bool write(const Catalog_Visit& v) {
    const unsigned long long folder = folder_id(v.folder);
    return folder != 0 && visit_.bind(1, v.first).bind(2, v.last).bind(3, folder).bind(4, v.ascending ? 1 : 0).run();
  }

  bool write(const Catalog_Problem& p) {
    ++counts_.problems;
    problem_.bind(1, unsigned(p.kind)).bind_blob(2, p.path).bind_signed(3, p.number).bind_text(4, p.message);
    return problem_.run();
  }

  bool write(const Catalog_Deletion& d) {
    ++counts_.deletions;
    return deletion_.bind_blob(1, d.path).bind(2, d.size).bind_signed(3, d.mtime).run();
  }

  bool write(const Catalog_Set& s) {
    return set_.bind(1, s.index).bind_text(2, s.uuid).bind_text(3, s.uri).bind(4, s.seq).run();
  }

  /// The id of the text, kept once however many objects have it; 0 on failure. What was looked up last is at hand, and
  /// the table that is forgotten when it is full keeps memory bounded where every object has a text of its own.
  unsigned long long attributes_id(const std::string& text) {
    if (last_attributes_id_ != 0 && text == last_attributes_)
      return last_attributes_id_;
    last_attributes_ = text;
    return last_attributes_id_ = look_attributes_up(text);
  }

  unsigned long long look_attributes_up(const std::string& text) {
    const auto known = known_attributes_.find(text);
    if (known != known_attributes_.end())
      return known->second;
    const unsigned long long digest = XXH3_64bits(text.data(), text.size());
    unsigned long long id = 0;
    int found;
    {
      Catalog_Reset reset(attributes_id_);
      found = attributes_id_.bind(1, digest).bind_blob(2, text).step();
      if (found == SQLITE_ROW)
        id = attributes_id_.number(0);
    }
    if (found == SQLITE_DONE && add_attributes_.bind(1, digest).bind_blob(2, text).run())
      id = static_cast<unsigned long long>(sqlite3_last_insert_rowid(db_.get()));
    known_bytes_ += text.size();
    if (known_attributes_.size() >= KNOWN_ATTRIBUTES || known_bytes_ > KNOWN_ATTRIBUTES_BYTES) {
      known_attributes_.clear();
      known_bytes_ = text.size();
    }
    if (id != 0)
      known_attributes_.emplace(text, id);
    return id;
  }

  /// The id of the folder, made with those above it when it is new; 0 on failure.
  unsigned long long folder_id(const std::string& path) {
    if (path.empty())
      return 0;
    if (path == last_folder_)
      return last_id_;
    int found;
    {
      Catalog_Reset reset(folder_id_);
      found = folder_id_.bind_blob(1, path).step();
      if (found == SQLITE_ROW)
        last_id_ = folder_id_.number(0);
    }
    if (found == SQLITE_DONE) {
      // Found from the right, the last byte being the folder's own "/".
      const size_t slash = path.size() < 2 ? std::string::npos : path.rfind('/', path.size() - 2);
      const unsigned long long parent = slash == std::string::npos ? 0 : folder_id(path.substr(0, slash + 1));
      if ((slash != std::string::npos && parent == 0) || !add_folder_.bind(1, parent).bind_blob(2, path).run())
        return 0;
      last_id_ = static_cast<unsigned long long>(sqlite3_last_insert_rowid(db_.get()));
      ++counts_.folders;
    } else if (found != SQLITE_ROW) {
      return 0;
    }
    last_folder_ = path;
    return last_id_;
  }

  bool write_meta(const char* name, unsigned long long value) { return meta_.bind_text(1, name).bind(2, value).run(); }

  bool complete(std::string& error) {
    if (!write_meta("objects", counts_.objects) || !write_meta("bytes", counts_.bytes) ||
        !write_meta("stored", counts_.stored) || !write_meta("folders", counts_.folders) ||
        !write_meta("problems", counts_.problems) || !write_meta("deletions", counts_.deletions)) {
      error = catalog_error(db_.get());
      return false;
    }
    // The version says that the catalog is whole: until now it is 0.
    const std::string end = "CREATE INDEX folders_parent ON folders(parent, path);"
                            "CREATE INDEX visits_folder ON visits(folder, first);"
                            "PRAGMA application_id=" +
                            std::to_string(catalog::APPLICATION_ID) +
                            "; PRAGMA user_version=" + std::to_string(catalog::FORMAT_VERSION) + "; COMMIT";
    if (!db_.execute(end.c_str(), error))
      return false;
    for (Catalog_Statement* statement : {&object_, &folder_id_, &add_folder_, &visit_, &problem_, &deletion_, &set_,
                                         &meta_, &attributes_id_, &add_attributes_})
      *statement = Catalog_Statement();
    return db_.close(error) && sync_opened(open_pool_file(path_, O_RDWR), path_, error) &&
           sync_folder(folder_, error) && write_catalog_sum(folder_, error);
  }

  const std::string folder_;
  const std::string path_;
  const Set_Cipher_ptr cipher_;
  Catalog_Db db_;
  Catalog_Statement object_, folder_id_, add_folder_, visit_, problem_, deletion_, set_, meta_, attributes_id_,
      add_attributes_;
  std::unordered_map<std::string, unsigned long long> known_attributes_;
  size_t known_bytes_ = 0;
  std::string last_attributes_;
  unsigned long long last_attributes_id_ = 0; ///< 0: none yet
  std::string last_folder_;
  unsigned long long last_id_ = 0;
  Catalog_Counts counts_;

  mutable std::mutex mutex_; ///< guards the queue, `closing_` and `error_`
  std::condition_variable rows_;
  std::condition_variable room_;
  std::vector<Row> queue_; ///< the first `single_` wait
  size_t single_ = 0;
  std::vector<Batch> batches_;
  std::vector<Batch> spare_; ///< the memory of batches that were written
  size_t queued_ = 0;        ///< rows, those of batches among them
  bool closing_ = false;
  std::string error_;
  std::atomic<bool> failed_{false};
  std::thread thread_;
};

} // namespace

std::unique_ptr<Catalog_Writer> Catalog_Writer::create(const std::string& folder, std::string& error,
                                                       const Set_Cipher_ptr& cipher) {
  std::unique_ptr<Catalog_Writer_Impl> writer(new Catalog_Writer_Impl(folder, cipher));
  if (!writer->open(error))
    return nullptr;
  return writer;
}
