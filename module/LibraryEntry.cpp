// The shared library's entry points: the one exported registration function,
// and the load-time hook that keeps the library's own handle (its path).
#include <dlfcn.h>

#include <cstdint>
#include <string>

#include "module/ModuleHandle.h"
#include "module/ModuleRegistration.h"

extern "C" __attribute__((visibility("default"))) uint32_t RegisterDomObjects(uint32_t version, uint32_t subversion,
                                                                              pelka::IPelkaDomRegistrar* registrar) {
  return pelka::RegisterEmailModule(version, subversion, registrar);
}

namespace {

std::string& LibraryPath() {
  static std::string path;
  return path;
}

__attribute__((constructor)) void KeepModuleHandle() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&RegisterDomObjects), &info) && info.dli_fname) LibraryPath() = info.dli_fname;
  pelka::SetModuleInstanceHandle(LibraryPath().data());
}

}  // namespace
