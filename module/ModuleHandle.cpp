#include "module/ModuleHandle.h"

#include <atomic>

namespace pelka {
namespace {

std::atomic<void*> module_instance_handle{nullptr};

}  // namespace

void* GetModuleInstanceHandle() { return module_instance_handle.load(); }
void SetModuleInstanceHandle(void* handle) { module_instance_handle.store(handle); }

}  // namespace pelka
