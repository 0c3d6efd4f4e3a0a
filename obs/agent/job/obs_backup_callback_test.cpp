#include "obs/agent/job/obs_backup_callback.h"

#include "testing/module/fake_client.h"
#include "testing/module/fake_clock.h"
#include "testing/module/fake_event_handler.h"
#include "testing/module/log_sink.h"
#include "testing/module/slash_filter.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <new>
#include <utility>

#include <vector>

using namespace module_testing;

namespace {

typedef std::list<std::string> Sources;

Sources added(const Sources& paths) {
  Sources sources;
  for (const std::string& path : paths)
    add_source(sources, path);
  return sources;
}

TEST(add_source, overlap_leaves_the_outer_path_alone) {
  EXPECT_EQ((Sources{"/b/"}), added({"/b/x/", "/b/"}));
  EXPECT_EQ((Sources{"/b/"}), added({"/b/", "/b/x/"}));
  EXPECT_EQ((Sources{"/b/"}), added({"/b/", "/b/k"}));
  EXPECT_EQ((Sources{"/b/"}), added({"/b/", "/b/"}));
  EXPECT_EQ((Sources{"/b/"}), added({"/b/x/", "/b/y/", "/b/"}));
}

TEST(add_source, neighbours_stay) {
  EXPECT_EQ((Sources{"/b/x/", "/b/xy/", "/c/"}), added({"/b/x/", "/b/xy/", "/c/"}));
}

TEST(add_source, walk_stops_at_the_first_object) {
  EXPECT_EQ((Sources{"/b/k", "/b/x/", "/b/x/y"}), added({"/b/k", "/b/x/", "/b/x/y"}));
}

struct backup_callback : testing::Test {
  backup_callback() { reset_fake_client(); }

  static S3_Client_Options options() {
    S3_Client_Options opts("ak", "sk", 9);
    opts.region = "r";
    opts.vendor = "v";
    opts.sign_method = "v4";
    return opts;
  }
  /// The blocks of the lister that a callback over `buckets` makes for `sources`.
  std::vector<std::string> list(const std::set<std::string>& buckets, const Sources* sources,
                                const MTF::IFilter* filter = nullptr) {
    OBS_Backup_Callback callback(buckets, 0);
    std::vector<std::string> blocks;
    callback.make_source_lister(sources, 1, nullptr, filter, 2)->generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
      blocks.push_back(block_text(*blk));
      return true;
    });
    return blocks;
  }

  Log_Sink log;
  Fake_Clock clock;
  Fake_Store& store() { return fake_client().store; }
};

TEST_F(backup_callback, factory_without_url_or_keys_makes_nothing_silently) {
  EXPECT_TRUE(OBS_Backup_Callback_Factory("", options(), 0).make().null());
  EXPECT_TRUE(OBS_Backup_Callback_Factory("http://h", S3_Client_Options("", "s", 1), 0).make().null());
  EXPECT_TRUE(OBS_Backup_Callback_Factory("http://h", S3_Client_Options("a", "", 1), 0).make().null());
  EXPECT_TRUE(log.empty());
  EXPECT_TRUE(fake_client().connections.empty());
}

TEST_F(backup_callback, factory_names_a_url_that_makes_no_sense) {
  EXPECT_TRUE(OBS_Backup_Callback_Factory("no url", options(), 0).make().null());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs entry uri: no url.\n"));
}

TEST_F(backup_callback, factory_connects_as_the_url_and_options_say) {
  EXPECT_FALSE(OBS_Backup_Callback_Factory("https://s3.test:9000", options(), 0).make().null());
  EXPECT_EQ((std::vector<std::string>{"https s3.test 9000 ssl direct ak sk r v v4 9"}), fake_client().connections);
}

TEST_F(backup_callback, address_in_brackets_is_connected_to_without_them) {
  EXPECT_FALSE(OBS_Backup_Callback_Factory("http://[::1]:81", options(), 0).make().null());
  EXPECT_EQ((std::vector<std::string>{"http ::1 81 plain direct ak sk r v v4 9"}), fake_client().connections);
}

