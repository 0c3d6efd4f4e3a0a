#include "platform/mtf/partial_sets.h"

#include "platform/catalog/open_catalog.h"
#include "platform/mtf/media_feed.h"
#include "platform/mtf/medium_source.h"
#include "platform/mtf/medium_test_support.h"

#include <sys/resource.h>

#include <csignal>
#include <filesystem>

namespace fs = std::filesystem;

#ifdef __SANITIZE_ADDRESS__
/// Before the sanitizer looks at memory it asks the kernel whether it may, by a pipe. Where a test has used up all
/// descriptors that would fail, and every object look broken: these two come from beyond the test's limit.
extern "C" int pipe(int* ends) noexcept {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int result = ::pipe2(ends, O_CLOEXEC);
  limit.rlim_cur = before;
  setrlimit(RLIMIT_NOFILE, &limit);
  return result;
}
#endif

namespace {

constexpr unsigned CHANNELS = 3;
constexpr unsigned EACH = 12; ///< whole objects on each medium
constexpr const char* PLACE = "host/res";

/// Bounds the size of any file that is written, as a full disk would.
class Small_Files {
public:
  explicit Small_Files(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~Small_Files() { setrlimit(RLIMIT_FSIZE, &before_); }

private:
  rlimit before_;
};

/// What a killed run leaves: media whose last object is torn, a catalog that was never finished, no record.
class Salvage_Test : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/partial_sets_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    const std::string url = "file://" + root_ + "/pool";
    ASSERT_TRUE(Pool::create(url, "pool-uuid", error_)) << error_;
    ASSERT_TRUE(Pool::open(url, "", pool_, error_)) << error_;
    leave("host/res/left");
  }
  void TearDown() override { fs::remove_all(root_); }

  std::string folder(const std::string& uri = "host/res/left") { return pool_.set_folder(uri); }
  std::string medium(unsigned channel, const std::string& uri = "host/res/left") {
    return folder(uri) + "/" + medium_name(channel);
  }

  void leave(const std::string& uri) {
    ASSERT_TRUE(pool_.make_set_folder(uri, error_)) << error_;
    for (unsigned channel = 0; channel < CHANNELS; ++channel) {
      const auto writer = Medium_Writer::create(medium(channel, uri), test_identity(), error_);
      ASSERT_TRUE(writer) << error_;
      Stored_Object stored;
      for (unsigned i = 0; i <= EACH; ++i) {
        const unsigned number = channel + CHANNELS * i;
        const Test_Object object{"d/key-" + std::to_string(number), noise(20000, number)};
        ASSERT_TRUE(put_object(*writer, object, number + 1, {}, Way::IMAGE, stored, error_)) << error_;
      }
      ASSERT_TRUE(writer->finish()) << writer->error();
      ends_[channel] = stored.offset;
      fs::resize_file(medium(channel, uri), stored.offset + 9000);
    }
    save(folder(uri) + "/catalog.db", noise(30000, 1));
  }

  Salvage_Report salvage() {
    Salvage_Report report;
    salvage_unfinished(pool_, PLACE, report);
    return report;
  }

  std::vector<std::string> whole_parts() {
    std::vector<std::string> parts;
    for (unsigned channel = 0; channel < CHANNELS; ++channel)
      parts.push_back(load(medium(channel)).substr(0, static_cast<size_t>(ends_[channel])));
    return parts;
  }

  void expect_stays(const Salvage_Report& report, const std::string& why) {
    EXPECT_EQ(0u, report.salvaged);
    EXPECT_EQ(0u, report.removed);
    ASSERT_EQ(1u, report.problems.size());
    EXPECT_EQ(folder(), report.problems[0].folder);
    EXPECT_NE(std::string::npos, report.problems[0].message.find(why)) << report.problems[0].message;
    EXPECT_EQ(std::vector<std::string>{"host/res/left"}, pool_.unfinished(PLACE));
  }

