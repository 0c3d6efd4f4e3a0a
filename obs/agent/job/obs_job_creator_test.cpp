#include "obs/agent/job/obs_job_creator.h"

#include "testing/module/failing_allocator.h"

#include <gtest/gtest.h>

#include <cerrno>

extern "C" Job_Creator* _make_OBS_Job_Creator(void (**gobbler)(void*));

namespace {

Job_Definition_var definition(Job_Definition_Type type) {
  Job_Definition::Settings settings;
  settings.type = type;
  return Job_Definition_var(new Job_Definition(settings));
}

struct obs_job_creator : testing::Test {
  obs_job_creator() : creator(_make_OBS_Job_Creator(&gobbler)) {}
  ~obs_job_creator() override { gobbler(creator); }

  void (*gobbler)(void*) = nullptr;
  Job_Creator* creator;
};

TEST_F(obs_job_creator, factory_stores_its_disposer_and_makes_the_creator) {
  EXPECT_NE(nullptr, dynamic_cast<OBS_Job_Creator*>(creator));
  EXPECT_EQ(0, creator->init(0, nullptr));
  EXPECT_EQ(0, creator->fini());
  gobbler(nullptr);
  Job_Creator* const unasked = _make_OBS_Job_Creator(nullptr);
  ASSERT_NE(nullptr, unasked);
  gobbler(unasked);
}

TEST_F(obs_job_creator, factory_without_memory_makes_none_with_errno) {
  void (*stored)(void*) = nullptr;
  errno = 0;
  Job_Creator* none = nullptr;
  {
    const module_testing::Short_Memory short_memory(1);
    none = _make_OBS_Job_Creator(&stored);
  }
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(ENOMEM, errno);
  EXPECT_EQ(gobbler, stored);
}

TEST_F(obs_job_creator, backup_and_restore_have_jobs_of_their_own) {
  const Job_var backup = creator->create(definition(JOB_DEFINITION_BACKUP));
  const Job_var restore = creator->create(definition(JOB_DEFINITION_RESTORE));
  const auto* const backup_job = dynamic_cast<const Controllable_Job_T<OBS_Backup_Executor>*>(backup.get());
  const auto* const restore_job = dynamic_cast<const Controllable_Job_T<OBS_Restore_Executor>*>(restore.get());
  ASSERT_NE(nullptr, backup_job);
  ASSERT_NE(nullptr, restore_job);
  EXPECT_EQ(0u, backup_job->thr_id());
  EXPECT_EQ(0u, restore_job->thr_id());
}

TEST_F(obs_job_creator, other_types_have_no_job) {
  for (const Job_Definition_Type type : {JOB_DEFINITION_NONE, JOB_DEFINITION_STANDBY, JOB_DEFINITION_STORAGE})
    EXPECT_EQ(nullptr, creator->create(definition(type)).get());
}

TEST_F(obs_job_creator, job_without_a_source_ends_as_failed) {
  const Job_var job = creator->create(definition(JOB_DEFINITION_BACKUP));
  ASSERT_EQ(0, job->start(nullptr));
  ASSERT_TRUE(job->wait());
  EXPECT_EQ(JOB_STATE_ERROR, job->activity().state);
}

} // namespace
