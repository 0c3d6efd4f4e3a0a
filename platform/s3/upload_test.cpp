#include "platform/s3/client_fixture.h"

#include "platform/s3/part_plan.h"
#include "platform/s3/upload.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <cerrno>

namespace {

using s3_testing::Fault;

/// What is logged while it lives.
class Log_Lines : public ACE_Log_Msg_Callback {
public:
  Log_Lines() : before_(ACE_Log_Msg::instance()->msg_callback(this)) {
    ACE_Log_Msg::instance()->set_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  ~Log_Lines() override {
    ACE_Log_Msg::instance()->msg_callback(before_);
    ACE_Log_Msg::instance()->clr_flags(ACE_Log_Msg::MSG_CALLBACK);
  }
  void log(ACE_Log_Record& record) override { text_ += record.msg_data(); }
  const std::string& text() const { return text_; }

private:
  ACE_Log_Msg_Callback* before_;
  std::string text_;
};

class Upload_Test : public Client_Test {
protected:
  Upload_Test() {
    settings.part_size = 1000;
    server.configure([](s3_testing::S3_Server_Settings& settings) { settings.min_part_size = 1; });
  }

  static bool write_all(S3_IWriter& writer, const std::string& data, size_t piece = 300) {
    size_t at = 0;
    while (at < data.size()) {
      const int n = writer.write(data.data() + at, std::min(piece, data.size() - at));
      if (n <= 0)
        return false;
      at += static_cast<size_t>(n);
    }
    return true;
  }

  static bool store(S3_IWriter_ptr writer, const std::string& data) {
    return writer && write_all(*writer, data) && writer->close();
  }

