#include "platform/catalog/catalog_db.h"
#include "platform/catalog/catalog_reader.h"
#include "platform/catalog/catalog_writer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

namespace fs = std::filesystem;

namespace {

class Catalog : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/catalog_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    folder_ = name;
  }
  void TearDown() override { fs::remove_all(folder_); }

  static Catalog_Object object(unsigned long long ordinal, const std::string& path) {
    Catalog_Object o;
    o.ordinal = ordinal;
    o.path = path;
    o.size = ordinal * 10;
    o.mtime = 1700000000 + static_cast<long long>(ordinal);
    o.channel = ordinal % 3;
    o.offset = ordinal * 4096;
    o.stored = 2048;
    for (unsigned i = 0; i < 32; ++i)
      o.sha256[i] = static_cast<unsigned char>(ordinal + i);
    return o;
  }

  /// Writes objects given in hand-out order, in the order of `order` (positions), with their visits.
  void write(const std::vector<std::string>& paths, const std::vector<size_t>& order) {
    auto writer = Catalog_Writer::create(folder_, error_);
    ASSERT_TRUE(writer) << error_;
    ASSERT_TRUE(writer->add_set({0, "own", "h/r/a", 7}));
    Catalog_Visit visit;
    for (size_t i = 0; i < paths.size(); ++i) {
      const std::string folder = paths[i].substr(0, paths[i].rfind('/') + 1);
      if (folder != visit.folder) {
        if (visit.first != 0) {
          ASSERT_TRUE(writer->add_visit(visit));
        }
        visit = {folder, i + 1, i + 1, true};
      }
      if (visit.last != i + 1 && paths[i] <= paths[i - 1])
        visit.ascending = false;
      visit.last = i + 1;
    }
    if (visit.first != 0) {
      ASSERT_TRUE(writer->add_visit(visit));
    }
    for (size_t i : order)
      ASSERT_TRUE(writer->add_object(object(i + 1, paths[i])));
    ASSERT_TRUE(writer->finish()) << writer->error();
  }

  void write(const std::vector<std::string>& paths) {
    std::vector<size_t> order(paths.size());
    for (size_t i = 0; i < order.size(); ++i)
      order[i] = i;
    write(paths, order);
  }

  std::unique_ptr<Catalog_Reader> open() {
    auto reader = Catalog_Reader::open(folder_, error_);
    EXPECT_TRUE(reader) << error_;
    return reader;
  }

  std::vector<std::string> walked(Catalog_Reader& reader, const std::string& path) {
    std::vector<std::string> found;
    EXPECT_TRUE(reader.walk(
        path,
        [&](const Catalog_Object& o) {
          found.push_back(o.path);
          return true;
        },
        error_))
        << error_;
    return found;
  }

  std::string folder_;
  std::string error_;
};

const std::vector<std::string> TREE = {
    "b/1", "b/2", "b//x", "b/a/1", "b/a/\xff\x01", "b/a/b/y", "b/c/d/e", "b2/k", std::string("b2/k/") + "\xc3\xa9"};

TEST_F(Catalog, shuffled_rows_come_back_in_hand_out_order) {
  std::vector<size_t> order(TREE.size());
  for (size_t i = 0; i < order.size(); ++i)
    order[i] = i;
  std::shuffle(order.begin(), order.end(), std::mt19937(5));
  write(TREE, order);
  auto reader = open();
  ASSERT_TRUE(reader);
  EXPECT_EQ(TREE, walked(*reader, ""));
  EXPECT_EQ(TREE.size(), reader->counts().objects);
  EXPECT_EQ(450u, reader->counts().bytes);
  EXPECT_EQ("own", reader->set_uuid());
  EXPECT_EQ(7u, reader->sets().front().seq);
}

