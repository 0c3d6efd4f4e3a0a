#include "platform/catalog/catalog_reader.h"

#include "platform/catalog/catalog_db.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

namespace {

constexpr const char* OBJECT_COLUMNS =
    "o.ordinal,o.name,o.size,o.mtime,o.place,o.channel,o.position,o.stored,o.sha256,o.flags";
/// Texts of attributes that are at hand.
constexpr size_t KNOWN_ATTRIBUTES = 256;
/// Of a set's uuid or folder, in bytes.
constexpr size_t MAX_SET_TEXT = 4096;

/// The smallest path that lies behind everything below the folder `path`.
std::string end_of(const std::string& path) {
  std::string end = path;
  end.back() = '/' + 1;
  return end;
}

class Catalog_Reader_Impl : public Catalog_Reader {
public:
  Catalog_Reader_Impl(const std::string& folder, const Set_Cipher_ptr& cipher)
      : path_(folder + "/" + catalog::FILE_NAME), cipher_(cipher) {}

  bool open(std::string& error) {
    std::string why;
    if (::access(path_.c_str(), R_OK) != 0)
      why = std::strerror(errno);
    else if (db_.open(path_, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, why, cipher_) &&
             db_.execute("PRAGMA temp_store=FILE; PRAGMA cache_size=-4096", why) && begin(why) && check(why) &&
             db_.check_schema(why) && load(why) && prepare(why))
      return true;
    error = "cannot read catalog " + path_ + ": " + why;
    return false;
  }

  const std::string& set_uuid() const override { return sets_.front().uuid; }
  const Catalog_Counts& counts() const override { return counts_; }
  const std::vector<Catalog_Set>& sets() const override { return sets_; }

  bool has_folder(const std::string& path, std::string& error) override {
    unsigned long long id = 0;
    return path.empty() || folder_id(path, id, error);
  }

  bool find(const std::string& path, Catalog_Object& object, std::string& error) override {
    error.clear();
    const size_t slash = path.rfind('/');
    unsigned long long folder = 0;
    if (slash == std::string::npos || !folder_id(path.substr(0, slash + 1), folder, error))
      return false;
    const std::string_view name = std::string_view(path).substr(slash + 1);
    const std::string_view base = std::string_view(path).substr(0, slash + 1);
    Catalog_Reset reset(visits_);
    int step;
    visits_.bind(1, folder).bind(2, 0);
    while ((step = visits_.step()) == SQLITE_ROW) {
      const unsigned long long first = visits_.number(0);
      const unsigned long long last = visits_.number(1);
      const bool found = visits_.number(2) != 0 ? search(first, last, name, base, object, error)
                                                : scan(first, last, name, base, object, error);
      if (found || !error.empty())
        return found;
    }
    return step == SQLITE_DONE ? false : failed(visits_, error);
  }

  bool list(const std::string& path, const std::string& marker, unsigned limit, Catalog_Page& page,
            std::string& error) override {
    page = Catalog_Page();
    error.clear();
    unsigned long long folder = 0;
    if (!path.empty() && !folder_id(path, folder, error))
      return error.empty();
    unsigned left = limit;
    if (marker.empty() || marker.front() == 'f') {
      Catalog_Reset reset(children_);
      children_.bind(1, folder).bind_blob(2, marker.empty() ? std::string_view() : std::string_view(marker).substr(1));
      int step;
      while ((step = children_.step()) == SQLITE_ROW) {
        if (left == 0) {
          page.truncated = true;
          page.next_marker = "f" + std::string(children_.blob(0));
          return true;
        }
        page.folders.emplace_back(children_.blob(0));
        --left;
      }
      if (step != SQLITE_DONE)
        return failed(children_, error);
    }
    if (path.empty())
      return true;
    const unsigned long long from =
        !marker.empty() && marker.front() == 'o' ? std::strtoull(marker.c_str() + 1, nullptr, 10) : 0;
    Catalog_Reset reset(visits_);
    visits_.bind(1, folder).bind(2, from);
    int step;
    while ((step = visits_.step()) == SQLITE_ROW) {
      Catalog_Reset rows(range_);
      range_.bind(1, std::max(from, visits_.number(0))).bind(2, visits_.number(1));
      int row;
      while ((row = range_.step()) == SQLITE_ROW) {
        if (left == 0) {
          page.truncated = true;
          page.next_marker = "o" + std::to_string(range_.number(0));
          return true;
        }
        page.objects.emplace_back();
        fill(range_, path, page.objects.back());
        --left;
      }
      if (row != SQLITE_DONE)
        return failed(range_, error);
    }
    return step == SQLITE_DONE || failed(visits_, error);
  }

