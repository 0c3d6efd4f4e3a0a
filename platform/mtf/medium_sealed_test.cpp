#include "platform/mtf/medium_test_support.h"

#include "platform/mtf/medium_source.h"
#include "platform/mtf/object_stream.h"
#include "platform/mtf/sealed_stream.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>

// Media of encrypted sets, and what somebody can do to them who has the media and not the key: all checks that need no
// key are then right, since whoever changes a medium can make them anew.

using namespace MTF_Format;

namespace {

const std::vector<size_t> EDGE_SIZES = {0,    1,    2,         3,     4,         5,         511,           1023,
                                        1024, 1025, CHUNK - 1, CHUNK, CHUNK + 1, 2 * CHUNK, 3 * CHUNK + 17};

std::vector<Test_Object> edge_objects(bool compressible) {
  std::vector<Test_Object> objects;
  for (size_t i = 0; i < EDGE_SIZES.size(); ++i)
    objects.push_back({"dir" + std::to_string(i % 3) + "/object" + std::to_string(i),
                       compressible ? prose(EDGE_SIZES[i], static_cast<unsigned>(i))
                                    : noise(EDGE_SIZES[i], static_cast<unsigned>(i))});
  return objects;
}

TEST(sealed_medium, objects_of_all_sizes_come_back_both_ways) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (const MTF_Compression compression :
       {MTF_COMPRESSION_NONE, MTF_COMPRESSION_AUTO, MTF_COMPRESSION_ZSTD, MTF_COMPRESSION_LZOP})
    for (const bool compressible : {false, true})
      for (const Way way : {Way::IMAGE, Way::STREAMED}) {
        const Codec_Options codec = {compression, 1, test_cipher()};
        const auto objects = edge_objects(compressible);
        const auto places = write_medium(path, objects, codec, way);
        expect_round_trip(path, objects, places, codec.cipher);
        if (compression != MTF_COMPRESSION_NONE && compressible) {
          EXPECT_LT(places.back().stored, places.back().size / 2);
        }
      }
}

TEST(sealed_medium, every_length_that_moves_the_padding_over_a_block_boundary_comes_back) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  std::vector<Test_Object> objects;
  for (size_t size = 0; size <= 1100; ++size)
    objects.push_back({"o" + std::to_string(size), noise(size, static_cast<unsigned>(size))});
  const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
  expect_round_trip(path, objects, write_medium(path, objects, codec, Way::IMAGE), codec.cipher);
}

TEST(sealed_medium, nothing_of_names_and_contents_can_be_read) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const std::vector<Test_Object> objects = {{"secret/folder/secret name", "secret content"},
                                            {std::string(400, 's') + "/secret\xFF", prose(5000, 1)},
                                            {"secret/empty", ""}};
  for (const Way way : {Way::IMAGE, Way::STREAMED}) {
    write_medium(path, objects, {MTF_COMPRESSION_NONE, 1, test_cipher()}, way);
    const std::string bytes = load(path);
    for (const std::string& word : {std::string("secret"), std::string("s\0e\0c\0r\0e\0t", 11), std::string("bucket"),
                                    std::string("736563726574"), std::string("repeats itself"), std::string("daily"),
                                    std::string("d\0a\0i\0l\0y", 9), std::string(20, 's')})
      EXPECT_EQ(bytes.find(word), std::string::npos) << word;
  }
}

TEST(sealed_medium, two_writings_of_an_object_have_no_sealed_byte_in_common) {
  Scratch_Folder folder;
  const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
  std::string error;
  const Test_Object object = {"o", std::string(3000, 'a')};
  Object_Image first, second;
  ASSERT_TRUE(first.encode(test_head(object, 1), object.content.data(), codec, error)) << error;
  ASSERT_TRUE(second.encode(test_head(object, 1), object.content.data(), codec, error)) << error;
  ASSERT_EQ(first.bytes().size(), second.bytes().size());
  for (size_t at = 400; at + 16 < 3000; ++at)
    EXPECT_NE(0, std::memcmp(first.bytes().data() + at, second.bytes().data() + at, 16)) << at;
}

