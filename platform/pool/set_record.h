#pragma once

#include "sdk/json/json_spirit.h"
#include "sdk/mtf/metadata.h"

#include <optional>
#include <string>
#include <vector>

/// The record that makes a set exist: `set.json` in the set's folder, written last.
struct Set_Record {
  struct Medium {
    std::string name;            ///< file name inside the set's folder
    unsigned long long size = 0; ///< bytes
    unsigned family = 0;         ///< MTF media family id
  };

  static constexpr const char* FILE_NAME = "set.json";
  static constexpr int FORMAT_VERSION = 2;
  /// The record of a partial set: what an unfinished run left whole on media. It is none of the pool's sets, but the
  /// catalogs of sets may point into it.
  static constexpr const char* PARTIAL_FILE_NAME = "partial.json";

  std::string uuid;
  std::string uri; ///< folder inside the pool, "HOST/RESOURCE/ACTIVITY"
  std::string host_uuid;
  std::string minor_resource_id;
  std::string minor_resource_name;
  std::string resource_uuid;
  std::string definition_uuid;
  std::string name;
  std::string agent;
  std::string host;
  std::string type; ///< "full", "incremental"; "partial" where the record is that of a partial set
  std::string incarnation;
  std::vector<std::string> bases;
  std::vector<std::string> replaces; ///< uuids of the sets whose data a merge has put into this one
  unsigned seq = 0;
  unsigned channels = 0;
  std::string start_time; ///< "%Y-%m-%d %H:%M:%S", UTC
  std::string end_time;
  unsigned long long source_size = 0;
  unsigned long long backup_set_size = 0;
  unsigned long long backup_set_storage_size = 0;
  std::string encryption;
  std::string data_key; ///< of an encrypted set: its data key, wrapped under the pool's; empty otherwise
  std::string sealed;   ///< of an encrypted set: the members that must not be read, see seal_record
  std::vector<Medium> media;
  json_spirit::Object figures; ///< the run's account

  /// How many objects of what was to be backed up the set does not have as the run's listing showed them: not at all,
  /// or in an older version only. A prefix that could not be listed counts as one. What lacks only something beside its
  /// content, as tags, is not among them. Nothing: not known, as where the set was made again from its media alone, or
  /// in an encrypted record of an older version whose names cannot be read.
  std::optional<unsigned long long> missing() const;
  /// Known to miss nothing.
  bool whole() const { return missing() == 0ull; }

  /// What is written. Of an encrypted set, names and texts stand in `sealed` alone.
  json_spirit::Object to_json() const;
  /// False when something is missing, of the wrong type, or of a newer format; `error` names it. `record` is then
  /// untouched.
  static bool from_json(const json_spirit::Object& json, Set_Record& record, std::string& error);
};

/// A whole number of an account, as "saved"; nothing where it is not there or is none.
std::optional<unsigned long long> figure_of(const json_spirit::Object& figures, const char* name);

/// A record of what an executor said about a set: names, times, type, encryption.
Set_Record describe_set(const MTF::Metadata& metadata);

/// Writes the record of the set in `folder` so that it is there whole or not at all: temporary file, fsync, rename,
/// fsync of the folder. False with the reason.
bool write_set_record(const std::string& folder, const Set_Record& record, std::string& error);
/// Reads it. False with the reason; `missing`, when given, tells an absent record from a bad one.
bool read_set_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing = nullptr);
/// The same for the record of a partial set.
bool write_partial_record(const std::string& folder, const Set_Record& record, std::string& error);
bool read_partial_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing = nullptr);
/// The record of whatever holds data in `folder`, a set or a partial set.
bool read_stored_record(const std::string& folder, Set_Record& record, std::string& error, bool* missing = nullptr);
