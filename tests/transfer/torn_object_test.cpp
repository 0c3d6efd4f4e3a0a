#include "tests/transfer/transfer_fixture.h"

#include <algorithm>
#include <iostream>
#include <random>
#include <set>

using s3_testing::Fault;
using s3_testing::synthetic_bytes;

namespace {

constexpr std::int64_t FIRST_DATE = 1700000000;

bool has_header(const s3_testing::Request_Info& request, const std::string& name) {
  return std::any_of(request.headers.begin(), request.headers.end(),
                     [&](const auto& header) { return header.first == name; });
}

class Torn_Object : public Transfer_Test {
protected:
  Torn_Object() {
    // Some objects are read whole into memory, the larger ones stream through the medium's writer.
    order.limits.small_object = 12000;
    order.limits.stream_buffer = 3000;
  }

  void put(const std::string& key, std::uint64_t size, std::uint64_t seed) {
    s3_testing::Object object = s3_testing::make_synthetic_object(size, seed);
    object.mtime = FIRST_DATE;
    ASSERT_TRUE(server.put("bucket", key, object));
  }

  std::string stored(const std::string& key) {
    const auto objects = catalog();
    const auto found = objects.find("bucket/" + key);
    return found == objects.end() ? "(not in the set)" : content(found->second);
  }
};

TEST_F(Torn_Object, object_that_is_replaced_in_the_middle_is_read_again_from_its_start) {
  for (const std::uint64_t size : {9000u, 90000u}) {
    SCOPED_TRACE(size);
    new_job();
    put("key", size, 5);
    server.add_fault(Fault::change_object(size / 2, true).on("GetObject").times(1));
    ASSERT_TRUE(backup()) << failure;
    EXPECT_EQ(1u, figure("saved"));
    EXPECT_EQ(synthetic_bytes(5 + 77, 0, size), stored("key"));
    EXPECT_EQ(FIRST_DATE + 1, catalog()["bucket/key"].mtime);
  }
}

TEST_F(Torn_Object, object_that_changes_every_time_is_read_four_times_and_named_as_changing) {
  for (const std::uint64_t size : {9000u, 90000u}) {
    SCOPED_TRACE(size);
    new_job();
    server.reset_counts();
    server.clear_faults();
    put("key", size, 5);
    put("other", 100, 6);
    server.keep_log(true);
    server.add_fault(Fault::change_object(size / 2, true).on("GetObject").key("key"));
    ASSERT_TRUE(backup()) << failure;
    EXPECT_EQ(1u, figure("saved"));
    EXPECT_EQ(1u, figure("skipped"));
    EXPECT_NE(std::string::npos, reason("/bucket/key").find("changing")) << reason("/bucket/key");
    unsigned whole = 0, rest = 0;
    for (const s3_testing::Request_Info& request : server.log())
      if (request.operation == "GetObject" && request.key == "key") {
        const bool ranged = has_header(request, "range");
        EXPECT_EQ(ranged, has_header(request, "if-match"));
        ++(ranged ? rest : whole);
      }
    EXPECT_EQ(4u, whole);
    EXPECT_EQ(4u, rest);
    EXPECT_EQ(synthetic_bytes(6, 0, 100), stored("other"));
    server.keep_log(false);
  }
}

TEST_F(Torn_Object, replacement_before_the_first_byte_that_ends_where_the_old_one_would_is_noticed) {
  put("key", 9000, 5);
  // The connection ends with the head; the request that takes it up gets a longer object, cut where the first one ends.
  server.add_fault(Fault::change_object(0, true, synthetic_bytes(99, 0, 11000)).on("GetObject").times(1));
  server.add_fault(Fault::cut(9000).on("GetObject").from_nth(2).times(1));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(synthetic_bytes(99, 0, 11000), stored("key"));
}

TEST_F(Torn_Object, service_without_if_match_is_found_out_by_its_tags) {
  put("key", 90000, 5);
  server.add_fault(Fault::change_object(40000, true).on("GetObject").times(1));
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.if_match = false; });
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(synthetic_bytes(5 + 77, 0, 90000), stored("key"));
}

