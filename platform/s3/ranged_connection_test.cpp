#include "platform/s3/client_fixture.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <set>

using s3_testing::Fault;
using s3_testing::synthetic_bytes;

namespace {

/// A service whose every connection is slow, and objects that count as large from 1 MiB on.
class Ranged_Connection_Test : public Client_Test {
protected:
  Ranged_Connection_Test() {
    settings.ranges.threshold = 1 << 20;
    settings.ranges.size = 64 << 10;
    server.configure([](s3_testing::S3_Server_Settings& s) { s.bytes_per_second = 4 << 20; });
    server.put_synthetic("bucket", "key", SIZE, 5);
    server.keep_log(true);
  }

  HTTP_Connection_var open(ACE_UINT64 offset = 0) {
    if (!service_)
      service_ = service();
    return service_->get_object("bucket", "key", offset, nullptr);
  }

  /// As a reader does: asks again from where the body broke off.
  std::string read_all(unsigned* reopened = nullptr) {
    std::string all;
    HTTP_Connection_var connection = open();
    for (unsigned again = 0; again < 1000; ++again) {
      if (connection->state() != HTTP_Connection::FAILED)
        all += drain(*connection.get(), 100000);
      else if (!service_->last_error().retriable())
        return all;
      if (reopened)
        *reopened = again;
      if (connection->state() == HTTP_Connection::BODY_READ)
        return all;
      connection = open(all.size());
    }
    return all;
  }

  unsigned ranged_requests() {
    unsigned count = 0;
    for (const s3_testing::Request_Info& request : server.log())
      count += range_of(request).empty() ? 0 : 1;
    return count;
  }
  static std::string range_of(const s3_testing::Request_Info& request) {
    for (const auto& [name, value] : request.headers)
      if (name == "range")
        return value;
    return std::string();
  }

  static constexpr ACE_UINT64 SIZE = 8u << 20;
  S3_Service_var service_;
};

TEST_F(Ranged_Connection_Test, slow_stream_is_joined_by_others) {
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_GE(server.max_concurrent(), 2u);
  EXPECT_GT(ranged_requests(), 2u);
}

TEST_F(Ranged_Connection_Test, ranges_are_asked_for_side_by_side_and_the_bytes_come_in_order) {
  settings.ranges.first = 8;
  const HTTP_Connection_var connection = open();
  EXPECT_EQ(HTTP_Connection::HEADERS_READ, connection->state());
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), drain(*connection.get(), 77777));
  EXPECT_EQ(HTTP_Connection::BODY_READ, connection->state());
  EXPECT_GE(server.max_concurrent(), 4u);
  EXPECT_GT(ranged_requests(), 20u);
  for (const s3_testing::Request_Info& request : server.log())
    if (!range_of(request).empty()) {
      EXPECT_TRUE(std::any_of(request.headers.begin(), request.headers.end(), [&](const auto& header) {
        return header.first == "if-match" && header.second == '"' + server.object("bucket", "key")->etag + '"';
      }));
    }
  EXPECT_GT(ledger->range_memory.peak(), 0u);
  // Two for each stream, and what a stream has just finished with.
  EXPECT_LE(ledger->range_memory.peak(), 3u * 8 * settings.ranges.size);
  EXPECT_EQ(0u, ledger->range_memory.used());
}

TEST_F(Ranged_Connection_Test, connections_are_used_again_for_the_next_ranges) {
  settings.ranges.first = 8;
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  // One whose end comes late on a busy machine is replaced; most are not.
  EXPECT_LT(100u, ranged_requests());
  EXPECT_GE(16u, server.connections_opened());
}

TEST_F(Ranged_Connection_Test, stream_stays_alone_where_no_more_are_allowed) {
  settings.ranges.most = 1;
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Ranged_Connection_Test, object_below_the_threshold_stays_alone) {
  settings.ranges.threshold = SIZE + 1;
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Ranged_Connection_Test, without_memory_one_stream_carries_everything) {
  ASSERT_TRUE(ledger->range_memory.take(64u << 20));
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_EQ(1u, server.count("GetObject"));
  ledger->range_memory.give_back(64u << 20);
}