  bool enter(const std::string& path, std::string& error) override {
    error.clear();
    entered_ = path;
    scanning_ = false;
    matched_.clear();
    row_ = SQLITE_DONE;
    unsigned long long folder = 0;
    folder_there_ = folder_id(path, folder, error);
    if (!folder_there_)
      return error.empty();
    // Only the names of a single rising run can be met by a scan.
    Catalog_Reset reset(visits_);
    if (visits_.bind(1, folder).bind(2, 0).step() != SQLITE_ROW || visits_.number(2) == 0)
      return true;
    scan_.reset();
    scan_.bind(1, visits_.number(0)).bind(2, visits_.number(1));
    if (visits_.step() != SQLITE_DONE)
      return true;
    scanning_ = true;
    row_ = scan_.step();
    return row_ == SQLITE_ROW || row_ == SQLITE_DONE || failed(scan_, error);
  }

  bool match(const std::string& name, Catalog_Object& object, std::string& error) override {
    error.clear();
    if (!folder_there_)
      return false;
    if (!scanning_ || (!matched_.empty() && name <= matched_))
      return find(entered_ + name, object, error);
    matched_ = name;
    while (row_ == SQLITE_ROW) {
      const int order = scan_.blob(1).compare(name);
      if (order > 0)
        return false;
      if (order == 0)
        fill(scan_, entered_, object);
      row_ = scan_.step();
      if (order == 0)
        return true;
    }
    return row_ == SQLITE_DONE ? false : failed(scan_, error);
  }

  bool walk(const std::string& path, const std::function<bool(const Catalog_Object&)>& told, std::string& error,
            const Narrow& narrow) override {
    // Statements of its own, so that `told` may use the reader's.
    Catalog_Statement visits, objects;
    if (!visits.prepare(db_.get(),
                        path.empty() ? "SELECT v.first,v.last,f.path FROM visits v JOIN folders f ON f.id=v.folder "
                                       "ORDER BY v.first"
                                     : "SELECT v.first,v.last,f.path FROM folders f JOIN visits v ON v.folder=f.id "
                                       "WHERE f.path>=?1 AND f.path<?2 ORDER BY v.first",
                        error) ||
        !objects.prepare(db_.get(), objects_query(" FROM objects o WHERE o.ordinal BETWEEN ? AND ?").c_str(), error))
      return false;
    if (!path.empty())
      visits.bind_blob(1, path).bind_blob(2, end_of(path));
    Catalog_Object object;
    int step;
    while ((step = visits.step()) == SQLITE_ROW) {
      const std::string folder(visits.blob(2));
      const unsigned long long end = visits.number(1);
      unsigned long long first = visits.number(0), last = end;
      // Ends before it counts on: a damaged catalog may have the largest of all ordinals.
      for (bool more = first <= end; more && (!narrow || narrow(first, last)); first = last + 1, last = end) {
        more = last < end;
        objects.reset();
        objects.bind(1, first).bind(2, last);
        int row;
        while ((row = objects.step()) == SQLITE_ROW) {
          fill(objects, folder, object);
          if (!told(object))
            return true;
        }
        if (row != SQLITE_DONE)
          return failed(objects, error);
      }
    }
    return step == SQLITE_DONE || failed(visits, error);
  }

