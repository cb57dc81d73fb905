// The shared library's entry points: the one exported registration function,
// and the load-time hook that keeps the library's own handle (its path).
#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "host/CodePage.h"
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

// The library carries its own code-page layer, so the host's ANSI code page
// reaches it through the environment, set before the library is loaded.
void TakeAnsiCodePageFromHost() {
  const char* setting = std::getenv("PELKA_ANSI_CODE_PAGE");
  if (!setting || !*setting) return;
  char* end = nullptr;
  const unsigned long code_page = std::strtoul(setting, &end, 10);
  if (*end == '\0' && code_page <= UINT32_MAX) pelka::SetAnsiCodePage(static_cast<unsigned>(code_page));
}

__attribute__((constructor)) void OnLibraryLoad() {
  TakeAnsiCodePageFromHost();
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&RegisterDomObjects), &info) && info.dli_fname) LibraryPath() = info.dli_fname;
  pelka::SetModuleInstanceHandle(LibraryPath().data());
}

}  // namespace
