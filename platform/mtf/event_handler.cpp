#include "sdk/mtf/event_handler.h"

namespace MTF {

Event_Handler::Event_Handler(int mode) : mode_(mode) {}
Event_Handler::~Event_Handler() = default;

int Event_Handler::notify_event(unsigned, const json_spirit::Object&) {
  return 0;
}
int Event_Handler::handle_progress(int, unsigned long long, unsigned long long, unsigned long long) {
  return 0;
}
bool Event_Handler::canceling() {
  return false;
}
bool Event_Handler::pausing() {
  return false;
}

} // namespace MTF