// An object that was given up leaves bytes on the disk that a key must not be used for again.
TEST(sealed_medium, object_begun_again_after_a_cancel_has_another_key) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
  Medium_Identity identity = test_identity();
  identity.cipher = codec.cipher;
  std::string error;
  const auto writer = Medium_Writer::create(path, identity, error);
  ASSERT_TRUE(writer) << error;
  const Test_Object object = {"o", noise(3 * CHUNK, 1)};
  const Object_Head head = test_head(object, 1);
  std::string given_up;
  ASSERT_TRUE(writer->begin_object(head, codec));
  ASSERT_TRUE(writer->write(object.content.data(), 2 * CHUNK + 5));
  given_up = load(path).substr(5 * FLB, 1000);
  ASSERT_TRUE(writer->cancel_object());
  Stored_Object stored;
  ASSERT_TRUE(put_object(*writer, object, 1, codec, Way::STREAMED, stored, error));
  ASSERT_TRUE(writer->finish());
  const std::string kept = load(path).substr(5 * FLB, 1000);
  ASSERT_EQ(given_up.size(), 1000u);
  EXPECT_NE(given_up.substr(400), kept.substr(400));
  expect_round_trip(path, {object}, {stored}, codec.cipher);
}

TEST(sealed_medium, object_of_another_cipher_or_none_is_refused_by_the_writer) {
  Scratch_Folder folder;
  std::string error;
  const Test_Object object = {"o", "content"};
  for (const bool sealed : {false, true}) {
    Medium_Identity identity = test_identity();
    identity.cipher = sealed ? test_cipher() : nullptr;
    for (const Way way : {Way::IMAGE, Way::STREAMED}) {
      ::unlink(folder.file("medium").c_str());
      const auto writer = Medium_Writer::create(folder.file("medium"), identity, error);
      ASSERT_TRUE(writer) << error;
      Stored_Object stored;
      EXPECT_FALSE(put_object(*writer, object, 1, {MTF_COMPRESSION_NONE, 1, test_cipher()}, way, stored, error));
      EXPECT_NE(writer->error().find("not encrypted as its medium"), std::string::npos) << writer->error();
      if (!sealed)
        continue;
      ::unlink(folder.file("medium").c_str());
      const auto other = Medium_Writer::create(folder.file("medium"), identity, error);
      EXPECT_FALSE(put_object(*other, object, 1, {}, way, stored, error));
    }
  }
}

TEST(sealed_medium, medium_alone_tells_set_and_key_from_either_end) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
  const std::vector<Test_Object> objects = {{"a", "1"}};
  const auto places = write_medium(path, objects, codec, Way::IMAGE);
  std::string bytes = load(path);
  Medium_Set set;
  std::string error;
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(read_medium_set(path, set, error)) << error;
    EXPECT_EQ(set.uuid, test_identity().set_uuid);
    EXPECT_EQ(set.wrapped_key, codec.cipher->wrapped());
    EXPECT_EQ(set.family, test_identity().family);
    Secret_Key pool;
    pool.data()[0] = 7;
    const Set_Cipher_ptr cipher = Set_Cipher::open(pool, set.uuid, set.wrapped_key, error);
    ASSERT_TRUE(cipher) << error;
    const auto reader = Medium_Reader::open(path, 0, error, cipher);
    ASSERT_TRUE(reader) << error;
    const auto object = reader->object(places[0].offset, error);
    ASSERT_TRUE(object) << error;
    EXPECT_EQ(object->head().path, "bucket/a");
    bytes[3 * FLB + 60] |= static_cast<char>(0x80);
    save(path, bytes);
  }
  // Without its first block as well nobody could open it.
  std::string headless = bytes;
  headless[60] ^= 1;
  save(path, headless);
  EXPECT_FALSE(read_medium_set(path, set, error));
  EXPECT_FALSE(Medium_Reader::open(path, 0, error));
  bytes[bytes.size() - 2 * FLB + 60] ^= 1;
  save(path, bytes);
  EXPECT_FALSE(read_medium_set(path, set, error));
  EXPECT_NE(error.find("volume block is damaged"), std::string::npos) << error;
  write_medium(path, objects, {}, Way::IMAGE);
  ASSERT_TRUE(read_medium_set(path, set, error)) << error;
  EXPECT_EQ(set.wrapped_key, "");
  EXPECT_EQ(set.name, "daily");
}

