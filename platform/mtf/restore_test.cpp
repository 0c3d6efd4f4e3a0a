#include "platform/catalog/open_catalog.h"
#include "platform/mtf/backup_engine.h"
#include "platform/mtf/fake_source_test.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/medium_source.h"
#include "platform/mtf/restore_engine.h"
#include "platform/mtf/verify.h"
#include "platform/pool/set_keys.h"
#include "platform/s3/ledger.h"
#include "sdk/base/clock.h"
#include "sdk/job/job.h"
#include "sdk/mtf/file_replacement.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
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
  std::function<void(const std::string&)> on_failure; ///< with the path of what is broken, before it fails
  int replaces = -1;                                  ///< what writers say about it; negative: they say nothing
  std::vector<std::string> steps; ///< "unlink PATH", "open PATH", "close PATH", "let go PATH" in their order
  unsigned writers = 0;           ///< that are there now
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
    target_.steps.push_back("let go " + path_);
  }
  Error_Code open(const char* path, ACE_UINT64 size) override {
    if (target_.on_open)
      target_.on_open();
    path_ = path;
    size_ = size;
    step("open ");
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
    step("close ");
    if (data_.size() != size_ || fails("close"))
      return E_SKIP;
    std::lock_guard<std::mutex> guard(target_.mutex);
    target_.objects[path_] = data_;
    return E_OK;
  }

private:
  void step(const std::string& what) {
    const std::lock_guard<std::mutex> guard(target_.mutex);
    target_.steps.push_back(what + path_);
  }
  bool fails(const std::string& where) {
    {
      std::lock_guard<std::mutex> guard(target_.mutex);
      const auto found = target_.broken.find(path_);
      if (found == target_.broken.end() || found->second != where)
        return false;
    }
    if (target_.on_failure)
      target_.on_failure(path_);
    return true;
  }

  Fake_Target& target_;
  std::string path_, data_;
  ACE_UINT64 size_ = 0;
  bool open_ = false;
};

class Replacing_Writer : public Fake_Writer, public IFile_Replacement {
public:
  Replacing_Writer(Fake_Target& target, bool replaces) : Fake_Writer(target), replaces_(replaces) {}
  bool replaces_at_close() const override { return replaces_; }

private:
  const bool replaces_;
};

class Fake_Restore_Callback : public Restore_Callback_Base {
public:
  explicit Fake_Restore_Callback(Fake_Target& target) : target_(target) {}
  char directory_separator() override { return '/'; }
  bool unlink(const char* path) override {
    std::lock_guard<std::mutex> guard(target_.mutex);
    target_.steps.push_back(std::string("unlink ") + path);
    const auto found = target_.broken.find(path);
    if (found != target_.broken.end() && found->second == "unlink")
      return false;
    target_.unlinked.push_back(path);
    target_.objects.erase(path);
    return true;
  }
  IFile_Writer_var make_file_writer() override {
    if (target_.replaces < 0)
      return IFile_Writer_var(new Fake_Writer(target_));
    return IFile_Writer_var(new Replacing_Writer(target_, target_.replaces != 0));
  }

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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t RESTORE_STRIDE = 997;
constexpr size_t VERIFY_STRIDE = 5003;
#else
constexpr size_t RESTORE_STRIDE = 29;
constexpr size_t VERIFY_STRIDE = 211;
#endif

class Policy : public MTF_FS::IPath_Converter {
public:
  explicit Policy(std::function<Error_Code(std::string&, time_t)> rule) : rule_(std::move(rule)) {}
  Error_Code convert(std::string& path, time_t mtime, bool) const override { return rule_(path, mtime); }

private:
  std::function<Error_Code(std::string&, time_t)> rule_;
};

/// A policy that can compare as well.
class Comparing_Policy : public Policy, public IFile_Comparison {
public:
  Comparing_Policy(Error_Code result, std::function<bool(const std::string&, ACE_UINT64)> same)
      : Policy([result](std::string&, time_t) { return result; }), same_(std::move(same)) {}
  bool is_same(const char* path, ACE_UINT64 size, const File_Attributes&) const override { return same_(path, size); }

private:
  std::function<bool(const std::string&, ACE_UINT64)> same_;
};

/// Plain and encrypted.
class Restore : public testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    char name[] = "/tmp/restore_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    url_ = "file://" + root_ + "/pool";
    if (GetParam()) {
      Secret_Key key;
      Scrypt_Cost cheap;
      cheap.n = 2;
      const Pool_Secret secret(Pool_Secret::PASSPHRASE, "long enough");
      ASSERT_TRUE(Pool::create(url_, "encrypted-" + root_, secret, cheap, key, error_)) << error_;
      hold_pool_key("encrypted-" + root_, key);
    } else {
      ASSERT_TRUE(Pool::create(url_, "pool-uuid", error_)) << error_;
    }
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

