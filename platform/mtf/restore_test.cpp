#include "platform/mtf/backup_engine.h"
#include "platform/mtf/fake_source_test.h"
#include "platform/mtf/restore_engine.h"
#include "platform/mtf/verify.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>


namespace fs = std::filesystem;
using namespace MTF;

namespace {

/// Where the tests restore to.
struct Fake_Target {
  std::mutex mutex;
  std::map<std::string, std::string> objects; ///< by the path that the writer was given
  std::vector<std::string> unlinked;
  std::map<std::string, std::string> broken; ///< path: "unlink", "open", "write", "close", "open failed"
  std::atomic<int> callbacks{-1};            ///< how many may still be made; negative: any number
  std::atomic<unsigned> made{0};
  std::function<void()> on_open;
  unsigned writers = 0; ///< that are there now
  unsigned most_writers = 0;
};

class Fake_Writer : public File_Writer_Base {
public:
  explicit Fake_Writer(Fake_Target& target) : target_(target) {
    const std::lock_guard<std::mutex> guard(target_.mutex);
    target_.most_writers = std::max(target_.most_writers, ++target_.writers);
  }
  ~Fake_Writer() override {
    const std::lock_guard<std::mutex> guard(target_.mutex);
    --target_.writers;
  }
  Error_Code open(const char* path, ACE_UINT64 size) override {
    if (target_.on_open)
      target_.on_open();
    path_ = path;
    size_ = size;
    if (fails("open failed"))
      return E_FAILED;
    open_ = !fails("open");
    return open_ ? E_OK : E_SKIP;
  }
  bool is_open() override { return open_; }
  Error_Code write(const char* data, size_t length) override {
    if (length == 0 || data_.size() + length > size_ || fails("write"))
      return E_SKIP;
    data_.append(data, length);
    return E_OK;
  }
  Error_Code close() override {
    open_ = false;
    if (data_.size() != size_ || fails("close"))
      return E_SKIP;
    std::lock_guard<std::mutex> guard(target_.mutex);
    target_.objects[path_] = data_;
    return E_OK;
  }

private:
  bool fails(const std::string& where) {
    std::lock_guard<std::mutex> guard(target_.mutex);
    const auto found = target_.broken.find(path_);
    return found != target_.broken.end() && found->second == where;
  }

