#include "platform/s3/client_fixture.h"

#include <cerrno>
#include <thread>

namespace {

using s3_testing::Fault;

class Service_Test : public Client_Test {
protected:
  S3_Object object;
};

class Service_TLS_Test : public Client_Test {
protected:
  Service_TLS_Test() : Client_Test(true) {}
};

TEST_F(Service_Test, get_reads_the_object_and_its_record) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  const HTTP_Connection_var c = s->get_object("bucket", "key", 0, &object);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, c->state()) << s->error();
  EXPECT_TRUE(object.exists);
  EXPECT_EQ("key", object.name);
  EXPECT_EQ(5u, object.size);
  EXPECT_EQ('"' + server.object("bucket", "key")->etag + '"', object.etag);
  EXPECT_EQ(static_cast<ACE_UINT64>(server.object("bucket", "key")->mtime), object.mtime);
  char buffer[3];
  EXPECT_EQ(3u, c->recv(buffer, sizeof buffer, nullptr));
  EXPECT_EQ(HTTP_Connection::READING_BODY, c->state());
  EXPECT_EQ(2u, c->recv(buffer, sizeof buffer, nullptr));
  EXPECT_EQ(HTTP_Connection::BODY_READ, c->state());
  EXPECT_EQ(0u, c->recv(buffer, sizeof buffer, nullptr));
  EXPECT_EQ(5u, ledger->bytes_read.load());
  EXPECT_EQ(1u, ledger->requests.load());
  EXPECT_EQ(0, s->last_error().number());
}

TEST_F(Service_Test, empty_object_has_a_body_to_read) {
  server.put("bucket", "key", "");
  const HTTP_Connection_var c = service()->get_object("bucket", "key", 0, &object);
  EXPECT_EQ(HTTP_Connection::HEADERS_READ, c->state());
  char byte;
  EXPECT_EQ(0u, c->recv(&byte, 1, nullptr));
  EXPECT_EQ(HTTP_Connection::BODY_READ, c->state());
}

TEST_F(Service_Test, head_of_a_missing_object_is_an_answer_that_says_so) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  EXPECT_TRUE(s->head_object("bucket", "none", object));
  EXPECT_FALSE(object.exists);
  EXPECT_EQ(ENOENT, s->last_error().number());
  EXPECT_EQ(404, s->last_error().status());
  EXPECT_STRNE("", s->error());
  EXPECT_TRUE(s->head_object("bucket", "key", object));
  EXPECT_TRUE(object.exists);
  EXPECT_EQ(0, s->last_error().number());
}

TEST_F(Service_Test, null_buffer_and_missing_body_fail) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  char byte;
  EXPECT_EQ(HTTP_Connection::RECV_FAILED, s->get_object("bucket", "key", 0, nullptr)->recv(nullptr, 1, nullptr));
  const HTTP_Connection_var missing = s->get_object("bucket", "none", 0, &object);
  EXPECT_EQ(HTTP_Connection::FAILED, missing->state());
  EXPECT_EQ(HTTP_Connection::RECV_FAILED, missing->recv(&byte, 1, nullptr));
  EXPECT_FALSE(object.exists);
  EXPECT_EQ("NoSuchKey", s->last_error().code());
  EXPECT_EQ(ENOENT, s->last_error().number());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Service_Test, empty_names_are_refused_without_a_request) {
  const S3_Service_var s = service();
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "", 0, nullptr)->state());
  EXPECT_EQ("InvalidKey", s->last_error().code());
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object(nullptr, "key", 0, nullptr)->state());
  EXPECT_FALSE(s->del_object("bucket", nullptr));
  EXPECT_FALSE(s->bucket_exists(""));
  EXPECT_EQ(nullptr, s->upload("", "key", 1));
  EXPECT_EQ(0u, server.count());
}

TEST_F(Service_Test, many_gets_share_one_connection) {
  for (int i = 0; i < 50; ++i)
    server.put("bucket", "key" + std::to_string(i), std::string(4096, 'x'));
  const S3_Service_var s = service();
  for (int i = 0; i < 50; ++i) {
    const HTTP_Connection_var c = s->get_object("bucket", ("key" + std::to_string(i)).c_str(), 0, nullptr);
    EXPECT_EQ(4096u, drain(*c.get()).size());
  }
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Service_Test, services_of_one_client_share_connections) {
  server.put("bucket", "key", "hello");
  S3_Client client;
  ASSERT_TRUE(connect(client, 0));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ("hello", drain(*client.make_service()->get_object("bucket", "key", 0, nullptr).get()));
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Service_Test, connection_outlives_its_service) {
  server.put_synthetic("bucket", "key", 3000000, 1);
  HTTP_Connection_var c = service()->get_object("bucket", "key", 0, nullptr);
  EXPECT_EQ(3000000u, drain(*c.get()).size());
  EXPECT_EQ(HTTP_Connection::BODY_READ, c->state());
}

