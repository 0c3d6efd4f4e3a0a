#include "obs/agent/job/obs_backup_callback.h"

#include "obs/agent/job/async_obs_source_lister.h"
#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "obs/agent/util/obs_path.h"
#include "sdk/base/check.h"
#include "sdk/base/clock.h"
#include "sdk/base/exponential_backoff.h"

#include <algorithm>
#include <cerrno>
#include <new>

namespace {

constexpr unsigned RETRY_SLOT = 1;
constexpr unsigned MAX_RETRIES = 3;
constexpr unsigned RETRY_CAP = 10;
constexpr unsigned long long MIN_CACHE_LIMIT = 0x20000;
constexpr unsigned long long MAX_CACHE_LIMIT = 0x200000;
constexpr ACE_UINT32 DIRECTORY_MODE = 0040755;
constexpr ACE_UINT32 FILE_MODE = 0100644;
constexpr ACE_UINT32 BLOCK_SIZE = 8192;
constexpr unsigned STAT_BLOCK_BITS = 9;

void report_no_path() {
  ACE_ERROR((LM_EMERGENCY, ACE_TEXT("Unexpected error in %N:%l, path is NULL or \"\":\n%?\n")));
}

} // namespace

void add_source(std::list<std::string>& sources, const std::string& path) {
  for (auto at = sources.begin(); at != sources.end() && OBS_Path(*at, false).is_prefix();) {
    switch (MTF_FS::parent_relationship(*at, path)) {
    case 1:
      at = sources.erase(at);
      break;
    case 2:
      return;
    default:
      ++at;
    }
  }
  sources.push_back(path);
}

OBS_File_Reader::~OBS_File_Reader() = default;
OBS_Backup_Callback::~OBS_Backup_Callback() = default;
OBS_Backup_Callback_Factory::~OBS_Backup_Callback_Factory() = default;