TEST(sealed_medium, without_the_key_structure_and_checks_can_be_walked_and_no_object_read) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto objects = edge_objects(true);
  const auto places = write_medium(path, objects, {MTF_COMPRESSION_ZSTD, 1, test_cipher()}, Way::STREAMED);
  Media_Figures figures;
  EXPECT_TRUE(problems_of(path, &figures).empty());
  EXPECT_EQ(figures.objects, objects.size());
  unsigned long long bytes = 0;
  for (const Test_Object& object : objects)
    bytes += object.content.size();
  EXPECT_EQ(figures.bytes, bytes);
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error);
  ASSERT_TRUE(reader) << error;
  EXPECT_FALSE(reader->object(places[3].offset, error));
  EXPECT_NE(error.find("is encrypted, and its key is not known"), std::string::npos) << error;
}

TEST(sealed_medium, another_sets_cipher_opens_nothing_and_says_so) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto places = write_medium(path, edge_objects(false), {MTF_COMPRESSION_NONE, 1, test_cipher()}, Way::IMAGE);
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error, test_cipher());
  ASSERT_TRUE(reader) << error;
  for (const Stored_Object& place : places) {
    EXPECT_FALSE(reader->object(place.offset, error));
    EXPECT_NE(error.find("was not written with this set"), std::string::npos) << error;
  }
  Media_Figures figures;
  const auto problems = problems_of(path, &figures, test_cipher());
  ASSERT_FALSE(problems.empty());
  EXPECT_EQ(figures.objects, 0u);
  EXPECT_NE(problems[0].message.find("was not written with this set"), std::string::npos) << problems[0].message;
}

TEST(sealed_medium, plain_object_in_an_encrypted_set_is_refused) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const auto places = write_medium(path, edge_objects(false), {}, Way::IMAGE);
  std::string error;
  const auto reader = Medium_Reader::open(path, 0, error, test_cipher());
  ASSERT_TRUE(reader) << error;
  EXPECT_FALSE(reader->object(places[2].offset, error));
  EXPECT_NE(error.find("not encrypted, and its set is"), std::string::npos) << error;
}

/// Two small objects with attributes of one length; where they lie.
std::vector<Stored_Object> write_attributed(const std::string& path, const Codec_Options& codec, Way way) {
  std::vector<Stored_Object> places;
  std::string error;
  ::unlink(path.c_str());
  Medium_Identity identity = test_identity();
  identity.cipher = codec.cipher;
  const auto writer = Medium_Writer::create(path, identity, error);
  EXPECT_TRUE(writer) << error;
  for (unsigned i = 0; i < 2; ++i) {
    const Test_Object object = {"o" + std::to_string(i), "content"};
    Object_Head head = test_head(object, i + 1);
    head.attributes = {"secret common text", "secret own text " + std::to_string(i)};
    places.emplace_back();
    Object_Image image;
    if (way == Way::IMAGE)
      EXPECT_TRUE(image.encode(head, object.content.data(), codec, error) && writer->append(image, places.back()));
    else
      EXPECT_TRUE(writer->begin_object(head, codec) && writer->write(object.content.data(), object.content.size()) &&
                  writer->end_object(places.back()));
  }
  EXPECT_TRUE(writer->finish());
  return places;
}