  void back_up(size_t small_object = 1u << 20) { record_ = made("set-1", 0, small_object, 2); }

  /// Backs up into a new set, incremental behind the set `base` when that is not 0.
  Set_Record made(const std::string& uuid, unsigned base, size_t small_object, unsigned channels) {
    Set_Record record;
    Backup_Order order;
    order.uuid = uuid;
    order.uri_prefix = "host/res/" + uuid;
    order.channels = channels;
    order.base_seq = base;
    order.incremental = base != 0;
    order.io.readers = 2;
    order.codec.compression = compression_;
    order.limits.small_object = small_object;
    order.factory = IBackup_Callback_Factory_var(new Fake_Factory(source_));
    Metadata metadata;
    Backup_Engine engine(order, Event_Handler_var(new Fake_Events), metadata, nullptr);
    EXPECT_TRUE(engine.run(url_, "")) << engine.failure();
    record.uuid = order.uuid;
    record.uri = metadata.set_uri;
    record.seq = metadata.seq;
    record.minor_resource_id = "res";
    Set_Cipher_ptr cipher;
    EXPECT_TRUE(open_set_cipher(pool_, record.uuid, metadata.data_key, cipher, error_)) << error_;
    for (const json_spirit::Value& value : metadata.media) {
      Set_Record::Medium medium;
      medium.name = json_spirit::require_str(value.get_obj(), "name");
      medium.size = json_spirit::find(value.get_obj(), "size")->get_uint64();
      medium.family = static_cast<unsigned>(json_spirit::find(value.get_obj(), "family")->get_uint64());
      record.media.push_back(medium);
    }
    EXPECT_TRUE(seal_record(cipher, record, error_)) << error_;
    EXPECT_TRUE(write_set_record(pool_.set_folder(record.uri), record, error_)) << error_;
    return record;
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

  /// The first two objects are written at the same time, so by different channels.
  void use_both_writers() {
    target_.on_open = [this] {
      std::unique_lock<std::mutex> lock(both_);
      if (++inside_ == 2)
        met_.notify_all();
      met_.wait(lock, [this] { return inside_ >= 2; });
    };
  }

  /// Backs up into one medium and damages that everywhere, bit by bit and cut by cut.
  void expect_all_damage_found(const std::string& uuid) {
    record_ = made(uuid, 0, 1u << 20, 1);
    const std::string medium = medium_of(record_, 0);
    const std::string good = load(medium);
    Verify_Report report;
    EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
    for (size_t at = 0; at < good.size(); at += VERIFY_STRIDE) {
      put(medium, at, static_cast<char>(good[at] ^ 1 << at % 8));
      EXPECT_FALSE(verify_set(pool_, record_, {}, report)) << at;
      EXPECT_LE(report.damaged, 1u) << at;
      EXPECT_EQ(7u, report.good + report.damaged) << at;
      EXPECT_TRUE(report.damaged != 0 || !report.media.empty()) << at;
      put(medium, at, good[at]);
    }
    for (size_t size = 0; size < good.size(); size += 1024) {
      fs::resize_file(medium, size);
      EXPECT_FALSE(verify_set(pool_, record_, {}, report)) << size;
      EXPECT_EQ(7u, report.good + report.damaged) << size;
      std::ofstream(medium, std::ios::binary | std::ios::trunc) << good;
    }
    EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
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

  std::string medium_of(const Set_Record& record, unsigned channel) const {
    return pool_.set_folder(record.uri) + "/" + medium_name(channel);
  }
  static std::string load(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }
  static void put(const std::string& path, unsigned long long at, char byte) {
    std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
    out.seekp(static_cast<std::streamoff>(at));
    out.put(byte);
  }

  Catalog_Object place(const std::string& path) {
    auto catalog = open_set_catalog(pool_, record_, error_);
    Catalog_Object object;
    EXPECT_TRUE(catalog && catalog->find(path, object, error_)) << path << error_;
    return object;
  }
  /// Where the medium holds a byte of an object's content.
  unsigned long long content_place(const Catalog_Object& object, unsigned long long byte) {
    const auto source = Medium_Source::open(medium_of(record_, object.channel), error_);
    Medium_Window window(*source, 4096);
    Object_Start start;
    EXPECT_TRUE(read_object_start(window, object.offset, start, error_)) << error_;
    if (!start.stream.sealed)
      return start.content.data() + byte;
    for (; byte >= ::CHUNK; byte -= ::CHUNK) {
      const unsigned long long next = start.content.next();
      EXPECT_TRUE(read_stream(window, next, start.content, error_)) << error_;
    }
    return start.content.data() + FRAME_HEADER + byte;
  }
  /// Turns a bit in the middle of an object's stored content.
  void damage(const std::string& path) {
    const Catalog_Object object = place(path);
    const unsigned long long at = content_place(object, object.size / 2);
    const std::string medium = medium_of(record_, object.channel);
    put(medium, at, static_cast<char>(load(medium)[static_cast<size_t>(at)] ^ 1));
  }

  std::string root_, url_, error_;
  Pool pool_;
  Fake_Source source_;
  Fake_Target target_;
  Fake_Events* events_ = nullptr;
  Event_Handler_var handler_;
  Set_Record record_;
  MTF_Compression compression_ = MTF_COMPRESSION_NONE; ///< of the sets that are made
  Restore_Order order_;
  std::unique_ptr<Restore_Engine> engine_;
  std::mutex both_;
  std::condition_variable met_;
  unsigned inside_ = 0;
};

TEST_P(Restore, everything_comes_back_byte_for_byte) {
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
  EXPECT_EQ(4u, target_.made);
}

// Of a plain object that is larger than what is read at once, the checks that stand behind the content come first: no
// byte of it is handed out unchecked.
TEST_P(Restore, media_are_read_once_and_in_order) {
  fill(120, 60000);
  source_.add("b/large", std::string(3500000, 'L'));
  source_.add("b2/empty", "");
  back_up();
  struct Read {
    unsigned long long offset, end;
  };
  std::map<std::thread::id, std::map<std::string, std::vector<Read>>> reads;
  std::mutex mutex;
  const Medium_Source::Watch watch = [&](const std::string& path, unsigned long long offset, size_t size) {
    std::lock_guard<std::mutex> guard(mutex);
    reads[std::this_thread::get_id()][path].push_back({offset, offset + size});
    return true;
  };
  Medium_Source::watch(&watch);
  const bool done = run();
  Medium_Source::watch(nullptr);
  ASSERT_TRUE(done) << engine_->failure();
  expect_restored(all());

  std::map<std::string, std::map<unsigned long long, Catalog_Object>> objects; // by medium and place
  const auto catalog = open_set_catalog(pool_, record_, error_);
  ASSERT_TRUE(catalog) << error_;
  ASSERT_TRUE(catalog->walk_media(
      Catalog_Selection(),
      [&](const Catalog_Object& object) {
        objects[medium_of(record_, object.channel)][object.offset] = object;
        return true;
      },
      error_));
  std::map<std::string, std::map<unsigned long long, unsigned long long>> all; // all reads, by medium and place
  for (const auto& [thread, by_medium] : reads)
    for (const auto& [path, list] : by_medium) {
      unsigned long long object = 0, behind = 0;
      for (const Read& read : list) {
        EXPECT_TRUE(all[path].emplace(read.offset, read.end).second) << path << " twice at " << read.offset;
        auto at = objects[path].upper_bound(read.offset);
        if (at == objects[path].begin())
          continue; // the first blocks, which tell whose medium it is
        --at;
        const Catalog_Object& of = at->second;
        EXPECT_LE(read.end, of.offset + of.stored) << "nothing of the next object";
        EXPECT_GE(of.offset, object) << path << ": back to an object before";
        if (of.offset != object)
          behind = 0;
        object = of.offset;
        if (!GetParam() && read.end == of.offset + of.stored && read.offset != of.offset)
          continue; // the checks behind a plain content
        EXPECT_GE(read.offset, behind) << path << ": back inside an object";
        behind = read.end;
      }
    }
  unsigned long long bytes = 0, stored = 0;
  for (const auto& [path, list] : all) {
    unsigned long long end = 0;
    for (const auto& [from, to] : list) {
      EXPECT_GE(from, end) << path << ": a byte is read twice";
      end = to;
      bytes += to - from;
    }
  }
  for (const auto& [path, list] : objects)
    for (const auto& [at, object] : list)
      stored += object.stored;
  // All that was stored but padding, and the first blocks of each medium.
  EXPECT_LE(bytes, stored + 4096 * objects.size());
  EXPECT_GE(bytes, stored - 1024 * 122);
}

TEST_P(Restore, channels_are_as_many_as_asked_for_each_with_a_callback_of_its_own) {
  fill(100, 1000);
  back_up();
  order_.concurrent = 2;
  // Both channels stand with an object in hand until the other one does, so neither does all the work.
  use_both_writers();
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
  EXPECT_EQ(2u, target_.most_writers);
  EXPECT_EQ(2u, target_.made);
}

TEST_P(Restore, next_object_is_read_while_one_is_written_and_nothing_else_is_removed_meanwhile) {
  fill(10, 1000);
  back_up();
  order_.concurrent = 1;
  std::atomic<unsigned> looked_at{0};
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([&](std::string&, time_t) {
    ++looked_at;
    return E_OK;
  }));
  std::vector<size_t> removed;
  target_.on_open = [&] {
    const unsigned opened = static_cast<unsigned>(removed.size()) + 1;
    while (looked_at < std::min(opened + 1, 10u))
      std::this_thread::yield();
    removed.push_back(target_.unlinked.size());
  };
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
  ASSERT_EQ(10u, removed.size());
  for (size_t i = 0; i < removed.size(); ++i)
    EXPECT_EQ(i + 1, removed[i]) << "removed when object " << i << " is opened";
  // Of each object: removed, opened, closed, and only then the next one.
  ASSERT_EQ(40u, target_.steps.size());
  for (size_t i = 0; i < target_.steps.size(); i += 4) {
    const std::string path = target_.steps[i].substr(7);
    EXPECT_EQ("unlink " + path, target_.steps[i]);
    EXPECT_EQ("open " + path, target_.steps[i + 1]);
    EXPECT_EQ("close " + path, target_.steps[i + 2]);
    EXPECT_EQ("let go " + path, target_.steps[i + 3]);
  }
}

TEST_P(Restore, nothing_is_removed_for_a_writer_that_replaces_at_close) {
  fill(20, 100);
  back_up();
  target_.replaces = 1;
  target_.broken = {{"/b/d0/o102", "open"}, {"/b/d0/o103", "close"}, {"/b/d0/o104", "open failed"}};
  for (const std::string& path : source_.order)
    target_.objects["/" + path] = "the old one";
  ASSERT_TRUE(run());
  EXPECT_EQ(std::vector<std::string>(), target_.unlinked);
  for (const auto& [path, data] : target_.objects)
    EXPECT_EQ(target_.broken.count(path) != 0 ? "the old one" : source_.objects[path.substr(1)].data, data) << path;
  EXPECT_EQ(17u, events_->figure("saved"));
}

TEST_P(Restore, writer_that_says_it_does_not_replace_has_its_target_removed) {
  fill(5, 100);
  back_up();
  target_.replaces = 0;
  ASSERT_TRUE(run());
  EXPECT_EQ(5u, target_.unlinked.size());
  expect_restored(all());
}

TEST_P(Restore, only_what_is_not_known_to_be_the_same_is_written_where_that_is_wanted) {
  fill(20, 100);
  back_up();
  const auto comparing = [this](Error_Code policy) {
    return MTF_FS::IPath_Converter_var(new Comparing_Policy(policy, [this](const std::string& path, ACE_UINT64 size) {
      EXPECT_EQ(source_.objects[path.substr(1)].data.size(), size) << path;
      return path != "/b/d0/o103";
    }));
  };
  order_.converter = comparing(E_OK);
  ASSERT_TRUE(run());
  EXPECT_EQ(20u, events_->figure("saved")) << "not asked unless it is wanted";
  target_.objects.clear();
  order_.only_different = true;
  ASSERT_TRUE(run());
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ(1u, target_.objects.count("/b/d0/o103"));
  EXPECT_EQ(1u, target_.objects.size());
  target_.objects.clear();
  // A converter that cannot compare has everything written.
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([](std::string&, time_t) { return E_OK; }));
  ASSERT_TRUE(run());
  expect_restored(all());
}

