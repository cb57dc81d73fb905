#include "host/InterfaceMap.h"

namespace pelka {

uint32_t DomInternalQueryInterface(const InterfaceMapRecord* record, const Guid& interface_id, void* object,
                                   void** out) {
  if (!out) return kStatusMissingOutParameter;
  *out = nullptr;
  for (; record; record = record->base) {
    for (const InterfaceMapEntry* entry = record->entries; entry && entry->offset != kEndOfEntries; ++entry) {
      if (entry->interface_id && *entry->interface_id == interface_id) {
        *out = static_cast<char*>(object) + entry->offset;
        return kStatusOk;
      }
    }
  }
  return kStatusNoInterface;
}

}  // namespace pelka
