#include "platform/s3/service_watch.h"

#include "platform/s3/client_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using s3_testing::Fault;

/// A service that answers a probe, or does not.
class Service_Watch_Test : public testing::Test {
protected:
  Service_Watch_Test() { watch.limit(300); }

  void fail(double now) { watch.failed("CouldNotConnect: refused", now, probe()); }
  void deny(const std::string& what, double now) { watch.denied(what, "AccessDenied", now, probe()); }
  Service_Watch::Probe probe() {
    return [this] {
      ++probes;
      if (here)
        watch.answered();
      else
        watch.failed("CouldNotConnect: refused", 0, nullptr);
    };
  }

  Service_Watch watch;
  bool here = false;
  unsigned probes = 0;
};

TEST_F(Service_Watch_Test, service_that_answers_nothing_for_the_limit_is_gone) {
  fail(1000);
  EXPECT_TRUE(watch.failing());
  for (int quarter = 4000; quarter < 5200; ++quarter) { // quarters of a second, which are exact in binary
    const double now = quarter / 4.0;
    if (quarter / 4 % 7 == 0)
      fail(now);
    ASSERT_FALSE(watch.look(now)) << now;
  }
  EXPECT_TRUE(watch.look(1300));
  EXPECT_TRUE(watch.gone());
  EXPECT_FALSE(watch.failing());
  EXPECT_EQ(61u, watch.outages()) << "every 5 seconds, at both ends too";
  EXPECT_EQ("The service is gone: nothing was answered for 300 seconds. Last: CouldNotConnect: refused",
            watch.message());
  watch.answered();
  EXPECT_TRUE(watch.look(1301)) << "for good";
}

TEST_F(Service_Watch_Test, nobody_is_asked_while_nothing_fails) {
  watch.answered();
  EXPECT_FALSE(watch.look(1e9));
  EXPECT_EQ(0u, probes);
}

TEST_F(Service_Watch_Test, answer_in_between_begins_the_time_anew) {
  fail(0);
  EXPECT_FALSE(watch.look(299));
  watch.answered();
  EXPECT_FALSE(watch.failing());
  fail(299);
  EXPECT_FALSE(watch.look(300));
  EXPECT_FALSE(watch.look(598));
  EXPECT_TRUE(watch.look(599));
}

TEST_F(Service_Watch_Test, objects_that_fail_at_a_service_which_answers_otherwise_are_the_objects_fault) {
  here = true;
  for (double now = 0; now < 10000; now += 10) {
    fail(now);
    ASSERT_FALSE(watch.look(now));
    ASSERT_FALSE(watch.failing());
  }
  EXPECT_EQ(1000u, probes);
  EXPECT_EQ(0u, watch.outages());
}

TEST_F(Service_Watch_Test, it_is_asked_every_few_seconds_and_comes_back) {
  fail(0);
  for (double now = 0; now < 100; now += 1)
    EXPECT_FALSE(watch.look(now));
  EXPECT_EQ(20u, probes);
  EXPECT_EQ(20u, watch.outages());
  here = true;
  EXPECT_FALSE(watch.look(100));
  EXPECT_FALSE(watch.failing());
  EXPECT_EQ(20u, watch.outages());
}

TEST_F(Service_Watch_Test, denials_of_many_different_objects_in_a_row_are_looked_into) {
  for (unsigned i = 0; i < 100; ++i)
    deny("b/one", i);
  EXPECT_FALSE(watch.failing()) << "the same again and again";
  for (unsigned i = 0; i + 2 < Service_Watch::MANY; ++i)
    deny("b/" + std::to_string(i), 100 + i);
  EXPECT_FALSE(watch.failing());
  deny("b/last", 200);
  EXPECT_TRUE(watch.failing());
  EXPECT_TRUE(watch.look(300)) << "since the first of them";
}

TEST_F(Service_Watch_Test, denials_among_good_objects_are_not) {
  for (unsigned i = 0; i < 100; ++i) {
    deny("b/" + std::to_string(i), i);
    if (i % 5 == 0)
      watch.answered();
  }
  EXPECT_FALSE(watch.failing());
}

/// What the client tells it.
class Service_Watch_At_Work : public Client_Test {
protected:
  Service_Watch_At_Work() { server.put_synthetic("bucket", "key", 100, 1); }

  Service_Watch& watch() { return ledger->service; }
  void get(const S3_Service_var& s) { s->get_object("bucket", "key", 0, nullptr); }
};

TEST_F(Service_Watch_At_Work, object_that_fails_at_a_service_which_lists_is_no_outage) {
  server.add_fault(Fault::error(500, "InternalError").on("GetObject"));
  const S3_Service_var s = service();
  get(s);
  EXPECT_TRUE(watch().failing());
  EXPECT_FALSE(watch().look(1e9));
  EXPECT_FALSE(watch().failing());
}

TEST_F(Service_Watch_At_Work, revoked_keys_and_broken_connections_are_outages) {
  for (const Fault& fault : {Fault::error(403, "InvalidAccessKeyId"), Fault::error(403, "SignatureDoesNotMatch"),
                             Fault::error(400, "ExpiredToken"), Fault::error(503, "SlowDown"), Fault::no_reply()}) {
    ledger = std::make_shared<S3_Ledger>();
    server.clear_faults();
    const S3_Service_var s = service();
    get(s);
    EXPECT_FALSE(watch().failing());
    server.add_fault(fault);
    get(s);
    EXPECT_TRUE(watch().failing()) << s->error();
    EXPECT_TRUE(watch().look(1e9)) << s->error();
    const unsigned long long requests = ledger->requests;
    get(s);
    EXPECT_EQ(requests, ledger->requests) << "nobody is asked any more";
    EXPECT_FALSE(s->last_error().retriable());
  }
}

TEST_F(Service_Watch_At_Work, denial_and_absence_are_answers) {
  const S3_Service_var s = service();
  server.add_fault(Fault::error(500, "InternalError").on("GetObject").times(1));
  server.add_fault(Fault::error(404, "NoSuchKey").on("GetObject"));
  get(s);
  EXPECT_TRUE(watch().failing());
  get(s);
  EXPECT_FALSE(watch().failing());
}

TEST_F(Service_Watch_At_Work, keys_that_are_denied_everything_after_a_listing_are_an_outage) {
  const S3_Service_var s = service();
  Get_Bucket_Content content;
  ASSERT_TRUE(s->get_bucket("bucket", Get_Bucket_Parameter(), content));
  server.add_fault(Fault::error(403, "AccessDenied"));
  for (unsigned i = 0; i < Service_Watch::MANY; ++i)
    s->get_object("bucket", ("key" + std::to_string(i)).c_str(), 0, nullptr);
  EXPECT_TRUE(watch().failing());
  EXPECT_TRUE(watch().look(1e9));
}

TEST_F(Service_Watch_At_Work, objects_that_are_denied_where_listings_are_not_are_no_outage) {
  const S3_Service_var s = service();
  server.add_fault(Fault::error(403, "AccessDenied").on("GetObject"));
  for (unsigned i = 0; i < Service_Watch::MANY; ++i)
    s->get_object("bucket", ("key" + std::to_string(i)).c_str(), 0, nullptr);
  EXPECT_TRUE(watch().failing());
  EXPECT_FALSE(watch().look(1e9));
  EXPECT_FALSE(watch().failing());
}

} // namespace