TEST_F(Catalog, walk_passes_over_what_is_narrowed_away) {
  write(TREE);
  auto reader = open();
  ASSERT_TRUE(reader);
  const auto told = [&](const std::set<unsigned long long>& wanted) {
    std::vector<unsigned long long> found;
    EXPECT_TRUE(reader->walk(
        "",
        [&](const Catalog_Object& o) {
          found.push_back(o.ordinal);
          return true;
        },
        error_,
        [&](unsigned long long& first, unsigned long long& last) {
          while (first <= last && wanted.count(first) == 0)
            ++first;
          if (first > last)
            return false;
          unsigned long long end = first;
          while (end < last && wanted.count(end + 1) != 0)
            ++end;
          last = end;
          return true;
        }))
        << error_;
    return found;
  };
  for (const std::set<unsigned long long>& wanted :
       {std::set<unsigned long long>{}, {1}, {2, 3}, {1, 4, 5, 9}, {1, 2, 3, 4, 5, 6, 7, 8, 9}})
    EXPECT_EQ(std::vector<unsigned long long>(wanted.begin(), wanted.end()), told(wanted));
}

TEST_F(Catalog, visit_that_ends_with_the_largest_ordinal_is_walked_once) {
  write(TREE);
  Catalog_Db db;
  ASSERT_TRUE(db.open(folder_ + "/catalog.db", SQLITE_OPEN_READWRITE, error_)) << error_;
  ASSERT_TRUE(
      db.execute("UPDATE visits SET last=-1 WHERE folder=(SELECT id FROM folders WHERE path=x'62322f')", error_))
      << error_;
  ASSERT_TRUE(db.close(error_)) << error_;
  auto reader = open();
  ASSERT_TRUE(reader);
  EXPECT_GE(TREE.size(), walked(*reader, "").size());
  EXPECT_EQ(std::vector<std::string>(), walked(*reader, "b2/k")) << "no folder";
}

TEST_F(Catalog, objects_that_come_many_at_once_are_all_there) {
  auto writer = Catalog_Writer::create(folder_, error_);
  ASSERT_TRUE(writer) << error_;
  ASSERT_TRUE(writer->add_set({0, "own", "h/r/a", 7}));
  constexpr unsigned long long OBJECTS = 20000;
  std::vector<Catalog_Object> some;
  size_t count = 0;
  for (unsigned long long i = 1; i <= OBJECTS; ++i) {
    some.resize(std::max<size_t>(some.size(), count + 1)); // what comes back is as large as it happens to be
    some[count++] = object(i, "b/" + std::to_string(i));
    if (i % 97 == 0) {
      ASSERT_TRUE(writer->add_objects(some, count)) << writer->error();
      count = 0;
    } else if (i % 1000 == 0) {
      ASSERT_TRUE(writer->add_object(some[--count]));
    }
  }
  ASSERT_TRUE(writer->add_objects(some, count)) << writer->error();
  ASSERT_TRUE(writer->add_visit({"b/", 1, OBJECTS, false}));
  ASSERT_TRUE(writer->finish()) << writer->error();
  auto reader = open();
  ASSERT_TRUE(reader);
  EXPECT_EQ(OBJECTS, reader->counts().objects);
  unsigned long long next = 1;
  EXPECT_TRUE(reader->walk(
      "",
      [&](const Catalog_Object& o) {
        EXPECT_EQ(next, o.ordinal);
        EXPECT_EQ("b/" + std::to_string(next), o.path);
        EXPECT_EQ(next * 4096, o.offset);
        ++next;
        return true;
      },
      error_))
      << error_;
  EXPECT_EQ(OBJECTS + 1, next);
}

TEST_F(Catalog, object_is_found_with_all_that_is_known) {
  write(TREE);
  auto reader = open();
  for (size_t i = 0; i < TREE.size(); ++i) {
    Catalog_Object o;
    ASSERT_TRUE(reader->find(TREE[i], o, error_)) << TREE[i];
    const Catalog_Object want = object(i + 1, TREE[i]);
    EXPECT_EQ(want.path, o.path);
    EXPECT_EQ(want.ordinal, o.ordinal);
    EXPECT_EQ(want.size, o.size);
    EXPECT_EQ(want.mtime, o.mtime);
    EXPECT_EQ(want.channel, o.channel);
    EXPECT_EQ(want.offset, o.offset);
    EXPECT_EQ(want.stored, o.stored);
    EXPECT_EQ(0, std::memcmp(want.sha256, o.sha256, 32));
  }
  Catalog_Object o;
  for (const char* absent : {"b/3", "b/0", "b/a/0", "b/a/2", "nothing", "", "b/", "x/y"}) {
    EXPECT_FALSE(reader->find(absent, o, error_)) << absent;
    EXPECT_EQ("", error_);
  }
}

