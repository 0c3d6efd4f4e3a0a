#include "platform/mtf/backup_engine.h"
#include "platform/mtf/fake_source_test.h"
#include "platform/mtf/medium_test_support.h"
#include "platform/mtf/object_stream.h"
#include "platform/mtf/restore_engine.h"
#include "platform/mtf/verify.h"

#include <filesystem>
#include <map>

namespace fs = std::filesystem;
using namespace MTF;

namespace {

/// An object, and what else belongs to it.
struct Attributed_Object {
  Test_Object object;
  File_Attributes attributes;
};

std::vector<Attributed_Object> attributed_objects() {
  std::string bytes;
  for (int c = 1; c < 256; ++c)
    bytes.push_back(static_cast<char>(c));
  return {{{"none", "x"}, {}},
          {{"common", prose(3000, 1)}, {R"({"headers":{"content-type":"text/plain"}})", ""}},
          {{"own", ""}, {"", R"({"etag":"d41d8cd98f00b204e9800998ecf8427e"})"}},
          {{"both", prose(CHUNK + 5, 2)}, {std::string(1, 'c'), std::string(5000, 'o')}},
          {{"any bytes", noise(2000, 3)}, {bytes, bytes + bytes}},
          {{"last", "y"}, {"{}", "{}"}}};
}

std::vector<Stored_Object> write_attributed(const std::string& path, const Codec_Options& codec, Way way) {
  std::vector<Stored_Object> places;
  std::string error;
  ::unlink(path.c_str());
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  EXPECT_TRUE(writer) << error;
  unsigned long long ordinal = 0;
  for (const Attributed_Object& one : attributed_objects()) {
    Object_Head head = test_head(one.object, ++ordinal);
    head.attributes = one.attributes;
    places.emplace_back();
    EXPECT_TRUE(writer->set_directory(directory_of(head.path)));
    if (way == Way::IMAGE) {
      Object_Image image;
      EXPECT_TRUE(image.encode(head, one.object.content.data(), codec, error) && writer->append(image, places.back()))
          << error;
    } else {
      EXPECT_TRUE(writer->begin_object(head, codec) &&
                  writer->write(one.object.content.data(), one.object.content.size()) &&
                  writer->end_object(places.back()))
          << writer->error();
    }
  }
  EXPECT_TRUE(writer->finish()) << writer->error();
  return places;
}

void expect_attributed(const std::string& path, const std::vector<Stored_Object>& places) {
  std::vector<Test_Object> plain;
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error);
  ASSERT_TRUE(reader) << error;
  for (const Attributed_Object& one : attributed_objects()) {
    const auto object = reader->object(places[plain.size()].offset, error);
    ASSERT_TRUE(object) << error;
    EXPECT_EQ(one.attributes.common, object->head().attributes.common) << one.object.key;
    EXPECT_EQ(one.attributes.own, object->head().attributes.own) << one.object.key;
    EXPECT_EQ("", object->attributes_problem());
    plain.push_back(one.object);
  }
  expect_round_trip(path, plain, places);
}

TEST(attributes_on_media, come_back_beside_the_content_in_every_way_of_writing) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (const MTF_Compression compression : {MTF_COMPRESSION_NONE, MTF_COMPRESSION_ZSTD})
    for (const Way way : {Way::IMAGE, Way::STREAMED})
      expect_attributed(path, write_attributed(path, {compression, 1}, way));
}

TEST(attributes_on_media, are_the_same_bytes_whether_the_object_was_in_memory_or_streamed) {
  Scratch_Folder folder;
  write_attributed(folder.file("image"), {}, Way::IMAGE);
  write_attributed(folder.file("streamed"), {}, Way::STREAMED);
  EXPECT_TRUE(load(folder.file("image")) == load(folder.file("streamed")));
}