/// What stands in front of an object's content, the attributes too.
Object_Start start_of(const std::string& path, const Stored_Object& place, const Set_Cipher_ptr& cipher) {
  std::string error;
  const auto source = Medium_Source::open(path, error, cipher);
  Medium_Window window(*source, FLB);
  Object_Start start;
  EXPECT_TRUE(read_object_start(window, place.offset, start, error)) << error;
  return start;
}

TEST(sealed_medium, attributes_come_back_and_cannot_be_read_otherwise) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  for (const Way way : {Way::IMAGE, Way::STREAMED}) {
    const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
    const auto places = write_attributed(path, codec, way);
    EXPECT_EQ(load(path).find("secret"), std::string::npos);
    EXPECT_TRUE(problems_of(path).empty());
    EXPECT_TRUE(problems_of(path, nullptr, codec.cipher).empty());
    const Object_Start start = start_of(path, places[1], codec.cipher);
    EXPECT_EQ(start.attributes_problem, "");
    EXPECT_EQ(start.head.attributes.common, "secret common text");
    EXPECT_EQ(start.head.attributes.own, "secret own text 1");
    EXPECT_EQ(start_of(path, places[1], nullptr).head.attributes.common, "");
  }
}

TEST(sealed_medium, attributes_of_another_object_or_taken_out_are_found_and_cost_no_content) {
  Scratch_Folder folder;
  const std::string path = folder.file("medium");
  const Codec_Options codec = {MTF_COMPRESSION_NONE, 1, test_cipher()};
  const auto places = write_attributed(path, codec, Way::IMAGE);
  const std::string good = load(path);
  const Medium_Stream a = start_of(path, places[0], codec.cipher).attributes;
  const Medium_Stream b = start_of(path, places[1], codec.cipher).attributes;
  const size_t size = static_cast<size_t>(a.header.length);
  ASSERT_EQ(size, b.header.length);
  std::string swapped = good;
  swapped.replace(static_cast<size_t>(a.data()), size, good, static_cast<size_t>(b.data()), size);

  // Taken out, the rest of the object moves up and the padding grows.
  std::string taken = good.substr(static_cast<size_t>(places[0].offset), static_cast<size_t>(places[0].stored));
  const size_t from = static_cast<size_t>(a.offset - places[0].offset);
  const size_t removed = static_cast<size_t>(a.next() - a.offset);
  taken.erase(from, removed);
  size_t spad = taken.rfind("SPAD");
  ASSERT_NE(spad, std::string::npos);
  const uint64_t padding = get64(bytes_of(taken) + spad + 8) + removed;
  ASSERT_LT(padding, FLB) << "the object is to have one block more than this test can move";
  taken.append(removed, '\0');
  put_stream_header(bytes_at(taken, spad), SPAD, 0, padding);
  std::string cut = good;
  cut.replace(static_cast<size_t>(places[0].offset), taken.size(), taken);

  for (const auto& [bytes, reason] : {std::make_pair(swapped, "not the one that was written with this object"),
                                      std::make_pair(cut, "was taken out")}) {
    save(path, bytes);
    EXPECT_TRUE(problems_of(path).empty());
    const Object_Start start = start_of(path, places[0], codec.cipher);
    EXPECT_NE(start.attributes_problem.find(reason), std::string::npos) << start.attributes_problem;
    const auto problems = problems_of(path, nullptr, codec.cipher);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_NE(problems[0].message.find(reason), std::string::npos) << problems[0].message;
    std::string error, content;
    const auto reader = Medium_Reader::open(path, 0, error, codec.cipher);
    const auto object = reader->object(places[0].offset, error);
    ASSERT_TRUE(object) << error;
    EXPECT_EQ(read_all(*object, content), Read_Outcome::END) << object->error();
    EXPECT_EQ(content, "content");
  }
}

/// A medium of objects of one length, and the streams of each.
class tampered_medium : public ::testing::Test {
protected:
  struct Piece {
    uint32_t id;
    size_t offset; ///< of the stream's header
    size_t data;
    size_t size; ///< of the data
  };

