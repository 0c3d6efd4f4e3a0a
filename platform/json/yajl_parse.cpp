#include "sdk/json/yajl_handler.h"

#include <yajl/yajl_parse.h>

#include <exception>
#include <limits>
#include <memory>
#include <new>

YAJL_Handler::~YAJL_Handler() = default;
bool YAJL_Handler::handle_null_i() {
  return true;
}
bool YAJL_Handler::handle_boolean_i(bool) {
  return true;
}
bool YAJL_Handler::handle_integer_i(long long) {
  return true;
}
bool YAJL_Handler::handle_double_i(double) {
  return true;
}
bool YAJL_Handler::handle_number_i(const char*, unsigned) {
  return true;
}
bool YAJL_Handler::handle_string_i(const char*, unsigned) {
  return true;
}
bool YAJL_Handler::handle_start_map_i() {
  return true;
}
bool YAJL_Handler::handle_map_key_i(const char*, unsigned) {
  return true;
}
bool YAJL_Handler::handle_end_map_i() {
  return true;
}
bool YAJL_Handler::handle_start_array_i() {
  return true;
}
bool YAJL_Handler::handle_end_array_i() {
  return true;
}

namespace {

struct Handle_Free {
  void operator()(yajl_handle handle) const { yajl_free(handle); }
};
typedef std::unique_ptr<yajl_handle_t, Handle_Free> Handle_Ptr;

/// What the callbacks work with: YAJL is C, so nothing may be thrown through it.
struct Context {
  YAJL_Handler& handler;
  std::string thrown;

  template <typename EVENT>
  int deliver(EVENT event) {
    try {
      return event(handler) ? 1 : 0;
    } catch (const std::exception& e) {
      thrown = e.what();
    } catch (...) {
      thrown = "unknown exception";
    }
    return 0;
  }

  template <typename EVENT>
  int deliver_text(const char* text, size_t length, EVENT event) {
    if (length > std::numeric_limits<unsigned>::max()) {
      thrown = "text too long";
      return 0;
    }
    return deliver([&](YAJL_Handler& h) { return event(h, text, static_cast<unsigned>(length)); });
  }
};

Context& context(void* data) {
  return *static_cast<Context*>(data);
}
const char* chars(const unsigned char* text) {
  return reinterpret_cast<const char*>(text);
}

int on_null(void* data) {
  return context(data).deliver([](YAJL_Handler& h) { return h.handle_null_i(); });
}
int on_boolean(void* data, int value) {
  return context(data).deliver([value](YAJL_Handler& h) { return h.handle_boolean_i(value != 0); });
}
int on_number(void* data, const char* text, size_t length) {
  return context(data).deliver_text(text, length,
                                    [](YAJL_Handler& h, const char* t, unsigned n) { return h.handle_number_i(t, n); });
}
int on_string(void* data, const unsigned char* text, size_t length) {
  return context(data).deliver_text(chars(text), length,
                                    [](YAJL_Handler& h, const char* t, unsigned n) { return h.handle_string_i(t, n); });
}
int on_start_map(void* data) {
  return context(data).deliver([](YAJL_Handler& h) { return h.handle_start_map_i(); });
}
int on_map_key(void* data, const unsigned char* text, size_t length) {
  return context(data).deliver_text(
      chars(text), length, [](YAJL_Handler& h, const char* t, unsigned n) { return h.handle_map_key_i(t, n); });
}
int on_end_map(void* data) {
  return context(data).deliver([](YAJL_Handler& h) { return h.handle_end_map_i(); });
}
int on_start_array(void* data) {
  return context(data).deliver([](YAJL_Handler& h) { return h.handle_start_array_i(); });
}
int on_end_array(void* data) {
  return context(data).deliver([](YAJL_Handler& h) { return h.handle_end_array_i(); });
}

// With a number callback YAJL leaves the integer and double ones alone.
const yajl_callbacks callbacks = {on_null,      on_boolean, nullptr,    nullptr,        on_number,   on_string,
                                  on_start_map, on_map_key, on_end_map, on_start_array, on_end_array};

std::string yajl_message(yajl_handle handle) {
  unsigned char* text = yajl_get_error(handle, 0, nullptr, 0);
  if (text == nullptr)
    return "out of memory";
  std::string message(chars(text));
  yajl_free_error(handle, text);
  while (!message.empty() && (message.back() == '\n' || message.back() == ' ' || message.back() == '.'))
    message.pop_back();
  return message;
}

} // namespace

bool yajl_parse(const std::string& text, YAJL_Handler& handler, std::string& error) {
  Context state{handler, std::string()};
  Handle_Ptr handle(yajl_alloc(&callbacks, nullptr, &state));
  if (!handle) {
    error = "out of memory";
    return false;
  }
  yajl_config(handle.get(), yajl_dont_validate_strings, 1);

  yajl_status status = yajl_parse(handle.get(), reinterpret_cast<const unsigned char*>(text.data()), text.size());
  size_t at = yajl_get_bytes_consumed(handle.get());
  if (status == yajl_status_ok) {
    status = yajl_complete_parse(handle.get());
    at = text.size();
  }
  if (status == yajl_status_ok)
    return true;

  if (status == yajl_status_client_canceled)
    error = state.thrown.empty() ? "stopped by the handler" : state.thrown;
  else
    error = yajl_message(handle.get());
  error += " at byte " + std::to_string(at);
  return false;
}
