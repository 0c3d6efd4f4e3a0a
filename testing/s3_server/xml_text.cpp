#include "testing/s3_server/xml_text.h"

#include <cstdio>
#include <expat.h>
#include <memory>

namespace s3_testing {

std::string xml_escape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 16);
  for (unsigned char c : text) {
    switch (c) {
    case '&':
      out += "&amp;";
      break;
    case '<':
      out += "&lt;";
      break;
    case '>':
      out += "&gt;";
      break;
    case '"':
      out += "&quot;";
      break;
    default:
      if (c < 0x20) {
        char reference[8];
        std::snprintf(reference, sizeof reference, "&#x%x;", static_cast<unsigned>(c));
        out += reference;
      } else {
        out += static_cast<char>(c);
      }
    }
  }
  return out;
}

void xml_element(std::string& out, const char* name, std::string_view text) {
  out += '<';
  out += name;
  out += '>';
  out += xml_escape(text);
  out += "</";
  out += name;
  out += '>';
}

std::string listing_encode(std::string_view key) {
  std::string out = url_encode(key, true);
  for (std::size_t at = 0; (at = out.find("%20", at)) != std::string::npos; ++at)
    out.replace(at, 3, "+");
  return out;
}

Http_Response error_response(int status, std::string_view code, std::string_view message, Extra_Elements extra) {
  Http_Response response;
  response.status = status;
  response.error_code = code;
  response.error_message = message;
  response.error_extra = std::move(extra);
  return response;
}

std::string error_document(const Http_Response& response, std::string_view resource, std::string_view request_id) {
  std::string out = xml_head;
  out += "<Error>";
  xml_element(out, "Code", response.error_code);
  xml_element(out, "Message", response.error_message);
  for (const auto& [name, text] : response.error_extra)
    xml_element(out, name.c_str(), text);
  xml_element(out, "Resource", resource);
  xml_element(out, "RequestId", request_id);
  xml_element(out, "HostId", "s3-testing");
  out += "</Error>";
  return out;
}

namespace {

struct Reader {
  std::vector<std::pair<std::string, std::string>>* elements;
  std::string path;
  std::vector<std::size_t> open;
};

void on_start(void* user, const char* name, const char**) {
  Reader& reader = *static_cast<Reader*>(user);
  reader.path += (reader.path.empty() ? "" : "/") + std::string(name);
  reader.open.push_back(reader.elements->size());
  reader.elements->emplace_back(reader.path, "");
}

void on_end(void* user, const char*) {
  Reader& reader = *static_cast<Reader*>(user);
  reader.open.pop_back();
  const auto slash = reader.path.rfind('/');
  reader.path.resize(slash == std::string::npos ? 0 : slash);
}

void on_text(void* user, const char* text, int length) {
  Reader& reader = *static_cast<Reader*>(user);
  if (!reader.open.empty())
    (*reader.elements)[reader.open.back()].second.append(text, static_cast<std::size_t>(length));
}

} // namespace

bool parse_xml(std::string_view document, std::vector<std::pair<std::string, std::string>>& elements) {
  const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr), &XML_ParserFree);
  Reader reader{&elements, {}, {}};
  XML_SetUserData(parser.get(), &reader);
  XML_SetElementHandler(parser.get(), on_start, on_end);
  XML_SetCharacterDataHandler(parser.get(), on_text);
  return XML_Parse(parser.get(), document.data(), static_cast<int>(document.size()), 1) == XML_STATUS_OK;
}

} // namespace s3_testing
