#include "capture/IocHashes.h"

#include <fstream>
#include <iterator>

namespace pelka {
namespace {

std::string_view Trimmed(std::string_view line) {
  const size_t first = line.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  const size_t last = line.find_last_not_of(" \t\r");
  return line.substr(first, last - first + 1);
}

bool IsHashLength(size_t length) { return length == 32 || length == 40 || length == 64; }

// The hash in lower case, or "" when the text is not one.
std::string LowerHash(std::string_view text) {
  if (!IsHashLength(text.size())) return {};
  std::string lower;
  lower.reserve(text.size());
  for (const char c : text) {
    if (c >= '0' && c <= '9') {
      lower += c;
    } else if ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) {
      lower += static_cast<char>(c | 0x20);
    } else {
      return {};
    }
  }
  return lower;
}

// A line of the file as a reader sees it in a message: cut short, without
// control characters.
std::string Shown(std::string_view line) {
  std::string shown;
  for (const char c : line.substr(0, 80)) shown += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  return line.size() > 80 ? shown + "..." : shown;
}

}  // namespace

bool IocHashes::Parse(std::string_view text, std::string* error) {
  size_t number = 0;
  while (!text.empty()) {
    ++number;
    const size_t end = text.find('\n');
    const std::string_view line = Trimmed(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 1);
    if (line.empty() || line.front() == '#') continue;
    std::string hash = LowerHash(line);
    if (hash.empty()) {
      *error = "line " + std::to_string(number) + ": \"" + Shown(line) +
               "\" is not an MD5, SHA-1 or SHA-256 hash (32, 40 or 64 hex digits)";
      return false;
    }
    hashes_.insert(std::move(hash));
  }
  return true;
}

bool IocHashes::ReadFile(const std::string& path, std::string* error) {
  std::ifstream file(path, std::ios::binary);
  const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file.is_open() || file.bad()) {
    *error = "cannot read the hash list " + path;
    return false;
  }
  if (Parse(text, error)) return true;
  *error = "the hash list " + path + ", " + *error;
  return false;
}

bool IocHashes::Matches(const FileHashes& hashes) const {
  for (const std::string* hash : {&hashes.md5, &hashes.sha1, &hashes.sha256})
    if (!hash->empty() && hashes_.count(*hash)) return true;
  return false;
}

}  // namespace pelka