  Fake_Target& target_;
  std::string path_, data_;
  ACE_UINT64 size_ = 0;
  bool open_ = false;
};

class Fake_Restore_Callback : public Restore_Callback_Base {
public:
  explicit Fake_Restore_Callback(Fake_Target& target) : target_(target) {}
  char directory_separator() override { return '/'; }
  bool unlink(const char* path) override {
    std::lock_guard<std::mutex> guard(target_.mutex);
    const auto found = target_.broken.find(path);
    if (found != target_.broken.end() && found->second == "unlink")
      return false;
    target_.unlinked.push_back(path);
    target_.objects.erase(path);
    return true;
  }
  IFile_Writer_var make_file_writer() override { return IFile_Writer_var(new Fake_Writer(target_)); }

private:
  Fake_Target& target_;
};

class Fake_Restore_Factory : public IRestore_Callback_Factory {
public:
  explicit Fake_Restore_Factory(Fake_Target& target) : target_(target) {}
  IRestore_Callback_var make() override {
    if (target_.callbacks == 0)
      return IRestore_Callback_var();
    --target_.callbacks;
    ++target_.made;
    return IRestore_Callback_var(new Fake_Restore_Callback(target_));
  }

private:
  Fake_Target& target_;
};

class Policy : public MTF_FS::IPath_Converter {
public:
  explicit Policy(std::function<Error_Code(std::string&, time_t)> rule) : rule_(std::move(rule)) {}
  Error_Code convert(std::string& path, time_t mtime, bool) const override { return rule_(path, mtime); }

private:
  std::function<Error_Code(std::string&, time_t)> rule_;
};

class Restore : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/restore_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    url_ = "file://" + root_ + "/pool";
    ASSERT_TRUE(Pool::create(url_, "pool-uuid", error_)) << error_;
    ASSERT_TRUE(Pool::open(url_, "", pool_, error_)) << error_;
    events_ = new Fake_Events;
    handler_ = Event_Handler_var(events_);
    order_.factory = IRestore_Callback_Factory_var(new Fake_Restore_Factory(target_));
    order_.uri_prefix = "host/res/set-1";
    order_.seq = 1;
    order_.concurrent = 4;
  }
  void TearDown() override { fs::remove_all(root_); }

  void fill(unsigned count, unsigned most) {
    std::mt19937 random(count);
    for (unsigned i = 0; i < count; ++i) {
      std::string data(random() % most, '\0');
      for (char& c : data)
        c = static_cast<char>(random());
      source_.add("b/d" + std::to_string(i / 20) + "/o" + std::to_string(100 + i), data);
    }
  }

  void back_up(size_t small_object = 1u << 20) {
    Backup_Order order;
    order.uuid = "set-1";
    order.uri_prefix = "host/res/set-1";
    order.channels = 2;
    order.io.readers = 2;
    order.limits.small_object = small_object;
    order.factory = IBackup_Callback_Factory_var(new Fake_Factory(source_));
    Metadata metadata;
    Backup_Engine engine(order, Event_Handler_var(new Fake_Events), metadata, nullptr);
    ASSERT_TRUE(engine.run(url_, "")) << engine.failure();
    record_.uuid = order.uuid;
    record_.uri = metadata.set_uri;
    record_.seq = metadata.seq;
    record_.minor_resource_id = "res";
    for (const json_spirit::Value& value : metadata.media) {
      Set_Record::Medium medium;
      medium.name = json_spirit::require_str(value.get_obj(), "name");
      medium.size = json_spirit::find(value.get_obj(), "size")->get_uint64();
      medium.family = static_cast<unsigned>(json_spirit::find(value.get_obj(), "family")->get_uint64());
      record_.media.push_back(medium);
    }
    ASSERT_TRUE(write_set_record(pool_.set_folder(record_.uri), record_, error_)) << error_;
  }

  /// The first two objects are read at the same time, so by different channels.
  void use_both_channels() {
    source_.on_open = [this](const std::string&) {
      std::unique_lock<std::mutex> lock(both_);
      if (++inside_ == 2)
        met_.notify_all();
      met_.wait(lock, [this] { return inside_ >= 2; });
    };
  }

  void select(const char* kind, const std::string& path) {
    json_spirit::Object entry;
    entry[kind] = path;
    order_.select.push_back(entry);
  }

  bool run() {
    engine_.reset(new Restore_Engine(order_, handler_, nullptr));
    const bool done = engine_->run(url_, "");
    EXPECT_TRUE(events_->adds_up());
    return done;
  }

  void expect_restored(const std::set<std::string>& paths) {
    EXPECT_EQ(paths.size(), target_.objects.size());
    for (const std::string& path : paths)
      EXPECT_EQ(source_.objects[path].data, target_.objects["/" + path]) << path;
  }

  std::set<std::string> all() const { return {source_.order.begin(), source_.order.end()}; }

  /// Turns a bit in the middle of an object's stored content.
  void damage(const std::string& path) {
    auto catalog = Catalog_Reader::open(pool_.set_folder(record_.uri), error_);
    Catalog_Object object;
    ASSERT_TRUE(catalog && catalog->find(path, object, error_)) << path;
    const std::string medium = pool_.set_folder(record_.uri) + "/" + record_.media[object.channel].name;
    std::ifstream in(medium, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t at = bytes.find(source_.objects[path].data, object.offset);
    ASSERT_NE(std::string::npos, at);
    std::fstream out(medium, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(at + object.size / 2));
    out.put(static_cast<char>(bytes[at + object.size / 2] ^ 1));
  }

  std::string root_, url_, error_;
  Pool pool_;
  Fake_Source source_;
  Fake_Target target_;
  Fake_Events* events_ = nullptr;
  Event_Handler_var handler_;
  Set_Record record_;
  Restore_Order order_;
  std::unique_ptr<Restore_Engine> engine_;
  std::mutex both_;
  std::condition_variable met_;
  unsigned inside_ = 0;
};

TEST_F(Restore, everything_comes_back_byte_for_byte) {
  fill(150, 30000);
  source_.add("b/empty", "");
  source_.add("b//odd/../key ", "odd");
  source_.add("b2/large", std::string(300000, 'L'));
  back_up(20000);
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  expect_restored(all());
  EXPECT_EQ(153u, events_->figure("saved"));
  EXPECT_EQ(153u, events_->figure("listed"));
  // As many again clear the way for the next objects.
  EXPECT_EQ(8u, target_.made);
}

TEST_F(Restore, writers_are_as_many_as_asked_for_while_others_clear_the_way) {
  fill(100, 1000);
  back_up();
  order_.concurrent = 2;
  // The first writer waits until objects were removed by channels that may not write yet.
  target_.on_open = [&] {
    std::unique_lock<std::mutex> lock(target_.mutex);
    while (target_.unlinked.size() < 4) {
      lock.unlock();
      std::this_thread::yield();
      lock.lock();
    }
  };
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
  EXPECT_EQ(2u, target_.most_writers);
}

TEST_F(Restore, objects_larger_than_the_budget_are_streamed) {
  fill(20, 90000);
  source_.add("b/large", std::string(5000000, 'L'));
  back_up();
  order_.byte_budget = 4 * 10000;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
}

