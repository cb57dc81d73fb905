#include "capture/ModuleLoader.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

#include "host/ModuleInterfaces.h"

namespace pelka {
namespace {

// The framework version the program speaks.
constexpr uint32_t kHostFrameworkVersion = 1024;
constexpr uint32_t kHostFrameworkSubversion = 768;
constexpr const char* kRegisterSymbol = "RegisterDomObjects";

using RegisterDomObjectsFunction = uint32_t (*)(uint32_t, uint32_t, IPelkaDomRegistrar*);

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsRegularFile(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

std::string ParentOf(const std::string& directory) {
  const size_t slash = directory.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : directory.substr(0, slash);
}

std::string Join(const std::string& directory, const std::string& name) {
  if (directory.empty() || directory.back() == '/') return directory + name;
  return directory + "/" + name;
}

// Keeps what the library registers. The program hosts one module class; a
// library that registers several gives the first.
class Registrar final : public IPelkaDomRegistrar {
 public:
  uint32_t RegisterClass(const char* class_name, CreateObjectFunction factory, const InterfaceMapRecord* map,
                         const ClassInfoRecord*, uint32_t) override {
    if (factory_ || !factory) return 1;
    class_name_ = class_name ? class_name : "";
    factory_ = factory;
    map_ = map;
    return 0;
  }

  const std::string& class_name() const { return class_name_; }
  CreateObjectFunction factory() const { return factory_; }
  const InterfaceMapRecord* map() const { return map_; }

 private:
  std::string class_name_;
  CreateObjectFunction factory_ = nullptr;
  const InterfaceMapRecord* map_ = nullptr;
};

std::string OptionsDocument(uint32_t max_flow_length_mib) {
  return "<options max_flow_length=\"" + std::to_string(max_flow_length_mib) + "\"/>";
}

}  // namespace

void SetModuleAnsiCodePage(unsigned code_page) {
  ::setenv(kAnsiCodePageVariable, std::to_string(code_page).c_str(), 1);
}

std::vector<std::string> ModuleCandidates(const std::string& executable_dir, const std::string& env_value) {
  std::vector<std::string> candidates;
  if (!env_value.empty())
    candidates.push_back(IsDirectory(env_value) ? Join(env_value, kModuleLibraryName) : env_value);
  if (executable_dir.empty()) return candidates;
  candidates.push_back(Join(executable_dir, kModuleLibraryName));
  candidates.push_back(Join(ParentOf(executable_dir), kModuleLibraryName));
  candidates.push_back(Join(Join(ParentOf(executable_dir), "lib/pelka"), kModuleLibraryName));
  return candidates;
}

std::string ExecutableDirectory() {
  std::array<char, 4096> buffer{};
  const ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) return {};
  return ParentOf(std::string(buffer.data(), static_cast<size_t>(length)));
}

std::string FindModuleLibrary(const std::vector<std::string>& candidates) {
  for (const std::string& candidate : candidates) {
    if (IsRegularFile(candidate)) return candidate;
  }
  return {};
}

void LoadedModule::LibraryCloser::operator()(void* handle) const {
  if (handle) ::dlclose(handle);
}

void LoadedModule::ObjectReleaser::operator()(CPAEBaseModule* object) const {
  if (object) object->Release();
}

std::unique_ptr<LoadedModule> LoadedModule::Load(const std::string& library_path, std::string* error) {
  std::unique_ptr<LoadedModule> module(new LoadedModule);
  module->library_path_ = library_path;
  module->library_.reset(::dlopen(library_path.c_str(), RTLD_NOW | RTLD_LOCAL));
  if (!module->library_) {
    const char* reason = ::dlerror();
    *error = "cannot load the e-mail module " + library_path + ": " + (reason ? reason : "unknown reason");
    return nullptr;
  }
  auto* register_objects =
      reinterpret_cast<RegisterDomObjectsFunction>(::dlsym(module->library_.get(), kRegisterSymbol));
  if (!register_objects) {
    *error = library_path + " is not an e-mail module: it has no " + kRegisterSymbol;
    return nullptr;
  }

  Registrar registrar;
  if (register_objects(kHostFrameworkVersion, kHostFrameworkSubversion, &registrar) != 0 || !registrar.factory()) {
    *error = library_path + " registered no module class for framework version 1024.768";
    return nullptr;
  }
  module->class_name_ = registrar.class_name();
  module->map_ = registrar.map();

  void* object = nullptr;
  if (registrar.factory()(&object) != kStatusOk || !object) {
    *error = "the e-mail module could not create its " + module->class_name_ + " object";
    return nullptr;
  }
  // The factory hands out the main table, which owns one reference.
  module->object_.reset(static_cast<CPAEBaseModule*>(object));
  if (!module->FindInterfaces(error)) return nullptr;
  return module;
}

bool LoadedModule::FindInterfaces(std::string* error) {
  const auto find = [this](const Guid& id) -> void* {
    void* out = nullptr;
    if (!map_ || DomInternalQueryInterface(map_, id, object_.get(), &out) != kStatusOk) return nullptr;
    return out;
  };
  plugin_ = static_cast<IPelkaPluginModule*>(find(kPluginModuleId));
  flow_client_ = static_cast<IPelkaFlowClient*>(find(kFlowClientId));
  stat_client_ = static_cast<IPelkaStatClient*>(find(kStatClientId));
  diagnosis_client_ = static_cast<IPelkaDiagnosisClient*>(find(kDiagnosisClientId));
  // The main table is the object itself; the map must say so.
  if (find(kBaseModuleId) != object_.get()) {
    *error = "the e-mail module's interface map does not lead to its main table";
    return false;
  }
  if (!flow_client_) {
    *error = "the e-mail module offers no flow client";
    return false;
  }
  return true;
}

bool LoadedModule::ApplyOptions(uint32_t max_flow_length_mib, std::string* error) {
  const std::string document = OptionsDocument(max_flow_length_mib);
  const std::wstring options(document.begin(), document.end());  // ASCII
  if (object_->LoadOptions(options.c_str()) == 1) return true;
  *error = "the e-mail module refused its options " + document;
  return false;
}

LoadedModule::~LoadedModule() {
  object_.reset();
  library_.reset();
}

}  // namespace pelka