TEST_F(Service_Test, connection_given_up_early_does_not_serve_another) {
  server.put_synthetic("bucket", "large", 30000000, 1);
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  {
    const HTTP_Connection_var c = s->get_object("bucket", "large", 0, nullptr);
    char buffer[10];
    EXPECT_EQ(sizeof buffer, c->recv(buffer, sizeof buffer, nullptr));
    c->close();
    c->close();
    EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
    EXPECT_EQ(0u, c->recv(buffer, sizeof buffer, nullptr));
  }
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get()));
  EXPECT_EQ(2u, server.connections_opened());
}

TEST_F(Service_Test, reader_that_waits_holds_the_peer_back) {
  server.put_synthetic("bucket", "large", 64u << 20, 1);
  const HTTP_Connection_var c = service()->get_object("bucket", "large", 0, nullptr);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, c->state());
  char buffer[1000];
  ASSERT_EQ(sizeof buffer, c->recv(buffer, sizeof buffer, nullptr));
  EXPECT_LT(server.body_bytes_sent(), 32u << 20);
  EXPECT_EQ((64u << 20) - sizeof buffer, drain(*c.get(), 1 << 20).size());
}

TEST_F(Service_Test, dead_connection_is_replaced_without_an_error) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get()));
  server.drop_connections();
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
}

TEST_F(Service_Test, cut_body_is_resumed_from_where_it_broke) {
  const std::string content = s3_testing::synthetic_bytes(9, 0, 500000);
  server.put("bucket", "key", content);
  server.add_fault(Fault::cut(200000).on("GetObject").times(1));
  const S3_Service_var s = service();
  HTTP_Connection_var c = s->get_object("bucket", "key", 0, &object);
  std::string all = drain(*c.get(), 300000);
  EXPECT_EQ(200000u, all.size());
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
  c = s->get_object("bucket", "key", all.size(), nullptr);
  ASSERT_EQ(HTTP_Connection::HEADERS_READ, c->state()) << s->error();
  all += drain(*c.get());
  EXPECT_EQ(content, all);
  EXPECT_EQ(HTTP_Connection::BODY_READ, c->state());
}

TEST_F(Service_Test, stalled_body_gives_what_came_and_closes) {
  server.put_synthetic("bucket", "key", 500000, 1);
  server.add_fault(Fault::stall(1000).on("GetObject"));
  const HTTP_Connection_var c = service()->get_object("bucket", "key", 0, &object);
  std::string buffer(5000, '\0');
  const ACE_Time_Value soon(0, 200000);
  EXPECT_EQ(1000u, c->recv(&buffer[0], buffer.size(), &soon));
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
  EXPECT_EQ(0u, c->recv(&buffer[0], buffer.size(), &soon));
}

TEST_F(Service_Test, stalled_head_times_out_and_may_be_repeated) {
  settings.connect_timeout = 1;
  settings.idle_timeout = 1;
  server.put("bucket", "key", "hello");
  server.add_fault(Fault::delay(60000).on("GetObject").times(1));
  const S3_Service_var s = service();
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 0, nullptr)->state());
  EXPECT_EQ("TimedOut", s->last_error().code());
  EXPECT_TRUE(s->last_error().retriable());
}

TEST_F(Service_Test, object_replaced_while_read_is_not_resumed) {
  server.put("bucket", "key", std::string(1000, 'a'));
  const S3_Service_var s = service();
  drain(*s->get_object("bucket", "key", 0, &object).get());
  server.put("bucket", "key", std::string(1000, 'b'));
  const HTTP_Connection_var c = s->get_object("bucket", "key", 500, nullptr);
  EXPECT_EQ(HTTP_Connection::FAILED, c->state());
  EXPECT_EQ("PreconditionFailed", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Service_Test, range_without_an_earlier_request_is_answered) {
  server.put("bucket", "key", "0123456789");
  server.put("bucket", "other", "abc");
  const S3_Service_var s = service();
  EXPECT_EQ("789", drain(*s->get_object("bucket", "key", 7, &object).get()));
  EXPECT_EQ(10u, object.size);
  drain(*s->get_object("bucket", "other", 0, nullptr).get());
  EXPECT_EQ("3456789", drain(*s->get_object("bucket", "key", 3, nullptr).get()));
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 10, nullptr)->state());
  EXPECT_EQ("InvalidRange", s->last_error().code());
}