TEST_F(Catalog, folder_shows_its_own_folders_and_objects_only) {
  write(TREE);
  auto reader = open();
  Catalog_Page page;
  ASSERT_TRUE(reader->list("", "", 100, page, error_));
  EXPECT_EQ((std::vector<std::string>{"b/", "b2/"}), page.folders);
  EXPECT_TRUE(page.objects.empty());
  ASSERT_TRUE(reader->list("b/", "", 100, page, error_));
  EXPECT_EQ((std::vector<std::string>{"b//", "b/a/", "b/c/"}), page.folders);
  ASSERT_EQ(2u, page.objects.size());
  EXPECT_EQ("b/1", page.objects[0].path);
  EXPECT_FALSE(page.truncated);
  ASSERT_TRUE(reader->list("b/c/", "", 100, page, error_));
  EXPECT_EQ((std::vector<std::string>{"b/c/d/"}), page.folders);
  ASSERT_TRUE(reader->list("none/", "", 100, page, error_));
  EXPECT_TRUE(page.folders.empty() && page.objects.empty());
  EXPECT_TRUE(reader->has_folder("b/c/", error_));
  EXPECT_FALSE(reader->has_folder("b/z/", error_));
}

TEST_F(Catalog, pages_of_every_size_give_the_whole_folder) {
  std::vector<std::string> paths = {"b/1", "b/2", "b/3", "b/x/1", "b/y/1", "b/z/1", "b/4", "b/5"};
  write(paths);
  auto reader = open();
  for (unsigned limit = 1; limit < 10; ++limit) {
    std::vector<std::string> found;
    std::string marker;
    Catalog_Page page;
    do {
      ASSERT_TRUE(reader->list("b/", marker, limit, page, error_));
      ASSERT_LE(page.folders.size() + page.objects.size(), limit);
      found.insert(found.end(), page.folders.begin(), page.folders.end());
      for (const Catalog_Object& o : page.objects)
        found.push_back(o.path);
      marker = page.next_marker;
    } while (page.truncated);
    EXPECT_EQ((std::vector<std::string>{"b/x/", "b/y/", "b/z/", "b/1", "b/2", "b/3", "b/4", "b/5"}), found) << limit;
  }
}

TEST_F(Catalog, walk_below_a_folder_leaves_out_its_neighbours) {
  write({"b/a", "b/a/1", "b/a/x/2", "b/a.b/3", "b/a0/4", "b/b/5"});
  auto reader = open();
  EXPECT_EQ((std::vector<std::string>{"b/a/1", "b/a/x/2"}), walked(*reader, "b/a/"));
  EXPECT_TRUE(walked(*reader, "b/q/").empty());
}

TEST_F(Catalog, media_order_is_set_channel_offset) {
  write(TREE);
  auto reader = open();
  std::vector<std::pair<unsigned, unsigned long long>> places;
  std::vector<std::string> paths;
  ASSERT_TRUE(reader->walk_media(
      {},
      [&](const Catalog_Object& o) {
        places.emplace_back(o.channel, o.offset);
        paths.push_back(o.path);
        return true;
      },
      error_));
  EXPECT_EQ(TREE.size(), places.size());
  EXPECT_TRUE(std::is_sorted(places.begin(), places.end()));
  std::sort(paths.begin(), paths.end());
  std::vector<std::string> want = TREE;
  std::sort(want.begin(), want.end());
  EXPECT_EQ(want, paths);
}

TEST_F(Catalog, overlapping_selection_gives_each_object_once) {
  write(TREE);
  auto reader = open();
  const Catalog_Selection selection{{"b/a/", "b/a/b/", "gone/"}, {"b/a/1", "b/1", "b/1", "b/absent", "b/a/b/y"}};
  unsigned long long objects = 0, bytes = 0;
  std::vector<std::string> unmatched;
  ASSERT_TRUE(reader->count(selection, objects, bytes, unmatched, error_)) << error_;
  EXPECT_EQ(4u, objects);
  EXPECT_EQ(10u + 40 + 50 + 60, bytes);
  EXPECT_EQ((std::vector<std::string>{"gone/", "b/absent"}), unmatched);
  std::vector<std::string> found;
  ASSERT_TRUE(reader->walk_media(
      selection,
      [&](const Catalog_Object& o) {
        found.push_back(o.path);
        return true;
      },
      error_));
  std::sort(found.begin(), found.end());
  EXPECT_EQ((std::vector<std::string>{"b/1", "b/a/1", "b/a/b/y", "b/a/\xff\x01"}), found);
}

