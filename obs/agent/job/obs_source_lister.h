#pragma once

#include "sdk/mtf/backup_callback.h"
#include "sdk/s3/s3_service.h"

#include <list>
#include <string>

/// Produces the catalog of a backup block by block with one service and without threads: the volume, a DIR block for
/// every bucket and prefix level that is walked, a FILE block for every object, the end. Walks depth-first; a prefix's
/// sub-prefixes come in listing order. Holds one listing page.
///
/// Owned by the engine, which calls `next` from one thread until it answers false.
class OBS_Source_Lister : public MTF::ISrc_Lister {
public:
  /// `srcs`: paths of buckets, prefixes or single objects. `evt_handler` and `filter` may be null and outlive the
  /// lister.
  OBS_Source_Lister(std::shared_ptr<S3_Service_Base> svr, unsigned short seq, std::list<std::string> srcs,
                    MTF::Event_Handler* evt_handler, const MTF::IFilter* filter);
  ~OBS_Source_Lister() override;

  /// Moves the next block to `blk`. False at the end of the catalog and on failure; only a catalog whose last block
  /// was FEND is complete.
  bool next(MTF::Cat_Blk& blk) override;

private:
  bool next_i(MTF::Cat_Blk& blk);
  bool pop_block(MTF::Cat_Blk& blk);
  bool add_vol_blk(MTF::Cat_Blk& blk);
  /// Of the first `length` bytes of `prefix`. False, after a line, when there is no memory for it.
  bool add_dir_blk(const std::string& bucket, const std::string& prefix, size_t length);
  bool add_file_blk(const std::string& key, unsigned long long size, unsigned long long mtime);
  bool add_fend();
  bool list_objects();
  bool request_page(const Get_Bucket_Parameter& param, Get_Bucket_Content& content);
  bool take_objects(const Get_Bucket_Content& content);
  void take_prefixes(const Get_Bucket_Content& content);
  /// Ends the current prefix with the rest of it unlisted, and reports that.
  void lose_prefix(int number, const std::string& error);
  bool walk_next();
  bool walk_object(const std::string& src);
  bool skip_dir(const std::string& path); // nothing skips a folder so far: declared only

  std::shared_ptr<S3_Service_Base> svr_;
  std::string cur_bucket_;          ///< of the entry being walked; empty before the first one
  std::string cur_prefix_;          ///< its prefix or key; empty for a whole bucket
  std::string marker_;              ///< where the next page begins; empty for the first one
  bool end_prefix_ = true;          ///< the next entry has to be taken
  std::list<std::string> sub_dirs_; ///< prefixes found below `cur_prefix_`, as source paths
  std::list<std::string> srcs_;     ///< still to be walked
  unsigned short seq_;
  MTF::Event_Handler* evt_handler_;
  const MTF::IFilter* filter_;
  bool start_vol_ = false;                          ///< the volume was handed out
  bool end_ = false;                                ///< the end was queued
  std::list<std::unique_ptr<MTF::Cat_Blk>> blocks_; ///< made and not handed out
};