  bool walk_media(const Catalog_Selection& selection, const std::function<bool(const Catalog_Object&)>& told,
                  std::string& error) override {
    Catalog_Statement objects;
    if (!selection.everything() && !select(selection, nullptr, error))
      return false;
    if (!objects.prepare(
            db_.get(),
            selection.everything()
                ? objects_query(" FROM objects o ORDER BY o.place,o.channel,o.position", false).c_str()
                : objects_query(" FROM temp.selected s CROSS JOIN objects o "
                                "ON o.ordinal BETWEEN s.first AND s.last ORDER BY o.place,o.channel,o.position",
                                false)
                      .c_str(),
            error))
      return false;
    Visit visit;
    Catalog_Object object;
    int step;
    while ((step = objects.step()) == SQLITE_ROW) {
      const unsigned long long ordinal = objects.number(0);
      if ((ordinal < visit.first || ordinal > visit.last) && !visit_of(ordinal, visit, error))
        return false;
      fill(objects, visit.folder, object);
      if (!told(object))
        return true;
    }
    return step == SQLITE_DONE || failed(objects, error);
  }

  bool count(const Catalog_Selection& selection, unsigned long long& objects, unsigned long long& bytes,
             std::vector<std::string>& unmatched, std::string& error) override {
    if (selection.everything()) {
      objects = counts_.objects;
      bytes = counts_.bytes;
      return true;
    }
    Catalog_Statement sum;
    if (!select(selection, &unmatched, error) ||
        !sum.prepare(db_.get(),
                     "SELECT count(*),coalesce(sum(o.size),0) FROM temp.selected s CROSS JOIN objects o "
                     "ON o.ordinal BETWEEN s.first AND s.last",
                     error))
      return false;
    if (sum.step() != SQLITE_ROW)
      return failed(sum, error);
    objects = sum.number(0);
    bytes = sum.number(1);
    return true;
  }

  bool check_pages(std::string& error) override {
    Catalog_Statement statement;
    if (!statement.prepare(db_.get(), "PRAGMA quick_check(1)", error))
      return false;
    const int step = statement.step();
    std::string result(step == SQLITE_ROW ? statement.blob(0) : std::string_view());
    if (step == SQLITE_ROW && result == "ok")
      return true;
    const std::string below = catalog_layer_reason(db_.get());
    error = "the catalog " + path_ + " is damaged: " +
            (!below.empty()       ? below
             : step == SQLITE_ROW ? result
                                  : statement.error());
    return false;
  }

  bool problems(const std::function<bool(const Catalog_Problem&)>& told, std::string& error) override {
    Catalog_Statement rows;
    if (!rows.prepare(db_.get(), "SELECT kind,path,number,message FROM problems ORDER BY id", error))
      return false;
    int step;
    while ((step = rows.step()) == SQLITE_ROW) {
      Catalog_Problem problem;
      problem.kind = static_cast<Catalog_Problem::Kind>(rows.number(0));
      problem.path = rows.blob(1);
      problem.number = static_cast<int>(rows.signed_number(2));
      problem.message = rows.blob(3);
      if (!told(problem))
        return true;
    }
    return step == SQLITE_DONE || failed(rows, error);
  }

  bool deletions(const std::function<bool(const Catalog_Deletion&)>& told, std::string& error) override {
    if (version_ < catalog::DELETIONS_SINCE)
      return true;
    Catalog_Statement rows;
    if (!rows.prepare(db_.get(), "SELECT path,size,mtime FROM deletions ORDER BY id", error))
      return false;
    int step;
    while ((step = rows.step()) == SQLITE_ROW)
      if (!told({std::string(rows.blob(0)), rows.number(1), rows.signed_number(2)}))
        return true;
    return step == SQLITE_DONE || failed(rows, error);
  }

private:
  struct Visit {
    unsigned long long first = 1;
    unsigned long long last = 0;
    std::string folder;
  };