TEST_F(Catalog, names_out_of_order_and_gaps_are_found_all_the_same) {
  auto writer = Catalog_Writer::create(folder_, error_);
  ASSERT_TRUE(writer);
  writer->add_set({0, "own", "u", 0});
  writer->add_visit({"b/", 1, 200, true});
  writer->add_visit({"b/n/", 201, 203, false});
  for (unsigned i = 1; i <= 200; i += 7)
    writer->add_object(object(i, "b/" + std::to_string(1000 + i)));
  writer->add_object(object(201, "b/n/z"));
  writer->add_object(object(203, "b/n/a"));
  ASSERT_TRUE(writer->finish());
  auto reader = open();
  Catalog_Object o;
  for (unsigned i = 1; i <= 200; ++i)
    EXPECT_EQ((i - 1) % 7 == 0, reader->find("b/" + std::to_string(1000 + i), o, error_)) << i;
  EXPECT_TRUE(reader->find("b/n/z", o, error_));
  EXPECT_TRUE(reader->find("b/n/a", o, error_));
}

TEST_F(Catalog, many_threads_may_add_rows) {
  auto writer = Catalog_Writer::create(folder_, error_);
  ASSERT_TRUE(writer);
  writer->add_set({0, "own", "u", 0});
  writer->add_visit({"b/", 1, 20000, true});
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (unsigned i = t; i < 20000; i += 4)
        writer->add_object(object(i + 1, "b/" + std::to_string(100000 + i)));
    });
  for (std::thread& t : threads)
    t.join();
  writer->add_problem({Catalog_Problem::FAILED, "b/bad", 5, "short body"});
  ASSERT_TRUE(writer->finish()) << writer->error();
  EXPECT_EQ(20000u, writer->counts().objects);
  auto reader = open();
  EXPECT_EQ(20000u, walked(*reader, "").size());
  std::vector<Catalog_Problem> problems;
  ASSERT_TRUE(reader->problems(
      [&](const Catalog_Problem& p) {
        problems.push_back(p);
        return true;
      },
      error_));
  ASSERT_EQ(1u, problems.size());
  EXPECT_EQ("b/bad", problems[0].path);
  EXPECT_EQ(Catalog_Problem::FAILED, problems[0].kind);
  EXPECT_EQ(5, problems[0].number);
  EXPECT_EQ("short body", problems[0].message);
}

TEST_F(Catalog, empty_catalog_reads_as_empty) {
  write({});
  auto reader = open();
  EXPECT_TRUE(walked(*reader, "").empty());
  EXPECT_EQ(0u, reader->counts().objects);
}

TEST_F(Catalog, unfinished_catalog_is_refused) {
  {
    auto writer = Catalog_Writer::create(folder_, error_);
    ASSERT_TRUE(writer);
    writer->add_set({0, "own", "u", 0});
    writer->add_object(object(1, "b/1"));
  }
  EXPECT_FALSE(Catalog_Reader::open(folder_, error_));
  EXPECT_NE(std::string::npos, error_.find("catalog")) << error_;
}