TEST_F(Ranged_Connection_Test, little_memory_bounds_the_streams) {
  settings.ranges.first = 8;
  const size_t others = (64u << 20) - 3 * settings.ranges.size;
  ASSERT_TRUE(ledger->range_memory.take(others));
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_LE(ledger->range_memory.peak(), 64u << 20);
  // Three ranges, and a stream that was let go and of which the server does not know yet.
  EXPECT_LE(server.max_concurrent(), 5u);
  EXPECT_EQ(others, ledger->range_memory.used());
  ledger->range_memory.give_back(others);
}

TEST_F(Ranged_Connection_Test, broken_ranges_are_taken_up_and_nothing_is_missing_or_twice) {
  settings.ranges.first = 8;
  server.add_fault(Fault::cut(30000).on("GetObject").probability(0.2));
  server.add_fault(Fault::no_reply().on("GetObject").from_nth(3).probability(0.05));
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_EQ(0u, ledger->range_memory.used());
}

TEST_F(Ranged_Connection_Test, refused_ranges_fall_back_to_the_stream_there_is) {
  settings.ranges.first = 4;
  server.add_fault(Fault::error(503, "SlowDown").on("GetObject").when([](const s3_testing::Request_Info& request) {
    return !range_of(request).empty();
  }));
  unsigned reopened = 0;
  settings.ranges.size = 1 << 20;
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all(&reopened));
  EXPECT_EQ(0u, reopened);
}

TEST_F(Ranged_Connection_Test, replaced_object_breaks_off_and_is_not_gone_on_with) {
  settings.ranges.first = 4;
  server.add_fault(Fault::change_object(30000, false).on("GetObject").from_nth(8).times(1));
  const std::string all = read_all();
  EXPECT_LT(all.size(), SIZE);
  EXPECT_EQ(synthetic_bytes(5, 0, all.size()), all);
  EXPECT_EQ("PreconditionFailed", service_->last_error().code());
}

TEST_F(Ranged_Connection_Test, service_that_ignores_ranges_is_asked_for_the_whole_from_then_on) {
  settings.ranges.first = 4;
  server.configure([](s3_testing::S3_Server_Settings& s) { s.ranges = false; });
  settings.ranges.size = 1 << 20;
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  server.reset_counts();
  EXPECT_EQ(synthetic_bytes(5, 0, SIZE), read_all());
  EXPECT_EQ(1u, server.count("GetObject"));
}

TEST_F(Ranged_Connection_Test, reader_that_goes_away_ends_the_threads_at_once) {
  settings.ranges.first = 4;
  settings.idle_timeout = 60;
  constexpr size_t FAR = 3 << 20;
  server.add_fault(Fault::stall(1000).on("GetObject").when([](const s3_testing::Request_Info& request) {
    const std::string range = range_of(request);
    return !range.empty() && std::stoull(range.substr(6)) >= FAR;
  }));
  HTTP_Connection_var connection = open();
  std::string buffer(FAR - settings.ranges.size, '\0');
  ASSERT_EQ(buffer.size(), connection->recv(&buffer[0], buffer.size(), nullptr));
  ASSERT_TRUE(server.wait_for_stalls(1, 20));
  const auto began = std::chrono::steady_clock::now();
  connection = HTTP_Connection_var();
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(5));
  EXPECT_EQ(0u, ledger->range_memory.used());
}

TEST_F(Ranged_Connection_Test, body_from_the_middle_is_read_over_several_streams_too) {
  settings.ranges.first = 4;
  open();
  const HTTP_Connection_var connection = open(100001);
  EXPECT_EQ(synthetic_bytes(5, 100001, SIZE - 100001), drain(*connection.get(), 50000));
  EXPECT_GT(ranged_requests(), 10u);
}

TEST_F(Ranged_Connection_Test, eight_ranges_are_under_way_at_one_time) {
  constexpr size_t RANGES = 8;
  settings.idle_timeout = 60;
  settings.ranges.first = settings.ranges.most = RANGES;
  // Each answer stops short of its range's end, so none makes room for another one.
  server.add_fault(Fault::stall(1000).on("GetObject").when(
      [](const s3_testing::Request_Info& request) { return !range_of(request).empty(); }));
  const HTTP_Connection_var connection = open();
  std::thread reader([&] { drain(*connection.get(), 10000); });
  EXPECT_TRUE(server.wait_for_stalls(RANGES, 60)) << ranged_requests() << " ranges were asked for";
  EXPECT_EQ(RANGES, ranged_requests()) << "and no more than that";
  server.clear_faults();
  server.release_stalls();
  reader.join();
}

} // namespace
