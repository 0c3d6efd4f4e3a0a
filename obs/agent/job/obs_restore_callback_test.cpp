#include "obs/agent/job/obs_restore_callback.h"

#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/remote_object.h"
#include "obs/agent/util/obs_path.h"
#include "testing/module/fake_client.h"
#include "testing/module/log_sink.h"

#include <gtest/gtest.h>

using namespace module_testing;

namespace {

typedef std::vector<std::string> Texts;

TEST(get_remote, strips_one_leading_slash_at_most) {
  EXPECT_STREQ("a/b", get_remote("/a/b"));
  EXPECT_STREQ("/a", get_remote("//a"));
  EXPECT_STREQ("a/", get_remote("a/"));
  EXPECT_STREQ("", get_remote(""));
  const std::string path = "/x";
  EXPECT_EQ(path.c_str() + 1, get_remote(path));
}

std::string remote(const std::string& path, const std::string& bucket, const std::string& prefix,
                   bool add_bucket_prefix) {
  Buckets_Mapper::mapper_t mapping;
  mapping.bucket = bucket;
  mapping.prefix = prefix;
  mapping.add_bucket_prefix = add_bucket_prefix;
  const Remote_Object target(OBS_Path(path, false), mapping);
  return target.bucket + "|" + target.key;
}

TEST(remote_object, mapping_decides_bucket_and_key) {
  EXPECT_EQ("b|restored/x/y.txt", remote("/a/x/y.txt", "b", "restored", false));
  EXPECT_EQ("b|restored/a/x/y.txt", remote("/a/x/y.txt", "b", "restored", true));
  EXPECT_EQ("b|a/x/y.txt", remote("/a/x/y.txt", "b", "", true));
  EXPECT_EQ("b|x/y.txt", remote("/a/x/y.txt", "b", "", false));
  EXPECT_EQ("a|x/y.txt", remote("/a/x/y.txt", "", "ignored", true));
}

TEST(remote_object, keys_keep_every_byte) {
  for (const char* key : {"/lead", "//two", "a//b", "tail/", "../up", "./x", "\xFF\x01 "}) {
    EXPECT_EQ(std::string("b|") + key, remote(std::string("/a/") + key, "b", "", false));
    EXPECT_EQ(std::string("b|p/") + key, remote(std::string("/a/") + key, "b", "p", false));
    EXPECT_EQ(std::string("a|") + key, remote(std::string("/a/") + key, "", "", false));
  }
}

struct restore_callback : testing::Test {
  restore_callback() {
    reset_fake_client();
    mapper.mappers()["a"].bucket = "b";
    mapper.mappers()["a"].prefix = "p";
  }

  Log_Sink log;
  Buckets_Mapper mapper;
  OBS_Restore_Callback callback{mapper};
};

TEST_F(restore_callback, factory_without_url_or_keys_makes_nothing_silently) {
  EXPECT_TRUE(OBS_Restore_Callback_Factory("", S3_Client_Options("a", "s", 1), mapper).make().null());
  EXPECT_TRUE(OBS_Restore_Callback_Factory("http://h", S3_Client_Options("", "s", 1), mapper).make().null());
  EXPECT_TRUE(OBS_Restore_Callback_Factory("http://h", S3_Client_Options("a", "", 1), mapper).make().null());
  EXPECT_TRUE(log.empty());
}

TEST_F(restore_callback, factory_names_a_url_that_makes_no_sense) {
  EXPECT_TRUE(OBS_Restore_Callback_Factory("http//h", S3_Client_Options("a", "s", 1), mapper).make().null());
  EXPECT_EQ(1u, log.count(LM_ERROR, "Invalid obs entry uri: http//h.\n"));
}

TEST_F(restore_callback, factory_makes_a_connected_callback_for_each_channel) {
  OBS_Restore_Callback_Factory factory("http://h:8080", S3_Client_Options("a", "s", 3), mapper);
  const MTF::IRestore_Callback_var one = factory.make();
  const MTF::IRestore_Callback_var two = factory.make();
  ASSERT_FALSE(one.null());
  EXPECT_NE(one.get(), two.get());
  EXPECT_EQ('/', one->directory_separator());
  EXPECT_EQ((Texts{"http h 8080 plain direct a s    3", "http h 8080 plain direct a s    3"}),
            fake_client().connections);
}

TEST_F(restore_callback, factory_connects_with_tls_where_the_url_says_so) {
  EXPECT_FALSE(OBS_Restore_Callback_Factory("https://h", S3_Client_Options("a", "s", 3), mapper).make().null());
  EXPECT_EQ((Texts{"https h 443 ssl direct a s    3"}), fake_client().connections);
}

TEST_F(restore_callback, factory_whose_client_does_not_connect_makes_nothing_and_logs_nothing) {
  fake_client().connects = false;
  EXPECT_TRUE(OBS_Restore_Callback_Factory("http://h", S3_Client_Options("a", "s", 3), mapper).make().null());
  EXPECT_TRUE(log.empty());
}

TEST_F(restore_callback, unlink_deletes_the_mapped_object) {
  fake_client().store.put("b", "p/x/y");
  EXPECT_TRUE(callback.unlink("/a/x/y"));
  EXPECT_EQ((Texts{"b|p/x/y"}), fake_client().deleted);
  EXPECT_FALSE(callback.unlink("/a/x/y"));
}

TEST_F(restore_callback, unlink_without_a_target_bucket_deletes_nothing_though_open_writes_there) {
  EXPECT_TRUE(callback.unlink("/c/k"));
  EXPECT_TRUE(fake_client().deleted.empty());
  EXPECT_EQ(MTF::E_OK, callback.make_file_writer()->open("/c/k", 1));
  EXPECT_EQ((Texts{"c|k|1"}), fake_client().uploaded);
}

TEST_F(restore_callback, path_without_a_bucket_is_refused) {
  EXPECT_FALSE(callback.unlink("/"));
  EXPECT_FALSE(callback.unlink(nullptr));
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  EXPECT_EQ(MTF::E_SKIP, writer->open("//k", 1));
  EXPECT_EQ(MTF::E_SKIP, writer->open(nullptr, 1));
  EXPECT_FALSE(writer->is_open());
  EXPECT_TRUE(fake_client().uploaded.empty());
}

TEST_F(restore_callback, links_cannot_and_folders_need_not_be_made) {
  EXPECT_TRUE(callback.make_dir("/a/x/"));
  EXPECT_FALSE(callback.make_link("/a/l", "x"));
}

TEST_F(restore_callback, object_is_written_in_as_many_pieces_as_the_upload_takes) {
  fake_client().accepts = 3;
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 10));
  EXPECT_TRUE(writer->is_open());
  EXPECT_EQ(MTF::E_OK, writer->write("01234", 5));
  EXPECT_EQ(MTF::E_OK, writer->write("56789", 5));
  EXPECT_EQ(MTF::E_OK, writer->set_stat(MTF::Callback_Stat()));
  EXPECT_EQ(MTF::E_OK, writer->sync());
  EXPECT_EQ(MTF::E_OK, writer->close());
  Fake_Store::Stored stored;
  ASSERT_TRUE(fake_client().store.find("b", "p/k", stored));
  EXPECT_EQ("0123456789", stored.data);
}

