// Both executors with each allocation of their own thread failing in turn.

#include "obs/agent/job/backup_executor.h"
#include "obs/agent/job/restore_executor.h"
#include "testing/module/executor_fixture.h"
#include "testing/module/failing_allocator.h"

namespace {

struct Open_Backup : OBS_Backup_Executor {
  using OBS_Backup_Executor::execute_i;
  using OBS_Backup_Executor::OBS_Backup_Executor;
};
struct Open_Restore : OBS_Restore_Executor {
  using OBS_Restore_Executor::execute_i;
  using OBS_Restore_Executor::OBS_Restore_Executor;
};

struct executor_short_memory : module_testing::Executor_Fixture {
  /// Runs `executor` with its `nth` allocation failing. False when there were fewer.
  template <typename EXECUTOR>
  bool fail(EXECUTOR& executor, int nth, bool& done) {
    bool failed = false;
    try {
      const module_testing::Short_Memory short_memory(nth);
      done = executor.execute_i(nullptr);
      failed = module_testing::allocations_left < 0;
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what() << " at allocation " << nth;
      failed = true;
    }
    Job::current(previous_job);
    return failed;
  }
};

TEST_F(executor_short_memory, backup_fails_and_throws_nothing) {
  platform().entries = {"/b/"};
  int failures = 0;
  for (int nth = 1; nth < 5000; ++nth) {
    OBS_Backup_Job_Source* const source = new OBS_Backup_Job_Source;
    source->minor_resource_id_ = "a resource with a name longer than a string keeps inside";
    settings.subtype = JOB_DEFINITION_SUBTYPE_FULL;
    Open_Backup executor(make_job(source, new OBS_Backup_Job_Options));
    bool done = false;
    if (!fail(executor, nth, done)) {
      EXPECT_TRUE(done);
      EXPECT_GT(failures, 20);
      return;
    }
    failures += !done;
  }
  FAIL() << "there is no end of allocations";
}

TEST_F(executor_short_memory, restore_fails_and_throws_nothing) {
  platform().pool_url = "file:///pool";
  int failures = 0;
  for (int nth = 1; nth < 5000; ++nth) {
    OBS_Restore_Job_Source* const source = new OBS_Restore_Job_Source;
    source->pool_uuid_ = "a pool with a name longer than a string keeps inside";
    OBS_Restore_Job_Options* const options = new OBS_Restore_Job_Options;
    options->mapper_.mappers()["a"].bucket = "b";
    Open_Restore executor(make_job(source, options));
    bool done = false;
    if (!fail(executor, nth, done)) {
      EXPECT_TRUE(done);
      EXPECT_GT(failures, 20);
      return;
    }
    failures += !done;
  }
  FAIL() << "there is no end of allocations";
}

} // namespace