  Test_Clock clock;
};

TEST_F(Upload_Test, sizes_around_the_part_size_arrive) {
  const S3_Service_var s = service();
  for (const size_t size : {0u, 1u, 999u, 1000u, 1001u, 1999u, 2000u, 2001u, 10500u}) {
    const std::string data = s3_testing::synthetic_bytes(size + 1, 0, size);
    EXPECT_TRUE(store(s->upload("bucket", "key", size), data)) << size;
    EXPECT_EQ(data, server.get("bucket", "key").value_or("none")) << size;
  }
  EXPECT_EQ(4u, server.count("PutObject"));
  EXPECT_EQ(5u, server.count("CompleteMultipartUpload"));
  EXPECT_EQ(2u + 2 + 2 + 3 + 11, server.count("UploadPart"));
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_EQ(0u + 1 + 999 + 1000 + 1001 + 1999 + 2000 + 2001 + 10500, ledger->bytes_written.load());
  EXPECT_LE(server.connections_opened(), 1u + settings.ranges.parts);
}

TEST_F(Upload_Test, parts_are_sent_side_by_side_in_bounded_memory) {
  settings.part_size = 10000;
  settings.ranges.parts = 3;
  const std::string data = s3_testing::synthetic_bytes(9, 0, 305000);
  // Four requests for parts can only be in work at the same time when none waits for another.
  server.add_fault(Fault::delay(300).on("UploadPart"));
  EXPECT_TRUE(store(service()->upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
  EXPECT_EQ(4u, server.max_concurrent());
  EXPECT_EQ(30000u, ledger->part_memory.peak());
  EXPECT_EQ(0u, ledger->part_memory.used());
}

TEST_F(Upload_Test, without_memory_one_part_is_sent_after_the_other) {
  ASSERT_TRUE(ledger->part_memory.take(64u << 20));
  const std::string data = s3_testing::synthetic_bytes(9, 0, 30500);
  EXPECT_TRUE(store(service()->upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
  EXPECT_EQ(1u, server.max_concurrent());
  EXPECT_EQ(1u, server.connections_opened());
  ledger->part_memory.give_back(64u << 20);
}

TEST_F(Upload_Test, every_part_is_repeated_by_itself) {
  server.add_fault(Fault::error(500, "InternalError").on("UploadPart").probability(0.3));
  server.add_fault(Fault::cut_upload(300).on("UploadPart").probability(0.1));
  const std::string data = s3_testing::synthetic_bytes(9, 0, 100000);
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  EXPECT_TRUE(store(client.upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
  EXPECT_EQ(data.size(), ledger->bytes_written);
  EXPECT_GT(clock.sleeps(), 10u);
  EXPECT_EQ(0u, server.open_uploads());
}

TEST_F(Upload_Test, no_byte_is_taken_beyond_the_declared_size) {
  const S3_IWriter_ptr writer = service()->upload("bucket", "key", 5);
  EXPECT_EQ(5, writer->write("hello world", 11));
  EXPECT_EQ(0, writer->write("x", 1));
  EXPECT_TRUE(writer->close());
  EXPECT_TRUE(writer->close());
  EXPECT_GT(0, writer->write("x", 1));
  EXPECT_EQ("hello", server.get("bucket", "key").value_or("none"));
}

TEST_F(Upload_Test, object_that_is_not_whole_never_appears) {
  for (const size_t size : {500u, 5000u}) {
    const S3_IWriter_ptr writer = service()->upload("bucket", "key", size);
    EXPECT_TRUE(write_all(*writer, std::string(size - 1, 'x')));
    EXPECT_FALSE(writer->close());
    EXPECT_FALSE(writer->close());
  }
  EXPECT_FALSE(server.get("bucket", "key"));
  EXPECT_EQ(0u, server.open_uploads());
}

TEST_F(Upload_Test, writer_destroyed_before_its_end_leaves_nothing) {
  {
    const S3_IWriter_ptr writer = service()->upload("bucket", "key", 5000);
    EXPECT_TRUE(write_all(*writer, std::string(3500, 'x')));
    EXPECT_EQ(1u, server.open_uploads());
  }
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_FALSE(server.get("bucket", "key"));
}

TEST_F(Upload_Test, part_size_keeps_below_ten_thousand_parts) {
  EXPECT_EQ(1000u, s3::part_size_for(0, 1000));
  EXPECT_EQ(1000u, s3::part_size_for(10000000, 1000));
  EXPECT_EQ(1u << 20, s3::part_size_for(10000001, 1000));
  const unsigned long long tebibyte = 1ull << 40;
  for (const unsigned long long size : {tebibyte, 5 * tebibyte, 5 * tebibyte - 1}) {
    const unsigned long long part = s3::part_size_for(size, 16u << 20);
    EXPECT_LE((size + part - 1) / part, 10000u);
    EXPECT_EQ(0u, part % (1u << 20));
  }
}

TEST_F(Upload_Test, service_sends_once_and_client_repeats) {
  server.add_fault(Fault::error(503, "SlowDown").on("PutObject").times(2));
  EXPECT_FALSE(store(service()->upload("bucket", "key", 5), "hello"));
  EXPECT_EQ(0u, clock.sleeps());
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(store(client.upload("bucket", "key", 5), "hello"));
  EXPECT_EQ(1u, clock.sleeps());
  EXPECT_EQ("hello", server.get("bucket", "key").value_or("none"));
}

TEST_F(Upload_Test, client_gives_up_when_its_waits_add_up) {
  server.add_fault(Fault::error(503, "SlowDown").on("PutObject"));
  S3_Client client;
  ASSERT_TRUE(connect(client, 20));
  EXPECT_FALSE(store(client.upload("bucket", "key", 5), "hello"));
  EXPECT_GE(clock.slept(), 20u);
  EXPECT_LE(clock.slept(), 50u);
  EXPECT_EQ(clock.sleeps() + 1, server.count("PutObject"));
}

TEST_F(Upload_Test, client_without_time_to_retry_sends_once) {
  server.add_fault(Fault::error(503, "SlowDown"));
  S3_Client client;
  ASSERT_TRUE(connect(client, 0));
  EXPECT_FALSE(store(client.upload("bucket", "key", 5), "hello"));
  EXPECT_FALSE(client.del("bucket", "key"));
  EXPECT_EQ(2u, server.count());
  EXPECT_EQ(0u, clock.sleeps());
}

TEST_F(Upload_Test, final_errors_are_not_repeated) {
  S3_Client client;
  ASSERT_TRUE(connect(client, -1));
  EXPECT_FALSE(store(client.upload("none", "key", 5), "hello"));
  EXPECT_EQ(nullptr, client.upload("none", "key", 5000));
  EXPECT_EQ(0u, clock.sleeps());
}

TEST_F(Upload_Test, wait_that_the_service_asks_for_is_kept) {
  server.add_fault(Fault::error(503, "SlowDown", 17).on("PutObject").times(1));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(store(client.upload("bucket", "key", 5), "hello"));
  EXPECT_EQ(17u, clock.slept());
}

TEST_F(Upload_Test, every_step_of_a_large_upload_is_repeated) {
  const std::string data = s3_testing::synthetic_bytes(3, 0, 4500);
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  for (const char* step : {"CreateMultipartUpload", "UploadPart", "CompleteMultipartUpload"}) {
    server.add_fault(Fault::error(500, "InternalError").on(step).times(1));
    EXPECT_TRUE(store(client.upload("bucket", step, data.size()), data)) << step;
    EXPECT_EQ(data, server.get("bucket", step).value_or("none")) << step;
  }
  EXPECT_EQ(3u, clock.sleeps());
  EXPECT_EQ(0u, server.open_uploads());
}

TEST_F(Upload_Test, broken_connections_are_repeated) {
  const std::string data = s3_testing::synthetic_bytes(3, 0, 4500);
  server.add_fault(Fault::cut_upload(300).on("UploadPart").times(2));
  server.add_fault(Fault::no_reply().on("CompleteMultipartUpload").times(1));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(store(client.upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
  EXPECT_EQ(0u, server.open_uploads());
}

TEST_F(Upload_Test, failed_part_ends_the_upload_and_leaves_nothing) {
  server.add_fault(Fault::error(403, "AccessDenied").on("UploadPart").from_nth(3));
  {
    const S3_IWriter_ptr writer = service()->upload("bucket", "key", 5000);
    Log_Lines log;
    // The failure shows with one of the parts behind, or at the end.
    EXPECT_FALSE(write_all(*writer, std::string(5000, 'x')) && writer->close());
    EXPECT_GT(0, writer->write("x", 1));
    EXPECT_FALSE(writer->close());
    EXPECT_NE(std::string::npos, log.text().find("AccessDenied: part ")) << log.text();
    EXPECT_NE(std::string::npos, log.text().find(", 1000 bytes from ")) << log.text();
  }
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_FALSE(server.get("bucket", "key"));
}

TEST_F(Upload_Test, error_inside_a_success_fails_the_completion) {
  const std::string data(2500, 'x');
  server.add_fault(Fault::error_in_200("InternalError").on("CompleteMultipartUpload").times(1));
  EXPECT_FALSE(store(service()->upload("bucket", "key", data.size()), data));
  EXPECT_FALSE(server.get("bucket", "key"));
  EXPECT_EQ(0u, server.open_uploads());
  server.clear_faults();
  server.add_fault(Fault::error_in_200("InternalError").on("CompleteMultipartUpload").times(1));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(store(client.upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
}

TEST_F(Upload_Test, completion_whose_answer_was_lost_is_found_out) {
  const std::string data(2500, 'x');
  server.add_fault(Fault::cut(10).on("CompleteMultipartUpload").times(1));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(store(client.upload("bucket", "key", data.size()), data));
  EXPECT_EQ(data, server.get("bucket", "key").value_or("none"));
}

TEST_F(Upload_Test, connection_that_died_in_between_costs_no_error) {
  const S3_Service_var s = service();
  EXPECT_TRUE(store(s->upload("bucket", "key", 5), "hello"));
  server.drop_connections();
  EXPECT_TRUE(store(s->upload("bucket", "key", 5), "world"));
  EXPECT_EQ("world", server.get("bucket", "key").value_or("none"));
}

TEST_F(Upload_Test, list_of_buckets_is_repeated_by_the_client) {
  server.add_fault(Fault::error(503, "SlowDown", 9).on("ListBuckets").times(1));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  std::vector<json_spirit::Value> buckets;
  EXPECT_TRUE(client.get_buckets(buckets));
  EXPECT_EQ(1u, buckets.size());
  EXPECT_EQ(9u, clock.slept());
}

TEST_F(Upload_Test, delete_is_repeated_by_the_client) {
  server.put("bucket", "key", "x");
  server.add_fault(Fault::error(503, "SlowDown").on("DeleteObject").times(2));
  S3_Client client;
  ASSERT_TRUE(connect(client, 60));
  EXPECT_TRUE(client.del("bucket", "key"));
  EXPECT_TRUE(client.del("bucket", "key"));
  EXPECT_EQ(2u, clock.sleeps());
  EXPECT_FALSE(server.get("bucket", "key"));
}

/// A clock by which no time passes for who sleeps: they wait until they are notified.
class Stopped_Clock : public Test_Clock {
public:
  void wait(std::unique_lock<std::mutex>& lock, std::condition_variable& changed, const ACE_Time_Value& time) override {
    // What is left of a pause that was woken is a little less than its second.
    if (time < ACE_Time_Value(0, 900000))
      return Test_Clock::wait(lock, changed, time);
    ++sleepers;
    sleepers.notify_all();
    if (changed.wait_for(lock, std::chrono::seconds(20)) == std::cv_status::timeout)
      ++left_alone;
    Test_Clock::wait(lock, changed, ACE_Time_Value(0, 1));
  }

  std::atomic<unsigned> sleepers{0};
  std::atomic<unsigned> left_alone{0};
};

/// An upload whose first part is waiting to be repeated.
class Waiting_Part_Test : public Upload_Test {
protected:
  Waiting_Part_Test() {
    settings.ranges.parts = 3;
    server.add_fault(Fault::error(500, "InternalError").on("UploadPart").times(1));
    EXPECT_TRUE(connect(client_, 600));
    writer = client_.upload("bucket", "key", 6000);
    EXPECT_TRUE(writer && write_all(*writer, std::string(1001, 'x')));
    clock.sleepers.wait(0);
  }

  Stopped_Clock clock;
  S3_IWriter_ptr writer;

private:
  S3_Client client_;
};

TEST_F(Waiting_Part_Test, ends_when_another_part_has_failed_for_good) {
  server.add_fault(Fault::error(403, "AccessDenied").on("UploadPart").times(1));
  EXPECT_FALSE(write_all(*writer, std::string(4999, 'x')) && writer->close());
  EXPECT_EQ(1u, server.open_uploads());
  writer.reset();
  EXPECT_EQ(0u, server.open_uploads()) << "it is tidied up";
  EXPECT_EQ(0u, clock.left_alone);
  EXPECT_EQ(0u, ledger->part_memory.used());
}

TEST_F(Waiting_Part_Test, ends_when_the_upload_is_given_up) {
  writer.reset();
  EXPECT_EQ(0u, server.open_uploads());
  EXPECT_EQ(0u, clock.left_alone);
  EXPECT_EQ(1u, server.count("UploadPart"));
}

TEST_F(Waiting_Part_Test, goes_on_waiting_when_other_parts_are_handed_over) {
  EXPECT_TRUE(write_all(*writer, std::string(3999, 'x')));
  // Four parts are handed over or sent, each once, and the first one is not repeated.
  EXPECT_GE(4u, server.count("UploadPart"));
  writer.reset();
  EXPECT_EQ(0u, clock.left_alone);
  EXPECT_EQ(0u, server.open_uploads());
}

} // namespace
