#include "platform/catalog/catalog_staging.h"

#include <algorithm>
#include <cstring>

std::unique_ptr<Catalog_Staging> Catalog_Staging::make(std::string& error, const Set_Cipher_ptr& cipher) {
  std::unique_ptr<Catalog_Staging> staging(new Catalog_Staging);
  // An empty name makes a database of its own that spills to a temporary file.
  if (staging->db_.open("", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, error, cipher) &&
      staging->db_.execute("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-8192;"
                           "CREATE TABLE objects(ordinal INTEGER PRIMARY KEY, path BLOB, size INTEGER, mtime INTEGER,"
                           "place INTEGER, channel INTEGER, position INTEGER, stored INTEGER, sha256 BLOB,"
                           "flags INTEGER, common BLOB, own BLOB); BEGIN",
                           error) &&
      staging->add_.prepare(staging->db_.get(), "INSERT OR IGNORE INTO objects VALUES(?,?,?,?,?,?,?,?,?,?,?,?)",
                            error) &&
      staging->read_.prepare(staging->db_.get(), "SELECT * FROM objects ORDER BY ordinal", error))
    return staging;
  return nullptr;
}

bool Catalog_Staging::add(const Catalog_Object& o) {
  add_.bind(1, o.ordinal).bind_blob(2, o.path).bind(3, o.size).bind_signed(4, o.mtime).bind(5, o.set);
  add_.bind(6, o.channel).bind(7, o.offset).bind(8, o.stored).bind(10, o.flags);
  add_.bind_blob(9, std::string_view(reinterpret_cast<const char*>(o.sha256), sizeof o.sha256));
  add_.bind_blob(11, o.attributes.common).bind_blob(12, o.attributes.own);
  if (!add_.run()) {
    error_ = "cannot keep track of the objects: " + add_.error();
    return false;
  }
  if (sqlite3_changes(db_.get()) != 0) {
    ++objects_;
    bytes_ += o.size;
  }
  return true;
}

bool Catalog_Staging::write(Catalog_Writer& catalog) {
  Catalog_Visit visit;
  std::string last_name;
  Catalog_Reset reset(read_);
  int step;
  while ((step = read_.step()) == SQLITE_ROW) {
    Catalog_Object o;
    o.ordinal = read_.number(0);
    o.path = read_.blob(1);
    o.size = read_.number(2);
    o.mtime = read_.signed_number(3);
    o.set = static_cast<unsigned>(read_.number(4));
    o.channel = static_cast<unsigned>(read_.number(5));
    o.offset = read_.number(6);
    o.stored = read_.number(7);
    const std::string_view digest = read_.blob(8);
    std::memcpy(o.sha256, digest.data(), std::min(digest.size(), sizeof o.sha256));
    o.flags = static_cast<unsigned>(read_.number(9));
    o.attributes.common = read_.blob(10);
    o.attributes.own = read_.blob(11);

    const size_t slash = o.path.rfind('/');
    const std::string folder = slash == std::string::npos ? std::string() : o.path.substr(0, slash + 1);
    const std::string name = o.path.substr(folder.size());
    if (folder.empty())
      continue;
    if (visit.first == 0 || visit.folder != folder) {
      if (visit.first != 0 && !catalog.add_visit(visit))
        return false;
      visit.folder = folder;
      visit.first = o.ordinal;
      visit.ascending = true;
      if (!catalog.add_folder(folder))
        return false;
    } else if (name <= last_name) {
      visit.ascending = false;
    }
    visit.last = o.ordinal;
    last_name = name;
    if (!catalog.add_object(o))
      return false;
  }
  if (step != SQLITE_DONE) {
    error_ = "cannot keep track of the objects: " + read_.error();
    return false;
  }
  return visit.first == 0 || catalog.add_visit(visit);
}