TEST_F(backup_callback, factory_whose_client_does_not_connect_makes_nothing_and_logs_nothing) {
  fake_client().connects = false;
  EXPECT_TRUE(OBS_Backup_Callback_Factory("http://h", options(), 0).make().null());
  EXPECT_TRUE(log.empty());
}

TEST_F(backup_callback, factory_takes_bucket_names_that_are_texts) {
  OBS_Backup_Callback_Factory factory("http://h", options(), 0);
  factory.buckets({"a", "b", 5});
  EXPECT_EQ((std::set<std::string>{"a", "b"}), factory.buckets());
}

TEST_F(backup_callback, cache_limit_is_brought_into_its_range) {
  const std::pair<unsigned long long, unsigned long long> table[] = {
      {0, 131072}, {131072, 131072}, {500000, 500000}, {2097152, 2097152}, {5000000, 2097152}};
  for (const auto& row : table) {
    OBS_Backup_Callback callback({"b"}, row.first);
    EXPECT_FALSE(callback.make_source_lister(nullptr, 1, nullptr, nullptr, 1).null());
    EXPECT_EQ(row.second, callback.cache_limit());
  }
}

TEST_F(backup_callback, stat_tells_folders_from_objects_without_a_request) {
  OBS_Backup_Callback callback({}, 0);
  MTF::Callback_Stat stat;
  stat.size = 99;
  stat.owner = "x";
  ASSERT_TRUE(callback.lstat("/b/x/", stat));
  EXPECT_EQ(16877u, stat.mode);
  EXPECT_EQ(1u, stat.nlink);
  EXPECT_EQ(0u, stat.size);
  EXPECT_EQ("", stat.owner);
  ASSERT_TRUE(callback.lstat("/b", stat));
  EXPECT_EQ(16877u, stat.mode);
  ASSERT_TRUE(callback.lstat("/b/x", stat));
  EXPECT_EQ(0u, stat.mode);
  EXPECT_EQ(1u, stat.nlink);
  EXPECT_EQ(0, fake_client().services);
}

TEST_F(backup_callback, stat_without_a_path_is_an_emergency) {
  OBS_Backup_Callback callback({}, 0);
  MTF::Callback_Stat stat;
  EXPECT_FALSE(callback.lstat(nullptr, stat));
  EXPECT_FALSE(callback.lstat("", stat));
  EXPECT_EQ(2u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_backup_callback.cpp:"));
  EXPECT_EQ(2u, log.count(", path is NULL or \"\":\n"));
}

TEST_F(backup_callback, there_are_no_links_and_no_folders_to_read) {
  OBS_Backup_Callback callback({}, 0);
  Sources dirs;
  EXPECT_EQ('/', callback.directory_separator());
  EXPECT_EQ(-1, callback.readlink("/b/k", nullptr, 0));
  EXPECT_EQ(0, callback.read_dirs("/b/", dirs));
  EXPECT_TRUE(dirs.empty());
}

TEST_F(backup_callback, given_sources_are_listed_as_they_stand_but_for_overlaps) {
  store().put("b", "x/1");
  store().put("a", "2");
  const Sources sources{"", "/", "/b/x/", "/b/", "/a/"};
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/", "DIR b/x/", "FILE 1", "DIR a/", "FILE 2", "FEND"}),
            list({}, &sources));
}

