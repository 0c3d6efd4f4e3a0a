#pragma once

#include "sdk/mtf/filter.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// One glob over whole paths, "/bucket/key" and "/bucket/folder/". Bytes, no characters; nothing but the stars and the
/// question mark is special.
///
///     ?       one byte but "/"
///     *       any bytes but "/", also none; never the empty end of a folder's path
///     **      any bytes, also none; "**/" where a component begins stands for any number of folders, also none
///     NAME/   a folder, and with it everything below
///     /NAME   from the bucket on; without the leading "/" at any depth
///
/// The automaton's states are bits, and a byte moves all of them at once: time is linear in the path whatever the rule
/// is, and matching allocates nothing. Any thread.
class Glob_Rule {
public:
  static constexpr size_t MAX_LENGTH = 4000; ///< bytes; keys have at most 1024
  enum Result {
    NONE,  ///< no match, and nothing below can match
    BELOW, ///< no match, but something below the folder could
    MATCH
  };

  /// False for a rule that makes no sense: empty, too long, three stars in a row, a NUL, or a first component that is
  /// no bucket.
  bool compile(const std::string& rule, std::string& error);
  Result match(const char* path, size_t length) const;

private:
  typedef std::uint64_t Word;
  void close(Word* states) const;

  size_t words_ = 0;                     ///< of a set of states
  size_t last_ = 0;                      ///< the accepting state
  bool folder_ = false;                  ///< the rule ends with "/"
  bool open_ended_ = false;              ///< the rule ends with "**"
  std::vector<unsigned short> class_of_; ///< by byte: its row in `consume_`
  std::vector<Word> consume_;            ///< states that a byte of that row takes to the next one
  std::vector<Word> any_loop_;           ///< states that stay on every byte
  std::vector<Word> part_loop_;          ///< states that stay on every byte but "/"
  std::vector<Word> skip_one_;           ///< states that reach the next one without a byte
  std::vector<Word> skip_two_;           ///< states that reach the one after the next without a byte
};

/// A backup's filter: a path is left out when an exclusion matches and no inclusion does; with inclusions only, what
/// matches none is left out. A folder in which an inclusion could match is walked in either case.
class Glob_Filter : public MTF::IFilter {
public:
  /// Null with a message that names the rule that makes no sense.
  static std::unique_ptr<Glob_Filter> make(const std::vector<std::string>& exclusions,
                                           const std::vector<std::string>& inclusions, std::string& error);
  ~Glob_Filter() override;
  bool is_included(const char* path, bool is_dir) const override;
  /// How many objects were left out so far. What lies in a folder that was not walked was never seen.
  unsigned long long excluded_files() const { return excluded_files_; }

private:
  Glob_Filter() = default;
  std::vector<Glob_Rule> exclusions_;
  std::vector<Glob_Rule> inclusions_;
  mutable std::atomic<unsigned long long> excluded_files_{0};
};
