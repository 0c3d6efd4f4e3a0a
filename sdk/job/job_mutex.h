#pragma once

#include <memory>
#include <string>

/// A mutual exclusion by name: two jobs on the same source never work at once, in this process or in another one that
/// uses the same state folder. Meets what ACE_Guard asks of a lock.
class Job_Mutex {
public:
  virtual ~Job_Mutex();
  virtual int acquire() = 0;    ///< blocks; 0, or -1 with errno when it cannot be had
  virtual int tryacquire() = 0; ///< -1 with errno EBUSY when somebody else holds it
  virtual int release() = 0;
  virtual int remove() = 0; ///< 0; for ACE's lock adapters

  /// The mutex of `name`; the same one for the same name while anybody holds a reference. Never null.
  static std::shared_ptr<Job_Mutex> get(const std::string& name);
};
