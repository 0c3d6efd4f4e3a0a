#pragma once

#include "platform/s3/endpoint.h"
#include "sdk/s3/s3_service.h"

#include <memory>
#include <string>

namespace s3 {

/// `text` as XML character data.
std::string xml_escaped(std::string_view text);

/// The size of the parts that an object of `size` bytes is sent in: at least `wanted`, and so large that 10,000 of
/// them, the most that services take, are enough.
unsigned long long part_size_for(unsigned long long size, unsigned long long wanted);

/// The stream into an object: held back and sent at once up to the endpoint's part size, in parts above it. Beside the
/// part that is being filled as many are in memory, on their way, as Part_Sender allows. Each request is repeated while its waits add up to less than `max_retry_seconds`. Empty, with
/// `error` filled, when the upload cannot begin.
S3_IWriter_ptr make_upload(std::shared_ptr<Endpoint> endpoint, const std::string& bucket, const std::string& key,
                           ACE_UINT64 size, int max_retry_seconds, S3_Error& error);

} // namespace s3
