#include "obs/agent/job/async_obs_object_lister.h"

#include "sdk/job/job.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_s3.h"
#include "testing/module/gate.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <set>
#include <thread>

using namespace module_testing;

namespace {

typedef std::vector<std::string> Keys;

/// Leaves out what contains one of the texts.
struct Text_Filter : MTF::IFilter {
  explicit Text_Filter(Keys texts) : texts(std::move(texts)) {}
  bool is_included(const char* path, bool) const override {
    for (const std::string& text : texts)
      if (std::string(path).find(text) != std::string::npos)
        return false;
    return true;
  }
  Keys texts;
};

/// The hand-out order by its definition, without paging or threads.
void expected_keys(const Fake_Store::Bucket& bucket, const std::string& prefix, const MTF::IFilter* filter,
                   Keys& keys) {
  std::set<std::string> found;
  for (auto at = bucket.lower_bound(prefix); at != bucket.end(); ++at) {
    const std::string& key = at->first;
    if (key.compare(0, prefix.size(), prefix) != 0)
      break;
    const size_t slash = key.find('/', prefix.size());
    if (slash != std::string::npos)
      found.insert(key.substr(0, slash + 1));
    else if (key != prefix && MTF::is_included(("/b/" + key).c_str(), false, filter))
      keys.push_back(key);
  }
  Keys prefixes(found.begin(), found.end());
  std::sort(prefixes.begin(), prefixes.end(),
            [](const std::string& a, const std::string& b) { return MTF::compare(a, b, '/'); });
  for (const std::string& below : prefixes)
    if (MTF::is_included(("/b/" + below).c_str(), true, filter))
      expected_keys(bucket, below, filter, keys);
}

struct object_lister : testing::Test {
  object_lister() {
    store.make_bucket("b");
    store.on_service = [this] {
      log.attach();
      return true;
    };
  }

