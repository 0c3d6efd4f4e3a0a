#pragma once

namespace MTF {

/// How a step of an engine ended.
enum Error_Code {
  E_FAILED = -1,
  E_OK = 0,
  E_SKIP = 1, ///< leave this one file out and go on
  E_CANCELED = 2,
  E_OPEN_MEDIUM = 3,   ///< a medium cannot be made or read
  E_WRITE_MEDIUM = 4,  ///< as a full disk
  E_MAKE_CALLBACK = 5, ///< the resource's callback could not be made
  E_LIST_SOURCE = 6,   ///< the source lister gave up
  E_ACTION = 7,        ///< a pre- or post-action failed
  E_NO_SET = 8,        ///< the set to restore is not there or not readable
  E_GET_POOL_INFO = 12,
  E_NO_FILES_BACKUPED = 13,
  E_END_WITH_SKIPPED_FILES = 14,
  E_NO_FILES_RESTORED = 15
};

} // namespace MTF
