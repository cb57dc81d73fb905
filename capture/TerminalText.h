// Text on its way to a terminal. Message headers, file names and interface
// names can hold control characters; written as they are, ESC, BEL and the
// like would let a capture retitle the window, move the cursor or clear the
// screen. So everything the program prints shows them escaped, as packet
// tools do:
//
// - C0 controls and DEL as "\xHH" ("\x1b" for ESC), except line ends and tabs
//   where a text keeps its layout (EscapeForTerminal's `keep_layout`),
// - C1 controls (U+0080 to U+009F), which some terminals also obey, as
//   "\u009b",
// - bytes that are not UTF-8 as "\xHH",
// - every other character, wide ones included, as it is.
//
// The output files are not touched: each keeps its own rules (JSON escaping,
// the module's export lines).
#pragma once

#include <streambuf>
#include <string>
#include <string_view>

namespace pelka {

// The text with its control characters escaped. With `keep_layout`, '\n' and
// '\t' stay as they are.
std::string EscapeForTerminal(std::string_view text, bool keep_layout = false);

// A stream buffer that escapes what passes through it (keeping line ends and
// tabs) before handing it to `target`: the program's standard output and
// error go through one each, so no message can carry a control sequence,
// whichever part of the program wrote it. A UTF-8 character split between
// two writes is held until its end comes.
class TerminalStreamBuffer final : public std::streambuf {
 public:
  explicit TerminalStreamBuffer(std::streambuf* target) : target_(target) {}
  ~TerminalStreamBuffer() override;
  TerminalStreamBuffer(const TerminalStreamBuffer&) = delete;
  TerminalStreamBuffer& operator=(const TerminalStreamBuffer&) = delete;

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize count) override;
  int sync() override;

 private:
  std::streambuf* target_;
  std::string partial_;  // the first bytes of a UTF-8 character not yet complete
};

}  // namespace pelka
