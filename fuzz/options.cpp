// Loads random option documents into the module. A refused document leaves
// the flow limit alone; an accepted one is saved again, and the saved text
// must load back to the same limit rounded down to whole MiB.
//
// Input: one byte (bit 0: two bytes per character, else one), then the text.
#include <cstdint>
#include <string>

#include "fuzz/FuzzCommon.h"
#include "module/EmailModule.h"

namespace {

using pelka::fuzz::Fail;
constexpr uint32_t kMebibyte = 1048576;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::wstring text = pelka::fuzz::WideText(data + 1, size - 1, data[0] & 1);

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
