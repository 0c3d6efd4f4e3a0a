#include "sdk/mtf/attributes_update.h"
#include "sdk/mtf/backup_callback.h"
#include "sdk/mtf/file_attributes.h"
#include "sdk/mtf/file_replacement.h"
#include "sdk/mtf/filter.h"
#include "sdk/mtf/metadata.h"
#include "sdk/mtf/restore_callback.h"

#include <new>

namespace MTF {

IFilter::~IFilter() = default;

bool is_included(const char* path, bool is_dir, const IFilter* filter) {
  return filter == nullptr || filter->is_included(path, is_dir);
}

IFile_Reader::~IFile_Reader() = default;

IFile_Attributes_Source::~IFile_Attributes_Source() = default;

IFile_Attributes_Update::~IFile_Attributes_Update() = default;

IFile_Attributes_Sink::~IFile_Attributes_Sink() = default;

IFile_Replacement::~IFile_Replacement() = default;

IFile_Comparison::~IFile_Comparison() = default;

ISrc_Lister::~ISrc_Lister() = default;

int ISrc_Lister::generate(std::function<bool(std::unique_ptr<Cat_Blk>)> handler) {
  for (;;) {
    std::unique_ptr<Cat_Blk> blk(new (std::nothrow) Cat_Blk);
    if (!blk || !next(*blk))
      return -1;
    const bool last = blk->buffer_size() >= Cat_Hdr::SIZE && blk->hdr().type() == MTF_CAT_FEND_BLK;
    if (!handler(std::move(blk)))
      return -1;
    if (last)
      return 0;
  }
}

IBackup_Callback::~IBackup_Callback() = default;
IBackup_Callback_Factory::~IBackup_Callback_Factory() = default;

IFile_Writer::~IFile_Writer() = default;

File_Writer_Base::~File_Writer_Base() = default;
Error_Code File_Writer_Base::set_stat(const Callback_Stat&) {
  return E_OK;
}
Error_Code File_Writer_Base::sync() {
  return E_OK;
}

IRestore_Callback::~IRestore_Callback() = default;

Restore_Callback_Base::~Restore_Callback_Base() = default;
bool Restore_Callback_Base::make_dir(const char*) {
  return true;
}
bool Restore_Callback_Base::make_link(const char*, const char*) {
  return false;
}

IRestore_Callback_Factory::~IRestore_Callback_Factory() = default;

Metadata::~Metadata() = default;

} // namespace MTF

namespace MTF_FS {

IPath_Converter::~IPath_Converter() = default;

} // namespace MTF_FS
