#include "obs/agent/job/catalog_blocks.h"

#include "sdk/base/check.h"

#include <algorithm>
#include <limits>
#include <new>

namespace catalog_blocks {

namespace {

template <typename BLK>
std::unique_ptr<BLK> allocate(unsigned size) {
  std::unique_ptr<BLK> blk(new (std::nothrow) BLK);
  if (blk && !blk->alloc_buffer(size))
    blk.reset();
  return blk;
}

bool fits(const std::string& name) {
  return name.size() <= std::numeric_limits<ACE_UINT16>::max();
}

} // namespace

Blk_ptr make_vol(unsigned short seq) {
  auto blk = allocate<MTF::Cat_Vol_Blk>(MTF::Cat_Vol_Blk::buffer_need(1));
  if (!blk) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to alloc buffer for VOL block.\n")));
    return nullptr;
  }
  if (is_debug_enabled())
    ACE_DEBUG((LM_DEBUG, ACE_TEXT("OBS-Lister|VOL|%s.\n"), "/"));
  if (!blk->set(seq, std::string(1, '\0')))
    return nullptr;
  return blk;
}

Blk_ptr make_dir(unsigned short seq, const std::string& path) {
  std::unique_ptr<MTF::Cat_Dir_Blk> blk;
  try {
    if (fits(path))
      blk = allocate<MTF::Cat_Dir_Blk>(MTF::Cat_Dir_Blk::buffer_need(static_cast<unsigned>(path.size())));
    if (blk) {
      if (is_debug_enabled())
        ACE_DEBUG((LM_DEBUG, ACE_TEXT("OBS-Lister|DIR|%s.\n"), path.c_str()));
      std::string name = path;
      std::replace(name.begin(), name.end(), '/', '\0');
      if (!blk->set(seq, name))
        blk.reset();
    }
  } catch (const std::bad_alloc&) {
    blk.reset();
  }
  if (!blk)
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to make dir block for '%s'.\n"), path.c_str()));
  return blk;
}

Blk_ptr make_file(unsigned short seq, const std::string& name, unsigned long long size, unsigned long long mtime) {
  if (!fits(name))
    return nullptr;
  auto blk = allocate<File_Blk>(File_Blk::buffer_need(static_cast<unsigned>(name.size())));
  if (!blk || !blk->set(seq, name, static_cast<long long>(mtime), size, 0, 0))
    return nullptr;
  return blk;
}

Blk_ptr make_fend() {
  auto blk = allocate<MTF::Cat_Blk>(MTF::Cat_Hdr::SIZE);
  if (!blk) {
    ACE_ERROR((LM_ERROR, ACE_TEXT("Failed to alloc buffer for FEND block.\n")));
    return nullptr;
  }
  MTF::Cat_Hdr header = blk->hdr();
  header.type(MTF_CAT_FEND_BLK);
  header.length(MTF::Cat_Hdr::SIZE);
  header.check(header.calc_checksum());
  if (is_debug_enabled())
    ACE_DEBUG((LM_DEBUG, ACE_TEXT("OBS-Lister|FEND|.\n")));
  return blk;
}

} // namespace catalog_blocks
