// Loads a random string-table file (the input, written to a temporary file)
// and answers requests from it: a hostile translation may say anything where
// the module's placeholders go.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "module/ResStringTable.h"
#include "support/TempFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const pelka::test::TempFile file(std::string_view(reinterpret_cast<const char*>(data), size), ".cst");
  pelka::CResStringTable table;
  const int loaded = table.LoadFromFile(file.wide_path().c_str());
  if (loaded != 0 && loaded != 1) std::abort();

  std::wstring holder;
  table.GetString(holder, L"IDS_A", L"plain");
  table.GetString(holder, L"IDS_B", L"(packet [%I64u_SNUM%] and [%I64u_DNUM%] are %d_SLOW%ms apart) %%",
                  uint64_t{12}, uint64_t{1} << 40, -300);
  table.GetString(holder, L"IDS_C", L"%s_HOST% sent %5.2f_SPEED% KB/s, flag %c_FLAG%, %x_CODE%", L"mx.example",
                  3.25, static_cast<int>(L'Y'), 0xBEEF);
  table.GetString(holder, L"IDS_EMAIL_LOG", L"Email Log");
  return 0;
}
