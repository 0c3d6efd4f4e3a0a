#include "platform/file_backup/glob_filter.h"

#include <array>
#include <cstring>

namespace {

/// What one state waits for.
struct Token {
  enum Kind {
    BYTE,        ///< `byte`
    ONE,         ///< any byte but "/"
    STAR,        ///< stays on any byte but "/", goes on without one
    DOUBLE_STAR, ///< stays on any byte, goes on without one
    FOLDERS,     ///< the beginning of "**/": goes on to its inside, and past it
    INSIDE       ///< the inside of "**/": stays on any byte, goes on with a "/"
  } kind;
  unsigned char byte;
};

constexpr unsigned BITS = 64;
// Two states more for the leading "any depth", one for the root's "/", one for the end.
constexpr size_t MAX_STATES = Glob_Rule::MAX_LENGTH + 8;
constexpr size_t MAX_WORDS = (MAX_STATES + BITS - 1) / BITS;

bool tokens_of(const std::string& rule, std::vector<Token>& tokens, std::string& error) {
  if (rule.empty() || rule == "/") {
    error = "it is empty";
    return false;
  }
  if (rule.size() > Glob_Rule::MAX_LENGTH) {
    error = "it is longer than " + std::to_string(Glob_Rule::MAX_LENGTH) + " bytes";
    return false;
  }
  if (rule.find('\0') != std::string::npos) {
    error = "no path holds a NUL byte";
    return false;
  }
  if (rule.find("***") != std::string::npos) {
    error = "more than two stars follow each other";
    return false;
  }
  if (rule.compare(0, 2, "//") == 0) {
    error = "it names no bucket between the first two \"/\"";
    return false;
  }
  size_t i = 0;
  if (rule[0] == '/') {
    tokens.push_back({Token::BYTE, '/'});
    i = 1;
  } else {
    tokens.push_back({Token::BYTE, '/'});
    tokens.push_back({Token::FOLDERS, 0});
    tokens.push_back({Token::INSIDE, 0});
  }
  for (; i < rule.size(); ++i) {
    const bool begins = i == 0 || rule[i - 1] == '/';
    if (begins && rule.compare(i, 3, "**/") == 0 && i + 3 < rule.size()) {
      tokens.push_back({Token::FOLDERS, 0});
      tokens.push_back({Token::INSIDE, 0});
      i += 2;
    } else if (rule.compare(i, 2, "**") == 0) {
      tokens.push_back({Token::DOUBLE_STAR, 0});
      ++i;
    } else if (rule[i] == '*') {
      tokens.push_back({Token::STAR, 0});
    } else if (rule[i] == '?') {
      tokens.push_back({Token::ONE, 0});
    } else {
      tokens.push_back({Token::BYTE, static_cast<unsigned char>(rule[i])});
    }
  }
  return true;
}

} // namespace

bool Glob_Rule::compile(const std::string& rule, std::string& error) {
  std::vector<Token> tokens;
  if (!tokens_of(rule, tokens, error))
    return false;
  last_ = tokens.size();
  words_ = last_ / BITS + 1;
  folder_ = rule.back() == '/';
  open_ended_ = tokens.back().kind == Token::DOUBLE_STAR;

  // Bytes that the rule does not name behave alike and share the first row.
  class_of_.assign(256, 0);
  unsigned short classes = 1;
  class_of_[static_cast<unsigned char>('/')] = classes++;
  for (const Token& token : tokens)
    if (token.kind == Token::BYTE && class_of_[token.byte] == 0)
      class_of_[token.byte] = classes++;

  consume_.assign(classes * words_, 0);
  any_loop_.assign(words_, 0);
  part_loop_.assign(words_, 0);
  skip_one_.assign(words_, 0);
  skip_two_.assign(words_, 0);
  const unsigned short slash = class_of_[static_cast<unsigned char>('/')];
  for (size_t state = 0; state < tokens.size(); ++state) {
    const size_t word = state / BITS;
    const Word bit = Word(1) << (state % BITS);
    switch (tokens[state].kind) {
    case Token::BYTE:
      consume_[class_of_[tokens[state].byte] * words_ + word] |= bit;
      break;
    case Token::ONE:
      for (unsigned short row = 0; row < classes; ++row)
        if (row != slash)
          consume_[row * words_ + word] |= bit;
      break;
    case Token::STAR:
      part_loop_[word] |= bit;
      skip_one_[word] |= bit;
      break;
    case Token::DOUBLE_STAR:
      any_loop_[word] |= bit;
      skip_one_[word] |= bit;
      break;
    case Token::FOLDERS:
      skip_one_[word] |= bit;
      skip_two_[word] |= bit;
      break;
    case Token::INSIDE:
      any_loop_[word] |= bit;
      consume_[slash * words_ + word] |= bit;
      break;
    }
  }
  return true;
}

