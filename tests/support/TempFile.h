// A file in the system's temporary directory that is removed again when the
// test is done with it.
#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <unistd.h>

namespace pelka::test {

class TempFile {
 public:
  // Creates the file with exactly these bytes.
  explicit TempFile(std::string_view bytes, std::string_view suffix = ".tmp") {
    static std::atomic<int> counter{0};
    path_ = std::filesystem::temp_directory_path() /
            ("pelka-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + std::string(suffix));
    std::ofstream out(path_, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
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

// UTF-16 little-endian bytes with a byte-order mark, for characters of the
// basic plane.
inline std::string Utf16LeWithBom(std::wstring_view text) {
  std::string bytes = "\xFF\xFE";
  for (wchar_t c : text) {
    bytes += static_cast<char>(c & 0xFF);
    bytes += static_cast<char>((c >> 8) & 0xFF);
  }
  return bytes;
}

}  // namespace pelka::test
