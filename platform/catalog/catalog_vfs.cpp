#include "platform/catalog/catalog_vfs.h"

#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <new>

namespace {

// A page on disk:
// 0 encrypted 4048 | 4048 salt 16 | 4064 number of the write 8 | 4072 key check 4 | 4076 zero 4 | 4080 tag 16
constexpr int PAGE = Catalog_Vfs::PAGE;
constexpr int CONTENT = PAGE - Catalog_Vfs::RESERVED;
constexpr int SALT = 16;
constexpr int AT_WRITE = CONTENT + SALT;
constexpr int AT_CHECK = AT_WRITE + 8;
constexpr int AT_TAG = PAGE - static_cast<int>(AEAD_TAG);
constexpr size_t CHECK = 4;
/// Asks a database file for its layer.
constexpr int FCNTL_LAYER = 0x4F425301;

class Layer;

/// The state behind an open file.
class Sealed_File {
public:
  Sealed_File(Layer& layer, sqlite3_file* real) : layer_(layer), real_(real) {}
  virtual ~Sealed_File() = default;
  virtual int read(unsigned char* out, int size, sqlite3_int64 offset) = 0;
  virtual int write(const unsigned char* in, int size, sqlite3_int64 offset) = 0;
  sqlite3_file* real() const { return real_; }
  Layer& layer() const { return layer_; }

protected:
  Layer& layer_;
  sqlite3_file* const real_;
};

class Layer : public Catalog_Vfs {
public:
  explicit Layer(const Set_Cipher_ptr& cipher) : cipher_(cipher) {}
  ~Layer() override {
    if (registered_)
      sqlite3_vfs_unregister(&vfs_);
  }

  bool enroll(std::string& error);
  const char* name() const override { return name_.c_str(); }
  const std::string& reason() const override { return reason_; }
  const Set_Cipher& cipher() const { return *cipher_; }
  sqlite3_vfs* base() const { return base_; }
  int fail(int code, const std::string& why) {
    if (reason_.empty())
      reason_ = why;
    return code;
  }

private:
  Set_Cipher_ptr cipher_;
  sqlite3_vfs* base_ = nullptr;
  sqlite3_vfs vfs_ = {};
  std::string name_;
  std::string reason_;
  bool registered_ = false;
};

/// The catalog itself. Who makes a file draws a salt for it, from which the key of all its pages comes, and counts its
/// writes: so no nonce repeats under a key.
class Page_File : public Sealed_File {
public:
  using Sealed_File::Sealed_File;

  /// Makes the key of a file that is to be written.
  bool begin() { return random_bytes(salt_, sizeof salt_) && take_salt(reinterpret_cast<const char*>(salt_)); }
  int read(unsigned char* out, int size, sqlite3_int64 offset) override;
  int write(const unsigned char* in, int size, sqlite3_int64 offset) override;

private:
  bool take_salt(const char* salt);
  bool open_page(sqlite3_int64 number, const unsigned char* raw, unsigned char* out);
  std::string bound(sqlite3_int64 number, const unsigned char* raw) const;