TEST_F(Catalog, attributes_come_back_wherever_an_object_is_told_and_alike_ones_are_kept_once) {
  const unsigned count = 20000;
  {
    auto writer = Catalog_Writer::create(folder_, error_);
    ASSERT_TRUE(writer);
    writer->add_set({0, "own", "u", 0});
    writer->add_visit({"b/", 1, count, true});
    for (unsigned i = 1; i <= count; ++i) {
      Catalog_Object o = object(i, "b/" + std::to_string(100000 + i));
      if (i % 2 == 0)
        o.attributes.common = "{\"headers\":{\"content-type\":\"" + std::string(200, char('a' + i % 5)) + "\"}}";
      if (i % 4000 == 0)
        o.attributes.own = std::string("{\"etag\":\"\xFF") + std::to_string(i) + "\"}";
      ASSERT_TRUE(writer->add_object(o));
    }
    ASSERT_TRUE(writer->finish()) << writer->error();
  }
  Catalog_Db db;
  Catalog_Statement texts;
  ASSERT_TRUE(db.open(folder_ + "/catalog.db", SQLITE_OPEN_READONLY, error_));
  ASSERT_TRUE(texts.prepare(db.get(), "SELECT count(*) FROM attributes", error_)) << error_;
  ASSERT_EQ(SQLITE_ROW, texts.step());
  EXPECT_EQ(5u, texts.number(0));
  // Two million bytes of headers were told.
  EXPECT_GT(count * 110u, fs::file_size(folder_ + "/catalog.db"));

  auto reader = open();
  const auto check = [](const Catalog_Object& o, bool own = true) {
    const unsigned i = static_cast<unsigned>(o.ordinal);
    EXPECT_EQ(i % 2 == 0 ? 231u : 0u, o.attributes.common.size()) << i;
    if (i % 2 == 0) {
      EXPECT_EQ(char('a' + i % 5), o.attributes.common[100]);
    }
    EXPECT_EQ(own && i % 4000 == 0 ? std::string("{\"etag\":\"\xFF") + std::to_string(i) + "\"}" : "",
              o.attributes.own);
    return !testing::Test::HasFailure();
  };
  unsigned walked = 0;
  ASSERT_TRUE(reader->walk(
      "", [&](const Catalog_Object& o) { return ++walked, check(o); }, error_));
  EXPECT_EQ(count, walked);
  walked = 0;
  ASSERT_TRUE(reader->walk_media(
      {}, [&](const Catalog_Object& o) { return ++walked, check(o, false); }, error_));
  EXPECT_EQ(count, walked);
  Catalog_Object o;
  ASSERT_TRUE(reader->find("b/104000", o, error_));
  check(o);
  ASSERT_TRUE(reader->enter("b/", error_));
  ASSERT_TRUE(reader->match("108000", o, error_));
  check(o);
  ASSERT_TRUE(reader->match("108001", o, error_));
  check(o);
  Catalog_Page page;
  ASSERT_TRUE(reader->list("b/", "", 10, page, error_));
  for (const Catalog_Object& one : page.objects)
    check(one);
}

TEST_F(Catalog, attributes_all_different_are_all_kept) {
  const unsigned count = 5000;
  auto writer = Catalog_Writer::create(folder_, error_);
  ASSERT_TRUE(writer);
  writer->add_set({0, "own", "u", 0});
  writer->add_visit({"b/", 1, count, true});
  for (unsigned i = 1; i <= count; ++i) {
    Catalog_Object o = object(i, "b/" + std::to_string(100000 + i));
    o.attributes.common = "text " + std::to_string(i / 2);
    ASSERT_TRUE(writer->add_object(o));
  }
  ASSERT_TRUE(writer->finish()) << writer->error();
  ASSERT_TRUE(open()->walk(
      "",
      [](const Catalog_Object& o) {
        EXPECT_EQ("text " + std::to_string(o.ordinal / 2), o.attributes.common);
        return true;
      },
      error_));
}

// As a program without attributes wrote it.
TEST_F(Catalog, deletions_come_back_in_their_order_until_they_are_stopped) {
  auto writer = Catalog_Writer::create(folder_, error_);
  ASSERT_TRUE(writer) << error_;
  ASSERT_TRUE(writer->add_set({0, "own", "h/r/a", 7}));
  ASSERT_TRUE(writer->add_deletion({"b/z", 0, -5}));
  ASSERT_TRUE(writer->add_deletion({"b/a\xff//k", 1ull << 40, 1700000000}));
  ASSERT_TRUE(writer->finish()) << writer->error();
  EXPECT_EQ(2u, writer->counts().deletions);
  auto reader = open();
  ASSERT_TRUE(reader);
  EXPECT_EQ(2u, reader->counts().deletions);
  std::vector<Catalog_Deletion> found;
  const auto keep = [&](const Catalog_Deletion& one) {
    found.push_back(one);
    return found.size() < 2;
  };
  ASSERT_TRUE(reader->deletions(keep, error_)) << error_;
  ASSERT_EQ(2u, found.size());
  EXPECT_EQ("b/z", found[0].path);
  EXPECT_EQ(0u, found[0].size);
  EXPECT_EQ(-5, found[0].mtime);
  EXPECT_EQ("b/a\xff//k", found[1].path);
  EXPECT_EQ(1ull << 40, found[1].size);
  EXPECT_EQ(1700000000, found[1].mtime);
  unsigned told = 0;
  ASSERT_TRUE(reader->deletions([&](const Catalog_Deletion&) { return ++told, false; }, error_)) << error_;
  EXPECT_EQ(1u, told);
}

