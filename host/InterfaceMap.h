// Interface maps: the records through which the host's object-model library
// finds an interface of an object by its identifier.
//
// Each class level keeps one map record: a pointer to the record of the level
// below it, a reserved 0, and its entry list. An entry names an interface
// identifier, the byte offset of that interface's table within the object, and
// the interface's name; a list ends with {null, kEndOfEntries, null}. A lookup
// started at a level sees that level's interfaces and all below it.
#pragma once

#include <cstdint>

#include "host/Types.h"

namespace pelka {

inline constexpr uintptr_t kEndOfEntries = ~uintptr_t{0};

struct InterfaceMapEntry {
  const Guid* interface_id;
  uintptr_t offset;
  const wchar_t* name;
};

struct InterfaceMapRecord {
  const InterfaceMapRecord* base;
  uintptr_t reserved;
  const InterfaceMapEntry* entries;
};

// Registration data for the host: a reserved null, then (identifier, name)
// pairs of the host services the class uses, ended by a pair of nulls.
struct ClassInfoPair {
  const Guid* interface_id;
  const wchar_t* name;
};
struct ClassInfoRecord {
  const void* reserved;
  const ClassInfoPair* services;
};

// Walks the record's entries, then each base record's, and answers with the
// object's address plus the offset of the first entry whose identifier is
// equal. No reference is added. Status: 0 found; kStatusNoInterface (and a
// null *out) when no level has it; kStatusMissingOutParameter without `out`.
uint32_t DomInternalQueryInterface(const InterfaceMapRecord* record, const Guid& interface_id, void* object,
                                   void** out);

// Byte offset of the Interface subobject within a Class object. Every level
// of a module's class stack keeps its base at offset 0, so the offset holds
// for the whole object.
template <typename Class, typename Interface>
uintptr_t InterfaceOffset() {
  // Only the address arithmetic of the up-cast is used; no object is touched.
  alignas(Class) static const unsigned char probe[1] = {};
  const auto* object = reinterpret_cast<const Class*>(probe);
  return reinterpret_cast<uintptr_t>(static_cast<const Interface*>(object)) - reinterpret_cast<uintptr_t>(object);
}

// The registrar the host hands to RegisterDomObjects.
using CreateObjectFunction = uint32_t (*)(void** out);
class IPelkaDomRegistrar {
 public:
  virtual uint32_t RegisterClass(const char* class_name, CreateObjectFunction factory, const InterfaceMapRecord* map,
                                 const ClassInfoRecord* class_info, uint32_t reserved) = 0;

 protected:
  ~IPelkaDomRegistrar() = default;
};

}  // namespace pelka
