#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

/// Bytes per second that all who share this may move together, in both directions. Before a piece is moved it is taken
/// on credit, and after it settled by what really moved; who comes while the debt is not paid waits. So the rate holds
/// over any time of some seconds, whatever the number of users and however unevenly they move their bytes. Time that
/// nobody used is lost but for a fifth of a second, by which late wake-ups are made good.
///
/// By the clock in force. Any thread.
class Rate_Limit {
public:
  /// Bytes per second; 0: no limit. Before the first use.
  void set(unsigned long long bytes_per_second) { rate_ = bytes_per_second; }
  bool on() const { return rate_ != 0; }
  /// How much one should move at a time, so that nobody waits long for another: a thirty-second part of a second's
  /// bytes, from 1 KiB to 4 MiB.
  unsigned long piece() const;

  /// 0: a piece may be moved, and `end` has to follow; else the seconds until it is worth asking again.
  double begin();
  /// `moved`: how much it was; also 0, also more than a piece.
  void end(unsigned long long moved);
  /// Waits for so long, in the clock's time; may end early.
  void wait(double seconds);

private:
  std::atomic<unsigned long long> rate_{0};
  std::mutex mutex_;                ///< guards what follows
  std::condition_variable changed_; ///< never notified: it is time that is waited for
  double paid_at_ = 0;              ///< when what has been moved is paid for; seconds of the monotonic clock
};
