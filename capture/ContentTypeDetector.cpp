#include "capture/ContentTypeDetector.h"

#include <magic.h>

#include <algorithm>
#include <array>
#include <cctype>

namespace pelka {
namespace {

constexpr char kUnknown[] = "application/octet-stream";

// What the type is told by: the magic numbers sit at the start, and the
// text checks over a whole large part would cost more than all else done to
// it while telling nothing the first bytes do not.
constexpr size_t kLookedAt = size_t{64} << 10;

magic_t Cookie(void* cookie) { return static_cast<magic_t>(cookie); }

std::string_view MainType(std::string_view type) { return type.substr(0, type.find('/')); }

// Types whose bytes run as code when opened: programs, scripts, libraries.
bool Runs(std::string_view type) {
  static constexpr std::array<std::string_view, 15> kRunnable = {
      "application/x-dosexec",     "application/vnd.microsoft.portable-executable",     "application/x-msdownload",  "application/x-executable",
      "application/x-sharedlib",   "application/x-pie-executable", "application/x-mach-binary",
      "application/x-elf",         "application/x-msi",         "application/x-ms-shortcut",
      "text/x-shellscript",        "text/x-msdos-batch",        "application/javascript",
      "text/x-python",             "application/x-bytecode.python"};
  for (std::string_view runnable : kRunnable)
    if (type == runnable) return true;
  return false;
}

// Types that wrap other files, where something runnable is usually hidden.
bool Wraps(std::string_view type) {
  static constexpr std::array<std::string_view, 11> kArchives = {
      "application/zip",          "application/x-rar",        "application/vnd.rar",
      "application/x-7z-compressed", "application/gzip",      "application/x-bzip2",
      "application/x-xz",         "application/x-tar",        "application/x-iso9660-image",
      "application/x-cab",        "application/vnd.ms-cab-compressed"};
  for (std::string_view archive : kArchives)
    if (type == archive) return true;
  return false;
}

// Office files, old and new: "application/msword", "application/vnd.ms-excel",
// "application/vnd.openxmlformats-officedocument...", "application/vnd.oasis.opendocument...".
bool IsOffice(std::string_view type) {
  return type == "application/msword" || type.starts_with("application/vnd.ms-") ||
         type.starts_with("application/vnd.openxmlformats") || type.starts_with("application/vnd.oasis");
}

// Types a reader opens to look at: images, sound, video, documents, text.
bool IsViewed(std::string_view type) {
  const std::string_view main = MainType(type);
  if (main == "image" || main == "audio" || main == "video" || main == "text") return true;
  return type == "application/pdf" || type == "application/rtf" || IsOffice(type);
}

// The containers office files are made of: the newer ones are zip archives,
// the older ones compound files, which the detection may name as such.
bool IsOfficeContainer(std::string_view type) {
  return type == "application/zip" || type == "application/CDFV2" || type == "application/x-ole-storage" ||
         type == "application/x-msi";
}

}  // namespace

std::unique_ptr<ContentTypeDetector> ContentTypeDetector::Open(std::string* error) {
  const magic_t cookie = ::magic_open(MAGIC_MIME_TYPE | MAGIC_ERROR);
  if (!cookie) {
    *error = "cannot start the file type detection (libmagic)";
    return nullptr;
  }
  if (::magic_load(cookie, nullptr) != 0) {
    const char* why = ::magic_error(cookie);
    *error = std::string("cannot load the file type database (libmagic): ") + (why ? why : "unknown error");
    ::magic_close(cookie);
    return nullptr;
  }
  return std::unique_ptr<ContentTypeDetector>(new ContentTypeDetector(cookie));
}

ContentTypeDetector::ContentTypeDetector(void* cookie) : cookie_(cookie) {}

ContentTypeDetector::~ContentTypeDetector() { ::magic_close(Cookie(cookie_)); }

std::string ContentTypeDetector::Detect(std::span<const char> bytes) {
  if (bytes.empty()) return "application/x-empty";
  const char* type = ::magic_buffer(Cookie(cookie_), bytes.data(), std::min(bytes.size(), kLookedAt));
  if (!type || !*type) return kUnknown;
  return type;
}

bool TypesDisagree(std::string_view declared, std::string_view detected) {
  if (declared == kUnknown || declared.empty() || detected == kUnknown) return false;
  if (MainType(declared) == "text" && MainType(detected) == "text") return false;
  if (!IsViewed(declared)) return false;
  if (IsOffice(declared) && IsOfficeContainer(detected)) return false;
  // Something that runs, or an archive, where the message promised something
  // to look at is what the analyst hunts; other differences (one office
  // format for another, one image type for another) are the sender's
  // carelessness.
  return Runs(detected) || Wraps(detected);
}

}  // namespace pelka
