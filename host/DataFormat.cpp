#include "host/DataFormat.h"

namespace pelka {

std::wstring CTQDataFormat::FormatIpAddress(uint32_t address) const {
  std::wstring text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    if (shift != 24) text += L'.';
    text += std::to_wstring((address >> shift) & 0xFFu);
  }
  return text;
}

}  // namespace pelka
