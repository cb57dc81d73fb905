// JSON texts of the output files: strings, numbers and one-line objects.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

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

// Reading back the one-line objects the program writes ("key": value, keys
// never repeated): a field's raw text, that is a string's escaped contents or
// a number's digits, found without parsing the whole object (a quote inside
// a string is always escaped, so a key cannot be matched inside a value);
// empty when the field is absent. The view points into `line`.
std::string_view JsonFieldText(std::string_view line, std::string_view key);

// The same answers for many keys of one line: its top-level fields are picked
// out in one pass (a report reads a dozen fields of every record of a large
// run, and a search per field went over each line a dozen times).
class JsonFields {
 public:
  // The views point into `line`, which must outlive this.
  explicit JsonFields(std::string_view line);
  // What JsonFieldText(line, key) answers.
  std::string_view Text(std::string_view key) const;

 private:
  struct Field {
    std::string_view key;
    std::string_view text;
  };
  // Room made at once: a record line has 27 keys.
  static constexpr size_t kUsualFields = 32;
  std::vector<Field> fields_;
};
// A string's escaped contents read back (the escapes AppendJsonString writes).
std::string UnescapeJson(std::string_view text);

// A double in the shortest form that reads back to the same value.
std::string FormatDouble(double value);
// FormatDouble appended to `out`.
void AppendDouble(std::string& out, double value);

}  // namespace pelka