/// Adds the states that need no byte. Stars never stand in a row but for the few that a rule may join ("**/", "*"), so
/// this ends after two or three rounds.
void Glob_Rule::close(Word* states) const {
  for (bool changed = true; changed;) {
    changed = false;
    Word carry = 0;
    for (size_t i = 0; i < words_; ++i) {
      const Word one = states[i] & skip_one_[i];
      const Word two = states[i] & skip_two_[i];
      const Word more = (states[i] | one << 1 | two << 2 | carry);
      carry = one >> (BITS - 1) | two >> (BITS - 2);
      changed |= more != states[i];
      states[i] = more;
    }
  }
}

Glob_Rule::Result Glob_Rule::match(const char* path, size_t length) const {
  std::array<Word, MAX_WORDS> states;
  std::memset(states.data(), 0, words_ * sizeof(Word));
  states[0] = 1;
  close(states.data());
  const size_t end_word = last_ / BITS;
  const Word end_bit = Word(1) << (last_ % BITS);

  for (size_t at = 0; at < length; ++at) {
    const unsigned char byte = static_cast<unsigned char>(path[at]);
    const Word* const row = &consume_[class_of_[byte] * words_];
    const bool slash = byte == '/';
    Word carry = 0;
    Word alive = 0;
    for (size_t i = 0; i < words_; ++i) {
      const Word moved = states[i] & row[i];
      const Word stayed = states[i] & (slash ? any_loop_[i] : any_loop_[i] | part_loop_[i]);
      states[i] = moved << 1 | carry | stayed;
      carry = moved >> (BITS - 1);
      alive |= states[i];
    }
    if (alive == 0)
      return NONE;
    close(states.data());
    // What lies below a folder that matches, matches with it.
    if (folder_ && slash && (states[end_word] & end_bit) != 0)
      return MATCH;
  }
  // A folder is matched only together with all that lies below it: "/b/*" are the objects in "/b/".
  const bool whole = !folder_ && (states[end_word] & end_bit) != 0;
  return whole && (open_ended_ || length == 0 || path[length - 1] != '/') ? MATCH : BELOW;
}

std::unique_ptr<Glob_Filter> Glob_Filter::make(const std::vector<std::string>& exclusions,
                                               const std::vector<std::string>& inclusions, std::string& error) {
  std::unique_ptr<Glob_Filter> filter(new Glob_Filter);
  std::string why;
  for (const std::string& rule : exclusions)
    if (!filter->exclusions_.emplace_back().compile(rule, why)) {
      error = "The exclusion '" + rule + "' makes no sense: " + why;
      return nullptr;
    }
  for (const std::string& rule : inclusions)
    if (!filter->inclusions_.emplace_back().compile(rule, why)) {
      error = "The inclusion '" + rule + "' makes no sense: " + why;
      return nullptr;
    }
  return filter;
}

Glob_Filter::~Glob_Filter() = default;

bool Glob_Filter::is_included(const char* path, bool is_dir) const {
  const size_t length = std::strlen(path);
  bool out = exclusions_.empty();
  for (const Glob_Rule& rule : exclusions_)
    if (rule.match(path, length) == Glob_Rule::MATCH) {
      out = true;
      break;
    }
  if (!out)
    return true;
  for (const Glob_Rule& rule : inclusions_) {
    const Glob_Rule::Result result = rule.match(path, length);
    if (result == Glob_Rule::MATCH || (is_dir && result == Glob_Rule::BELOW))
      return true;
  }
  if (!is_dir)
    ++excluded_files_;
  return false;
}
