// Tells a file's type from its bytes (libmagic), as "type/subtype", and
// whether that disagrees with the type a message declared for it.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace pelka {

class ContentTypeDetector {
 public:
  // Loads the type database once; null with `error` set when it cannot be
  // loaded. A detector is not shared between threads: make one per thread.
  static std::unique_ptr<ContentTypeDetector> Open(std::string* error);
  ~ContentTypeDetector();
  ContentTypeDetector(const ContentTypeDetector&) = delete;
  ContentTypeDetector& operator=(const ContentTypeDetector&) = delete;

  // The type of `bytes`, e.g. "application/pdf"; "application/octet-stream"
  // when it cannot be told.
  std::string Detect(std::span<const char> bytes);

 private:
  explicit ContentTypeDetector(void* cookie);
  void* cookie_;
};

// Whether a part declared as `declared` but detected as `detected` is worth
// an analyst's look (an ".pdf" that is an executable). They disagree when
// the message promises something to look at (image/*, audio/*, video/*,
// text/*, PDF, RTF, office documents) and the bytes are a program, a script
// or an archive. Everything else agrees: a generic or missing declaration
// (application/octet-stream) or detection, text/* against text/*, an office
// document that is the zip or compound file it is made of, and one harmless
// type for another (a GIF sent as image/png).
bool TypesDisagree(std::string_view declared, std::string_view detected);

}  // namespace pelka