int OBS_File_Reader::open(const char* path) {
  if (path == nullptr || *path == '\0') {
    report_no_path();
    return -1;
  }
  try {
    path_ = path;
    offset_ = 0;
    obj_ = std::make_unique<S3_Object>();
    if (open_i() && fits())
      return 0;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  conn_ = HTTP_Connection_var();
  return 1;
}

// Where `size_t` is narrower than the object the position in it could not be kept.
bool OBS_File_Reader::fits() const {
  if (static_cast<size_t>(obj_->size) == obj_->size)
    return true;
  ACE_ERROR((LM_ERROR, ACE_TEXT("'%s' is too large to be read here: %Q bytes.\n"), path_.c_str(), obj_->size));
  return false;
}

bool OBS_File_Reader::is_open() {
  if (!conn_)
    return false;
  const HTTP_Connection::State state = conn_->state();
  return state == HTTP_Connection::HEADERS_READ || state == HTTP_Connection::READING_BODY ||
         state == HTTP_Connection::BODY_READ;
}

bool OBS_File_Reader::open_i() {
  CHECK_NULL_RETURN(svr_, false);
  const OBS_Path path(path_, false);
  if (!path)
    return false;
  Exponential_Backoff_Iterator wait(RETRY_SLOT, MAX_RETRIES, RETRY_CAP, false);
  for (; wait != Exponential_Backoff_Iterator(); ++wait) {
    // A resumed body leaves alone what the first answer told about the object.
    conn_ = svr_->get_object(path.bucket_.c_str(), path.object_.c_str(), offset_, offset_ == 0 ? obj_.get() : nullptr);
    if (is_open())
      return true;
    if (!svr_->last_error().retriable())
      break;
    Clock::instance().sleep(*wait);
  }
  ACE_DEBUG((LM_DEBUG, ACE_TEXT("Failed to open '%s' and skip it, error: %s.\n"), path_.c_str(), svr_->error()));
  return false;
}

int OBS_File_Reader::read(MTF::Buffer& buffer) {
  try {
    if (!is_open() && !open_i())
      return 1;
    const size_t count = conn_->recv(buffer.base(), buffer.size(), nullptr);
    if (count == HTTP_Connection::RECV_FAILED)
      return 1;
    buffer.used(count);
    offset_ += count;
    return 0;
  } catch (const std::bad_alloc&) {
    // It may have moved on: the next read begins where the last one ended, on another.
    conn_ = HTTP_Connection_var();
    errno = ENOMEM;
    return 1;
  }
}

int OBS_File_Reader::close() {
  conn_ = HTTP_Connection_var();
  path_.clear();
  offset_ = 0;
  return 0;
}

bool OBS_File_Reader::handle_file_blk(MTF::File_Blk& blk, unsigned long long& size, MTF::Callback_Stat& stat) {
  if (!is_open() || !obj_ || !obj_->exists)
    return false;
  stat.reset();
  stat.nlink = 1;
  stat.size = obj_->size;
  stat.mtime = static_cast<long long>(obj_->mtime);
  stat.atime = stat.mtime;
  stat.ctime = stat.mtime;
  stat.blksize = BLOCK_SIZE;
  stat.blocks = (obj_->size >> STAT_BLOCK_BITS) + 1;
  stat.mode = FILE_MODE;
  size = obj_->size;
  blk.hdr().size(obj_->size);
  blk.access_date(stat.atime);
  blk.create_date(stat.ctime);
  blk.modification_date(stat.mtime);
  return true;
}

void OBS_File_Reader::attributes(MTF::File_Attributes& attributes, std::vector<std::string>& problems) {
  auto* const service = dynamic_cast<S3_Attribute_Service*>(svr_.get());
  if (service == nullptr)
    return;
  try {
    Object_Attributes object = service->attributes();
    ask_extras(*service, object, problems);
    attributes.common = object.common_text();
    attributes.own = object.own_text();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    attributes = MTF::File_Attributes();
    try {
      problems.emplace_back("its attributes (no memory)");
    } catch (const std::bad_alloc&) {
      // Not even for that: the engine will hardly get far without memory.
    }
  }
}

// The answer's body waits meanwhile.
void OBS_File_Reader::ask_extras(S3_Attribute_Service& service, Object_Attributes& object,
                                 std::vector<std::string>& problems) {
  const OBS_Path path(path_, false);
  const char* const bucket = path.bucket_.c_str();
  const char* const key = path.object_.c_str();
  const auto failed = [&](const char* what) {
    problems.push_back(std::string(what) + " (" + svr_->last_error().text() + ")");
  };
  if (object.missing > 0)
    problems.push_back(std::to_string(object.missing) + " pieces of user metadata (the service cannot tell them)");
  // Where answers tell how many tags there are, objects without cost no request.
  object.tags_known = wishes_.tags && (object.tag_count == 0 || service.get_tags(bucket, key, object));
  if (wishes_.tags && !object.tags_known)
    failed("its tags");
  if (wishes_.acl && !service.get_acl(bucket, key, object))
    failed("its access list");
  if (object.part_count() != 0 && !service.get_parts(bucket, key, object))
    failed("the layout of its parts");
}

bool OBS_File_Reader::lacks(const MTF::File_Attributes& attributes) {
  if ((!wishes_.tags && !wishes_.acl) || dynamic_cast<S3_Attribute_Service*>(svr_.get()) == nullptr)
    return false;
  try {
    Object_Attributes object;
    std::string error;
    // What cannot be read is named by `update`.
    return !object.parse(attributes.common, attributes.own, error) || lacks_tags(object) || lacks_acl(object);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

void OBS_File_Reader::update(const char* path, MTF::File_Attributes& attributes, std::vector<std::string>& problems) {
  auto* const service = dynamic_cast<S3_Attribute_Service*>(svr_.get());
  if (path == nullptr || *path == '\0' || service == nullptr)
    return;
  try {
    const OBS_Path at(path, false);
    Object_Attributes object;
    std::string error;
    if (!object.parse(attributes.common, attributes.own, error)) {
      problems.push_back("its attributes (those in the set before are damaged: " + error + ")");
      return;
    }
    Object_Attributes answer;
    const auto failed = [&](const char* what) {
      problems.push_back(std::string(what) + " (" + svr_->last_error().text() + ")");
    };
    if (lacks_tags(object) && service->get_tags(at.bucket_.c_str(), at.object_.c_str(), answer)) {
      object.tags = answer.tags;
      object.tags_known = true;
    } else if (lacks_tags(object)) {
      failed("its tags");
    }
    if (lacks_acl(object) && service->get_acl(at.bucket_.c_str(), at.object_.c_str(), answer)) {
      object.owner = answer.owner;
      object.grants = answer.grants;
    } else if (lacks_acl(object)) {
      failed("its access list");
    }
    attributes.common = object.common_text();
    attributes.own = object.own_text();
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
}

bool OBS_Backup_Callback::connect(const URI& uri, const S3_Client_Options& opts) {
  return clt_.connect(uri.scheme(), uri.host(), uri.port(), uri.is_ssl(), nullptr, opts);
}

bool OBS_Backup_Callback::lstat(const char* path, MTF::Callback_Stat& stat) {
  if (path == nullptr || *path == '\0') {
    report_no_path();
    return false;
  }
  stat.reset();
  stat.nlink = 1;
  try {
    if (OBS_Path(path, false).is_prefix())
      stat.mode = DIRECTORY_MODE;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
  return true;
}

int OBS_Backup_Callback::readlink(const char*, char*, size_t) {
  return -1;
}

int OBS_Backup_Callback::read_dirs(const char*, std::list<std::string>&) {
  return 0;
}

MTF::IFile_Reader_var OBS_Backup_Callback::make_file_reader() {
  try {
    return make_counted<MTF::IFile_Reader_var, OBS_File_Reader>(clt_.make_service(), wishes_);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return no_object<MTF::IFile_Reader_var>;
  }
}

MTF::ISrc_Lister_var OBS_Backup_Callback::make_source_lister(const std::list<std::string>* sources, unsigned short seq,
                                                             MTF::Event_Handler* handler, const MTF::IFilter* filter,
                                                             int threads) {
  cache_limit_ = std::clamp(cache_limit_, MIN_CACHE_LIMIT, MAX_CACHE_LIMIT);

  try {
    std::list<std::string> srcs;
    if (sources != nullptr) {
      for (const std::string& source : *sources) {
        if (!source.empty() && source != "/")
          add_source(srcs, source);
      }
    }
    if (srcs.empty())
      srcs = all_buckets(filter);
    return make_counted<MTF::ISrc_Lister_var, Async_OBS_Source_Lister>(clt_, seq, std::move(srcs), handler, filter,
                                                                       threads, cache_limit_);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return no_object<MTF::ISrc_Lister_var>;
  }
}

std::list<std::string> OBS_Backup_Callback::all_buckets(const MTF::IFilter* filter) {
  std::list<std::string> paths;
  const auto add = [&](const std::string& bucket) {
    std::string path = "/" + bucket + "/";
    if (MTF::is_included(path.c_str(), true, filter))
      paths.push_back(std::move(path));
  };
  for (const std::string& bucket : buckets_)
    add(bucket);
  if (buckets_.empty()) {
    std::vector<json_spirit::Value> listed;
    // A request that failed may have brought a part of them.
    if (!clt_.get_buckets(listed))
      listed.clear();
    for (const json_spirit::Value& value : listed) {
      if (value.type() != json_spirit::obj_type)
        continue;
      const json_spirit::Value* name = json_spirit::find(value.get_obj(), "dir");
      if (name != nullptr && name->type() == json_spirit::str_type)
        add(name->get_str());
    }
  }
  paths.sort([](const std::string& a, const std::string& b) { return MTF::compare(a, b, '/'); });
  return paths;
}

void OBS_Backup_Callback_Factory::buckets(const std::vector<json_spirit::Value>& names) {
  for (const json_spirit::Value& name : names) {
    if (name.type() == json_spirit::str_type)
      buckets_.insert(name.get_str());
  }
}

MTF::IBackup_Callback_var OBS_Backup_Callback_Factory::make() {
  if (url_.empty() || opts_.access_key.empty() || opts_.secret_key.empty())
    return no_object<MTF::IBackup_Callback_var>;
  try {
    URI uri;
    if (!URI_Parser::parse(url_.c_str(), uri)) {
      ACE_ERROR((LM_ERROR, ACE_TEXT("Invalid obs entry uri: %s.\n"), url_.c_str()));
      return no_object<MTF::IBackup_Callback_var>;
    }
    std::unique_ptr<OBS_Backup_Callback> callback =
        std::make_unique<OBS_Backup_Callback>(buckets_, cache_limit_, wishes_);
    if (callback->connect(uri, opts_))
      return adopt<MTF::IBackup_Callback_var>(std::move(callback));
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
  }
  return no_object<MTF::IBackup_Callback_var>;
}
