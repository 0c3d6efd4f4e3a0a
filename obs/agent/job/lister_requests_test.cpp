// What the asynchronous listers ask a service, when they ask again, and what they tell about it.

#include "obs/agent/job/async_obs_object_lister.h"
#include "obs/agent/job/async_obs_source_lister.h"
#include "sdk/base/exponential_backoff.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_event_handler.h"
#include "testing/module/fake_s3.h"
#include "testing/module/gate.h"
#include "testing/module/log_sink.h"
#include "testing/module/slash_filter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <thread>

#include <pthread.h>

using namespace module_testing;

namespace {

typedef std::vector<std::string> Texts;

unsigned draw_largest(unsigned n) {
  return n - 1;
}

/// Lets every wait be the longest that its step allows.
struct Largest_Waits {
  Largest_Waits() { set_backoff_random(&draw_largest); }
  ~Largest_Waits() { set_backoff_random(nullptr); }
};

struct lister_requests : testing::Test {
  lister_requests() {
    store.make_bucket("b");
    store.on_service = [this] {
      log.attach();
      return true;
    };
  }

  static Texts take_all(Async_OBS_Object_Lister& lister) {
    Texts keys;
    Object_Entry object;
    while (lister.next(object))
      keys.push_back(object.key);
    return keys;
  }
  /// The announced waits: "ATTEMPT:SECONDS" each.
  Texts announced() const {
    Texts waits;
    for (const Log_Line& line : log.lines()) {
      unsigned attempt = 0;
      unsigned seconds = 0;
      char place[100];
      if (line.priority == LM_INFO &&
          sscanf(line.text.c_str(), "Retry(%u) %99s at %u second(s) later.", &attempt, place, &seconds) == 3)
        waits.push_back(std::to_string(attempt) + ":" + std::to_string(seconds));
    }
    return waits;
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store store;
  Fake_Store_Client client{store};
};

TEST_F(lister_requests, waits_double_up_to_30_seconds_and_are_announced) {
  store.put("b", "k");
  std::atomic<int> left{7};
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    return left-- > 0 ? retriable_failure() : S3_Error();
  };
  const Largest_Waits largest;
  Async_OBS_Object_Lister lister(client, 1, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"k"}), take_all(lister));
  EXPECT_EQ((Texts{"1:1", "2:2", "3:4", "4:8", "5:16", "6:30", "7:30"}), announced());
  EXPECT_EQ(1u + 2 + 4 + 8 + 16 + 30 + 30, clock.sleeps().size()) << "slept second by second";
}

TEST_F(lister_requests, waits_that_reach_the_bound_exactly_are_the_last) {
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  const Largest_Waits largest;
  Async_OBS_Object_Lister lister(client, 1, 31, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ(Texts(), take_all(lister));
  EXPECT_EQ((Texts{"1:1", "2:2", "3:4", "4:8", "5:16"}), announced());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Retry exit on listing objects in 'b' after 31 seconds, last error: SlowDown: slow "
                                    "down.\n"));
}

TEST_F(lister_requests, waits_below_the_bound_are_followed_by_another) {
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  const Largest_Waits largest;
  Async_OBS_Object_Lister lister(client, 1, 32, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ(Texts(), take_all(lister));
  EXPECT_EQ((Texts{"1:1", "2:2", "3:4", "4:8", "5:16", "6:30"}), announced());
}

TEST_F(lister_requests, catalog_gives_a_request_up_after_300_seconds_of_waiting) {
  store.on_list = [](const std::string&, const std::string&, const std::string&) { return retriable_failure(); };
  const Largest_Waits largest;
  Fake_Event_Handler events;
  Async_OBS_Source_Lister lister(client, 1, {"/b/"}, &events, nullptr, 1, 1000);
  Texts blocks;
  EXPECT_EQ(0, lister.generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
    blocks.push_back(block_text(*blk));
    return true;
  }));
  EXPECT_EQ((Texts{"VOL", "FEND"}), blocks);
  EXPECT_EQ(1u,
            log.count(LM_ERROR, "Retry exit on listing objects in 'b' after 300 seconds, last error: SlowDown: slow "
                                "down.\n"));
  EXPECT_EQ(31u + 9 * 30, clock.sleeps().size()) << "the first sum of waits that is not below 300";
}

TEST_F(lister_requests, without_a_bound_a_request_is_repeated_for_ever) {
  store.put("b", "k");
  std::atomic<int> left{100};
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    return left-- > 0 ? retriable_failure() : S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 1, -1, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"k"}), take_all(lister));
  EXPECT_EQ(100u, announced().size());
}

TEST_F(lister_requests, workers_have_their_name) {
  store.put("b", "k");
  std::mutex lock;
  std::set<std::string> names;
  store.on_list = [&](const std::string&, const std::string&, const std::string&) {
    char name[32] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    const std::lock_guard<std::mutex> guard(lock);
    names.insert(name);
    return S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 3, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"k"}), take_all(lister));
  lister.reset();
  EXPECT_EQ((std::set<std::string>{"AsyncObsLister"}), names);
}