// Damage inside the stream costs the attributes of that object, never its content, and is named.
TEST(attributes_on_media, damage_to_them_costs_no_content) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto places = write_attributed(path, {}, Way::IMAGE);
  const std::string good = load(path);
  const auto objects = attributed_objects();
  const size_t victim = 4;
  const size_t begin = good.find("OBSA", static_cast<size_t>(places[victim].offset));
  ASSERT_NE(std::string::npos, begin);
  const size_t data = begin + MTF_Format::STREAM_HEADER;
  const size_t length =
      ATTRIBUTES_FIXED + objects[victim].attributes.common.size() + objects[victim].attributes.own.size() + CHECK;
  unsigned tried = 0;
  for (size_t at = data; at < data + length; at += 17, ++tried) {
    std::string bad = good;
    bad[at] = static_cast<char>(bad[at] ^ 1 << at % 8);
    save(path, bad);
    std::string error;
    const auto reader = Medium_Reader::open(path, 0, error);
    ASSERT_TRUE(reader) << error;
    for (size_t i = 0; i < objects.size(); ++i) {
      const auto object = reader->object(places[i].offset, error);
      ASSERT_TRUE(object) << at << ": " << error;
      EXPECT_EQ(i == victim, !object->attributes_problem().empty()) << at;
      EXPECT_TRUE(i == victim ? object->head().attributes.empty()
                              : object->head().attributes.common == objects[i].attributes.common)
          << at;
      std::string content;
      EXPECT_EQ(Read_Outcome::END, read_all(*object, content)) << object->error();
      EXPECT_TRUE(content == objects[i].object.content) << at;
    }
    const auto problems = problems_of(path);
    ASSERT_EQ(1u, problems.size()) << at;
    EXPECT_NE(std::string::npos, problems[0].message.find("\"bucket/any bytes\"")) << problems[0].message;
    EXPECT_NE(std::string::npos, problems[0].message.find("content is not affected")) << problems[0].message;
  }
  EXPECT_LT(30u, tried);
}

TEST(attributes_on_media, texts_too_long_for_the_stream_are_left_out_and_the_object_is_stored) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::string error;
  const auto writer = Medium_Writer::create(path, test_identity(), error);
  ASSERT_TRUE(writer) << error;
  const Test_Object object{"k", "content"};
  Object_Head head = test_head(object, 1);
  head.attributes.common.assign(static_cast<size_t>(MAX_ATTRIBUTES_STREAM), 'x');
  Object_Image image;
  Stored_Object stored;
  ASSERT_TRUE(writer->set_directory(directory_of(head.path)));
  ASSERT_TRUE(image.encode(head, object.content.data(), {}, error)) << error;
  ASSERT_TRUE(writer->append(image, stored));
  ASSERT_TRUE(writer->finish());
  expect_round_trip(path, {object}, {stored});
}

/// A source whose readers can tell attributes.
struct Attributed_Source : Fake_Source {
  std::map<std::string, File_Attributes> attributes; ///< by "bucket/key"
  std::map<std::string, std::string> not_had;
};

class Attributed_Reader : public Fake_Reader, public IFile_Attributes_Source {
public:
  explicit Attributed_Reader(Attributed_Source& source) : Fake_Reader(source), source_(source) {}
  int open(const char* path) override {
    path_ = path + 1;
    return Fake_Reader::open(path);
  }
  void attributes(File_Attributes& attributes, std::vector<std::string>& problems) override {
    EXPECT_TRUE(is_open());
    attributes = source_.attributes[path_];
    const auto found = source_.not_had.find(path_);
    if (found != source_.not_had.end())
      problems.push_back(found->second);
  }

private:
  Attributed_Source& source_;
  std::string path_;
};

class Attributed_Callback : public Fake_Callback {
public:
  explicit Attributed_Callback(Attributed_Source& source) : Fake_Callback(source), source_(source) {}
  IFile_Reader_var make_file_reader() override { return IFile_Reader_var(new Attributed_Reader(source_)); }

private:
  Attributed_Source& source_;
};

class Attributed_Factory : public IBackup_Callback_Factory {
public:
  explicit Attributed_Factory(Attributed_Source& source) : source_(source) {}
  IBackup_Callback_var make() override { return IBackup_Callback_var(new Attributed_Callback(source_)); }

private:
  Attributed_Source& source_;
};

