#include "obs/agent/job/obs_restore_callback.h"

#include "obs/agent/job/buckets_mapper.h"
#include "obs/agent/job/remote_object.h"
#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "obs/agent/util/obs_path.h"
#include "sdk/base/check.h"

#include <cerrno>
#include <new>

OBS_File_Writer::~OBS_File_Writer() = default;
OBS_Restore_Callback::~OBS_Restore_Callback() = default;
OBS_Restore_Callback_Factory::~OBS_Restore_Callback_Factory() = default;

MTF::Error_Code OBS_File_Writer::open(const char* path, ACE_UINT64 size) {
  try {
    return open_i(path, size);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return MTF::E_SKIP;
  }
}

MTF::Error_Code OBS_File_Writer::open_i(const char* path, ACE_UINT64 size) {
  // Those of an object that cannot be opened are not left for the one behind it.
  const MTF::File_Attributes given = std::move(attributes_);
  attributes_ = MTF::File_Attributes();
  refused_.clear();

  const OBS_Path source(path, false);
  if (!source)
    return MTF::E_SKIP;
  const Buckets_Mapper::mapper_t& mapping = mapper_.mapper(source.bucket_);
  const Remote_Object target(source, mapping);

  // Where the client counts in 32 bits a larger object must not be stored cut short.
  const size_t length = static_cast<size_t>(size);
  writer_.reset();
  if (length == size)
    writer_ = upload(target.bucket, target.key, length, given);
  if (!writer_) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to open OBS writer(%s, %s, size: %Q).\n"), mapping.bucket.c_str(),
               target.key.c_str(), size));
    return MTF::E_SKIP;
  }
  return MTF::E_OK;
}

void OBS_File_Writer::attributes(const MTF::File_Attributes& attributes) {
  try {
    attributes_ = attributes;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    attributes_ = MTF::File_Attributes();
  }
}

S3_IWriter_ptr OBS_File_Writer::upload(const std::string& bucket, const std::string& key, size_t length,
                                       const MTF::File_Attributes& given) {
  if (given.empty() && policy_.storage_class.empty())
    return clt_.upload(bucket, key, length);
  const std::shared_ptr<S3_Service_Base> service = clt_.make_service();
  auto* const attributed = dynamic_cast<S3_Attribute_Service*>(service.get());
  if (attributed == nullptr)
    return clt_.upload(bucket, key, length);

  Object_Attributes object;
  std::string error;
  if (!object.parse(given.common, given.own, error))
    refused_.push_back("its attributes (they make no sense: " + error + ")");
  if (policy_.no_acl) {
    object.owner.clear();
    object.grants.clear();
  }
  if (policy_.drop_tags)
    object.tags.clear();
  if (!policy_.storage_class.empty())
    object.storage_class = policy_.storage_class == "STANDARD" ? std::string() : policy_.storage_class;
  return attributed->upload(bucket.c_str(), key.c_str(), length, object);
}

MTF::Error_Code OBS_File_Writer::write(const char* data, size_t length) {
  CHECK_NULL_RETURN(data, MTF::E_SKIP);
  if (length == 0) {
    ACE_ERROR((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, size%s == 0%s:\n%?\n"), "", ""));
    return MTF::E_SKIP;
  }
  CHECK_NULL_RETURN(writer_, MTF::E_SKIP);
  try {
    return write_i(data, length);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return MTF::E_SKIP;
  }
}

MTF::Error_Code OBS_File_Writer::write_i(const char* data, size_t length) {
  while (length > 0) {
    const int count = writer_->write(data, length);
    if (count < 0) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("OBS restore error: write object error.\n")));
      return MTF::E_SKIP;
    }
    if (count == 0) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("OBS restore error: write data exceeds file size requested.\n")));
      return MTF::E_SKIP;
    }
    data += count;
    length -= static_cast<size_t>(count);
  }
  return MTF::E_OK;
}

MTF::Error_Code OBS_File_Writer::close() {
  CHECK_NULL_RETURN(writer_, MTF::E_SKIP);
  MTF::Error_Code result = MTF::E_SKIP;
  bool short_of_memory = false;
  try {
    result = close_i();
  } catch (const std::bad_alloc&) {
    short_of_memory = true;
  }
  // One try only: what a failed close left of the upload goes with the stream.
  writer_.reset();
  if (short_of_memory)
    errno = ENOMEM;
  return result;
}

MTF::Error_Code OBS_File_Writer::close_i() {
  if (!writer_->close())
    return MTF::E_SKIP;
  // Where there is no memory to tell what the object went without: better one that is written again than one that only
  // seems whole.
  const auto* const report = dynamic_cast<const S3_Attribute_Report*>(writer_.get());
  if (report != nullptr)
    refused_.insert(refused_.end(), report->refused().begin(), report->refused().end());
  return MTF::E_OK;
}

bool OBS_Restore_Callback::connect(const URI& uri, const S3_Client_Options& opts) {
  return clt_.connect(uri.scheme(), uri.host(), uri.port(), uri.is_ssl(), nullptr, opts);
}

bool OBS_Restore_Callback::unlink(const char* path) {
  try {
    const OBS_Path source(path, false);
    if (!source)
      return false;
    const Buckets_Mapper::mapper_t& mapping = mapper_.mapper(source.bucket_);
    if (mapping.bucket.empty())
      return true;
    const Remote_Object target(source, mapping);
    return clt_.del(target.bucket, target.key);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

MTF::IFile_Writer_var OBS_Restore_Callback::make_file_writer() {
  return make_counted<MTF::IFile_Writer_var, OBS_File_Writer>(clt_, mapper_, policy_);
}

MTF::IRestore_Callback_var OBS_Restore_Callback_Factory::make() {
  if (url_.empty() || opts_.access_key.empty() || opts_.secret_key.empty())
    return no_object<MTF::IRestore_Callback_var>;
  try {
    URI uri;
    if (!URI_Parser::parse(url_.c_str(), uri)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid obs entry uri: %s.\n"), url_.c_str()));
      return no_object<MTF::IRestore_Callback_var>;
    }
    std::unique_ptr<OBS_Restore_Callback> callback = std::make_unique<OBS_Restore_Callback>(mapper_, policy_);
    if (callback->connect(uri, opts_))
      return adopt<MTF::IRestore_Callback_var>(std::move(callback));
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  return no_object<MTF::IRestore_Callback_var>;
}