  Keys expected(const std::string& prefix, const MTF::IFilter* filter = nullptr) const {
    Keys keys;
    expected_keys(store.bucket("b"), prefix, filter, keys);
    return keys;
  }
  static Keys take_all(Async_OBS_Object_Lister& lister) {
    Keys keys;
    Object_Entry object;
    while (lister.next(object))
      keys.push_back(object.key);
    return keys;
  }
  Keys list(const std::string& prefix, int threads = 4, unsigned long long limit = 1 << 20) {
    Async_OBS_Object_Lister lister(client, threads, 300, limit, nullptr);
    EXPECT_TRUE(lister.init("b", prefix));
    return take_all(lister);
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store store;
  Fake_Store_Client client{store};
};

void fill_at_random(Fake_Store& store, std::mt19937& random) {
  static const char* const parts[] = {"a", "a!", "a ", "ab", "b", "B", "\xC3\xA4", "", ".", "..", "x+y", "0"};
  const size_t count = random() % 120;
  for (size_t i = 0; i < count; ++i) {
    std::string key;
    for (size_t depth = random() % 5; depth > 0; --depth)
      key += std::string(parts[random() % std::size(parts)]) + "/";
    if (random() % 8 != 0)
      key += std::string(parts[random() % std::size(parts)]) + std::to_string(random() % 30);
    if (!key.empty())
      store.put("b", key, random() % 3, random());
  }
}

TEST_F(object_lister, random_trees_come_in_catalog_order_whatever_threads_pages_and_limits) {
  for (unsigned seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    Fake_Store tree;
    tree.make_bucket("b");
    fill_at_random(tree, random);
    const unsigned salt = random();
    tree.page_size = [salt](const std::string& prefix, const std::string& marker) {
      return 1 + (std::hash<std::string>()(prefix + '|' + marker) ^ salt) % 7;
    };
    tree.on_service = store.on_service;
    const unsigned long long limits[] = {0, 1, 5, 1000, 131072};
    const unsigned long long limit = limits[random() % std::size(limits)];
    const Text_Filter filter({"a!", "/B/"});
    const MTF::IFilter* chosen = random() % 2 ? &filter : nullptr;
    Fake_Store_Client on_tree(tree);
    Async_OBS_Object_Lister lister(on_tree, 1 + static_cast<int>(random() % 16), 300, limit, chosen);
    Keys keys;
    expected_keys(tree.bucket("b"), "", chosen, keys);
    ASSERT_TRUE(lister.init("b", ""));
    ASSERT_EQ(keys, take_all(lister));
    EXPECT_EQ(keys.size(), lister.statistics().total_objects);
    EXPECT_EQ(0u, lister.statistics().cached_objects);
    EXPECT_EQ(0u, lister.statistics().cached_prefixes);
    EXPECT_FALSE(lister.broken_off());
  }
}

TEST_F(object_lister, empty_prefix_ends_at_once) {
  EXPECT_EQ(Keys(), list("nothing/"));
  Async_OBS_Object_Lister lister(client, 2, 300, 10, nullptr);
  ASSERT_TRUE(lister.init("b", "nothing/"));
  Object_Entry object;
  EXPECT_FALSE(lister.next(object));
  EXPECT_FALSE(lister.next(object));
  EXPECT_EQ(1u, lister.statistics().requests);
}

TEST_F(object_lister, sub_prefixes_come_in_catalog_order_not_in_listing_order) {
  store.put("b", "a!/1");
  store.put("b", "a/1");
  EXPECT_EQ((Keys{"a/1", "a!/1"}), list(""));
}

TEST_F(object_lister, sizes_and_times_are_handed_out) {
  store.put("b", "k", 5000000000ull, 1700000001);
  Async_OBS_Object_Lister lister(client, 1, 300, 10, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  Object_Entry object;
  ASSERT_TRUE(lister.next(object));
  EXPECT_EQ("k", object.key);
  EXPECT_EQ(5000000000ull, object.size);
  EXPECT_EQ(1700000001u, object.mtime);
}

TEST_F(object_lister, lister_is_used_again_for_the_next_prefix) {
  store.put("b", "p/1");
  store.put("b", "q/1");
  Async_OBS_Object_Lister lister(client, 3, 300, 10, nullptr);
  ASSERT_TRUE(lister.init("b", "p/"));
  EXPECT_EQ((Keys{"p/1"}), take_all(lister));
  ASSERT_TRUE(lister.init("b", "q/"));
  EXPECT_EQ((Keys{"q/1"}), take_all(lister));
}

TEST_F(object_lister, start_says_threads_and_limit) {
  list("", 3, 77);
  EXPECT_EQ(1u, log.count(LM_INFO, "Async_OBS_Object_Lister with 3 threads, cache limits: 77\n"));
}

TEST_F(object_lister, empty_folder_object_is_left_out_silently) {
  store.put("b", "p/", 0);
  store.put("b", "p/1");
  EXPECT_EQ((Keys{"p/1"}), list("p/"));
  EXPECT_EQ(0u, log.count(LM_ERROR, ""));
}

TEST_F(object_lister, folder_object_with_content_is_left_out_and_named) {
  store.put("b", "p/", 5);
  EXPECT_EQ(Keys(), list(""));
  EXPECT_EQ(1u, log.count(LM_ERROR, "The key 'p/' ending with / is not supported, size: 5.\n"));
}

TEST_F(object_lister, failed_sub_prefix_keeps_its_earlier_pages_and_the_rest_goes_on) {
  for (const char* key : {"a/1", "a/2", "a/3", "b/1"})
    store.put("b", key);
  store.page_size = [](const std::string&, const std::string&) { return 2u; };
  store.on_list = [](const std::string&, const std::string& prefix, const std::string& marker) {
    return prefix == "a/" && !marker.empty() ? final_failure() : S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 3, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Keys{"a/1", "a/2", "b/1"}), take_all(lister));
  EXPECT_EQ(1u, lister.statistics().iterated_errors);
  EXPECT_EQ(3u, lister.statistics().iterated_prefixes);
  lister.reset(); // the line comes behind the failure that it tells
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list objects in 'b' , error: AccessDenied: no.\n"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to list all objects in b/a/, last error: AccessDenied: no.\n"));
  EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(object_lister, retriable_failure_is_repeated_with_a_line_each) {
  store.put("b", "k");
  std::atomic<int> left{3};
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    return left-- > 0 ? retriable_failure() : S3_Error();
  };
  EXPECT_EQ((Keys{"k"}), list("", 1));
  EXPECT_EQ(3u, log.count(LM_ERROR, "Failed to list objects in 'b' , error: SlowDown: slow down.\n"));
  for (const char* attempt : {"Retry(1) ", "Retry(2) ", "Retry(3) "})
    EXPECT_EQ(1u, log.count(LM_INFO, std::string(attempt) + "obs/agent/job/async_obs_object_lister.cpp:"));
  EXPECT_EQ(3u, log.count(" second(s) later.\n"));
}

