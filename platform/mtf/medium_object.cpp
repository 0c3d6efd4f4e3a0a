#include "platform/mtf/medium_object.h"

#include "platform/mtf/codec.h"
#include "platform/mtf/sealed_frames.h"

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <new>

using namespace MTF_Format;

namespace {

constexpr size_t AHEAD = 16 * 1024;

} // namespace

Medium_Object::Medium_Object(std::shared_ptr<Medium_Source> source)
    : source_(std::move(source)), window_(*source_, AHEAD), end_(*source_, AHEAD) {}

bool Medium_Object::open(unsigned long long offset, std::string& error, unsigned long long stored) {
  offset_ = offset;
  if (stored != 0 && stored <= source_->size()) {
    window_.limit(offset + stored);
    end_.limit(offset + stored);
  }
  if (offset % FLB != 0 || offset < SSET_OFFSET || !read_object_start(window_, offset, start_, error)) {
    if (offset % FLB != 0 || offset < SSET_OFFSET)
      error = "no object can begin there";
    error = source_->path() + " at " + std::to_string(offset) + ": " + error;
    return false;
  }
  if (start_.stream.sealed && !start_.stream.opened) {
    error = source_->path() + " at " + std::to_string(offset) + ": the object is encrypted, and its key is not known";
    return false;
  }
  frame_ = start_.content;
  if (!digest_.begin()) {
    error = "the SHA-256 digest cannot be set up";
    return false;
  }
  return true;
}

bool Medium_Object::damaged(const std::string& what) {
  failure_ = window_.failed() || end_.failed() ? Read_Outcome::FAILED : Read_Outcome::DAMAGED;
  error_ = "\"" + start_.head.path + "\" in " + source_->path() + " at " + std::to_string(offset_) + ": " + what;
  return false;
}

bool Medium_Object::check_end(Medium_Window& window, unsigned long long offset) {
  std::string reason;
  if (!read_object_end(window, offset, start_, last_, reason))
    return damaged(reason);
  have_digest_ = true;
  return true;
}

bool Medium_Object::next_plain_chunk() {
  if (!have_digest_) {
    const unsigned long long next = start_.content.next();
    const bool near = window_.holds(next, next + STREAM_HEADER);
    if (!check_end(near ? window_ : end_, next))
      return false;
    if (!near)
      window_.limit(next);
  }
  const size_t size = static_cast<size_t>(std::min<unsigned long long>(CHUNK, start_.head.size - done_));
  if (size == 0)
    return true;
  const unsigned char* data = window_.at(start_.content.data() + done_, size);
  if (data == nullptr)
    return damaged(window_.error());
  check_ = XXH3_64bits(data, size);
  if (check_ != last_.digest.chunks[static_cast<size_t>(chunk_number_)])
    return damaged("the content at " + std::to_string(start_.content.data() + done_) + ", " + std::to_string(size) +
                   " bytes from byte " + std::to_string(done_) + " of the object on, does not match its check");
  chunk_ = data;
  left_ = size;
  return true;
}

/// Checks what is stored of a frame; `data`, behind its header, becomes what was stored before it was encrypted.
bool Medium_Object::frame_bytes(const Frame& frame, bool last, const unsigned char*& data, const std::string& where) {
  if (XXH3_64bits(data, frame.behind()) != frame.stored_check)
    return damaged(where + "what is stored does not match its check");
  if (!frame.sealed)
    return true;
  if (opened_.size() < frame.stored + 1)
    opened_.resize(frame.stored + 1);
  if (!open_sealed_frame(start_.stream.seal, frame, last, data - FRAME_HEADER, opened_.data()))
    return damaged(where + "it is not the frame that was encrypted for this place of this object");
  data = opened_.data();
  return true;
}

