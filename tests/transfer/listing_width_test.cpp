#include "obs/agent/job/async_obs_object_lister.h"
#include "platform/s3/client_fixture.h"

#include <algorithm>
#include <set>

namespace {

/// Several listings at a time: a slow one keeps nobody waiting who does not need it.
class Listing_Width : public Client_Test {
protected:
  static constexpr unsigned SMALL = 40, FLAT_PAGES = 30, PAGE = 100;

  Listing_Width() {
    server.configure([](s3_testing::S3_Server_Settings& s) { s.page_size = PAGE; });
    server.add_synthetic("bucket", "flat/", FLAT_PAGES * PAGE, 1);
    for (unsigned i = 0; i < SMALL; ++i)
      server.put("bucket", small(i) + "key", "x");
    server.keep_log(true);
    settings.idle_timeout = 600;
    EXPECT_TRUE(connect(client_, 0));
  }

  static std::string small(unsigned i) { return "small-" + std::to_string(1000 + i) + "/"; }

  /// The small prefixes that were asked for.
  size_t asked() {
    std::set<std::string> prefixes;
    for (const s3_testing::Request_Info& request : server.log())
      if (request.key.compare(0, 6, "small-") == 0)
        prefixes.insert(request.key);
    return prefixes.size();
  }
  size_t flat_pages() {
    const std::vector<s3_testing::Request_Info> log = server.log();
    return static_cast<size_t>(std::count_if(
        log.begin(), log.end(), [](const s3_testing::Request_Info& request) { return request.key == "flat/"; }));
  }

  Test_Clock clock_;
  S3_Client client_;
};

TEST_F(Listing_Width, flat_prefix_that_stalls_does_not_stall_the_rest) {
  // The page stays away until the test lets it go.
  constexpr size_t STALLED = 3;
  server.add_fault(s3_testing::Fault::stall(0).on("ListObjects").key("flat/").from_nth(STALLED).times(1));
  Async_OBS_Object_Lister lister(client_, 2, 60, 1000000, nullptr);
  ASSERT_TRUE(lister.init("bucket", ""));
  ASSERT_TRUE(server.wait_for_stalls(1, 60));
  // The root's page, those of the flat prefix up to the one that stalls, and all others.
  ASSERT_TRUE(server.wait_for_count("ListObjects", 1 + STALLED + SMALL, 60)) << asked() << " of " << SMALL;
  EXPECT_EQ(SMALL, asked());
  EXPECT_EQ(STALLED, flat_pages());

  server.release_stalls();
  Object_Entry object;
  unsigned flat = 0, others = 0;
  while (lister.next(object))
    ++(object.key.compare(0, 5, "flat/") == 0 ? flat : others);
  EXPECT_FALSE(lister.broken_off());
  EXPECT_EQ(FLAT_PAGES * PAGE, flat);
  EXPECT_EQ(SMALL, others);
  EXPECT_EQ(FLAT_PAGES + 1, flat_pages()) << "the page that stalled was asked for again";
}

} // namespace
