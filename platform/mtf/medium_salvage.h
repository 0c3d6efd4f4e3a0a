#pragma once

#include "platform/mtf/medium_reader.h"
#include "platform/mtf/medium_walker.h"

#include <functional>
#include <string>

// A medium that a run left behind becomes a valid one in three steps: it is read, cut behind its last whole block, and
// ended. Whatever fails, and whenever it is cut short, what is whole on it stays, and all can be done again.

/// What was found on it.
struct Left_Medium {
  std::string path;
  Medium_Set set;
  unsigned long long objects = 0; ///< whole ones, each read and checked
  Medium_Walker::Data_End end;
  unsigned long long size = 0; ///< bytes, when it has its end
};

/// What a medium can be used for.
enum class Left_Kind {
  MEDIUM,  ///< it says which set it belongs to
  NOTHING, ///< it does not, although all of it that says so could be read
  UNREAD   ///< it could not be read now, which tells nothing
};

/// Finds out what `medium.path` is, and its `set`. `error` says why it is no medium.
Left_Kind look_at_left_medium(Left_Medium& medium, std::string& error);
/// Reads it to its last whole object, checks every content, and tells `object` those that are whole (false from it
/// stops, and fails). Changes nothing. False with the reason when not all of it could be read. `cipher`: of an
/// encrypted set.
bool read_left_medium(Left_Medium& medium, const Set_Cipher_ptr& cipher,
                      const std::function<bool(const Medium_Finding&)>& object, std::string& error);
/// Cuts off what lies behind the last whole block, unless the set has its end already. False with the reason.
bool cut_left_medium(const Left_Medium& medium, std::string& error);
/// Gives a set without an end one, durably, and sets `size`. False with the reason.
bool end_left_medium(Left_Medium& medium, const Set_Cipher_ptr& cipher, std::string& error);