  /// Everything that was whole is in the partial set now, and its media are valid.
  void expect_taken(const Salvage_Report& report) {
    for (const Salvage_Report::Problem& problem : report.problems)
      ADD_FAILURE() << problem.message;
    EXPECT_EQ(1u, report.salvaged);
    EXPECT_EQ(CHANNELS * EACH, report.objects);
    std::vector<std::string> bad;
    const std::vector<Set_Record> partial = pool_.partial_sets(PLACE, bad);
    ASSERT_EQ(1u, partial.size());
    const auto catalog = open_set_catalog(pool_, partial[0], error_);
    ASSERT_TRUE(catalog) << error_;
    EXPECT_EQ(CHANNELS * EACH, catalog->counts().objects);
    ASSERT_EQ(CHANNELS, partial[0].media.size());
    for (unsigned channel = 0; channel < CHANNELS; ++channel) {
      EXPECT_EQ(fs::file_size(medium(channel)), partial[0].media[channel].size);
      Media_Figures figures;
      EXPECT_TRUE(problems_of(medium(channel), &figures).empty());
      EXPECT_EQ(EACH, figures.objects);
    }
  }

  std::string root_, error_;
  Pool pool_;
  unsigned long long ends_[CHANNELS] = {}; ///< where the last whole object of each medium ends
};

} // namespace

TEST_F(Salvage_Test, full_disk_at_any_step_leaves_what_is_whole_for_the_next_run) {
  const std::vector<std::string> before = whole_parts();
  std::set<std::string> reasons;
  unsigned refused = 0;
  Salvage_Report report;
  for (rlim_t limit = 0; limit < 1000000; limit += 8192) {
    SCOPED_TRACE(limit);
    {
      const Small_Files disk(limit);
      report = salvage();
    }
    if (report.salvaged != 0)
      break;
    ++refused;
    ASSERT_NO_FATAL_FAILURE(expect_stays(report, folder()));
    ASSERT_TRUE(before == whole_parts());
    const std::string& message = report.problems[0].message;
    for (const char* what : {"catalog", "cannot end the medium"})
      if (message.find(what) != std::string::npos)
        reasons.insert(what);
    // What it could not use it has given back.
    EXPECT_FALSE(fs::exists(folder() + "/catalog.db"));
  }
  EXPECT_GT(refused, 3u);
  EXPECT_EQ(2u, reasons.size()) << "both steps must have failed once";
  expect_taken(report);
}

TEST_F(Salvage_Test, no_step_that_fails_for_want_of_files_loses_anything) {
  const std::vector<std::string> before = whole_parts();
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlim_t most = limit.rlim_cur;
  const int next = ::dup(0);
  ASSERT_GE(next, 0);
  ::close(next);
  unsigned refused = 0;
  Salvage_Report report;
  for (rlim_t files = static_cast<rlim_t>(next) + 1; report.salvaged == 0; ++files) {
    SCOPED_TRACE(files);
    ASSERT_LT(files, static_cast<rlim_t>(next) + 40);
    limit.rlim_cur = files;
    setrlimit(RLIMIT_NOFILE, &limit);
    report = salvage();
    limit.rlim_cur = most;
    setrlimit(RLIMIT_NOFILE, &limit);
    // Where not even the folders can be listed there is no problem that has a name.
    refused += !report.problems.empty();
    EXPECT_EQ(0u, report.removed);
    ASSERT_TRUE(before == whole_parts());
  }
  EXPECT_GT(refused, 0u);
  expect_taken(report);
}

TEST_F(Salvage_Test, medium_that_cannot_be_read_at_any_place_keeps_the_set_as_it_is) {
  std::vector<std::string> before;
  for (unsigned channel = 0; channel < CHANNELS; ++channel)
    before.push_back(load(medium(channel)));
  Salvage_Report report;
  unsigned failing = 0;
  for (unsigned reads = 0;; failing += 1) {
    ASSERT_LT(failing, 2000u);
    reads = 0;
    const Medium_Source::Watch watch = [&](const std::string& path, unsigned long long, size_t) {
      return path != medium(1) || reads++ != failing;
    };
    Medium_Source::watch(&watch);
    report = salvage();
    Medium_Source::watch(nullptr);
    if (reads <= failing)
      break;
    SCOPED_TRACE(failing);
    ASSERT_NO_FATAL_FAILURE(expect_stays(report, medium(1)));
    for (unsigned channel = 0; channel < CHANNELS; ++channel)
      ASSERT_TRUE(before[channel] == load(medium(channel)));
    ASSERT_TRUE(fs::exists(folder() + "/catalog.db"));
  }
  EXPECT_GT(failing, EACH);
  expect_taken(report);
}

