// Files and folders in the system's temporary directory that are removed
// again when the test is done with them.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <stdlib.h>
#include <unistd.h>

namespace pelka::test {

inline void WriteWholeFile(const std::filesystem::path& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class TempFile {
 public:
  // Creates the file with exactly these bytes.
  explicit TempFile(std::string_view bytes, std::string_view suffix = ".tmp") {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("pelka-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + std::string(suffix));
    WriteWholeFile(path_, bytes);
  }
  ~TempFile() {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::wstring wide_path() const { return path_.wstring(); }

 private:
  std::filesystem::path path_;
};

// A fresh directory, removed with everything in it at the end.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "pelka-test-XXXXXX").string();
    if (::mkdtemp(pattern.data())) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

inline std::string ReadWholeFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// UTF-16 little-endian bytes with a byte-order mark, for characters of the
// basic plane.
inline std::string Utf16LeWithBom(std::wstring_view text) {
  std::string bytes = "\xFF\xFE";
  for (wchar_t c : text) bytes += {static_cast<char>(c & 0xFF), static_cast<char>((c >> 8) & 0xFF)};
  return bytes;
}

}  // namespace pelka::test
