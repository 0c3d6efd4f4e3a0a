#pragma once

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <string>

/// Receives the events of one JSON text in order. Every operation answers true to go on and false to stop the parse.
/// The base accepts and ignores everything. One thread at a time.
class YAJL_Handler {
public:
  virtual ~YAJL_Handler();

  virtual bool handle_null_i();
  virtual bool handle_boolean_i(bool value);
  virtual bool handle_integer_i(long long value);
  virtual bool handle_double_i(double value);
  /// Numbers arrive here as their text, which is not NUL-terminated; the two operations above are not reached.
  virtual bool handle_number_i(const char* text, unsigned length);
  virtual bool handle_string_i(const char* text, unsigned length);
  virtual bool handle_start_map_i();
  virtual bool handle_map_key_i(const char* text, unsigned length);
  virtual bool handle_end_map_i();
  virtual bool handle_start_array_i();
  virtual bool handle_end_array_i();
};

/// A handler whose events fill one record.
template <typename RECORD>
class YAJL_Parser : public YAJL_Handler {
public:
  typedef ACE_Refcounted_Auto_Ptr<RECORD, ACE_Thread_Mutex> Result;
  /// A new reference to the record, also after an error; the caller decides by how the parse ended.
  virtual Result result() = 0;
};

/// Drives `handler` with the events of `text` (strings are not checked for UTF-8). True when the text is one whole
/// JSON value and every event was accepted; else `error` says what is wrong and at which byte, or that the handler
/// stopped the parse.
bool yajl_parse(const std::string& text, YAJL_Handler& handler, std::string& error);
