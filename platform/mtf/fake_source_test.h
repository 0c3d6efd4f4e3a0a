#pragma once

#include "sdk/mtf/backup_callback.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// A resource in memory for the engines' tests: objects with scripted faults, listed in hand-out order.
struct Fake_Object {
  std::string data;
  long long mtime = 1700000000;
  unsigned long long listed_size = ~0ull; ///< what the listing says, under an older date; ~0: the truth
  bool gone = false;                      ///< cannot be opened
  bool no_status = false;
  long long announced = -1;  ///< what the answer's head says; -1: the truth
  long long break_at = -1;   ///< the source breaks off here, once
  bool stays_broken = false; ///< and nothing more ever comes
  long long fail_at = -1;    ///< reading fails here
};

class Fake_Source {
public:
  void add(const std::string& path, const std::string& data) { at(path).data = data; }
  Fake_Object& at(const std::string& path) {
    if (objects.count(path) == 0)
      order.push_back(path);
    return objects[path];
  }

  std::map<std::string, Fake_Object> objects; ///< by "bucket/key"
  std::vector<std::string> order;             ///< of the listing
  std::set<std::string> lost;                 ///< listed, and not handed out
  std::atomic<unsigned> opened{0};
  std::atomic<unsigned> open_now{0};
  std::atomic<unsigned> most_open{0};
  std::function<void(const std::string&)> on_open; ///< called by every reader
  std::function<bool(unsigned)> on_list;           ///< before the Nth object, from 0; false ends the listing
  std::function<void(MTF::Event_Handler*)> on_list_start;
  bool refuse_callback = false;
  bool refuse_lister = false;
  int list_result = 0;
};

class Fake_Reader : public MTF::IFile_Reader {
public:
  explicit Fake_Reader(Fake_Source& source) : source_(source) {}

  int open(const char* path) override {
    at_ = 0;
    broke_ = false;
    path_ = path;
    ++source_.opened;
    if (source_.on_open)
      source_.on_open(path_);
    const auto found = source_.objects.find(path_.substr(1));
    object_ = found == source_.objects.end() ? nullptr : &found->second;
    open_ = object_ != nullptr && !object_->gone;
    if (!open_)
      return 1;
    const unsigned now = ++source_.open_now;
    counted_ = true;
    unsigned most = source_.most_open;
    while (now > most && !source_.most_open.compare_exchange_weak(most, now)) {
    }
    return 0;
  }
  bool is_open() override { return open_; }
  int read(MTF::Buffer& buffer) override {
    if (object_ == nullptr)
      return 1;
    if (!open_) {
      if (object_->stays_broken) {
        buffer.used(0);
        return 0;
      }
      open_ = true;
    }
    size_t end = object_->data.size();
    const size_t stop = static_cast<size_t>(object_->break_at);
    if (object_->fail_at >= 0 && at_ >= static_cast<size_t>(object_->fail_at))
      return 1;
    if (object_->break_at >= 0 && !broke_ && at_ <= stop) {
      if (at_ == stop) {
        broke_ = true;
        open_ = false;
        buffer.used(0);
        return 0;
      }
      end = std::min(end, stop);
    }
    // Pieces of odd sizes, as a network gives them.
    const size_t count = std::min({buffer.size(), end - at_, size_t(7000)});
    object_->data.copy(buffer.base(), count, at_);
    at_ += count;
    buffer.used(count);
    return 0;
  }
  int close() override {
    if (counted_)
      --source_.open_now;
    counted_ = false;
    open_ = false;
    object_ = nullptr;
    return 0;
  }
  bool handle_file_blk(MTF::File_Blk& block, unsigned long long& size, MTF::Callback_Stat& stat) override {
    if (!open_ || object_->no_status)
      return false;
    size = object_->announced >= 0 ? static_cast<unsigned long long>(object_->announced) : object_->data.size();
    stat.reset();
    stat.size = size;
    stat.mtime = object_->mtime;
    block.hdr().size(size);
    block.modification_date(stat.mtime);
    return true;
  }

private:
  Fake_Source& source_;
  std::string path_;
  Fake_Object* object_ = nullptr;
  size_t at_ = 0;
  bool open_ = false;
  bool counted_ = false;
  bool broke_ = false;
};

class Fake_Lister : public MTF::ISrc_Lister {
public:
  Fake_Lister(Fake_Source& source, unsigned short seq, MTF::Event_Handler* events, const MTF::IFilter* filter)
      : source_(source), seq_(seq), events_(events), filter_(filter) {}