TEST_F(object_lister, request_is_given_up_when_the_waits_reach_the_bound) {
  store.put("b", "k");
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  Async_OBS_Object_Lister lister(client, 2, 40, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ(Keys(), take_all(lister));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Retry exit on listing objects in 'b' after 40 seconds, last error: "
                                    "SlowDown: slow down.\n"));
  unsigned waited = 0;
  for (unsigned seconds : clock.sleeps())
    waited += seconds;
  EXPECT_GE(waited, 40u);
  EXPECT_LT(waited, 40u + 30u);
  EXPECT_EQ(1u, lister.statistics().iterated_errors);
}

TEST_F(object_lister, same_page_again_ends_the_prefix_instead_of_looping) {
  class Stuck : public Fake_Store_Service {
  public:
    using Fake_Store_Service::Fake_Store_Service;
    bool get_bucket(const char*, const Get_Bucket_Parameter&, Get_Bucket_Content& content) override {
      S3_Object object;
      object.name = "k";
      content.objects = {object};
      content.truncated = true;
      content.next_marker = "k";
      return true;
    }
  };
  struct Client : S3_Client {
    Client(Fake_Store& store, Log_Sink& log) : store(store), log(log) {}
    std::shared_ptr<S3_Service_Base> make_service() override {
      log.attach();
      return std::make_shared<Stuck>(store);
    }
    Fake_Store& store;
    Log_Sink& log;
  } stuck(store, log);
  Async_OBS_Object_Lister lister(stuck, 1, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Keys{"k"}), take_all(lister));
  EXPECT_EQ(1u, lister.statistics().iterated_errors);
  lister.reset();
  EXPECT_EQ(1u, log.count("last error: the service sends the same page again.\n"));
}

TEST_F(object_lister, consumer_does_not_wait_when_no_worker_has_a_service) {
  store.put("b", "k");
  store.on_service = [this] {
    log.attach();
    return false;
  };
  Async_OBS_Object_Lister lister(client, 3, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ(Keys(), take_all(lister));
  EXPECT_TRUE(lister.broken_off());
  EXPECT_GE(log.count(LM_ERROR, "Failed to make s3 service to list objects.\n"), 1u);
}

TEST_F(object_lister, one_worker_without_service_does_not_hinder_the_others) {
  store.put("b", "a/1");
  std::atomic<int> made{0};
  store.on_service = [&] {
    log.attach();
    return made++ != 0;
  };
  Async_OBS_Object_Lister lister(client, 3, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Keys{"a/1"}), take_all(lister));
  EXPECT_FALSE(lister.broken_off());
}

