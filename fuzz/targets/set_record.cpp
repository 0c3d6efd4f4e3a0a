#include "fuzz/fuzz_target.h"

#include "platform/pool/set_record.h"

// A set record: what is accepted must come back from its own text as it was.

const std::vector<std::string>& fuzz_words() {
  static const std::vector<std::string> words = [] {
    std::vector<std::string> all = {"{",
                                    "}",
                                    "[",
                                    "]",
                                    ":",
                                    ",",
                                    "\"",
                                    "null",
                                    "true",
                                    "1e9",
                                    "-1",
                                    "\\u0000",
                                    "18446744073709551615",
                                    "18446744073709551616",
                                    "\"../x\""};
    for (const auto& member : Set_Record().to_json())
      all.push_back("\"" + member.first + "\":");
    return all;
  }();
  return words;
}

void fuzz_one(std::string_view input) {
  json_spirit::Value value;
  std::string error;
  if (!json_spirit::read(std::string(input), value, &error) || value.type() != json_spirit::obj_type)
    return;
  Set_Record record;
  if (!Set_Record::from_json(value.get_obj(), record, error)) {
    if (error.empty())
      fuzz_fail("a record is refused without a reason");
    return;
  }
  for (const Set_Record::Medium& medium : record.media)
    if (medium.name.find('/') != std::string::npos || medium.name.empty() || medium.name.front() == '.')
      fuzz_fail("a medium's name leads out of the set's folder");
  const json_spirit::Object json = record.to_json();
  json_spirit::Value again;
  Set_Record second;
  if (!json_spirit::read(json_spirit::write_formatted(json), again, &error) ||
      !Set_Record::from_json(again.get_obj(), second, error))
    fuzz_fail("a record that was written cannot be read: " + error);
  if (json_spirit::write(second.to_json()) != json_spirit::write(json))
    fuzz_fail("a record changes by being written and read");
}
