#include "platform/mtf/media_check.h"

#include "platform/mtf/medium_walker.h"
#include "platform/mtf/sealed_stream.h"
#include "platform/mtf/set_copy.h"
#include "sdk/mtf/cat_blk.h"

#include <algorithm>
#include <new>

using namespace MTF_Format;

bool check_medium(const std::string& path, const std::function<bool(const Media_Problem&)>& found,
                  Media_Figures& figures, std::string& error, const Set_Cipher_ptr& cipher) {
  try {
    const std::unique_ptr<Medium_Reader> reader = Medium_Reader::open(path, 0, error, cipher);
    if (!reader)
      return false;
    figures = Media_Figures();
    figures.size = reader->size();
    return reader->walk(
        true,
        [&](const Medium_Finding& finding) {
          if (finding.kind == Medium_Finding::OBJECT) {
            ++figures.objects;
            figures.bytes += finding.head.size;
          }
          if (finding.kind != Medium_Finding::DAMAGE)
            return true;
          ++figures.problems;
          Media_Problem problem;
          problem.offset = finding.offset;
          problem.length = finding.length;
          problem.object = finding.head.path;
          problem.message = finding.message;
          return found(problem);
        },
        error);
  } catch (const std::bad_alloc&) {
    error = "no memory to check " + path;
    return false;
  }
}

namespace {

/// The bytes as they are, but for quotes, which are doubled.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text)
    out.append(c == '"' ? 2 : 1, c);
  return out + '"';
}

std::string hex(const unsigned char* data, size_t size) {
  std::string out;
  for (size_t i = 0; i < size; ++i) {
    out += "0123456789abcdef"[data[i] >> 4];
    out += "0123456789abcdef"[data[i] & 15];
  }
  return out;
}

std::string fields(const Dblk_Header& header, const unsigned char* block) {
  const size_t size = header.first_event;
  const auto name = [&](unsigned field) { return quoted(name_in_block(block, size, field)); };
  switch (header.type) {
  case TAPE:
    return " family " + std::to_string(get32(block + 52)) + " name " + name(68) + " description " + name(72) +
           " software " + name(80) + " FLB " + std::to_string(get16(block + 84)) + " date " +
           std::to_string(MTF::mtf_date_time_to_time(block + 88));
  case SSET:
    return " set " + std::to_string(get16(block + 62)) + " attributes " + std::to_string(get32(block + 52)) + " name " +
           name(64) + " description " + name(68) + " user " + name(76) + " date " +
           std::to_string(MTF::mtf_date_time_to_time(block + 88));
  case VOLB:
    return " device " + name(56) + " volume " + name(60) + " machine " + name(64);
  case DIRB:
    return " id " + std::to_string(get32(block + 76)) + " name " + name(80);
  case FILE_:
    return " directory " + std::to_string(get32(block + 76)) + " id " + std::to_string(get32(block + 80)) + " size " +
           std::to_string(header.displayable) + " modified " + std::to_string(MTF::mtf_date_time_to_time(block + 56)) +
           " name " + name(84);
  case SFMB:
    return " entries " + std::to_string(get32(block + 56)) + " of " + std::to_string(get32(block + 52));
  default:
    return std::string();
  }
}