TEST_F(Torn_Object, object_without_a_tag_is_never_taken_up_in_the_middle) {
  put("key", 90000, 5);
  server.configure([](s3_testing::S3_Server_Settings& settings) { settings.etags = false; });
  server.keep_log(true);
  server.add_fault(Fault::change_object(40000, true).on("GetObject").times(1));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(synthetic_bytes(5 + 77, 0, 90000), stored("key"));
  for (const s3_testing::Request_Info& request : server.log())
    EXPECT_FALSE(has_header(request, "range"));
}

TEST_F(Torn_Object, length_that_is_stated_wrong_is_never_stored_as_whole) {
  put("once short", 9000, 1);
  put("once long", 9000, 2);
  put("always short", 9000, 3);
  put("always long", 9000, 4);
  server.add_fault(Fault::wrong_length(-100).on("GetObject").key("once short").times(1));
  server.add_fault(Fault::wrong_length(100).on("GetObject").key("once long").times(1));
  server.add_fault(Fault::wrong_length(-100).on("GetObject").key("always short"));
  server.add_fault(Fault::wrong_length(100).on("GetObject").key("always long"));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(2u, figure("saved"));
  EXPECT_EQ(2u, figure("failed"));
  EXPECT_EQ(synthetic_bytes(1, 0, 9000), stored("once short"));
  EXPECT_EQ(synthetic_bytes(2, 0, 9000), stored("once long"));
  EXPECT_NE(std::string::npos, reason("/bucket/always short").find("contradicts"));
  EXPECT_NE(std::string::npos, reason("/bucket/always long").find("contradicts"));
}

TEST_F(Torn_Object, connection_cut_anywhere_is_not_the_end_of_the_body) {
  put("key", 90000, 5);
  for (const std::uint64_t at : {0u, 1u, 8999u, 50000u, 89999u})
    server.add_fault(Fault::cut(at).on("GetObject").times(1));
  ASSERT_TRUE(backup()) << failure;
  EXPECT_EQ(synthetic_bytes(5, 0, 90000), stored("key"));
}

TEST_F(Torn_Object, object_that_is_replaced_while_several_streams_read_it_is_read_again) {
  constexpr std::uint64_t SIZE = 6u << 20;
  settings.ranges.threshold = 1 << 20;
  settings.ranges.size = 64 << 10;
  settings.ranges.first = 4;
  order.limits.stream_buffer = 100000;
  server.configure([](s3_testing::S3_Server_Settings& s) { s.bytes_per_second = 4 << 20; });
  for (const unsigned nth : {1u, 4u, 12u, 30u}) {
    SCOPED_TRACE(nth);
    new_job();
    server.clear_faults();
    server.reset_counts();
    put("key", SIZE, 5);
    server.add_fault(Fault::change_object(40000, false).on("GetObject").from_nth(nth).times(1));
    ASSERT_TRUE(backup()) << failure;
    EXPECT_GE(server.max_concurrent(), 3u);
    // Of the first answer the server goes on with the old generation, which may come to its end before any range fails.
    const std::string found = stored("key");
    EXPECT_TRUE(found == synthetic_bytes(5 + 77, 0, SIZE) || found == synthetic_bytes(5, 0, SIZE));
    EXPECT_EQ(0u, ledger->range_memory.used());
  }
}

