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
    platform().calls.clear();
    bool failed = false;
    errno = 0;
    try {
      const module_testing::Short_Memory short_memory(nth);
      done = executor.execute_i(nullptr);
      failed = module_testing::allocations_left < 0;
      error = errno;
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what() << " at allocation " << nth;
      failed = true;
    }
    Job::current(previous_job);
    return failed;
  }

  /// Runs what `make` makes with each of its allocations failing in turn; more than `least` of them fail the job.
  template <typename MAKE>
  void fail_each_allocation(MAKE make, int least);

  int error = 0; ///< `errno` after the last run
};

/// Every allocation that fails fails the job with ENOMEM or a line that says why, unless the job did without it: then
/// it did all that it does with enough memory.
template <typename MAKE>
void executor_short_memory::fail_each_allocation(MAKE make, int least) {
  std::vector<std::string> whole;
  int failures = 0;
  for (int nth = 0; nth < 5000; ++nth) {
    log.clear();
    const auto executor = make();
    bool done = false;
    const bool failed = fail(*executor, nth == 0 ? 1 << 30 : nth, done);
    if (nth == 0) {
      ASSERT_TRUE(done);
      whole = platform().calls;
      continue;
    }
    if (done) {
      EXPECT_EQ(whole, platform().calls) << nth;
    } else {
      EXPECT_TRUE(error == ENOMEM || log.count(LM_ERROR, "") > 0) << nth;
      EXPECT_LT(platform().calls.size(), whole.size() + 1) << nth;
      ++failures;
    }
    if (!failed) {
      EXPECT_TRUE(done);
      EXPECT_GT(failures, least);
      return;
    }
  }
  FAIL() << "there is no end of allocations";
}

TEST_F(executor_short_memory, backup_fails_and_throws_nothing) {
  platform().entries = {"/b/"};
  fail_each_allocation(
      [this] {
        OBS_Backup_Job_Source* const source = new OBS_Backup_Job_Source;
        source->minor_resource_id_ = "a resource with a name longer than a string keeps inside";
        settings.subtype = JOB_DEFINITION_SUBTYPE_FULL;
        return std::make_unique<Open_Backup>(make_job(source, new OBS_Backup_Job_Options));
      },
      20);
}

TEST_F(executor_short_memory, restore_fails_and_throws_nothing) {
  platform().pool_url = "file:///pool";
  fail_each_allocation(
      [this] {
        OBS_Restore_Job_Source* const source = new OBS_Restore_Job_Source;
        source->pool_uuid_ = "a pool with a name longer than a string keeps inside";
        OBS_Restore_Job_Options* const options = new OBS_Restore_Job_Options;
        options->mapper_.mappers()["a"].bucket = "b";
        return std::make_unique<Open_Restore>(make_job(source, options));
      },
      20);
}

} // namespace
