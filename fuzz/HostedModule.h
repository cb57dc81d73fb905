// The module as the host leaves it after start-up, for the fuzz targets that
// drive whole flows: its email log, diagnosis events (all switched on) and
// connection statistics live on in-memory services, so that records, reports
// and counts are made on the way.
#pragma once

#include "diagnosis/DiagnosisBench.h"
#include "support/InMemoryDiagnosis.h"
#include "support/InMemoryLog.h"
#include "support/InMemoryStats.h"

namespace pelka::fuzz {

class HostedModule {
 public:
  HostedModule() {
    module.set_log_service(&services_.log);
    module.DefineEmailLog();
    module.Attach(&services_.diagnosis);
    module.DefineDiagnosisEvents();
    module.set_stat_service(&services_.stats);
    module.DefineStatistics(&services_.stats, &services_.stats);
    module.AssignStatisticIndexes(&services_.stats);
  }

  // Drops what earlier inputs left behind, so that memory stays flat from
  // input to input.
  void ForgetOutputs() {
    if (testing::InMemoryLog* log = services_.log.log()) {
      log->records.clear();
      log->entries.clear();
    }
    services_.diagnosis.reports.clear();
  }

 private:
  // The services outlive the module that uses them.
  struct Services {
    testing::InMemoryLogService log;
    testing::InMemoryDiagnosisService diagnosis;
    testing::InMemoryStats stats;
  } services_;

 public:
  testing::DiagnosedModule module;
};

}  // namespace pelka::fuzz
