#include "platform/mtf/codec.h"

#include "platform/mtf/codec_lzop/codec_lzop.h"

#include <dlfcn.h>
#include <xxhash.h>
#include <zstd.h>

#include <algorithm>
#include <new>

using namespace MTF_Format;

namespace {

struct Free_Zstd {
  void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
  void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

/// The codec beside the library that this code is in: codec/libagent_codec_lzop.so.
struct Lzop_Library {
  const Codec_Lzop* codec = nullptr;
  std::string error;

  Lzop_Library() {
    std::string file = "codec/libagent_codec_lzop.so";
    Dl_info info;
    if (dladdr(reinterpret_cast<const void*>(&is_dblk_type), &info) != 0 && info.dli_fname != nullptr) {
      const std::string self = info.dli_fname;
      file = self.substr(0, self.rfind('/') == std::string::npos ? 0 : self.rfind('/') + 1) + file;
      if (file[0] != '/')
        file = "./" + file;
    }
    void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
      error = "compression lzop needs a codec that cannot be loaded: " + reason();
      return;
    }
    typedef const Codec_Lzop* (*Get)();
    const Get get = reinterpret_cast<Get>(dlsym(library, "agent_codec_lzop"));
    const Codec_Lzop* found = get == nullptr ? nullptr : get();
    if (found == nullptr || found->version != CODEC_LZOP_VERSION)
      error = "compression lzop: " + file + " is no codec of this version";
    else
      codec = found;
  }

  static std::string reason() {
    const char* text = dlerror();
    return text == nullptr ? "unknown reason" : text;
  }
};

const Lzop_Library& lzop() {
  static const Lzop_Library library;
  return library;
}

} // namespace

bool Codec::available(Frame_Method method, std::string& error) {
  if (method != FRAME_LZO1X || lzop().codec != nullptr)
    return true;
  error = lzop().error;
  return false;
}

size_t Codec::bound(Frame_Method method, size_t size) {
  switch (method) {
  case FRAME_ZSTD:
    return ZSTD_compressBound(size);
  case FRAME_LZO1X:
    return lzop().codec == nullptr ? size : lzop().codec->bound(size);
  default:
    return size;
  }
}

size_t Codec::compress(Frame_Method method, int level, const char* data, size_t size, char* out) {
  if (method == FRAME_ZSTD) {
    thread_local std::unique_ptr<ZSTD_CCtx, Free_Zstd> context(ZSTD_createCCtx());
    if (!context)
      return 0;
    const size_t written =
        ZSTD_compressCCtx(context.get(), out, ZSTD_compressBound(size), data, size, std::clamp(level, 1, 19));
    return ZSTD_isError(written) ? 0 : written;
  }
  if (method == FRAME_LZO1X && lzop().codec != nullptr) {
    thread_local std::unique_ptr<char[]> work(new (std::nothrow) char[lzop().codec->work_size]);
    return work ? lzop().codec->compress(data, size, out, work.get()) : 0;
  }
  return 0;
}

bool Codec::decompress(Frame_Method method, const char* data, size_t size, char* out, size_t plain) {
  if (method == FRAME_ZSTD) {
    thread_local std::unique_ptr<ZSTD_DCtx, Free_Zstd> context(ZSTD_createDCtx());
    return context && ZSTD_decompressDCtx(context.get(), out, plain, data, size) == plain;
  }
  return method == FRAME_LZO1X && lzop().codec != nullptr && lzop().codec->decompress(data, size, out, plain);
}

Frame_Method Codec::method(MTF_Compression compression) {
  switch (compression) {
  case MTF_COMPRESSION_AUTO:
  case MTF_COMPRESSION_ZSTD:
    return FRAME_ZSTD;
  case MTF_COMPRESSION_LZOP:
    return FRAME_LZO1X;
  default:
    return FRAME_STORED;
  }
}

bool Frame_Writer::append(std::string& out, const char* data, size_t size, uint64_t check) {
  Frame frame;
  frame.method = Codec::method(options_.compression);
  frame.sequence = sequence_++;
  frame.plain = static_cast<uint32_t>(size);
  frame.plain_check = check;
  const bool last = plain_ + size == size_;
  try {
    append_stream_header(out, OBSZ, 0, 0);
    const size_t header = out.size();
    const size_t payload = header + FRAME_HEADER;
    out.resize(payload + Codec::bound(frame.method, size));
    const size_t stored = Codec::compress(frame.method, options_.level, data, size, out.data() + payload);
    if (stored != 0 && stored < size) {
      frame.stored = static_cast<uint32_t>(stored);
      frame.stored_check = XXH3_64bits(out.data() + payload, stored);
    } else {
      frame.method = FRAME_STORED;
      frame.stored = frame.plain;
      frame.stored_check = check;
      std::copy(data, data + size, out.data() + payload);
    }
    out.resize(payload + frame.stored);
    frame.put(bytes_at(out, header));
    put_stream_header(bytes_at(out, header - STREAM_HEADER), OBSZ,
                      static_cast<uint16_t>(STREAM_VARIABLE | (last ? STREAM_VARIABLE_END : 0)),
                      FRAME_HEADER + frame.stored);
    pad_to(out, STREAM_ALIGNMENT);
    plain_ += size;
    stored_ += STREAM_HEADER + FRAME_HEADER + frame.stored;
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

bool Frame_Writer::pays() const {
  if (options_.compression == MTF_COMPRESSION_AUTO)
    return stored_ <= plain_ - plain_ / 10;
  return stored_ < plain_;
}