TEST_F(Salvage_Test, medium_that_cannot_be_opened_is_not_removed) {
  fs::rename(medium(1), root_ + "/away");
  fs::create_symlink(medium(1), medium(1)); // leads nowhere for ever
  const std::string first = load(medium(0));
  ASSERT_NO_FATAL_FAILURE(expect_stays(salvage(), medium(1)));
  EXPECT_TRUE(fs::is_symlink(medium(1)));
  EXPECT_TRUE(first == load(medium(0)));
  fs::remove(medium(1));
  fs::rename(root_ + "/away", medium(1));
  expect_taken(salvage());
}

TEST_F(Salvage_Test, medium_that_is_missing_or_none_costs_only_itself) {
  fs::remove(medium(1));
  save(medium(2), "the header was never written");
  const Salvage_Report report = salvage();
  EXPECT_TRUE(report.problems.empty());
  EXPECT_EQ(1u, report.salvaged);
  EXPECT_EQ(EACH, report.objects);
  EXPECT_FALSE(fs::exists(medium(2)));
}

TEST_F(Salvage_Test, set_that_was_read_and_holds_nothing_whole_is_removed) {
  for (unsigned channel = 0; channel < CHANNELS; ++channel)
    fs::resize_file(medium(channel), 9000);
  const Salvage_Report report = salvage();
  EXPECT_EQ(1u, report.removed);
  EXPECT_EQ(0u, report.salvaged);
  EXPECT_TRUE(report.problems.empty());
  EXPECT_FALSE(fs::exists(folder()));
}

TEST_F(Salvage_Test, set_without_media_is_removed) {
  for (unsigned channel = 0; channel < CHANNELS; ++channel)
    fs::remove(medium(channel));
  EXPECT_EQ(1u, salvage().removed);
  EXPECT_FALSE(fs::exists(folder()));
}

TEST_F(Salvage_Test, media_of_two_sets_in_one_folder_stay) {
  Medium_Identity other = test_identity();
  other.set_uuid = "another";
  fs::remove(medium(1));
  {
    const auto writer = Medium_Writer::create(medium(1), other, error_);
    ASSERT_TRUE(writer) << error_;
    ASSERT_TRUE(writer->finish()) << writer->error();
  }
  expect_stays(salvage(), "another");
}

TEST_F(Salvage_Test, encrypted_media_that_the_pool_has_no_key_for_stay) {
  Medium_Identity sealed = test_identity();
  sealed.cipher = test_cipher();
  for (unsigned channel = 0; channel < CHANNELS; ++channel) {
    fs::remove(medium(channel));
    const auto writer = Medium_Writer::create(medium(channel), sealed, error_);
    ASSERT_TRUE(writer) << error_;
    ASSERT_TRUE(writer->finish()) << writer->error();
  }
  expect_stays(salvage(), "encrypted");
  EXPECT_TRUE(fs::exists(medium(0)));
}

TEST_F(Salvage_Test, salvage_that_was_killed_at_its_end_is_done_again_to_the_same) {
  expect_taken(salvage());
  std::vector<std::string> media;
  for (unsigned channel = 0; channel < CHANNELS; ++channel)
    media.push_back(load(medium(channel)));
  // Before the record was there.
  fs::rename(folder() + "/partial.json", folder() + "/partial.json.tmp");
  expect_taken(salvage());
  EXPECT_FALSE(fs::exists(folder() + "/partial.json.tmp"));
  for (unsigned channel = 0; channel < CHANNELS; ++channel)
    EXPECT_TRUE(media[channel] == load(medium(channel)));
  // Before its catalog was whole, and one medium's end.
  fs::remove(folder() + "/partial.json");
  fs::resize_file(folder() + "/catalog.db", 5000);
  fs::resize_file(medium(0), media[0].size() - 1500);
  expect_taken(salvage());
  EXPECT_TRUE(media[0] == load(medium(0)));
}

TEST_F(Salvage_Test, one_set_that_fails_is_no_hindrance_to_another) {
  leave("host/res/other");
  fs::rename(medium(0), root_ + "/away");
  fs::create_symlink(medium(0), medium(0));
  const Salvage_Report report = salvage();
  EXPECT_EQ(1u, report.salvaged);
  EXPECT_EQ(CHANNELS * EACH, report.objects);
  ASSERT_EQ(1u, report.problems.size());
  EXPECT_EQ(folder(), report.problems[0].folder);
  EXPECT_EQ(std::vector<std::string>{"host/res/left"}, pool_.unfinished(PLACE));
  EXPECT_TRUE(fs::exists(folder("host/res/other") + "/partial.json"));
}
