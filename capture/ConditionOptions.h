// The condition options of the command line: one option per condition and
// --where for a whole expression, joined into one condition expression
// (capture/EmailConditions.h).
#pragma once

#include <optional>
#include <string>

#include "capture/EmailConditions.h"

namespace CLI {
class App;
}

namespace pelka {

// What the condition options collect before they are checked together.
struct ConditionTexts {
  std::string attachment;
  std::string size_included;
  std::string size_excluded;
  std::string sender_included;
  std::string sender_excluded;
  std::string receiver_included;
  std::string receiver_excluded;
  std::string where;
};

// Adds the condition options, in their own help group, filling `texts`.
void AddConditionOptions(CLI::App& app, ConditionTexts& texts);

// The options given, as one expression: a name given twice (as an option and
// in --where) is then refused by the same rule as inside one expression.
// Empty when no condition was given.
std::string ConditionExpression(const ConditionTexts& texts);

// Parses the options given into `conditions` (left unset when none was
// given). Returns an empty text on success, else the usage error to show.
std::string ReadConditions(const ConditionTexts& texts, std::optional<EmailConditions>& conditions);

}  // namespace pelka
