#pragma once

#include "platform/mtf/object_image.h"

#include <memory>
#include <string>

/// What stands on a medium about itself and its set.
struct Medium_Identity {
  unsigned family = 0; ///< media family id, the same for all media of a set
  std::string media_name;
  std::string software; ///< name of the program; not empty
  std::string set_uuid;
  std::string set_name;
  std::string description;
  std::string user;
  std::string device = "OBS"; ///< the volume's device name
  std::string machine;
  bool incremental = false;
  long long write_date = 0; ///< seconds since the epoch
  /// Of an encrypted set: its medium tells neither names nor folders, and takes objects of this cipher only.
  Set_Cipher_ptr cipher;
};

/// Where an object lies and what was stored of it.
struct Stored_Object {
  unsigned long long offset = 0; ///< of its FILE block, bytes from the start of the medium
  unsigned long long size = 0;   ///< bytes of the object
  unsigned long long stored = 0; ///< bytes that it takes on the medium, block and padding included
  unsigned char sha256[32] = {}; ///< of its content
};

struct Set_Copy;

/// Writes one medium: a file with one MTF data set, which independent readers can read where objects are stored
/// plain. Appends in the order of the calls; one thread at a time.
///
/// What is written so far is no valid set until `finish`. Any failure (a full disk) leaves the writer failed: every
/// further call fails with the first error.
class Medium_Writer {
public:
  /// Makes the file, which must not exist. Null with the reason.
  static std::unique_ptr<Medium_Writer> create(const std::string& path, const Medium_Identity& identity,
                                               std::string& error);
  virtual ~Medium_Writer() = default;

  /// Begins a directory: all objects that follow lie in it. `path` is the path from the bucket down with a NUL behind
  /// each component, as a DIR catalog block has it. The same directory as before writes nothing.
  virtual bool set_directory(const std::string& path) = 0;
  /// Appends an object that was made ready in memory (Object_Image::encode), on any thread.
  virtual bool append(Object_Image& image, Stored_Object& stored) = 0;

  /// An object too large for memory: begin, its content piece by piece, then end or cancel. The size announced in
  /// `head` must be met exactly: `end_object` fails, and cancels, when fewer bytes came, `write` when more come.
  /// These two leave the writer good, with `error` empty: the object is at fault, not the medium.
  virtual bool begin_object(const Object_Head& head, const Codec_Options& codec) = 0;
  virtual bool write(const char* data, size_t size) = 0;
  virtual bool end_object(Stored_Object& stored) = 0;
  /// Takes back everything since `begin_object`: the medium is as if the object had never come. Nothing to do, and
  /// true, when no object is open.
  virtual bool cancel_object() = 0;

  /// Hands all that was written so far to the system, as it is when the process ends without `finish`: whole objects
  /// can then be taken up from the medium. An open object is cancelled.
  virtual bool flush() = 0;
  /// Ends the data set and makes it durable (fsync), with a copy of catalog and record when one is given. No further
  /// call may follow.
  virtual bool finish(const Set_Copy* copy = nullptr) = 0;
  /// Bytes of the medium so far.
  virtual unsigned long long size() const = 0;
  virtual unsigned long long objects() const = 0;
  /// The first failure; empty while there was none.
  virtual const std::string& error() const = 0;
};
