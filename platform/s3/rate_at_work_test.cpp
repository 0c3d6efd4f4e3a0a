#include "platform/s3/client_fixture.h"
#include "sdk/job/job.h"

namespace {

constexpr unsigned long long SIZE = 10000000;

/// A job's limit at the network. Only waiting for it takes the clock on.
class Rate_At_Work : public Client_Test {
protected:
  /// Seconds since that was asked last.
  double passed() {
    const ACE_Time_Value now = clock.monotonic();
    const double seconds = static_cast<double>(now.sec()) + static_cast<double>(now.usec()) / 1e6;
    const double since = seconds - asked_;
    asked_ = seconds;
    return since;
  }

  Test_Clock clock;

private:
  double asked_ = 0;
};

TEST_F(Rate_At_Work, two_readers_of_a_job_share_it) {
  server.put_synthetic("bucket", "one", SIZE / 2, 1);
  server.put_synthetic("bucket", "two", SIZE / 2, 2);
  ledger->rate.set(1000000);
  settings.ranges.most = 1; // Threads would take the clock on in one another's stead.
  const S3_Service_var first = service(), second = service();
  const HTTP_Connection_var one = first->get_object("bucket", "one", 0, nullptr);
  const HTTP_Connection_var two = second->get_object("bucket", "two", 0, nullptr);
  std::string buffer(50000, '\0');
  unsigned long long got = 0;
  for (size_t now = 1; now > 0;) {
    now = one->recv(&buffer[0], buffer.size(), nullptr);
    now += two->recv(&buffer[0], buffer.size(), nullptr);
    got += now;
  }
  EXPECT_EQ(SIZE, got);
  EXPECT_NEAR(10, passed(), 0.5);
}

TEST_F(Rate_At_Work, what_is_written_counts_as_well) {
  ledger->rate.set(1000000);
  settings.part_size = 2 * SIZE;
  const S3_Service_var s = service();
  const S3_IWriter_ptr writer = s->upload("bucket", "large", SIZE);
  ASSERT_TRUE(writer);
  const std::string piece(100000, 'x');
  for (unsigned long long sent = 0; sent < SIZE; sent += piece.size())
    ASSERT_EQ(static_cast<int>(piece.size()), writer->write(piece.data(), piece.size()));
  ASSERT_TRUE(writer->close());
  EXPECT_NEAR(10, passed(), 0.5);
}

TEST_F(Rate_At_Work, objects_that_leave_with_their_request_count_once) {
  ledger->rate.set(1000000);
  const S3_Service_var s = service();
  const std::string content(50000, 'x');
  for (unsigned i = 0; i < 200; ++i) {
    const S3_IWriter_ptr writer = s->upload("bucket", ("small" + std::to_string(i)).c_str(), content.size());
    ASSERT_TRUE(writer);
    ASSERT_EQ(static_cast<int>(content.size()), writer->write(content.data(), content.size()));
    ASSERT_TRUE(writer->close());
  }
  // The requests' heads are some hundred bytes each.
  EXPECT_NEAR(10.1, passed(), 0.3);
}

TEST_F(Rate_At_Work, job_without_a_limit_waits_for_nothing) {
  server.put_synthetic("bucket", "one", SIZE, 1);
  const S3_Service_var s = service();
  const HTTP_Connection_var one = s->get_object("bucket", "one", 0, nullptr);
  EXPECT_EQ(SIZE, drain(*one).size());
  EXPECT_EQ(0, passed());
}

TEST_F(Rate_At_Work, limit_comes_from_the_job_s_definition) {
  class Idle_Job : public Job {
  public:
    using Job::Job;
  };
  Job_Definition::Settings settings;
  settings.rate_limit = 12345;
  const Job_var job(new Idle_Job(Job_Definition_var(new Job_Definition(settings))), false);
  EXPECT_TRUE(job->ledger()->rate.on());
  Job_Definition::Settings none;
  const Job_var free(new Idle_Job(Job_Definition_var(new Job_Definition(none))), false);
  EXPECT_FALSE(free->ledger()->rate.on());
}

TEST_F(Rate_At_Work, who_waits_for_its_turn_gives_up_when_the_job_is_cancelled) {
  class Idle_Job : public Job {
  public:
    Idle_Job() : Job(Job_Definition_var()) { activity().state = JOB_STATE_RUNNING; }
  };
  server.put_synthetic("bucket", "one", SIZE, 1);
  ledger->rate.set(1000);
  const Job_var job(new Idle_Job, false);
  Job::current(job.get());
  const S3_Service_var s = service();
  const HTTP_Connection_var one = s->get_object("bucket", "one", 0, nullptr);
  std::string buffer(1000, '\0');
  EXPECT_EQ(buffer.size(), one->recv(&buffer[0], buffer.size(), nullptr));
  job->activity().state = JOB_STATE_CANCELING;
  EXPECT_LT(drain(*one).size(), 100000u);
  Job::current(nullptr);
}

} // namespace