TEST_F(backup_callback, lister_gets_every_argument) {
  store().put("b", "k");
  store().put("b", "left-out");
  struct No_Left_Out : MTF::IFilter {
    bool is_included(const char* path, bool) const override { return std::string(path) != "/b/left-out"; }
  } filter;
  Fake_Event_Handler events;
  const Sources sources{"/b/", "/b/gone"};
  OBS_Backup_Callback callback({}, 5000000);
  for (const unsigned short seq : {0, 0x1234}) {
    log.clear();
    std::vector<std::string> blocks;
    const MTF::ISrc_Lister_var lister = callback.make_source_lister(&sources, seq, &events, &filter, 3);
    EXPECT_EQ(0, lister->generate([&](std::unique_ptr<MTF::Cat_Blk> blk) {
      blocks.push_back(block_text(*blk));
      if (blocks.back() != "FEND") {
        EXPECT_EQ(seq, blk->hdr().seq()) << blocks.back();
      }
      return true;
    }));
    EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/", "FILE k", "FEND"}), blocks);
    EXPECT_EQ(1u, log.count(LM_INFO, "Async_OBS_Object_Lister with 3 threads, cache limits: 2097152\n"));
  }
}

TEST_F(backup_callback, skipped_objects_of_its_lister_reach_the_event_handler) {
  store().on_head = [](const std::string&, const std::string&) { return final_failure(); };
  Fake_Event_Handler events;
  const Sources sources{"/b/k"};
  OBS_Backup_Callback callback({}, 0);
  EXPECT_EQ(0, callback.make_source_lister(&sources, 1, &events, nullptr, 1)->generate([](auto) { return true; }));
  EXPECT_EQ(1u, events.skipped_files());
}

TEST_F(backup_callback, without_sources_the_accounts_buckets_are_listed_in_catalog_order) {
  for (const char* bucket : {"a-b", "a", "c"})
    store().put(bucket, "k");
  const Sources nothing{"", "/"};
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR a/", "FILE k", "DIR a-b/", "FILE k", "FEND"}),
            list({"a", "a-b"}, &nothing));
  // The order of bytes has "a-b" before "a/".
  fake_client().extra_buckets = {json_spirit::Object{{"dir", "c"}}, json_spirit::Object{{"dir", "a-b"}}};
  const std::vector<std::string> blocks = list({}, nullptr);
  std::vector<std::string> folders;
  for (const std::string& block : blocks)
    if (block.compare(0, 4, "DIR ") == 0)
      folders.push_back(block);
  EXPECT_EQ((std::vector<std::string>{"DIR a/", "DIR a-b/", "DIR c/"}), folders);
}

struct Not_A : MTF::IFilter {
  bool is_included(const char* path, bool) const override { return std::string(path) != "/a/"; }
};

TEST_F(backup_callback, without_buckets_either_the_service_is_asked_and_the_filter) {
  for (const char* bucket : {"a", "b", "c"})
    store().put(bucket, "k");
  fake_client().extra_buckets = {"no object", json_spirit::Object{{"dir", 5}}, json_spirit::Object{{"file", "f"}}};
  const Not_A filter;
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR b/", "FILE k", "DIR c/", "FILE k", "FEND"}),
            list({}, nullptr, &filter));
}

TEST_F(backup_callback, filter_is_asked_about_buckets_as_folders) {
  store().put("a", "k");
  const Slash_Filter by_slash;
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR a/", "FILE k", "FEND"}), list({"a"}, nullptr, &by_slash));
  EXPECT_EQ((std::vector<std::string>{"VOL", "DIR a/", "FILE k", "FEND"}), list({}, nullptr, &by_slash));
}

TEST_F(backup_callback, buckets_that_cannot_be_asked_for_leave_nothing_to_list) {
  store().put("a", "k");
  fake_client().lists_buckets = false;
  EXPECT_TRUE(list({}, nullptr).empty());
  EXPECT_EQ(1u, log.count(LM_ERROR, "No backup source entries to list.\n"));
}

struct file_reader : backup_callback {
  file_reader() : service(std::make_shared<Fake_Store_Service>(store())), reader(service) {
    store().put_data("b", "p/k", "0123456789", 1700000001);
  }

