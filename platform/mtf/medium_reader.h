#pragma once

#include "platform/mtf/object_image.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

class Medium_Source;

/// How reading a stored object ended.
enum class Read_Outcome {
  MORE,    ///< some verified bytes were handed out
  END,     ///< the whole object was handed out and its digest holds
  DAMAGED, ///< what is stored does not match its checks; `error` says what and where
  FAILED   ///< the medium cannot be read
};

/// Reads one object of a medium. Only bytes that passed their own check are ever handed out. One thread at a time.
class Object_Reader {
public:
  virtual ~Object_Reader() = default;
  virtual const Object_Head& head() const = 0;
  /// Why the attributes in the head are missing although they were stored; empty where they are not.
  virtual const std::string& attributes_problem() const = 0;
  /// Hands out up to `size` bytes of the content; `got` is their number. END comes with or after the last bytes.
  virtual Read_Outcome read(char* buffer, size_t size, size_t& got) = 0;
  /// The same without a copy: as many of the next bytes as are at hand, valid until the next call.
  virtual Read_Outcome next(std::string_view& bytes) = 0;
  /// The digest stored with the object; valid after END.
  virtual const unsigned char* sha256() const = 0;
  /// Bytes of the medium that were read for this object.
  virtual unsigned long long stored() const = 0;
  virtual const std::string& error() const = 0;
};

/// One thing found while walking a medium.
struct Medium_Finding {
  enum Kind { OBJECT, DAMAGE, END_OF_SET } kind = OBJECT;
  unsigned long long offset = 0; ///< bytes from the start of the medium
  unsigned long long length = 0;
  Object_Head head;              ///< for OBJECT
  unsigned char sha256[32] = {}; ///< for OBJECT: as stored
  bool attributes_lost = false;  ///< for OBJECT: its attributes are damaged, its content is not
  std::string message;           ///< for DAMAGE
};

/// What a medium says about the set that it belongs to; needs no key.
struct Medium_Set {
  std::string uuid;
  std::string name;        ///< empty where the set is encrypted
  std::string wrapped_key; ///< the set's data key under that of its pool; empty: the set is not encrypted
  unsigned family = 0;
  bool incremental = false;
  long long write_date = 0; ///< seconds since the epoch
};
/// Reads it from the start of a medium, or, of an encrypted set, from its end where the start is damaged (uuid and key,
/// and the family of the first block, only). False with the reason; a medium that it takes can be opened.
bool read_medium_set(const std::string& path, Medium_Set& set, std::string& error);
/// The same from an open one, which knows whether it was read at all. Throws std::bad_alloc.
bool read_medium_set(const Medium_Source& source, Medium_Set& set, std::string& error);

/// Reads a medium. `object` may be called from several threads on one reader; each object's reader has its own place.
class Medium_Reader {
public:
  /// Null with the reason: no such file, not a medium, another family than `family` (0: any). Of an encrypted set,
  /// `cipher` opens the objects; without it the structure can be walked, where objects are known by ordinal.
  static std::unique_ptr<Medium_Reader> open(const std::string& path, unsigned family, std::string& error,
                                             const Set_Cipher_ptr& cipher = nullptr);
  virtual ~Medium_Reader() = default;

  /// A reader for the object whose FILE block lies at `offset`. Null with the reason when there is none there. Where it
  /// is known that the object takes `stored` bytes, nothing behind them is read.
  virtual std::unique_ptr<Object_Reader> object(unsigned long long offset, std::string& error,
                                                unsigned long long stored = 0) = 0;
  /// Walks the medium block by block and tells `found`, which returns false to stop. Damage is reported with its place
  /// and length, and the walk goes on with the next block that holds. With `content` every object's bytes are read and
  /// checked. False when the medium cannot be read at all.
  virtual bool walk(bool content, const std::function<bool(const Medium_Finding&)>& found, std::string& error) = 0;
  /// Whether the medium ends as a finished one does.
  virtual bool complete(std::string& error) const = 0;
  virtual unsigned long long size() const = 0;
  /// The uuid of the set that it says it belongs to; empty where its volume block is damaged.
  virtual const std::string& set_uuid() const = 0;
};