TEST_F(Service_Test, head_tells_whether_the_object_is_there) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  ASSERT_TRUE(s->head_object("bucket", "key", object)) << s->error();
  EXPECT_TRUE(object.exists);
  EXPECT_EQ(5u, object.size);
  EXPECT_EQ(static_cast<ACE_UINT64>(server.object("bucket", "key")->mtime), object.mtime);
  ASSERT_TRUE(s->head_object("bucket", "none", object)) << s->error();
  EXPECT_FALSE(object.exists);
  EXPECT_EQ(2u, ledger->head_objects.load());
  server.add_fault(Fault::error(403, "AccessDenied"));
  EXPECT_FALSE(s->head_object("bucket", "key", object));
  EXPECT_EQ(EACCES, s->last_error().number());
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Service_Test, storage_class_is_told_unless_it_is_the_default) {
  s3_testing::Object cold = s3_testing::make_object("x");
  cold.storage_class = "GLACIER";
  server.put("bucket", "cold", cold);
  server.put("bucket", "warm", "x");
  const S3_Service_var s = service();
  ASSERT_TRUE(s->head_object("bucket", "cold", object));
  EXPECT_EQ("GLACIER", object.storage_class);
  ASSERT_TRUE(s->head_object("bucket", "warm", object));
  EXPECT_EQ("", object.storage_class);
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "cold", 0, &object)->state());
  EXPECT_EQ("InvalidObjectState", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Service_Test, odd_keys_go_there_and_back) {
  const char* keys[] = {"a b",   "a+b",   "a%20b",    "a&b=c",  "it's", "\xc3\xa9", "e\xcc\x81", "a//b",
                        "/lead", ".",     "..",       "a/../b", "./x",  "a/./b",    "tail/",     "\x01\x1f\x7f",
                        "?#",    "<>&\"", "\xff\xfe", "%",      "//",   "~"};
  const S3_Service_var s = service();
  for (const char* key : keys) {
    const S3_IWriter_ptr writer = s->upload("bucket", key, 3);
    ASSERT_TRUE(writer);
    EXPECT_EQ(3, writer->write("abc", 3));
    EXPECT_TRUE(writer->close());
    EXPECT_EQ("abc", server.get("bucket", key).value_or("none")) << key;
    EXPECT_EQ("abc", drain(*s->get_object("bucket", key, 0, nullptr).get())) << key;
  }
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)) << s->error();
  std::vector<std::string> listed;
  for (const S3_Object& o : content.objects)
    listed.push_back(o.name);
  EXPECT_EQ(server.keys("bucket"), listed);
  for (const char* key : keys)
    EXPECT_TRUE(s->del_object("bucket", key)) << key;
  EXPECT_EQ(0u, server.object_count("bucket"));
}

TEST_F(Service_Test, deleting_what_is_not_there_succeeds) {
  const S3_Service_var s = service();
  EXPECT_TRUE(s->del_object("bucket", "none"));
  EXPECT_FALSE(s->del_object("nobucket", "none"));
  EXPECT_EQ("NoSuchBucket", s->last_error().code());
}

TEST_F(Service_Test, buckets_are_listed_made_and_found) {
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("second"));
  EXPECT_EQ("NoSuchBucket", s->last_error().code());
  EXPECT_TRUE(s->create_bucket("second")) << s->error();
  EXPECT_TRUE(s->bucket_exists("second"));
  Get_Service_Content content;
  ASSERT_TRUE(s->get_service(Get_Service_Parameter(), content)) << s->error();
  ASSERT_EQ(2u, content.buckets.size());
  EXPECT_EQ("bucket", content.buckets[0].name);
  EXPECT_EQ("second", content.buckets[1].name);
  EXPECT_GT(content.buckets[0].ctime, 1600000000);
  EXPECT_FALSE(content.owner.empty());
  EXPECT_FALSE(content.truncated);
}

