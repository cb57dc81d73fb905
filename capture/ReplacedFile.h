// A small file that readers must only ever see whole (statistics.json while
// a live run goes on): its new text is written to a temporary file in the
// same folder and renamed over the old one, which readers see either before
// or after, never half written.
#pragma once

#include <string>
#include <string_view>

namespace pelka {

// Replaces `directory`/`name` with `text`. `directory` ends with '/'. False
// with *error set when the file cannot be written; the old one then stays.
bool ReplaceFile(const std::string& directory, const std::string& name, std::string_view text, std::string* error);

}  // namespace pelka