  void SetUp() override {
    path_ = folder_.file("medium");
    codec_.cipher = test_cipher();
    for (unsigned i = 0; i < 3; ++i)
      objects_.push_back({"object" + std::to_string(i), noise(3 * CHUNK + 100, i)});
    places_ = write_medium(path_, objects_, codec_, Way::STREAMED);
    bytes_ = load(path_);
  }

  std::vector<Piece> streams(size_t object) {
    std::string error;
    save(path_, bytes_);
    const auto source = Medium_Source::open(path_, error);
    Medium_Window window(*source, FLB);
    std::vector<Piece> pieces;
    Medium_Stream stream;
    size_t at = static_cast<size_t>(places_[object].offset);
    at += get16(bytes_of(bytes_) + at + 8);
    while (read_stream(window, at, stream, error) && stream.header.id != SPAD) {
      pieces.push_back(
          {stream.header.id, at, static_cast<size_t>(stream.data()), static_cast<size_t>(stream.header.length)});
      at = static_cast<size_t>(stream.next());
    }
    return pieces;
  }
  /// Writes a frame's number and "last", and all checks that need no key.
  void renumber(const Piece& frame, uint32_t sequence, bool last) {
    unsigned char* const data = bytes_at(bytes_, frame.data);
    put32(data + 4, sequence);
    put64(data + 16, XXH3_64bits(data + FRAME_HEADER, frame.size - FRAME_HEADER));
    put64(data + 32, XXH3_64bits(data, 32));
    unsigned char* const header = bytes_at(bytes_, frame.offset);
    put16(header + 6, static_cast<uint16_t>(STREAM_VARIABLE | STREAM_ENCRYPTED | (last ? STREAM_VARIABLE_END : 0)));
    put16(header + 20, xor_words(header, 10));
  }
  void swap(const Piece& a, const Piece& b) {
    ASSERT_EQ(a.size, b.size);
    std::swap_ranges(bytes_.begin() + static_cast<std::ptrdiff_t>(a.data),
                     bytes_.begin() + static_cast<std::ptrdiff_t>(a.data + a.size),
                     bytes_.begin() + static_cast<std::ptrdiff_t>(b.data));
  }
  /// What reading an object gives: how many bytes, all of them right, and the end.
  Read_Outcome outcome(size_t object, size_t& handed_out) {
    save(path_, bytes_);
    std::string error, content;
    const auto reader = Medium_Reader::open(path_, 0, error, codec_.cipher);
    EXPECT_TRUE(reader) << error;
    const auto one = reader->object(places_[object].offset, error);
    handed_out = 0;
    error_ = error;
    if (!one)
      return Read_Outcome::DAMAGED;
    const Read_Outcome outcome = read_all(*one, content);
    error_ = one->error();
    handed_out = content.size();
    EXPECT_TRUE(content == objects_[object].content.substr(0, content.size()));
    return outcome;
  }
  /// Nobody without the key sees anything wrong, but for `seen`; whoever has it gets `most` bytes at most of the
  /// object, all right.
  void expect_found(size_t object, size_t most, const std::string& seen = std::string()) {
    size_t handed_out = 0;
    save(path_, bytes_);
    for (const Media_Problem& problem : problems_of(path_))
      EXPECT_TRUE(!seen.empty() && problem.message.find(seen) != std::string::npos)
          << "the tampering is too clumsy to show anything: " << problem.message;
    EXPECT_EQ(outcome(object, handed_out), Read_Outcome::DAMAGED);
    EXPECT_LE(handed_out, most);
    EXPECT_FALSE(problems_of(path_, nullptr, codec_.cipher).empty());
    const std::string error = error_;
    EXPECT_EQ(outcome(2, handed_out), Read_Outcome::END) << "an object that was not touched: " << error_;
    error_ = error;
  }

