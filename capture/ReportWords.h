// The report's own texts in the run's language: English, or Chinese when the
// run's texts are Chinese (--lang zh). What the records and reports say is
// shown as they say it.
#pragma once

#include <string>

namespace report {

class Words {
 public:
  explicit Words(bool chinese) : chinese_(chinese) {}

  // The text for `english`, one of the report's own texts; itself when it
  // has no translation (a new text shows in English, never as nothing).
  std::string operator()(const char* english) const;
  // The same with "%1" and "%2" in it replaced by `first` and `second`.
  std::string operator()(const char* english, const std::string& first, const std::string& second = "") const;
  // The page's language attribute: "en" or "zh".
  const char* language() const { return chinese_ ? "zh" : "en"; }

 private:
  bool chinese_;
};

}  // namespace report
