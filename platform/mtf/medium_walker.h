#pragma once

#include "platform/mtf/medium_reader.h"
#include "platform/mtf/medium_source.h"

/// Goes through a medium from its first block to its last and holds everything against what must stand there:
/// checksums, checks, addresses, numbers, order of the blocks, filemarks, padding. Behind damage it goes on with the
/// next block that holds. With `content` it reads the contents too, and tells what would lead independent readers
/// astray though nothing is damaged. One walk, one thread.
class Medium_Walker {
public:
  typedef std::function<bool(const Medium_Finding&)> Found;
  Medium_Walker(std::shared_ptr<Medium_Source> source, bool content, const Found& found)
      : source_(std::move(source)), window_(*source_, 256 * 1024), content_(content), found_(found) {}

  /// False when the medium cannot be read at all; what is damaged on it is told to `found`.
  bool walk(std::string& error);

  /// Where the last whole directory or object ends, and what an end of the set that is put there must say.
  struct Data_End {
    unsigned long long offset = 0; ///< 0: not even the blocks that a medium begins with are whole
    uint64_t control_id = 0;       ///< of the next block
    Medium_Totals totals;
    bool finished = false; ///< the set has its end, and nothing follows it
  };
  /// When `walk` has returned.
  const Data_End& data_end() const { return data_end_; }

private:
  /// Handles the block at `at_`: sets `next_`, or is false with `reason_` when it does not hold together.
  bool block();
  bool filemark();
  bool descriptor(const Dblk_Header& header);
  bool object();
  bool object_streams(const Object_Start& start, Object_End& end);
  bool sealed_content(const Medium_Stream& stream, const Frame& frame);
  bool check_content(const Object_Start& start);
  bool in_order(uint32_t type);
  void check_directory(const Dblk_Header& header, const unsigned char* block, const std::string& path,
                       bool exact_beside);
  void check_file(const Dblk_Header& header, const unsigned char* block, const Object_Start& start,
                  const Object_End& end);
  void numbered(const Dblk_Header& header);
  void check_zero(unsigned long long offset, unsigned long long end);
  void check_boundaries(unsigned long long offset, unsigned long long end);
  bool check_block_rules(const Dblk_Header& header);
  void check_stream_rules(uint32_t type, const Medium_Stream& stream, bool sealed = false);
  void broken_rule(unsigned long long offset, const std::string& what);
  bool holds(unsigned long long offset);
  unsigned long long resynchronise();
  void damage(unsigned long long offset, unsigned long long length, const std::string& what);
  void tell_damage(unsigned long long offset, unsigned long long length, const std::string& what);
  void tell(const Medium_Finding& finding) { stopped_ = stopped_ || !found_(finding); }

  std::shared_ptr<Medium_Source> source_;
  Medium_Window window_;
  bool content_;
  const Found& found_;
  bool stopped_ = false;
  unsigned long long at_ = 0;
  unsigned long long next_ = 0;
  std::string reason_;
  std::string object_name_;     ///< of the object at `at_`, as far as it is known
  std::string directory_;       ///< path of the current one, with a NUL behind each component
  bool encrypted_ = false;      ///< the volume has the wrapped key of its set
  bool directory_known_ = true; ///< no block that may have begun another one was left out
  Object_Head head_;
  uint64_t plain_ = 0;      ///< bytes of content that the frames of the object at `at_` announce
  bool in_step_ = true;     ///< nothing was left out since the last block: numbers must follow
  uint64_t control_id_ = 0; ///< of the next block
  uint64_t directory_id_ = 0;
  uint64_t file_id_ = 0;
  std::vector<uint64_t> filemarks_;
  Medium_Totals totals_;
  bool whole_ = true; ///< no damage so far: the totals must agree
  bool set_ended_ = false;
  bool ended_ = false;
  Data_End data_end_;
};

/// Whether descriptor block and check stream at `offset` hold together (any block but FILE and SFMB); `streams` is
/// where the stream behind the check stream begins.
bool descriptor_holds(Medium_Window& window, unsigned long long offset, const Dblk_Header& header,
                      unsigned long long& streams, std::string& error);
