#include "platform/mtf/backup_testing.h"

using namespace backup_testing;

namespace {

/// What a killed run leaves: media of which the last blocks are missing, a catalog that was never finished, no record.
class Continuation : public Backup {
protected:
  /// Writes the set `uuid` and cuts its media to `part` of their length.
  void leave(const std::string& uuid, double part) {
    order_.uuid = uuid;
    order_.uri_prefix = "host/res/" + uuid;
    ASSERT_TRUE(run()) << engine_->failure();
    engine_.reset();
    for (const auto& entry : fs::directory_iterator(folder())) {
      const auto size = static_cast<double>(fs::file_size(entry.path()));
      if (entry.path().extension() == ".mtf")
        fs::resize_file(entry.path(), static_cast<uintmax_t>(size * part));
      else if (entry.path().filename() == "catalog.db")
        fs::resize_file(entry.path(), 4096);
    }
  }
  void next(const std::string& uuid) {
    order_.uuid = uuid;
    order_.uri_prefix = "host/res/" + uuid;
  }
  unsigned long long partial_sets() {
    std::vector<std::string> bad;
    const auto found = pool_.partial_sets("host/res", bad);
    EXPECT_TRUE(bad.empty());
    return found.size();
  }
  void expect_media_are_valid() {
    for (const auto& entry : fs::recursive_directory_iterator(root_))
      if (entry.path().extension() == ".mtf") {
        auto medium = Medium_Reader::open(entry.path(), 0, error_);
        ASSERT_TRUE(medium) << error_;
        EXPECT_TRUE(medium->complete(error_)) << error_;
        EXPECT_TRUE(medium->walk(
            true,
            [&](const Medium_Finding& finding) {
              EXPECT_NE(Medium_Finding::DAMAGE, finding.kind) << entry.path() << finding.message;
              return true;
            },
            error_));
      }
  }
};

TEST_F(Continuation, what_an_unfinished_run_stored_is_not_read_again) {
  fill(300, 3000, 51);
  leave("killed", 0.6);
  const unsigned before = source_.opened;
  next("set-2");
  ASSERT_TRUE(run()) << engine_->failure();
  const unsigned long long continued = events_->figure("continued");
  EXPECT_GT(continued, 100u);
  EXPECT_LT(continued, 300u);
  EXPECT_EQ(300u, events_->figure("saved"));
  EXPECT_EQ(0u, events_->figure("unchanged"));
  EXPECT_EQ(300u, before);
  EXPECT_EQ(before + 300 - continued, source_.opened);
  EXPECT_TRUE(events_->adds_up());
  EXPECT_EQ(1u, partial_sets());
  std::vector<std::string> bad;
  EXPECT_TRUE(pool_.sets("", bad).empty()) << "a partial set is no set";
  expect_set_over({"host/res/killed"});
  expect_media_are_valid();
  commit();
  // The next one is compared with the set, and the partial set stays as long as it is pointed into.
  next("set-3");
  order_.incremental = true;
  order_.base_seq = 1;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(300u, events_->figure("unchanged"));
  EXPECT_EQ(0u, events_->figure("continued"));
  ASSERT_TRUE(reclaim_partial_sets(pool_, "host/res", nullptr, error_)) << error_;
  EXPECT_EQ(1u, partial_sets());
  engine_.reset();
  ASSERT_TRUE(pool_.remove_set("host/res/set-2", error_));
  ASSERT_TRUE(reclaim_partial_sets(pool_, "host/res", nullptr, error_)) << error_;
  EXPECT_EQ(0u, partial_sets());
}

TEST_F(Continuation, every_unfinished_run_brings_the_next_one_further) {
  fill(200, 2000, 52);
  order_.limits.small_object = 900;
  unsigned long long had = 0;
  for (const char* uuid : {"one", "two", "three"}) {
    leave(uuid, 0.5);
    EXPECT_GE(events_->figure("continued"), had);
    had = events_->figure("continued");
  }
  EXPECT_GT(had, 0u);
  next("last");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_GT(events_->figure("continued"), had);
  EXPECT_EQ(200u, events_->figure("saved"));
  auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  EXPECT_EQ(4u, catalog->sets().size());
  EXPECT_EQ(200u, catalog->counts().objects);
  expect_media_are_valid();
}

TEST_F(Continuation, changed_and_damaged_objects_are_read_again) {
  fill(100, 2000, 53);
  order_.channels = 1;
  leave("killed", 1);
  source_.objects["b/d000/o00003"].mtime += 1;
  source_.objects["b/d000/o00004"].data += "x";
  Catalog_Object damaged;
  {
    // One byte of one object's content.
    const std::string medium = pool_.set_folder("host/res/killed/channel-0000.mtf");
    auto reader = Medium_Reader::open(medium, 0, error_);
    ASSERT_TRUE(reader);
    ASSERT_TRUE(reader->walk(
        false,
        [&](const Medium_Finding& finding) {
          if (finding.kind == Medium_Finding::OBJECT && finding.head.size > 100 && finding.head.ordinal > 10)
            damaged = found_object(finding, 0);
          return damaged.ordinal == 0;
        },
        error_));
    ASSERT_NE(0u, damaged.ordinal);
    std::fstream file(medium, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(damaged.offset + 300));
    file.put('\x55');
  }
  next("set-2");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(97u, events_->figure("continued"));
  EXPECT_EQ(100u, events_->figure("saved"));
  auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  Catalog_Object object;
  ASSERT_TRUE(catalog->find(damaged.path, object, error_));
  EXPECT_EQ(0u, object.set);
  expect_set_over({"host/res/killed"});
}

TEST_F(Continuation, unfinished_incremental_is_gone_on_with_too) {
  fill(50, 1000, 54);
  next("full");
  ASSERT_TRUE(run());
  commit();
  fill(120, 1000, 55);
  for (unsigned i = 0; i < 50; ++i)
    ++source_.objects[source_.order[i]].mtime;
  order_.incremental = true;
  order_.base_seq = 1;
  leave("killed", 0.7);
  const unsigned before = source_.opened;
  next("set-2");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(120u, events_->figure("saved") + events_->figure("unchanged"));
  EXPECT_GT(events_->figure("continued"), 30u);
  EXPECT_EQ(before + 120 - events_->figure("continued") - events_->figure("unchanged"), source_.opened);
  expect_set_over({"host/res/full", "host/res/killed"});
}

TEST_F(Continuation, what_a_cancelled_run_saved_is_not_read_again) {
  fill(400, 3000, 58);
  std::mt19937 random(58);
  unsigned long long known = 0, runs = 0;
  for (; known < 350; ++runs) {
    next("cancelled-" + std::to_string(runs));
    events_->cancel = false;
    const unsigned long long before = source_.opened;
    const unsigned long long point = before + 1 + random() % 60;
    source_.on_open = [&](const std::string&) {
      if (source_.opened >= point)
        events_->cancel = true;
    };
    ASSERT_FALSE(run());
    ASSERT_EQ(E_CANCELED, engine_->err_code());
    EXPECT_EQ(known, events_->figure("continued"));
    EXPECT_GE(events_->figure("saved"), known);
    EXPECT_GE(source_.opened - before, events_->figure("saved") - known);
    if (events_->figure("saved") != 0) {
      EXPECT_EQ(events_->figure("saved"), events_->figure("resumable"));
    }
    EXPECT_TRUE(events_->adds_up());
    known = events_->figure("saved");
    ASSERT_LT(runs, 1000u);
  }
  events_->cancel = false;
  source_.on_open = nullptr;
  next("set-2");
  const unsigned before = source_.opened;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(known, events_->figure("continued"));
  EXPECT_EQ(before + 400 - known, source_.opened);
  EXPECT_EQ(400u, events_->figure("saved"));
  EXPECT_EQ(0u, events_->figure("skipped") + events_->figure("failed"));
  expect_media_are_valid();
}

TEST_F(Continuation, cancel_that_comes_while_the_set_is_completed_makes_none) {
  fill(50, 1000, 59);
  next("cancelled");
  class Late : public Actions {
  public:
    explicit Late(Fake_Events& events) : events_(events) {}
    bool execute_post_action(bool, const std::string&) override {
      events_.cancel = true;
      return true;
    }
    Fake_Events& events_;
  };
  order_.actions = Action_Handler_var(new Late(*events_));
  EXPECT_FALSE(run());
  EXPECT_EQ(E_CANCELED, engine_->err_code());
  EXPECT_EQ(50u, events_->figure("saved"));
  EXPECT_EQ(50u, events_->figure("resumable"));
  order_.actions = Action_Handler_var();
  events_->cancel = false;
  next("set-2");
  const unsigned before = source_.opened;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(50u, events_->figure("continued"));
  EXPECT_EQ(before, source_.opened);
}

TEST_F(Continuation, what_cannot_be_taken_up_is_named_and_taken_up_by_a_later_run) {
  fill(60, 2000, 57);
  leave("killed", 0.8);
  const std::string medium = pool_.set_folder("host/res/killed/channel-0001.mtf");
  fs::rename(medium, root_ + "/away");
  fs::create_symlink(medium, medium); // leads nowhere for ever
  next("set-2");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code()) << "every object is in the set";
  EXPECT_EQ(60u, events_->figure("saved"));
  EXPECT_EQ(0u, events_->figure("continued"));
  const std::string told = events_->message(pool_.set_folder("host/res/killed"));
  EXPECT_NE(std::string::npos, told.find(medium)) << told;
  EXPECT_EQ(std::vector<std::string>{"host/res/killed"}, [this] {
    auto left = pool_.unfinished("host/res");
    left.erase(std::remove(left.begin(), left.end(), "host/res/set-2"), left.end());
    return left;
  }());
  engine_.reset();
  ASSERT_TRUE(pool_.remove_set("host/res/set-2", error_)) << error_;
  fs::remove(medium);
  fs::rename(root_ + "/away", medium);
  next("set-3");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_GT(events_->figure("continued"), 20u);
  EXPECT_EQ("", events_->message(pool_.set_folder("host/res/killed")));
  expect_media_are_valid();
}

TEST_F(Continuation, unfinished_run_of_another_source_is_left_alone) {
  fill(20, 100, 56);
  leave("killed", 1);
  order_.uuid = "set-2";
  order_.uri_prefix = "host/other/set-2";
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(0u, events_->figure("continued"));
  EXPECT_EQ(1u, pool_.unfinished("host/res").size());
}

} // namespace
