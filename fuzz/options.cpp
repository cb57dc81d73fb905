// Loads random option documents into the module. A refused document leaves
// the flow limit alone; an accepted one is saved again, and the saved text
// must load back to the same limit rounded down to whole MiB.
//
// Input: one byte (bit 0: two bytes per character, else one), then the text.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "module/EmailModule.h"

namespace {

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "options: %s\n", what);
  std::abort();
}

constexpr uint32_t kMebibyte = 1048576;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::wstring text;
  if (data[0] & 1) {
    for (size_t i = 1; i + 1 < size; i += 2) text.push_back(static_cast<wchar_t>(data[i] | data[i + 1] << 8));
  } else {
    for (size_t i = 1; i < size; ++i) text.push_back(static_cast<wchar_t>(data[i]));
  }

  static pelka::CPelkaEmailModule module;
  const uint32_t before = 3 * kMebibyte + 17;
  module.set_max_flow_length(before);
  const uint32_t loaded = module.LoadOptions(text.c_str());
  if (loaded == 0 && module.max_flow_length() != before) Fail("a refused document changed the limit");
  if (loaded == 0) return 0;
  if (loaded != 1) Fail("LoadOptions answered neither 0 nor 1");

  const uint32_t limit = module.max_flow_length();
  std::wstring saved;
  module.SaveOptions(&saved);
  module.set_max_flow_length(before);
  if (module.LoadOptions(saved.c_str()) != 1) Fail("the saved document was refused");
  if (module.max_flow_length() != limit / kMebibyte * kMebibyte) Fail("the saved limit reads back differently");
  return 0;
}
