// JSON texts of the output files: strings, numbers and one-line objects.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace pelka {

// JSON text pieces. Texts must be UTF-8; control characters, quotes and
// backslashes are escaped, every other byte is copied.
void AppendJsonString(std::string& out, std::string_view utf8);
// The same for wide text, written as its UTF-8 form (WideToUtf8) would be.
void AppendJsonString(std::string& out, std::wstring_view text);

// Builds one JSON object on one line, keys in the order they are added.
class JsonObjectLine {
 public:
  // Starts a new object in the same buffer, for writers that build many.
  void Clear();

  JsonObjectLine& Text(std::string_view key, std::string_view utf8);
  JsonObjectLine& Text(std::string_view key, std::wstring_view text);
  JsonObjectLine& Number(std::string_view key, uint64_t value);
  JsonObjectLine& SignedNumber(std::string_view key, int64_t value);
  // Non-finite values are written as null.
  JsonObjectLine& Double(std::string_view key, double value);
  // A value that is already JSON (an array, a nested object).
  JsonObjectLine& Raw(std::string_view key, std::string_view json);

  // The object's text, without a line end.
  const std::string& Finish();

 private:
  void Key(std::string_view key);

  std::string text_ = "{";
  bool finished_ = false;
};

// A double in the shortest form that reads back to the same value.
std::string FormatDouble(double value);
// FormatDouble appended to `out`.
void AppendDouble(std::string& out, double value);

}  // namespace pelka
