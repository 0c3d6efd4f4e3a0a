#include "platform/s3/client_fixture.h"

#include "platform/s3/part_plan.h"
#include "sdk/job/job.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
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
  EXPECT_LT(seconds_to_end([&] { EXPECT_EQ(10u, drain(*c.get()).size()); }), 30);
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 10, nullptr)->state());
  EXPECT_EQ("Cancelled", s->last_error().code());
  EXPECT_EQ(ECANCELED, s->last_error().number());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Cancellation_Test, request_that_was_never_sent_is_not_counted) {
  server.put("bucket", "key", "text");
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)) << s->error();
  EXPECT_EQ(1u, ledger->requests.load());
  job->activity().state = JOB_STATE_CANCELING;
  EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  EXPECT_EQ(1u, ledger->requests.load());
}

TEST_F(Cancellation_Test, stalled_listing_ends) {
  settings.idle_timeout = 60;
  server.add_synthetic("bucket", "p", 1000, 1);
  server.add_fault(Fault::stall(3000).on("ListObjects"));
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  EXPECT_LT(seconds_to_end([&] { EXPECT_FALSE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)); }), 30);
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

/// The machine's clock, which lets a test wait until somebody sleeps.
class Watched_Clock : public Clock {
public:
  Watched_Clock() : machine_(Clock::instance()) { Clock::instance(this); }
  ~Watched_Clock() override { Clock::instance(nullptr); }
  time_t now() override { return machine_.now(); }
  ACE_Time_Value monotonic() override { return machine_.monotonic(); }
  void sleep(unsigned seconds) override {
    if (seconds >= LONG)
      count_one();
    machine_.sleep(seconds);
  }
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, const ACE_Time_Value& time) override {
    count_one();
    machine_.wait(lock, changed, time);
  }
  /// Waits for so many long sleeps, and waits at a gate, to have begun since the clock was made.
  bool wait_for_sleepers(unsigned count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(60), [&] { return sleepers_ >= count; });
  }

private:
  void count_one() {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++sleepers_;
    changed_.notify_all();
  }

  static constexpr unsigned LONG = 60; ///< seconds
  Clock& machine_;
  std::mutex mutex_; ///< guards `sleepers_`
  std::condition_variable changed_;
  unsigned sleepers_ = 0;
};

/// A port whose queue of connections is full: who connects gets no answer.
class Unanswering_Port {
public:
  Unanswering_Port() : listener_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length));
    EXPECT_EQ(0, ::listen(listener_, 0));
    EXPECT_EQ(0, ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length));
    port_ = ntohs(address.sin_port);
    for (int& filler : fillers_) {
      filler = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      ::connect(filler, reinterpret_cast<sockaddr*>(&address), length);
    }
    fillers_waiting_ = waiting();
    EXPECT_LT(0u, fillers_waiting_) << "the queue takes them all";
  }
  ~Unanswering_Port() {
    ::close(listener_);
    for (const int filler : fillers_)
      ::close(filler);
  }
  Unanswering_Port(const Unanswering_Port&) = delete;
  Unanswering_Port& operator=(const Unanswering_Port&) = delete;

  unsigned short port() const { return port_; }
  /// Waits until somebody else tries to connect.
  bool wait_for_caller() const {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (waiting() <= fillers_waiting_) {
      if (std::chrono::steady_clock::now() > until)
        return false;
      std::this_thread::yield();
    }
    return true;
  }

private:
  /// Those who have called and got no answer, as the kernel lists them ("sl local remote state ...", 02: SYN sent).
  unsigned waiting() const {
    std::ifstream table("/proc/net/tcp");
    char remote[32];
    std::snprintf(remote, sizeof remote, ":%04X 02 ", static_cast<unsigned>(port_));
    unsigned count = 0;
    for (std::string line; std::getline(table, line);)
      count += line.find(remote) != std::string::npos;
    return count;
  }

  const int listener_;
  unsigned short port_ = 0;
  int fillers_[8];
  unsigned fillers_waiting_ = 0;
};

/// Every wait that a request can come to, each of which lasts minutes unless the job is cancelled.
class Cancelled_Wait : public Cancellation_Test {
protected:
  /// Far more than the second that is aimed at, for machines under load; far less than any of the waits.
  static constexpr double BOUND = 20;
  static constexpr int MINUTES = 300000; ///< in milliseconds

  Cancelled_Wait() {
    settings.idle_timeout = 300;
    settings.connect_timeout = 300;
    settings.part_size = 1000;
    server.configure([](s3_testing::S3_Server_Settings& settings) { settings.min_part_size = 1; });
    server.put("bucket", "key", "text");
  }

  /// Cancels the job once `waits` has answered true, while `work` is on its way.
  void expect_to_end(const std::function<bool()>& waits, const std::function<void()>& work) {
    std::chrono::steady_clock::time_point cancelled;
    std::thread canceller([&] {
      EXPECT_TRUE(waits());
      cancelled = std::chrono::steady_clock::now();
      job->activity().state = JOB_STATE_CANCELING;
    });
    work();
    const auto ended = std::chrono::steady_clock::now();
    canceller.join();
    EXPECT_LT(std::chrono::duration<double>(ended - cancelled).count(), BOUND);
  }
  std::function<bool()> unanswered(const std::string& operation) {
    server.add_fault(Fault::delay(MINUTES).on(operation));
    return [this, operation] { return server.wait_for_count(operation, 1, 60); };
  }
};

