// Takes the attachments out of random messages, then hashes and types each
// one as a capture run does. Whatever the structure, the bounds hold: no
// more parts than looked at, no more bytes than allowed, parts numbered from
// one in order, names in UTF-8, types in lower case, hashes of their length.
//
// Input: one byte choosing the bounds (the defaults, or small ones that the
// input can reach), then the message.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "capture/ContentTypeDetector.h"
#include "capture/FileHashes.h"
#include "capture/MessageParts.h"
#include "fuzz/FuzzCommon.h"

namespace {

using pelka::fuzz::Fail;

pelka::PartLimits LimitsFrom(uint8_t choice) {
  if (choice & 0x80) return {};
  return {.max_depth = 1u + (choice & 7u), .max_parts = 1u + ((choice >> 3) & 15u) * 4u,
          .max_bytes = uint64_t{64} << ((choice >> 3) & 7u)};
}

// Well-formed UTF-8: lead bytes with the right number of continuation
// bytes, no overlong forms, no surrogates, nothing above U+10FFFF.
bool IsUtf8(const std::string& text) {
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xc2 && lead < 0xe0 ? 2 : lead >= 0xe0 && lead < 0xf0 ? 3
                        : lead >= 0xf0 && lead < 0xf5                   ? 4
                                                                        : 0;
    if (length == 0 || i + length > text.size()) return false;
    uint32_t code = length == 1 ? lead : lead & (0x7f >> length);
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xc0) != 0x80) return false;
      code = code << 6 | (next & 0x3f);
    }
    constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < kSmallest[length] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000)) return false;
    i += length;
  }
  return true;
}

bool IsLowerHex(const std::string& text, size_t length) {
  return text.size() == length && std::all_of(text.begin(), text.end(), [](unsigned char c) {
           return std::isdigit(c) || (c >= 'a' && c <= 'f');
         });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // One detector for the whole run: loading the type database takes longer
  // than most inputs.
  static const std::unique_ptr<pelka::ContentTypeDetector> detector = [] {
    std::string error;
    auto opened = pelka::ContentTypeDetector::Open(&error);
    if (!opened) Fail("the type database cannot be loaded");
    return opened;
  }();
  const pelka::PartLimits limits = LimitsFrom(data[0]);
  const std::vector<char> message(data + 1, data + size);  // exact size: reads past it are caught

  const pelka::MessageParts taken = pelka::TakeMessageParts(message, limits);
  if (taken.parts.size() > limits.max_parts) Fail("more parts taken than looked at");
  uint64_t bytes = 0;
  for (size_t i = 0; i < taken.parts.size(); ++i) {
    const pelka::MessagePart& part = taken.parts[i];
    if (part.index != i + 1) Fail("parts are not numbered from one in order");
    if (!IsUtf8(part.file_name)) Fail("a file name is not UTF-8");
    if (std::any_of(part.declared_type.begin(), part.declared_type.end(), [](unsigned char c) { return std::isupper(c); }))
      Fail("a declared type is not in lower case");
    bytes += part.content.size();
    const pelka::FileHashes hashes = pelka::HashBytes(part.content);
    if (!IsLowerHex(hashes.md5, 32) || !IsLowerHex(hashes.sha1, 40) || !IsLowerHex(hashes.sha256, 64))
      Fail("a hash is not lower-case hex of its length");
    const std::string detected = detector->Detect(part.content);
    if (detected.find('/') == std::string::npos) Fail("a detected type is not type/subtype");
    pelka::TypesDisagree(part.declared_type, detected);
  }
  if (bytes > limits.max_bytes) Fail("more bytes kept than allowed");
  return 0;
}
