#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/pool/pool.h"

#include <memory>
#include <string>
#include <vector>

/// Of the record's figures: the catalog was made anew without an operator, and it is not known which of its rows were
/// marked as damaged.
constexpr const char* MARKS_LOST = "marks_lost";

struct Rebuild_Report {
  Set_Record record;
  /// The copy of the catalog that the set's first medium ends with was whole: the catalog is what it was. Else it was
  /// made of what lies on the media, and does not know the objects whose data lie in other sets.
  bool exact = false;
  bool record_made = false; ///< there was no readable record
  unsigned long long objects = 0;
  /// Without the copy, of a merged set: objects on its media that only catalogs of other sets point to, and that are
  /// left out. None where an earlier version merged it: there they are among `objects`.
  unsigned long long of_others = 0;
  std::vector<std::string> problems; ///< damage that was met
};

/// Makes the catalog of the set in the folder `uri`, and its record where that cannot be read, from its media alone.
/// What is there is replaced at the end, at once; a rebuild that is cut short has changed nothing. Nor has one without
/// a copy that can be read, where record and catalog that are there are whole: media alone know less. The caller has
/// locked the pool. False with the reason.
bool rebuild_catalog(const Pool& pool, const std::string& uri, Rebuild_Report& report, std::string& error);

/// Opens the catalog of a set for whoever builds on what it says, after it was compared with its check
/// (open_checked_catalog). One that is damaged is made anew from the copy that the set's media end with, and `mended`
/// says so; marks of `verify --mark` are lost with it, so what it says of data that were marked is not to be trusted.
/// Null with the reason when there is no whole copy either. The caller has locked the pool.
std::unique_ptr<Catalog_Reader> open_sound_catalog(const Pool& pool, const Set_Record& record, std::string& mended,
                                                   std::string& error);
