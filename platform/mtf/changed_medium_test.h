#pragma once

#include "platform/mtf/medium_blocks.h"
#include "platform/mtf/medium_test_support.h"
#include "platform/mtf/object_stream.h"

#include <xxhash.h>

#include <algorithm>
#include <functional>

/// Changes a medium as somebody does who knows the format: all checks are made anew, so that nothing but the change
/// itself is there to be found. One test.
class Changed_Medium {
public:
  typedef std::function<void(unsigned char*)> Change;

  explicit Changed_Medium(const std::vector<Test_Object>& objects = {{"folder/hello.txt", "Hello, MTF!\n"}},
                          const Codec_Options& codec = {})
      : path_(folder_.file("medium")), cipher_(codec.cipher) {
    write_medium(path_, objects, codec, Way::IMAGE);
    bytes_ = good_ = load(path_);
  }

  /// Where the `number`th block of that type begins.
  size_t block(uint32_t type, unsigned number = 0) const {
    for (size_t at = 0; at < bytes_.size(); at += MTF_Format::FLB) {
      Dblk_Header header;
      if (header.parse(bytes_of(bytes_) + at) && header.type == type && number-- == 0)
        return at;
    }
    ADD_FAILURE() << "no block " << four_text(type);
    return 0;
  }
  /// Where the `number`th stream of that id of a block begins.
  size_t stream(size_t block, uint32_t id, unsigned number = 0) const {
    for (size_t at = block + get16(bytes_of(bytes_) + block + 8); at + MTF_Format::STREAM_HEADER <= bytes_.size();) {
      const unsigned char* const header = bytes_of(bytes_) + at;
      if (get32(header) == id && number-- == 0)
        return at;
      if (get32(header) == MTF_Format::SPAD)
        break;
      at = (at + MTF_Format::STREAM_HEADER + static_cast<size_t>(get64(header + 8)) + 3) / 4 * 4;
    }
    ADD_FAILURE() << "no stream " << four_text(id);
    return block;
  }

  Changed_Medium& change_at(size_t block, const Change& change) {
    change(bytes_at(bytes_, block));
    mend(block);
    return *this;
  }
  Changed_Medium& change(uint32_t type, const Change& change) { return change_at(block(type), change); }
  /// `change` gets a stream's header, which its data follow.
  Changed_Medium& change_stream_at(size_t block, uint32_t id, const Change& change, unsigned number = 0) {
    const size_t at = stream(block, id, number);
    unsigned char* const header = bytes_at(bytes_, at);
    change(header);
    const size_t size = static_cast<size_t>(get64(header + 8));
    unsigned char* const data = header + MTF_Format::STREAM_HEADER;
    const bool inside = get64(header + 8) <= bytes_.size() - at - MTF_Format::STREAM_HEADER;
    if (inside && (id == MTF_Format::OBSZ || id == MTF_Format::OBSX) && size >= FRAME_HEADER) {
      put64(data + 16, XXH3_64bits(data + FRAME_HEADER, size - FRAME_HEADER));
      put64(data + FRAME_HEADER - CHECK, XXH3_64bits(data, FRAME_HEADER - CHECK));
    } else if (inside && size > CHECK && id != MTF_Format::STAN && id != MTF_Format::SPAD && id != MTF_Format::OBSN) {
      put64(data + size - CHECK, XXH3_64bits(data, size - CHECK));
    }
    put16(header + 20, xor_words(header, 10));
    return *this;
  }
  Changed_Medium& change_stream(uint32_t type, uint32_t id, const Change& change, unsigned number = 0) {
    return change_stream_at(block(type), id, change, number);
  }
  /// Puts `streams`, which are a multiple of 4 long, in front of a block's padding, which is made anew. All blocks
  /// behind it move, and say so.
  Changed_Medium& add_streams(size_t block, const std::string& streams) {
    const size_t spad = stream(block, MTF_Format::SPAD);
    const size_t next = spad + MTF_Format::STREAM_HEADER + static_cast<size_t>(get64(bytes_of(bytes_) + spad + 8));
    const std::string behind = bytes_.substr(next);
    bytes_.resize(spad);
    bytes_ += streams;
    append_spad(bytes_, 0);
    bytes_ += behind;
    return settle();
  }
  /// Any change of the whole, behind which all blocks say where they are.
  Changed_Medium& change_bytes(const std::function<void(std::string&)>& change) {
    change(bytes_);
    return settle();
  }

  const std::string& path() const { return path_; }
  const std::string& bytes() const { return bytes_; }
  void write() { save(path_, bytes_); }

  /// What the strict check finds; afterwards the medium is again as it was before all changes. Of an encrypted set,
  /// with its key or without.
  std::vector<std::string> problems(bool keyed = true) {
    write();
    std::vector<std::string> messages;
    for (const Media_Problem& problem : problems_of(path_, nullptr, keyed ? cipher_ : nullptr))
      messages.push_back(problem.message);
    bytes_ = good_;
    return messages;
  }
  /// The one that it finds; empty when there is none.
  std::string problem() {
    const std::vector<std::string> all = problems();
    EXPECT_LE(all.size(), 1u) << (all.size() > 1 ? all[1] : "");
    return all.empty() ? std::string() : all.front();
  }
  /// The first one.
  std::string first_problem() {
    const std::vector<std::string> all = problems();
    return all.empty() ? std::string() : all.front();
  }

private:
  /// The checks of one block.
  void mend(size_t block) {
    unsigned char* const at = bytes_at(bytes_, block);
    seal_dblk_header(at);
    const unsigned first = get16(at + 8);
    if (first + MTF_Format::STREAM_HEADER + CHECK > bytes_.size() - block)
      return;
    if (get32(at) == MTF_Format::FILE_ && get32(at + first) == MTF_Format::OBSH)
      place_object(at, {get64(at + 20), get32(at + 36), get32(at + 76), get32(at + 80)});
    else if (get32(at) != MTF_Format::FILE_ && get32(at) != MTF_Format::SFMB && get32(at + first) == MTF_Format::OBSC)
      put64(at + first + MTF_Format::STREAM_HEADER, block_check(at, first));
  }
  /// Addresses of all blocks, and what filemarks say.
  Changed_Medium& settle() {
    using namespace MTF_Format;
    std::vector<uint64_t> filemarks;
    for (size_t at = 0; at + FLB <= bytes_.size(); at += FLB) {
      unsigned char* const block = bytes_at(bytes_, at);
      Dblk_Header header;
      if (!header.parse(block))
        continue;
      if (header.type == SFMB) {
        std::string made;
        make_filemark(made, at / FLB, filemarks);
        filemarks.push_back(at / FLB);
        bytes_.replace(at, FLB, made);
        continue;
      }
      if (header.type == VOLB || header.type == DIRB || header.type == FILE_)
        put64(block + 20, at < SSET_OFFSET ? 0 : (at - SSET_OFFSET) / FLB);
      mend(at);
    }
    return *this;
  }

  Scratch_Folder folder_;
  std::string path_;
  Set_Cipher_ptr cipher_;
  std::string bytes_, good_;
};

inline bool tells(const std::string& message, const std::string& part) {
  return message.find(part) != std::string::npos;
}
inline bool tells(const std::vector<std::string>& messages, const std::string& part) {
  return std::any_of(messages.begin(), messages.end(), [&](const std::string& one) { return tells(one, part); });
}