  void fill(const Catalog_Statement& row, std::string_view folder, Catalog_Object& object) {
    object.ordinal = row.number(0);
    object.path.assign(folder).append(row.blob(1));
    object.size = row.number(2);
    object.mtime = row.signed_number(3);
    object.set = static_cast<unsigned>(row.number(4));
    object.channel = static_cast<unsigned>(row.number(5));
    object.offset = row.number(6);
    object.stored = row.number(7);
    const std::string_view digest = row.blob(8);
    std::memset(object.sha256, 0, sizeof object.sha256);
    std::memcpy(object.sha256, digest.data(), std::min(digest.size(), sizeof object.sha256));
    object.flags = static_cast<unsigned>(row.number(9));
    object.attributes.common = attributes(row.number(10));
    object.attributes.own.assign(row.blob(11));
  }

  /// The text of that id; empty for 0.
  const std::string& attributes(unsigned long long id) {
    static const std::string none;
    if (id == 0)
      return none;
    if (id == last_id_)
      return *last_text_;
    if (texts_.size() >= KNOWN_ATTRIBUTES && texts_.count(id) == 0)
      texts_.clear();
    const auto [known, added] = texts_.try_emplace(id);
    if (added) {
      Catalog_Reset reset(text_);
      if (text_.bind(1, id).step() == SQLITE_ROW)
        known->second.assign(text_.blob(0));
    }
    last_id_ = id;
    last_text_ = &known->second;
    return known->second;
  }

  /// "SELECT" with the columns that `fill` reads. `own`: with what only one object has, which no sort should carry.
  std::string objects_query(const char* rest, bool own = true) const {
    const char* const columns = version_ < catalog::ATTRIBUTES_SINCE ? ",NULL,NULL"
                                : own                                ? ",o.attributes,o.own"
                                                                     : ",o.attributes,NULL";
    return std::string("SELECT ") + OBJECT_COLUMNS + columns + rest;
  }

  static bool failed(const Catalog_Statement& statement, std::string& error) {
    error = "cannot read catalog: " + statement.error();
    return false;
  }

  bool pragma(const char* sql, unsigned long long& value, std::string& error) {
    Catalog_Statement statement;
    if (!statement.prepare(db_.get(), sql, error))
      return false;
    if (statement.step() != SQLITE_ROW)
      return failed(statement, error);
    value = statement.number(0);
    return true;
  }

  /// One transaction for the reader's whole life: without it each statement takes the file's lock and looks anew
  /// whether somebody has changed the file, which costs more than reading a folder.
  bool begin(std::string& error) { return db_.execute("BEGIN", error); }

  bool check(std::string& error) {
    unsigned long long id = 0, version = 0;
    if (!pragma("PRAGMA application_id", id, error) || !pragma("PRAGMA user_version", version, error))
      return false;
    if (id == 0 && version == 0)
      error = "it was never finished";
    else if (id != catalog::APPLICATION_ID)
      error = "it is no catalog";
    else if (version > unsigned(catalog::FORMAT_VERSION))
      error = "its format " + std::to_string(version) + " is newer than this program's";
    else {
      version_ = static_cast<int>(version);
      return true;
    }
    return false;
  }

  bool load(std::string& error) {
    Catalog_Statement meta, sets;
    if (!meta.prepare(db_.get(), "SELECT name,value FROM meta", error) ||
        !sets.prepare(db_.get(), "SELECT idx,uuid,uri,seq FROM sets ORDER BY idx", error))
      return false;
    int step;
    while ((step = meta.step()) == SQLITE_ROW) {
      const std::string_view name = meta.blob(0);
      unsigned long long* const place = name == "objects"     ? &counts_.objects
                                        : name == "bytes"     ? &counts_.bytes
                                        : name == "stored"    ? &counts_.stored
                                        : name == "folders"   ? &counts_.folders
                                        : name == "problems"  ? &counts_.problems
                                        : name == "deletions" ? &counts_.deletions
                                                              : nullptr;
      if (place != nullptr)
        *place = meta.number(1);
    }
    if (step != SQLITE_DONE)
      return failed(meta, error);
    while ((step = sets.step()) == SQLITE_ROW) {
      if (sets_.size() == Catalog_Guard::MAX_SETS || sets.blob(1).size() > MAX_SET_TEXT ||
          sets.blob(2).size() > MAX_SET_TEXT) {
        error = "it names more sets than there can be, or ones that cannot be";
        return false;
      }
      sets_.push_back(
          {unsigned(sets.number(0)), std::string(sets.blob(1)), std::string(sets.blob(2)), unsigned(sets.number(3))});
    }
    if (step != SQLITE_DONE)
      return failed(sets, error);
    if (sets_.empty() || sets_.front().index != 0) {
      error = "it does not name its own set";
      return false;
    }
    return true;
  }