  unsigned char salt_[SALT] = {};
  unsigned char check_[CHECK] = {};
  Secret_Key key_;
  bool have_key_ = false;
  uint64_t writes_ = 0;
};

bool Page_File::take_salt(const char* salt) {
  Secret_Key mark;
  if (!layer_.cipher().derive("catalog", std::string_view(salt, SALT), key_) ||
      !layer_.cipher().derive("catalog mark", std::string_view(), mark))
    return false;
  std::memcpy(salt_, salt, SALT);
  std::memcpy(check_, mark.data(), CHECK);
  have_key_ = true;
  return true;
}

std::string Page_File::bound(sqlite3_int64 number, const unsigned char* raw) const {
  std::string text(reinterpret_cast<const char*>(raw) + CONTENT, AT_TAG - CONTENT);
  for (unsigned shift = 0; shift < 64; shift += 8)
    text.push_back(static_cast<char>(static_cast<uint64_t>(number) >> shift));
  return text;
}

bool Page_File::open_page(sqlite3_int64 number, const unsigned char* raw, unsigned char* out) {
  const char* const salt = reinterpret_cast<const char*>(raw) + CONTENT;
  const std::string page = "page " + std::to_string(number);
  // The first page read is the first of the file; what it says holds for all.
  if (!have_key_ && !take_salt(salt)) {
    layer_.fail(SQLITE_IOERR_READ, "the cryptographic library failed");
    return false;
  }
  unsigned char nonce[AEAD_NONCE] = {};
  std::memcpy(nonce, raw + AT_WRITE, 8);
  if (std::memcmp(salt, salt_, SALT) == 0 &&
      aead_open(key_, nonce, bound(number, raw), raw, CONTENT, out, raw + AT_TAG))
    return true;
  if (number == 1)
    have_key_ = false;
  if (std::memcmp(raw + AT_CHECK, check_, CHECK) != 0)
    layer_.fail(SQLITE_IOERR_READ,
                page + " was not encrypted for the set " + layer_.cipher().set_uuid() + ", or it is damaged");
  else
    layer_.fail(SQLITE_IOERR_READ, page + " is damaged");
  return false;
}

int Page_File::read(unsigned char* out, int size, sqlite3_int64 offset) {
  unsigned char raw[PAGE];
  unsigned char plain[PAGE];
  while (size > 0) {
    const sqlite3_int64 begin = offset / PAGE * PAGE;
    const int from = static_cast<int>(offset - begin);
    const int piece = std::min(size, PAGE - from);
    const int got = real_->pMethods->xRead(real_, raw, PAGE, begin);
    if (got == SQLITE_IOERR_SHORT_READ) {
      sqlite3_int64 length = 0;
      if (real_->pMethods->xFileSize(real_, &length) != SQLITE_OK)
        return SQLITE_IOERR_READ;
      if (begin < length)
        return layer_.fail(SQLITE_IOERR_READ, "it is cut off at " + std::to_string(length) + " bytes");
      std::memset(out, 0, static_cast<size_t>(size));
      return SQLITE_IOERR_SHORT_READ;
    }
    if (got != SQLITE_OK)
      return got;
    // What SQLite leaves free reads as it would in a file of its own: it is part of no record.
    unsigned char* const whole = from == 0 && piece == PAGE ? out : plain;
    if (!open_page(begin / PAGE + 1, raw, whole))
      return SQLITE_IOERR_READ;
    std::memset(whole + CONTENT, 0, PAGE - CONTENT);
    if (whole == plain)
      std::memcpy(out, plain + from, static_cast<size_t>(piece));
    out += piece;
    offset += piece;
    size -= piece;
  }
  return SQLITE_OK;
}

int Page_File::write(const unsigned char* in, int size, sqlite3_int64 offset) {
  if (size != PAGE || offset % PAGE != 0 || !have_key_)
    return layer_.fail(SQLITE_IOERR_WRITE, "it can only be written page by page, when it is made");
  unsigned char raw[PAGE] = {};
  unsigned char nonce[AEAD_NONCE] = {};
  ++writes_;
  for (unsigned i = 0; i < 8; ++i)
    nonce[i] = raw[AT_WRITE + static_cast<int>(i)] = static_cast<unsigned char>(writes_ >> 8 * i);
  std::memcpy(raw + CONTENT, salt_, SALT);
  std::memcpy(raw + AT_CHECK, check_, CHECK);
  if (!aead_seal(key_, nonce, bound(offset / PAGE + 1, raw), in, CONTENT, raw, raw + AT_TAG))
    return layer_.fail(SQLITE_IOERR_WRITE, "the cryptographic library failed");
  return real_->pMethods->xWrite(real_, raw, PAGE, offset);
}

/// A temporary file: what is put into it under a key that ends with it (AES-256-CTR by offset). SQLite removes such a
/// file from its folder as soon as it is open, so nobody comes to see two states of it.
class Temporary_File : public Sealed_File {
public:
  using Sealed_File::Sealed_File;

  bool begin() { return context_ && random_bytes(key_.data(), Secret_Key::SIZE); }
  int read(unsigned char* out, int size, sqlite3_int64 offset) override {
    const int got = real_->pMethods->xRead(real_, out, size, offset);
    if (got != SQLITE_OK && got != SQLITE_IOERR_SHORT_READ)
      return got;
    // Behind a short read stand zeros that were never written.
    int there = size;
    if (got == SQLITE_IOERR_SHORT_READ) {
      sqlite3_int64 length = 0;
      if (real_->pMethods->xFileSize(real_, &length) != SQLITE_OK)
        return SQLITE_IOERR_READ;
      there = static_cast<int>(std::clamp<sqlite3_int64>(length - offset, 0, size));
    }
    return crypt(out, out, there, offset) ? got : SQLITE_IOERR_READ;
  }
  int write(const unsigned char* in, int size, sqlite3_int64 offset) override {
    unsigned char piece[PAGE];
    while (size > 0) {
      const int length = std::min(size, PAGE);
      if (!crypt(in, piece, length, offset))
        return SQLITE_IOERR_WRITE;
      const int put = real_->pMethods->xWrite(real_, piece, length, offset);
      if (put != SQLITE_OK)
        return put;
      in += length;
      offset += length;
      size -= length;
    }
    return SQLITE_OK;
  }

private:
  struct Free_Context {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  };

