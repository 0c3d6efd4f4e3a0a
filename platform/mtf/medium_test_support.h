#pragma once

#include "platform/mtf/media_check.h"
#include "platform/mtf/medium_reader.h"
#include "platform/mtf/medium_writer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

// What the tests of media share: a folder of their own, contents made from a seed, and whole media written and read.

class Scratch_Folder {
public:
  Scratch_Folder() {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base == nullptr ? "/tmp" : base) + "/medium_test.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr)
      path_.clear();
  }
  ~Scratch_Folder() {
    for (const std::string& file : files_)
      ::unlink(file.c_str());
    ::rmdir(path_.c_str());
  }
  std::string file(const std::string& name) {
    files_.push_back(path_ + "/" + name);
    return files_.back();
  }

private:
  std::string path_;
  std::vector<std::string> files_;
};

inline std::string load(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}
inline void save(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

/// Bytes without pattern, always the same for a seed.
inline std::string noise(size_t size, unsigned seed) {
  std::string out(size, '\0');
  unsigned long long x = 0x9E3779B97F4A7C15ull * (seed + 1);
  for (size_t i = 0; i < size; ++i) {
    x ^= x << 13;
    x ^= x >> 7;
    x ^= x << 17;
    out[i] = static_cast<char>(x >> 32);
  }
  return out;
}
/// Bytes that compress well.
inline std::string prose(size_t size, unsigned seed) {
  std::string out;
  for (unsigned i = seed; out.size() < size; ++i)
    out += "line " + std::to_string(i * 7919 % 1000) + " of a text that repeats itself\n";
  out.resize(size);
  return out;
}

struct Test_Object {
  std::string key;
  std::string content;
};

inline Medium_Identity test_identity() {
  Medium_Identity identity;
  identity.family = 0x12345678;
  identity.media_name = "medium 1";
  identity.software = "obs-agent";
  identity.set_uuid = "0f0e0d0c-0b0a-0908-0706-050403020100";
  identity.set_name = "daily";
  identity.description = "objects of \xC3\xA9t\xC3\xA9";
  identity.user = "operator";
  identity.machine = "host";
  identity.write_date = 1700000000;
  return identity;
}

/// The cipher of a set, always another one.
inline Set_Cipher_ptr test_cipher() {
  Secret_Key key;
  std::string error;
  key.data()[0] = 7;
  return Set_Cipher::make(key, test_identity().set_uuid, error);
}

inline Object_Head test_head(const Test_Object& object, unsigned long long ordinal) {
  Object_Head head;
  head.path = "bucket/" + object.key;
  head.ordinal = ordinal;
  head.size = object.content.size();
  head.mtime = 1600000000 + static_cast<long long>(ordinal);
  head.seq = 3;
  return head;
}

inline std::string directory_of(const std::string& path) {
  std::string directory = path.substr(0, path.rfind('/') + 1);
  for (char& c : directory)
    if (c == '/')
      c = '\0';
  return directory;
}

enum class Way { IMAGE, STREAMED };

inline bool put_object(Medium_Writer& writer, const Test_Object& object, unsigned long long ordinal,
                       const Codec_Options& codec, Way way, Stored_Object& stored, std::string& error) {
  const Object_Head head = test_head(object, ordinal);
  if (!writer.set_directory(directory_of(head.path)))
    return false;
  if (way == Way::IMAGE) {
    Object_Image image;
    return image.encode(head, object.content.data(), codec, error) && writer.append(image, stored);
  }
  if (!writer.begin_object(head, codec))
    return false;
  for (size_t at = 0; at < object.content.size(); at += 300007)
    if (!writer.write(object.content.data() + at, std::min<size_t>(300007, object.content.size() - at)))
      return false;
  return writer.end_object(stored);
}

/// Writes a whole medium; where each object lies.
inline std::vector<Stored_Object> write_medium(const std::string& path, const std::vector<Test_Object>& objects,
                                               const Codec_Options& codec, Way way) {
  std::vector<Stored_Object> places;
  std::string error;
  ::unlink(path.c_str());
  Medium_Identity identity = test_identity();
  identity.cipher = codec.cipher;
  const auto writer = Medium_Writer::create(path, identity, error);
  EXPECT_TRUE(writer) << error;
  if (!writer)
    return places;
  for (size_t i = 0; i < objects.size(); ++i) {
    places.emplace_back();
    EXPECT_TRUE(put_object(*writer, objects[i], i + 1, codec, way, places.back(), error)) << error << writer->error();
  }
  EXPECT_TRUE(writer->finish()) << writer->error();
  return places;
}

inline Read_Outcome read_all(Object_Reader& reader, std::string& content, size_t piece = 70001) {
  std::vector<char> buffer(piece);
  for (;;) {
    size_t got = 0;
    const Read_Outcome outcome = reader.read(buffer.data(), buffer.size(), got);
    content.append(buffer.data(), got);
    if (outcome != Read_Outcome::MORE)
      return outcome;
  }
}

inline Read_Outcome read_in_place(Object_Reader& reader, std::string& content) {
  for (std::string_view bytes;;) {
    const Read_Outcome outcome = reader.next(bytes);
    content.append(bytes);
    if (outcome != Read_Outcome::MORE)
      return outcome;
  }
}

inline std::vector<Media_Problem> problems_of(const std::string& path, Media_Figures* figures = nullptr,
                                              const Set_Cipher_ptr& cipher = nullptr) {
  std::vector<Media_Problem> problems;
  Media_Figures own;
  std::string error;
  EXPECT_TRUE(check_medium(
      path,
      [&](const Media_Problem& problem) {
        problems.push_back(problem);
        return true;
      },
      own, error, cipher))
      << error;
  if (figures != nullptr)
    *figures = own;
  return problems;
}

/// Every object comes back as it was, and the strict check finds nothing.
inline void expect_round_trip(const std::string& path, const std::vector<Test_Object>& objects,
                              const std::vector<Stored_Object>& places, const Set_Cipher_ptr& cipher = nullptr) {
  std::string error;
  const auto reader = Medium_Reader::open(path, 0x12345678, error, cipher);
  ASSERT_TRUE(reader) << error;
  EXPECT_TRUE(reader->complete(error)) << error;
  ASSERT_EQ(places.size(), objects.size());
  for (size_t i = 0; i < objects.size(); ++i) {
    const auto object = reader->object(places[i].offset, error);
    ASSERT_TRUE(object) << error;
    EXPECT_EQ(object->head().path, "bucket/" + objects[i].key);
    EXPECT_EQ(object->head().ordinal, i + 1);
    EXPECT_EQ(object->head().size, objects[i].content.size());
    EXPECT_EQ(object->head().mtime, 1600000001 + static_cast<long long>(i));
    EXPECT_EQ(object->head().seq, 3u);
    std::string content;
    ASSERT_EQ(read_all(*object, content), Read_Outcome::END) << object->error();
    EXPECT_TRUE(content == objects[i].content) << objects[i].key;
    EXPECT_EQ(object->stored(), places[i].stored);
    EXPECT_EQ(std::string(object->sha256(), object->sha256() + 32),
              std::string(places[i].sha256, places[i].sha256 + 32));
    const auto again = reader->object(places[i].offset, error);
    ASSERT_TRUE(again) << error;
    content.clear();
    ASSERT_EQ(read_in_place(*again, content), Read_Outcome::END) << again->error();
    EXPECT_TRUE(content == objects[i].content) << objects[i].key;
  }
  Media_Figures figures;
  for (const Media_Problem& problem : problems_of(path, &figures, cipher))
    ADD_FAILURE() << problem.offset << ": " << problem.message;
  EXPECT_EQ(figures.objects, objects.size());
}
