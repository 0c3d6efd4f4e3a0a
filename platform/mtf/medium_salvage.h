#pragma once

#include "platform/mtf/medium_reader.h"

#include <functional>
#include <string>

/// What was found on a medium that a run left behind.
struct Salvaged_Medium {
  Medium_Set set;
  unsigned long long size = 0;    ///< bytes, when all is done
  unsigned long long objects = 0; ///< whole ones, each read and checked
};

/// Reads a medium to its last whole object, checks every content, and tells `object` those that are whole (false from
/// it stops, and fails). What lies behind the last whole block is cut off, and a set without an end gets one, so that
/// the medium is a valid one from then on; what is valid already stays as it is. Done again after a crash in between it
/// comes to the same. False with the reason when nothing can be made of it.
/// `cipher`: of an encrypted set.
bool salvage_medium(const std::string& path, const Set_Cipher_ptr& cipher,
                    const std::function<bool(const Medium_Finding&)>& object, Salvaged_Medium& medium,
                    std::string& error);