  bool prepare(std::string& error) {
    if (version_ >= catalog::ATTRIBUTES_SINCE &&
        !text_.prepare(db_.get(), "SELECT text FROM attributes WHERE id=?", error))
      return false;
    return folder_id_.prepare(db_.get(), "SELECT id FROM folders WHERE path=?", error) &&
           children_.prepare(db_.get(), "SELECT path FROM folders WHERE parent=? AND path>=? ORDER BY path", error) &&
           visits_.prepare(
               db_.get(), "SELECT first,last,ascending FROM visits WHERE folder=? AND last>=? ORDER BY first", error) &&
           range_.prepare(db_.get(),
                          objects_query(" FROM objects o WHERE o.ordinal BETWEEN ? AND ? ORDER BY o.ordinal").c_str(),
                          error) &&
           scan_.prepare(db_.get(),
                         objects_query(" FROM objects o WHERE o.ordinal BETWEEN ? AND ? ORDER BY o.ordinal").c_str(),
                         error) &&
           named_.prepare(db_.get(),
                          objects_query(" FROM objects o WHERE o.ordinal BETWEEN ? AND ? AND o.name=?").c_str(),
                          error) &&
           visit_of_.prepare(db_.get(),
                             "SELECT v.first,v.last,f.path FROM visits v JOIN folders f ON f.id=v.folder "
                             "WHERE v.first<=? ORDER BY v.first DESC LIMIT 1",
                             error);
  }

  /// False when the folder is not there, or with `error` on failure.
  bool folder_id(const std::string& path, unsigned long long& id, std::string& error) {
    Catalog_Reset reset(folder_id_);
    const int step = folder_id_.bind_blob(1, path).step();
    if (step == SQLITE_ROW) {
      id = folder_id_.number(0);
      return true;
    }
    return step == SQLITE_DONE ? false : failed(folder_id_, error);
  }

  bool visit_of(unsigned long long ordinal, Visit& visit, std::string& error) {
    Catalog_Reset reset(visit_of_);
    const int step = visit_of_.bind(1, ordinal).step();
    if (step == SQLITE_ROW && visit_of_.number(1) >= ordinal) {
      visit.first = visit_of_.number(0);
      visit.last = visit_of_.number(1);
      visit.folder = visit_of_.blob(2);
      return true;
    }
    if (step != SQLITE_ROW && step != SQLITE_DONE)
      return failed(visit_of_, error);
    error = "catalog is damaged: object " + std::to_string(ordinal) + " lies in no folder";
    return false;
  }

  /// Bisects a run of ascending names. Objects that were not saved leave gaps in the ordinals, so each probe takes the
  /// first object from the middle on.
  bool search(unsigned long long first, unsigned long long last, std::string_view name, std::string_view folder,
              Catalog_Object& object, std::string& error) {
    while (first <= last) {
      const unsigned long long middle = first + (last - first) / 2;
      Catalog_Reset reset(range_);
      const int step = range_.bind(1, middle).bind(2, last).step();
      if (step == SQLITE_ROW) {
        const int order = range_.blob(1).compare(name);
        if (order == 0) {
          fill(range_, folder, object);
          return true;
        }
        if (order < 0) {
          first = range_.number(0) + 1;
          continue;
        }
      } else if (step != SQLITE_DONE) {
        return failed(range_, error);
      }
      if (middle == first)
        return false;
      last = middle - 1;
    }
    return false;
  }

