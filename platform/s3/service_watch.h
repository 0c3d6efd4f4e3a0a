#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

/// Tells a service that is gone from objects that cannot be had. Hears what becomes of every request of a run, and
/// finds the service failing once one has failed for a reason that would have met any other (the way there, the
/// service itself, the keys) and none has been answered since. While it is failing it is asked for something else, the
/// first key of a bucket: an answer to that clears it, and then the objects are at fault. When nothing at all has been
/// answered for as long as the limit says, it is gone, for good as far as this run is concerned.
///
/// Denials may mean either: as many different ones in a row as MANY make it look failing.
///
/// Times are seconds since any one moment. Any thread; `look` one at a time.
class Service_Watch {
public:
  static constexpr unsigned DEFAULT_LIMIT = 300; ///< seconds
  static constexpr unsigned MANY = 8;
  static constexpr double PROBE_EVERY = 5; ///< seconds

  /// Sends a request about something else, whose outcome comes here like any other's.
  typedef std::function<void()> Probe;

  /// Before the first request.
  void limit(unsigned seconds) { limit_ = seconds; }

  /// A request was answered, with what was asked for or with a reason that has to do with just that.
  void answered();
  /// A request was not, or only with a reason that holds for any other. `why` is for people.
  void failed(const std::string& why, double now, Probe probe);
  /// A request was denied; `what` is what was asked for.
  void denied(const std::string& what, const std::string& why, double now, Probe probe);

  /// Whether it is failing and not yet gone, so that it is still to be found out what a failed object means.
  bool failing() const { return failing_.load(std::memory_order_relaxed) && !gone(); }
  /// How often it was asked for something else and failed as well: differs after a time in which the service was away.
  unsigned long long outages() const { return outages_.load(std::memory_order_relaxed); }
  /// To be called some ten times a second by a thread that may wait for an answer. True when the service is gone.
  bool look(double now);
  bool gone() const { return gone_.load(std::memory_order_relaxed); }
  /// Why the run ends, when the service is gone: a sentence.
  std::string message() const;

private:
  void begin(const std::string& why, double now, Probe probe);

  unsigned limit_ = DEFAULT_LIMIT;
  std::atomic<bool> failing_{false};
  std::atomic<bool> gone_{false};
  std::atomic<bool> any_denied_{false}; ///< this and `failing_` spare the lock on the common road
  std::atomic<unsigned long long> outages_{0};
  mutable std::mutex mutex_; ///< guards what follows
  double since_ = 0;         ///< the first failure since the last answer
  double next_probe_ = 0;
  Probe probe_;
  std::string why_; ///< of the last failure
  unsigned denied_ = 0;
  double denied_since_ = 0;
  std::string last_denied_;
};