TEST_F(object_lister, with_limit_0_nothing_but_the_head_is_listed_while_anything_is_held) {
  for (const char* key : {"a/1", "a/2", "b/1", "c/1"})
    store.put("b", key);
  store.page_size = [](const std::string&, const std::string&) { return 1u; };
  Gate gate;
  std::vector<std::string> asked;
  store.on_list = [&](const std::string&, const std::string& prefix, const std::string& marker) {
    gate.change([&] { asked.push_back(prefix + "@" + marker); });
    return S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 8, 300, 0, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Keys{"a/1", "a/2", "b/1", "c/1"}), take_all(lister));
  lister.reset();
  // The root in three pages, then each prefix as its turn comes, one page after the other.
  EXPECT_EQ((Keys{"@", "@a/", "@b/", "a/@", "a/@a/1", "b/@", "c/@"}), asked);
}

TEST_F(object_lister, head_that_is_not_the_smallest_name_is_listed_while_the_read_ahead_is_full) {
  // "a!/" comes before "a/" in bytes, and behind it in the catalog.
  for (int i = 0; i < 40; ++i) {
    store.put("b", "a!/" + std::to_string(1000 + i));
    store.put("b", "a/" + std::to_string(1000 + i));
  }
  store.page_size = [](const std::string&, const std::string&) { return 5u; };
  const Keys keys = list("", 1, 7);
  EXPECT_EQ(80u, keys.size());
  EXPECT_EQ(expected(""), keys);
}

TEST_F(object_lister, read_ahead_stops_at_the_limit_and_goes_on_when_the_consumer_drains_it) {
  for (int prefix = 0; prefix < 50; ++prefix)
    for (int i = 0; i < 20; ++i)
      store.put("b", std::to_string(100 + prefix) + "/" + std::to_string(100 + i));
  store.page_size = [](const std::string& prefix, const std::string&) { return prefix.empty() ? 1000u : 10u; };
  const int threads = 4;
  const unsigned long long limit = 100;
  Async_OBS_Object_Lister lister(client, threads, 300, limit, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  Keys keys;
  Object_Entry object;
  while (lister.next(object)) {
    // Each worker may have passed the check with one page on its way.
    EXPECT_LE(lister.statistics().cached_objects, limit + 10 * (threads + 1));
    keys.push_back(object.key);
  }
  EXPECT_EQ(expected(""), keys);
}

/// Until so many of this process's listing threads do nothing.
void wait_until_asleep(unsigned workers) {
  for (unsigned asleep = 0; asleep != workers; std::this_thread::yield()) {
    asleep = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream file(task.path() / "stat");
      std::string stat;
      std::getline(file, stat);
      asleep += stat.find("(AsyncObsLister) S ") != std::string::npos;
    }
  }
}

