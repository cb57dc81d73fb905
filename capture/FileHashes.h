// The hashes an analyst compares attachments by, in lower-case hex.
#pragma once

#include <span>
#include <string>

namespace pelka {

struct FileHashes {
  std::string md5;
  std::string sha1;
  std::string sha256;
};

FileHashes HashBytes(std::span<const char> bytes);

}  // namespace pelka