  Scratch_Folder folder_;
  std::string path_, bytes_, error_;
  Codec_Options codec_;
  std::vector<Test_Object> objects_;
  std::vector<Stored_Object> places_;
};

TEST_F(tampered_medium, untouched_one_is_whole) {
  const auto pieces = streams(0);
  ASSERT_EQ(pieces.size(), 6u);
  EXPECT_EQ(pieces[0].id, OBSH);
  for (size_t i = 1; i < 5; ++i)
    EXPECT_EQ(pieces[i].id, OBSX);
  EXPECT_EQ(pieces[5].id, OBSD);
  renumber(pieces[1], 0, false);
  size_t handed_out = 0;
  EXPECT_EQ(outcome(0, handed_out), Read_Outcome::END) << error_;
}

TEST_F(tampered_medium, chunk_changed_with_its_check_is_found) {
  const auto frame = streams(0)[2];
  bytes_[frame.data + FRAME_HEADER + 1000] ^= 1;
  renumber(frame, 1, false);
  expect_found(0, CHUNK);
  EXPECT_NE(error_.find("bucket/object0"), std::string::npos) << error_;
}

TEST_F(tampered_medium, chunks_swapped_between_objects_are_found) {
  swap(streams(0)[2], streams(1)[2]);
  expect_found(0, CHUNK);
  expect_found(1, CHUNK);
}

TEST_F(tampered_medium, chunks_swapped_within_an_object_are_found) {
  const auto pieces = streams(0);
  swap(pieces[1], pieces[2]);
  renumber(pieces[1], 0, false);
  renumber(pieces[2], 1, false);
  expect_found(0, 0);
}

TEST_F(tampered_medium, chunk_replayed_in_another_place_is_found) {
  const auto pieces = streams(0);
  bytes_.replace(pieces[3].data, pieces[3].size, bytes_, pieces[1].data, pieces[1].size);
  renumber(pieces[3], 2, false);
  expect_found(0, 2 * CHUNK);
}

TEST_F(tampered_medium, object_that_ends_early_is_found) {
  const auto pieces = streams(0);
  // The third chunk says it is the last; the fourth becomes part of the digest's neighbourhood no more.
  renumber(pieces[3], 2, true);
  size_t handed_out = 0;
  EXPECT_EQ(outcome(0, handed_out), Read_Outcome::DAMAGED);
  EXPECT_LE(handed_out, 2u * CHUNK);
  EXPECT_EQ(outcome(2, handed_out), Read_Outcome::END);
}

TEST_F(tampered_medium, last_chunk_that_was_not_the_last_is_found_by_its_own_tag) {
  // Two objects of which one is the beginning of the other, as far as sizes go.
  objects_ = {{"long", noise(3 * CHUNK, 1)}, {"short", noise(2 * CHUNK, 2)}, {"other", "untouched"}};
  places_ = write_medium(path_, objects_, codec_, Way::STREAMED);
  bytes_ = load(path_);
  const auto from = streams(0), to = streams(1);
  ASSERT_EQ(from[2].size, to[2].size);
  bytes_.replace(to[2].data, to[2].size, bytes_, from[2].data, from[2].size);
  renumber(to[2], 1, true);
  expect_found(1, CHUNK);
}

