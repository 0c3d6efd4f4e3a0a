#pragma once

#include "platform/s3/endpoint.h"
#include "sdk/s3/object_attributes.h"

#include <memory>
#include <string>

namespace s3 {

/// `text` as XML character data.
std::string xml_escaped(std::string_view text);

/// The stream into an object, held back and sent as its Part_Plan says. Beside the part that is being filled as many
/// are in memory, on their way, as Part_Sender allows. Each request is repeated while its waits add up to less than
/// `max_retry_seconds`. Empty, with `error` filled, when the upload cannot begin. The object is given its `attributes`
/// (null: none are known), those that the target takes; the writer is an S3_Attribute_Report.
S3_IWriter_ptr make_upload(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
                           ACE_UINT64 size, int max_retry_seconds, const Object_Attributes* attributes,
                           S3_Error& error);

} // namespace s3
