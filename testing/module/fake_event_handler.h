#pragma once

#include "sdk/mtf/cat_blk.h"
#include "sdk/mtf/event_handler.h"

#include <string>
#include <vector>

namespace module_testing {

/// Keeps the item errors that it is told of, as JSON texts.
class Fake_Event_Handler : public MTF::Event_Handler {
public:
  Fake_Event_Handler() : MTF::Event_Handler(0) {}
  int notify_event(unsigned code, const json_spirit::Object& options) override {
    if (code == 0x0100000A)
      errors.push_back(json_spirit::write(json_spirit::Value(options)));
    return 0;
  }
  bool canceling() override { return cancel_after >= 0 && asked++ >= cancel_after; }

  std::vector<std::string> errors;
  int cancel_after = -1; ///< questions that are answered with no; negative: all
  int asked = 0;
};

/// "VOL", "DIR b/x/", "FILE a.txt" or "FEND".
inline std::string block_text(const MTF::Cat_Blk& blk) {
  std::string name = blk.name();
  for (char& c : name)
    if (c == '\0')
      c = '/';
  switch (blk.hdr().type()) {
  case MTF_CAT_VOLB_BLK:
    return "VOL";
  case MTF_CAT_DIRB_BLK:
    return "DIR " + name;
  case MTF_CAT_FILE_BLK:
    return "FILE " + name;
  case MTF_CAT_FEND_BLK:
    return "FEND";
  default:
    return "?";
  }
}

} // namespace module_testing