constexpr const char* MD5_OF_WHOLE = "9e107d9d372bb6826bd81d3542a419d6"; // of WHOLE
constexpr const char* WHOLE = "The quick brown fox jumps over the lazy dog";

/// Where objects are restored to.
struct Attributed_Target {
  std::mutex mutex;
  std::map<std::string, std::pair<std::string, File_Attributes>> objects;
  std::map<std::string, std::vector<std::string>> refuses; ///< by path
  bool takes_attributes = true;
};

class Plain_Writer : public File_Writer_Base {
public:
  explicit Plain_Writer(Attributed_Target& target) : target_(target) {}
  Error_Code open(const char* path, ACE_UINT64) override {
    path_ = path + 1;
    return E_OK;
  }
  bool is_open() override { return true; }
  Error_Code write(const char* data, size_t length) override {
    data_.append(data, length);
    return E_OK;
  }
  Error_Code close() override {
    const std::lock_guard<std::mutex> guard(target_.mutex);
    target_.objects[path_] = {data_, given_};
    return E_OK;
  }

protected:
  Attributed_Target& target_;
  std::string path_, data_;
  File_Attributes given_;
};

class Attributed_Writer : public Plain_Writer, public IFile_Attributes_Sink {
public:
  using Plain_Writer::Plain_Writer;
  void attributes(const File_Attributes& attributes) override { given_ = attributes; }
  const std::vector<std::string>& refused() const override {
    static const std::vector<std::string> nothing;
    const auto found = target_.refuses.find(path_); // channels look at the same time
    return found == target_.refuses.end() ? nothing : found->second;
  }
};

class Attributed_Restore : public Restore_Callback_Base {
public:
  explicit Attributed_Restore(Attributed_Target& target) : target_(target) {}
  char directory_separator() override { return '/'; }
  bool unlink(const char*) override { return true; }
  IFile_Writer_var make_file_writer() override {
    return target_.takes_attributes ? IFile_Writer_var(new Attributed_Writer(target_))
                                    : IFile_Writer_var(new Plain_Writer(target_));
  }

private:
  Attributed_Target& target_;
};

class Attributed_Restore_Factory : public IRestore_Callback_Factory {
public:
  explicit Attributed_Restore_Factory(Attributed_Target& target) : target_(target) {}
  IRestore_Callback_var make() override { return IRestore_Callback_var(new Attributed_Restore(target_)); }

private:
  Attributed_Target& target_;
};

class attributes_in_engines : public testing::Test {
protected:
  void SetUp() override {
    char name[] = "/tmp/attributes_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    root_ = name;
    url_ = "file://" + root_ + "/pool";
    ASSERT_TRUE(Pool::create(url_, "pool-uuid", error_)) << error_;
    ASSERT_TRUE(Pool::open(url_, "", pool_, error_)) << error_;
    for (unsigned i = 0; i < 40; ++i) {
      const std::string path = "b/f" + std::to_string(i / 10) + "/o" + std::to_string(100 + i);
      source_.add(path, noise(i * 997, i));
      source_.attributes[path] = {R"({"kind":)" + std::to_string(i % 3) + "}", R"({"own":)" + std::to_string(i) + "}"};
    }
    source_.attributes["b/f0/o100"] = File_Attributes();
  }
  void TearDown() override { fs::remove_all(root_); }

