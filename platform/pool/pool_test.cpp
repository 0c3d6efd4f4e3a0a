#include "platform/pool/pool.h"
#include "platform/pool/set_guard.h"
#include "sdk/base/clock.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace fs = std::filesystem;

namespace {

class Pools : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/pool_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    url_ = "file://" + root_ + "/pool";
  }
  void TearDown() override { fs::remove_all(root_); }

  void make() {
    ASSERT_TRUE(Pool::create(url_, "uuid-1", error_)) << error_;
    ASSERT_TRUE(Pool::open(url_, "uuid-1", pool_, error_)) << error_;
  }
  void commit(const std::string& uri, unsigned seq, const std::string& start) {
    ASSERT_TRUE(pool_.make_set_folder(uri, error_)) << error_;
    Set_Record record;
    record.uuid = uri;
    record.seq = seq;
    record.start_time = start;
    ASSERT_TRUE(write_set_record(pool_.set_folder(uri), record, error_)) << error_;
  }
  static std::string text(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }

  std::string root_, url_, error_;
  Pool pool_;
};

TEST_F(Pools, new_pool_opens_under_its_uuid_only) {
  make();
  EXPECT_EQ("uuid-1", pool_.uuid());
  EXPECT_EQ(root_ + "/pool", pool_.folder());
  EXPECT_TRUE(Pool::open(url_ + "/", "", pool_, error_));
  EXPECT_FALSE(Pool::open(url_, "uuid-2", pool_, error_));
  EXPECT_NE(std::string::npos, error_.find("uuid-1")) << error_;
}

TEST_F(Pools, what_is_no_pool_is_refused_by_reason) {
  for (const char* url :
       {"", "file://", "file://relative", "/no/scheme", "s3://host/pool", "file:///a%zz", "file:///a%"}) {
    EXPECT_FALSE(Pool::open(url, "", pool_, error_)) << url;
    EXPECT_FALSE(Pool::create(url, "u", error_)) << url;
    EXPECT_NE("", error_);
  }
  EXPECT_FALSE(Pool::open(url_, "", pool_, error_));
  EXPECT_NE(std::string::npos, error_.find("no pool")) << error_;
  make();
  EXPECT_FALSE(Pool::create(url_, "u", error_));
  EXPECT_NE(std::string::npos, error_.find("not empty")) << error_;
  for (const char* bad : {"", "{", "[]", "{}", R"({"uuid":5,"format":1})", R"({"uuid":"u","format":3})"}) {
    std::ofstream(root_ + "/pool/pool.json") << bad;
    EXPECT_FALSE(Pool::open(url_, "", pool_, error_)) << bad;
    EXPECT_NE(std::string::npos, error_.find("pool")) << error_;
  }
}

TEST_F(Pools, pool_whose_making_was_killed_is_made_again) {
  fs::create_directory(root_ + "/pool");
  std::ofstream(root_ + "/pool/pool.json.tmp") << "{";
  std::ofstream(root_ + "/pool/.lock") << "1\n";
  make();
  EXPECT_FALSE(fs::exists(root_ + "/pool/pool.json.tmp"));
}

TEST_F(Pools, pool_that_another_process_is_making_is_left_alone) {
  fs::create_directory(root_ + "/pool");
  std::ofstream(root_ + "/pool/pool.json.tmp") << "half";
  int ready[2], end[2];
  ASSERT_EQ(0, ::pipe(ready));
  ASSERT_EQ(0, ::pipe(end));
  const pid_t child = fork();
  if (child == 0) {
    ::close(end[1]);
    const int fd = ::open((root_ + "/pool/.lock").c_str(), O_CREAT | O_RDWR, 0600);
    char byte = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) == 0 ? 'y' : 'n';
    _exit(::write(ready[1], &byte, 1) == 1 && ::read(end[0], &byte, 1) == 0 ? 0 : 1);
  }
  ::close(end[0]);
  char byte = 0;
  ASSERT_EQ(1, ::read(ready[0], &byte, 1));
  ASSERT_EQ('y', byte);
  EXPECT_FALSE(Pool::create(url_, "uuid-1", error_));
  EXPECT_NE(std::string::npos, error_.find("in use")) << error_;
  EXPECT_EQ("half", text(root_ + "/pool/pool.json.tmp"));
  for (const int fd : {end[1], ready[0], ready[1]})
    ::close(fd);
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  make();
}

