#include "platform/mtf/backup_base.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <set>

namespace fs = std::filesystem;

namespace {

typedef std::map<std::string, std::vector<std::string>> Tree; ///< names by folder

class Base_Of_Incremental : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/backup_base_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    const std::string url = "file://" + root_ + "/pool";
    ASSERT_TRUE(Pool::create(url, "pool-uuid", error_)) << error_;
    ASSERT_TRUE(Pool::open(url, "", pool_, error_)) << error_;
  }
  void TearDown() override { fs::remove_all(root_); }

  /// A set of these objects, folder by folder, each folder in as many visits as `visits` says.
  void make_set(const Tree& tree, size_t visits) {
    Set_Record record;
    record.uuid = "base";
    record.seq = 1;
    record.uri = "host/res/base";
    const std::string folder = pool_.set_folder(record.uri);
    fs::create_directories(folder);
    auto catalog = Catalog_Writer::create(folder, error_);
    ASSERT_TRUE(catalog) << error_;
    ASSERT_TRUE(catalog->add_set({0, record.uuid, record.uri, 1}));
    unsigned long long ordinal = 0;
    for (size_t turn = 0; turn < visits; ++turn)
      for (const auto& [path, names] : tree) {
        Catalog_Visit visit{path, ordinal + 1, ordinal, true};
        for (size_t i = turn * names.size() / visits; i < (turn + 1) * names.size() / visits; ++i) {
          Catalog_Object object;
          object.path = path + names[i];
          object.ordinal = ++ordinal;
          object.size = names[i].size();
          object.mtime = 1700000000;
          ASSERT_TRUE(catalog->add_object(object));
        }
        visit.last = ordinal;
        if (visit.first <= visit.last) {
          ASSERT_TRUE(catalog->add_visit(visit));
        }
      }
    ASSERT_TRUE(catalog->finish()) << catalog->error();
    ASSERT_TRUE(write_set_record(folder, record, error_)) << error_;
  }

  std::vector<std::string> not_shown(Backup_Base& base, const std::string& path, bool take) {
    std::vector<std::string> found;
    EXPECT_TRUE(base.not_shown(
        path, take, [](const Catalog_Object&) { return true; },
        [&](Catalog_Object& object) {
          found.push_back(object.path);
          return true;
        }))
        << base.error();
    std::sort(found.begin(), found.end());
    return found;
  }

  std::string root_;
  std::string error_;
  Pool pool_;
};

Tree some_tree(std::mt19937& random) {
  Tree tree;
  for (unsigned folder = 0; folder < 1 + random() % 12; ++folder) {
    std::set<std::string> names;
    for (unsigned i = random() % 30; i > 0; --i)
      names.insert("n" + std::to_string(random() % 100));
    tree["b/f" + std::to_string(folder) + "/"].assign(names.begin(), names.end());
  }
  return tree;
}

// Whole folders, their beginnings, middles and ends, in another order than the base's: what the listing leaves out is
// told once, and nothing else.
TEST_F(Base_Of_Incremental, exactly_what_was_not_shown_is_told_whatever_the_order_and_the_gaps) {
  for (unsigned seed = 1; seed <= 60; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const Tree tree = some_tree(random);
    fs::remove_all(pool_.set_folder("host"));
    make_set(tree, 1 + seed % 3);
    auto base = Backup_Base::open(pool_, "host/res", 1, "", error_);
    ASSERT_TRUE(base) << error_;

    std::vector<std::string> folders, gone, gone_below;
    for (const auto& [path, names] : tree)
      folders.push_back(path);
    if (seed % 2 == 0)
      std::shuffle(folders.begin(), folders.end(), random);
    const unsigned kept = random() % 101; // percent
    const std::string unlisted = folders[random() % folders.size()];
    for (const std::string& path : folders) {
      ASSERT_TRUE(base->enter(path)) << base->error();
      const bool all = random() % 3 == 0;
      for (const std::string& name : tree.at(path)) {
        if (!all && random() % 100 >= kept) {
          (path == unlisted ? gone_below : gone).push_back(path + name);
          continue;
        }
        Catalog_Object object;
        ASSERT_EQ(Backup_Base::Match::UNCHANGED, base->match(name, name.size(), 1700000000, object)) << path + name;
        EXPECT_EQ(path + name, object.path);
        EXPECT_EQ(1u, object.set);
      }
      if (random() % 4 == 0) { // shown twice, as sources that overlap do it
        ASSERT_TRUE(base->enter(path));
        for (const std::string& name : tree.at(path))
          if (!std::count(gone.begin(), gone.end(), path + name) &&
              !std::count(gone_below.begin(), gone_below.end(), path + name)) {
            Catalog_Object object;
            ASSERT_EQ(Backup_Base::Match::UNCHANGED, base->match(name, name.size(), 1700000000, object));
          }
      }
    }
    std::sort(gone.begin(), gone.end());
    std::sort(gone_below.begin(), gone_below.end());
    EXPECT_EQ(gone_below, not_shown(*base, unlisted, true));
    EXPECT_EQ(gone, not_shown(*base, "", false));
    EXPECT_EQ(std::vector<std::string>(), not_shown(*base, unlisted, false)) << "what was taken over counts as shown";
    if (HasFailure())
      return;
  }
}

} // namespace