  /// Objects above `small_object` go through the channel's writer.
  void back_up(unsigned number, size_t small_object = 1u << 20, bool incremental = false) {
    Backup_Order order;
    order.uuid = "set-" + std::to_string(number);
    order.uri_prefix = "host/res/set-" + std::to_string(number);
    order.channels = 2;
    order.base_seq = number - 1;
    order.incremental = incremental;
    order.limits.small_object = small_object;
    order.sources = {"/b/"};
    order.factory = IBackup_Callback_Factory_var(new Attributed_Factory(source_));
    events_ = new Fake_Events;
    Event_Handler_var handler(events_);
    handler_ = handler;
    Metadata metadata;
    Backup_Engine engine(order, handler, metadata, nullptr);
    ASSERT_TRUE(engine.run(url_, "")) << engine.failure();
    EXPECT_TRUE(events_->adds_up());
    record_ = Set_Record();
    record_.uuid = order.uuid;
    record_.uri = metadata.set_uri;
    record_.seq = metadata.seq;
    record_.minor_resource_id = "res";
    for (const json_spirit::Value& value : metadata.media)
      record_.media.push_back({json_spirit::require_str(value.get_obj(), "name"),
                               json_spirit::find(value.get_obj(), "size")->get_uint64(),
                               static_cast<unsigned>(json_spirit::find(value.get_obj(), "family")->get_uint64())});
    ASSERT_TRUE(write_set_record(pool_.set_folder(record_.uri), record_, error_)) << error_;
  }

  bool restore() {
    Restore_Order order;
    order.factory = IRestore_Callback_Factory_var(new Attributed_Restore_Factory(target_));
    order.uri_prefix = record_.uri;
    order.seq = record_.seq;
    order.concurrent = 4;
    events_ = new Fake_Events;
    Event_Handler_var handler(events_);
    handler_ = handler;
    Restore_Engine engine(order, handler, nullptr);
    const bool done = engine.run(url_, "");
    EXPECT_TRUE(events_->adds_up());
    code_ = engine.err_code();
    return done;
  }

  void expect_restored() {
    ASSERT_EQ(source_.objects.size(), target_.objects.size());
    for (const auto& [path, object] : source_.objects) {
      const auto& [data, attributes] = target_.objects[path];
      EXPECT_TRUE(object.data == data) << path;
      EXPECT_EQ(source_.attributes[path].common, attributes.common) << path;
      EXPECT_EQ(source_.attributes[path].own, attributes.own) << path;
    }
  }

  void expect_in_catalog() {
    const auto catalog = Catalog_Reader::open(pool_.set_folder(record_.uri), error_);
    ASSERT_TRUE(catalog) << error_;
    unsigned found = 0;
    ASSERT_TRUE(catalog->walk(
        "",
        [&](const Catalog_Object& object) {
          ++found;
          EXPECT_EQ(source_.attributes[object.path].common, object.attributes.common) << object.path;
          EXPECT_EQ(source_.attributes[object.path].own, object.attributes.own) << object.path;
          return true;
        },
        error_));
    EXPECT_EQ(source_.objects.size(), found);
  }

  std::string root_, url_, error_;
  Pool pool_;
  Attributed_Source source_;
  Attributed_Target target_;
  Set_Record record_;
  Fake_Events* events_ = nullptr;
  Event_Handler_var handler_;
  Error_Code code_ = E_OK;
};

TEST_F(attributes_in_engines, small_and_streamed_objects_keep_them_in_catalog_and_restore) {
  for (const unsigned number : {1u, 2u}) {
    back_up(number, number == 1 ? 1u << 20 : 5000);
    expect_in_catalog();
    target_.objects.clear();
    ASSERT_TRUE(restore());
    EXPECT_EQ(E_OK, code_);
    EXPECT_EQ(0u, events_->figure("incomplete"));
    expect_restored();
    Verify_Report report;
    EXPECT_TRUE(verify_set(pool_, record_, {}, report)) << (report.damages.empty() ? "" : report.damages[0].message);
  }
}

TEST_F(attributes_in_engines, unchanged_objects_keep_them_by_reference) {
  back_up(1);
  const unsigned opened = source_.opened;
  source_.at("b/f1/o110").data += "more";
  source_.attributes["b/f1/o110"].common = R"({"kind":"new"})";
  // An object that is not read again has what the base knows of it.
  back_up(2, 1u << 20, true);
  EXPECT_EQ(opened + 1, source_.opened);
  EXPECT_EQ(39u, events_->figure("unchanged"));
  expect_in_catalog();
  ASSERT_TRUE(restore());
  expect_restored();
}