TEST_F(Restore, selection_of_folders_and_objects_restores_just_these) {
  fill(60, 100);
  source_.add("b/d1x", "not in d1");
  back_up();
  select("dir", "/b/d1");
  select("file", "/b/d2/o140");
  select("file", "b/d1/o121");
  ASSERT_TRUE(run()) << engine_->failure();
  std::set<std::string> want = {"b/d2/o140"};
  for (unsigned i = 20; i < 40; ++i)
    want.insert("b/d1/o" + std::to_string(100 + i));
  expect_restored(want);
  EXPECT_EQ(21u, events_->figure("listed"));
}

TEST_F(Restore, selected_root_means_everything) {
  fill(10, 100);
  back_up();
  select("dir", "/");
  ASSERT_TRUE(run());
  expect_restored(all());
}

TEST_F(Restore, selection_that_matches_nothing_is_named) {
  fill(10, 100);
  back_up();
  select("dir", "/b/d0/");
  select("file", "/b/absent");
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_TRUE(events_->named("/b/absent"));
  EXPECT_EQ(1u, handler_->skipped_files());
  order_.select.clear();
  select("dir", "/nowhere");
  EXPECT_FALSE(run());
  EXPECT_EQ(E_NO_FILES_RESTORED, engine_->err_code());
  EXPECT_TRUE(events_->named("/nowhere/"));
  order_.select.clear();
  order_.select.push_back(json_spirit::Value(5));
  EXPECT_FALSE(run());
  EXPECT_NE(std::string::npos, engine_->failure().find("5"));
}

TEST_F(Restore, policy_that_skips_leaves_the_target_as_it_is) {
  fill(20, 100);
  back_up();
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([](std::string& path, time_t mtime) {
    EXPECT_EQ(1700000000, mtime);
    return path == "/b/d0/o105" ? E_SKIP : E_OK;
  }));
  target_.objects["/b/d0/o105"] = "there";
  ASSERT_TRUE(run());
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ("there", target_.objects["/b/d0/o105"]);
  EXPECT_EQ(1u, events_->figure("unchanged"));
  EXPECT_EQ(19u, events_->figure("saved"));
  // All skipped is a success as well: nothing had to be done.
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([](std::string&, time_t) { return E_SKIP; }));
  ASSERT_TRUE(run());
  EXPECT_EQ(E_OK, engine_->err_code());
}

TEST_F(Restore, converter_may_change_the_path) {
  fill(3, 100);
  back_up();
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([](std::string& path, time_t) {
    path = "/other" + path;
    return E_OK;
  }));
  ASSERT_TRUE(run());
  EXPECT_EQ(source_.objects["b/d0/o101"].data, target_.objects["/other/b/d0/o101"]);
}

TEST_F(Restore, damaged_object_never_costs_the_one_that_is_there) {
  fill(40, 3000);
  source_.add("b/victim", std::string(20000, 'v') + "unique end");
  back_up();
  damage("b/victim");
  target_.objects["/b/victim"] = "the old one";
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ("the old one", target_.objects["/b/victim"]);
  for (const std::string& path : target_.unlinked)
    EXPECT_NE("/b/victim", path);
  EXPECT_TRUE(events_->named("/b/victim"));
  EXPECT_EQ(1u, events_->figure("failed"));
  EXPECT_EQ(40u, events_->figure("saved"));
}

TEST_F(Restore, damage_behind_the_first_chunk_never_stores_a_wrong_object) {
  source_.add("b/good", "good");
  std::string large(3000000, 'x');
  large.replace(0, 6, "unique");
  source_.add("b/large", large);
  back_up();
  damage("b/large");
  order_.byte_budget = 2 * 100000;
  order_.concurrent = 2;
  ASSERT_TRUE(run());
  expect_restored({"b/good"});
  EXPECT_TRUE(events_->named("/b/large"));
}

TEST_F(Restore, targets_that_refuse_are_skipped_by_name_and_the_rest_is_restored) {
  fill(20, 100);
  back_up();
  target_.broken = {{"/b/d0/o101", "unlink"},
                    {"/b/d0/o102", "open"},
                    {"/b/d0/o103", "write"},
                    {"/b/d0/o104", "close"},
                    {"/b/d0/o105", "open failed"}};
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(15u, events_->figure("saved"));
  EXPECT_EQ(4u, events_->figure("skipped"));
  EXPECT_EQ(1u, events_->figure("failed"));
  for (const auto& one : target_.broken)
    EXPECT_TRUE(events_->named(one.first)) << one.first;
  EXPECT_EQ(5u, handler_->skipped_files());
}

TEST_F(Restore, channel_without_a_callback_leaves_its_work_to_the_others) {
  fill(50, 100);
  back_up();
  target_.callbacks = 1;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
  target_.callbacks = 0;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_MAKE_CALLBACK, engine_->err_code());
}

