#pragma once

#include "platform/pool/set_record.h"
#include "sdk/job/job_definition.h"

#include <optional>
#include <string>
#include <vector>

/// How much of the set before may be gone without anybody asking: a backup that finds less than that has probably been
/// pointed somewhere else.
struct Deletion_Limits {
  /// Unless the operator says otherwise: so many per cent, where the set before had more than so many objects.
  static constexpr unsigned DEFAULT_PERCENT = 50;
  static constexpr unsigned long long DEFAULT_ABOVE = 100;

  bool allow_empty = false; ///< PATHs, and the whole run, may list nothing where something was
  bool given = false;       ///< `most` is the operator's
  bool percent = true;      ///< `most` is a share of the set before, and not a number of objects
  unsigned long long most = DEFAULT_PERCENT;

  /// Reads "30%", "100%" (no limit) or "500" (objects). False for anything else.
  static bool parse(const std::string& text, Deletion_Limits& limits);
  /// Whether `gone` of `had` objects are more than that.
  bool exceeded(unsigned long long gone, unsigned long long had) const;
  /// "50%", "500".
  std::string text() const;
};

/// What the sets before say about what is to be expected.
struct Earlier_Sets {
  unsigned long long newest = 0;  ///< objects of the newest one; 0 without any
  unsigned long long whole = 0;   ///< objects of the newest whole one, or of the newest where none is known to be whole
  std::optional<Set_Record> last; ///< the newest one

  static Earlier_Sets of(const std::vector<Set_Record>& sets);
};

/// A job definition with what this host's engine asks for beyond the members that every module knows.
class Guarded_Definition : public Job_Definition {
public:
  Guarded_Definition(Settings settings, const Deletion_Limits& limits);
  ~Guarded_Definition() override;
  const Deletion_Limits& deletion_limits() const { return limits_; }

private:
  Deletion_Limits limits_;
};

/// The limits of a definition; the usual ones where it says nothing about them.
Deletion_Limits deletion_limits(const Job_Definition& definition);
