#pragma once

#include "sdk/mtf/file_attributes.h"

#include <cstdint>
#include <string>

/// The catalog of a set, `catalog.db`: an SQLite database that lies beside the set's media. doc/format/catalog.md has
/// the tables.

namespace catalog {

constexpr const char* FILE_NAME = "catalog.db";
/// "OBSC" as SQLite's application id.
constexpr int APPLICATION_ID = 0x4F425343;
/// SQLite's user version. A reader takes its own and older ones.
constexpr int FORMAT_VERSION = 3;
/// Until then objects had no attributes.
constexpr int ATTRIBUTES_SINCE = 2;
/// Until then deletions were only counted, in the set's record.
constexpr int DELETIONS_SINCE = 3;

/// The object's prefix could not be listed in this run: its entry was carried over from the set before.
constexpr unsigned FLAG_UNSEEN = 1;
/// By the service's own clock the object was modified less than two seconds before it was read: the next run takes it
/// for changed, since another one of the same size may have the same date.
constexpr unsigned FLAG_FRESH = 2;
/// The listing showed another version, which could not be read: this is the one of the set before. The next run reads
/// the object whatever the listing says.
constexpr unsigned FLAG_OLDER = 4;
/// The data were found damaged or missing since: the next run takes the object for changed.
constexpr unsigned FLAG_DAMAGED = 8;
/// The attributes were asked for when the data had been stored already: they are the row's, whatever the medium has.
constexpr unsigned FLAG_ASKED_LATER = 16;

} // namespace catalog

/// An object of a set, and where its data lie.
struct Catalog_Object {
  std::string path;               ///< "bucket/key": bytes
  unsigned long long ordinal = 0; ///< place in the set's listing, from 1; objects that were not saved leave gaps
  unsigned long long size = 0;    ///< bytes of the content
  long long mtime = 0;            ///< seconds since the epoch
  unsigned set = 0;               ///< whose media hold it: index of a Catalog_Set; 0 is the catalog's own set
  unsigned channel = 0;           ///< medium within that set, from 0
  unsigned long long offset = 0;  ///< of its FILE block, bytes from the start of the medium
  unsigned long long stored = 0;  ///< bytes that it takes on the medium
  unsigned char sha256[32] = {};  ///< of the content
  unsigned flags = 0;
  MTF::File_Attributes attributes; ///< what else belongs to it
};

/// A set whose media a catalog points into.
struct Catalog_Set {
  unsigned index = 0;
  std::string uuid;
  std::string uri; ///< folder inside the pool
  unsigned seq = 0;
};

/// Something that was listed and is not in the set, or not with all that belongs to it.
struct Catalog_Problem {
  enum Kind { SKIPPED = 1, FAILED = 2, NOT_LISTED = 3, INCOMPLETE = 4 } kind = SKIPPED;
  std::string path; ///< "bucket/key", or "bucket/prefix" for NOT_LISTED
  int number = 0;   ///< an errno value; 0: none
  std::string message;
};

/// Something that the set before had and that the listing, whole at its place, showed no longer.
struct Catalog_Deletion {
  std::string path;            ///< "bucket/key"
  unsigned long long size = 0; ///< bytes; of what the set before had
  long long mtime = 0;         ///< seconds since the epoch; the same
};

struct Catalog_Counts {
  unsigned long long objects = 0;
  unsigned long long bytes = 0;  ///< of their content
  unsigned long long stored = 0; ///< bytes that those of the catalog's own set take on media
  unsigned long long folders = 0;
  unsigned long long problems = 0;
  unsigned long long deletions = 0;
};

/// A run of consecutive ordinals whose objects lie in one folder. A folder may be visited several times.
struct Catalog_Visit {
  std::string folder; ///< "bucket/a/b/"
  unsigned long long first = 0;
  unsigned long long last = 0; ///< inclusive
  bool ascending = true;       ///< names rise bytewise over the run
};