TEST_F(Pools, nothing_is_put_into_a_folder_that_is_no_pool) {
  fs::create_directory(root_ + "/pool");
  std::ofstream(root_ + "/pool/letter") << "dear";
  EXPECT_FALSE(Pool::create(url_, "uuid-1", error_));
  EXPECT_NE(std::string::npos, error_.find("not empty")) << error_;
  EXPECT_FALSE(fs::exists(root_ + "/pool/.lock"));
}

TEST_F(Pools, what_is_left_of_a_new_pool_file_goes_with_the_next_change) {
  make();
  const std::string before = text(root_ + "/pool/pool.json");
  std::ofstream(root_ + "/pool/pool.json.tmp") << "{ torn";
  EXPECT_TRUE(pool_.lock(error_)) << error_;
  EXPECT_FALSE(fs::exists(root_ + "/pool/pool.json.tmp"));
  EXPECT_EQ(before, text(root_ + "/pool/pool.json"));
}

TEST_F(Pools, percent_escapes_name_the_folder) {
  ASSERT_TRUE(Pool::create("file://" + root_ + "/with%20space", "u", error_)) << error_;
  EXPECT_TRUE(fs::exists(root_ + "/with space/pool.json"));
}

TEST_F(Pools, record_comes_back_as_it_was_written) {
  Set_Record record;
  record.uuid = "u";
  record.uri = "h/r/a";
  record.host_uuid = "h";
  record.minor_resource_id = "r";
  record.minor_resource_name = "na\xc3\xafve \"name\"";
  record.resource_uuid = "res";
  record.definition_uuid = "def";
  record.name = "n";
  record.agent = "ag";
  record.host = "ho";
  record.type = "incremental";
  record.incarnation = "inc";
  record.bases = {"b1", "b2"};
  record.seq = 65535;
  record.channels = 4;
  record.start_time = "2026-01-02 03:04:05";
  record.end_time = "2026-01-02 03:05:05";
  record.source_size = 1ull << 62;
  record.backup_set_size = 12;
  record.backup_set_storage_size = ~0ull;
  record.encryption = "none";
  record.media = {{"channel-0000.mtf", 5ull << 40, 0xFFFFFFFFu}};
  record.figures["saved"] = 5;
  ASSERT_TRUE(write_set_record(root_, record, error_)) << error_;
  Set_Record read;
  ASSERT_TRUE(read_set_record(root_, read, error_)) << error_;
  EXPECT_EQ(json_spirit::write(json_spirit::Value(record.to_json())),
            json_spirit::write(json_spirit::Value(read.to_json())));
  EXPECT_EQ(~0ull, read.backup_set_storage_size);
  EXPECT_EQ(0xFFFFFFFFu, read.media[0].family);
  EXPECT_FALSE(fs::exists(root_ + "/set.json.tmp"));
}

TEST_F(Pools, bad_record_is_refused_by_member_and_leaves_the_target_alone) {
  Set_Record good;
  good.uuid = "u";
  good.media = {{"m", 1, 1}};
  const json_spirit::Object json = good.to_json();
  Set_Record target;
  target.uuid = "untouched";
  for (const auto& member : json) {
    json_spirit::Object broken = json;
    broken.erase(member.first);
    EXPECT_FALSE(Set_Record::from_json(broken, target, error_)) << member.first;
    EXPECT_NE(std::string::npos, error_.find(member.first)) << error_;
    broken = json;
    broken[member.first] = json_spirit::Value();
    EXPECT_FALSE(Set_Record::from_json(broken, target, error_)) << member.first;
    EXPECT_EQ("untouched", target.uuid);
  }
  for (const char* name : {"", "../x", ".hidden", "a/b"}) {
    good.media[0].name = name;
    EXPECT_FALSE(Set_Record::from_json(good.to_json(), target, error_)) << name;
  }
  json_spirit::Object newer = json;
  newer["format"] = 3;
  EXPECT_FALSE(Set_Record::from_json(newer, target, error_));
  EXPECT_NE(std::string::npos, error_.find("newer"));
  bool missing = false;
  EXPECT_FALSE(read_set_record(root_, target, error_, &missing));
  EXPECT_TRUE(missing);
  std::ofstream(root_ + "/set.json") << "{\"uuid\":";
  EXPECT_FALSE(read_set_record(root_, target, error_, &missing));
  EXPECT_FALSE(missing);
}

