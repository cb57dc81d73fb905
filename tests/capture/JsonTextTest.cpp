// JSON strings of the output files: which characters are escaped, and how.
#include "capture/JsonText.h"

#include <gtest/gtest.h>

#include <string>

namespace pelka {
namespace {

// Every control byte except the three with a letter escape, in order.
std::string OtherControlBytes() {
  std::string bytes;
  for (char c = 0; c < 0x20; ++c)
    if (c != '\t' && c != '\n' && c != '\r') bytes += c;
  return bytes + '\x7f';
}

struct EscapeCase {
  const char* name;
  std::string text;  // ASCII, so that the wide form is the same characters
  std::string json;  // between the quotes
};

const EscapeCase kEscapeCases[] = {
    {"quote", "a\"b", "a\\\"b"},
    {"backslash", "a\\b", "a\\\\b"},
    {"backslash before the closing quote", "a\\", "a\\\\"},
    {"quote before the closing quote", "a\"", "a\\\""},
    {"tab, newline and return by letter", "\t\n\r", "\\t\\n\\r"},
    {"every other control byte and DEL as \\u00XX", OtherControlBytes(),
     "\\u0000\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\u0008\\u000b\\u000c\\u000e\\u000f"
     "\\u0010\\u0011\\u0012\\u0013\\u0014\\u0015\\u0016\\u0017\\u0018\\u0019\\u001a\\u001b\\u001c\\u001d\\u001e"
     "\\u001f\\u007f"},
    {"printable ASCII around them is copied", " !#/[]~", " !#/[]~"},
    // Long plain runs pass eight bytes at a time: each kind found behind them.
    {"quote in a word behind two plain ones", "0123456789abcdef\"-------", "0123456789abcdef\\\"-------"},
    {"backslash in a word behind two plain ones", "0123456789abcdef\\-------", "0123456789abcdef\\\\-------"},
    {"control byte in a word behind two plain ones", "0123456789abcdef\x01-------", "0123456789abcdef\\u0001-------"},
    {"DEL in a word behind two plain ones", "0123456789abcdef\x7f-------", "0123456789abcdef\\u007f-------"},
};

TEST(JsonTextTest, EscapesEveryControlCharacterQuoteAndBackslash) {
  for (const EscapeCase& c : kEscapeCases) {
    SCOPED_TRACE(c.name);
    std::string narrow;
    AppendJsonString(narrow, std::string_view(c.text));
    EXPECT_EQ(narrow, "\"" + c.json + "\"");
    std::string wide;
    AppendJsonString(wide, std::wstring(c.text.begin(), c.text.end()));
    EXPECT_EQ(wide, "\"" + c.json + "\"");
    // Read back out of a line, past a field whose value holds the key's text
    // and an array holding a string with a bracket.
    const std::string line =
        "{\"n\": 7, \"a\": [1, \"],\"], \"x\": \"\\\"k\\\": \", \"k\": " + narrow + ", \"m\": 8}";
    EXPECT_EQ(UnescapeJson(JsonFieldText(line, "k")), c.text);
    EXPECT_EQ(JsonFieldText(line, "n"), "7");
    const JsonFields fields(line);
    EXPECT_EQ(UnescapeJson(fields.Text("k")), c.text);
    EXPECT_EQ(fields.Text("n"), "7");
    EXPECT_EQ(fields.Text("m"), "8");
  }
}

TEST(JsonTextTest, ObjectLineSeparatesFieldsAndEscapesKeysThatNeedIt) {
  JsonObjectLine line;
  line.Number("n", 7).Text("quote\"in the key", std::string_view("x")).Double("d", 0.5);
  EXPECT_EQ(line.Finish(), "{\"n\": 7, \"quote\\\"in the key\": \"x\", \"d\": 0.5}");
}

}  // namespace
}  // namespace pelka