TEST_F(Catalog, catalog_of_the_first_version_is_read) {
  write(TREE);
  Catalog_Db db;
  ASSERT_TRUE(db.open(folder_ + "/catalog.db", SQLITE_OPEN_READWRITE, error_));
  ASSERT_TRUE(db.execute("DROP TABLE deletions; DROP TABLE attributes; ALTER TABLE objects DROP COLUMN own;"
                         "ALTER TABLE objects DROP COLUMN attributes; PRAGMA user_version=1",
                         error_))
      << error_;
  ASSERT_TRUE(db.close(error_));
  auto reader = open();
  ASSERT_TRUE(reader) << error_;
  EXPECT_EQ(TREE.size(), walked(*reader, "").size());
  Catalog_Object o;
  unsigned told = 0;
  ASSERT_TRUE(reader->find(TREE.front(), o, error_)) << error_;
  EXPECT_TRUE(o.attributes.empty());
  ASSERT_TRUE(reader->walk_media(
      {}, [&](const Catalog_Object&) { return ++told, true; }, error_));
  EXPECT_EQ(TREE.size(), told);
}

TEST_F(Catalog, second_catalog_in_a_folder_is_refused) {
  write(TREE);
  EXPECT_FALSE(Catalog_Writer::create(folder_, error_));
  EXPECT_NE(std::string::npos, error_.find("exists")) << error_;
}

TEST_F(Catalog, damaged_values_read_as_empty_ones) {
  write(TREE);
  Catalog_Db db;
  ASSERT_TRUE(db.open(folder_ + "/catalog.db", SQLITE_OPEN_READWRITE, error_));
  ASSERT_TRUE(db.execute("UPDATE objects SET sha256=x'', size='many' WHERE ordinal=1;"
                         "UPDATE objects SET sha256=zeroblob(5) WHERE ordinal=2",
                         error_));
  Catalog_Statement statement;
  ASSERT_TRUE(statement.prepare(db.get(), "SELECT sha256 FROM objects WHERE ordinal=1", error_));
  ASSERT_EQ(SQLITE_ROW, statement.step());
  EXPECT_NE(nullptr, statement.blob(0).data());
  EXPECT_EQ(0u, statement.blob(0).size());
  statement = Catalog_Statement();
  ASSERT_TRUE(db.close(error_));
  Catalog_Object o;
  const unsigned char zeros[32] = {};
  for (const size_t i : {0, 1}) {
    ASSERT_TRUE(open()->find(TREE[i], o, error_)) << error_;
    EXPECT_EQ(0, std::memcmp(zeros, o.sha256, 32));
  }
}

TEST_F(Catalog, foreign_newer_and_missing_files_are_refused_by_reason) {
  EXPECT_FALSE(Catalog_Reader::open(folder_, error_));
  EXPECT_NE(std::string::npos, error_.find("No such file")) << error_;
  std::ofstream(folder_ + "/catalog.db") << std::string(5000, 'x');
  EXPECT_FALSE(Catalog_Reader::open(folder_, error_));
  fs::remove(folder_ + "/catalog.db");
  write(TREE);
  Catalog_Db db;
  ASSERT_TRUE(db.open(folder_ + "/catalog.db", SQLITE_OPEN_READWRITE, error_));
  ASSERT_TRUE(db.execute("PRAGMA user_version=99", error_));
  ASSERT_TRUE(db.close(error_));
  EXPECT_FALSE(Catalog_Reader::open(folder_, error_));
  EXPECT_NE(std::string::npos, error_.find("newer")) << error_;
}

} // namespace
