#include "platform/s3/ledger.h"

#include "platform/s3/endpoint_settings.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

namespace {

TEST(Ledger, folder_objects_are_counted_by_whether_they_hold_data) {
  S3_Ledger ledger;
  ledger.folder_object("/b/empty/", 0);
  ledger.folder_object("/b/full/", 5);
  ledger.folder_object("/b/empty2/", 0);
  EXPECT_EQ(2u, ledger.empty_folder_objects());
  EXPECT_EQ(1u, ledger.full_folder_objects());
  const std::vector<S3_Ledger::Folder_Object> all = ledger.folder_objects();
  ASSERT_EQ(3u, all.size());
  EXPECT_EQ("/b/full/", all[0].path);
  EXPECT_EQ(5u, all[0].size);
  EXPECT_EQ("/b/empty/", all[1].path);
}

TEST(Ledger, failed_prefixes_without_an_end_are_named_up_to_a_bound) {
  S3_Ledger ledger;
  for (int i = 0; i < 20005; ++i)
    ledger.listing_failed("/b/" + std::to_string(i) + '/', "no");
  ledger.listing_failed("/b/7/", "still not");
  const std::vector<S3_Ledger::Failed_Listing> all = ledger.failed_listings();
  ASSERT_EQ(20001u, all.size());
  EXPECT_EQ("/", all.back().path);
  EXPECT_EQ("5 more prefixes could not be listed.", all.back().message);
}

TEST(Ledger, listing_of_which_no_further_page_was_asked_for_has_broken_off) {
  S3_Ledger ledger;
  ledger.page_shown("/b/a/", true);
  ledger.page_shown("/b/c/", true);
  ledger.page_shown("/b/d/", false);
  ledger.page_shown("/b/e/", true);
  ledger.page_shown("/b/c/", true);
  ledger.page_shown("/b/c/", false);
  ledger.listing_failed("/b/e/", "its second page was refused");
  ASSERT_EQ(1u, ledger.broken_off_listings().size());
  EXPECT_EQ("/b/a/", ledger.broken_off_listings()[0].path);
}

TEST(Ledger, list_is_bounded_but_the_count_is_not) {
  S3_Ledger ledger;
  for (int i = 0; i < 900; ++i)
    ledger.folder_object("/b/full/", 1);
  for (int i = 0; i < 1500; ++i)
    ledger.folder_object("/b/empty/", 0);
  EXPECT_EQ(1500u, ledger.empty_folder_objects());
  const std::vector<S3_Ledger::Folder_Object> all = ledger.folder_objects();
  ASSERT_EQ(1000u, all.size());
  EXPECT_EQ(1u, all[899].size);
  EXPECT_EQ(0u, all[900].size);
}

TEST(Ledger, failed_listing_is_forgiven_by_a_later_success_of_the_same_prefix) {
  S3_Ledger ledger;
  ledger.listing_succeeded("/b/a/");
  ledger.listing_failed("/b/a/", "first");
  ledger.listing_failed("/b/a/", "second");
  ledger.listing_failed("/b/c/", "other");
  ASSERT_EQ(2u, ledger.failed_listings().size());
  EXPECT_EQ("second", ledger.failed_listings()[0].message);
  ledger.listing_succeeded("/b/a/");
  ASSERT_EQ(1u, ledger.failed_listings().size());
  EXPECT_EQ("/b/c/", ledger.failed_listings()[0].path);
  ledger.listing_succeeded("/b/c/");
  EXPECT_TRUE(ledger.failed_listings().empty());
}

TEST(Ledger, fresh_object_is_told_once) {
  S3_Ledger ledger;
  EXPECT_FALSE(ledger.take_fresh("/b/a"));
  ledger.read_fresh("/b/a");
  ledger.read_fresh("/b/a");
  EXPECT_FALSE(ledger.take_fresh("/b/c"));
  EXPECT_TRUE(ledger.take_fresh("/b/a"));
  EXPECT_FALSE(ledger.take_fresh("/b/a"));
}

TEST(Ledger, tags_that_nobody_asked_for_are_told_once) {
  S3_Ledger ledger;
  EXPECT_FALSE(ledger.take_unasked_tags("/b/a"));
  ledger.tags_told("/b/a");
  ledger.tags_told("/b/c");
  ledger.tags_asked("/b/c");
  EXPECT_FALSE(ledger.take_unasked_tags("/b/c"));
  EXPECT_TRUE(ledger.take_unasked_tags("/b/a"));
  EXPECT_FALSE(ledger.take_unasked_tags("/b/a"));
}

TEST(Ledger, failure_is_told_to_the_thread_that_it_was_met_by_and_once) {
  S3_Ledger ledger;
  EXPECT_FALSE(ledger.take_failure_here());
  ledger.failed_here(S3_Error(EACCES, 403, "First", "", false));
  ledger.failed_here(S3_Error(EACCES, 403, "Second", "", false));
  std::thread([&] {
    EXPECT_FALSE(ledger.take_failure_here());
    ledger.failed_here(S3_Error(EACCES, 403, "Other", "", false));
    EXPECT_EQ("Other", ledger.take_failure_here()->code());
  }).join();
  EXPECT_EQ("Second", ledger.take_failure_here()->code());
  EXPECT_FALSE(ledger.take_failure_here());
}

TEST(Endpoint, settings_are_kept_by_host_port_and_key) {
  Endpoint_Settings settings;
  settings.ca_file = "/ca.pem";
  settings.addressing = Endpoint_Settings::ADDRESSING_PATH;
  Endpoint_Settings::set("S3.example.com", 443, "AK", settings);
  EXPECT_EQ("/ca.pem", Endpoint_Settings::get("s3.EXAMPLE.com", 443, "AK").ca_file);
  EXPECT_EQ("", Endpoint_Settings::get("s3.example.com", 443, "ak").ca_file);
  EXPECT_EQ("", Endpoint_Settings::get("s3.example.com", 444, "AK").ca_file);
  EXPECT_EQ(Endpoint_Settings::ADDRESSING_AUTO, Endpoint_Settings::get("other", 443, "AK").addressing);
  settings.ca_file = "/new.pem";
  Endpoint_Settings::set("s3.example.com", 443, "AK", settings);
  EXPECT_EQ("/new.pem", Endpoint_Settings::get("s3.example.com", 443, "AK").ca_file);
}

} // namespace