TEST_F(lister_requests, filter_is_told_folders_from_objects) {
  for (const char* key : {"p/", "p/1", "p/q/2"})
    store.put("b", key);
  const Slash_Filter by_slash;
  Async_OBS_Object_Lister lister(client, 2, 300, 100, &by_slash);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"p/1", "p/q/2"}), take_all(lister));
  EXPECT_EQ(4u, by_slash.asked);
}

/// Answers each page of a listing by a function.
struct Scripted_Client : S3_Client {
  typedef std::function<void(const std::string& prefix, const std::string& marker, Get_Bucket_Content& content)> Page;

  struct Service : Fake_Store_Service {
    Service(Fake_Store& store, const Page& page) : Fake_Store_Service(store), page(page) {}
    bool get_bucket(const char*, const Get_Bucket_Parameter& param, Get_Bucket_Content& content) override {
      content = Get_Bucket_Content();
      page(param.prefix(), param.marker(), content);
      return true;
    }
    const Page& page;
  };

  Scripted_Client(Fake_Store& store, Page page) : store(store), page(std::move(page)) {}
  std::shared_ptr<S3_Service_Base> make_service() override { return std::make_shared<Service>(store, page); }

  Fake_Store& store;
  const Page page;
};

void add_object(Get_Bucket_Content& content, const std::string& key) {
  S3_Object object;
  object.name = key;
  content.objects.push_back(object);
}

TEST_F(lister_requests, folder_that_two_pages_name_is_listed_once) {
  std::atomic<int> asked{0};
  Scripted_Client twice(store, [&](const std::string& prefix, const std::string& marker, Get_Bucket_Content& content) {
    if (!prefix.empty()) {
      ++asked;
      add_object(content, prefix + "k");
    } else if (marker.empty()) {
      content.common_prefixes = {"a/", "b/"};
      content.truncated = true;
      content.next_marker = "b/";
    } else {
      content.common_prefixes = {"a/", "b/", "c/"};
    }
  });
  // One thread: the first page's folders wait for the second page.
  Async_OBS_Object_Lister lister(twice, 1, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"a/k", "b/k", "c/k"}), take_all(lister));
  EXPECT_FALSE(lister.broken_off());
  EXPECT_EQ(3, asked);
  EXPECT_EQ(0u, lister.statistics().cached_prefixes);
}

TEST_F(lister_requests, folder_that_was_listed_before_the_next_page_names_it_is_not_listed_again) {
  Gate gate;
  bool through = false;
  std::atomic<int> asked{0};
  Scripted_Client late(store, [&](const std::string& prefix, const std::string& marker, Get_Bucket_Content& content) {
    if (prefix == "z/") {
      gate.change([&] { through = true; }); // the thread that asks for this has done with "y/" before
      add_object(content, "z/k");
    } else if (prefix == "y/") {
      ++asked;
      add_object(content, "y/k");
    } else if (marker.empty()) {
      content.common_prefixes = {"z/", "y/"};
      content.truncated = true;
      content.next_marker = "y/";
    } else {
      EXPECT_TRUE(gate.wait([&] { return through; }));
      content.common_prefixes = {"y/"};
    }
  });
  Async_OBS_Object_Lister lister(late, 2, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", ""));
  EXPECT_EQ((Texts{"y/k", "z/k"}), take_all(lister));
  EXPECT_EQ(1, asked);
}

TEST_F(lister_requests, folder_that_a_later_page_names_again_is_listed_once_wherever_it_stood) {
  for (const bool ascending : {true, false}) {
    Gate gate;
    int through = 0;
    Texts asked;
    Scripted_Client again(store, [&](const std::string& prefix, const std::string& marker, Get_Bucket_Content& content) {
      if (!prefix.empty()) {
        gate.change([&] { asked.push_back(prefix); });
        add_object(content, prefix + "k");
        // The thread that asks for the last of these has done with the others before.
        if (prefix == "z/")
          gate.change([&] { through = 1; });
      } else if (marker.empty()) {
        content.common_prefixes = ascending ? Texts{"w/", "x/", "y/", "z/"} : Texts{"y/", "w/", "z/", "x/"};
        content.truncated = true;
        content.next_marker = "1";
      } else if (marker == "1") {
        EXPECT_TRUE(gate.wait([&] { return through == 1; }));
        content.common_prefixes = {"x/", "w/", "zz/"};
        content.truncated = true;
        content.next_marker = "2";
      } else {
        content.common_prefixes = {"zz/", "y/", "a/", "x/"};
      }
    });
    Async_OBS_Object_Lister lister(again, 2, 300, 100, nullptr);
    ASSERT_TRUE(lister.init("b", ""));
    EXPECT_EQ((Texts{"a/k", "w/k", "x/k", "y/k", "z/k", "zz/k"}), take_all(lister));
    std::sort(asked.begin(), asked.end());
    EXPECT_EQ((Texts{"a/", "w/", "x/", "y/", "z/", "zz/"}), asked);
    EXPECT_EQ(0u, lister.statistics().cached_prefixes);
  }
}

/// Tells the consumer one time and the statistics thread, whose log it also keeps, another: that one is held until
/// its time has come.
class Statistics_Clock : public Clock, public ACE_Log_Msg_Callback {
public:
  Statistics_Clock() : consumer_(std::this_thread::get_id()), previous_(Clock::instance(this)) {}
  ~Statistics_Clock() override { Clock::instance(previous_); }

  time_t now() override {
    if (std::this_thread::get_id() == consumer_)
      return BEGIN;
    ACE_LOG_MSG->msg_callback(this);
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::MSG_CALLBACK);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
    gate_.wait([this] { return now_ > seen_; });
    return now_;
  }
  ACE_Time_Value monotonic() override {
    ACE_Time_Value time;
    time.set_msec(static_cast<ACE_UINT64>(milliseconds));
    return time;
  }
  void sleep(unsigned) override {}
  void log(ACE_Log_Record& record) override {
    const std::string text = record.msg_data();
    gate_.change([&] {
      lines_.push_back(text);
      seen_ = now_;
    });
  }

  /// The line that is written when it is `time`.
  std::string line_at(time_t time) {
    size_t before = 0;
    gate_.change([&] {
      before = lines_.size();
      now_ = time;
    });
    std::string line;
    gate_.wait([&] {
      if (lines_.size() > before)
        line = lines_.back();
      return lines_.size() > before;
    });
    return line;
  }
  void end() {
    gate_.change([this] { seen_ = 0; });
  }

  static constexpr time_t BEGIN = 1000;
  std::atomic<unsigned long long> milliseconds{0};

private:
  Gate gate_;
  std::thread::id consumer_;
  Clock* previous_;
  time_t now_ = BEGIN;
  time_t seen_ = BEGIN;
  Texts lines_;
};