TEST_P(Restore, objects_larger_than_the_budget_are_streamed) {
  fill(20, 90000);
  source_.add("b/large", std::string(5000000, 'L'));
  back_up();
  order_.byte_budget = 4 * 10000;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
}

TEST_P(Restore, selection_of_folders_and_objects_restores_just_these) {
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

TEST_P(Restore, selected_root_means_everything) {
  fill(10, 100);
  back_up();
  select("dir", "/");
  ASSERT_TRUE(run());
  expect_restored(all());
}

TEST_P(Restore, selection_that_matches_nothing_is_named) {
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

TEST_P(Restore, policy_that_skips_leaves_the_target_as_it_is) {
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

TEST_P(Restore, converter_may_change_the_path) {
  fill(3, 100);
  back_up();
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([](std::string& path, time_t) {
    path = "/other" + path;
    return E_OK;
  }));
  ASSERT_TRUE(run());
  EXPECT_EQ(source_.objects["b/d0/o101"].data, target_.objects["/other/b/d0/o101"]);
}

TEST_P(Restore, damaged_object_never_costs_the_one_that_is_there) {
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

TEST_P(Restore, damage_behind_the_first_chunk_never_stores_a_wrong_object) {
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

TEST_P(Restore, object_that_fits_into_the_budget_is_verified_whole_however_many_channels_share_it) {
  fill(60, 30000);
  std::string large;
  while (large.size() < 3000000)
    large += std::to_string(large.size());
  source_.add("b/large", large);
  back_up();
  damage("b/large");
  target_.objects["/b/large"] = "the old one";
  order_.byte_budget = 4000000;
  order_.concurrent = 16;
  ASSERT_TRUE(run());
  EXPECT_EQ("the old one", target_.objects["/b/large"]);
  EXPECT_TRUE(events_->named("/b/large"));
  EXPECT_EQ(1u, events_->figure("failed"));
  EXPECT_EQ(60u, events_->figure("saved"));
}

// Larger objects have their first chunk verified before their target is touched, others all of it.
TEST_P(Restore, no_damage_to_a_medium_costs_an_object_that_is_there_or_puts_a_wrong_one_in_its_place) {
  const std::string large = std::string(9000, 'l') + std::string(9000, 'm');
  source_.add("b/a", "content of a");
  source_.add("b/d/empty", "");
  source_.add("b/d/more", std::string(900, 'x'));
  source_.add("b/large", large);
  record_ = made("set-1", 0, 1u << 20, 1);
  const std::string medium = medium_of(record_, 0);
  const std::string good = load(medium);
  const Catalog_Object place_of_large = place("b/large");
  order_.concurrent = 1;
  order_.byte_budget = 1000;
  for (size_t at = 0; at < good.size(); at += RESTORE_STRIDE) {
    put(medium, at, static_cast<char>(good[at] ^ 1 << at % 8));
    for (const std::string& path : source_.order)
      target_.objects["/" + path] = "the old one";
    run();
    for (const std::string& path : source_.order) {
      const auto found = target_.objects.find("/" + path);
      const bool inside =
          at >= place_of_large.offset && at < place_of_large.offset + place_of_large.stored && path == "b/large";
      ASSERT_TRUE(found != target_.objects.end() || inside) << path << " was lost to damage at " << at;
      if (found != target_.objects.end()) {
        EXPECT_TRUE(found->second == "the old one" || found->second == source_.objects[path].data) << path << at;
      }
    }
    put(medium, at, good[at]);
  }
  ASSERT_TRUE(run());
  expect_restored(all());
}

TEST_P(Restore, no_truncation_of_a_medium_costs_an_object_that_is_there) {
  fill(12, 3000);
  record_ = made("set-1", 0, 1u << 20, 1);
  const std::string medium = medium_of(record_, 0);
  const std::string good = load(medium);
  order_.concurrent = 2;
  for (size_t size = 0; size < good.size(); size += 1024) {
    fs::resize_file(medium, size);
    for (const std::string& path : source_.order)
      target_.objects["/" + path] = "the old one";
    run();
    for (const std::string& path : source_.order) {
      const std::string& now = target_.objects["/" + path];
      EXPECT_TRUE(now == "the old one" || now == source_.objects[path].data) << path << " " << size;
    }
    std::ofstream(medium, std::ios::binary | std::ios::trunc) << good;
  }
}

TEST_P(Restore, targets_that_refuse_are_skipped_by_name_and_the_rest_is_restored) {
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

TEST_P(Restore, channel_without_a_callback_leaves_its_work_to_the_others) {
  fill(50, 100);
  back_up();
  target_.callbacks = 1;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_restored(all());
  target_.callbacks = 0;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_MAKE_CALLBACK, engine_->err_code());
}

TEST_P(Restore, cancel_ends_it_and_what_was_not_reached_is_counted_apart) {
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
  EXPECT_LT(events_->figure("saved"), 100u);
  EXPECT_EQ(events_->figure("saved"), events_->figure("listed")) << "what was cut is neither skipped nor failed";
  EXPECT_EQ(100u, events_->figure("listed") + events_->figure("not_reached"));
  EXPECT_TRUE(events_->adds_up());
}

TEST_P(Restore, set_is_found_by_folder_or_by_its_place_in_the_chain) {
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

TEST_P(Restore, of_sets_with_one_number_the_one_that_is_named_is_restored_and_else_none) {
  fill(3, 100);
  back_up();
  Set_Record other = made("set-2", 0, 1u << 20, 1);
  other.seq = 1;
  other.replaces = {"before"};
  Set_Cipher_ptr cipher;
  ASSERT_TRUE(open_set_cipher(pool_, other, cipher, error_)) << error_;
  ASSERT_TRUE(seal_record(cipher, other, error_)) << error_;
  ASSERT_TRUE(write_set_record(pool_.set_folder(other.uri), other, error_)) << error_;
  Set_Record found;
  const auto find = [&](const std::string& prefix, const std::string& uuid) {
    order_.uri_prefix = prefix;
    order_.set_uuid = uuid;
    found.uuid.clear();
    error_.clear();
    return find_restore_set(pool_, order_, found, error_) ? found.uuid : "none";
  };
  EXPECT_EQ("set-1", find("host/res/set-1", ""));
  EXPECT_EQ("set-2", find("host/res/set-2", ""));
  EXPECT_EQ("set-1", find("host/res", "set-1"));
  EXPECT_EQ("set-2", find("host/res", "set-2"));
  EXPECT_EQ("set-2", find("host/res/set-2", "before"));
  EXPECT_EQ("none", find("host/res", ""));
  EXPECT_EQ("Several sets of 'host/res' have the number 1: set-1 set-2.", error_);
  // What lies in the folder is another set.
  EXPECT_EQ("none", find("host/res", "unknown"));
  EXPECT_EQ("There is no set 1 of 'host/res' in the pool that is unknown.", error_);
  order_.uri_prefix = "host/res/set-1";
  EXPECT_FALSE(run());
  EXPECT_EQ(E_NO_SET, engine_->err_code());
  EXPECT_TRUE(target_.objects.empty());
}

TEST_P(Restore, medium_that_is_gone_costs_only_its_objects) {
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

TEST_P(Restore, verify_passes_a_whole_set) {
  fill(50, 3000);
  source_.add("b/empty", "");
  back_up(1000);
  Verify_Report report;
  EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
  EXPECT_EQ(51u, report.objects);
  EXPECT_EQ(51u, report.good);
  EXPECT_TRUE(report.media.empty());
}

TEST_P(Restore, verify_names_each_damaged_object_and_counts_the_good) {
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

TEST_P(Restore, verify_tells_missing_and_cut_media_and_catalogs) {
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

TEST_P(Restore, verify_ends_when_it_is_cancelled) {
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

TEST_P(Restore, verify_finds_a_flipped_bit_in_every_block_and_a_cut_at_every_boundary) {
  fill(6, 2000);
  source_.add("b/empty", "");
  expect_all_damage_found("set-1");
}

TEST_P(Restore, verify_finds_a_flipped_bit_in_every_block_and_a_cut_at_every_boundary_of_a_compressed_set) {
  for (unsigned i = 0; i < 6; ++i) {
    std::string text;
    while (text.size() < 1500 + 400 * i)
      text += "line " + std::to_string(text.size() % 97) + " of object " + std::to_string(i) + "\n";
    source_.add("b/t" + std::to_string(i), text);
  }
  source_.add("b/empty", "");
  compression_ = MTF_COMPRESSION_ZSTD;
  expect_all_damage_found("set-1");
  auto catalog = open_set_catalog(pool_, record_, error_);
  ASSERT_TRUE(catalog) << error_;
  unsigned compressed = 0;
  EXPECT_TRUE(catalog->walk(
      "",
      [&](const Catalog_Object& object) {
        compressed += object.stored < object.size;
        return true;
      },
      error_));
  EXPECT_LT(3u, compressed) << "the smallest may take more with their blocks";
}

/// The pages of a plain catalog have no checks of their own.
class Encrypted_Restore : public Restore {};

TEST_P(Encrypted_Restore, verify_finds_damage_to_every_page_of_the_catalog) {
  fill(30, 200);
  back_up();
  const std::string file = pool_.set_folder(record_.uri) + "/catalog.db";
  const std::string good = load(file);
  Verify_Report report;
  for (size_t at = 1000; at < good.size(); at += 4096) {
    put(file, at, static_cast<char>(good[at] ^ 2));
    EXPECT_FALSE(verify_set(pool_, record_, {}, report)) << at;
    const std::string page = "page " + std::to_string(at / 4096 + 1) + " is damaged";
    std::string told = report.failure;
    for (const std::string& one : report.media)
      told += one;
    EXPECT_NE(std::string::npos, told.find(page)) << at << told;
    put(file, at, good[at]);
  }
  EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
}

TEST_P(Restore, verify_tells_what_is_lost_with_another_set_and_what_is_not) {
  fill(40, 500);
  const Set_Record first = made("set-1", 0, 1u << 20, 1);
  source_.add("b/d9/new", "new content");
  source_.add("b/d9/other", "other content");
  record_ = made("set-2", 1, 1u << 20, 2);
  Verify_Report report;
  ASSERT_TRUE(verify_set(pool_, record_, {}, report)) << report.failure;
  EXPECT_EQ(42u, report.good);
  unsigned long long bytes = 0;
  for (const auto& [path, object] : source_.objects)
    bytes += path.compare(0, 5, "b/d9/") == 0 ? 0 : object.data.size();

  fs::rename(pool_.set_folder(first.uri), root_ + "/away");
  std::set<std::string> told;
  Verify_Options options;
  options.found = [&](const Verify_Damage& damage) {
    EXPECT_EQ("set-1", damage.set);
    EXPECT_EQ("channel-0000.mtf", damage.medium);
    EXPECT_NE(std::string::npos, damage.message.find("set-1")) << damage.message;
    told.insert(damage.path);
  };
  for (const double sample : {100.0, 1.0}) {
    told.clear();
    options.sample = sample;
    EXPECT_FALSE(verify_set(pool_, record_, options, report));
    EXPECT_EQ(40u, report.damaged) << "known without reading, whatever the sample";
    EXPECT_EQ(40u, told.size());
    EXPECT_EQ(0u, told.count("b/d9/new"));
    EXPECT_EQ(bytes, report.lost_bytes);
    EXPECT_EQ(1u, report.media.size());
  }
  for (const Verify_Report::Place& place : report.places) {
    EXPECT_EQ(place.own, place.set == "set-2");
    EXPECT_EQ(place.own, place.error.empty()) << place.error;
    EXPECT_EQ(place.own ? 0u : 40u, place.damaged);
  }
  options.sample = 100;
  fs::rename(root_ + "/away", pool_.set_folder(first.uri));
  fs::resize_file(medium_of(first, 0), fs::file_size(medium_of(first, 0)) - 1024);
  options.found = nullptr;
  EXPECT_FALSE(verify_set(pool_, record_, options, report));
  EXPECT_EQ(0u, report.damaged);
  ASSERT_EQ(1u, report.media.size());
  EXPECT_NE(std::string::npos, report.media[0].find("set set-1, channel-0000.mtf")) << report.media[0];
}

TEST_P(Restore, verify_of_a_sample_reads_about_that_part_and_another_one_with_another_seed) {
  fill(400, 50);
  back_up();
  Verify_Options options;
  options.sample = 25;
  Verify_Report report;
  std::set<unsigned long long> amounts;
  for (options.seed = 0; options.seed < 5; ++options.seed) {
    ASSERT_TRUE(verify_set(pool_, record_, options, report)) << report.failure;
    EXPECT_GT(report.checked, 60u);
    EXPECT_LT(report.checked, 140u);
    EXPECT_EQ(400u, report.checked + report.passed);
    EXPECT_EQ(report.checked, report.good);
    const unsigned long long bytes = report.bytes;
    ASSERT_TRUE(verify_set(pool_, record_, options, report)) << report.failure;
    EXPECT_EQ(bytes, report.bytes) << "the same sample again";
    amounts.insert(bytes);
  }
  EXPECT_GT(amounts.size(), 1u);
}

TEST_P(Restore, object_of_another_place_is_not_taken_for_the_one_looked_for) {
  source_.add("b/one", std::string(500, '1'));
  source_.add("b/two", std::string(500, '2'));
  record_ = made("set-1", 0, 1u << 20, 1);
  const Catalog_Object one = place("b/one"), two = place("b/two");
  const std::string medium = medium_of(record_, 0);
  const std::string bytes = load(medium);
  ASSERT_EQ(one.stored, two.stored);
  // Only its head and all behind it are moved: the block before them tells where it lies.
  for (size_t i = 130; i < one.stored; ++i)
    put(medium, one.offset + i, bytes[static_cast<size_t>(two.offset) + i]);
  target_.objects["/b/one"] = "the old one";
  ASSERT_TRUE(run());
  EXPECT_EQ("the old one", target_.objects["/b/one"]);
  EXPECT_EQ(source_.objects["b/two"].data, target_.objects["/b/two"]);
  EXPECT_TRUE(events_->named("/b/one"));
}

/// A restore of a job whose service is away for a while, or for good.
class Restore_With_Outage : public Restore {
protected:
  void SetUp() override {
    Restore::SetUp();
    job_ = new Job(Job_Definition_var(new Job_Definition));
    Job::current(job_);
    fill(12, 9000);
    back_up();
  }
  void TearDown() override {
    over_ = true;
    if (answers_.joinable())
      answers_.join();
    Restore::TearDown();
    Job::current(nullptr);
    Job::intrusive_remove_ref(job_);
  }
  Service_Watch& service() { return job_->ledger()->service; }

  /// As the S3 layer says it, in the thread whose request it was.
  void unanswered() {
    const ACE_Time_Value now = Clock::instance().monotonic();
    job_->ledger()->failed_here(S3_Error(EIO, 503, "ServiceUnavailable", "down", true));
    service().failed("down.", static_cast<double>(now.sec()), [] {});
  }
  /// Each time that the service was asked and did not answer it does so afterwards.
  void answer_later() {
    answers_ = std::thread([this] {
      for (unsigned long long seen = 0; !over_; std::this_thread::yield())
        if (const unsigned long long now = service().outages(); now != seen) {
          seen = now;
          service().answered();
        }
    });
  }

  Job* job_ = nullptr;
  std::atomic<bool> over_{false};
  std::thread answers_;
};

TEST_P(Restore_With_Outage, object_that_the_service_was_away_for_is_written_again_from_its_start) {
  order_.byte_budget = 4000; // the larger ones are not in memory as a whole
  unsigned number = 0;
  for (const std::string& path : source_.order)
    target_.broken["/" + path] = std::vector<std::string>{"open failed", "write", "close"}[number++ % 3];
  target_.on_failure = [this](const std::string& path) {
    unanswered();
    const std::lock_guard<std::mutex> guard(target_.mutex);
    target_.broken.erase(path);
  };
  answer_later();
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ(12u, events_->figure("saved"));
  expect_restored(all());
}

TEST_P(Restore_With_Outage, target_that_could_not_be_looked_at_meanwhile_is_looked_at_again) {
  std::atomic<int> unseen{1};
  order_.concurrent = 1;
  order_.only_different = true;
  order_.converter = MTF_FS::IPath_Converter_var(new Comparing_Policy(E_OK, [&](const std::string&, ACE_UINT64) {
    if (unseen-- > 0)
      unanswered();
    return unseen >= 0;
  }));
  answer_later();
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ(12u, events_->figure("saved"));
  expect_restored(all());
}

TEST_P(Restore_With_Outage, path_of_a_target_is_made_from_the_object_s_own_each_time) {
  std::atomic<int> unseen{1};
  order_.concurrent = 1;
  order_.converter = MTF_FS::IPath_Converter_var(new Policy([&](std::string& path, time_t) {
    if (unseen-- > 0)
      unanswered();
    path = "/moved" + path;
    return E_OK;
  }));
  answer_later();
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(12u, events_->figure("saved"));
  for (const std::string& path : all())
    EXPECT_EQ(source_.objects[path].data, target_.objects["/moved/" + path]) << path;
}

/// Holds the engine up where it has found the service gone and does not yet act on it, until a channel asks.
class Late_Events : public Fake_Events {
public:
  explicit Late_Events(Service_Watch& service) : service_(service) {}
  bool canceling() override {
    if (std::this_thread::get_id() != engine_)
      asked_ = asked_ || service_.gone();
    else
      while (service_.gone() && !asked_)
        std::this_thread::yield();
    return false;
  }

private:
  Service_Watch& service_;
  const std::thread::id engine_ = std::this_thread::get_id();
  std::atomic<bool> asked_{false};
};

TEST_P(Restore_With_Outage, object_is_not_blamed_for_a_service_that_is_gone) {
  events_ = new Late_Events(service());
  handler_ = Event_Handler_var(events_);
  service().limit(0);
  order_.concurrent = 1;
  target_.broken["/b/d0/o100"] = "close";
  target_.on_failure = [this](const std::string&) {
    unanswered();
    while (!service().gone())
      std::this_thread::yield();
  };
  EXPECT_FALSE(run());
  EXPECT_NE(std::string::npos, engine_->failure().find("The service is gone")) << engine_->failure();
  EXPECT_EQ(0u, events_->figure("failed") + events_->figure("skipped"));
  EXPECT_EQ("", events_->message("/b/d0/o100"));
}

INSTANTIATE_TEST_SUITE_P(plain, Restore_With_Outage, testing::Values(false));
INSTANTIATE_TEST_SUITE_P(encrypted, Encrypted_Restore, testing::Values(true));
INSTANTIATE_TEST_SUITE_P(plain_and_encrypted, Restore, testing::Bool(),
                         [](const auto& info) { return std::string(info.param ? "encrypted" : "plain"); });

} // namespace