TEST_F(Cancelled_Wait, for_the_answer_to_a_head) {
  const S3_Service_var s = service();
  S3_Object object;
  expect_to_end(unanswered("HeadObject"), [&] { EXPECT_FALSE(s->head_object("bucket", "key", object)); });
  EXPECT_EQ("Cancelled", s->last_error().code());
}

TEST_F(Cancelled_Wait, for_the_answer_to_a_get) {
  const S3_Service_var s = service();
  expect_to_end(unanswered("GetObject"),
                [&] { EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 0, nullptr)->state()); });
  EXPECT_EQ("Cancelled", s->last_error().code());
}

TEST_F(Cancelled_Wait, for_the_answer_to_a_delete) {
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  expect_to_end(unanswered("DeleteObject"), [&] { EXPECT_FALSE(client.del("bucket", "key")); });
  EXPECT_EQ(1u, server.count("DeleteObject"));
  EXPECT_EQ("Cancelled", ledger->take_failure_here()->code());
}

TEST_F(Cancelled_Wait, for_the_answer_to_a_put) {
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  expect_to_end(unanswered("PutObject"), [&] {
    const S3_IWriter_ptr writer = client.upload("bucket", "new", 4);
    ASSERT_TRUE(writer);
    EXPECT_EQ(4, writer->write("text", 4));
    EXPECT_FALSE(writer->close());
  });
  EXPECT_EQ("Cancelled", ledger->take_failure_here()->code());
}

TEST_F(Cancelled_Wait, for_parts_and_their_upload_is_tidied_up) {
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  expect_to_end(unanswered("UploadPart"), [&] {
    const S3_IWriter_ptr writer = client.upload("bucket", "new", 5000);
    ASSERT_TRUE(writer);
    const std::string text(1000, 'x');
    for (int part = 0; part < 5 && writer->write(text.data(), text.size()) > 0; ++part) {
    }
    EXPECT_FALSE(writer->close());
  });
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_EQ(0u, ledger->part_memory.used());
}

TEST_F(Cancelled_Wait, before_a_request_is_repeated) {
  Watched_Clock clock;
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  // The service names no time to others: the wait is that of the one who was refused.
  server.add_fault(Fault::error(500, "InternalError").on("DeleteObject").reply_header("Retry-After", "300"));
  expect_to_end([&] { return clock.wait_for_sleepers(1); }, [&] { EXPECT_FALSE(client.del("bucket", "key")); });
  EXPECT_EQ(1u, server.count("DeleteObject"));
}

TEST_F(Cancelled_Wait, before_an_endpoint_that_asked_for_nothing_more) {
  Watched_Clock clock;
  const S3_Service_var refused = service(), waiting = service();
  server.add_fault(Fault::error(503, "SlowDown", 300).on("HeadObject").times(1));
  S3_Object object;
  EXPECT_FALSE(refused->head_object("bucket", "key", object));
  expect_to_end([&] { return clock.wait_for_sleepers(1); },
                [&] { EXPECT_FALSE(waiting->head_object("bucket", "key", object)); });
  EXPECT_EQ("Cancelled", waiting->last_error().code());
  EXPECT_EQ(1u, server.count("HeadObject"));
}

TEST_F(Cancelled_Wait, for_memory_for_large_parts) {
  // Nobody gives it back meanwhile.
  s3::Large_Part_Share all;
  ASSERT_TRUE(all.take(s3::LARGEST_PART));
  Object_Attributes attributes;
  attributes.etag = "0123456789abcdef0123456789abcdef";
  const S3_Service_var s = service();
  auto* const attributed = dynamic_cast<S3_Attribute_Service*>(s.get());
  ASSERT_NE(nullptr, attributed);
  // What was stored at once goes at once, as one part above the usual size.
  std::atomic<bool> began{false};
  expect_to_end([&] { return began.wait(false), true; },
                [&] {
                  began = true;
                  began.notify_one();
                  EXPECT_EQ(nullptr, attributed->upload("bucket", "new", 5000, attributes));
                });
  EXPECT_EQ("Cancelled", s->last_error().code());
  EXPECT_EQ(0u, server.count());
}

TEST_F(Cancelled_Wait, for_a_connection) {
  const Unanswering_Port port;
  Endpoint_Settings::set("127.0.0.1", port.port(), access, settings);
  S3_Service_Options options = service_options();
  options.port = port.port();
  const S3_Service_var s = make_s3_service(options);
  S3_Object object;
  expect_to_end([&] { return port.wait_for_caller(); }, [&] { EXPECT_FALSE(s->head_object("bucket", "key", object)); });
  EXPECT_EQ("Cancelled", s->last_error().code());
}

} // namespace
