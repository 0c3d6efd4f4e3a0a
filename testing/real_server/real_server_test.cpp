#include "testing/real_server/real_server.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>

namespace s3_testing {
namespace {

int curl(const std::string& arguments) { return std::system(("curl -sf -o /dev/null --max-time 20 " + arguments).c_str()); }

TEST(real_server, answers_over_plain_and_tls_and_leaves_nothing_behind) {
  if (!Real_Server::installed())
    GTEST_SKIP() << "radosgw, ceph-mon and ceph-osd are not installed";
  Real_Server server;
  ASSERT_TRUE(server.start()) << server.error();
  const std::string folder = server.folder(), plain = server.endpoint();
  EXPECT_EQ(0, curl(plain + "/"));
  EXPECT_EQ(0, curl("--cacert " + server.ca_file() + " " + server.tls_endpoint() + "/"));
  EXPECT_NE(0, curl(server.tls_endpoint() + "/")) << "the certificate is nobody else's CA";
  EXPECT_FALSE(server.access_key().empty());
  EXPECT_FALSE(server.secret_key().empty());
  EXPECT_FALSE(server.start()) << "it runs already";
  server.stop();
  EXPECT_FALSE(std::filesystem::exists(folder));
  EXPECT_NE(0, curl(plain + "/"));
}

TEST(real_server, a_failure_to_start_says_why) {
  if (!Real_Server::installed())
    GTEST_SKIP() << "radosgw, ceph-mon and ceph-osd are not installed";
  Real_Server server;
  server.set_option("RGW_TLS_PORT", "1x");
  EXPECT_FALSE(server.start());
  EXPECT_NE("", server.error());
  EXPECT_EQ("", server.endpoint());
}

} // namespace
} // namespace s3_testing
