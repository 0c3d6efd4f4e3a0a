#include "platform/s3/client_fixture.h"

#include "sdk/job/job.h"

#include <cerrno>
#include <chrono>
#include <thread>

namespace {

using s3_testing::Fault;

class Idle_Job : public Job {
public:
  Idle_Job() : Job(Job_Definition_var()) { activity().state = JOB_STATE_RUNNING; }
};

/// Requests of a thread that works for a job; another thread cancels it while the request waits.
class Cancellation_Test : public Client_Test {
protected:
  Cancellation_Test() : job(new Idle_Job, false) { Job::current(job.get()); }
  ~Cancellation_Test() override { Job::current(nullptr); }

  template <typename Work>
  double seconds_to_end(Work work) {
    std::thread canceller([this] {
      EXPECT_TRUE(server.wait_for_stalls(1, 10));
      job->activity().state = JOB_STATE_CANCELING;
    });
    const auto before = std::chrono::steady_clock::now();
    work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
    canceller.join();
    return took.count();
  }

  Job_var job;
};

TEST_F(Cancellation_Test, stalled_body_ends) {
  settings.idle_timeout = 60;
  server.put_synthetic("bucket", "key", 100000, 1);
  server.add_fault(Fault::stall(10).on("GetObject"));
  const S3_Service_var s = service();
  const HTTP_Connection_var c = s->get_object("bucket", "key", 0, nullptr);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, c->state()) << s->error();
  EXPECT_LT(seconds_to_end([&] { EXPECT_EQ(10u, drain(*c.get()).size()); }), 3);
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 10, nullptr)->state());
  EXPECT_EQ("Cancelled", s->last_error().code());
  EXPECT_EQ(ECANCELED, s->last_error().number());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Cancellation_Test, stalled_listing_ends) {
  settings.idle_timeout = 60;
  server.add_synthetic("bucket", "p", 1000, 1);
  server.add_fault(Fault::stall(3000).on("ListObjects"));
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_LT(seconds_to_end([&] { EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)); }), 3);
  EXPECT_EQ("Cancelled", s->last_error().code());
}

TEST_F(Cancellation_Test, upload_given_up_is_tidied_up_all_the_same) {
  settings.part_size = 1000;
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.min_part_size = 1; });
  {
    const S3_IWriter_ptr writer = service()->upload("bucket", "key", 3000);
    ASSERT_TRUE(writer);
    EXPECT_EQ(1000, writer->write(std::string(1000, 'x').data(), 1000));
    job->activity().state = JOB_STATE_CANCELING;
    // The part that is on its way fails, which shows with one behind it.
    const std::string rest(1000, 'x');
    EXPECT_FALSE(writer->write(rest.data(), 1000) > 0 && writer->write(rest.data(), 1000) > 0 && writer->close());
    EXPECT_EQ(1u, server.open_uploads());
  }
  EXPECT_EQ(0u, server.open_uploads());
}

TEST_F(Cancellation_Test, options_take_the_ledger_of_the_thread_s_job) {
  EXPECT_EQ(job->ledger(), S3_Client_Options().ledger);
  EXPECT_EQ(job->ledger(), S3_Client_Options("a", "b", 1).ledger);
  EXPECT_EQ(job->ledger(), S3_Service_Options().ledger);
  Job::current(nullptr);
  EXPECT_EQ(nullptr, S3_Service_Options().ledger);
}

} // namespace
