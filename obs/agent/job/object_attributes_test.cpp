#include "obs/agent/job/backup_job_options_parser.h"
#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/definition_parser_testing.h"
#include "obs/agent/job/obs_backup_callback.h"
#include "obs/agent/job/obs_restore_callback.h"
#include "obs/agent/job/restore_job_options_parser.h"
#include "testing/module/attributed_service.h"
#include "testing/module/fake_client.h"

#include <gtest/gtest.h>

using namespace definition_testing;
using module_testing::Attributed_Service;
using module_testing::fake_client;

namespace {

class attributes_of_objects : public testing::Test {
protected:
  attributes_of_objects() {
    module_testing::reset_fake_client();
    service_ = std::make_shared<Attributed_Service>(fake_client().store);
    fake_client().store.put_data("b", "k", "content", 5);
    fake_client().makes = [this] { return service_; };
    service_->told.headers = {{"content-type", "a/b"}};
    service_->told.etag = "e";
  }
  ~attributes_of_objects() override { module_testing::reset_fake_client(); }

  void read(const Object_Wishes& wishes) {
    OBS_File_Reader reader(service_, wishes);
    ASSERT_EQ(0, reader.open("/b/k"));
    problems_.clear();
    told_ = MTF::File_Attributes();
    reader.attributes(told_, problems_);
    EXPECT_EQ(0, reader.close());
  }

  MTF::Error_Code write(const Attribute_Policy& policy, const MTF::File_Attributes& attributes) {
    OBS_Restore_Callback callback(mapper_, policy);
    writer_ = callback.make_file_writer();
    auto& sink = dynamic_cast<MTF::IFile_Attributes_Sink&>(*writer_);
    sink.attributes(attributes);
    MTF::Error_Code result = writer_->open("/b/k", 3);
    if (result == MTF::E_OK)
      result = writer_->write("abc", 3);
    if (result == MTF::E_OK)
      result = writer_->close();
    refused_ = sink.refused();
    return result;
  }

  std::shared_ptr<Attributed_Service> service_;
  Buckets_Mapper mapper_;
  MTF::File_Attributes told_;
  std::vector<std::string> problems_, refused_;
  MTF::IFile_Writer_var writer_;
};

/// A writer for one object after the other.
struct Writer_Of {
  explicit Writer_Of(const Buckets_Mapper& mapper)
      : callback(mapper), writer(callback.make_file_writer()),
        sink(dynamic_cast<MTF::IFile_Attributes_Sink&>(*writer)) {}
  MTF::Error_Code open(const char* path, const char* common) {
    if (common != nullptr)
      sink.attributes({common, ""});
    return writer->open(path, 3);
  }