std::string stream_fields(Medium_Window& window, const Medium_Stream& stream) {
  if (stream.header.id == STAN || stream.header.id == SPAD || stream.header.length > MAX_PRIVATE_STREAM)
    return std::string();
  const size_t size = static_cast<size_t>(stream.header.length);
  const unsigned char* data = window.at(stream.data(), size);
  if (data == nullptr)
    return " (" + window.error() + ")";
  std::string reason;
  if (stream.header.id == OBSH) {
    Object_Head head;
    Head_Stream start;
    if (!parse_object_head(data, size, window.source().cipher(), head, start, reason))
      return " (" + reason + ")";
    if (start.sealed && !start.opened)
      return " ordinal " + std::to_string(head.ordinal) + " encrypted";
    return " ordinal " + std::to_string(head.ordinal) + " size " + std::to_string(head.size) + " mtime " +
           std::to_string(head.mtime) + " seq " + std::to_string(head.seq) + " path " + quoted(head.path);
  }
  if (stream.header.id == OBSZ || stream.header.id == OBSX) {
    Frame frame;
    if (size < FRAME_HEADER || !frame.parse(data, reason))
      return " (a damaged frame header)";
    return " frame " + std::to_string(frame.sequence) + " method " + std::to_string(frame.method) + " plain " +
           std::to_string(frame.plain) + " stored " + std::to_string(frame.stored);
  }
  if ((stream.header.format_attributes & STREAM_ENCRYPTED) != 0) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    return sealed_stream_holds(bytes, reason) ? " encrypted" : " (" + reason + ")";
  }
  if (stream.header.id == OBSA) {
    // The ordinal is the head's, which has been shown already.
    Object_Head head;
    head.ordinal = size < ATTRIBUTES_FIXED ? 0 : get64(data + 16);
    if (!parse_attributes(data, size, head, reason))
      return " (" + reason + ")";
    return " common " + quoted(head.attributes.common) + " own " + quoted(head.attributes.own);
  }
  if (stream.header.id == OBSD) {
    Object_Digest digest;
    if (!digest.parse(data, size, reason))
      return " (" + reason + ")";
    return " chunks " + std::to_string(digest.chunks.size()) + " sha256 " + hex(digest.sha256, sizeof digest.sha256);
  }
  if (stream.header.id == OBSI) {
    Medium_Self self;
    if (!self.parse(data, size))
      return " (does not match its check)";
    return " family " + std::to_string(self.family) + (self.incremental ? " incremental" : " full") + " set " +
           quoted(self.set_uuid) + " name " + quoted(self.set_name);
  }
  if (stream.header.id == OBSK) {
    Medium_Key key;
    return key.parse(data, size) ? " set " + quoted(key.set_uuid) + " key " + key.wrapped
                                 : " (does not match its check)";
  }
  if (stream.header.id == OBSN) {
    std::string path;
    return parse_directory_path(data, size, path) ? " path " + quoted(path) : " (does not match its check)";
  }
  if (stream.header.id == OBSR || stream.header.id == OBSL)
    return set_copy_holds(window, stream, reason) ? std::string() : " (" + reason + ")";
  if (stream.header.id == OBST) {
    Medium_Totals totals;
    if (!totals.parse(data, size))
      return " (does not match its check)";
    return " objects " + std::to_string(totals.objects) + " bytes " + std::to_string(totals.bytes);
  }
  return std::string();
}

} // namespace

bool dump_medium(const std::string& path, const std::function<bool(const std::string&)>& line, std::string& error,
                 const Set_Cipher_ptr& cipher) {
  try {
    const std::shared_ptr<Medium_Source> source = Medium_Source::open(path, error, cipher);
    if (!source)
      return false;
    Medium_Window window(*source, 64 * 1024);
    unsigned long long offset = 0;
    unsigned long long skipped = 0;
    while (offset < source->size()) {
      Dblk_Header header;
      std::string reason;
      const bool good = source->size() - offset >= FLB && read_block(window, offset, header, reason);
      if (window.failed()) {
        error = window.error();
        return false;
      }
      if (!good) {
        const unsigned long long step = std::min<unsigned long long>(FLB, source->size() - offset);
        skipped += step;
        offset += step;
        continue;
      }
      if (skipped != 0 &&
          !line(std::to_string(offset - skipped) + " ???? " + std::to_string(skipped) + " bytes that hold no block"))
        return true;
      skipped = 0;
      const unsigned char* block = window.at(offset, std::min<size_t>(header.first_event, FLB));
      if (block == nullptr ||
          !line(std::to_string(offset) + " " + four_text(header.type) + " FLA " + std::to_string(header.fla) +
                " number " + std::to_string(header.control_id) + fields(header, block)))
        return true;
      unsigned long long next = offset + FLB;
      if (header.type != SFMB) {
        Medium_Stream stream;
        for (unsigned long long at = offset + header.first_event;;) {
          if (!read_stream(window, at, stream, reason)) {
            line("    " + std::to_string(at) + " ???? " + reason);
            break;
          }
          if (!line("    " + std::to_string(at) + " " + four_text(stream.header.id) + " length " +
                    std::to_string(stream.header.length) + stream_fields(window, stream)))
            return true;
          at = stream.next();
          if (stream.header.id == SPAD) {
            if (at % FLB == 0)
              next = at;
            break;
          }
        }
      }
      offset = next;
    }
    if (skipped != 0)
      line(std::to_string(offset - skipped) + " ???? " + std::to_string(skipped) + " bytes that hold no block");
    return true;
  } catch (const std::bad_alloc&) {
    error = "no memory to read " + path;
    return false;
  }
}
