#pragma once

#include "platform/catalog/catalog_reader.h"
#include "platform/mtf/backup_engine.h"
#include "platform/mtf/damage_marks.h"
#include "platform/mtf/fake_source_test.h"
#include "platform/mtf/medium_reader.h"
#include "platform/mtf/partial_sets.h"
#include "platform/s3/ledger.h"
#include "sdk/job/job.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

// What the tests of backups share: a pool, a source, an engine over both, and what it reported.
namespace backup_testing {

namespace fs = std::filesystem;
using namespace MTF;

class Actions : public Action_Handler {
public:
  bool execute_pre_action() override {
    ++pre;
    return pre_result;
  }
  bool execute_post_action(bool done, const std::string&) override {
    ++post;
    last_done = done;
    return post_result;
  }
  int pre = 0, post = 0;
  bool pre_result = true, post_result = true, last_done = false;
};

class Backup : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/backup_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    url_ = "file://" + root_ + "/pool";
    ASSERT_TRUE(Pool::create(url_, "pool-uuid", error_)) << error_;
    ASSERT_TRUE(Pool::open(url_, "", pool_, error_)) << error_;
    events_ = new Fake_Events;
    handler_ = Event_Handler_var(events_);
    order_.uuid = "set-1";
    order_.uri_prefix = "host/res/set-1";
    order_.channels = 3;
    order_.io.readers = 6;
    order_.factory = IBackup_Callback_Factory_var(new Fake_Factory(source_));
    order_.sources = {"/b/"};
  }
  void TearDown() override {
    engine_.reset();
    fs::remove_all(root_);
  }

  bool run() {
    engine_.reset();
    events_->outcome.clear();
    metadata_ = Metadata();
    engine_.reset(new Backup_Engine(order_, handler_, metadata_, nullptr));
    return engine_->run(url_, "pool-uuid");
  }

  std::string folder() { return pool_.set_folder(metadata_.set_uri); }

  std::string content(const Catalog_Object& object) {
    char name[32];
    std::snprintf(name, sizeof name, "/channel-%04u.mtf", object.channel);
    auto medium = Medium_Reader::open(folder() + name, 0, error_);
    EXPECT_TRUE(medium) << error_;
    auto reader = medium ? medium->object(object.offset, error_) : nullptr;
    EXPECT_TRUE(reader) << error_;
    std::string data;
    if (!reader)
      return data;
    EXPECT_EQ(object.path, reader->head().path);
    EXPECT_EQ(object.size, reader->head().size);
    char buffer[5000];
    for (;;) {
      size_t got = 0;
      const Read_Outcome outcome = reader->read(buffer, sizeof buffer, got);
      data.append(buffer, got);
      if (outcome == Read_Outcome::MORE)
        continue;
      EXPECT_EQ(Read_Outcome::END, outcome) << reader->error();
      EXPECT_EQ(0, std::memcmp(reader->sha256(), object.sha256, 32));
      return data;
    }
  }

  /// Compares set and source; objects in `missing` must not be there.
  void expect_set(const std::set<std::string>& missing = {}) {
    auto catalog = Catalog_Reader::open(folder(), error_);
    ASSERT_TRUE(catalog) << error_;
    std::vector<std::string> expected, found;
    for (const std::string& path : source_.order)
      if (missing.count(path) == 0)
        expected.push_back(path);
    std::map<unsigned, unsigned long long> last;
    ASSERT_TRUE(catalog->walk(
        "",
        [&](const Catalog_Object& object) {
          found.push_back(object.path);
          EXPECT_EQ(source_.objects[object.path].data, content(object)) << object.path;
          EXPECT_EQ(source_.objects[object.path].mtime, object.mtime);
          EXPECT_LT(last[object.channel], object.offset) << "offsets of a channel must rise with the ordinals";
          last[object.channel] = object.offset;
          return true;
        },
        error_))
        << error_;
    EXPECT_EQ(expected, found);
  }

  /// Makes the set that was just written exist.
  void commit() {
    Set_Record record;
    record.uuid = order_.uuid;
    record.seq = metadata_.seq;
    record.uri = metadata_.set_uri;
    for (const json_spirit::Value& one : metadata_.media) {
      const json_spirit::Object& medium = one.get_obj();
      record.media.push_back({medium.at("name").get_str(), medium.at("size").get_uint64(),
                              static_cast<unsigned>(medium.at("family").get_uint64())});
    }
    ASSERT_TRUE(write_set_record(folder(), record, error_)) << error_;
  }

  /// The same for a set whose data lie also in the sets in the folders `others`, by their index from 1.
  void expect_set_over(const std::vector<std::string>& others) {
    auto catalog = Catalog_Reader::open(folder(), error_);
    ASSERT_TRUE(catalog) << error_;
    const std::string own = metadata_.set_uri;
    std::vector<std::string> found;
    ASSERT_TRUE(catalog->walk(
        "",
        [&](const Catalog_Object& object) {
          found.push_back(object.path);
          metadata_.set_uri = object.set == 0 ? own : others.at(object.set - 1);
          EXPECT_EQ(source_.objects[object.path].data, content(object)) << object.path;
          EXPECT_EQ(source_.objects[object.path].mtime, object.mtime);
          return true;
        },
        error_));
    metadata_.set_uri = own;
    EXPECT_EQ(source_.order, found);
  }

  void fill(unsigned count, unsigned most, unsigned seed) {
    std::mt19937 random(seed);
    for (unsigned i = 0; i < count; ++i) {
      std::string data(random() % most, '\0');
      for (char& c : data)
        c = static_cast<char>(random());
      char path[64];
      std::snprintf(path, sizeof path, "b/d%03u/o%05u", i / 40, i);
      source_.add(path, data);
    }
  }

  std::string root_, url_, error_;
  Pool pool_;
  Fake_Source source_;
  Fake_Events* events_ = nullptr;
  Event_Handler_var handler_;
  Metadata metadata_;
  Backup_Order order_;
  std::unique_ptr<Backup_Engine> engine_;
};

} // namespace backup_testing