/// Ten thousand replacements at random places of a body, with and without a cut there, of the same length and of
/// others, among cuts and wrong lengths. Whatever is in a set is one generation, whole.
TEST_F(Torn_Object, none_of_ten_thousand_replacements_is_mixed_with_what_it_replaces) {
  constexpr std::uint64_t SWAPS = 10000;
  constexpr unsigned OBJECTS = 250, CONTENTS = 40;
  const unsigned seed = std::random_device()();
  std::cout << "seed " << seed << "\n";
  RecordProperty("seed", std::to_string(seed));
  std::mt19937 random(seed);
  const auto upto = [&](unsigned most) { return static_cast<unsigned>(random() % (most + 1)); };

  // Objects begin with the seeds 1000000, 2000000 and so on; each replacement of the same length adds 77. Those of
  // another length have contents of their own, and their followers count from 0.
  std::set<std::uint64_t> sizes;
  std::vector<std::uint64_t> size_of(OBJECTS);
  for (unsigned i = 0; i < OBJECTS; ++i) {
    size_of[i] = 64 + upto(random() % 4 == 0 ? 40000 : 6000);
    sizes.insert(size_of[i]);
    put("d" + std::to_string(i % 7) + "/" + std::to_string(i), size_of[i], 1000000ull * (i + 1));
  }
  std::vector<std::string> contents;
  for (unsigned i = 0; i < CONTENTS; ++i) {
    contents.push_back(synthetic_bytes(900000000ull + i, 0, 64 + upto(8000)));
    sizes.insert(contents.back().size());
  }
  std::map<std::string, std::uint64_t> seed_of; // by the first 16 bytes
  const auto know = [&](std::uint64_t generation) { seed_of.emplace(synthetic_bytes(generation, 0, 16), generation); };
  for (std::uint64_t k = 0; k < 400; ++k) {
    know(77 * k);
    for (unsigned i = 0; i < OBJECTS; ++i)
      know(1000000ull * (i + 1) + 77 * k);
  }
  for (unsigned i = 0; i < CONTENTS; ++i)
    know(900000000ull + i);

  std::uint64_t swaps = 0, saved = 0, changing = 0;
  for (unsigned run = 0; swaps < SWAPS && run < 1000; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    new_job();
    server.clear_faults();
    for (unsigned i = 0; i < 40; ++i) {
      const bool other = i % 4 == 0;
      server.add_fault(
          Fault::change_object(upto(i % 5 == 0 ? 40000 : 6000), random() % 4 != 0,
                               other ? std::optional<std::string>(contents[upto(CONTENTS - 1)]) : std::nullopt)
              .on("GetObject")
              .probability(0.02));
    }
    server.add_fault(Fault::cut(upto(6000)).on("GetObject").probability(0.02));
    // Once per key: an answer whose length is wrong twice in the same way cannot be told from a true one.
    for (unsigned i = run % 10; i < OBJECTS; i += 10)
      server.add_fault(Fault::wrong_length(random() % 2 == 0 ? 1 + upto(50) : -1 - static_cast<int>(upto(50)))
                           .on("GetObject")
                           .key("d" + std::to_string(i % 7) + "/" + std::to_string(i))
                           .times(1));
    const std::uint64_t before = server.objects_changed();
    ASSERT_TRUE(backup()) << failure;
    swaps += server.objects_changed() - before;
    ASSERT_EQ(OBJECTS, figure("listed"));
    const auto objects = catalog();
    ASSERT_EQ(figure("saved"), objects.size());
    saved += objects.size();
    for (const auto& [path, object] : objects) {
      const std::string bytes = content(object);
      ASSERT_EQ(object.size, bytes.size());
      const auto generation = seed_of.find(bytes.substr(0, 16));
      ASSERT_NE(seed_of.end(), generation) << path;
      ASSERT_EQ(1u, sizes.count(bytes.size())) << path << ": " << bytes.size() << " bytes are no object's";
      ASSERT_EQ(synthetic_bytes(generation->second, 0, bytes.size()), bytes) << path << " is mixed";
    }
    for (unsigned i = 0; i < OBJECTS; ++i) {
      const std::string path = "bucket/d" + std::to_string(i % 7) + "/" + std::to_string(i);
      if (objects.count(path) == 0) {
        ASSERT_TRUE(events->named("/" + path)) << path;
        changing += reason("/" + path).find("changing") != std::string::npos;
      }
    }
  }
  std::cout << swaps << " replacements, " << saved << " objects saved, " << changing << " named as changing\n";
  EXPECT_GE(swaps, SWAPS);
  EXPECT_GT(saved, 1000u);
}

} // namespace
