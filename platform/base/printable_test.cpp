#include "platform/base/printable.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace {

/// What the form stands for, read as the header describes it.
std::string original(const std::string& form) {
  std::string text;
  for (size_t i = 0; i < form.size(); ++i) {
    if (form[i] != '\\') {
      text += form[i];
      continue;
    }
    switch (form.at(++i)) {
    case '\\':
      text += '\\';
      break;
    case 'n':
      text += '\n';
      break;
    case 't':
      text += '\t';
      break;
    case 'r':
      text += '\r';
      break;
    case 'x':
      text += static_cast<char>(std::stoi(form.substr(i + 1, 2), nullptr, 16));
      i += 2;
      break;
    default:
      ADD_FAILURE() << "an escape that does not exist: " << form;
    }
  }
  return text;
}

std::string utf8(char32_t code) {
  std::string text;
  if (code < 0x80)
    return std::string(1, static_cast<char>(code));
  if (code < 0x800) {
    text += static_cast<char>(0xC0 | code >> 6);
  } else {
    if (code < 0x10000) {
      text += static_cast<char>(0xE0 | code >> 12);
    } else {
      text += static_cast<char>(0xF0 | code >> 18);
      text += static_cast<char>(0x80 | (code >> 12 & 0x3F));
    }
    text += static_cast<char>(0x80 | (code >> 6 & 0x3F));
  }
  text += static_cast<char>(0x80 | (code & 0x3F));
  return text;
}

} // namespace

TEST(printable, what_can_be_read_stays_as_it_is) {
  for (const char* text : {"", "a b", "/bucket/key 'quoted' \"twice\" $(x) `y` %s", "\u00e9\u65e5\u672c\U0001f600",
                           "e\u0301", "\u05d0\u05d1", "\U0001f469\u200d\U0001f52c", "\u00a0", "\ufffd", "\U0010fffd"})
    EXPECT_EQ(text, printable(text));
}

TEST(printable, what_acts_on_a_terminal_is_shown_by_its_bytes) {
  EXPECT_EQ("a\\nb\\tc\\rd", printable("a\nb\tc\rd"));
  EXPECT_EQ("\\x1b[31mred\\x1b[0m", printable("\x1b[31mred\x1b[0m"));
  EXPECT_EQ("\\x00\\x01\\x08\\x1f\\x7f", printable(std::string("\0\x01\x08\x1f\x7f", 5)));
  EXPECT_EQ("\\xc2\\x80\\xc2\\x85\\xc2\\x9b\\xc2\\x9f", printable("\u0080\u0085\u009b\u009f"));
  EXPECT_EQ("\\xe2\\x80\\xa8\\xe2\\x80\\xa9", printable("\u2028\u2029"));
  EXPECT_EQ("\\xe2\\x80\\xaegpj.exe", printable("\u202egpj.exe"));
  EXPECT_EQ("C:\\\\x1b", printable("C:\\x1b"));
}

TEST(printable, what_is_not_utf8_is_shown_by_its_bytes) {
  EXPECT_EQ("\\xff\\xfe", printable("\xff\xfe"));
  EXPECT_EQ("\\xc0\\xaf", printable("\xc0\xaf"));          // overlong
  EXPECT_EQ("\\xed\\xa0\\x80", printable("\xed\xa0\x80")); // a surrogate
  EXPECT_EQ("\\xf4\\x90\\x80\\x80", printable("\xf4\x90\x80\x80"));
  EXPECT_EQ("a\\xc3(", printable("a\xc3("));
  EXPECT_EQ("a\\xe6\\x97", printable("a\xe6\x97")); // cut
}

TEST(printable, every_character_that_is_not_for_reading_is_escaped) {
  for (char32_t code = 0; code <= 0x10FFFF; ++code) {
    if (code >= 0xD800 && code <= 0xDFFF)
      continue;
    const bool control = code < 0x20 || (code >= 0x7F && code <= 0x9F);
    const bool line = code == 0x2028 || code == 0x2029;
    const bool direction = code == 0x061C || code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) ||
                           (code >= 0x2066 && code <= 0x2069);
    const bool invisible = code == 0xAD || code == 0x180E || code == 0x200B || (code >= 0x2060 && code <= 0x2065) ||
                           (code >= 0x206A && code <= 0x206F) || code == 0xFEFF || (code >= 0xFFF0 && code <= 0xFFFB) ||
                           code == 0xFFFE || code == 0xFFFF || (code >= 0xE0000 && code <= 0xE0FFF);
    const bool escaped = control || line || direction || invisible || code == '\\';
    const std::string text = utf8(code);
    const std::string form = printable(text);
    ASSERT_EQ(escaped, form != text) << std::hex << static_cast<unsigned long>(code);
    ASSERT_EQ(text, original(form)) << std::hex << static_cast<unsigned long>(code);
  }
}

TEST(printable, any_bytes_come_back_and_no_two_texts_look_the_same) {
  std::mt19937 random(5);
  const std::string alphabet("\\nx0ab1\x1b\n\x80\xe2\x80\xae\xff\xc3\xa9'", 18);
  std::set<std::string> texts, forms;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (size_t length = random() % 12; length > 0; --length)
      text += random() % 4 == 0 ? static_cast<char>(random()) : alphabet[random() % alphabet.size()];
    const std::string form = printable(text);
    for (const char c : form)
      ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7F) << form;
    ASSERT_EQ(text, original(form));
    texts.insert(text);
    forms.insert(form);
  }
  EXPECT_EQ(texts.size(), forms.size());
}