  /// Reads to the end in pieces of `piece`; "failed" when a call fails.
  std::string read_all(size_t piece) {
    std::string data;
    std::vector<char> memory(piece);
    for (;;) {
      MTF::Buffer buffer(memory.data(), memory.size());
      if (reader.read(buffer) != 0)
        return "failed";
      if (buffer.used() == 0 && reader.is_open())
        return data;
      data.append(memory.data(), buffer.used());
    }
  }

  std::shared_ptr<Fake_Store_Service> service;
  OBS_File_Reader reader;
};

TEST_F(file_reader, object_is_read_whole_in_any_pieces) {
  for (size_t piece = 1; piece <= 11; ++piece) {
    ASSERT_EQ(0, reader.open("/b/p/k"));
    EXPECT_TRUE(reader.is_open());
    EXPECT_EQ("0123456789", read_all(piece));
    EXPECT_EQ(0, reader.close());
    EXPECT_FALSE(reader.is_open());
  }
}

TEST_F(file_reader, body_cut_at_any_byte_is_taken_up_where_it_broke) {
  for (size_t cut = 0; cut < 10; ++cut) {
    for (size_t piece = 1; piece <= 4; ++piece) {
      SCOPED_TRACE("cut " + std::to_string(cut) + " piece " + std::to_string(piece));
      service->gets.clear();
      bool was_cut = false;
      store().cut = [&](ACE_UINT64) {
        const size_t at = was_cut ? std::string::npos : cut;
        was_cut = true;
        return at;
      };
      ASSERT_EQ(0, reader.open("/b/p/k"));
      EXPECT_EQ("0123456789", read_all(piece));
      EXPECT_EQ((std::vector<ACE_UINT64>{0, cut}), service->gets);
      MTF::File_Blk blk;
      MTF::Callback_Stat stat;
      unsigned long long size = 0;
      EXPECT_TRUE(reader.handle_file_blk(blk, size, stat));
      EXPECT_EQ(10u, size);
    }
  }
}

TEST_F(file_reader, only_the_request_from_the_first_byte_asks_for_the_description) {
  store().cut = [](ACE_UINT64 offset) { return offset == 0 ? 4u : std::string::npos; };
  ASSERT_EQ(0, reader.open("/b/p/k"));
  read_all(100);
  EXPECT_EQ((std::vector<bool>{true, false}), service->get_objects);
}

TEST_F(file_reader, resumption_that_fails_for_good_fails_the_read) {
  store().cut = [](ACE_UINT64) { return 4u; };
  ASSERT_EQ(0, reader.open("/b/p/k"));
  store().on_get = [](const std::string&, const std::string&, ACE_UINT64) { return final_failure(); };
  EXPECT_EQ("failed", read_all(100));
}

/// A connection that runs out of memory once, with some of its bytes taken already.
struct Forgetful_Connection : HTTP_Connection {
  Forgetful_Connection(HTTP_Connection_var inner, bool& due) : inner(inner), due(due) {}
  State state() const override { return inner->state(); }
  size_t recv(void* buffer, size_t size, const ACE_Time_Value* timeout) override {
    const size_t count = inner->recv(buffer, size, timeout);
    if (std::exchange(due, false))
      throw std::bad_alloc();
    return count;
  }
  void close() override { inner->close(); }
  HTTP_Connection_var inner;
  bool& due;
};

TEST_F(file_reader, read_without_memory_fails_and_the_next_goes_on_where_the_last_ended) {
  struct Service : Fake_Store_Service {
    using Fake_Store_Service::Fake_Store_Service;
    HTTP_Connection_var get_object(const char* b, const char* k, ACE_UINT64 offset, S3_Object* object) override {
      return HTTP_Connection_var(new Forgetful_Connection(Fake_Store_Service::get_object(b, k, offset, object), due));
    }
    bool due = false;
  };
  const auto forgetful = std::make_shared<Service>(store());
  OBS_File_Reader short_reader(forgetful);
  ASSERT_EQ(0, short_reader.open("/b/p/k"));
  char memory[4];
  std::string data;
  for (int i = 0; i < 2; ++i) {
    MTF::Buffer buffer(memory, 3);
    forgetful->due = i == 1;
    errno = 0;
    EXPECT_EQ(i, short_reader.read(buffer));
    EXPECT_EQ(i == 1 ? ENOMEM : 0, errno);
    data.append(memory, i == 0 ? buffer.used() : 0);
  }
  EXPECT_FALSE(short_reader.is_open()) << "its connection has moved on";
  for (int i = 0; i < 4; ++i) {
    MTF::Buffer buffer(memory, 3);
    EXPECT_EQ(0, short_reader.read(buffer));
    data.append(memory, buffer.used());
  }
  EXPECT_EQ("0123456789", data);
  EXPECT_EQ((std::vector<ACE_UINT64>{0, 3}), forgetful->gets);
}

