#include "capture/JsonText.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "host/CodePage.h"

namespace pelka {

namespace {

// How a byte below 0x80 appears inside a JSON string: 0 copied as it is,
// another letter after a backslash, 'u' as \u00XX.
constexpr std::array<char, 128> kJsonEscapes = [] {
  std::array<char, 128> table{};
  for (int c = 0; c < 0x20; ++c) table[c] = 'u';
  table[0x7F] = 'u';
  table['"'] = '"';
  table['\\'] = '\\';
  table['\n'] = 'n';
  table['\r'] = 'r';
  table['\t'] = 't';
  return table;
}();

void AppendEscapedAscii(std::string& out, unsigned char byte) {
  static const char kHex[] = "0123456789abcdef";
  const char escape = kJsonEscapes[byte];
  if (escape == 0) {
    out += static_cast<char>(byte);
  } else if (escape != 'u') {
    out += '\\';
    out += escape;
  } else {
    const char text[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
    out.append(text, sizeof text);
  }
}

// Values that are no Unicode scalar become '?', as in WideToUtf8.
void AppendUtf8(std::string& out, wchar_t wide) {
  const auto c = static_cast<uint32_t>(IsScalarValue(wide) ? wide : L'?');
  char bytes[4];
  size_t length = 0;
  if (c < 0x80) {
    out += static_cast<char>(c);
    return;
  }
  if (c < 0x800) {
    bytes[length++] = static_cast<char>(0xC0 | (c >> 6));
  } else if (c < 0x10000) {
    bytes[length++] = static_cast<char>(0xE0 | (c >> 12));
    bytes[length++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  } else {
    bytes[length++] = static_cast<char>(0xF0 | (c >> 18));
    bytes[length++] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    bytes[length++] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  }
  bytes[length++] = static_cast<char>(0x80 | (c & 0x3F));
  out.append(bytes, length);
}

// Whether any of eight bytes needs an escape (below 0x20, 0x7F, '"' or '\\'):
// a word at a time, since keys and texts are mostly long runs that need none.
// Each test answers exactly whether some byte matches, never which one.
bool NeedsEscape(uint64_t word) {
  constexpr uint64_t kOnes = 0x0101010101010101;
  constexpr uint64_t kHighs = 0x8080808080808080;
  const auto has_below = [](uint64_t x, uint64_t n) { return (x - kOnes * n) & ~x & kHighs; };
  const auto has_byte = [&](uint64_t x, uint8_t b) { return has_below(x ^ (kOnes * b), 1); };
  return (has_below(word, 0x20) | has_byte(word, 0x7F) | has_byte(word, '"') | has_byte(word, '\\')) != 0;
}

// How many leading bytes, in whole words of eight, need no escape.
size_t PlainPrefixLength(std::string_view utf8) {
  size_t i = 0;
  for (; utf8.size() - i >= 8; i += 8) {
    uint64_t word;
    std::memcpy(&word, utf8.data() + i, sizeof word);
    if (NeedsEscape(word)) break;
  }
  return i;
}

// True when no byte of the text needs an escape.
bool IsPlain(std::string_view text) {
  for (size_t i = PlainPrefixLength(text); i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x80 && kJsonEscapes[byte] != 0) return false;
  }
  return true;
}

void AppendNumber(std::string& out, auto value) {
  char buffer[24];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  out.append(buffer, result.ptr);
}

}  // namespace

void AppendJsonString(std::string& out, std::string_view utf8) {
  out += '"';
  size_t plain = 0;  // start of the bytes not yet copied
  for (size_t i = PlainPrefixLength(utf8); i < utf8.size(); ++i) {
    const auto byte = static_cast<unsigned char>(utf8[i]);
    if (byte >= 0x80 || kJsonEscapes[byte] == 0) continue;
    out.append(utf8, plain, i - plain);
    AppendEscapedAscii(out, byte);
    plain = i + 1;
  }
  out.append(utf8, plain);
  out += '"';
}

void AppendJsonString(std::string& out, std::wstring_view text) {
  out += '"';
  size_t i = 0;
  while (i < text.size()) {
    // A run of ASCII that needs no escape is narrowed in one go.
    const size_t run = i;
    while (i < text.size() && text[i] >= 0 && text[i] < 0x80 && kJsonEscapes[static_cast<size_t>(text[i])] == 0) ++i;
    if (i > run) {
      const size_t at = out.size();
      out.resize(at + (i - run));
      std::copy(text.begin() + static_cast<std::ptrdiff_t>(run), text.begin() + static_cast<std::ptrdiff_t>(i),
                out.begin() + static_cast<std::ptrdiff_t>(at));
    }
    if (i == text.size()) break;
    const wchar_t c = text[i++];
    if (c >= 0 && c < 0x80) {
      AppendEscapedAscii(out, static_cast<unsigned char>(c));
    } else {
      AppendUtf8(out, c);
    }
  }
  out += '"';
}

std::string FormatDouble(double value) {
  std::string text;
  AppendDouble(text, value);
  return text;
}

void AppendDouble(std::string& out, double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  const std::string_view text(buffer, static_cast<size_t>(result.ptr - buffer));
  out += text;
  // Integral values keep a fraction so that readers see a floating value.
  if (text.find_first_of(".eEn") == std::string_view::npos) out += ".0";
}

void JsonObjectLine::Clear() {
  text_.assign(1, '{');
  finished_ = false;
}

void JsonObjectLine::Key(std::string_view key) {
  const std::string_view separator = text_.size() > 1 ? ", " : "";
  if (!IsPlain(key)) {
    text_ += separator;
    AppendJsonString(text_, key);
    text_ += ": ";
    return;
  }
  // Keys are the program's own names, which need no escape: the separator,
  // the quoted key and the colon go in with one resize, as every field of
  // every line starts this way.
  const size_t at = text_.size();
  text_.resize(at + separator.size() + key.size() + 4);
  char* out = std::copy(separator.begin(), separator.end(), text_.data() + at);
  *out++ = '"';
  out = std::copy(key.begin(), key.end(), out);
  std::memcpy(out, "\": ", 3);
}

JsonObjectLine& JsonObjectLine::Text(std::string_view key, std::string_view utf8) {
  Key(key);
  AppendJsonString(text_, utf8);
  return *this;
}

JsonObjectLine& JsonObjectLine::Text(std::string_view key, std::wstring_view text) {
  Key(key);
  AppendJsonString(text_, text);
  return *this;
}

JsonObjectLine& JsonObjectLine::Number(std::string_view key, uint64_t value) {
  Key(key);
  AppendNumber(text_, value);
  return *this;
}

JsonObjectLine& JsonObjectLine::SignedNumber(std::string_view key, int64_t value) {
  Key(key);
  AppendNumber(text_, value);
  return *this;
}

JsonObjectLine& JsonObjectLine::Double(std::string_view key, double value) {
  Key(key);
  if (std::isfinite(value)) {
    AppendDouble(text_, value);
  } else {
    text_ += "null";
  }
  return *this;
}

JsonObjectLine& JsonObjectLine::Raw(std::string_view key, std::string_view json) {
  Key(key);
  text_ += json;
  return *this;
}

const std::string& JsonObjectLine::Finish() {
  if (!finished_) text_ += '}';
  finished_ = true;
  return text_;
}

std::string_view JsonFieldText(std::string_view line, std::string_view key) {
  const std::string pattern = "\"" + std::string(key) + "\": ";
  const size_t at = line.find(pattern);
  if (at == std::string_view::npos) return {};
  size_t begin = at + pattern.size();
  if (begin < line.size() && line[begin] == '"') {
    size_t end = ++begin;
    while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
    return line.substr(begin, std::min(end, line.size()) - begin);
  }
  size_t end = begin;
  while (end < line.size() && line[end] >= '0' && line[end] <= '9') ++end;
  return line.substr(begin, end - begin);
}

namespace {

// The index of the quote that closes the string whose text starts at
// `begin`, or the line's size when it is cut short: the first quote after an
// even run of backslashes. Quotes are looked for with memchr, the text
// between them is not walked byte by byte.
size_t StringEnd(std::string_view line, size_t begin) {
  for (size_t at = begin;;) {
    const size_t quote = line.find('"', at);
    if (quote == std::string_view::npos) return line.size();
    size_t backslashes = 0;
    while (quote - backslashes > begin && line[quote - backslashes - 1] == '\\') ++backslashes;
    if (backslashes % 2 == 0) return quote;
    at = quote + 1;
  }
}

// The end of a value that is not a string (a number, null, an array or an
// object): the first comma or closing brace outside its brackets and strings.
size_t OtherValueEnd(std::string_view line, size_t at) {
  int depth = 0;
  for (; at < line.size(); ++at) {
    const char c = line[at];
    if (c == '"') {
      at = StringEnd(line, at + 1);
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    } else if ((c == ',' || c == '}') && depth == 0) {
      break;
    }
  }
  return std::min(at, line.size());
}

}  // namespace

JsonFields::JsonFields(std::string_view line) {
  fields_.reserve(kUsualFields);
  size_t at = line.find('{');
  if (at == std::string_view::npos) return;
  ++at;
  while (at < line.size()) {
    while (at < line.size() && (line[at] == ' ' || line[at] == ',')) ++at;
    if (at >= line.size() || line[at] != '"') return;
    const size_t key_end = StringEnd(line, at + 1);
    const std::string_view key = line.substr(at + 1, key_end - at - 1);
    at = key_end + 1;
    // JsonFieldText finds a key by its quote, colon and one space.
    if (line.substr(std::min(at, line.size()), 2) != ": ") return;
    at += 2;
    if (at < line.size() && line[at] == '"') {
      const size_t end = StringEnd(line, at + 1);
      fields_.push_back({key, line.substr(at + 1, end - at - 1)});
      at = end + 1;
      continue;
    }
    const size_t end = OtherValueEnd(line, at);
    size_t digits = at;
    while (digits < end && line[digits] >= '0' && line[digits] <= '9') ++digits;
    fields_.push_back({key, line.substr(at, digits - at)});
    at = end;
  }
}

std::string_view JsonFields::Text(std::string_view key) const {
  for (const Field& field : fields_)
    if (field.key == key) return field.text;
  return {};
}

std::string UnescapeJson(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      // Up to the next backslash the text is taken as it is, in one piece.
      const size_t next = std::min(text.find('\\', i + 1), text.size());
      out.append(text.substr(i, next - i));
      i = next - 1;
      continue;
    }
    const char c = text[++i];
    unsigned code = 0;
    if (c == 'u' && i + 4 < text.size() &&
        std::from_chars(text.data() + i + 1, text.data() + i + 5, code, 16).ptr == text.data() + i + 5 &&
        code < 0x80) {
      out += static_cast<char>(code);  // only control characters are written as \u escapes
      i += 4;
      continue;
    }
    out += c == 'n' ? '\n' : c == 't' ? '\t' : c == 'r' ? '\r' : c == 'b' ? '\b' : c == 'f' ? '\f' : c;
  }
  return out;
}

}  // namespace pelka
