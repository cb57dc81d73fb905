// The module's one option, max_flow_length, kept by the host as the document
// <options max_flow_length="N"/> counted in MiB.
#include <cwctype>
#include <string>

#include "host/XmlParser.h"
#include "module/EmailModule.h"

namespace pelka {
namespace {

constexpr uint64_t kBytesPerMebibyte = 1048576;

// A decimal number after optional blanks and sign; reading stops at the first
// other character, and no digits at all count as 0.
int64_t ReadLenientNumber(const std::wstring& text) {
  size_t i = 0;
  while (i < text.size() && std::iswspace(static_cast<wint_t>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == L'+' || text[i] == L'-')) negative = text[i++] == L'-';
  int64_t value = 0;
  for (; i < text.size() && text[i] >= L'0' && text[i] <= L'9'; ++i) {
    value = value * 10 + (text[i] - L'0');
    if (value > INT32_MAX) break;  // far past any count that fits in bytes
  }
  return negative ? -value : value;
}

// Megabytes to the 32-bit byte count. Counts of 4096 MiB or more do not fit:
// they become the largest count; negative counts become 0.
uint32_t MebibytesToBytes(int64_t mebibytes) {
  if (mebibytes <= 0) return 0;
  const uint64_t bytes = static_cast<uint64_t>(mebibytes) * kBytesPerMebibyte;
  return bytes > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(bytes);
}

}  // namespace

uint32_t CPelkaEmailModule::SaveOptions(std::wstring* options) {
  CTQXmlParser document;
  document.SetDoc(nullptr);
  document.AddElem(L"options");
  document.AddAttrib(L"max_flow_length", uint64_t{max_flow_length() / kBytesPerMebibyte});
  if (options) *options = document.GetDoc();
  return 1;
}

uint32_t CPelkaEmailModule::LoadOptions(const wchar_t* options) {
  if (!options || !*options) return 0;
  CTQXmlParser document;
  if (!document.SetDoc(options)) return 0;
  if (!document.FindElem(L"options")) return 0;
  set_max_flow_length(MebibytesToBytes(ReadLenientNumber(document.GetAttrib(L"max_flow_length"))));
  return 1;
}

}  // namespace pelka