  bool next(MTF::Cat_Blk&) override { return false; }
  int generate(std::function<bool(std::unique_ptr<MTF::Cat_Blk>)> handler) override {
    if (source_.on_list_start)
      source_.on_list_start(events_);
    std::string folder;
    unsigned count = 0;
    for (const std::string& path : source_.order) {
      if (events_->is_canceling() || (source_.on_list && !source_.on_list(count++)))
        return -1;
      if (!MTF::is_included(("/" + path).c_str(), false, filter_) || source_.lost.count(path) != 0)
        continue;
      const std::string parent = path.substr(0, path.rfind('/') + 1);
      if (parent != folder) {
        // Every level below what is shared with the folder before.
        size_t from = 0;
        for (size_t i = 0; i < std::min(folder.size(), parent.size()) && folder[i] == parent[i]; ++i)
          if (parent[i] == '/')
            from = i + 1;
        if (from == parent.size())
          from = parent.size() - 1;
        for (size_t slash = parent.find('/', from); slash != std::string::npos; slash = parent.find('/', slash + 1))
          if (!handler(folder_block(parent.substr(0, slash + 1))))
            return refused();
        folder = parent;
      }
      const Fake_Object& object = source_.objects[path];
      auto block = std::make_unique<MTF::Cat_File_Blk_T<MTF::File_Blk, MTF_CAT_DIRB_BLK, MTF_CAT_FILE_BLK>>();
      const std::string name = path.substr(parent.size());
      block->alloc_buffer(block->buffer_need(static_cast<unsigned>(name.size())));
      const long long mtime = object.listed_size == ~0ull ? object.mtime : object.mtime - 60;
      block->set(seq_, name, mtime, object.listed_size == ~0ull ? object.data.size() : object.listed_size, 0, 0);
      if (!handler(std::move(block)))
        return refused();
    }
    return source_.list_result;
  }

private:
  std::unique_ptr<MTF::Cat_Blk> folder_block(std::string path) {
    std::replace(path.begin(), path.end(), '/', '\0');
    auto block = std::make_unique<MTF::Cat_Dir_Blk>();
    block->alloc_buffer(block->buffer_need(static_cast<unsigned>(path.size())));
    block->set(seq_, path);
    return block;
  }
  int refused() {
    events_->add_skipped_files(1);
    json_spirit::Object event;
    event["type"] = "file";
    event["message"] = "refused";
    events_->notify_event(MTF::EVENT_ITEM_ERROR, event);
    return -1;
  }

  Fake_Source& source_;
  unsigned short seq_;
  MTF::Event_Handler* events_;
  const MTF::IFilter* filter_;
};

class Fake_Callback : public MTF::IBackup_Callback {
public:
  explicit Fake_Callback(Fake_Source& source) : source_(source) {}
  char directory_separator() override { return '/'; }
  bool lstat(const char*, MTF::Callback_Stat&) override { return true; }
  int readlink(const char*, char*, size_t) override { return -1; }
  MTF::IFile_Reader_var make_file_reader() override { return MTF::IFile_Reader_var(new Fake_Reader(source_)); }
  MTF::ISrc_Lister_var make_source_lister(const std::list<std::string>*, unsigned short seq, MTF::Event_Handler* events,
                                          const MTF::IFilter* filter, int) override {
    return source_.refuse_lister ? MTF::ISrc_Lister_var()
                                 : MTF::ISrc_Lister_var(new Fake_Lister(source_, seq, events, filter));
  }
  int read_dirs(const char*, std::list<std::string>&) override { return 0; }

private:
  Fake_Source& source_;
};

class Fake_Factory : public MTF::IBackup_Callback_Factory {
public:
  explicit Fake_Factory(Fake_Source& source) : source_(source) {}
  MTF::IBackup_Callback_var make() override {
    return source_.refuse_callback ? MTF::IBackup_Callback_var()
                                   : MTF::IBackup_Callback_var(new Fake_Callback(source_));
  }

private:
  Fake_Source& source_;
};

/// Keeps what an engine tells.
class Fake_Events : public MTF::Event_Handler {
public:
  Fake_Events() : MTF::Event_Handler(0) {}
  int notify_event(unsigned code, const json_spirit::Object& options) override {
    std::lock_guard<std::mutex> guard(mutex);
    if (code == MTF::EVENT_OUTCOME)
      outcome = options;
    else
      items.push_back(options);
    return 0;
  }
  bool canceling() override {
    if (cancel)
      seen = true;
    return cancel;
  }
  bool pausing() override { return pause; }

  unsigned long long figure(const char* name) {
    const json_spirit::Value* value = json_spirit::find(outcome, name);
    return value == nullptr ? ~0ull : value->get_uint64();
  }
  /// Whether listed = saved + unchanged + excluded + skipped + failed.
  bool adds_up() {
    return figure("listed") ==
           figure("saved") + figure("unchanged") + figure("excluded") + figure("skipped") + figure("failed");
  }
  /// What the outcome says of it; empty when nothing.
  std::string message(const std::string& path) {
    for (const json_spirit::Value& error : json_spirit::find(outcome, "errors")->get_array())
      if (json_spirit::optional_str(error.get_obj(), "name") == path)
        return json_spirit::optional_str(error.get_obj(), "message");
    return std::string();
  }
  bool named(const std::string& path) {
    for (const json_spirit::Value& error : json_spirit::find(outcome, "errors")->get_array())
      if (json_spirit::optional_str(error.get_obj(), "name") == path)
        return true;
    return false;
  }

  std::mutex mutex;
  std::vector<json_spirit::Object> items;
  json_spirit::Object outcome;
  std::atomic<bool> cancel{false};
  std::atomic<bool> pause{false};
  std::atomic<bool> seen{false}; ///< the cancel was answered
};
