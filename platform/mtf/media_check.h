#pragma once

#include "platform/crypto/set_cipher.h"

#include <functional>
#include <string>

/// What a strict check found to be wrong on a medium.
struct Media_Problem {
  unsigned long long offset = 0; ///< bytes from the start of the medium
  unsigned long long length = 0;
  std::string object; ///< "bucket/key" of the object concerned, where it is known
  std::string message;
};

struct Media_Figures {
  unsigned long long size = 0;    ///< bytes of the medium
  unsigned long long objects = 0; ///< whole ones
  unsigned long long bytes = 0;   ///< of their contents
  unsigned long long problems = 0;
};

/// Holds a whole medium, contents included, against its format: checksums, alignment, addresses, numbers, filemarks,
/// padding, digests. Tells `found` every problem; false from it stops. False when the medium cannot be read at all.
/// Without the `cipher` of an encrypted set, that everything is as it was written, and objects go by ordinal.
bool check_medium(const std::string& path, const std::function<bool(const Media_Problem&)>& found,
                  Media_Figures& figures, std::string& error, const Set_Cipher_ptr& cipher = nullptr);

/// Describes a medium block by block, a line each and one for each stream, in the order in which they lie; what does
/// not hold together is said in its place. `line` has no line end; false from it stops. As check_medium.
bool dump_medium(const std::string& path, const std::function<bool(const std::string&)>& line, std::string& error,
                 const Set_Cipher_ptr& cipher = nullptr);
