#include "mail/EncodedWords.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/CodePage.h"
#include "mail/PrefixScanner.h"

namespace pelka {
namespace {

using namespace std::string_view_literals;

// Even forms are base64, odd forms quoted-printable; forms 4 and 5 carry UTF-8.
constexpr std::array<std::string_view, 6> kPrefixes = {
    "=?gb2312?b?"sv, "=?gb2312?q?"sv, "=?gbk?b?"sv, "=?gbk?q?"sv, "=?utf-8?b?"sv, "=?utf-8?q?"sv,
};
constexpr std::string_view kWordEnd = "?="sv;

bool IsBase64Form(size_t form) { return form % 2 == 0; }
bool IsUtf8Form(size_t form) { return form >= 4; }

int Base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

std::string_view UpToZero(std::string_view text) { return text.substr(0, text.find('\0')); }

void ReplaceLineBreaksWithBlanks(std::string& text) {
  size_t written = 0;
  for (size_t read = 0; read < text.size(); ++read) {
    if (text[read] == '\r' && read + 1 < text.size() && text[read + 1] == '\n') {
      text[written++] = ' ';
      ++read;
    } else {
      text[written++] = text[read];
    }
  }
  text.resize(written);
}

struct JoinedWords {
  size_t first_position = 0;  // where the first word's prefix starts
  size_t last_form = 0;       // decides how the joined payload is decoded
  std::string payload;
};

// Joins the payloads of every word. A prefix without a closing "?=" after it
// still names the form but ends the scan: nothing after it is a word.
std::optional<JoinedWords> JoinWords(std::string_view text) {
  PrefixScanner<char, kPrefixes.size()> scanner(text, kPrefixes);
  auto match = scanner.FindFrom(0);
  if (!match) return std::nullopt;

  JoinedWords words;
  words.first_position = match->position;
  while (match) {
    words.last_form = match->form;
    const size_t start = match->position + kPrefixes[match->form].size();
    const size_t end = text.find(kWordEnd, start);
    if (end == std::string_view::npos) break;
    words.payload.append(text.substr(start, end - start));
    match = scanner.FindFrom(end + kWordEnd.size());
  }
  return words;
}

// The decoded bytes up to the first zero byte, as a reader of C strings
// would see them.
std::string DecodePayload(const JoinedWords& words) {
  std::vector<char> buffer(words.payload.size() + 1, '\0');
  if (IsBase64Form(words.last_form)) {
    DecodeBase64Bytes(words.payload, buffer);
  } else {
    DecodeQuotedPrintableBytes(words.payload, buffer);
  }
  return std::string(buffer.data());
}

}  // namespace

void DecodeEncodedWords(std::string& text, std::wstring& output) {
  text.resize(UpToZero(text).size());
  ReplaceLineBreaksWithBlanks(text);

  const std::optional<JoinedWords> words = JoinWords(text);
  if (!words) {
    MultiByteToWide(kCodePageThreadAnsi, text, output);
    return;
  }
  const std::string decoded = DecodePayload(*words);
  const std::string_view leading = std::string_view(text).substr(0, words->first_position);

  if (!IsUtf8Form(words->last_form)) {
    MultiByteToWide(kCodePageThreadAnsi, std::string(leading) + decoded, output);
    return;
  }
  // An empty UTF-8 result leaves the caller's text in place behind the
  // leading plain text.
  if (auto wide = Utf8ToWide(decoded.data(), static_cast<ptrdiff_t>(decoded.size()))) output = wide.get();
  if (!leading.empty()) output.insert(0, AnsiToWide(leading));
}

size_t DecodeBase64Bytes(std::string_view input, std::span<char> output) {
  input = UpToZero(input);
  size_t written = 0;
  uint32_t bits = 0;
  int bit_count = 0;
  for (char c : input) {
    if (c == '=') return written + 1;
    const int value = Base64Value(c);
    if (value < 0) continue;
    bits = (bits << 6) | static_cast<uint32_t>(value);
    bit_count += 6;
    if (bit_count < 8) continue;
    bit_count -= 8;
    if (written < output.size()) output[written] = static_cast<char>((bits >> bit_count) & 0xFF);
    ++written;
  }
  if (written < output.size()) output[written] = '\0';
  return written;
}

size_t DecodeQuotedPrintableBytes(std::string_view input, std::span<char> output) {
  input = UpToZero(input);
  size_t produced = 0;
  auto put = [&](char byte) {
    if (produced < output.size()) output[produced] = byte;
    ++produced;
  };
  size_t i = 0;
  while (i < input.size()) {
    if (input.substr(i, 3) == "=\r\n") {
      i += 3;
      continue;
    }
    if (input[i] != '=') {
      put(input[i++]);
      continue;
    }
    // "=" and the two bytes after it are consumed whatever they hold; without
    // a digit the output keeps a zero byte there.
    int value = 0;
    for (size_t k = i + 1; k < i + 3 && k < input.size() && HexValue(input[k]) >= 0; ++k) {
      value = value * 16 + HexValue(input[k]);
    }
    put(static_cast<char>(value));
    i += 3;
  }
  if (produced < output.size()) output[produced] = '\0';
  return produced;
}

std::unique_ptr<wchar_t[]> Utf8ToWide(const char* bytes, ptrdiff_t length) {
  if (!bytes || length < 1) return nullptr;
  const std::wstring wide = MultiByteToWide(kCodePageUtf8, std::string_view(bytes, static_cast<size_t>(length)));
  auto result = std::make_unique<wchar_t[]>(wide.size() + 1);
  wide.copy(result.get(), wide.size());
  result[wide.size()] = L'\0';
  return result;
}

}  // namespace pelka
