// Formatting of values for display.
#pragma once

#include <cstdint>
#include <string>

namespace pelka {

class CTQDataFormat {
 public:
  // An IPv4 address held in host byte order (the first octet in the most
  // significant byte) as dotted decimal: 0xC0A80001 gives "192.168.0.1".
  std::wstring FormatIpAddress(uint32_t address) const;
};

}  // namespace pelka