TEST_F(restore_callback, object_takes_the_place_of_the_one_before_when_it_is_closed_and_not_sooner) {
  fake_client().store.put_data("b", "p/k", "before");
  const auto stored = [&] {
    Fake_Store::Stored found;
    EXPECT_TRUE(fake_client().store.find("b", "p/k", found));
    return found.data;
  };
  for (const bool closed : {false, true}) {
    const MTF::IFile_Writer_var writer = callback.make_file_writer();
    EXPECT_TRUE(dynamic_cast<MTF::IFile_Replacement&>(*writer).replaces_at_close());
    ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 5));
    EXPECT_EQ(MTF::E_OK, writer->write("after", 5));
    EXPECT_EQ("before", stored());
    if (closed) {
      EXPECT_EQ(MTF::E_OK, writer->close());
    }
  }
  EXPECT_EQ("after", stored());
}

TEST_F(restore_callback, empty_object_needs_no_write) {
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 0));
  EXPECT_EQ(MTF::E_OK, writer->close());
  Fake_Store::Stored stored;
  EXPECT_TRUE(fake_client().store.find("b", "p/k", stored));
}

TEST_F(restore_callback, more_than_announced_is_an_error) {
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 4));
  EXPECT_EQ(MTF::E_SKIP, writer->write("01234", 5));
  EXPECT_EQ(1u, log.count(LM_ERROR, "OBS restore error: write data exceeds file size requested.\n"));
}

TEST_F(restore_callback, failing_write_is_an_error) {
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 4));
  fake_client().writes = false;
  EXPECT_EQ(MTF::E_SKIP, writer->write("0123", 4));
  EXPECT_EQ(1u, log.count(LM_ERROR, "OBS restore error: write object error.\n"));
}

TEST_F(restore_callback, no_data_and_no_length_are_errors) {
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 4));
  EXPECT_EQ(MTF::E_SKIP, writer->write(nullptr, 4));
  EXPECT_EQ(1u, log.count(", data is NULL:\n"));
  EXPECT_EQ(MTF::E_SKIP, writer->write("0", 0));
  EXPECT_EQ(2u, log.count(LM_EMERGENCY, "Unexpected error in obs/agent/job/obs_restore_callback.cpp:"));
}

TEST_F(restore_callback, refused_upload_names_mapped_bucket_key_and_size) {
  fake_client().uploads = false;
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  EXPECT_EQ(MTF::E_SKIP, writer->open("/a/k", 5000000000ull));
  EXPECT_EQ(MTF::E_SKIP, writer->open("/c/k", 7));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to open OBS writer(b, p/k, size: 5000000000).\n"));
  EXPECT_EQ(1u, log.count(LM_ERROR, "Failed to open OBS writer(, k, size: 7).\n"));
}

TEST_F(restore_callback, object_that_the_service_does_not_store_is_skipped) {
  fake_client().stores = false;
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  ASSERT_EQ(MTF::E_OK, writer->open("/a/k", 1));
  ASSERT_EQ(MTF::E_OK, writer->write("0", 1));
  EXPECT_EQ(MTF::E_SKIP, writer->close());
  EXPECT_EQ(MTF::E_SKIP, writer->close());
}

TEST_F(restore_callback, writer_that_is_not_open_writes_nothing) {
  const MTF::IFile_Writer_var writer = callback.make_file_writer();
  EXPECT_FALSE(writer->is_open());
  EXPECT_EQ(MTF::E_SKIP, writer->write("0", 1));
  EXPECT_EQ(MTF::E_SKIP, writer->close());
}

} // namespace
