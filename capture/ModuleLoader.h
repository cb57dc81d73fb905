// Loads the e-mail module library and drives it through its registration and
// its interfaces only.
//
// The library (libPelkaEmail.so) is looked for, in order: the file named by
// $PELKA_MODULE (or that folder), the executable's folder, its parent (the
// build puts the program in build/capture/ and the library in build/), and
// ../lib/pelka/ beside the executable's folder (an installed layout). The
// library's RegisterDomObjects registers one class with the program's
// registrar; the object is created through the registered factory and every
// interface is found by its identifier through the registered interface map.
//
// Lifecycle: the host services start the module (SetHost, SetNotify,
// Initialize, RegisterOutputs, DefineDiagnosisEvents, the statistics client's
// definitions; capture/HostServices.h), then ApplyOptions hands it its
// options. At the end the host services uninitialise it, and the destructor
// gives up the object's reference (the last Release) and closes the library,
// in that order.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/FlowInterfaces.h"
#include "host/InterfaceMap.h"
#include "host/ModuleInterfaces.h"

namespace pelka {

inline constexpr const char* kModuleLibraryName = "libPelkaEmail.so";
// The module's string table, in resources/<language>/ beside the library.
inline constexpr const char* kModuleStringTable = "PelkaEmailRes.cst";

// The ANSI code page (936 by default) is the code page of message bytes that
// declare no character set: a process setting that only the module reads. The
// module takes it from the environment variable PELKA_ANSI_CODE_PAGE when its
// library is loaded, so set it before Load. The program's own texts are all
// UTF-8 and do not depend on it.
inline constexpr const char* kAnsiCodePageVariable = "PELKA_ANSI_CODE_PAGE";
void SetModuleAnsiCodePage(unsigned code_page);

// The places to look for the library, in order, for an executable in
// `executable_dir` and the value of $PELKA_MODULE (empty when unset).
std::vector<std::string> ModuleCandidates(const std::string& executable_dir, const std::string& env_value);

// The folder of the running executable ("" when unknown).
std::string ExecutableDirectory();

// The first candidate that exists as a file; "" when none does.
std::string FindModuleLibrary(const std::vector<std::string>& candidates);

class LoadedModule {
 public:
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  // Opens the library, registers its class and creates the object. Null with
  // *error set when the library, its RegisterDomObjects, the registration,
  // the object or one of its required interfaces is missing.
  static std::unique_ptr<LoadedModule> Load(const std::string& library_path, std::string* error);

  // Hands the module its options document <options max_flow_length="N"/>.
  // False with *error set when the module refuses it.
  bool ApplyOptions(uint32_t max_flow_length_mib, std::string* error);

  const std::string& library_path() const { return library_path_; }
  const std::string& class_name() const { return class_name_; }
  CPAEBaseModule* main_table() const { return object_.get(); }
  IPelkaFlowClient* flow_client() const { return flow_client_; }
  IPelkaPluginModule* plugin() const { return plugin_; }
  IPelkaStatClient* stat_client() const { return stat_client_; }
  IPelkaDiagnosisClient* diagnosis_client() const { return diagnosis_client_; }

 private:
  struct LibraryCloser {
    void operator()(void* handle) const;
  };
  struct ObjectReleaser {
    void operator()(CPAEBaseModule* object) const;
  };

  LoadedModule() = default;
  bool FindInterfaces(std::string* error);

  std::string library_path_;
  std::string class_name_;
  // Declared first so that it is closed last, after the object is gone.
  std::unique_ptr<void, LibraryCloser> library_;
  const InterfaceMapRecord* map_ = nullptr;
  std::unique_ptr<CPAEBaseModule, ObjectReleaser> object_;
  IPelkaPluginModule* plugin_ = nullptr;
  IPelkaFlowClient* flow_client_ = nullptr;
  IPelkaStatClient* stat_client_ = nullptr;
  IPelkaDiagnosisClient* diagnosis_client_ = nullptr;
};

}  // namespace pelka