TEST_F(Restore, cancel_ends_it_and_what_was_not_reached_is_counted) {
  fill(100, 100);
  back_up();
  order_.concurrent = 1;
  std::atomic<unsigned> opened{0};
  target_.on_open = [&] {
    if (++opened < 10)
      return;
    // Stands still until the cancel has been seen.
    events_->cancel = true;
    while (!events_->seen)
      std::this_thread::yield();
  };
  EXPECT_FALSE(run());
  EXPECT_EQ(E_CANCELED, engine_->err_code());
  EXPECT_EQ(100u, events_->figure("listed"));
  EXPECT_LT(events_->figure("saved"), 100u);
  EXPECT_GE(events_->figure("skipped"), 1u);
}

TEST_F(Restore, set_is_found_by_folder_or_by_its_place_in_the_chain) {
  fill(3, 100);
  back_up();
  for (const char* prefix : {"host/res/set-1", "host/res", "host/res/", "host/res/first-of-the-chain"}) {
    order_.uri_prefix = prefix;
    EXPECT_TRUE(run()) << prefix;
  }
  order_.seq = 2;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_NO_SET, engine_->err_code());
  order_.seq = 1;
  order_.uri_prefix = "host/other";
  EXPECT_FALSE(run());
  EXPECT_EQ(E_NO_SET, engine_->err_code());
  Restore_Engine engine(order_, handler_, nullptr);
  EXPECT_FALSE(engine.run("file://" + root_ + "/none", ""));
  EXPECT_EQ(E_GET_POOL_INFO, engine.err_code());
}

TEST_F(Restore, medium_that_is_gone_costs_only_its_objects) {
  fill(60, 3000);
  use_both_channels();
  back_up();
  fs::remove(pool_.set_folder(record_.uri) + "/" + record_.media[1].name);
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_GT(events_->figure("saved"), 0u);
  EXPECT_GT(events_->figure("failed"), 0u);
  EXPECT_EQ(60u, events_->figure("saved") + events_->figure("failed"));
}

TEST_F(Restore, verify_passes_a_whole_set) {
  fill(50, 3000);
  source_.add("b/empty", "");
  back_up(1000);
  Verify_Report report;
  EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
  EXPECT_EQ(51u, report.objects);
  EXPECT_EQ(51u, report.good);
  EXPECT_TRUE(report.media.empty());
}

TEST_F(Restore, verify_names_each_damaged_object_and_counts_the_good) {
  fill(50, 3000);
  source_.add("b/one", "first unique content");
  source_.add("b/two", "second unique content");
  back_up();
  damage("b/one");
  damage("b/two");
  Verify_Report report;
  EXPECT_FALSE(verify_set(pool_, record_, {}, report));
  EXPECT_EQ(2u, report.damaged);
  EXPECT_EQ(50u, report.good);
  std::set<std::string> named;
  for (const Verify_Report::Damage& one : report.damages)
    named.insert(one.path);
  EXPECT_EQ((std::set<std::string>{"b/one", "b/two"}), named);
}

TEST_F(Restore, verify_tells_missing_and_cut_media_and_catalogs) {
  fill(50, 3000);
  use_both_channels();
  back_up();
  const std::string medium = pool_.set_folder(record_.uri) + "/" + record_.media[0].name;
  fs::resize_file(medium, fs::file_size(medium) - 100);
  Verify_Report report;
  EXPECT_FALSE(verify_set(pool_, record_, {}, report));
  ASSERT_EQ(1u, report.media.size());
  EXPECT_NE(std::string::npos, report.media[0].find("channel-0000.mtf")) << report.media[0];
  fs::remove(medium);
  EXPECT_FALSE(verify_set(pool_, record_, {}, report));
  EXPECT_GT(report.damaged, 0u);
  EXPECT_GT(report.good, 0u);
  EXPECT_FALSE(report.media.empty());
  fs::remove(pool_.set_folder(record_.uri) + "/catalog.db");
  EXPECT_FALSE(verify_set(pool_, record_, {}, report));
  EXPECT_NE(std::string::npos, report.failure.find("catalog.db")) << report.failure;
}

TEST_F(Restore, verify_ends_when_it_is_cancelled) {
  fill(50, 3000);
  back_up();
  Verify_Options options;
  std::atomic<unsigned> asked{0};
  options.threads = 1;
  options.canceling = [&] { return ++asked > 10; };
  Verify_Report report;
  EXPECT_FALSE(verify_set(pool_, record_, options, report));
  EXPECT_TRUE(report.canceled);
  EXPECT_EQ(10u, report.checked);
  EXPECT_EQ("", report.failure);
}

} // namespace