bool Medium_Object::next_frame() {
  const Medium_Stream& stream = frame_;
  const std::string where = "the frame at " + std::to_string(stream.offset) + ": ";
  std::string reason;
  const bool sealed = start_.stream.sealed;
  if (stream.header.id != (sealed ? OBSX : OBSZ) || (stream.header.format_attributes & STREAM_VARIABLE) == 0 ||
      stream.header.length <= FRAME_HEADER || stream.header.length > FRAME_HEADER + CHUNK + (sealed ? AEAD_TAG : 0))
    return damaged(where + "no frame of the content");
  const unsigned char* data = window_.at(stream.data(), static_cast<size_t>(stream.header.length));
  if (data == nullptr)
    return damaged(where + window_.error());
  Frame frame;
  if (!frame.parse(data, reason))
    return damaged(where + reason);
  const uint64_t expected = std::min<uint64_t>(CHUNK, start_.head.size - done_);
  const bool last = (stream.header.format_attributes & STREAM_VARIABLE_END) != 0;
  if (frame.sealed != sealed || frame.sequence != chunk_number_ || frame.plain != expected ||
      stream.header.length != FRAME_HEADER + frame.behind() || last != (done_ + frame.plain == start_.head.size))
    return damaged(where + "it belongs to another place");
  data += FRAME_HEADER;
  if (!frame_bytes(frame, last, data, where))
    return false;
  if (frame.method == FRAME_STORED) {
    chunk_ = data;
  } else {
    if (!Codec::available(frame.method, reason)) {
      damaged(reason);
      failure_ = Read_Outcome::FAILED;
      return false;
    }
    if (plain_.size() < frame.plain)
      plain_.resize(frame.plain);
    if (!Codec::decompress(frame.method, reinterpret_cast<const char*>(data), frame.stored,
                           reinterpret_cast<char*>(plain_.data()), frame.plain) ||
        (!sealed && XXH3_64bits(plain_.data(), frame.plain) != frame.plain_check))
      return damaged(where + "it cannot be decompressed to what was stored");
    chunk_ = plain_.data();
  }
  left_ = frame.plain;

  // The next header is read only when this chunk need not stay in the window.
  if (frame.method == FRAME_STORED && !sealed) {
    plain_.assign(chunk_, chunk_ + left_);
    chunk_ = plain_.data();
  }
  const unsigned long long next = stream.next();
  if (last)
    return check_end(window_, next);
  if (!read_stream(window_, next, frame_, reason))
    return damaged(reason);
  return true;
}

bool Medium_Object::next_chunk() {
  if (start_.content.header.id == STAN ? !next_plain_chunk() : !next_frame())
    return false;
  if (left_ != 0) {
    const char* const content = reinterpret_cast<const char*>(chunk_);
    if (check_)
      digest_.update_checked(content, left_, *check_);
    else
      digest_.update(content, left_);
    done_ += left_;
    ++chunk_number_;
  }
  if (done_ < start_.head.size)
    return true;
  unsigned char sha256[32];
  digest_.finish(sha256);
  if (std::memcmp(sha256, last_.digest.sha256, sizeof sha256) != 0 || digest_.chunks() != last_.digest.chunks)
    return damaged("the content does not match its digest");
  stored_ = last_.end - offset_;
  finished_ = true;
  return true;
}

/// The next chunk, verified. False, with `failure_` set, when there is none that is good.
bool Medium_Object::refill() {
  if (failure_ != Read_Outcome::MORE)
    return false;
  try {
    if (next_chunk())
      return true;
  } catch (const std::bad_alloc&) {
    error_ = "no memory to read \"" + start_.head.path + "\"";
    failure_ = Read_Outcome::FAILED;
  }
  left_ = 0;
  return false;
}

Read_Outcome Medium_Object::read(char* buffer, size_t size, size_t& got) {
  for (got = 0;;) {
    const size_t piece = std::min(size - got, left_);
    if (piece != 0)
      std::memcpy(buffer + got, chunk_, piece);
    chunk_ += piece;
    left_ -= piece;
    got += piece;
    if (finished_ && left_ == 0)
      return Read_Outcome::END;
    if (got == size)
      return Read_Outcome::MORE;
    // What was verified before the damage is handed out first.
    if (!refill())
      return got != 0 ? Read_Outcome::MORE : failure_;
  }
}

Read_Outcome Medium_Object::next(std::string_view& bytes) {
  bytes = std::string_view();
  if (left_ == 0 && !finished_ && !refill())
    return failure_;
  bytes = std::string_view(reinterpret_cast<const char*>(chunk_), left_);
  chunk_ += left_;
  left_ = 0;
  return finished_ ? Read_Outcome::END : Read_Outcome::MORE;
}