TEST_F(lister_requests, statistics_tell_each_figure_and_begin_anew_with_each_line) {
  for (const char* key : {"p/1", "p/2", "p/3", "p/4", "p/a/x", "p/b/1", "p/b/2", "p/b/3", "p/c/1", "p/d/1", "p/e/1"})
    store.put("b", key);
  store.page_size = [](const std::string& prefix, const std::string&) { return prefix == "p/b/" ? 1u : 100u; };
  Statistics_Clock time;
  Gate gate;
  std::string waiting;
  std::string open;
  // Each request takes a quarter of a second, the last one of "p/b/" 3 ms more. Those of "p/c/" and "p/d/" are held.
  store.on_list = [&](const std::string&, const std::string& prefix, const std::string& marker) {
    time.milliseconds += marker == "p/b/2" ? 253 : 250;
    if (prefix == "p/a/")
      return final_failure();
    if (prefix == "p/c/" || prefix == "p/d/") {
      gate.change([&] { waiting = prefix; });
      gate.wait([&] { return open >= prefix; });
    }
    return S3_Error();
  };
  Async_OBS_Object_Lister lister(client, 1, 300, 100, nullptr);
  ASSERT_TRUE(lister.init("b", "p/"));
  ASSERT_TRUE(gate.wait([&] { return waiting == "p/c/"; }));
  Object_Entry object;
  ASSERT_TRUE(lister.next(object));
  EXPECT_EQ("Iterate 'b/p/' stats: \n\tTotal requests: 4\n\tTotal objects: 7\n\tCached objects: 6\n\t"
            "Cached prefixes: 5\n\tIterated prefixes: 3\n\tIterated prefix errors: 1\n\t"
            "Requests in last 32 seconds: 4\n\tAverage response time in last 32 seconds: 0.250\n",
            time.line_at(1032));

  gate.change([&] { open = "p/c/"; });
  ASSERT_TRUE(gate.wait([&] { return waiting == "p/d/"; }));
  // The next line is due 30 seconds after the last; it comes 3 late.
  EXPECT_EQ("Iterate 'b/p/' stats: \n\tTotal requests: 5\n\tTotal objects: 8\n\tCached objects: 7\n\t"
            "Cached prefixes: 5\n\tIterated prefixes: 4\n\tIterated prefix errors: 1\n\t"
            "Requests in last 33 seconds: 1\n\tAverage response time in last 33 seconds: 0.250\n",
            time.line_at(1065));
  EXPECT_EQ("Iterate 'b/p/' stats: \n\tTotal requests: 5\n\tTotal objects: 8\n\tCached objects: 7\n\t"
            "Cached prefixes: 5\n\tIterated prefixes: 4\n\tIterated prefix errors: 1\n\t"
            "Requests in last 30 seconds: 0\n\tAverage response time in last 30 seconds: 0.000\n",
            time.line_at(1095));

  gate.change([&] { open = "p/d/"; });
  time.end();
  EXPECT_EQ((Texts{"p/2", "p/3", "p/4", "p/b/1", "p/b/2", "p/b/3", "p/c/1", "p/d/1", "p/e/1"}), take_all(lister));
  lister.reset();
}

} // namespace
