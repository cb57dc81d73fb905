// Registration of the module's class with the host's object registry.
#pragma once

#include <cstdint>

#include "host/InterfaceMap.h"

namespace pelka {

// Framework versions this module supports.
inline constexpr uint32_t kFrameworkVersion = 1024;
inline constexpr uint32_t kFrameworkSubversion = 768;

// The factory: creates one module object with a reference count of 1 and
// stores its main table in *out. kStatusMissingOutParameter without `out`,
// kStatusNotCreated when no object could be made.
uint32_t CreateEmailModule(void** out);

// What the library's exported RegisterDomObjects does: for versions 1024 and
// 768, registers "CPelkaEmailModule" with its factory, interface map chain and
// class information and returns 0; any other versions return 1 and register
// nothing.
uint32_t RegisterEmailModule(uint32_t version, uint32_t subversion, IPelkaDomRegistrar* registrar);

}  // namespace pelka