TEST_F(tampered_medium, heads_and_digests_swapped_between_objects_are_found) {
  const std::string before = bytes_;
  swap(streams(0)[5], streams(1)[5]);
  // Verified chunks come first; the last one never does.
  expect_found(0, 3 * CHUNK);
  bytes_ = before;
  // The heads, with the check of the block that they stand in.
  const auto a = streams(0)[0], b = streams(1)[0];
  swap(a, b);
  for (const Piece& head : {a, b}) {
    unsigned char* const data = bytes_at(bytes_, head.data);
    const size_t block = head.offset / FLB * FLB;
    // "object-1" and "object-2"
    unsigned char* const at = bytes_at(bytes_, block);
    at[get16(at + 86) + 14] = static_cast<unsigned char>('0' + get64(data + 8));
    put64(data + HEAD_BLOCK_CHECK, block_check(bytes_of(bytes_) + block, head.offset - block));
    put64(data + head.size - CHECK, XXH3_64bits(data, head.size - CHECK));
  }
  save(path_, bytes_);
  EXPECT_TRUE(problems_of(path_).empty());
  std::string error, content;
  const auto reader = Medium_Reader::open(path_, 0, error, codec_.cipher);
  const auto object = reader->object(places_[0].offset, error);
  ASSERT_TRUE(object) << error;
  EXPECT_EQ(object->head().path, "bucket/object1");
  EXPECT_EQ(read_all(*object, content), Read_Outcome::DAMAGED);
  EXPECT_EQ(content, "");
}

TEST_F(tampered_medium, ordinal_and_salt_of_a_head_cannot_be_changed) {
  const auto head = streams(0)[0];
  for (const size_t at : {size_t(8), size_t(15), size_t(16), size_t(39)}) {
    const std::string before = bytes_;
    unsigned char* const data = bytes_at(bytes_, head.data);
    data[at] ^= 1;
    put64(data + head.size - CHECK, XXH3_64bits(data, head.size - CHECK));
    expect_found(0, 0, at < 16 ? "its name is not that of its object" : "");
    bytes_ = before;
  }
}

TEST_F(tampered_medium, whole_object_of_another_set_is_found) {
  const std::string other_path = folder_.file("other");
  Codec_Options other = codec_;
  other.cipher = test_cipher();
  const auto places = write_medium(other_path, objects_, other, Way::STREAMED);
  ASSERT_EQ(places[0].offset, places_[0].offset);
  ASSERT_EQ(places[0].stored, places_[0].stored);
  bytes_.replace(static_cast<size_t>(places[0].offset), static_cast<size_t>(places[0].stored), load(other_path),
                 static_cast<size_t>(places[0].offset), static_cast<size_t>(places[0].stored));
  expect_found(0, 0);
  EXPECT_NE(error_.find("was not written with this set"), std::string::npos) << error_;
}

TEST(sealed_stream, opens_for_its_object_and_id_alone) {
  std::string error, plain;
  std::string_view opened;
  const Set_Cipher_ptr cipher = test_cipher();
  Object_Seal seal, other;
  ASSERT_TRUE(cipher->new_object(1, seal) && cipher->new_object(1, other));
  for (const std::string& text : {std::string(), std::string("text"), noise(100000, 1)}) {
    std::string out;
    append_private_stream(out, OBSD, &seal, text);
    const std::string_view data = std::string_view(out).substr(STREAM_HEADER);
    ASSERT_TRUE(open_private_stream(OBSD, &seal, data, plain, opened, error)) << error;
    EXPECT_EQ(opened, text);
    EXPECT_FALSE(open_private_stream(OBSH, &seal, data, plain, opened, error));
    EXPECT_FALSE(open_private_stream(OBSD, &other, data, plain, opened, error));
    EXPECT_NE(error.find("not the one that was written with this object"), std::string::npos) << error;
    EXPECT_TRUE(sealed_stream_holds(data, error));
    for (size_t size = 0; size < std::min<size_t>(data.size(), 60); ++size)
      EXPECT_FALSE(open_private_stream(OBSD, &seal, data.substr(0, size), plain, opened, error)) << size;
    for (size_t at = 0; at < std::min<size_t>(data.size(), 60); ++at) {
      std::string bad(data);
      bad[at] ^= 4;
      EXPECT_FALSE(open_private_stream(OBSD, &seal, bad, plain, opened, error)) << at;
    }
  }
  std::string out;
  append_private_stream(out, OBSD, nullptr, "text");
  ASSERT_TRUE(open_private_stream(OBSD, nullptr, std::string_view(out).substr(STREAM_HEADER), plain, opened, error));
  EXPECT_EQ(opened, "text");
}

} // namespace
