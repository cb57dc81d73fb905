// A list of known-bad file hashes (--ioc-hashes): attachments whose MD5,
// SHA-1 or SHA-256 is on it are marked in the outputs and counted.
//
// The file holds one hash per line, told apart by its length (32 hex digits:
// MD5, 40: SHA-1, 64: SHA-256), in either case; blanks around it, blank lines
// and lines starting with '#' are ignored. Any other line makes the whole
// list unusable: the error names the line, so that a typo is not silently
// taken for "nothing matched".
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_set>

#include "capture/FileHashes.h"

namespace pelka {

class IocHashes {
 public:
  // Takes the list's text; false with `error` naming the first bad line.
  bool Parse(std::string_view text, std::string* error);
  // Reads the list from `path`; false with `error` set.
  bool ReadFile(const std::string& path, std::string* error);

  // Whether any of the file's hashes is on the list.
  bool Matches(const FileHashes& hashes) const;
  size_t size() const { return hashes_.size(); }

 private:
  std::unordered_set<std::string> hashes_;  // lower-case hex, any of the three lengths
};

}  // namespace pelka
