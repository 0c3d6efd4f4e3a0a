#pragma once

#include "sdk/base/uri.h"
#include "sdk/mtf/file_attributes.h"
#include "sdk/mtf/file_replacement.h"
#include "sdk/mtf/restore_callback.h"
#include "sdk/s3/object_attributes.h"

#include <string>
#include <vector>

class Buckets_Mapper;

/// What objects are given otherwise than they had it.
struct Attribute_Policy {
  bool no_acl = false;
  bool drop_tags = false;
  std::string storage_class; ///< for all; empty: each one's own
};

/// Writes restored files as objects, one upload after the other. Every failure costs one file only: E_SKIP, never
/// E_FAILED. One thread at a time; the client and the mapper outlive it.
class OBS_File_Writer : public MTF::File_Writer_Base, public MTF::IFile_Attributes_Sink, public MTF::IFile_Replacement {
public:
  OBS_File_Writer(S3_Client& clt, const Buckets_Mapper& mapper, const Attribute_Policy& policy = {})
      : clt_(clt), mapper_(mapper), policy_(policy) {}
  ~OBS_File_Writer() override;

  /// Begins the object that the file `path` ("/bucket/key") is restored to. `size` in bytes.
  MTF::Error_Code open(const char* path, ACE_UINT64 size) override;
  bool is_open() override { return writer_ != nullptr; }
  /// All of `data` or nothing; more than `open` announced, or nothing at all, is an error.
  MTF::Error_Code write(const char* data, size_t length) override;
  MTF::Error_Code close() override;

  /// The object of the next `open`, whether that succeeds or not, is given them, as far as the policy wants and the
  /// target takes them.
  void attributes(const MTF::File_Attributes& attributes) override;
  const std::vector<std::string>& refused() const override { return refused_; }

  /// A stored object takes the place of the one before in one step; until then, and when it fails, that one stays.
  bool replaces_at_close() const override { return true; }

private:
  MTF::Error_Code open_i(const char* path, ACE_UINT64 size);
  S3_IWriter_ptr upload(const std::string& bucket, const std::string& key, size_t length,
                        const MTF::File_Attributes& given);
  MTF::Error_Code write_i(const char* data, size_t length);
  MTF::Error_Code close_i();

  S3_Client& clt_;
  S3_IWriter_ptr writer_; ///< empty until `open` has succeeded
  const Buckets_Mapper& mapper_;
  const Attribute_Policy policy_;
  MTF::File_Attributes attributes_; ///< of the next object
  std::vector<std::string> refused_;
};

/// The object-storage side of one channel of a restore: one logged-on client. Used by one thread at a time; outlives
/// its writers.
class OBS_Restore_Callback : public MTF::Restore_Callback_Base {
public:
  explicit OBS_Restore_Callback(const Buckets_Mapper& mapper, const Attribute_Policy& policy = {})
      : mapper_(mapper), policy_(policy) {}
  ~OBS_Restore_Callback() override;

  bool connect(const URI& uri, const S3_Client_Options& opts);
  char directory_separator() override { return '/'; }
  /// Deletes the object that `path` would be restored over. Without a target bucket in the mapping nothing is deleted
  /// and true is answered, although `OBS_File_Writer::open` writes to the source bucket then.
  bool unlink(const char* path) override;
  MTF::IFile_Writer_var make_file_writer() override;

private:
  S3_Client clt_;
  const Buckets_Mapper& mapper_;
  const Attribute_Policy policy_;
};

/// Makes the callbacks of one restore, one for each channel. The mapper outlives it and its callbacks.
class OBS_Restore_Callback_Factory : public MTF::IRestore_Callback_Factory {
public:
  /// `url`: "scheme://host[:port]".
  OBS_Restore_Callback_Factory(const std::string& url, const S3_Client_Options& opts, const Buckets_Mapper& mapper)
      : url_(url), opts_(opts), mapper_(mapper) {}
  ~OBS_Restore_Callback_Factory() override;

  void policy(const Attribute_Policy& policy) { policy_ = policy; }

  /// A connected callback. Null without a URL or keys (nothing is logged), with a URL that makes no sense, or when the
  /// client does not connect.
  MTF::IRestore_Callback_var make() override;

private:
  std::string url_;
  S3_Client_Options opts_;
  const Buckets_Mapper& mapper_;
  Attribute_Policy policy_;
};