TEST_F(attributes_in_engines, same_object_under_another_date_keeps_its_data_and_gets_the_date) {
  const std::string md5 = R"({"etag":"9e107d9d372bb6826bd81d3542a419d6"})";
  const std::string path = "b/f0/o10";
  for (const char* name : {"1", "2", "3", "4", "7"})
    source_.attributes[path + name] = {R"({"headers":{"content-type":"text/plain"}})", md5};
  source_.attributes[path + "5"].own = R"({"etag":"v1"})";
  source_.attributes[path + "6"].own = "";
  source_.attributes[path + "7"].own = R"({"etag":"9e107d9d372bb6826bd81d3542a419d6-2"})";
  unsigned number = 0;
  for (const size_t small_object : {size_t(1) << 20, size_t(500)}) { // read ahead, and by the channel's writer
    back_up(++number);
    for (const char* name : {"1", "2", "3", "4", "5", "6", "7"})
      source_.at(path + name).mtime += 3600;
    const std::string digit = std::to_string(number);
    source_.attributes[path + "2"].own = R"({"etag":"9e107d9d372bb6826bd81d3542a419d)" + digit + "\"}";
    source_.at(path + "2").data[0] ^= 1;
    source_.attributes[path + "3"].common = R"({"headers":{"content-type":"text/)" + digit + "\"}}";
    source_.attributes[path + "4"].own =
        R"({"checksums":{"crc32":")" + digit + R"("},"etag":"9e107d9d372bb6826bd81d3542a419d6"})";
    back_up(++number, small_object, true);
    EXPECT_EQ(4u, events_->figure("saved")) << "another ETag, other attributes, an ETag that is no digest, none";
    EXPECT_EQ(36u, events_->figure("unchanged"));
    const auto catalog = Catalog_Reader::open(pool_.set_folder(record_.uri), error_);
    ASSERT_TRUE(catalog) << error_;
    for (const char* name : {"1", "2", "3", "4", "5", "6", "7"}) {
      Catalog_Object object;
      ASSERT_TRUE(catalog->find(path + name, object, error_));
      EXPECT_EQ(source_.at(path + name).mtime, object.mtime) << name;
      const bool kept = std::string("147").find(name) != std::string::npos;
      EXPECT_EQ(kept ? 1u : 0u, object.set) << name;
    }
    ASSERT_TRUE(restore());
    for (const auto& [name, object] : source_.objects)
      EXPECT_TRUE(object.data == target_.objects[name].first) << name;
    back_up(++number, 1u << 20, true);
    EXPECT_EQ(40u, events_->figure("unchanged")) << "nothing is asked again";
  }
}

TEST_F(attributes_in_engines, writer_that_takes_none_gets_the_content_as_before) {
  back_up(1);
  target_.takes_attributes = false;
  ASSERT_TRUE(restore());
  EXPECT_EQ(0u, events_->figure("incomplete"));
  ASSERT_EQ(source_.objects.size(), target_.objects.size());
  for (const auto& [path, object] : source_.objects) {
    EXPECT_TRUE(object.data == target_.objects[path].first) << path;
    EXPECT_TRUE(target_.objects[path].second.empty());
  }
}

TEST_F(attributes_in_engines, what_could_not_be_had_is_named_and_the_object_is_saved) {
  source_.not_had["b/f2/o121"] = "its tags (AccessDenied: no)";
  back_up(1);
  EXPECT_EQ(40u, events_->figure("saved"));
  EXPECT_EQ(1u, events_->figure("incomplete"));
  EXPECT_TRUE(events_->named("/b/f2/o121"));
  ASSERT_EQ(1u, events_->items.size());
  EXPECT_EQ("The object is saved without all that belongs to it: its tags (AccessDenied: no).",
            json_spirit::optional_str(events_->items[0], "message"));
  std::string error;
  const auto catalog = Catalog_Reader::open(pool_.set_folder(record_.uri), error);
  ASSERT_TRUE(catalog) << error;
  unsigned problems = 0;
  ASSERT_TRUE(catalog->problems(
      [&](const Catalog_Problem& one) {
        EXPECT_EQ(Catalog_Problem::INCOMPLETE, one.kind);
        EXPECT_EQ("b/f2/o121", one.path);
        EXPECT_EQ("The object is saved without all that belongs to it: its tags (AccessDenied: no).", one.message);
        return ++problems != 0;
      },
      error));
  EXPECT_EQ(1u, problems);
}

