#pragma once

#include "sdk/mtf/cat_blk.h"
#include "sdk/mtf/event_handler.h"
#include "sdk/mtf/filter.h"

#include <functional>
#include <list>

namespace MTF {

/// Reads files for a backup, one after the other. One thread at a time; the engine has several.
class IFile_Reader {
public:
  virtual ~IFile_Reader();
  /// `path` as the lister gave it, valid during the call. 0, or non-zero when the file cannot be had: the engine leaves
  /// it out and goes on.
  virtual int open(const char* path) = 0;
  /// Whether there is a source to read from: false before `open`, after `close`, and after `read` has lost it.
  virtual bool is_open() = 0;
  /// Fills `buffer` and sets what is used. 0 on success (nothing used at the end of the file, or where the source
  /// broke off and the next call goes on from there: then `is_open` is false); non-zero on failure.
  virtual int read(Buffer& buffer) = 0;
  /// Lets go of the source; also when nothing is open. 0; what it returns is not looked at.
  virtual int close() = 0;
  /// Tells about the open file: its size in bytes, its status, and the dates for its block on media. False when nothing
  /// is open or it cannot be told: the file is left out.
  virtual bool handle_file_blk(File_Blk& blk, unsigned long long& size, Callback_Stat& stat) = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IFile_Reader, ACE_Recursive_Thread_Mutex> IFile_Reader_var;

/// Produces the catalog blocks of a backup. One thread at a time.
class ISrc_Lister {
public:
  virtual ~ISrc_Lister();
  /// Moves the next block into `blk`; false at the end or on failure.
  virtual bool next(Cat_Blk& blk) = 0;
  /// Hands every block to `handler`, which may refuse one with false. 0 when the catalog is complete, else -1. The
  /// base does it with `next` and takes the FEND block for the sign of completeness.
  virtual int generate(std::function<bool(std::unique_ptr<Cat_Blk>)> handler);
};
typedef ACE_Refcounted_Auto_Ptr<ISrc_Lister, ACE_Recursive_Thread_Mutex> ISrc_Lister_var;

/// A resource's side of one backup. Shared by the engine's threads.
class IBackup_Callback {
public:
  virtual ~IBackup_Callback();
  /// "/" for object storage: what parts the names in a path.
  virtual char directory_separator() = 0;
  /// The status of a path. False when it cannot be told.
  virtual bool lstat(const char* path, Callback_Stat& stat) = 0;
  /// Bytes of the link's text put into `buffer`, or -1.
  virtual int readlink(const char* path, char* buffer, size_t size) = 0;
  /// A reader of its own for the caller, or null. Any thread.
  virtual IFile_Reader_var make_file_reader() = 0;
  /// The lister of everything under `sources` (null: of all there is), or null when it cannot be made. `seq`: number
  /// of the set that is being made, which its blocks carry; `threads`: that list side by side. `sources`, `handler` and
  /// `filter` may be null; the latter two outlive the lister. Once per backup.
  virtual ISrc_Lister_var make_source_lister(const std::list<std::string>* sources, unsigned short seq,
                                             Event_Handler* handler, const IFilter* filter, int threads) = 0;
  /// Appends the names of the folders under `path`; their number. Not asked by this engine, which uses the lister.
  virtual int read_dirs(const char* path, std::list<std::string>& dirs) = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IBackup_Callback, ACE_Recursive_Thread_Mutex> IBackup_Callback_var;

/// Makes the callback when the engine begins. One thread.
class IBackup_Callback_Factory {
public:
  virtual ~IBackup_Callback_Factory();
  /// A connected callback, or null: the backup then fails.
  virtual IBackup_Callback_var make() = 0;
};
typedef ACE_Refcounted_Auto_Ptr<IBackup_Callback_Factory, ACE_Recursive_Thread_Mutex> IBackup_Callback_Factory_var;

} // namespace MTF
