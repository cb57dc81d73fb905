// The host's statistics interfaces, as the module uses them.
//
// The host keeps statistics as categories of items, each item with counters.
// A module registers itself as a statistics client; the host then hands it a
// registrar for the time of one define call, assigns counter indexes after
// the definitions, and detaches the client when it drops the statistics.
// Counting itself goes through the per-flow IPelkaFlowStats (FlowInterfaces.h).
#pragma once

#include <cstdint>

#include "host/Types.h"

namespace pelka {

// Service identifier passed to the host's GetService.
inline constexpr Guid kStatServiceId = {
    0x9A315410, 0x8125, 0x44E9, {0x9D, 0xB9, 0xA1, 0x19, 0x23, 0xF8, 0x38, 0xCA}};

class IPelkaStatClient;

// A counter of an item. Its index is what the flow statistics count with.
class IPelkaStatCounter {
 public:
  virtual uint16_t GetIndex() = 0;

 protected:
  ~IPelkaStatCounter() = default;
};

class IPelkaStatItem {
 public:
  // `kind` and `width` are the host's numbers (the module passes 1 and 4).
  // Null when the host refuses the counter.
  virtual IPelkaStatCounter* AddCounter(const char* name, int32_t kind, int32_t width, uint64_t scope,
                                        const char* owner) = 0;

 protected:
  ~IPelkaStatItem() = default;
};

class IPelkaStatCategory {
 public:
  // Null when the host refuses the item. The caption is copied.
  virtual IPelkaStatItem* AddItem(const char* name, const wchar_t* caption, uint64_t scope, const char* owner) = 0;

 protected:
  ~IPelkaStatCategory() = default;
};

// Valid only during the host's define-statistics call.
class IPelkaStatRegistrar {
 public:
  // Null when the host refuses the category. The caption is copied.
  virtual IPelkaStatCategory* AddCategory(const char* name, const wchar_t* caption, uint64_t scope,
                                          const char* owner) = 0;

 protected:
  ~IPelkaStatRegistrar() = default;
};

// The host's statistics service. Operations in slot order.
class IPelkaStatService {
 public:
  // Registers a statistics client; the host then drives it.
  virtual uint32_t RegisterClient(IPelkaStatClient* client) = 0;
  // Withdraws a registered client.
  virtual uint32_t WithdrawClient(IPelkaStatClient* client) = 0;
  // Turns a comma-separated scope text ("global, group, ipv4_addr") into the
  // host's scope value.
  virtual uint64_t ParseScopes(const char* scopes) = 0;

 protected:
  ~IPelkaStatService() = default;
};

}  // namespace pelka