TEST_F(Pools, record_that_cannot_be_written_whole_leaves_the_old_one) {
  Set_Record record;
  record.uuid = "old";
  ASSERT_TRUE(write_set_record(root_, record, error_));
  const std::string before = text(root_ + "/set.json");
  fs::create_directory(root_ + "/set.json.tmp");
  record.uuid = "new";
  EXPECT_FALSE(write_set_record(root_, record, error_));
  EXPECT_NE(std::string::npos, error_.find("set.json")) << error_;
  EXPECT_EQ(before, text(root_ + "/set.json"));
}

TEST_F(Pools, sets_are_listed_oldest_first_below_a_prefix) {
  make();
  commit("h1/r1/b", 2, "2026-01-02 00:00:00");
  commit("h1/r1/a", 3, "2026-01-03 00:00:00");
  commit("h1/r2/c", 1, "2026-01-01 00:00:00");
  commit("h2/r1/d", 1, "2026-01-01 12:00:00");
  ASSERT_TRUE(pool_.make_set_folder("h1/r1/unfinished", error_));
  commit("h1/r1/torn", 9, "2026-01-09 00:00:00");
  std::ofstream(pool_.set_folder("h1/r1/torn") + "/set.json") << "{";
  const auto uris = [&](const std::string& prefix, size_t bad) {
    std::vector<std::string> errors, found;
    for (const Set_Record& record : pool_.sets(prefix, errors))
      found.push_back(record.uri);
    EXPECT_EQ(bad, errors.size());
    return found;
  };
  EXPECT_EQ((std::vector<std::string>{"h1/r2/c", "h2/r1/d", "h1/r1/b", "h1/r1/a"}), uris("", 1));
  EXPECT_EQ((std::vector<std::string>{"h1/r2/c", "h1/r1/b", "h1/r1/a"}), uris("h1", 1));
  EXPECT_EQ((std::vector<std::string>{"h1/r1/b", "h1/r1/a"}), uris("h1/r1/", 1));
  EXPECT_EQ((std::vector<std::string>{"h1/r1/a"}), uris("h1/r1/a", 0));
  EXPECT_TRUE(uris("none/there", 0).empty());
  EXPECT_TRUE(uris("../pool", 0).empty());
}

TEST_F(Pools, sets_come_in_the_order_of_their_numbers_where_a_clock_was_wrong) {
  make();
  commit("h/r/a", 1, "2026-01-01 00:00:00");
  commit("h/r/b", 2, "2030-01-01 00:00:00");
  commit("h/r/c", 3, "2026-01-02 00:00:00");
  std::vector<std::string> errors, found;
  for (const Set_Record& record : pool_.sets("", errors))
    found.push_back(record.uri);
  EXPECT_EQ((std::vector<std::string>{"h/r/a", "h/r/b", "h/r/c"}), found);
}

TEST_F(Pools, set_that_lies_in_two_folders_is_named) {
  make();
  commit("h/r/a", 1, "2026-01-01 00:00:00");
  commit("h/r/b", 2, "2026-01-02 00:00:00");
  fs::copy(pool_.set_folder("h/r/b") + "/set.json", pool_.set_folder("h/r/a") + "/set.json",
           fs::copy_options::overwrite_existing);
  std::vector<std::string> errors, found;
  for (const Set_Record& record : pool_.sets("", errors))
    found.push_back(record.uuid);
  EXPECT_EQ((std::vector<std::string>{"h/r/b"}), found);
  ASSERT_EQ(1u, errors.size());
  EXPECT_NE(std::string::npos, errors[0].find("the set h/r/b lies in two folders")) << errors[0];
}

