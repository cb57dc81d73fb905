#include "capture/SnapLengthWidening.h"

#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "capture/PcapFormat.h"
#include "capture/PcapngSections.h"
#include "capture/PcapngWidening.h"

namespace pelka {
namespace {

// The stream libpcap reads: the first bytes as changed, then the file's
// bytes; for pcapng, the blocks as the widener changes them.
struct WidenedFile {
  std::FILE* file;
  uint8_t header[kPcapFileHeaderBytes];
  size_t header_length = 0;  // fewer than kPcapFileHeaderBytes when the input is that short
  uint64_t start = 0;        // where the stream starts in the file
  uint64_t position = 0;     // in the stream
  std::unique_ptr<PcapngWidener> pcapng;
};

// Bytes stdio holds for a stream, read but not yet taken.
size_t StdioHeld(const std::FILE* file) { return static_cast<size_t>(file->_IO_read_end - file->_IO_read_ptr); }

ssize_t ReadWidened(void* cookie, char* out, size_t size) {
  auto* widened = static_cast<WidenedFile*>(cookie);
  // From standard input, only what has come: stdio would wait to fill the
  // whole buffer, and a pipe fed packet by packet (tcpdump -U -w -) must be
  // read as it goes. Asking for one byte when nothing is held makes one
  // read(2), which returns what the pipe has.
  if (widened->file == stdin) size = std::min(size, std::max<size_t>(1, StdioHeld(stdin)));
  size_t given = 0;
  if (widened->pcapng) {
    given = widened->pcapng->Read(reinterpret_cast<uint8_t*>(out), size);
  } else {
    if (widened->position < widened->header_length) {
      given = std::min(size, widened->header_length - static_cast<size_t>(widened->position));
      std::memcpy(out, widened->header + widened->position, given);
    }
    if (given < size) given += std::fread(out + given, 1, size - given, widened->file);
  }
  widened->position += given;
  if (given == 0 && std::ferror(widened->file)) return -1;
  return static_cast<ssize_t>(given);
}

// Telling the position works on every stream; a classic file may be read
// again from any record on, a pcapng file only on from where it is.
int SeekWidened(void* cookie, off64_t* offset, int whence) {
  auto* widened = static_cast<WidenedFile*>(cookie);
  if (whence == SEEK_CUR && *offset == 0) {
    *offset = static_cast<off64_t>(widened->start + widened->position);
    return 0;
  }
  if (widened->pcapng || whence != SEEK_SET || *offset < 0) return -1;
  // Bytes of the header read again come from the changed copy.
  const uint64_t target = static_cast<uint64_t>(*offset);
  const uint64_t in_file = std::max<uint64_t>(target, widened->header_length);
  if (std::fseek(widened->file, static_cast<long>(in_file), SEEK_SET) != 0) return -1;
  widened->position = target;
  return 0;
}

int CloseWidened(void* cookie) {
  std::unique_ptr<WidenedFile> widened(static_cast<WidenedFile*>(cookie));
  if (widened->file == stdin) return 0;
  return std::fclose(widened->file);
}

void Store32(uint8_t* bytes, uint32_t value, bool swapped) {
  if (swapped) value = __builtin_bswap32(value);
  std::memcpy(bytes, &value, sizeof value);
}

bool IsPcapng(const uint8_t* header, size_t length) {
  uint32_t type = 0;
  if (length < sizeof type) return false;
  std::memcpy(&type, header, sizeof type);
  return type == kPcapngSectionHeader;
}

}  // namespace

std::FILE* WidenSnapLength(std::FILE* file, SnapLengthView* view) {
  *view = {};
  auto widened = std::make_unique<WidenedFile>();
  widened->file = file;
  const long start = file == stdin ? -1 : std::ftell(file);
  widened->start = start > 0 ? static_cast<uint64_t>(start) : 0;
  widened->header_length = std::fread(widened->header, 1, kPcapFileHeaderBytes, file);
  const bool whole_header = widened->header_length == kPcapFileHeaderBytes;
  const PcapMagic magic = whole_header ? ReadPcapMagic(widened->header) : PcapMagic{};
  view->nanosecond = magic.nanosecond;
  const uint32_t stated = magic.classic ? LoadPcap32(widened->header + kPcapSnapLengthOffset, magic.swapped) : 0;
  if (IsPcapng(widened->header, widened->header_length)) {
    widened->pcapng = std::make_unique<PcapngWidener>(file, widened->header, widened->header_length,
                                                      &view->exceeded_snap_length);
  } else if (magic.classic && stated != 0 && stated < kPcapLargestRecord) {
    Store32(widened->header + kPcapSnapLengthOffset, kPcapLargestRecord, magic.swapped);
    view->header_snap_length = stated;
  } else if (start >= 0 && std::fseek(file, start, SEEK_SET) == 0) {
    return file;  // nothing to change: libpcap reads the file as it is
  }
  // Header bytes read from a pipe cannot be put back, so the stream serves
  // them whether or not they changed.
  std::FILE* stream = fopencookie(widened.get(), "rb", {ReadWidened, nullptr, SeekWidened, CloseWidened});
  if (!stream) return nullptr;
  widened.release();
  return stream;
}

}  // namespace pelka
