#include "tests/transfer/transfer_fixture.h"

#include <iostream>
#include <map>
#include <random>
#include <vector>

using s3_testing::Fault;
using s3_testing::synthetic_bytes;

namespace {

constexpr unsigned OBJECTS = 120;
constexpr unsigned FOLDERS = 6;
constexpr std::uint64_t FAULTS = 1000;
/// What a replacement adds to the seed of an object's content.
constexpr std::uint64_t GENERATION = 77;
constexpr std::uint64_t FIRST_SEED = 1000000;

/// Faults of 20 kinds for a backup, 5 for a restore. None lasts: each strikes a few times.
class Injected_Faults : public Transfer_Test {
protected:
  Injected_Faults() : seed_(std::random_device()()), random_(seed_) {
    std::cout << "seed " << seed_ << "\n";
    RecordProperty("seed", std::to_string(seed_));
    order.limits.small_object = 12000;
    order.limits.stream_buffer = 3000;
    for (unsigned i = 0; i < OBJECTS; ++i) {
      sizes_.push_back(64 + upto(i % 5 == 0 ? 40000 : 6000));
      server.put_synthetic("bucket", key(i), sizes_.back(), FIRST_SEED * (i + 1));
    }
  }

  unsigned upto(unsigned most) { return static_cast<unsigned>(random_() % (most + 1)); }
  static std::string key(unsigned i) { return "d" + std::to_string(i % FOLDERS) + "/" + std::to_string(i); }

  Fault of_a_backup(unsigned kind) {
    const auto object = [&](Fault fault) { return fault.on("GetObject").key(key(upto(OBJECTS - 1))); };
    const auto listing = [&](Fault fault) { return fault.on("ListObjects*").from_nth(1 + upto(FOLDERS)); };
    switch (kind) {
    case 0:
      return object(Fault::error(500, "InternalError"));
    case 1:
      return object(Fault::error(503, "SlowDown"));
    case 2:
      return object(Fault::error(429, "TooManyRequests"));
    case 3:
      return object(Fault::error(403, "AccessDenied"));
    case 4:
      return object(Fault::error(404, "NoSuchKey"));
    case 5:
      return object(Fault::error_in_200("InternalError"));
    case 6:
      return object(Fault::no_reply());
    case 7:
      return object(Fault::cut(upto(6000)));
    case 8:
      return object(Fault::stall(upto(3000), 5));
    case 9:
      return object(Fault::wrong_length(-1 - static_cast<int>(upto(50))));
    case 10:
      return object(Fault::wrong_length(1 + upto(50)));
    case 11:
      return object(Fault::change_object(upto(6000), true));
    case 12:
      return object(Fault::change_object(upto(6000), false));
    case 13:
      return object(Fault::empty_body());
    case 14:
      return object(Fault::garbage_body());
    case 15:
      return object(Fault::truncated_body(upto(60)));
    case 16:
      return listing(Fault::error(500, "InternalError"));
    case 17:
      return listing(Fault::error_in_200("SlowDown"));
    case 18:
      return listing(Fault::cut(upto(900)));
    default:
      return listing(Fault::garbage_body());
    }
  }

  Fault of_a_restore(unsigned kind) {
    const auto target = [&](Fault fault, const char* operation) {
      return fault.on(operation).key(key(upto(OBJECTS - 1)));
    };
    switch (kind) {
    case 0:
      return target(Fault::error(500, "InternalError"), "PutObject");
    case 1:
      return target(Fault::error(503, "SlowDown"), "PutObject");
    case 2:
      return target(Fault::no_reply(), "PutObject");
    case 3:
      return target(Fault::cut_upload(upto(3000)), "PutObject");
    default:
      return target(Fault::error(500, "InternalError"), "DeleteObject");
    }
  }

  /// The outcome names the object, or a folder above it that could not be listed.
  bool is_named(const std::string& path) {
    for (size_t slash = path.size(); slash != std::string::npos && slash != 0; slash = path.rfind('/', slash - 1))
      if (events->named("/" + path.substr(0, slash)) || events->named("/" + path.substr(0, slash) + "/"))
        return true;
    return false;
  }

  /// Whole, and one of the generations that the object has had.
  bool is_of(unsigned i, const std::string& bytes) {
    for (std::uint64_t generation = 0; generation < 200; ++generation)
      if (bytes == synthetic_bytes(FIRST_SEED * (i + 1) + GENERATION * generation, 0, sizes_[i]))
        return true;
    return false;
  }

  void expect_named_or_whole_in_the_set() {
    const auto objects = catalog();
    EXPECT_EQ(figure("saved"), objects.size());
    for (unsigned i = 0; i < OBJECTS; ++i) {
      const std::string path = "bucket/" + key(i);
      const auto found = objects.find(path);
      if (found == objects.end()) {
        EXPECT_TRUE(is_named(path)) << path << " is neither saved nor named";
        ++named_;
      } else {
        const std::string bytes = content(found->second);
        EXPECT_TRUE(is_of(i, bytes)) << path << " has " << bytes.size() << " bytes instead of " << sizes_[i];
      }
    }
  }

  void expect_named_or_whole_in_the_target() {
    for (const auto& [path, object] : catalog()) {
      const s3_testing::Object_Ptr restored = server.object("target", path.substr(path.find('/') + 1));
      if (restored == nullptr) {
        EXPECT_TRUE(is_named(path)) << path << " is neither restored nor named";
        ++named_;
      } else {
        EXPECT_EQ(object.size, restored->size) << path;
        EXPECT_EQ(content(object), restored->bytes()) << path;
      }
    }
  }

  const unsigned seed_;
  std::mt19937 random_;
  std::vector<std::uint64_t> sizes_;
  unsigned named_ = 0;
};

TEST_F(Injected_Faults, each_of_a_thousand_is_named_or_harmless) {
  Buckets_Mapper mapper;
  mapper.mappers()["bucket"].bucket = "target";
  unsigned runs = 0, failed_runs = 0;
  std::uint64_t struck = 0;
  for (; struck < FAULTS && runs < 400 && !HasFailure(); ++runs) {
    SCOPED_TRACE("run " + std::to_string(runs));
    new_job();
    server.clear_faults();
    std::uint64_t before = server.faults_struck();
    for (unsigned n = 0; n < 20; ++n)
      server.add_fault(of_a_backup(n).times(1 + upto(2)));
    const bool done = backup();
    struck += server.faults_struck() - before;
    if (!done) {
      // Without a set, the reason is what is named.
      EXPECT_FALSE(failure.empty());
      ++failed_runs;
      continue;
    }
    expect_named_or_whole_in_the_set();

    server.clear_faults();
    server.create_bucket("target");
    before = server.faults_struck();
    for (unsigned n = 0; n < 5; ++n)
      server.add_fault(of_a_restore(n).times(1 + upto(2)));
    ASSERT_TRUE(restore(mapper)) << failure;
    struck += server.faults_struck() - before;
    expect_named_or_whole_in_the_target();
    for (unsigned i = 0; i < OBJECTS; ++i)
      server.remove("target", key(i));
  }
  std::cout << struck << " faults in " << runs << " runs, " << failed_runs << " of which failed; " << named_
            << " objects named\n";
  EXPECT_GE(struck, FAULTS);
  EXPECT_LT(failed_runs, runs / 2);
}

} // namespace
