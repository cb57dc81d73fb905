#include "capture/ConditionOptions.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "host/CodePage.h"

namespace pelka {
namespace {

// The syntax reminder that goes with a condition error.
constexpr const char* kConditionSyntax =
    "conditions: --attachment yes|no, --size-included/--size-excluded \"120;0-1024\" (KB, at most 99999),\n"
    "--sender-domain-included/-excluded and --receiver-domain-included/-excluded \"example.com;example.org\",\n"
    "or --where \"attachment=yes and size-included=0-1024\"";

// The help names each option's group and checkbox by the captions of the
// condition dialogs the module publishes, so that a user who knows the
// dialogs finds the options; the captions are shown exactly as published.
constexpr const char* kConditionGroup =
    "Conditions (Email General Settings, Send Address Settings, Receive Address Settings)";

struct ConditionOption {
  const char* name;
  std::string ConditionTexts::*target;
  const char* type;
  const char* help;
  const char* caption;
};

constexpr ConditionOption kConditionOptions[] = {
    {"--attachment", &ConditionTexts::attachment, "yes|no",
     "keep only messages that carry attachments (yes) or carry none (no)", "Concern Attatchments"},
    {"--size-included", &ConditionTexts::size_included, "SIZES", "keep only messages whose size in KB is listed",
     "Size Included"},
    {"--size-excluded", &ConditionTexts::size_excluded, "SIZES", "drop messages whose size in KB is listed",
     "Size Excluded"},
    {"--sender-domain-included", &ConditionTexts::sender_included, "DOMAINS",
     "keep only messages sent from these domains", "Domain Included in Send Address"},
    {"--sender-domain-excluded", &ConditionTexts::sender_excluded, "DOMAINS", "drop messages sent from these domains",
     "Domain Excluded in Send Address"},
    {"--receiver-domain-included", &ConditionTexts::receiver_included, "DOMAINS",
     "keep only messages with a receiver in these domains", "Domain Included in Receive Address"},
    {"--receiver-domain-excluded", &ConditionTexts::receiver_excluded, "DOMAINS",
     "drop messages with a receiver in these domains", "Domain Excluded in Receive Address"},
};

}  // namespace

void AddConditionOptions(CLI::App& app, ConditionTexts& texts) {
  for (const ConditionOption& option : kConditionOptions) {
    const std::string help = std::string(option.help) + " [" + option.caption + "]";
    app.add_option(option.name, texts.*option.target, help)->type_name(option.type)->group(kConditionGroup);
  }
  app.add_option("--where", texts.where, "all conditions as one text: \"attachment=yes and size-included=0-1024\"")
      ->type_name("CONDITIONS")
      ->group(kConditionGroup);
}

std::string ConditionExpression(const ConditionTexts& texts) {
  std::string expression;
  const auto append = [&expression](const std::string& condition) {
    if (!expression.empty()) expression += " and ";
    expression += condition;
  };
  for (const ConditionOption& option : kConditionOptions) {
    const std::string& value = texts.*option.target;
    // The condition's name is the option's without its dashes.
    if (!value.empty()) append(std::string(option.name + 2) + "=" + value);
  }
  if (!texts.where.empty()) append(texts.where);
  return expression;
}

std::string ReadConditions(const ConditionTexts& texts, std::optional<EmailConditions>& conditions) {
  const std::string expression = ConditionExpression(texts);
  if (expression.empty()) return {};
  Parsed<EmailConditions> parsed = ParseConditions(Utf8ToWideText(expression));
  if (!parsed) return "bad condition: " + WideToUtf8(parsed.error) + "\n" + kConditionSyntax;
  conditions = std::move(*parsed.value);
  return {};
}

}  // namespace pelka
