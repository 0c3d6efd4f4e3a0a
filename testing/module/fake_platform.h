#pragma once

#include "sdk/file_backup/file_backup.h"
#include "sdk/mtf/mtf_backup.h"
#include "sdk/mtf/mtf_restore.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace module_testing {

/// What the services behind the executors answer in a test program with fake_platform.cpp, and what they were asked.
/// One for the program; made anew by `reset_fake_platform`. One thread at a time.
struct Fake_Platform_Script {
  // Answers.
  bool mutex = true; ///< whether the job's mutex can be had
  bool pool = true;
  Pool_Info pool_info;
  int merging = 0; ///< looks that find a merge
  bool last_instance = true;
  json_spirit::Object last_record;
  bool entries_found = true;
  std::vector<std::string> entries;
  std::vector<std::string> exclusions;
  std::vector<std::string> inclusions;
  std::string minor_resource_name;
  bool filter = true;
  int catalog = 0;
  bool commit = true;
  bool incarnation_found = true;
  std::string incarnation;
  unsigned channels = 0;
  std::string uri_prefix;
  bool pool_url_found = true;
  std::string pool_url;
  bool dr_sets = true;
  file_backup::File_DR_Test_Context dr_context;

  bool engine = true; ///< what the run of an engine answers
  MTF::Error_Code err_code = MTF::E_OK;
  unsigned long long size = 0;
  unsigned long long set_size = 0;
  unsigned long long set_storage_size = 0;
  unsigned long long skipped_files = 0;            ///< that the engine counts
  std::function<void()> on_run;                    ///< called while an engine runs
  std::function<void(const std::string&)> on_call; ///< called for each of `calls`

  // What was asked.
  std::vector<std::string> calls; ///< all of it in order
  std::vector<std::string> filter_exclusions;
  std::vector<std::string> filter_inclusions;
  const MTF::IFilter* made_filter = nullptr;   ///< what `make_filter` made
  const MTF::IFilter* engine_filter = nullptr; ///< what the engine was given
  Action_Handler_var action_handler;           ///< what the engine was given
  file_backup::File_Metadata engine_metadata;  ///< as the engine was made with it
  file_backup::File_Metadata metadata;         ///< as it was committed
  std::string set_incarnation;
  std::list<std::string> set_bases;
  MTF::IBackup_Callback_Factory_var backup_factory;
  MTF::IRestore_Callback_Factory_var restore_factory;
  MTF_FS::IPath_Converter_var converter;
  Client_IO_Base::Options io_options;
  file_backup::File_DR_Test_Context saved_context;

  void call(const std::string& text) {
    calls.push_back(text);
    if (on_call)
      on_call(text);
  }
  bool called(const std::string& text) const {
    for (const std::string& made : calls)
      if (made == text)
        return true;
    return false;
  }
  /// The calls that begin with "engine.", without that.
  std::vector<std::string> engine_calls() const {
    std::vector<std::string> found;
    for (const std::string& made : calls)
      if (made.compare(0, 7, "engine.") == 0)
        found.push_back(made.substr(7));
    return found;
  }
};

Fake_Platform_Script& fake_platform();
void reset_fake_platform();

} // namespace module_testing