TEST_F(Service_Test, location_is_told_as_it_comes) {
  const S3_Service_var s = service();
  for (const char* text : {"", "US", "EU", "eu-west-1"}) {
    server.configure([&](s3_testing::S3_Server_Settings& settings) { settings.location = text; });
    std::string location = "before";
    ASSERT_TRUE(s->get_bucket_location("bucket", location)) << s->error();
    EXPECT_EQ(text, location);
  }
}

TEST_F(Service_Test, both_signing_methods_are_accepted) {
  server.put("bucket", "a/b c", "hello");
  for (const char* method : {"v4", "v2"}) {
    sign_method = method;
    server.configure([&](s3_testing::S3_Server_Settings& settings) {
      settings.signatures =
          std::string(method) == "v4" ? s3_testing::Signatures::v4_only : s3_testing::Signatures::v2_only;
    });
    const S3_Service_var s = service();
    EXPECT_EQ("hello", drain(*s->get_object("bucket", "a/b c", 0, nullptr).get())) << s->error();
    std::string location;
    EXPECT_TRUE(s->get_bucket_location("bucket", location)) << s->error();
    Get_Bucket_Content content;
    EXPECT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content)) << s->error();
    const S3_IWriter_ptr writer = s->upload("bucket", "new", 3);
    EXPECT_EQ(3, writer->write("abc", 3));
    EXPECT_TRUE(writer->close());
  }
}

TEST_F(Service_Test, wrong_secret_is_final) {
  secret = "wrong";
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ(EACCES, s->last_error().number());
  EXPECT_FALSE(s->last_error().retriable());
  Get_Service_Content content;
  EXPECT_FALSE(s->get_service(Get_Service_Parameter(), content));
  EXPECT_EQ("SignatureDoesNotMatch", s->last_error().code());
}

TEST_F(Service_Test, options_without_sense_make_no_service) {
  S3_Service_Options options = service_options();
  options.sign_method = "v3";
  EXPECT_EQ(nullptr, make_s3_service(options));
  options = service_options();
  options.host = "";
  EXPECT_EQ(nullptr, make_s3_service(options));
  options.host = "evil/host";
  EXPECT_EQ(nullptr, make_s3_service(options));
  S3_Client client;
  EXPECT_EQ(nullptr, client.make_service());
  EXPECT_EQ(nullptr, client.upload("bucket", "key", 1));
  EXPECT_FALSE(client.del("bucket", "key"));
}

TEST_F(Service_Test, virtual_host_style_reaches_the_bucket) {
  server.put("bucket", "a//b", "hello");
  server.configure(
      [](s3_testing::S3_Server_Settings& settings) { settings.addressing = s3_testing::Addressing::virtual_only; });
  settings.addressing = Endpoint_Settings::ADDRESSING_VIRTUAL;
  Endpoint_Settings::set("localhost", server.port(), access, settings);
  for (const char* method : {"v4", "v2"}) {
    S3_Service_Options options = service_options();
    options.host = "localhost";
    options.sign_method = method;
    const S3_Service_var s = make_s3_service(options);
    EXPECT_EQ("hello", drain(*s->get_object("bucket", "a//b", 0, nullptr).get())) << s->error();
  }
}

TEST_F(Service_Test, nobody_listening_is_retriable) {
  server.stop_listening();
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("CouldNotConnect", s->last_error().code());
  EXPECT_TRUE(s->last_error().retriable());
  EXPECT_NE(std::string::npos, std::string(s->error()).find(server.endpoint()));
}

TEST_F(Service_Test, a_request_is_sent_once) {
  server.add_fault(Fault::error(503, "SlowDown"));
  const S3_Service_var s = service();
  server.put("bucket", "key", "x");
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 0, &object)->state());
  EXPECT_TRUE(s->last_error().retriable());
  EXPECT_EQ(1u, server.count());
}

TEST_F(Service_Test, right_region_is_learned_from_the_refusal) {
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.region = "eu-west-1"; });
  server.put("bucket", "key", "hello");
  region = "us-east-1";
  const S3_Service_var s = service();
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
  EXPECT_EQ(2u, server.count());
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
  EXPECT_EQ(3u, server.count());
}

TEST_F(Service_Test, redirection_to_another_service_is_not_followed) {
  s3_testing::S3_Server other;
  other.create_bucket("bucket");
  other.put("bucket", "key", "stolen");
  server.put("bucket", "key", "hello");
  server.add_fault(Fault::redirect(307, "us-east-1", other.url()).on("GetObject"));
  const S3_Service_var s = service();
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 0, nullptr)->state());
  EXPECT_EQ(0u, other.count());
  EXPECT_FALSE(s->last_error().retriable());
  EXPECT_EQ(307, s->last_error().status());
}

