#pragma once

#include "sdk/base/uri.h"
#include "sdk/mtf/attributes_update.h"
#include "sdk/mtf/backup_callback.h"
#include "sdk/s3/object_attributes.h"

#include <list>
#include <memory>
#include <set>
#include <string>
#include <vector>

/// Adds a source path to a list of them so that no object is named twice: a prefix of the list that lies under `path`
/// is dropped, and nothing is added when `path` lies under one. Only the prefixes that the list begins with are looked
/// at.
void add_source(std::list<std::string>& sources, const std::string& path);

/// What a backup asks about objects beyond what the answer to their GET tells: each costs a request of its own.
struct Object_Wishes {
  bool tags = false;
  bool acl = false;
  bool refresh = false; ///< also about objects of which it is known
};

/// Reads objects for a backup, one after the other. A connection that breaks in the middle of a body is taken up again
/// by the next `read`, from the byte where it broke. One thread at a time; the client that made its service outlives
/// it.
class OBS_File_Reader : public MTF::IFile_Reader,
                        public MTF::IFile_Attributes_Source,
                        public MTF::IFile_Attributes_Update {
public:
  explicit OBS_File_Reader(std::shared_ptr<S3_Service_Base> svr, const Object_Wishes& wishes = {})
      : svr_(std::move(svr)), wishes_(wishes) {}
  ~OBS_File_Reader() override;

  /// Asks for the object `path` ("/bucket/key"). 0; 1, after a debug line, when it cannot be had; -1 without a path.
  int open(const char* path) override;
  /// Whether there is an answer whose body can be read.
  bool is_open() override;
  int read(MTF::Buffer& buffer) override;
  int close() override;
  bool handle_file_blk(MTF::File_Blk& blk, unsigned long long& size, MTF::Callback_Stat& stat) override;
  /// What the answer told, and what was wished for besides. Nothing where the service cannot tell attributes.
  void attributes(MTF::File_Attributes& attributes, std::vector<std::string>& problems) override;
  /// True when tags or access list are wished for and not known, or to be asked for in any case.
  bool lacks(const MTF::File_Attributes& attributes) override;
  void update(const char* path, MTF::File_Attributes& attributes, std::vector<std::string>& problems) override;

private:
  bool lacks_tags(const Object_Attributes& object) const {
    return wishes_.tags && (wishes_.refresh || !object.tags_known);
  }
  bool lacks_acl(const Object_Attributes& object) const {
    return wishes_.acl && (wishes_.refresh || !object.acl_known());
  }
  void ask_extras(S3_Attribute_Service& service, Object_Attributes& object, std::vector<std::string>& problems);
  bool open_i();
  bool fits() const;

  std::shared_ptr<S3_Service_Base> svr_;
  const Object_Wishes wishes_;
  size_t offset_ = 0; ///< bytes of the object that were delivered
  std::string path_;
  HTTP_Connection_var conn_;       ///< null while closed
  std::unique_ptr<S3_Object> obj_; ///< from the answer to the object's first request
};

/// The object-storage side of one backup: a logged-on client, from which readers and the lister are made. The engine
/// calls `make_file_reader` from its channels' threads, everything else from one.
class OBS_Backup_Callback : public MTF::IBackup_Callback {
public:
  /// `buckets`: those that the account is confined to; empty: the service is asked. `cache_limit`: entries that the
  /// listing may be ahead.
  OBS_Backup_Callback(const std::set<std::string>& buckets, unsigned long long cache_limit,
                      const Object_Wishes& wishes = {})
      : buckets_(buckets), cache_limit_(cache_limit), wishes_(wishes) {}
  ~OBS_Backup_Callback() override;

  bool connect(const URI& uri, const S3_Client_Options& opts);
  char directory_separator() override { return '/'; }
  /// Tells folders from objects by the path alone; no request is sent.
  bool lstat(const char* path, MTF::Callback_Stat& stat) override;
  int readlink(const char* path, char* buffer, size_t size) override;
  MTF::IFile_Reader_var make_file_reader() override;
  /// Always an asynchronous lister, over `sources` or else over all buckets that the filter lets pass. Brings the
  /// cache limit into its range.
  MTF::ISrc_Lister_var make_source_lister(const std::list<std::string>* sources, unsigned short seq,
                                          MTF::Event_Handler* handler, const MTF::IFilter* filter,
                                          int threads) override;
  /// Folders come from the lister only: 0.
  int read_dirs(const char* path, std::list<std::string>& dirs) override;

  unsigned long long cache_limit() const { return cache_limit_; }

private:
  std::list<std::string> all_buckets(const MTF::IFilter* filter);

  S3_Client clt_;
  const std::set<std::string> buckets_;
  unsigned long long cache_limit_;
  const Object_Wishes wishes_;
};

/// Makes the callback of one backup.
class OBS_Backup_Callback_Factory : public MTF::IBackup_Callback_Factory {
public:
  /// `url`: "scheme://host[:port]".
  OBS_Backup_Callback_Factory(const std::string& url, const S3_Client_Options& opts, unsigned long long cache_limit)
      : url_(url), opts_(opts), cache_limit_(cache_limit) {}
  ~OBS_Backup_Callback_Factory() override;

  /// Adds the names among `names` to the buckets that the account is confined to; what is no text is left out.
  void buckets(const std::vector<json_spirit::Value>& names);
  const std::set<std::string>& buckets() const { return buckets_; }
  /// What the readers ask about each object.
  void wishes(const Object_Wishes& wishes) { wishes_ = wishes; }

  /// A connected callback. Null without a URL or keys (nothing is logged), with a URL that makes no sense, or when the
  /// client does not connect.
  MTF::IBackup_Callback_var make() override;

private:
  std::string url_;
  S3_Client_Options opts_;
  std::set<std::string> buckets_;
  unsigned long long cache_limit_;
  Object_Wishes wishes_;
};