TEST_F(Pools, places_outside_the_layout_are_refused) {
  make();
  for (const char* uri : {"", "a", "a/b", "a/b/c/d", "a//c", "/a/b/c", "a/b/", "../../x", "a/../c", "a/b/.lock"})
    EXPECT_FALSE(pool_.make_set_folder(uri, error_)) << uri;
  ASSERT_TRUE(pool_.make_set_folder("a/b/c", error_));
  EXPECT_FALSE(pool_.make_set_folder("a/b/c", error_));
  EXPECT_NE(std::string::npos, error_.find("exists")) << error_;
  EXPECT_FALSE(pool_.remove_set("..", error_));
  EXPECT_FALSE(pool_.remove_set("", error_));
  EXPECT_TRUE(fs::exists(root_ + "/pool/pool.json"));
}

TEST_F(Pools, removal_spares_finished_and_living_sets) {
  make();
  commit("h/r/finished", 1, "t");
  ASSERT_TRUE(pool_.make_set_folder("h/r/left", error_));
  std::ofstream(pool_.set_folder("h/r/left") + "/channel-0000.mtf") << "x";
  ASSERT_TRUE(pool_.make_set_folder("h/other/left", error_));
  Set_Lock lock;
  // By another run: one that holds it would not take a lock that comes before it.
  std::thread([&] { ASSERT_TRUE(pool_.make_set_folder("h/r/living", lock, error_)); }).join();
  EXPECT_TRUE(lock.held());
  error_.clear();
  EXPECT_EQ(1u, pool_.remove_unfinished("h/r", error_));
  EXPECT_EQ("", error_);
  EXPECT_TRUE(fs::exists(pool_.set_folder("h/r/finished")));
  EXPECT_TRUE(fs::exists(pool_.set_folder("h/r/living")));
  EXPECT_TRUE(fs::exists(pool_.set_folder("h/other/left")));
  EXPECT_FALSE(fs::exists(pool_.set_folder("h/r/left")));
  lock.release();
  EXPECT_EQ(1u, pool_.remove_unfinished("h/r", error_));
}

/// Time passes when somebody waits, and only then.
class Waiting_Clock : public Clock {
public:
  Waiting_Clock() { instance(this); }
  ~Waiting_Clock() override { instance(nullptr); }
  time_t now() override { return time_.sec(); }
  ACE_Time_Value monotonic() override { return time_; }
  void sleep(unsigned seconds) override { time_ += ACE_Time_Value(seconds); }
  void wait(std::unique_lock<std::mutex>&, std::condition_variable&, const ACE_Time_Value& time) override {
    time_ += time;
    if (waited)
      waited();
  }
  std::function<void()> waited;

private:
  ACE_Time_Value time_;
};

TEST_F(Pools, run_does_not_wait_for_a_lock_that_it_holds) {
  Set_Lock mine, again;
  ASSERT_TRUE(mine.acquire(root_, true, error_)) << error_;
  Waiting_Clock clock;
  EXPECT_FALSE(again.acquire(root_, true, error_));
  EXPECT_NE(std::string::npos, error_.find("this run has it locked already")) << error_;
  EXPECT_EQ(ACE_Time_Value(), clock.monotonic());
}

TEST_F(Pools, lock_is_waited_for_until_its_holder_lets_go) {
  Set_Lock held;
  std::thread([&] { ASSERT_TRUE(held.acquire(root_, false, error_)) << error_; }).join();
  Waiting_Clock clock;
  int looks = 0;
  clock.waited = [&] {
    if (++looks == 3)
      held.release();
  };
  Set_Lock mine;
  EXPECT_TRUE(mine.acquire(root_, true, error_)) << error_;
  EXPECT_EQ(3, looks);
}

TEST_F(Pools, lock_is_not_waited_for_without_end) {
  Set_Lock held;
  std::thread([&] { ASSERT_TRUE(held.acquire(root_, false, error_)) << error_; }).join();
  Waiting_Clock clock;
  Set_Lock mine;
  bool busy = false;
  EXPECT_FALSE(mine.acquire(root_, true, error_, &busy));
  EXPECT_TRUE(busy);
  EXPECT_NE(std::string::npos, error_.find("in use by process " + std::to_string(getpid()))) << error_;
  EXPECT_EQ(Set_Lock::PATIENCE, static_cast<unsigned>(clock.monotonic().sec()));
}

