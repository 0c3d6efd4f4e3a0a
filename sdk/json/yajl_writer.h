#pragma once

#include <yajl/yajl_gen.h>

#include <string>

/// Short forms for records that write themselves with a YAJL generator.
inline void yajl_write(yajl_gen gen, const std::string& text) {
  yajl_gen_string(gen, reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

/// Runs `record.generate(yajl_gen_t*)` and returns the JSON text. Never fails but for memory.
template <typename RECORD>
std::string yajl_generate(RECORD& record) {
  yajl_gen gen = yajl_gen_alloc(nullptr);
  record.generate(gen);
  const unsigned char* text = nullptr;
  size_t length = 0;
  yajl_gen_get_buf(gen, &text, &length);
  std::string json(reinterpret_cast<const char*>(text), length);
  yajl_gen_free(gen);
  return json;
}
