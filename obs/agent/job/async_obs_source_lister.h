#pragma once

#include "sdk/mtf/backup_callback.h"
#include "sdk/s3/s3_service.h"

#include <list>
#include <string>

class Async_OBS_Object_Lister;

/// Produces the catalog of a backup by pushing it: `generate` hands every block to the engine, while several threads
/// list ahead. A folder gets its DIR block on the way to the first object in it, so an empty bucket or prefix has none.
///
/// Made by the callback for one backup and owned by the engine. Single-threaded; the handler is called from the thread
/// that called `generate` only.
class Async_OBS_Source_Lister : public MTF::ISrc_Lister {
public:
  typedef std::function<bool(std::unique_ptr<MTF::Cat_Blk>)> Handler;

  /// `srcs`: paths of buckets, prefixes or single objects. `evt_handler` and `filter` may be null and outlive the
  /// lister, as `clt` does. `cache_limit`: entries that the listing may be ahead.
  Async_OBS_Source_Lister(S3_Client& clt, unsigned short seq, std::list<std::string> srcs,
                          MTF::Event_Handler* evt_handler, const MTF::IFilter* filter, int threads,
                          unsigned long long cache_limit);
  ~Async_OBS_Source_Lister() override;

  /// Always false: this lister only pushes.
  bool next(MTF::Cat_Blk& blk) override;
  /// 0 when the whole catalog was taken, -1 on failure or cancel.
  int generate(Handler handler) override;

private:
  typedef std::unique_ptr<MTF::Cat_Blk> Blk_ptr;

  int generate_i(const Handler& handler);
  bool list_prefix(Async_OBS_Object_Lister& lister, const std::string& bucket, const std::string& prefix,
                   const Handler& handler);
  Blk_ptr make_vol_blk();
  Blk_ptr make_dir_blk(const std::string& path);
  Blk_ptr make_file_blk(const std::string& name, unsigned long long size, unsigned long long mtime);
  bool set_dir(const std::string& dir, const Handler& handler);
  bool add_source_file(const std::string& bucket, const std::string& object, const Handler& handler);
  int add_object(const std::string& bucket, const std::string& key, unsigned long long size, unsigned long long mtime,
                 const Handler& handler);
  bool add_object_blks(const std::string& path, unsigned long long size, unsigned long long mtime,
                       const Handler& handler);
  bool add_fend(const Handler& handler);
  void report_skipped(const std::string& path, const json_spirit::Value& number, const std::string& message);
  bool is_canceling() const;

  S3_Client& clt_;
  std::list<std::string> srcs_;
  unsigned short seq_;
  MTF::Event_Handler* evt_handler_;
  const MTF::IFilter* filter_;
  std::string cur_dir_; ///< of the last DIR block that was taken: "bucket/a/b/"
  int threads_;
  unsigned long long cache_limit_;
};
