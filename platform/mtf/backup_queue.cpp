#include "platform/mtf/backup_queue.h"

#include <algorithm>
#include <chrono>

Backup_Queue::Backup_Queue(const Backup_Limits& limits, unsigned channels) : limits_(limits) {
  for (unsigned i = 0; i < channels; ++i)
    channels_.push_back(std::make_unique<Channel>());
}

size_t Backup_Queue::need(const Backup_Item& item) const {
  // While it is encoded an object is in memory twice.
  return limits_.object_overhead + (large(item) ? 0 : 2 * static_cast<size_t>(item.size));
}

void Backup_Queue::charge(Backup_Item& item, size_t bytes) {
  item.reserved += bytes;
  used_ += bytes;
  peak_ = std::max(peak_, used_);
}

void Backup_Queue::release(Backup_Item& item, size_t bytes) {
  item.reserved -= bytes;
  used_ -= bytes;
  // Readers that wait for the budget are woken together, once there is work for several of them; what is claimed always
  // ends, so this point is always reached.
  if (used_ <= limits_.byte_budget - limits_.byte_budget / 8)
    budget_.notify_all();
}

/// Whoever cannot use a wake-up, or leaves something for others, hands it on: an arrival wakes one reader only.
void Backup_Queue::pass_on() {
  arrived_.notify_one();
}

void Backup_Queue::wake_all() {
  room_.notify_all();
  arrived_.notify_all();
  budget_.notify_all();
  streams_.notify_all();
  resumed_.notify_all();
  for (const auto& channel : channels_)
    channel->front.notify_all();
}

bool Backup_Queue::push(std::unique_ptr<Backup_Item> item) {
  std::unique_lock<std::mutex> lock(mutex_);
  room_.wait(lock, [this] { return stopped_ || waiting_.size() < limits_.listed_ahead; });
  if (stopped_)
    return false;
  waiting_.push_back(std::move(item));
  arrived_.notify_one();
  return true;
}

void Backup_Queue::close() {
  std::lock_guard<std::mutex> guard(mutex_);
  closed_ = true;
  wake_all();
}

Backup_Item* Backup_Queue::claim(unsigned number) {
  Channel& channel = *channels_[number];
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stopped_ || (closed_ && waiting_.empty()))
      return nullptr;
    if (paused_) {
      resumed_.wait(lock);
      continue;
    }
    if (waiting_.empty()) {
      arrived_.wait(lock);
      continue;
    }
    Backup_Item& item = *waiting_.front();
    const bool stream = large(item);
    if (stream && channel.streams != 0) {
      pass_on();
      streams_.wait(lock);
      continue;
    }
    // One object alone may exceed the budget, else it would never be had.
    if (used_ != 0 && used_ + need(item) > limits_.byte_budget) {
      budget_.wait(lock);
      continue;
    }
    channel.claimed.push_back(std::move(waiting_.front()));
    waiting_.pop_front();
    charge(item, need(item));
    room_.notify_one();
    if (!waiting_.empty())
      pass_on();
    else if (closed_)
      wake_all();
    if (!stream)
      return &item;
    item.state = Backup_Item::STREAM;
    ++channel.streams;
    streams_.notify_all();
    channel.front.notify_one();
  }
}

bool Backup_Queue::reserve(Backup_Item& item, size_t bytes) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (used_ + bytes > limits_.byte_budget)
    return false;
  charge(item, bytes);
  return true;
}

void Backup_Queue::settle(unsigned number, Backup_Item& item, Backup_Item::State state, size_t keep) {
  Channel& channel = *channels_[number];
  std::lock_guard<std::mutex> guard(mutex_);
  item.state = state;
  if (state == Backup_Item::STREAM)
    ++channel.streams;
  keep += limits_.object_overhead;
  if (keep < item.reserved)
    release(item, item.reserved - keep);
  else
    charge(item, keep - item.reserved);
  if (channel.claimed.front().get() == &item)
    channel.front.notify_one();
}

std::unique_ptr<Backup_Item> Backup_Queue::next(unsigned number) {
  Channel& channel = *channels_[number];
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    channel.front.wait(lock, [&] {
      if (stopped_ && !draining_)
        return true;
      return channel.claimed.empty() ? stopped_ || (closed_ && waiting_.empty())
                                     : channel.claimed.front()->state != Backup_Item::READING;
    });
    if ((stopped_ && !draining_) || channel.claimed.empty())
      return nullptr;
    std::unique_ptr<Backup_Item> item = std::move(channel.claimed.front());
    channel.claimed.pop_front();
    if (!stopped_ || item->state == Backup_Item::READY)
      return item;
    if (item->state == Backup_Item::STREAM)
      --channel.streams;
    release(*item, item->reserved);
  }
}

void Backup_Queue::done(unsigned number, std::unique_ptr<Backup_Item> item) {
  Channel& channel = *channels_[number];
  const bool stream = item->state == Backup_Item::STREAM;
  // The memory goes before its place in the budget does, and outside the lock.
  item->image = Object_Image();
  std::lock_guard<std::mutex> guard(mutex_);
  release(*item, item->reserved);
  if (stream) {
    --channel.streams;
    streams_.notify_all();
  }
}

void Backup_Queue::stop(bool drain) {
  std::lock_guard<std::mutex> guard(mutex_);
  draining_ = drain && (!stopped_ || draining_);
  stopped_ = true;
  wake_all();
}

bool Backup_Queue::stopped() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return stopped_;
}

void Backup_Queue::pause(bool value) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (paused_ == value)
    return;
  paused_ = value;
  resumed_.notify_all();
}

bool Backup_Queue::wait_while_paused(double seconds) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (seconds > 0)
    resumed_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return stopped_; });
  resumed_.wait(lock, [this] { return stopped_ || !paused_; });
  return !stopped_;
}

size_t Backup_Queue::peak_bytes() const {
  std::lock_guard<std::mutex> guard(mutex_);
  return peak_;
}