  bool crypt(const unsigned char* in, unsigned char* out, int size, sqlite3_int64 offset) {
    unsigned char counter[16] = {};
    uint64_t block = static_cast<uint64_t>(offset) / 16;
    for (int i = 15; i >= 8; --i, block >>= 8)
      counter[i] = static_cast<unsigned char>(block);
    unsigned char skipped[16] = {};
    int length = 0;
    return EVP_EncryptInit_ex(context_.get(), EVP_aes_256_ctr(), nullptr, key_.data(), counter) == 1 &&
           EVP_EncryptUpdate(context_.get(), skipped, &length, skipped, static_cast<int>(offset % 16)) == 1 &&
           EVP_EncryptUpdate(context_.get(), out, &length, in, size) == 1;
  }

  const std::unique_ptr<EVP_CIPHER_CTX, Free_Context> context_{EVP_CIPHER_CTX_new()};
  Secret_Key key_;
};

/// What SQLite holds of an open file; the base layer's follows it.
struct File_Handle {
  sqlite3_file file;
  Sealed_File* sealed;
};
constexpr size_t HANDLE =
    (sizeof(File_Handle) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);

Sealed_File& sealed(sqlite3_file* file) {
  return *reinterpret_cast<File_Handle*>(file)->sealed;
}
sqlite3_file* real(sqlite3_file* file) {
  return sealed(file).real();
}

int file_close(sqlite3_file* file) {
  sqlite3_file* const base = real(file);
  delete reinterpret_cast<File_Handle*>(file)->sealed;
  return base->pMethods->xClose(base);
}
int file_read(sqlite3_file* file, void* out, int size, sqlite3_int64 offset) {
  try {
    return sealed(file).read(static_cast<unsigned char*>(out), size, offset);
  } catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
  }
}
int file_write(sqlite3_file* file, const void* in, int size, sqlite3_int64 offset) {
  try {
    return sealed(file).write(static_cast<const unsigned char*>(in), size, offset);
  } catch (const std::bad_alloc&) {
    return SQLITE_IOERR_NOMEM;
  }
}
int file_truncate(sqlite3_file* file, sqlite3_int64 size) {
  return real(file)->pMethods->xTruncate(real(file), size);
}
int file_sync(sqlite3_file* file, int flags) {
  return real(file)->pMethods->xSync(real(file), flags);
}
int file_size(sqlite3_file* file, sqlite3_int64* size) {
  return real(file)->pMethods->xFileSize(real(file), size);
}
int file_lock(sqlite3_file* file, int level) {
  return real(file)->pMethods->xLock(real(file), level);
}
int file_unlock(sqlite3_file* file, int level) {
  return real(file)->pMethods->xUnlock(real(file), level);
}
int file_reserved(sqlite3_file* file, int* out) {
  return real(file)->pMethods->xCheckReservedLock(real(file), out);
}
int file_control(sqlite3_file* file, int op, void* argument) {
  if (op == FCNTL_LAYER) {
    *static_cast<const Catalog_Vfs**>(argument) = &sealed(file).layer();
    return SQLITE_OK;
  }
  return real(file)->pMethods->xFileControl(real(file), op, argument);
}
int file_sector(sqlite3_file* file) {
  return real(file)->pMethods->xSectorSize(real(file));
}
int file_traits(sqlite3_file* file) {
  return real(file)->pMethods->xDeviceCharacteristics(real(file));
}

/// Version 1: no shared memory and no memory mapping, which would both go past the encryption.
const sqlite3_io_methods FILE_METHODS = {
    1,         file_close,  file_read,     file_write,   file_truncate, file_sync,   file_size,
    file_lock, file_unlock, file_reserved, file_control, file_sector,   file_traits, nullptr,
    nullptr,   nullptr,     nullptr,       nullptr,      nullptr};