  bool scan(unsigned long long first, unsigned long long last, std::string_view name, std::string_view folder,
            Catalog_Object& object, std::string& error) {
    Catalog_Reset reset(named_);
    const int step = named_.bind(1, first).bind(2, last).bind_blob(3, name).step();
    if (step == SQLITE_ROW)
      fill(named_, folder, object);
    return step == SQLITE_ROW || (step == SQLITE_DONE ? false : failed(named_, error));
  }

  /// Fills the table `selected` with the runs of ordinals that `selection` names, none overlapping another.
  bool select(const Catalog_Selection& selection, std::vector<std::string>* unmatched, std::string& error) {
    if (!db_.execute("CREATE TEMP TABLE IF NOT EXISTS selected(first INTEGER PRIMARY KEY, last INTEGER NOT NULL);"
                     "DELETE FROM temp.selected",
                     error))
      return false;
    Catalog_Statement below, any, covered, one;
    if (!below.prepare(db_.get(),
                       "INSERT OR IGNORE INTO temp.selected SELECT v.first,v.last FROM folders f "
                       "JOIN visits v ON v.folder=f.id WHERE f.path>=? AND f.path<?",
                       error) ||
        !any.prepare(db_.get(),
                     "SELECT 1 FROM folders f JOIN visits v ON v.folder=f.id "
                     "JOIN objects o ON o.ordinal BETWEEN v.first AND v.last WHERE f.path>=? AND f.path<? LIMIT 1",
                     error) ||
        !covered.prepare(db_.get(), "SELECT last FROM temp.selected WHERE first<=? ORDER BY first DESC LIMIT 1",
                         error) ||
        !one.prepare(db_.get(), "INSERT OR IGNORE INTO temp.selected VALUES(?,?)", error))
      return false;
    if (!db_.execute("SAVEPOINT selection", error))
      return false;
    bool done = true;
    for (const std::string& folder : selection.folders) {
      if (folder.empty() || folder.back() != '/')
        continue;
      any.bind_blob(1, folder).bind_blob(2, end_of(folder));
      const bool matches = any.step() == SQLITE_ROW;
      any.reset();
      if (matches)
        done = done && below.bind_blob(1, folder).bind_blob(2, end_of(folder)).run();
      else if (unmatched != nullptr)
        unmatched->push_back(folder);
    }
    for (const std::string& path : selection.objects) {
      Catalog_Object object;
      if (!find(path, object, error)) {
        done = done && error.empty();
        if (unmatched != nullptr && error.empty())
          unmatched->push_back(path);
        continue;
      }
      const bool inside = covered.bind(1, object.ordinal).step() == SQLITE_ROW && covered.number(0) >= object.ordinal;
      covered.reset();
      if (!inside)
        done = done && one.bind(1, object.ordinal).bind(2, object.ordinal).run();
    }
    if (!done && error.empty())
      error = std::string("cannot select from catalog: ") + catalog_error(db_.get());
    return db_.execute("RELEASE selection", error) && done;
  }

  const std::string path_;
  const Set_Cipher_ptr cipher_;
  Catalog_Db db_;
  Catalog_Statement folder_id_, children_, visits_, range_, named_, visit_of_, scan_;
  std::string entered_; ///< folder of `match`
  std::string matched_; ///< the last name that the scan was asked for
  bool folder_there_ = false;
  bool scanning_ = false;
  int row_ = SQLITE_DONE; ///< state of `scan_`
  int version_ = 0;
  Catalog_Statement text_;
  std::unordered_map<unsigned long long, std::string> texts_; ///< of attributes, by id
  unsigned long long last_id_ = 0;                            ///< of the text asked for last; 0: none
  const std::string* last_text_ = nullptr;
  Catalog_Counts counts_;
  std::vector<Catalog_Set> sets_;
};

} // namespace

std::unique_ptr<Catalog_Reader> Catalog_Reader::open(const std::string& folder, std::string& error,
                                                     const Set_Cipher_ptr& cipher) {
  std::unique_ptr<Catalog_Reader_Impl> reader(new Catalog_Reader_Impl(folder, cipher));
  if (!reader->open(error))
    return nullptr;
  return reader;
}
