#pragma once

#include "sdk/mtf/cat_blk.h"

#include <memory>
#include <string>

/// The catalog blocks that a listing of object storage consists of. Each maker returns a new block that the caller
/// owns, filled and with its checksum set, or an empty pointer when memory is short or the name does not fit.
namespace catalog_blocks {

typedef std::unique_ptr<MTF::Cat_Blk> Blk_ptr;
typedef MTF::Cat_File_Blk_T<MTF::File_Blk, MTF_CAT_DIRB_BLK, 0x454C4946> File_Blk;

/// The one volume, whose name is a single NUL. Failure is logged.
Blk_ptr make_vol(unsigned short seq);
/// The folder `path`, which has "/" behind the bucket and behind each level: "bucket/a/b/". Failure is logged.
Blk_ptr make_dir(unsigned short seq, const std::string& path);
/// The object with base name `name`; `size` in bytes, `mtime` in seconds since the epoch. Logs nothing.
Blk_ptr make_file(unsigned short seq, const std::string& name, unsigned long long size, unsigned long long mtime);
/// The end of the catalog. Failure is logged.
Blk_ptr make_fend();

} // namespace catalog_blocks
