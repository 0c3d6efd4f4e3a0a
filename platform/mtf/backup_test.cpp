#include "platform/mtf/backup_testing.h"

using namespace backup_testing;

namespace {

TEST_F(Backup, every_object_is_in_the_set_byte_for_byte) {
  fill(300, 20000, 1);
  source_.add("b/empty", "");
  source_.add("b//x/../y", "odd");
  source_.add(std::string("b2/\xff\x01 %"), "bytes");
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  expect_set();
  EXPECT_EQ(303u, events_->figure("saved"));
  EXPECT_EQ(303u, events_->figure("listed"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_EQ("host/res/set-1", metadata_.set_uri);
  EXPECT_EQ(1u, metadata_.seq);
  EXPECT_EQ(3u, metadata_.channels);
  ASSERT_EQ(3u, metadata_.media.size());
  unsigned long long total = 0;
  for (const json_spirit::Value& medium : metadata_.media) {
    const auto& one = medium.get_obj();
    const unsigned long long size = json_spirit::find(one, "size")->get_uint64();
    EXPECT_EQ(fs::file_size(folder() + "/" + json_spirit::require_str(one, "name")), size);
    total += size;
  }
  EXPECT_EQ(total, engine_->set_storage_size());
}

TEST_F(Backup, large_objects_stream_through_their_channels) {
  order_.limits.small_object = 10000;
  order_.limits.stream_buffer = 4096;
  fill(80, 60000, 2);
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
}

TEST_F(Backup, compressed_objects_come_back_as_they_were) {
  order_.codec.compression = MTF_COMPRESSION_ZSTD;
  order_.limits.small_object = 10000;
  fill(40, 20000, 20);
  for (unsigned i = 0; i < 20; ++i)
    source_.add("b/text/" + std::to_string(100 + i), std::string(i * 3000, 'a'));
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
  EXPECT_EQ(60u, events_->figure("saved"));
  EXPECT_LT(engine_->set_storage_size(), engine_->size() + 60 * 4096);
}

TEST_F(Backup, byte_budget_bounds_what_is_in_memory) {
  order_.limits.small_object = 10000;
  order_.limits.byte_budget = 60000;
  order_.limits.object_overhead = 1000;
  order_.limits.listed_ahead = 5;
  order_.io.readers = 24;
  fill(200, 10001, 3);
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
  EXPECT_GT(engine_->peak_bytes(), 20000u);
  // What an image takes beside its content may go beyond what was reserved for it.
  EXPECT_LE(engine_->peak_bytes(), 60000u + 24 * 6000);
}

TEST_F(Backup, budget_smaller_than_one_object_still_ends) {
  order_.limits.byte_budget = 100;
  fill(50, 20000, 4);
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
}

TEST_F(Backup, one_channel_and_one_reader_are_enough) {
  order_.channels = 1;
  order_.io.readers = 1;
  order_.limits.small_object = 5000;
  fill(60, 10000, 5);
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
}

TEST_F(Backup, random_timing_keeps_the_order_of_the_listing) {
  fill(400, 3000, 6);
  std::atomic<unsigned> seed{77};
  source_.on_open = [&](const std::string&) {
    std::mt19937 random(seed++);
    for (unsigned spins = random() % 50; spins > 0; --spins)
      std::this_thread::yield();
  };
  order_.io.readers = 16;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
}

TEST_F(Backup, readers_run_in_parallel_up_to_their_number) {
  fill(200, 100, 7);
  std::mutex mutex;
  std::condition_variable all;
  unsigned inside = 0;
  bool met = false;
  // Holds readers until all of them have come at once.
  source_.on_open = [&](const std::string&) {
    std::unique_lock<std::mutex> lock(mutex);
    if (met)
      return;
    if (++inside == 6) {
      met = true;
      all.notify_all();
    }
    all.wait_for(lock, std::chrono::seconds(30), [&] { return met; });
  };
  ASSERT_TRUE(run());
  EXPECT_TRUE(met);
  EXPECT_LE(source_.most_open, 6u);
}

TEST_F(Backup, faulty_objects_are_named_and_the_rest_is_saved) {
  for (const size_t small : {size_t(1) << 20, size_t(100)}) {
    SCOPED_TRACE(small);
    source_.objects.clear();
    source_.order.clear();
    order_.limits.small_object = small;
    order_.limits.stream_buffer = 1000;
    fill(60, 5000, 8);
    const std::string body(20000, 'x');
    source_.add("b/d000/gone", body);
    source_.at("b/d000/gone").gone = true;
    source_.add("b/d000/no status", body);
    source_.at("b/d000/no status").no_status = true;
    source_.add("b/d000/short", body);
    source_.at("b/d000/short").announced = 20001;
    source_.add("b/d000/long", body);
    source_.at("b/d000/long").announced = 19999;
    source_.add("b/d000/breaks for good", body);
    source_.at("b/d000/breaks for good").break_at = 12000;
    source_.at("b/d000/breaks for good").stays_broken = true;
    source_.add("b/d000/fails", body);
    source_.at("b/d000/fails").fail_at = 7000;
    source_.add("b/d000/resumes", body);
    source_.at("b/d000/resumes").break_at = 7001;
    source_.add("b/d000/resumes at once", body);
    source_.at("b/d000/resumes at once").break_at = 0;
    source_.add("b/d000/z last", "good");
    ASSERT_TRUE(run()) << engine_->failure();
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
    const std::set<std::string> missing = {"b/d000/gone", "b/d000/no status",       "b/d000/short",
                                           "b/d000/long", "b/d000/breaks for good", "b/d000/fails"};
    expect_set(missing);
    for (const std::string& path : missing)
      EXPECT_TRUE(events_->named("/" + path)) << path;
    EXPECT_EQ(2u, events_->figure("skipped"));
    EXPECT_EQ(4u, events_->figure("failed"));
    EXPECT_EQ(63u, events_->figure("saved"));
    EXPECT_TRUE(events_->adds_up());
    engine_.reset();
    ASSERT_TRUE(pool_.remove_set(metadata_.set_uri, error_)) << error_;
  }
  EXPECT_EQ(12u, handler_->skipped_files());
}

TEST_F(Backup, size_and_date_of_the_answer_count_not_those_of_the_listing) {
  order_.limits.small_object = 5000;
  fill(30, 4000, 9);
  source_.add("b/d000/grown", std::string(4900, 'g'));
  source_.at("b/d000/grown").listed_size = 10;
  source_.add("b/d000/grown large", std::string(50000, 'l'));
  source_.at("b/d000/grown large").listed_size = 10;
  source_.add("b/d000/shrunk", "s");
  source_.at("b/d000/shrunk").listed_size = 90000;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set();
}

TEST_F(Backup, object_beyond_the_platforms_width_is_refused_by_name) {
  order_.limits.largest_object = 8000;
  source_.add("b/ok", std::string(8000, 'o'));
  source_.add("b/too large", std::string(8001, 'o'));
  source_.add("b/too large and small in the listing", std::string(9000, 'o'));
  source_.at("b/too large and small in the listing").listed_size = 1;
  order_.limits.small_object = 6000;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_set({"b/too large", "b/too large and small in the listing"});
  EXPECT_EQ(2u, events_->figure("skipped"));
  EXPECT_TRUE(events_->named("/b/too large"));
  EXPECT_TRUE(events_->adds_up());
}

TEST_F(Backup, empty_source_gives_an_empty_set) {
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  expect_set();
  EXPECT_EQ(0u, events_->figure("listed"));
}

TEST_F(Backup, nothing_saved_of_what_was_listed_is_a_failure_and_no_set) {
  source_.add("b/gone", "x");
  source_.at("b/gone").gone = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_NO_FILES_BACKUPED, engine_->err_code());
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1")));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_TRUE(events_->named("/b/gone"));
}

TEST_F(Backup, what_the_lister_skips_is_counted_and_named) {
  fill(5, 100, 10);
  source_.on_list_start = [](Event_Handler* events) {
    events->add_skipped_files(1);
    json_spirit::Object event;
    event["type"] = "file";
    event["name"] = "/b/never there";
    event["errno"] = 2;
    event["message"] = "NoSuchKey";
    events->notify_event(EVENT_ITEM_ERROR, event);
  };
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(1u, events_->figure("skipped"));
  EXPECT_EQ(6u, events_->figure("listed"));
  EXPECT_TRUE(events_->named("/b/never there"));
  EXPECT_EQ(1u, handler_->skipped_files());
}

TEST_F(Backup, listing_that_gives_up_ends_the_run) {
  fill(100, 100, 11);
  source_.on_list = [](unsigned n) { return n < 50; };
  EXPECT_FALSE(run());
  EXPECT_EQ(E_LIST_SOURCE, engine_->err_code());
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1/set.json")));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_EQ(0u, events_->figure("saved"));
}

TEST_F(Backup, cancel_at_any_point_ends_cleanly) {
  fill(60, 3000, 12);
  order_.limits.small_object = 2000;
  for (unsigned point = 0; point < 60; point += 7) {
    for (const bool while_listing : {true, false}) {
      SCOPED_TRACE(point);
      events_->cancel = false;
      std::atomic<unsigned> opened{0};
      source_.on_list = [&, point](unsigned n) {
        if (while_listing && n == point)
          events_->cancel = true;
        // The listing does not end before the cancel has come.
        while (n == 59 && !events_->cancel)
          std::this_thread::yield();
        return true;
      };
      source_.on_open = [&, point](const std::string&) {
        if (!while_listing && ++opened == point + 1)
          events_->cancel = true;
      };
      source_.list_result = -1;
      EXPECT_FALSE(run());
      EXPECT_EQ(E_CANCELED, engine_->err_code());
      EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1") + "/set.json"));
      EXPECT_TRUE(events_->adds_up());
      EXPECT_EQ(events_->figure("listed"), events_->figure("saved")) << "what was cut is neither skipped nor failed";
      EXPECT_GE(60u, events_->figure("listed") + events_->figure("not_reached"));
      EXPECT_EQ(0u, json_spirit::find(events_->outcome, "errors")->get_array().size());
      EXPECT_EQ(0u, source_.open_now);
      engine_.reset();
      fs::remove_all(pool_.set_folder("host/res"));
    }
  }
}

TEST_F(Backup, pause_holds_the_readers_and_resume_goes_on) {
  fill(50, 1000, 13);
  events_->pause = true;
  std::atomic<bool> done{false};
  std::thread other([&] {
    // Released once the listing has gone through, which a pause does not hold.
    std::unique_lock<std::mutex> lock(events_->mutex);
    while (!done)
      std::this_thread::yield();
    events_->pause = false;
  });
  source_.on_list = [&](unsigned n) {
    if (n == 49)
      done = true;
    return true;
  };
  EXPECT_TRUE(run());
  other.join();
  expect_set();
}

/// Leaves out what ends in ".tmp", and a folder.
class Left_Out : public MTF::IFilter {
public:
  bool is_included(const char* path, bool is_dir) const override {
    return is_dir ? std::string(path) != "/b/y/" : !std::string(path).ends_with(".tmp");
  }
};

/// What a lister says of one that it could not look at; `number` may be null.
void tell_skipped(Event_Handler* events, const char* path, const json_spirit::Value& number) {
  json_spirit::Object event;
  event["type"] = "file";
  event["name"] = path;
  event["errno"] = number;
  event["message"] = "refused";
  events->add_skipped_files(1);
  events->notify_event(MTF::EVENT_ITEM_ERROR, event);
}

TEST_F(Backup, incremental_stores_what_changed_and_knows_where_the_rest_lies) {
  fill(200, 3000, 30);
  source_.add("c/other", "other bucket");
  source_.add("c/x/one", "1");
  order_.sources = {"/b/", "/c/"};
  ASSERT_TRUE(run());
  commit();
  const Metadata first = metadata_;

  source_.at("b/d001/o00045").data += "longer";
  source_.at("b/d001/o00046").mtime += 1;
  source_.order.erase(std::find(source_.order.begin(), source_.order.end(), "b/d002/o00100"));
  // The sources come in another order, and a folder has gained an object in its middle.
  std::rotate(source_.order.begin(), std::find(source_.order.begin(), source_.order.end(), "c/other"),
              source_.order.end());
  source_.order.insert(std::find(source_.order.begin(), source_.order.end(), "b/d003/o00121"), "b/d003/o00120a");
  source_.objects["b/d003/o00120a"].data = "new";
  order_.sources = {"/c/", "/b/"};
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  const unsigned opened = source_.opened;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(3u, source_.opened - opened) << "unchanged objects cost no request";
  EXPECT_EQ(3u, events_->figure("saved"));
  EXPECT_EQ(199u, events_->figure("unchanged"));
  EXPECT_EQ(1u, events_->figure("deleted"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_EQ("set-1", metadata_.base_uuid);
  EXPECT_EQ(2u, metadata_.seq);
  expect_set_over({first.set_uri});
  commit();

  // A third one reaches through the second into the first.
  order_.uuid = "set-3";
  order_.base_seq = 2;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(0u, events_->figure("saved"));
  EXPECT_EQ(202u, events_->figure("unchanged"));
  auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog);
  ASSERT_EQ(3u, catalog->sets().size());
  EXPECT_EQ("set-2", catalog->sets()[1].uuid);
  EXPECT_EQ("set-1", catalog->sets()[2].uuid);
  expect_set_over({"host/res/set-2", first.set_uri});
}

TEST_F(Backup, deletions_are_rows_and_what_is_left_out_from_now_on_is_none) {
  fill(60, 300, 33);
  source_.add("b/x/left.tmp", "1");
  source_.add("b/y/inside", "22");
  source_.add("c/single", "333");
  source_.add("c/unseen", "4444");
  order_.sources = {"/b/", "/c/single", "/c/unseen"};
  ASSERT_TRUE(run()) << engine_->failure();
  commit();

  Left_Out filter;
  order_.filter = &filter;
  for (const char* path : {"b/x/left.tmp", "b/y/inside", "c/single", "c/unseen", "b/d000/o00007"})
    source_.order.erase(std::find(source_.order.begin(), source_.order.end(), path));
  source_.on_list_start = [](MTF::Event_Handler* events) {
    tell_skipped(events, "/c/unseen", EACCES);
    tell_skipped(events, "/c/single", ENOENT);
  };
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(2u, events_->figure("deleted"));
  EXPECT_TRUE(events_->adds_up());

  const auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  EXPECT_EQ(2u, catalog->counts().deletions);
  std::map<std::string, unsigned long long> deleted;
  ASSERT_TRUE(catalog->deletions(
      [&](const Catalog_Deletion& one) {
        deleted[one.path] = one.size;
        EXPECT_EQ(source_.objects[one.path].mtime, one.mtime) << one.path;
        return true;
      },
      error_));
  EXPECT_EQ((std::map<std::string, unsigned long long>{{"b/d000/o00007", source_.objects["b/d000/o00007"].data.size()},
                                                       {"c/single", 3}}),
            deleted);
  Catalog_Object unseen;
  ASSERT_TRUE(catalog->find("c/unseen", unseen, error_)) << error_;
  EXPECT_EQ(catalog::FLAG_UNSEEN, unseen.flags & catalog::FLAG_UNSEEN);
  EXPECT_EQ(catalog->counts().objects, events_->figure("objects"));
  EXPECT_LT(events_->figure("saved") + events_->figure("unchanged"), events_->figure("objects"));
  EXPECT_FALSE(catalog->find("b/y/inside", unseen, error_));
}

TEST_F(Backup, older_version_is_kept_where_the_new_one_cannot_be_read) {
  fill(10, 3000, 60);
  source_.add("b/large", std::string(9000, 'l'));
  order_.limits.small_object = 5000;
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  const std::string first = metadata_.set_uri;
  const std::map<std::string, Fake_Object> before = source_.objects;
  const std::vector<std::string> hurt = {"b/d000/o00002", "b/d000/o00005", "b/large"};
  for (const std::string& path : hurt) {
    source_.at(path).data += "newer";
    source_.at(path).mtime += 1000;
  }
  source_.at(hurt[0]).fail_at = 0;
  source_.at(hurt[1]).gone = true;
  source_.at(hurt[2]).fail_at = 7000;
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  const auto expect_kept = [&] {
    ASSERT_TRUE(run()) << engine_->failure();
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
    EXPECT_EQ(8u, events_->figure("unchanged"));
    EXPECT_EQ(1u, events_->figure("skipped"));
    EXPECT_EQ(2u, events_->figure("failed"));
    EXPECT_EQ(0u, events_->figure("deleted"));
    EXPECT_TRUE(events_->adds_up());
    const auto catalog = Catalog_Reader::open(folder(), error_);
    ASSERT_TRUE(catalog) << error_;
    EXPECT_EQ(11u, catalog->counts().objects);
    EXPECT_EQ(11u, events_->figure("objects")) << "what is kept is in the set too";
    for (const std::string& path : hurt) {
      EXPECT_TRUE(events_->message("/" + path).ends_with(" The version of 2023-11-14 22:13:20 is kept.")) << path;
      Catalog_Object object;
      ASSERT_TRUE(catalog->find(path, object, error_)) << error_;
      EXPECT_EQ(catalog::FLAG_OLDER, object.flags);
      EXPECT_EQ(before.at(path).mtime, object.mtime);
      std::string holder;
      for (const Catalog_Set& set : catalog->sets())
        if (set.index == object.set)
          holder = set.uuid;
      EXPECT_EQ("set-1", holder);
      const std::string own = metadata_.set_uri;
      metadata_.set_uri = first;
      EXPECT_EQ(before.at(path).data, content(object)) << path;
      metadata_.set_uri = own;
    }
  };
  expect_kept();
  commit();
  // What is kept is kept on, run by run.
  order_.uuid = "set-3";
  order_.base_seq = 2;
  expect_kept();
  commit();
  // It is read again even where the listing says of it what the catalog does.
  source_.objects = before;
  order_.uuid = "set-4";
  order_.base_seq = 3;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ(3u, events_->figure("saved"));
  EXPECT_EQ(8u, events_->figure("unchanged"));
}

TEST_F(Backup, object_above_what_a_medium_can_carry_costs_only_itself) {
  fill(5, 3000, 61);
  source_.add("b/listed", "x");
  source_.at("b/listed").listed_size = 9ull << 40;
  source_.add("b/turns-out", "y");
  source_.at("b/turns-out").listed_size = 10;
  source_.at("b/turns-out").announced = 9ll << 40;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(5u, events_->figure("saved"));
  EXPECT_EQ(2u, events_->figure("skipped"));
  EXPECT_TRUE(events_->adds_up());
  for (const char* path : {"/b/listed", "/b/turns-out"})
    EXPECT_EQ("The object is larger than a medium can carry.", events_->message(path)) << path;
}

TEST_F(Backup, what_lies_on_a_medium_that_is_cut_or_gone_is_stored_anew_and_the_medium_named) {
  fill(60, 3000, 62);
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  const std::string first = metadata_.set_uri, folder_of_first = folder();
  std::map<unsigned, unsigned> on_channel;
  {
    const auto catalog = Catalog_Reader::open(folder(), error_);
    ASSERT_TRUE(catalog) << error_;
    ASSERT_TRUE(catalog->walk(
        "", [&](const Catalog_Object& object) { return ++on_channel[object.channel] != 0; }, error_));
  }
  const std::string cut = folder_of_first + "/channel-0001.mtf", gone = folder_of_first + "/channel-0002.mtf";
  fs::resize_file(cut, fs::file_size(cut) - 1024);
  fs::remove(gone);
  source_.add("b/new", "new");
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_OK, engine_->err_code());
  EXPECT_EQ(on_channel[1] + on_channel[2] + 1, events_->figure("saved"));
  EXPECT_EQ(on_channel[0], events_->figure("unchanged"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_NE(std::string::npos, events_->message(cut).find("bytes instead of")) << events_->message(cut);
  EXPECT_NE(std::string::npos, events_->message(gone).find("it is missing")) << events_->message(gone);
  expect_set_over({first});
}

TEST_F(Backup, what_is_marked_as_damaged_is_stored_anew) {
  fill(40, 3000, 63);
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  const std::string first = metadata_.set_uri;
  source_.add("b/new", "new");
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  const auto flags = [&](const char* set, const char* path) {
    const auto catalog = Catalog_Reader::open(pool_.set_folder(std::string("host/res/") + set), error_);
    Catalog_Object object;
    EXPECT_TRUE(catalog && catalog->find(path, object, error_)) << error_;
    return object;
  };
  // Found while the first set was verified; the second one points to the same data.
  const std::unique_ptr<Damage_Marks> marks = Damage_Marks::make(error_);
  ASSERT_TRUE(marks) << error_;
  for (const char* path : {"b/d000/o00007", "b/d000/o00021"}) {
    const Catalog_Object object = flags("set-1", path);
    Verify_Damage damage;
    damage.path = path;
    damage.set = "set-1";
    damage.channel = object.channel;
    damage.offset = object.offset;
    ASSERT_TRUE(marks->add(damage)) << marks->error();
  }
  unsigned long long rows = 0;
  ASSERT_TRUE(marks->write(pool_, "host/res", rows)) << marks->error();
  EXPECT_EQ(4u, rows);
  for (const char* set : {"set-1", "set-2"}) {
    EXPECT_EQ(catalog::FLAG_DAMAGED, flags(set, "b/d000/o00007").flags);
    EXPECT_EQ(0u, flags(set, "b/d000/o00008").flags);
    EXPECT_FALSE(fs::exists(pool_.set_folder(std::string("host/res/") + set) + "/mark.tmp"));
  }
  ASSERT_TRUE(marks->write(pool_, "host/res", rows)) << marks->error();
  EXPECT_EQ(0u, rows);
  // One of them cannot be read again: damaged data are no older version to keep.
  source_.at("b/d000/o00021").fail_at = 0;
  order_.uuid = "set-3";
  order_.base_seq = 2;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(1u, events_->figure("saved"));
  EXPECT_EQ(1u, events_->figure("failed"));
  EXPECT_EQ(39u, events_->figure("unchanged"));
  Catalog_Object object;
  const auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  EXPECT_FALSE(catalog->find("b/d000/o00021", object, error_));
  ASSERT_TRUE(catalog->find("b/d000/o00007", object, error_)) << error_;
  EXPECT_EQ(0u, object.set);
  EXPECT_EQ(0u, object.flags);
}

TEST_F(Backup, incremental_without_its_base_stores_everything) {
  fill(20, 300, 31);
  order_.base_seq = 4;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(20u, events_->figure("saved"));
  EXPECT_EQ("", metadata_.base_uuid);
  expect_set();
}

TEST_F(Backup, folder_visited_twice_counts_no_deletions) {
  fill(10, 300, 32);
  source_.add("b/e/x", "x");
  ASSERT_TRUE(run());
  commit();
  // Single objects first, then all of their folder again.
  source_.order = {"b/d000/o00005", "b/e/x"};
  for (unsigned i = 0; i < 10; ++i)
    source_.order.push_back("b/d000/o0000" + std::to_string(i));
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(12u, events_->figure("unchanged"));
  EXPECT_EQ(0u, events_->figure("deleted"));
}

/// A job whose ledger says what the S3 layer saw.
class Backup_Of_Job : public Backup {
protected:
  void SetUp() override {
    Backup::SetUp();
    job_ = new Job(Job_Definition_var(new Job_Definition));
    Job::current(job_);
  }
  void TearDown() override {
    Backup::TearDown();
    Job::current(nullptr);
    Job::intrusive_remove_ref(job_);
  }
  S3_Ledger& ledger() { return *job_->ledger(); }

  Job* job_ = nullptr;
};

TEST_F(Backup_Of_Job, what_the_filter_and_the_rules_leave_out_was_excluded) {
  fill(10, 100, 40);
  for (const char* name : {"b/x/1.tmp", "b/x/2.tmp", "b/x/3.tmp", "b/x/4.tmp", "b/x/5.tmp", "b/x/6.tmp"})
    source_.add(name, "left out");
  Left_Out filter;
  order_.filter = &filter;
  ledger().listed_keys = 17;
  ledger().head_objects = 1;
  ledger().folder_object("/b/empty/", 0);
  ledger().folder_object("/b/full/", 5);
  ledger().requests = 44;
  ASSERT_TRUE(run());
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(18u, events_->figure("listed"));
  EXPECT_EQ(10u, events_->figure("saved"));
  EXPECT_EQ(7u, events_->figure("excluded"));
  EXPECT_EQ(1u, events_->figure("skipped"));
  EXPECT_EQ(44u, events_->figure("requests"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_TRUE(events_->named("/b/full/"));
  EXPECT_FALSE(events_->named("/b/empty/"));
  EXPECT_FALSE(events_->named("/"));
}

TEST_F(Backup_Of_Job, key_that_the_lister_loses_is_a_named_problem_and_not_excluded) {
  fill(10, 100, 48);
  source_.add("b/x/1.tmp", "left out");
  Left_Out filter;
  order_.filter = &filter;
  source_.lost = {"b/d000/o00003", "b/d000/o00007"};
  ledger().listed_keys = source_.order.size();
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(11u, events_->figure("listed"));
  EXPECT_EQ(8u, events_->figure("saved"));
  EXPECT_EQ(1u, events_->figure("excluded"));
  EXPECT_EQ(2u, events_->figure("skipped"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_EQ("2 listed objects were not handed out.", events_->message("/"));
  EXPECT_EQ(1u, handler_->skipped_dirs());
  const json_spirit::Value* recorded = json_spirit::find(metadata_.figures, "skipped");
  ASSERT_NE(nullptr, recorded);
  EXPECT_EQ(2u, recorded->get_uint64());
}

TEST_F(Backup_Of_Job, more_objects_than_were_listed_do_not_add_up) {
  fill(10, 100, 49);
  ledger().listed_keys = 7;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(7u, events_->figure("listed"));
  EXPECT_EQ(10u, events_->figure("saved"));
  EXPECT_FALSE(events_->adds_up());
  EXPECT_EQ("3 more objects were handed out than were listed.", events_->message("/"));
}

TEST_F(Backup_Of_Job, objects_asked_for_by_name_count_as_listed_with_and_without_an_answer) {
  source_.add("c/there", "1");
  order_.sources = {"/c/there", "/c/gone", "/c/refused", "/c/unasked"};
  // Of the three that were asked for the service has answered two.
  ledger().head_objects = 2;
  source_.on_list_start = [](Event_Handler* events) {
    tell_skipped(events, "/c/gone", ENOENT);
    tell_skipped(events, "/c/refused", EACCES);
    tell_skipped(events, "/c/unasked", json_spirit::Value());
  };
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(4u, events_->figure("listed"));
  EXPECT_EQ(1u, events_->figure("saved"));
  EXPECT_EQ(3u, events_->figure("skipped"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_FALSE(events_->named("/"));
}

TEST_F(Backup_Of_Job, what_an_aborted_run_listed_was_not_reached) {
  fill(10, 100, 41);
  ledger().listed_keys = 500;
  source_.list_result = -1;
  EXPECT_FALSE(run());
  EXPECT_EQ(500u, events_->figure("listed"));
  EXPECT_EQ(500u, events_->figure("skipped"));
  EXPECT_TRUE(events_->adds_up());
}

TEST_F(Backup_Of_Job, engine_threads_work_for_the_callers_job) {
  fill(10, 100, 42);
  std::atomic<unsigned> others{0};
  source_.on_open = [&](const std::string&) { others += Job::current() != job_; };
  source_.on_list_start = [&](Event_Handler*) { others += Job::current() != job_; };
  ASSERT_TRUE(run());
  EXPECT_EQ(0u, others);
}

TEST_F(Backup_Of_Job, prefix_that_could_not_be_listed_is_carried_over_unseen_and_no_deletion) {
  fill(120, 300, 43);
  ASSERT_TRUE(run());
  commit();
  // d001 fails after its first objects, d002 has lost one.
  const std::vector<std::string> before = source_.order;
  source_.order.clear();
  for (const std::string& path : before)
    if (path != "b/d002/o00090" && (path.compare(0, 7, "b/d001/") != 0 || path < "b/d001/o00045"))
      source_.order.push_back(path);
  ledger().listing_failed("/b/d001/", "AccessDenied: no");
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ(1u, events_->figure("deleted"));
  EXPECT_EQ(84u, events_->figure("unchanged"));
  EXPECT_TRUE(events_->adds_up());
  EXPECT_TRUE(events_->named("/b/d001/"));
  EXPECT_EQ(1u, handler_->skipped_dirs());
  auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog);
  EXPECT_EQ(119u, catalog->counts().objects);
  unsigned unseen = 0;
  ASSERT_TRUE(catalog->walk(
      "",
      [&](const Catalog_Object& object) {
        EXPECT_NE("b/d002/o00090", object.path);
        EXPECT_EQ(object.path.compare(0, 7, "b/d001/") == 0 && object.path >= "b/d001/o00045",
                  (object.flags & catalog::FLAG_UNSEEN) != 0)
            << object.path;
        unseen += object.flags & catalog::FLAG_UNSEEN;
        return true;
      },
      error_));
  EXPECT_EQ(35u, unseen);
  Catalog_Object object;
  EXPECT_TRUE(catalog->find("b/d001/o00079", object, error_));
  EXPECT_TRUE(catalog->find("b/d001/o00041", object, error_));
}

TEST_F(Backup_Of_Job, every_folder_object_with_data_stands_in_the_catalog) {
  fill(3, 100, 64);
  ledger().folder_object("/b/early/", 7);
  source_.on_list_start = [this](Event_Handler*) {
    for (unsigned i = 0; i < 1500; ++i)
      ledger().folder_object("/b/f" + std::to_string(i) + "/", i % 3);
  };
  ledger().listed_keys = 1504;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(500u, events_->figure("excluded"));
  EXPECT_EQ(1001u, events_->figure("skipped"));
  EXPECT_TRUE(events_->adds_up());
  ledger().folder_object("/b/too-late/", 7);
  const auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  EXPECT_EQ(1001u, catalog->counts().problems);
  std::set<std::string> found;
  ASSERT_TRUE(catalog->problems([&](const Catalog_Problem& one) { return found.insert(one.path).second; }, error_));
  EXPECT_EQ(1001u, found.size());
  EXPECT_EQ(1u, found.count("b/early/"));
  EXPECT_EQ(1u, found.count("b/f1499/"));
  EXPECT_EQ(0u, found.count("b/f1497/"));
}

TEST_F(Backup_Of_Job, bucket_list_that_breaks_off_deletes_no_bucket) {
  fill(20, 300, 50);
  source_.add("c/x/one", "1");
  source_.add("d/two.tmp", "2");
  order_.sources = {"/"};
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  // The second page of the list does not come: neither c nor d are listed. In b one is gone, in d what is left out now.
  source_.order.resize(20);
  source_.order.erase(source_.order.begin() + 3);
  ledger().listing_failed("/", "503 SlowDown");
  Left_Out filter;
  order_.filter = &filter;
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(E_END_WITH_SKIPPED_FILES, engine_->err_code());
  EXPECT_EQ("503 SlowDown", events_->message("/"));
  EXPECT_EQ(0u, events_->figure("deleted"));
  const auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  Catalog_Object object;
  ASSERT_TRUE(catalog->find("c/x/one", object, error_)) << error_;
  EXPECT_EQ(catalog::FLAG_UNSEEN, object.flags);
  EXPECT_TRUE(catalog->find("b/d000/o00003", object, error_)) << "it lies below what was not listed";
  EXPECT_FALSE(catalog->find("d/two.tmp", object, error_));
}

TEST_F(Backup_Of_Job, root_as_a_source_records_deletions) {
  fill(20, 300, 51);
  source_.add("c/x/one", "1");
  source_.add("d/y.tmp", "2");
  order_.sources = {"/"};
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  source_.order.resize(20);
  Left_Out filter;
  order_.filter = &filter;
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(1u, events_->figure("deleted"));
}

TEST_F(Backup_Of_Job, keys_that_were_lost_or_not_handed_out_become_no_deletions) {
  fill(30, 300, 52);
  source_.add("c/x/one", "1");
  order_.sources = {"/b/"};
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  const auto expect_all_kept = [&](const std::set<std::string>& unseen) {
    EXPECT_EQ(0u, events_->figure("deleted"));
    EXPECT_TRUE(events_->adds_up());
    const auto catalog = Catalog_Reader::open(folder(), error_);
    ASSERT_TRUE(catalog) << error_;
    EXPECT_EQ(0u, catalog->counts().deletions);
    std::set<std::string> found;
    ASSERT_TRUE(catalog->walk(
        "b/",
        [&](const Catalog_Object& object) {
          if (object.flags & catalog::FLAG_UNSEEN)
            found.insert(object.path);
          return true;
        },
        error_));
    EXPECT_EQ(unseen, found);
  };
  order_.base_seq = 1;
  order_.incremental = true;
  // A key that the S3 layer counted and that came out nowhere.
  order_.uuid = "set-2";
  source_.lost = {"b/d000/o00011"};
  ledger().listed_keys = 31;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_all_kept({"b/d000/o00011"});
  // One that the lister has named.
  order_.uuid = "set-3";
  source_.lost = {"b/d000/o00012"};
  source_.on_list_start = [](Event_Handler* events) { tell_skipped(events, "/b/d000/o00012", json_spirit::Value()); };
  ledger().listed_keys = 31;
  ASSERT_TRUE(run()) << engine_->failure();
  expect_all_kept({"b/d000/o00012"});
  EXPECT_FALSE(events_->named("/"));
  // A prefix that was given up in its middle.
  order_.uuid = "set-4";
  source_.lost.clear();
  source_.on_list_start = nullptr;
  source_.order.erase(source_.order.begin() + 20, source_.order.begin() + 30);
  ledger().listed_keys = 0;
  ledger().page_shown("/b/d000/", true);
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ("The listing broke off.", events_->message("/b/d000/"));
  std::set<std::string> rest;
  for (unsigned i = 20; i < 30; ++i)
    rest.insert("b/d000/o000" + std::to_string(i));
  expect_all_kept(rest);
}

TEST_F(Backup_Of_Job, object_for_which_no_client_could_be_made_is_not_deleted) {
  source_.add("c/one", "1");
  source_.add("c/two", "2");
  order_.sources = {"/c/one", "/c/two"};
  ASSERT_TRUE(run()) << engine_->failure();
  commit();
  source_.order = {"c/one"};
  source_.on_list_start = [](Event_Handler* events) { tell_skipped(events, "/c/two", json_spirit::Value()); };
  ledger().head_objects = 1;
  order_.uuid = "set-2";
  order_.base_seq = 1;
  order_.incremental = true;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ(0u, events_->figure("deleted"));
  EXPECT_EQ(2u, events_->figure("listed"));
  EXPECT_TRUE(events_->adds_up());
  const auto catalog = Catalog_Reader::open(folder(), error_);
  ASSERT_TRUE(catalog) << error_;
  Catalog_Object object;
  ASSERT_TRUE(catalog->find("c/two", object, error_)) << error_;
  EXPECT_EQ(catalog::FLAG_UNSEEN, object.flags);
}

/// Bounds the size of any file that is written, as a full disk would.
class Small_Disk {
public:
  explicit Small_Disk(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = before_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~Small_Disk() { setrlimit(RLIMIT_FSIZE, &before_); }

private:
  rlimit before_;
};

TEST_F(Backup, full_disk_ends_the_run_with_the_files_name_and_no_set) {
  for (const size_t small : {size_t(1) << 20, size_t(100)}) {
    source_.objects.clear();
    source_.order.clear();
    fill(100, 60000, 14);
    order_.limits.small_object = small;
    {
      Small_Disk disk(400000);
      EXPECT_FALSE(run());
    }
    EXPECT_EQ(E_WRITE_MEDIUM, engine_->err_code());
    EXPECT_NE(std::string::npos, engine_->failure().find("channel-0")) << engine_->failure();
    EXPECT_NE(std::string::npos, engine_->failure().find(std::strerror(EFBIG))) << engine_->failure();
    EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1/set.json")));
    EXPECT_TRUE(events_->adds_up());
    // Whole objects that were stored before the disk was full are not read again.
    const unsigned before = source_.opened;
    ASSERT_TRUE(run()) << engine_->failure();
    EXPECT_GT(events_->figure("continued"), 0u);
    EXPECT_EQ(before + 100 - events_->figure("continued"), source_.opened);
    engine_.reset();
    fs::remove_all(pool_.set_folder("host"));
  }
}

TEST_F(Backup, leftovers_of_a_killed_run_are_cleared_and_a_living_ones_stay) {
  fill(10, 100, 15);
  ASSERT_TRUE(pool_.make_set_folder("host/res/killed", error_)) << error_;
  { std::ofstream(pool_.set_folder("host/res/killed") + "/channel-0000.mtf") << "half"; }
  Set_Lock living;
  std::thread([&] { ASSERT_TRUE(pool_.make_set_folder("host/res/living", living, error_)) << error_; }).join();
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/killed")));
  EXPECT_TRUE(fs::exists(pool_.set_folder("host/res/living")));
}

TEST_F(Backup, finished_set_waits_locked_for_its_record) {
  fill(10, 100, 16);
  ASSERT_TRUE(run());
  std::thread([&] { EXPECT_EQ(0u, pool_.remove_unfinished("host/res", error_)); }).join();
  EXPECT_TRUE(fs::exists(folder()));
  engine_.reset();
  EXPECT_EQ(1u, pool_.remove_unfinished("host/res", error_));
}

TEST_F(Backup, prefix_that_is_taken_gets_a_new_folder_beside_it) {
  fill(3, 100, 17);
  ASSERT_TRUE(run());
  Set_Record record;
  record.uuid = "set-1";
  ASSERT_TRUE(write_set_record(folder(), record, error_));
  order_.uuid = "set-2";
  order_.base_seq = 1;
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ("host/res/set-2", metadata_.set_uri);
  EXPECT_EQ(2u, metadata_.seq);
  order_.uuid = "set-3";
  order_.uri_prefix = "host/res/";
  ASSERT_TRUE(run()) << engine_->failure();
  EXPECT_EQ("host/res/set-3", metadata_.set_uri);
}

/// A place in the pool that has sets of the numbers given, all empty.
class Numbering : public Backup {
protected:
  void add(const std::string& uuid, unsigned seq, const std::string& start) {
    order_.uuid = uuid;
    order_.uri_prefix = "host/res/" + uuid;
    ASSERT_TRUE(run()) << engine_->failure();
    Set_Record record;
    record.uuid = uuid;
    record.seq = seq;
    record.uri = metadata_.set_uri;
    record.start_time = start;
    ASSERT_TRUE(write_set_record(folder(), record, error_)) << error_;
  }
  /// The number that a set gets which is compared with number `base`; of a full set when that is 0.
  unsigned number(unsigned base) {
    order_.uuid = "next";
    order_.uri_prefix = "host/res/next";
    order_.incremental = base != 0;
    order_.base_seq = base;
    EXPECT_TRUE(run()) << engine_->failure();
    engine_.reset();
    EXPECT_TRUE(pool_.remove_set(metadata_.set_uri, error_)) << error_;
    return metadata_.seq;
  }
};

TEST_F(Numbering, no_set_gets_a_number_of_one_that_lies_in_the_pool) {
  EXPECT_EQ(1u, number(0));
  add("one", 1, "2026-01-01 00:00:00");
  add("two", 2, "2026-01-02 00:00:00");
  EXPECT_EQ(3u, number(0));
  EXPECT_EQ(3u, number(1));
  EXPECT_EQ(3u, number(2));
  add("last but one", 65534, "2025-01-01 00:00:00");
  EXPECT_EQ(3u, number(0));
  EXPECT_EQ(65535u, number(65534));
  add("last", 65535, "2025-01-02 00:00:00");
  EXPECT_EQ(3u, number(0));
  EXPECT_EQ(3u, number(65534));
}

TEST_F(Numbering, no_set_gets_a_number_that_only_the_agent_knows) {
  order_.numbers.take(1);
  order_.numbers.take(2);
  EXPECT_EQ(3u, number(0));
  add("one", 1, "2026-01-01 00:00:00");
  EXPECT_EQ(3u, number(1));
}

TEST_F(Numbering, without_a_free_number_there_is_no_set) {
  for (unsigned seq = 1; seq <= Set_Numbers::LAST; ++seq)
    order_.numbers.take(seq);
  EXPECT_FALSE(run());
  EXPECT_NE(std::string::npos, engine_->failure().find("have taken all numbers")) << engine_->failure();
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1")));
}

TEST_F(Numbering, of_bases_with_one_number_the_one_that_is_named_is_compared_with) {
  fill(5, 100, 61);
  add("first", 2, "2026-01-01 00:00:00");
  fill(5, 100, 62);
  add("second", 2, "2026-01-02 00:00:00");
  number(2);
  EXPECT_EQ("second", metadata_.base_uuid);
  order_.base_uuid = "first";
  number(2);
  EXPECT_EQ("first", metadata_.base_uuid);
  // One that a merge has replaced meanwhile.
  order_.base_uuid = "neither";
  number(2);
  EXPECT_EQ("second", metadata_.base_uuid);
}

TEST_F(Backup, what_cannot_begin_says_why) {
  fill(3, 100, 18);
  engine_.reset(new Backup_Engine(order_, handler_, metadata_, nullptr));
  EXPECT_FALSE(engine_->run("file://" + root_ + "/nowhere", ""));
  EXPECT_EQ(E_GET_POOL_INFO, engine_->err_code());
  EXPECT_NE(std::string::npos, engine_->failure().find("nowhere"));
  engine_.reset(new Backup_Engine(order_, handler_, metadata_, nullptr));
  EXPECT_FALSE(engine_->run(url_, "another-pool"));
  EXPECT_EQ(E_GET_POOL_INFO, engine_->err_code());
  source_.refuse_callback = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_MAKE_CALLBACK, engine_->err_code());
  source_.refuse_callback = false;
  source_.refuse_lister = true;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_LIST_SOURCE, engine_->err_code());
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1")));
  EXPECT_TRUE(events_->adds_up());
}

TEST_F(Backup, actions_run_around_the_work_and_their_failure_counts) {
  fill(3, 100, 19);
  Actions* actions = new Actions;
  order_.actions = Action_Handler_var(actions);
  ASSERT_TRUE(run());
  EXPECT_EQ(1, actions->pre);
  EXPECT_EQ(1, actions->post);
  EXPECT_TRUE(actions->last_done);
  engine_.reset();
  ASSERT_TRUE(pool_.remove_set("host/res/set-1", error_));
  actions->pre_result = false;
  const unsigned before = source_.opened;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_ACTION, engine_->err_code());
  EXPECT_EQ(before, source_.opened) << "no object may be read before the pre-action has succeeded";
  EXPECT_EQ(2, actions->post);
  EXPECT_FALSE(actions->last_done);
  actions->pre_result = true;
  actions->post_result = false;
  EXPECT_FALSE(run());
  EXPECT_EQ(E_ACTION, engine_->err_code());
  EXPECT_FALSE(fs::exists(pool_.set_folder("host/res/set-1")));
}

} // namespace
