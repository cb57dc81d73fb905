// The host's diagnosis interfaces, as the module uses them.
//
// The host owns diagnosis events: a module defines each of its events once
// through the diagnosis service, keeps the handle it is given, and through the
// handle asks whether the user has the event switched on, reads the event's
// adjustable parameters and raises occurrences against a flow.
#pragma once

#include <cstdint>

#include "host/FlowInterfaces.h"
#include "host/PacketRecord.h"
#include "host/Types.h"

namespace pelka {

// Service identifier passed to the host's GetService.
inline constexpr Guid kDiagnosisServiceId = {
    0x48C5FC53, 0x45A1, 0x49FB, {0xAC, 0xC7, 0x6B, 0x69, 0x86, 0x22, 0xEF, 0xFB}};

// One event defined by the module. Operations in slot order.
class IPelkaDiagnosisEvent {
 public:
  // Gives up the module's reference to the event; the new count.
  virtual int32_t Release() = 0;
  // Non-zero while the user has the event switched on.
  virtual uint32_t IsEnabled() = 0;
  // Adds an integer parameter the user can adjust; returns its identifier.
  virtual uint32_t AddParameter(const char* key, const wchar_t* caption, int32_t default_value, int32_t lowest,
                                int32_t highest) = 0;
  // Non-zero on success, with the parameter's current value in *value.
  virtual uint32_t GetParameterValue(uint32_t parameter, int32_t* value) = 0;
  // Raises one occurrence against the flow node. The host copies the text.
  // The two codes are the host's; `related_packet` is 0 when there is none.
  virtual uint32_t Report(IPelkaFlowNode* target, const wchar_t* text, uint32_t code1, uint32_t code2,
                          const PacketRecord* packet, uint64_t related_packet) = 0;

 protected:
  ~IPelkaDiagnosisEvent() = default;
};

// The host's diagnosis service.
class IPelkaDiagnosisService {
 public:
  // Defines one event under an 8-bit key with its title (copied by the host)
  // and three codes whose meaning is the host's. 0 on success, with the handle
  // in *event, which the caller releases; anything else is a failure.
  // `flags` is always 1.
  virtual uint32_t DefineEvent(const char* key, const wchar_t* title, uint32_t code1, uint32_t code2,
                               uint32_t code3, IPelkaDiagnosisEvent** event, uint32_t flags) = 0;

 protected:
  ~IPelkaDiagnosisService() = default;
};

}  // namespace pelka