sqlite3_vfs* base_of(sqlite3_vfs* vfs) {
  return static_cast<Layer*>(vfs->pAppData)->base();
}

template <typename T>
std::unique_ptr<Sealed_File> made(Layer& layer, sqlite3_file* base, bool begin) {
  auto file = std::make_unique<T>(layer, base);
  if (begin && !file->begin())
    return nullptr;
  return file;
}

int vfs_open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  file->pMethods = nullptr;
  Layer& layer = *static_cast<Layer*>(vfs->pAppData);
  sqlite3_file* const base = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + HANDLE);
  const int result = base_of(vfs)->xOpen(base_of(vfs), name, base, flags, out_flags);
  if (result != SQLITE_OK)
    return result;
  std::unique_ptr<Sealed_File> state;
  try {
    if ((flags & SQLITE_OPEN_MAIN_DB) != 0)
      state = made<Page_File>(layer, base, (flags & SQLITE_OPEN_READWRITE) != 0);
    else
      state = made<Temporary_File>(layer, base, true);
  } catch (const std::bad_alloc&) {
  }
  if (!state) {
    base->pMethods->xClose(base);
    return SQLITE_CANTOPEN;
  }
  reinterpret_cast<File_Handle*>(file)->sealed = state.release();
  file->pMethods = &FILE_METHODS;
  return SQLITE_OK;
}

int vfs_delete(sqlite3_vfs* vfs, const char* name, int sync) {
  return base_of(vfs)->xDelete(base_of(vfs), name, sync);
}
int vfs_access(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
  return base_of(vfs)->xAccess(base_of(vfs), name, flags, out);
}
int vfs_path(sqlite3_vfs* vfs, const char* name, int size, char* out) {
  return base_of(vfs)->xFullPathname(base_of(vfs), name, size, out);
}
int vfs_random(sqlite3_vfs* vfs, int size, char* out) {
  return base_of(vfs)->xRandomness(base_of(vfs), size, out);
}
int vfs_sleep(sqlite3_vfs* vfs, int microseconds) {
  return base_of(vfs)->xSleep(base_of(vfs), microseconds);
}
int vfs_time(sqlite3_vfs* vfs, double* out) {
  return base_of(vfs)->xCurrentTime(base_of(vfs), out);
}
int vfs_error(sqlite3_vfs* vfs, int size, char* out) {
  return base_of(vfs)->xGetLastError(base_of(vfs), size, out);
}

bool Layer::enroll(std::string& error) {
  static std::atomic<unsigned long long> number{0};
  base_ = sqlite3_vfs_find(nullptr);
  if (base_ == nullptr) {
    error = "SQLite has no file layer";
    return false;
  }
  name_ = "obs-catalog-" + std::to_string(++number);
  vfs_.iVersion = 1;
  vfs_.szOsFile = static_cast<int>(HANDLE) + base_->szOsFile;
  vfs_.mxPathname = base_->mxPathname;
  vfs_.zName = name_.c_str();
  vfs_.pAppData = this;
  vfs_.xOpen = vfs_open;
  vfs_.xDelete = vfs_delete;
  vfs_.xAccess = vfs_access;
  vfs_.xFullPathname = vfs_path;
  vfs_.xRandomness = vfs_random;
  vfs_.xSleep = vfs_sleep;
  vfs_.xCurrentTime = vfs_time;
  vfs_.xGetLastError = vfs_error;
  registered_ = sqlite3_vfs_register(&vfs_, 0) == SQLITE_OK;
  if (!registered_)
    error = "SQLite does not take the catalog's file layer";
  return registered_;
}

} // namespace

std::unique_ptr<Catalog_Vfs> Catalog_Vfs::make(const Set_Cipher_ptr& cipher, std::string& error) {
  auto layer = std::make_unique<Layer>(cipher);
  if (!layer->enroll(error))
    return nullptr;
  return layer;
}

std::string catalog_layer_reason(sqlite3* db) {
  const Catalog_Vfs* layer = nullptr;
  const bool has = db != nullptr && sqlite3_file_control(db, "main", FCNTL_LAYER, &layer) == SQLITE_OK;
  return has && layer != nullptr ? layer->reason() : std::string();
}

std::string catalog_error(sqlite3* db) {
  const std::string below = catalog_layer_reason(db);
  return below.empty() ? sqlite3_errmsg(db) : below;
}
