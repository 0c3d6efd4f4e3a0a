#pragma once

#include "sdk/mtf/error_code.h"
#include "sdk/mtf/file_blk.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <ctime>
#include <string>

namespace MTF {

/// Writes files in a restore, one after the other. One thread at a time. Letting go of an open writer without `close`
/// gives the file up.
class IFile_Writer {
public:
  virtual ~IFile_Writer();
  // Each answers E_OK to go on and E_SKIP to leave this file out; anything else counts the file as failed. Nothing
  // but letting go of the writer follows then.
  /// `path` as the converter left it; `size` in bytes, all of which will be written.
  virtual Error_Code open(const char* path, ACE_UINT64 size) = 0;
  virtual bool is_open() = 0;
  /// The next `length` bytes; `data` is the caller's and may be overwritten after the call.
  virtual Error_Code write(const char* data, size_t length) = 0;
  /// Mode, links and times as they were backed up; once, after the last byte.
  virtual Error_Code set_stat(const Callback_Stat& stat) = 0;
  /// Makes what was written durable, after `set_stat`.
  virtual Error_Code sync() = 0;
  /// E_OK when the file is stored. The last call.
  virtual Error_Code close() = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IFile_Writer, ACE_Recursive_Thread_Mutex> IFile_Writer_var;

/// A writer for targets without status or synchronisation: both answer E_OK.
class File_Writer_Base : public IFile_Writer {
public:
  ~File_Writer_Base() override;
  Error_Code set_stat(const Callback_Stat& stat) override;
  Error_Code sync() override;
};

/// A resource's side of one channel of a restore. The channel's thread only, one file at a time; each channel has one
/// of its own.
class IRestore_Callback {
public:
  virtual ~IRestore_Callback();
  /// "/" for object storage: what parts the names in a path.
  virtual char directory_separator() = 0;
  /// Removes an existing file that is about to be replaced; true when nothing is in the way any more. Asked immediately
  /// before the file is opened, and only where its writer does not replace by itself (IFile_Replacement).
  virtual bool unlink(const char* path) = 0;
  /// True when the folder is there then.
  virtual bool make_dir(const char* path) = 0;
  /// A symbolic link at `path` to `text`; true when it is there then.
  virtual bool make_link(const char* path, const char* text) = 0;
  /// A writer for one file, or null: that file then fails.
  virtual IFile_Writer_var make_file_writer() = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IRestore_Callback, ACE_Recursive_Thread_Mutex> IRestore_Callback_var;

/// A callback for targets without folders (making one succeeds) and without links (making one fails).
class Restore_Callback_Base : public IRestore_Callback {
public:
  ~Restore_Callback_Base() override;
  bool make_dir(const char* path) override;
  bool make_link(const char* path, const char* text) override;
};

/// Makes the callbacks of the channels. Any thread, several at once.
class IRestore_Callback_Factory {
public:
  virtual ~IRestore_Callback_Factory();
  /// A connected callback for one channel, or null: the other channels do its work, and without any the restore fails.
  virtual IRestore_Callback_var make() = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IRestore_Callback_Factory, ACE_Recursive_Thread_Mutex> IRestore_Callback_Factory_var;

} // namespace MTF

namespace MTF_FS {

/// Looks at each file before it is restored and may change where it goes. Any thread.
class IPath_Converter {
public:
  virtual ~IPath_Converter();
  /// `mtime` of the backed-up file in seconds since the epoch. E_OK to go on, E_SKIP to leave what is there (the
  /// file counts as unchanged); anything else counts it as failed.
  virtual MTF::Error_Code convert(std::string& path, time_t mtime, bool is_dir) const = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IPath_Converter, ACE_Recursive_Thread_Mutex> IPath_Converter_var;

/// A converter that asks the one before it first. DERIVED offers `convert_i` with the arguments of `convert`.
template <typename DERIVED>
class Chain_Path_Converter : public IPath_Converter {
public:
  explicit Chain_Path_Converter(const IPath_Converter_var& pre) : pre_(pre) {}

  MTF::Error_Code convert(std::string& path, time_t mtime, bool is_dir) const override {
    if (!pre_.null()) {
      const MTF::Error_Code result = pre_->convert(path, mtime, is_dir);
      if (result != MTF::E_OK)
        return result;
    }
    return static_cast<const DERIVED*>(this)->convert_i(path, mtime, is_dir);
  }

protected:
  IPath_Converter_var pre_;
};

} // namespace MTF_FS