TEST_F(file_reader, missing_object_is_skipped_with_a_debug_line_and_not_repeated) {
  EXPECT_EQ(1, reader.open("/b/gone"));
  EXPECT_EQ(1u, log.count(LM_DEBUG, "Failed to open '/b/gone' and skip it, error: NoSuchKey: no such key.\n"));
  EXPECT_EQ(1u, service->gets.size());
  EXPECT_TRUE(clock.sleeps().empty());
}

TEST_F(file_reader, retriable_failure_is_tried_three_times) {
  store().on_get = [](const std::string&, const std::string&, ACE_UINT64) { return retriable_failure(); };
  EXPECT_EQ(1, reader.open("/b/p/k"));
  EXPECT_EQ(3u, service->gets.size());
  EXPECT_EQ((std::vector<unsigned>{1, 2, 4}), clock.sleeps());
  EXPECT_EQ(1u, log.count(LM_DEBUG, "Failed to open '/b/p/k' and skip it, error: SlowDown: slow down.\n"));
}

TEST_F(file_reader, retriable_failure_that_passes_opens_the_object) {
  int left = 2;
  store().on_get = [&](const std::string&, const std::string&, ACE_UINT64) {
    return left-- > 0 ? retriable_failure() : S3_Error();
  };
  EXPECT_EQ(0, reader.open("/b/p/k"));
  EXPECT_EQ((std::vector<unsigned>{1, 2}), clock.sleeps());
}

