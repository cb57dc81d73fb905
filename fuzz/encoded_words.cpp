// Decodes random header texts with the encoded-word decoder and the byte
// decoders behind it, with output buffers of exactly the documented size so
// that a write past the end is caught.
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/FuzzCommon.h"
#include "mail/EncodedWords.h"

namespace {

using pelka::fuzz::Fail;

// Decodes into a heap block of `capacity` bytes and checks the count.
template <typename Decoder>
void DecodeInto(Decoder decode, std::string_view input, size_t capacity) {
  auto output = std::make_unique<char[]>(capacity);
  const size_t produced = decode(input, std::span<char>(output.get(), capacity));
  if (produced > input.size() + 1) Fail("more bytes produced than read");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  pelka::fuzz::ChooseAnsiCodePage(data[0], 950);
  const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);

  std::string text(input);
  std::wstring output = L"earlier";
  pelka::DecodeEncodedWords(text, output);
  if (text.find('\0') != std::string::npos) Fail("the text was not cut at its zero byte");
  if (text.find("\r\n") != std::string::npos) Fail("a line break was left in the text");

  // The documented size (input plus one), and smaller ones: nothing is ever
  // written past the end of the span.
  const size_t small = (data[0] >> 2) % (input.size() + 1);
  for (size_t capacity : {input.size() + 1, small}) {
    DecodeInto(pelka::DecodeBase64Bytes, input, capacity);
    DecodeInto(pelka::DecodeQuotedPrintableBytes, input, capacity);
  }

  auto bytes = std::make_unique<char[]>(input.size() ? input.size() : 1);
  std::copy(input.begin(), input.end(), bytes.get());
  pelka::Utf8ToWide(bytes.get(), static_cast<ptrdiff_t>(input.size()));
  return 0;
}