TEST_F(Pools, unfinished_set_is_locked_under_a_lock_that_is_handed_on) {
  make();
  ASSERT_TRUE(pool_.make_set_folder("h/r/left", error_)) << error_;
  ASSERT_TRUE(pool_.make_set_folder("h/other/left", error_)) << error_;
  Set_Lock place, left, other;
  ASSERT_TRUE(pool_.lock_place("h/r", place, error_)) << error_;
  EXPECT_FALSE(pool_.lock_unfinished("h/r/left", left, error_));
  EXPECT_NE(std::string::npos, error_.find("this run has it locked already")) << error_;
  EXPECT_TRUE(pool_.lock_unfinished("h/r/left", left, error_, &place)) << error_;
  EXPECT_TRUE(place.held());
  left.release();
  place.release();
  ASSERT_TRUE(pool_.lock_place("h/other", place, error_)) << error_;
  // One of another place is of no use here, and is let alone.
  place.release();
  EXPECT_TRUE(pool_.lock_unfinished("h/r/left", left, error_, &place)) << error_;
}

TEST_F(Pools, locks_out_of_their_order_are_found) {
  Set_Lock place(Lock_Rank::PLACE);
  ASSERT_TRUE(place.acquire(root_, false, error_)) << error_;
  const std::string path = root_ + "/.lock";
  EXPECT_TRUE(Lock_Order::is_own(path));
  for (const Lock_Rank rank : {Lock_Rank::STATE, Lock_Rank::MERGE, Lock_Rank::POOL})
    EXPECT_NE(std::string::npos, Lock_Order::violation(rank, "/p", false).find("after the place lock on " + path));
  EXPECT_EQ("", Lock_Order::violation(Lock_Rank::SET, "/a", true));
  // Several places: in the order of their names, where one may have to be waited for.
  EXPECT_EQ("", Lock_Order::violation(Lock_Rank::PLACE, path + "0", true));
  EXPECT_EQ("", Lock_Order::violation(Lock_Rank::PLACE, "/a", false));
  EXPECT_NE("", Lock_Order::violation(Lock_Rank::PLACE, "/a", true));
  EXPECT_NE("", Lock_Order::violation(Lock_Rank::PLACE, path, true));
  // What another thread holds is no matter of order, and what was let go of neither.
  std::thread([&] {
    EXPECT_EQ("", Lock_Order::violation(Lock_Rank::STATE, "/p", true));
    EXPECT_FALSE(Lock_Order::is_own(path));
    place.release();
  }).join();
  EXPECT_EQ("", Lock_Order::violation(Lock_Rank::STATE, "/p", true));
}

TEST_F(Pools, lock_of_a_killed_process_is_free) {
  make();
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  const pid_t child = fork();
  if (child == 0) {
    Set_Lock lock;
    std::string error;
    const char done = pool_.make_set_folder("h/r/killed", lock, error) ? 'y' : 'n';
    if (write(ready[1], &done, 1) != 1)
      _exit(1);
    pause();
    _exit(0);
  }
  char done = 0;
  ASSERT_EQ(1, read(ready[0], &done, 1));
  EXPECT_EQ('y', done);
  EXPECT_EQ(0u, pool_.remove_unfinished("h/r", error_));
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(1u, pool_.remove_unfinished("h/r", error_)) << error_;
  close(ready[0]);
  close(ready[1]);
}

TEST_F(Pools, two_runs_never_hold_one_lock) {
  make();
  std::atomic<int> inside{0};
  std::atomic<bool> clash{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        Set_Lock lock;
        std::string error;
        if (!lock.acquire(root_, true, error) || ++inside != 1)
          clash = true;
        std::this_thread::yield();
        --inside;
      }
    });
  for (std::thread& thread : threads)
    thread.join();
  EXPECT_FALSE(clash);
  Set_Lock one, two;
  bool busy = false;
  ASSERT_TRUE(one.acquire(root_, false, error_));
  EXPECT_FALSE(two.acquire(root_, false, error_, &busy));
  EXPECT_TRUE(busy);
  Set_Lock moved(std::move(one));
  EXPECT_FALSE(one.held());
  EXPECT_FALSE(two.acquire(root_, false, error_, &busy));
  moved.release();
  EXPECT_TRUE(two.acquire(root_, false, error_, &busy));
}