TEST_F(object_lister, head_is_listed_no_further_than_its_own_limit) {
  for (int i = 0; i < 100; ++i)
    store.put("b", std::to_string(1000 + i));
  store.page_size = [](const std::string&, const std::string&) { return 1u; };
  Async_OBS_Object_Lister lister(client, 1, 300, 5, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  while (lister.statistics().total_objects < 6)
    std::this_thread::yield();
  wait_until_asleep(1);
  EXPECT_EQ(6u, lister.statistics().total_objects);
  EXPECT_EQ(expected(""), take_all(lister));
}

TEST_F(object_lister, read_ahead_stops_where_more_prefixes_are_held_than_the_limit) {
  for (int prefix = 0; prefix < 50; ++prefix)
    store.put("b", std::to_string(100 + prefix) + "/k");
  Async_OBS_Object_Lister lister(client, 4, 300, 10, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  while (lister.statistics().requests < 1)
    std::this_thread::yield();
  wait_until_asleep(4);
  EXPECT_EQ(1u, lister.statistics().requests);
  EXPECT_EQ(expected(""), take_all(lister));
  EXPECT_EQ(51u, lister.statistics().requests);
}

TEST_F(object_lister, as_many_prefixes_as_the_limit_are_listed_ahead) {
  for (int prefix = 0; prefix < 10; ++prefix)
    store.put("b", std::to_string(100 + prefix) + "/k");
  Async_OBS_Object_Lister lister(client, 1, 300, 10, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  while (lister.statistics().requests < 11)
    std::this_thread::yield();
  EXPECT_EQ(expected(""), take_all(lister));
}

TEST_F(object_lister, consumer_takes_a_sixteenth_of_the_limit_at_a_time) {
  for (int i = 0; i < 300; ++i)
    store.put("b", std::to_string(1000 + i));
  store.page_size = [](const std::string&, const std::string&) { return 1u; };
  for (const unsigned long long limit : {16ull, 64ull}) {
    Async_OBS_Object_Lister lister(client, 1, 300, limit, nullptr);
    ASSERT_TRUE(lister.init("b", ""));
    while (lister.statistics().total_objects < limit + 1)
      std::this_thread::yield();
    wait_until_asleep(1);
    Object_Entry object;
    ASSERT_TRUE(lister.next(object));
    while (lister.statistics().total_objects < limit + 1 + limit / 16)
      std::this_thread::yield();
    wait_until_asleep(1);
    EXPECT_EQ(limit + 1 + limit / 16, lister.statistics().total_objects);
  }
}

TEST_F(object_lister, what_was_taken_of_one_prefix_is_gone_when_another_is_begun) {
  for (const char* key : {"p/1", "p/2", "p/3", "q/4"})
    store.put("b", key);
  Async_OBS_Object_Lister lister(client, 1, 300, 1000, nullptr);
  ASSERT_TRUE(lister.init("b", "p/"));
  Object_Entry object;
  ASSERT_TRUE(lister.next(object));
  ASSERT_TRUE(lister.init("b", "q/"));
  EXPECT_EQ((Keys{"q/4"}), take_all(lister));
}

TEST_F(object_lister, reset_ends_paused_workers_at_once) {
  for (int i = 0; i < 100; ++i)
    store.put("b", std::to_string(i) + "/k");
  const auto begin = std::chrono::steady_clock::now();
  for (int round = 0; round < 10; ++round) {
    Async_OBS_Object_Lister lister(client, 8, 300, 0, nullptr);
    ASSERT_TRUE(lister.init("b", ""));
    Object_Entry object;
    ASSERT_TRUE(lister.next(object));
    wait_until_asleep(8);
    lister.reset();
    EXPECT_FALSE(lister.next(object));
    EXPECT_EQ(0u, lister.statistics().cached_objects);
  }
  // Pauses end by themselves after 5 seconds, so 10 rounds of those would take 50.
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(25));
}

size_t memory_mappings() {
  std::ifstream maps("/proc/self/maps");
  return static_cast<size_t>(std::count(std::istreambuf_iterator<char>(maps), std::istreambuf_iterator<char>(), '\n'));
}

TEST_F(object_lister, workers_that_ended_long_before_leave_no_stack_behind) {
  store.put("b", "p/1");
  Async_OBS_Object_Lister lister(client, 8, 300, 100, nullptr);
  const auto round = [&] {
    ASSERT_TRUE(lister.init("b", "p/"));
    EXPECT_EQ((Keys{"p/1"}), take_all(lister));
  };
  round();
  const size_t before = memory_mappings();
  for (int i = 0; i < 100; ++i)
    round();
  EXPECT_LT(memory_mappings(), before + 100); // each stack left would be two
}

TEST_F(object_lister, reset_ends_a_worker_that_waits_to_repeat_a_request) {
  store.put("b", "k");
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  Gate gate;
  bool slept = false;
  clock.on_sleep([&](unsigned) { gate.change([&] { slept = true; }); });
  Async_OBS_Object_Lister lister(client, 1, -1, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  ASSERT_TRUE(gate.wait([&] { return slept; }));
  lister.reset();
  SUCCEED();
}

TEST_F(object_lister, workers_work_for_the_consumers_job_and_stop_repeating_when_it_is_cancelled) {
  struct Some_Job : Job {
    using Job::Job;
  };
  Job_Definition::Settings settings;
  Job_var job(new Some_Job(Job_Definition_var(new Job_Definition(settings))), false);
  job->state(JOB_STATE_RUNNING);
  store.put("b", "k");
  std::atomic<Job*> seen{nullptr};
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    seen = Job::current();
    job->activity().state = JOB_STATE_CANCELING;
    return retriable_failure();
  };
  Job* const before = Job::current(job.get());
  Keys keys;
  {
    Async_OBS_Object_Lister lister(client, 2, -1, 100, nullptr);
    ASSERT_TRUE(lister.init("b", ""));
    keys = take_all(lister);
  }
  Job::current(before);
  EXPECT_EQ(Keys(), keys);
  EXPECT_EQ(job.get(), seen.load());
  EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(object_lister, prefixes_that_are_pending_when_the_job_is_cancelled_are_not_asked_for) {
  struct Some_Job : Job {
    using Job::Job;
  };
  Job_Definition::Settings settings;
  Job_var job(new Some_Job(Job_Definition_var(new Job_Definition(settings))), false);
  job->state(JOB_STATE_RUNNING);
  for (int i = 0; i < 5000; ++i)
    store.put("b", "p" + std::to_string(i) + "/k");
  store.page_size = [](const std::string&, const std::string&) { return 5000; };
  std::atomic<int> asked{0};
  store.on_list = [&](const std::string&, const std::string& prefix, const std::string&) {
    ++asked;
    if (prefix.empty())
      return S3_Error();
    job->activity().state = JOB_STATE_CANCELING;
    return S3_Error(ECANCELED, 0, "Cancelled", "the job is being cancelled", false);
  };
  Job* const before = Job::current(job.get());
  {
    Async_OBS_Object_Lister lister(client, 4, -1, 100000, nullptr);
    ASSERT_TRUE(lister.init("b", ""));
    EXPECT_EQ(Keys(), take_all(lister));
    EXPECT_TRUE(lister.broken_off());
  }
  Job::current(before);
  EXPECT_GE(1 + 4, asked.load());
  EXPECT_EQ(0u, log.count("Cancelled"));
}

/// A service that makes up prefixes without an end: each page of each has as many, and another one after it where
/// `pages_on`.
class Endless_Service : public Fake_Store_Service {
public:
  Endless_Service(Fake_Store& store, bool pages_on, std::atomic<unsigned long long>& requests)
      : Fake_Store_Service(store), pages_on_(pages_on), requests_(requests) {}
  bool get_bucket(const char*, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) override {
    content = Get_Bucket_Content();
    const unsigned long long page = ++requests_;
    for (int i = 0; i < 500; ++i)
      content.common_prefixes.push_back(param.prefix() + std::to_string(page * 1000 + static_cast<unsigned>(i)) +
                                        std::string(200, 'x') + '/');
    content.truncated = pages_on_;
    content.next_marker = pages_on_ ? content.common_prefixes.back() : std::string();
    return true;
  }

private:
  const bool pages_on_;
  std::atomic<unsigned long long>& requests_;
};

class Endless_Client : public S3_Client {
public:
  Endless_Client(Fake_Store& store, bool pages_on) : store_(store), pages_on_(pages_on) {}
  std::shared_ptr<S3_Service_Base> make_service() override {
    store_.on_service();
    return std::make_shared<Endless_Service>(store_, pages_on_, requests);
  }
  std::atomic<unsigned long long> requests{0};

private:
  Fake_Store& store_;
  const bool pages_on_;
};

/// Bytes of this process that are in memory.
size_t resident() {
  std::ifstream file("/proc/self/statm");
  size_t all = 0, here = 0;
  file >> all >> here;
  return here * 4096;
}

TEST_F(object_lister, tree_without_an_end_ends_the_listing_within_its_memory) {
  for (const bool pages_on : {true, false}) {
    SCOPED_TRACE(pages_on ? "pages without an end" : "depth without an end");
    Endless_Client endless(store, pages_on);
    const size_t before = resident();
    Async_OBS_Object_Lister lister(endless, 4, 300, 1000000, nullptr);
    lister.tree_limit(16 << 20);
    ASSERT_TRUE(lister.init("b", ""));
    EXPECT_EQ(Keys(), take_all(lister));
    EXPECT_TRUE(lister.broken_off());
    EXPECT_LT(resident(), before + (64u << 20));
    EXPECT_LT(0u, log.count("The listing of b ends: there are more prefixes than fit into 16777216 bytes."));
  }
}

TEST_F(object_lister, statistics_line_is_written_when_its_time_has_come) {
  store.put("b", "p/1");
  Gate gate;
  bool go = false;
  bool written = false;
  struct Line : ACE_Log_Msg_Callback {
    explicit Line(std::function<void(const std::string&)> hook) : hook(std::move(hook)) {}
    void log(ACE_Log_Record& record) override { hook(record.msg_data()); }
    std::function<void(const std::string&)> hook;
  };
  std::string text;
  Line line([&](const std::string& logged) {
    if (logged.compare(0, 7, "Iterate") == 0)
      gate.change([&] {
        text = logged;
        written = true;
      });
  });
  // The statistics thread asks for the time before it writes; there it is made to log to the test.
  struct Late_Clock : Clock {
    time_t now() override {
      ACE_LOG_MSG->msg_callback(line);
      return asked++ == 0 ? 1000 : 1031;
    }
    ACE_Time_Value monotonic() override { return ACE_Time_Value::zero; }
    void sleep(unsigned) override {}
    ACE_Log_Msg_Callback* line = nullptr;
    std::atomic<int> asked{0};
  } late;
  late.line = &line;
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    gate.wait([&] { return go; });
    return S3_Error();
  };
  Clock* const before = Clock::instance(&late);
  {
    Async_OBS_Object_Lister lister(client, 1, 300, 100, nullptr);
    ASSERT_TRUE(lister.init("b", "p/"));
    EXPECT_TRUE(gate.wait([&] { return written; }));
    gate.change([&] { go = true; });
    EXPECT_EQ((Keys{"p/1"}), take_all(lister));
  }
  Clock::instance(before);
  log.attach();
  EXPECT_EQ("Iterate 'b/p/' stats: \n\tTotal requests: 0\n\tTotal objects: 0\n\tCached objects: 0\n\t"
            "Cached prefixes: 0\n\tIterated prefixes: 0\n\tIterated prefix errors: 0\n\t"
            "Requests in last 31 seconds: 0\n\tAverage response time in last 31 seconds: 0.000\n",
            text);
}

TEST(prefix_entry, objects_are_appended_behind_what_the_consumer_left) {
  Prefix_Entry entry("p/", nullptr);
  entry.add_object("p/1", 1, 1);
  entry.objects.pop_front();
  entry.add_object("p/2", 2, 2);
  Prefix_Entry page("", nullptr);
  entry.take_objects(page);
  page.add_object("p/3", 3, 3);
  page.add_object("p/4", 4, 4);
  entry.take_objects(page);
  EXPECT_TRUE(page.objects.empty());
  page.add_object("p/5", 5, 5);
  entry.take_objects(page);
  std::string keys;
  for (const Object_Entry& object : entry.objects)
    keys += object.key + " ";
  EXPECT_EQ("p/2 p/3 p/4 p/5 ", keys);
}

TEST(prefix_entry, child_knows_its_parent_and_stays_where_it_is) {
  Prefix_Entry entry("", nullptr);
  Prefix_Entry* const first = entry.add_sub_prefix("b/");
  Prefix_Entry* const second = entry.add_sub_prefix("a/");
  EXPECT_EQ(&entry, first->parent);
  entry.sub_prefixes.sort([](const Prefix_Entry& a, const Prefix_Entry& b) { return a.name < b.name; });
  EXPECT_EQ(second, &entry.sub_prefixes.front());
  EXPECT_EQ("b/", first->name);
}

} // namespace
