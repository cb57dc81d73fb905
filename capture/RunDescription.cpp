#include "capture/RunDescription.h"

#include <string>

namespace pelka {
namespace {

const char* YesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace

RunDescription DescribeRun(const ProgramOptions& options) {
  RunDescription run;
  for (const std::string& argument : options.arguments)
    run.command_line += (run.command_line.empty() ? "" : " ") + argument;
  if (!options.interface_name.empty()) run.captures = "interface " + options.interface_name;
  for (const std::string& input : options.inputs) run.captures += (run.captures.empty() ? "" : "\n") + input;
  const char* language = options.language == TextLanguage::kNone ? "none" : LanguageFolder(options.language);
  run.options = "threads=" + std::to_string(options.threads) + " copies=" + YesNo(options.copies) +
                " max_flow_length_mib=" + std::to_string(options.max_flow_length_mib) + " lang=" + language +
                " codepage=" + std::to_string(options.code_page) + " diagnosis=" + YesNo(options.diagnosis) +
                " smtp_threshold_ms=" + std::to_string(options.smtp_threshold_ms) +
                " pop3_threshold_ms=" + std::to_string(options.pop3_threshold_ms) +
                " idle_timeout_s=" + std::to_string(options.idle_timeout_seconds) +
                " hold_limit_mib=" + std::to_string(options.hold_limit_mib) +
                " count=" + std::to_string(options.max_packets) + " duration_s=" + std::to_string(options.max_seconds) +
                " conditions=" + YesNo(options.conditions.has_value());
  if (options.rotate_seconds) run.options += " rotate_s=" + std::to_string(options.rotate_seconds);
  if (options.attachments) run.options += std::string(" attachments=yes ioc_hashes=") + YesNo(options.ioc_hashes != nullptr);
  return run;
}

}  // namespace pelka