TEST_F(file_reader, path_that_is_missing_or_names_no_bucket_fails) {
  EXPECT_EQ(-1, reader.open(nullptr));
  EXPECT_EQ(-1, reader.open(""));
  EXPECT_EQ(2u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_backup_callback.cpp:"));
  EXPECT_EQ(1, reader.open("/"));
  EXPECT_TRUE(service->gets.empty());
}

TEST_F(file_reader, description_of_the_open_object_fills_block_and_stat) {
  ASSERT_EQ(0, reader.open("/b/p/k"));
  MTF::File_Blk blk;
  MTF::Callback_Stat stat;
  stat.uid = 5;
  stat.owner = "x";
  unsigned long long size = 0;
  ASSERT_TRUE(reader.handle_file_blk(blk, size, stat));
  EXPECT_EQ(10u, size);
  EXPECT_EQ(10u, stat.size);
  EXPECT_EQ(1u, stat.nlink);
  EXPECT_EQ(33188u, stat.mode);
  EXPECT_EQ(8192u, stat.blksize);
  EXPECT_EQ(1u, stat.blocks);
  EXPECT_EQ(0u, stat.uid);
  EXPECT_EQ("", stat.owner);
  for (long long time :
       {stat.mtime, stat.atime, stat.ctime, blk.access_date(), blk.create_date(), blk.modification_date()})
    EXPECT_EQ(1700000001, time);
  EXPECT_EQ(10u, blk.hdr().size());
}

TEST_F(file_reader, blocks_are_one_more_than_whole_ones) {
  std::vector<std::pair<ACE_UINT64, ACE_UINT64>> table = {{0, 1}, {511, 1}, {512, 2}, {1024, 3}};
  // A 32-bit reader refuses what its position cannot reach.
  if (sizeof(size_t) > 4)
    table.push_back({5ull << 40, (5ull << 31) + 1});
  for (const auto& row : table) {
    store().put("b", "sized", row.first);
    ASSERT_EQ(0, reader.open("/b/sized"));
    MTF::File_Blk blk;
    MTF::Callback_Stat stat;
    unsigned long long size = 0;
    ASSERT_TRUE(reader.handle_file_blk(blk, size, stat));
    EXPECT_EQ(row.second, stat.blocks);
  }
}

TEST_F(file_reader, closed_reader_has_no_description) {
  MTF::File_Blk blk;
  MTF::Callback_Stat stat;
  unsigned long long size = 0;
  EXPECT_FALSE(reader.handle_file_blk(blk, size, stat));
  ASSERT_EQ(0, reader.open("/b/p/k"));
  reader.close();
  EXPECT_FALSE(reader.handle_file_blk(blk, size, stat));
}

TEST_F(file_reader, object_that_an_answer_says_is_not_there_has_no_description) {
  struct Absent : Fake_Store_Service {
    using Fake_Store_Service::Fake_Store_Service;
    HTTP_Connection_var get_object(const char* bucket, const char* key, ACE_UINT64 offset, S3_Object* object) override {
      const HTTP_Connection_var connection = Fake_Store_Service::get_object(bucket, key, offset, object);
      object->exists = false;
      return connection;
    }
  };
  OBS_File_Reader absent(std::make_shared<Absent>(store()));
  ASSERT_EQ(0, absent.open("/b/p/k"));
  ASSERT_TRUE(absent.is_open());
  MTF::File_Blk blk;
  MTF::Callback_Stat stat;
  stat.size = 99;
  unsigned long long size = 98;
  EXPECT_FALSE(absent.handle_file_blk(blk, size, stat));
  EXPECT_EQ(98u, size);
  EXPECT_EQ(99u, stat.size);
}

/// Answers every request with a connection in one state.
struct One_State : Fake_Store_Service {
  One_State(Fake_Store& store, HTTP_Connection::State state) : Fake_Store_Service(store), state(state) {}
  HTTP_Connection_var get_object(const char*, const char*, ACE_UINT64, S3_Object*) override {
    return HTTP_Connection_var(new Fake_Connection(state, "", 0));
  }
  HTTP_Connection::State state;
};

TEST_F(file_reader, body_can_be_read_in_three_states_of_a_connection_only) {
  for (int state = HTTP_Connection::IDLE; state <= HTTP_Connection::FAILED; ++state) {
    const bool readable = state == 9 || state == 11 || state == 12;
    OBS_File_Reader one(std::make_shared<One_State>(store(), static_cast<HTTP_Connection::State>(state)));
    EXPECT_EQ(readable ? 0 : 1, one.open("/b/p/k")) << state;
    EXPECT_EQ(readable, one.is_open()) << state;
  }
}

TEST_F(file_reader, closed_reader_reads_nothing_and_asks_nothing) {
  ASSERT_EQ(0, reader.open("/b/p/k"));
  ASSERT_EQ(0, reader.close());
  char memory[4] = "abc";
  MTF::Buffer buffer(memory, sizeof memory);
  EXPECT_EQ(1, reader.read(buffer));
  EXPECT_EQ(0u, buffer.used());
  EXPECT_EQ(std::string("abc"), memory);
  EXPECT_EQ(1u, service->gets.size());
}

TEST_F(file_reader, readers_of_a_callback_have_services_of_their_own) {
  OBS_Backup_Callback callback({}, 0);
  const MTF::IFile_Reader_var a = callback.make_file_reader();
  const MTF::IFile_Reader_var b = callback.make_file_reader();
  EXPECT_EQ(2, fake_client().services);
  EXPECT_EQ(0, a->open("/b/p/k"));
  EXPECT_TRUE(a->is_open());
  EXPECT_FALSE(b->is_open());
}

} // namespace
