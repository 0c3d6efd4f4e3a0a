#pragma once

#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/mtf/backup_engine.h"
#include "platform/mtf/fake_source_test.h"
#include "platform/mtf/restore_engine.h"
#include "platform/s3/client_fixture.h"
#include "sdk/job/job.h"

#include <map>
#include <memory>
#include <string>

/// Everything between a service and a pool, in one process: the S3 server of the tests, a pool in a folder of its own,
/// and the engines with the module's callbacks.
class Transfer_Test : public Client_Test {
protected:
  Transfer_Test();
  ~Transfer_Test() override;

  /// A job of its own for each run, so that each has a fresh account. The policy is the job's.
  void new_job(const std::string& archived = "skip", int max_seconds_retry = 0);
  /// Backs `order` up as a new set. Its outcome is in `events`; listed = saved + ... + failed is checked.
  bool backup();
  /// Restores the set of the last backup, buckets mapped by `mapper`.
  bool restore(const Buckets_Mapper& mapper = Buckets_Mapper());

  /// Of the last backup's catalog.
  std::map<std::string, Catalog_Object> catalog();
  /// Read from the last backup's medium and checked on the way.
  std::string content(const Catalog_Object& object);
  unsigned long long figure(const char* name) { return events->figure(name); }
  /// The message under which the outcome names an object; empty when it does not.
  std::string reason(const std::string& path);
  Job& job() { return *job_; }

  Test_Clock clock;
  Fake_Events* events = nullptr;         ///< of the last run; `handler_` owns it
  Backup_Order order;                    ///< of the next backup
  Object_Wishes wishes;                  ///< likewise
  MTF_FS::IPath_Converter_var converter; ///< of the next restore
  std::string failure;                   ///< of the last run; empty where it was none
  MTF::Error_Code code = MTF::E_OK;      ///< likewise

private:
  void new_events();

  std::string root_, url_;
  Pool pool_;
  MTF::Event_Handler_var handler_;
  MTF::Metadata metadata_;
  Job* job_ = nullptr;
  unsigned sets_ = 0;
};