TEST_F(Service_Test, redirection_is_followed_once) {
  server.put("bucket", "key", "hello");
  server.add_fault(Fault::redirect(301, "eu-west-9").on("GetObject"));
  const S3_Service_var s = service();
  EXPECT_EQ(HTTP_Connection::FAILED, s->get_object("bucket", "key", 0, nullptr)->state());
  EXPECT_EQ(2u, server.count("GetObject"));
}

TEST_F(Service_Test, skewed_clock_is_corrected_from_the_answer) {
  server.put("bucket", "key", "hello");
  Test_Clock clock;
  clock.now(std::time(nullptr) - 86400);
  const S3_Service_var s = service();
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
  EXPECT_EQ(2u, server.count());
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
  EXPECT_EQ(3u, server.count());
}

TEST_F(Service_Test, wrong_lengths_never_pass_for_a_whole_object) {
  server.put("bucket", "key", std::string(5000, 'x'));
  const S3_Service_var s = service();
  server.add_fault(Fault::wrong_length(+100).on("GetObject").times(1));
  HTTP_Connection_var c = s->get_object("bucket", "key", 0, &object);
  drain(*c.get());
  EXPECT_EQ(HTTP_Connection::CLOSED, c->state());
}

TEST_F(Service_Test, threads_work_side_by_side_over_one_client) {
  for (int i = 0; i < 20; ++i)
    server.put("bucket", std::to_string(i), std::string(20000, static_cast<char>('a' + i)));
  S3_Client client;
  ASSERT_TRUE(connect(client, 0));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      const S3_Service_var s = client.make_service();
      for (int i = 0; i < 100; ++i) {
        const HTTP_Connection_var c = s->get_object("bucket", std::to_string(i % 20).c_str(), 0, nullptr);
        if (drain(*c.get()) != std::string(20000, static_cast<char>('a' + i % 20)))
          ++wrong;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_EQ(0, wrong);
  EXPECT_LE(server.connections_opened(), 4u);
}

TEST_F(Service_TLS_Test, certificate_of_the_ca_file_is_trusted) {
  server.put("bucket", "key", "hello");
  const S3_Service_var s = service();
  EXPECT_EQ("hello", drain(*s->get_object("bucket", "key", 0, nullptr).get())) << s->error();
  const S3_IWriter_ptr writer = s->upload("bucket", "new", 3);
  EXPECT_EQ(3, writer->write("abc", 3));
  EXPECT_TRUE(writer->close());
  EXPECT_EQ("abc", server.get("bucket", "new").value_or("none"));
  EXPECT_EQ(1u, server.connections_opened());
}

TEST_F(Service_TLS_Test, certificate_of_nobody_known_is_refused) {
  settings.ca_file.clear();
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("CertificateNotTrusted", s->last_error().code());
  EXPECT_FALSE(s->last_error().retriable());
}

TEST_F(Service_TLS_Test, unreadable_ca_file_is_named) {
  settings.ca_file = "/nonexistent/ca.pem";
  const S3_Service_var s = service();
  EXPECT_FALSE(s->bucket_exists("bucket"));
  EXPECT_EQ("CertificateFileUnreadable", s->last_error().code());
}

TEST_F(Service_TLS_Test, peer_that_hangs_up_in_the_middle_is_an_error_and_no_signal) {
  const S3_Service_var s = service();
  const std::string data(8 << 20, 'x');
  for (const bool early : {true, false}) {
    server.clear_faults();
    server.add_fault(early ? Fault::no_reply().on("PutObject") : Fault::cut_upload(100000).on("PutObject"));
    const S3_IWriter_ptr writer = s->upload("bucket", "key", data.size());
    EXPECT_EQ(static_cast<int>(data.size()), writer->write(data.data(), data.size()));
    EXPECT_FALSE(writer->close());
  }
  EXPECT_FALSE(server.get("bucket", "key"));
}

TEST_F(Service_TLS_Test, large_body_passes_in_small_pieces) {
  server.put_synthetic("bucket", "key", 3 << 20, 5);
  const HTTP_Connection_var c = service()->get_object("bucket", "key", 0, nullptr);
  EXPECT_EQ(s3_testing::synthetic_bytes(5, 0, 3 << 20), drain(*c.get(), 777));
  EXPECT_EQ(HTTP_Connection::BODY_READ, c->state());
}

} // namespace