TEST_F(Pools, removed_set_is_gone_with_all_its_files) {
  make();
  commit("h/r/a", 1, "t");
  std::ofstream(pool_.set_folder("h/r/a") + "/channel-0000.mtf") << "x";
  EXPECT_TRUE(pool_.remove_set("h/r/a", error_)) << error_;
  EXPECT_FALSE(fs::exists(pool_.set_folder("h/r/a")));
  EXPECT_TRUE(pool_.remove_set("h/r/a", error_)) << error_;
}

TEST_F(Pools, removal_that_was_cut_short_is_nobodys_and_is_ended) {
  make();
  ASSERT_TRUE(pool_.make_set_folder("h/r/a", error_)) << error_;
  { std::ofstream(pool_.set_folder("h/r/a") + "/channel-0000.mtf") << "data"; }
  fs::rename(pool_.set_folder("h/r/a"), pool_.set_folder("h/r/.removed-a"));
  EXPECT_TRUE(pool_.unfinished("h/r").empty());
  EXPECT_TRUE(pool_.finish_removals("h/r", error_)) << error_;
  EXPECT_FALSE(fs::exists(pool_.set_folder("h/r/.removed-a")));
}

TEST_F(Pools, readers_share_a_set_and_its_remover_needs_it_alone) {
  make();
  ASSERT_TRUE(pool_.make_set_folder("h/r/a", error_)) << error_;
  const std::string folder = pool_.set_folder("h/r/a");
  Set_Guard one, two, remover;
  EXPECT_EQ(Set_Guard::MISSING, one.share(folder, error_));
  Set_Record record;
  record.uuid = "a";
  ASSERT_TRUE(write_partial_record(folder, record, error_)) << error_;
  EXPECT_EQ(Set_Guard::HELD, one.share(folder, error_)) << error_;
  EXPECT_EQ(Set_Guard::HELD, two.share(folder, error_)) << error_;
  EXPECT_EQ(Set_Guard::BUSY, remover.own(folder, error_));
  one.release();
  EXPECT_EQ(Set_Guard::BUSY, remover.own(folder, error_));
  EXPECT_NE(std::string::npos, error_.find("is being read")) << error_;
  two.release();
  EXPECT_EQ(Set_Guard::HELD, remover.own(folder, error_)) << error_;
  EXPECT_EQ(Set_Guard::BUSY, one.share(folder, error_));
  EXPECT_NE(std::string::npos, error_.find("is being removed")) << error_;
}

TEST_F(Pools, threads_of_one_process_share_its_lock) {
  make();
  auto one = pool_.lock(error_);
  ASSERT_TRUE(one) << error_;
  EXPECT_EQ(one, pool_.lock(error_));
  const pid_t child = fork();
  if (child == 0) {
    // The lock came along with the fork; one of its own it cannot have.
    const int fd = ::open((pool_.folder() + "/.lock").c_str(), O_RDWR);
    _exit(fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0 ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(child, waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  one.reset();
  EXPECT_TRUE(pool_.lock(error_)) << error_;
}

TEST_F(Pools, replaced_sets_are_none_of_the_pools) {
  make();
  for (const char* uuid : {"a", "b", "m"}) {
    const std::string uri = std::string("h/r/") + uuid;
    ASSERT_TRUE(pool_.make_set_folder(uri, error_)) << error_;
    Set_Record record;
    record.uuid = uuid;
    if (record.uuid == "m")
      record.replaces = {"a", "long gone"};
    ASSERT_TRUE(write_set_record(pool_.set_folder(uri), record, error_)) << error_;
  }
  std::vector<std::string> bad;
  const auto sets = pool_.sets("h/r", bad);
  ASSERT_EQ(2u, sets.size());
  EXPECT_EQ("b", sets[0].uuid);
  EXPECT_EQ((std::vector<std::string>{"a", "long gone"}), sets[1].replaces);
  ASSERT_EQ(1u, pool_.replaced_sets("h/r").size());
  EXPECT_EQ("a", pool_.replaced_sets("h/r")[0].uuid);
}

} // namespace
