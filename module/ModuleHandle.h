// The library's own module handle, kept for the host's resource lookups.
//
// On this platform the handle is the path of the loaded library (found with
// dladdr when the library is loaded); the host derives the module's resource
// directory from it. Code linked statically (tests) sees null until set.
#pragma once

namespace pelka {

void* GetModuleInstanceHandle();
void SetModuleInstanceHandle(void* handle);

}  // namespace pelka
