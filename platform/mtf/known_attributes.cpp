#include "platform/mtf/known_attributes.h"

#include "sdk/s3/object_attributes.h"

namespace {

bool read(const MTF::File_Attributes& attributes, Object_Attributes& object) {
  std::string ignored;
  return object.parse(attributes.common, attributes.own, ignored);
}

} // namespace

bool has_tags_not_saved(const MTF::File_Attributes& attributes) {
  // Few objects have any, and reading the text takes time.
  if (attributes.common.find("\"tag_count\"") == std::string::npos)
    return false;
  Object_Attributes object;
  return read(attributes, object) && !object.tags_known && object.tag_count > 0;
}

bool lost_access_list(const MTF::File_Attributes& before, const MTF::File_Attributes& now) {
  if (before.common.find("\"grants\"") == std::string::npos)
    return false;
  Object_Attributes had, has;
  return read(before, had) && had.is_shared() && read(now, has) && !has.acl_known();
}
