#pragma once

#include "platform/mtf/medium_reader.h"
#include "platform/mtf/medium_source.h"

#include <optional>

/// Reads one object: every chunk is checked before a byte of it is handed out, and the whole content's digest before
/// the last chunk is. Holds its own piece of the medium. One thread.
class Medium_Object : public Object_Reader {
public:
  explicit Medium_Object(std::shared_ptr<Medium_Source> source);

  /// Reads what stands before the content. False with the reason: there is no object at `offset`.
  bool open(unsigned long long offset, std::string& error, unsigned long long stored = 0);
  const Object_Head& head() const override { return start_.head; }
  const std::string& attributes_problem() const override { return start_.attributes_problem; }
  Read_Outcome read(char* buffer, size_t size, size_t& got) override;
  Read_Outcome next(std::string_view& bytes) override;
  const unsigned char* sha256() const override { return last_.digest.sha256; }
  unsigned long long stored() const override { return stored_; }
  const std::string& error() const override { return error_; }
  /// Whether the FILE block itself holds; the content can be read either way.
  bool block_holds() const { return start_.block_holds; }
  /// Where the next block begins; valid after END.
  unsigned long long end() const { return last_.end; }

private:
  bool refill();
  bool next_chunk();
  bool next_plain_chunk();
  bool next_frame();
  bool frame_bytes(const Frame& frame, bool last, const unsigned char*& data, const std::string& where);
  bool damaged(const std::string& what);
  bool check_end(Medium_Window& window, unsigned long long offset);

  std::shared_ptr<Medium_Source> source_;
  Medium_Window window_;
  Medium_Window end_; ///< shows what stands behind a plain content, which is read before it
  Object_Start start_;
  Object_End last_;
  Content_Digest digest_;
  unsigned long long offset_ = 0;
  unsigned long long stored_ = 0;
  unsigned long long done_ = 0; ///< bytes of content that passed their checks
  uint64_t chunk_number_ = 0;
  Medium_Stream frame_;
  const unsigned char* chunk_ = nullptr; ///< what is left to hand out
  size_t left_ = 0;
  std::optional<uint64_t> check_;     ///< of the chunk, where it is known already
  std::vector<unsigned char> plain_;  ///< a decompressed chunk
  std::vector<unsigned char> opened_; ///< a decrypted frame
  bool have_digest_ = false;
  bool finished_ = false;
  Read_Outcome failure_ = Read_Outcome::MORE;
  std::string error_;
};
