#include "testing/real_server/real_server.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <stdexcept>
#include <string>

namespace s3_testing {
namespace {

int curl(const std::string& arguments) {
  return std::system(("curl -sf -o /dev/null --max-time 20 " + arguments).c_str());
}

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

// While it lives, radosgw-admin is one that runs `lines` and then the real one; $CALL is the number of the call.
class Strange_Admin {
public:
  explicit Strange_Admin(const std::string& lines) {
    char name[] = "/tmp/real_server_test.XXXXXX";
    if (mkdtemp(name) == nullptr)
      throw std::runtime_error("no folder for the test");
    folder_ = name;
    std::ofstream(folder_ + "/radosgw-admin")
        << "#!/bin/bash\nulimit -c 0\necho >>" << folder_ << "/calls\nCALL=$(wc -l <" << folder_ << "/calls)\n"
        << lines << "\nPATH=${PATH#*:} exec radosgw-admin \"$@\"\n";
    std::filesystem::permissions(folder_ + "/radosgw-admin", std::filesystem::perms::owner_all);
    ::setenv("PATH", (folder_ + ":" + path_).c_str(), 1);
  }
  ~Strange_Admin() {
    ::setenv("PATH", path_.c_str(), 1);
    std::filesystem::remove_all(folder_);
  }
  Strange_Admin(const Strange_Admin&) = delete;
  Strange_Admin& operator=(const Strange_Admin&) = delete;
  int calls() const {
    std::ifstream file(folder_ + "/calls");
    return static_cast<int>(std::count(std::istreambuf_iterator<char>(file), {}, '\n'));
  }

private:
  const std::string path_ = std::getenv("PATH");
  std::string folder_;
};

TEST(real_server, comes_up_where_its_administration_crashes_at_first) {
  if (!Real_Server::installed())
    GTEST_SKIP() << "radosgw, ceph-mon and ceph-osd are not installed";
  const Strange_Admin admin("[ $CALL -gt 2 ] || kill -SEGV $$");
  Real_Server server;
  ASSERT_TRUE(server.start()) << server.error();
  EXPECT_EQ(3, admin.calls());
  EXPECT_FALSE(server.access_key().empty());
}

TEST(real_server, shows_what_its_administration_said_when_it_always_fails) {
  if (!Real_Server::installed())
    GTEST_SKIP() << "radosgw, ceph-mon and ceph-osd are not installed";
  const Strange_Admin admin("echo no luck today >&2; exit 5");
  Real_Server server;
  EXPECT_FALSE(server.start());
  EXPECT_EQ(5, admin.calls());
  EXPECT_NE(std::string::npos, server.error().find("no luck today")) << server.error();
}

} // namespace
} // namespace s3_testing
