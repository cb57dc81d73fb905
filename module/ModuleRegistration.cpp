#include "module/ModuleRegistration.h"

#include <new>

#include "host/ModuleInterfaces.h"
#include "host/StatInterfaces.h"
#include "module/EmailModule.h"

namespace pelka {
namespace {

// The host services the class uses, as the host's registry lists them.
const ClassInfoPair kUsedServices[] = {{&kStatServiceId, L"IPelkaStatService"}, {nullptr, nullptr}};
const ClassInfoRecord kClassInfo = {nullptr, kUsedServices};

}  // namespace

uint32_t CreateEmailModule(void** out) {
  if (!out) return kStatusMissingOutParameter;
  auto* module = new (std::nothrow) CPelkaEmailModule;  // owned by its reference count from here
  *out = module ? static_cast<CPAEBaseModule*>(module) : nullptr;
  return module ? kStatusOk : kStatusNotCreated;
}

uint32_t RegisterEmailModule(uint32_t version, uint32_t subversion, IPelkaDomRegistrar* registrar) {
  if (version != kFrameworkVersion || subversion != kFrameworkSubversion) return 1;
  if (registrar) {
    registrar->RegisterClass("CPelkaEmailModule", CreateEmailModule, CPelkaEmailModule::InterfaceMap(), &kClassInfo,
                             0);
  }
  return 0;
}

}  // namespace pelka
