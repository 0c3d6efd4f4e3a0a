#pragma once

#include "platform/pool/pool.h"

#include <functional>
#include <string>
#include <vector>

/// An object that a restore would not bring back, or not with all that belongs to it.
struct Verify_Damage {
  bool lost = true; ///< its content is; else what belongs to it is damaged
  std::string path; ///< "bucket/key"
  unsigned long long size = 0;
  std::string set;    ///< uuid of the set whose media hold its data
  std::string medium; ///< file name there
  std::string message;
  unsigned channel = 0;          ///< whose medium it is
  unsigned long long offset = 0; ///< of the object there
};

struct Verify_Options {
  unsigned threads = 0; ///< objects read at the same time; 0: 4
  double sample = 100;  ///< per cent of the objects that are read; those on media that are missing are found anyway
  unsigned long long seed = 0; ///< which ones: another seed takes others
  std::function<bool()>
      canceling; ///< asked from all threads, between objects and about ten times a second; may be empty
  /// Told about once a second: objects and bytes checked so far. May be empty.
  std::function<void(unsigned long long, unsigned long long)> progress;
  /// Told every damaged object as it is found, one at a time, from all threads. May be empty.
  std::function<void(const Verify_Damage&)> found;
};

/// What reading a set back has shown.
struct Verify_Report {
  typedef Verify_Damage Damage;
  static constexpr size_t MAX_DAMAGES = 1000;

  /// A medium that holds data of the set, of its own or of another set.
  struct Place {
    std::string set;    ///< uuid
    std::string uri;    ///< folder inside the pool
    std::string medium; ///< file name
    bool own = true;
    unsigned long long objects = 0; ///< of this set's that lie there
    unsigned long long good = 0;
    unsigned long long damaged = 0;
    std::string error; ///< why none of it can be read; empty when it can
  };

  unsigned long long objects = 0; ///< in the catalog
  unsigned long long checked = 0; ///< read back to their end, good or damaged
  unsigned long long passed = 0;  ///< not read, as the sample left them out
  unsigned long long good = 0;
  unsigned long long damaged = 0;    ///< damaged, or on a medium or in a set that is missing
  unsigned long long lost = 0;       ///< of these, what a restore would lack
  unsigned long long lost_bytes = 0; ///< of their contents
  unsigned long long bytes = 0;      ///< of content checked
  unsigned long long stored = 0;     ///< bytes of media read for it
  std::vector<Damage> damages;       ///< the first MAX_DAMAGES of them, in no particular order
  std::vector<std::string> media;    ///< what is wrong with whole media or sets, and beside objects; one text each
  std::vector<Place> places;
  bool canceled = false;
  std::string failure; ///< why it could not be done at all; empty when it could

  bool clean() const { return failure.empty() && !canceled && damaged == 0 && media.empty(); }
};

/// Reads every stored byte of a set and compares it with the set's catalog: every object is there under its own path,
/// with its size, digest, modification time and attributes, the catalog matches its check, every medium is complete,
/// and what stands on the set's own media between objects is as it must be. Objects whose data lie in other sets are
/// read there. With a sample only that part of the objects is read, and nothing between them. Returns `report.clean()`.
/// Blocks; one call at a time per report.
bool verify_set(const Pool& pool, const Set_Record& record, const Verify_Options& options, Verify_Report& report);