TEST_F(attributes_in_engines, what_the_target_refused_is_named_and_the_object_counts_as_saved) {
  back_up(1);
  target_.refuses["b/f3/o131"] = {"the storage class 'COLD' (InvalidStorageClass: no)", "the tags (2) (no)"};
  ASSERT_TRUE(restore());
  EXPECT_EQ(40u, events_->figure("saved"));
  EXPECT_EQ(1u, events_->figure("incomplete"));
  ASSERT_EQ(1u, events_->items.size());
  EXPECT_EQ("/b/f3/o131", json_spirit::optional_str(events_->items[0], "name"));
  EXPECT_EQ(
      "The object is restored without all that belongs to it: the storage class 'COLD' (InvalidStorageClass: no); "
      "the tags (2) (no).",
      json_spirit::optional_str(events_->items[0], "message"));
}

TEST_F(attributes_in_engines, damaged_ones_are_replaced_by_those_of_the_catalog_and_named) {
  back_up(1);
  const std::string common = source_.attributes["b/f1/o111"].common;
  for (const Set_Record::Medium& medium : record_.media) {
    const std::string path = pool_.set_folder(record_.uri) + "/" + medium.name;
    std::string bytes = load(path);
    const size_t at = bytes.find(R"({"own":11})");
    if (at == std::string::npos)
      continue;
    bytes[at + 2] = 'X';
    save(path, bytes);
  }
  Verify_Report report;
  EXPECT_FALSE(verify_set(pool_, record_, {}, report));
  ASSERT_EQ(1u, report.damages.size());
  EXPECT_EQ("b/f1/o111", report.damages[0].path);
  ASSERT_TRUE(restore());
  EXPECT_EQ(40u, events_->figure("saved"));
  EXPECT_EQ(1u, events_->figure("incomplete"));
  EXPECT_TRUE(events_->named("/b/f1/o111"));
  EXPECT_EQ(common, target_.objects["b/f1/o111"].second.common);
  EXPECT_TRUE(source_.objects["b/f1/o111"].data == target_.objects["b/f1/o111"].first);
}

// A length announced too short by a service that has just replaced the object: only the ETag tells.
TEST_F(attributes_in_engines, other_size_than_listed_counts_only_with_the_content_that_the_etag_stands_for) {
  const std::string whole = WHOLE;
  const auto add = [&](const char* name, const std::string& data, const std::string& etag) {
    source_.add(name, data);
    source_.at(name).listed_size = whole.size() + 1;
    source_.attributes[name] = {"", R"({"etag":")" + etag + "\"}"};
  };
  for (const size_t small_object : {size_t(1) << 20, size_t(1)}) {
    SCOPED_TRACE(small_object);
    source_.objects.clear();
    source_.order.clear();
    add("b/good", whole, MD5_OF_WHOLE);
    add("b/good in capitals", whole, "9E107D9D372BB6826BD81D3542A419D6");
    add("b/cut", whole.substr(0, 40), MD5_OF_WHOLE);
    add("b/cut in parts", whole.substr(0, 40), std::string(MD5_OF_WHOLE) + "-3");
    back_up(small_object == 1 ? 2 : 1, small_object);
    EXPECT_EQ(3u, events_->figure("saved"));
    EXPECT_EQ(1u, events_->figure("failed"));
    EXPECT_TRUE(events_->named("/b/cut"));
    EXPECT_FALSE(events_->named("/b/cut in parts")) << "nothing speaks against it";
  }
}

} // namespace
