// Basic integer types, status codes and interface identifiers shared by the
// module and its host.
#pragma once

#include <cstdint>
#include <cstring>

namespace pelka {

// Status codes of the host framework. 0 is success.
enum : uint32_t {
  kStatusOk = 0,
  kStatusNotImplemented = 0x80920001u,
  kStatusNoInterface = 0x80920004u,
  kStatusMissingOutParameter = 0x80920005u,
  kStatusNotCreated = 0x8092FFFFu,
};

// A 16-byte interface or class identifier in registry notation
// {XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}.
struct Guid {
  uint32_t data1;
  uint16_t data2;
  uint16_t data3;
  uint8_t data4[8];

  friend bool operator==(const Guid& a, const Guid& b) {
    return std::memcmp(&a, &b, sizeof(Guid)) == 0;
  }
};

// Host protocol identifiers.
enum : uint16_t {
  kProtocolTcp = 600,
  kProtocolImap4 = 614,
  kProtocolPop3 = 626,
  kProtocolSmtp = 630,
};

// Service ports of the three mail protocols.
enum : uint16_t {
  kSmtpPort = 25,
  kPop3Port = 110,
  kImapPort = 143,
};

// Directions of a packet within a flow.
enum : uint32_t {
  kFromClient = 1,
  kFromServer = 2,
};

}  // namespace pelka