  OBS_Restore_Callback callback;
  MTF::IFile_Writer_var writer;
  MTF::IFile_Attributes_Sink& sink;
};

TEST_F(attributes_of_objects, what_the_answer_told_costs_no_request) {
  read({});
  EXPECT_EQ(R"({"headers":{"content-type":"a/b"}})", told_.common);
  EXPECT_EQ(R"({"etag":"e"})", told_.own);
  EXPECT_TRUE(problems_.empty());
  EXPECT_TRUE(service_->asked.empty());
}

TEST_F(attributes_of_objects, tags_and_access_list_are_asked_for_when_wished) {
  read({true, true});
  EXPECT_EQ((std::vector<std::string>{"tags b|k", "acl b|k"}), service_->asked);
  EXPECT_NE(std::string::npos, told_.common.find(R"("tags":{"t":"1"})")) << told_.common;
  EXPECT_NE(std::string::npos, told_.common.find(R"("owner":"me")")) << told_.common;
}

TEST_F(attributes_of_objects, object_that_counts_no_tags_is_not_asked_for_them) {
  service_->told.tag_count = 0;
  read({true, false});
  EXPECT_TRUE(service_->asked.empty());
  service_->told.tag_count = 2;
  read({true, false});
  EXPECT_EQ(1u, service_->asked.size());
}

TEST_F(attributes_of_objects, what_is_wished_for_and_not_known_is_lacking) {
  const MTF::File_Attributes neither{R"({"headers":{"content-type":"a/b"}})", ""}, no_tags{R"({"tags":{}})", ""},
      list{R"({"owner":"o"})", ""}, broken{"[", ""};
  OBS_File_Reader nothing(service_), tags(service_, {true, false}), acl(service_, {false, true}),
      fresh(service_, {true, false, true});
  for (const MTF::File_Attributes& one : {neither, no_tags, list, broken})
    EXPECT_FALSE(nothing.lacks(one)) << one.common;
  EXPECT_TRUE(tags.lacks(neither));
  EXPECT_FALSE(tags.lacks(no_tags));
  EXPECT_TRUE(tags.lacks(list));
  EXPECT_TRUE(tags.lacks(broken));
  EXPECT_TRUE(acl.lacks(no_tags));
  EXPECT_FALSE(acl.lacks(list));
  EXPECT_TRUE(fresh.lacks(no_tags));
  EXPECT_TRUE(service_->asked.empty());
}

TEST_F(attributes_of_objects, what_is_lacking_is_asked_for_and_the_rest_stays) {
  OBS_File_Reader reader(service_, {true, true});
  MTF::File_Attributes known{R"({"headers":{"content-type":"x/y"}})", R"({"etag":"old"})"};
  reader.update("/b/k", known, problems_);
  EXPECT_EQ((std::vector<std::string>{"tags b|k", "acl b|k"}), service_->asked);
  EXPECT_NE(std::string::npos, known.common.find(R"("content-type":"x/y")")) << known.common;
  EXPECT_NE(std::string::npos, known.common.find(R"("tags":{"t":"1"})")) << known.common;
  EXPECT_NE(std::string::npos, known.common.find(R"("owner":"me")")) << known.common;
  EXPECT_EQ(R"({"etag":"old"})", known.own);
  EXPECT_TRUE(problems_.empty());
  reader.update("/b/k", known, problems_);
  EXPECT_EQ(2u, service_->asked.size());
}

TEST_F(attributes_of_objects, what_cannot_be_asked_for_stays_as_it_was_and_is_told) {
  service_->fails = true;
  OBS_File_Reader reader(service_, {true, true, true});
  const MTF::File_Attributes before{R"({"tags":{"t":"0"}})", ""};
  MTF::File_Attributes known = before, broken{"[", ""};
  reader.update("/b/k", known, problems_);
  EXPECT_EQ(before.common, known.common);
  EXPECT_EQ((std::vector<std::string>{"its tags (AccessDenied: no)", "its access list (AccessDenied: no)"}), problems_);
  problems_.clear();
  reader.update("/b/k", broken, problems_);
  EXPECT_EQ("[", broken.common);
  ASSERT_EQ(1u, problems_.size());
  EXPECT_NE(std::string::npos, problems_[0].find("damaged"));
}

TEST_F(attributes_of_objects, layout_of_parts_is_asked_for_multipart_etags_alone) {
  service_->told.etag = "0123-7";
  read({});
  EXPECT_EQ(std::vector<std::string>{"parts b|k"}, service_->asked);
  EXPECT_EQ(R"({"etag":"0123-7","parts":[[7,5]]})", told_.own);
}

TEST_F(attributes_of_objects, what_cannot_be_had_is_told_and_the_rest_is_kept) {
  service_->told.etag = "0123-7";
  service_->told.missing = 2;
  service_->fails = true;
  read({true, true});
  EXPECT_EQ((std::vector<std::string>{"2 pieces of user metadata (the service cannot tell them)",
                                      "its tags (AccessDenied: no)", "its access list (AccessDenied: no)",
                                      "the layout of its parts (AccessDenied: no)"}),
            problems_);
  EXPECT_EQ(R"({"headers":{"content-type":"a/b"}})", told_.common);
}

TEST_F(attributes_of_objects, service_that_cannot_tell_is_read_as_before) {
  auto plain = std::make_shared<module_testing::Fake_Store_Service>(fake_client().store);
  OBS_File_Reader reader(plain, {true, true});
  ASSERT_EQ(0, reader.open("/b/k"));
  reader.attributes(told_, problems_);
  EXPECT_TRUE(told_.empty());
  EXPECT_TRUE(problems_.empty());
}

TEST_F(attributes_of_objects, writer_gives_what_it_was_told_and_says_what_was_refused) {
  service_->refuses = {"the tags (1) (no)"};
  EXPECT_EQ(MTF::E_OK, write({}, {R"({"headers":{"content-type":"a/b"},"tags":{"t":"1"}})", R"({"etag":"e-2"})"}));
  EXPECT_EQ(std::vector<std::string>{"upload b|k|3"}, service_->asked);
  EXPECT_EQ((Object_Attributes::Named{{"content-type", "a/b"}}), service_->given.headers);
  EXPECT_EQ((Object_Attributes::Named{{"t", "1"}}), service_->given.tags);
  EXPECT_EQ("e-2", service_->given.etag);
  EXPECT_EQ(service_->refuses, refused_);
}

TEST_F(attributes_of_objects, policy_leaves_out_tags_and_access_list_and_sets_the_class) {
  const MTF::File_Attributes attributes{
      R"({"storage_class":"COLD","tags":{"t":"1"},"owner":"o","grants":[{"type":"Group","grantee":"g","permission":"READ"}]})",
      ""};
  EXPECT_EQ(MTF::E_OK, write({true, true, "WARM"}, attributes));
  EXPECT_TRUE(service_->given.tags.empty());
  EXPECT_TRUE(service_->given.grants.empty());
  EXPECT_EQ("WARM", service_->given.storage_class);
  EXPECT_TRUE(refused_.empty()) << "what was not wanted was not refused";
  EXPECT_EQ(MTF::E_OK, write({false, false, "STANDARD"}, attributes));
  EXPECT_EQ("", service_->given.storage_class);
  EXPECT_EQ(1u, service_->given.tags.size());
  EXPECT_EQ(1u, service_->given.grants.size());
}

TEST_F(attributes_of_objects, attributes_that_make_no_sense_are_named_and_the_object_is_stored) {
  EXPECT_EQ(MTF::E_OK, write({}, {"{", ""}));
  ASSERT_EQ(1u, refused_.size());
  EXPECT_EQ(0u, refused_[0].find("its attributes (they make no sense")) << refused_[0];
  EXPECT_TRUE(service_->given.headers.empty());
}

TEST_F(attributes_of_objects, object_without_any_goes_the_way_it_always_went) {
  EXPECT_EQ(MTF::E_OK, write({}, {}));
  EXPECT_EQ(std::vector<std::string>{"b|k|3"}, fake_client().uploaded);
  EXPECT_TRUE(service_->asked.empty());
}

TEST_F(attributes_of_objects, client_without_attributes_gets_the_content_alone) {
  fake_client().makes = nullptr;
  EXPECT_EQ(MTF::E_OK, write({}, {R"({"tags":{"t":"1"}})", ""}));
  EXPECT_EQ(std::vector<std::string>{"b|k|3"}, fake_client().uploaded);
}

TEST_F(attributes_of_objects, failed_upload_or_close_costs_the_file_as_ever) {
  service_->fails = true;
  EXPECT_EQ(MTF::E_SKIP, write({}, {"{}", ""}));
  service_->fails = false;
  service_->closes = false;
  service_->refuses = {"x"};
  EXPECT_EQ(MTF::E_SKIP, write({}, {"{}", ""}));
  EXPECT_TRUE(refused_.empty());
}

TEST_F(attributes_of_objects, object_that_cannot_be_opened_leaves_the_next_one_nothing) {
  Writer_Of writer(mapper_);
  EXPECT_EQ(MTF::E_SKIP, writer.open("/", R"({"tags":{"t":"1"}})"));
  EXPECT_EQ(MTF::E_OK, writer.open("/b/k", nullptr));
  EXPECT_EQ(std::vector<std::string>{"b|k|3"}, fake_client().uploaded);
  EXPECT_TRUE(service_->asked.empty());

  EXPECT_EQ(MTF::E_OK, writer.open("/b/k", "{"));
  EXPECT_EQ(1u, writer.sink.refused().size());
  EXPECT_EQ(MTF::E_SKIP, writer.open("/", nullptr));
  EXPECT_TRUE(writer.sink.refused().empty()) << "what the object before went without";
}

TEST(attribute_options, backup_options_are_read_and_written_when_set) {
  typedef Parsed<OBS_Backup_Job_Options_Parser, OBS_Backup_Job_Options> Options;
  Options both(R"({"tags":true,"acl":true,"other":true,"channels":true})");
  ASSERT_TRUE(both.accepted) << both.reason;
  EXPECT_TRUE(both.record().tags_);
  EXPECT_TRUE(both.record().acl_);
  EXPECT_NE(std::string::npos, yajl_generate(both.record()).find(R"("tags":true,"acl":true)"));
  EXPECT_FALSE(both.record().refresh_tags_);
  Options fresh(R"({"refresh_tags":true})");
  ASSERT_TRUE(fresh.accepted) << fresh.reason;
  EXPECT_TRUE(fresh.record().refresh_tags_);
  EXPECT_FALSE(fresh.record().tags_);
  EXPECT_NE(std::string::npos, yajl_generate(fresh.record()).find(R"("refresh_tags":true)"));
  Options none(R"({"tags":false,"exclusion":[true],"x":{"tags":true}})");
  ASSERT_TRUE(none.accepted) << none.reason;
  EXPECT_FALSE(none.record().tags_);
  EXPECT_EQ(std::string::npos, yajl_generate(none.record()).find("tags"));
}

TEST(attribute_options, restore_options_are_read_and_written_when_set) {
  typedef Parsed<OBS_Restore_Job_Options_Parser, OBS_Restore_Job_Options> Options;
  Options all(R"({"no_acl":true,"drop_tags":true,"storage_class":"COLD"})");
  ASSERT_TRUE(all.accepted) << all.reason;
  EXPECT_TRUE(all.record().no_acl_);
  EXPECT_TRUE(all.record().drop_tags_);
  EXPECT_EQ("COLD", all.record().storage_class_);
  EXPECT_NE(std::string::npos,
            yajl_generate(all.record()).find(R"("no_acl":true,"drop_tags":true,"storage_class":"COLD")"));
  Options none("{}");
  EXPECT_FALSE(none.record().no_acl_ || none.record().drop_tags_);
  EXPECT_EQ("", none.record().storage_class_);
}

} // namespace
