// CPelkaEmailModule: the e-mail analysis module object.
//
// The host drives it through its interfaces: the main table's lifecycle
// operations initialise it, let it register its icon and email log, and store
// its one option, max_flow_length; the diagnosis and statistics clients define
// its events and counters; the flow client carries every packet of every
// SMTP, POP3 and IMAP4 flow. The object is reference counted: the factory
// makes it with a count of 1 and the last Release destroys it.
//
// The module is the hub that joins the subsystems; each keeps its own state:
// the protocol sessions' shared state is the CEmailSessionHost it derives
// from, the email log and the copies are `records_`, the connection counters
// `statistics_` and the diagnosis events `diagnosis_`. The operations below
// that belong to those subsystems pass straight through to them.
#pragma once

#include <cstdint>
#include <string>

#include "diagnosis/DiagnosisChecks.h"
#include "flow/EmailFlowContext.h"
#include "flow/EmailSessionHost.h"
#include "host/FlowInterfaces.h"
#include "host/ModuleFramework.h"
#include "mail/MessageFields.h"
#include "output/ConnectionStatistics.h"
#include "output/EmailRecordWriter.h"

namespace pelka {

class IPelkaDiagnosisService;
class IPelkaIconService;
class IPelkaLog;
class IPelkaLogService;
class IPelkaStatCategory;
class IPelkaStatRegistrar;
class IPelkaStatService;

// The framework stack the module stands on, the graph client at its top.
using CPelkaEmailModuleBase = CPelkaGraphClientImplT<CPelkaDiagnosisClientImplT<
    CPelkaStatClientImplT<CPelkaFlowClientImplT<CPelkaModuleNotifyImplT<CPelkaPluginModuleImplT<CPAEBaseModuleImpl>>>>>>;

class CPelkaEmailModule : public CPelkaEmailModuleBase, public CEmailSessionHost {
 public:
  CPelkaEmailModule();
  ~CPelkaEmailModule() override;
  CPelkaEmailModule(const CPelkaEmailModule&) = delete;
  CPelkaEmailModule& operator=(const CPelkaEmailModule&) = delete;

  // --- Identity --------------------------------------------------------------
  const char* GetClassName() override { return "CPelkaEmailModule"; }
  const wchar_t* GetClassId() override { return L"{0F212197-DB95-43e9-BCB8-06C68B8A5EE6}"; }
  const wchar_t* GetName() override { return L"Email"; }
  // The translated description, held in the text holder until its next use.
  const wchar_t* GetDescription() override;

  // --- Lifecycle and options -------------------------------------------------
  // Takes the host services and the notification object, loads the string
  // table once per process and registers the statistics client.
  void Initialize() override;
  // Registers the icon and defines the email log; returns 1.
  uint32_t RegisterOutputs() override;
  // Releases the diagnosis events and withdraws the statistics client.
  void Uninitialize() override;
  // The next email record is number 1 again.
  void ResetNumbering() override { records_.ResetNumbering(); }
  // <options max_flow_length="N"/> with N in MiB, rounded down; returns 1.
  uint32_t SaveOptions(std::wstring* options) override;
  // Reads the options document; 1 when it held the "options" element, else 0
  // (and max_flow_length stays).
  uint32_t LoadOptions(const wchar_t* options) override;

  // --- Flow client: binding and packet dispatch -----------------------------
  uint32_t BindFlow(IPelkaFlow* flow, IPelkaFlowStats* stats, IPelkaFlowBindContext** context) override;
  uint32_t UnbindFlow(IPelkaFlow* flow, IPelkaFlowStats* stats, IPelkaFlowNode* node,
                      IPelkaFlowBindContext* context) override;
  uint32_t ProcessFlowData(IPelkaFlow* flow, const PacketRecord* packet, const uint8_t* payload, uint32_t length,
                           uint32_t direction, IPelkaFlowNode* node, IPelkaFlowBindContext* context) override;

  // --- Records and copies ----------------------------------------------------
  void PostEmailRecord(IPelkaFlow* flow, CEmailFlowContext& context, IPelkaFlowNode* node) override {
    records_.PostEmailRecord(flow, context, node);
  }
  void SaveEmailCopy(CEmailFlowContext* context, const PacketRecord* packet) override {
    records_.SaveEmailCopy(context, packet);
  }
  // Local time "%Y-%m-%d %H.%M.%S" of whole seconds, held in the text holder.
  const wchar_t* MakeCopyTimeText(uint64_t seconds);
  void DefineEmailLog() { records_.DefineEmailLog(icon_index_); }
  IPelkaFlowClient* SessionFlowClient() override { return this; }

  // --- Diagnosis -------------------------------------------------------------
  // Defines the six events once the host's notification object is known.
  void DefineDiagnosisEvents() override;
  void ReleaseDiagnosisEvents() { diagnosis_.ReleaseEvents(); }
  void CheckSlowResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                         const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol) {
    diagnosis_.CheckSlowResponse(context, packet, direction, payload, length, node, protocol);
  }
  void CheckDubiousConversation(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                                const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol) {
    diagnosis_.CheckDubiousConversation(context, packet, direction, payload, length, node, protocol);
  }
  void CheckSmtpServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node) {
    diagnosis_.CheckSmtpServerError(payload, length, packet, node);
  }
  void CheckPop3ServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node) {
    diagnosis_.CheckPop3ServerError(payload, length, packet, node);
  }

  // --- Connection statistics -------------------------------------------------
  void DefineConnectionStatistics() { statistics_.DefineConnectionStatistics(stat_service_, text_holder_); }
  ConnectionCounter* AddConnectionCounter(IPelkaStatCategory* category, const char* name, const wchar_t* caption,
                                          uint64_t scope) {
    return statistics_.AddConnectionCounter(stat_service_, category, name, caption, scope);
  }
  void ClearConnectionCounters() { statistics_.ClearConnectionCounters(); }
  void CountConnection(MailProtocol protocol, IPelkaFlowStats* stats) { statistics_.CountConnection(protocol, stats); }
  // The statistics client's operations. Each acts only when `service` is the
  // statistics service the module registered with.
  void DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) override;
  void AssignStatisticIndexes(IPelkaStatService* service) override;
  void DetachStatistics(IPelkaStatService* service) override;

  // --- Settings and host services --------------------------------------------
  uint64_t last_email_number() const { return records_.last_email_number(); }
  // Host services; null when the host does not offer them.
  IPelkaLogService* log_service() const { return records_.log_service(); }
  IPelkaLog* email_log() const { return records_.email_log(); }
  void set_log_service(IPelkaLogService* service) { records_.set_log_service(service); }
  void set_diagnosis_service(IPelkaDiagnosisService* service) { diagnosis_service_ = service; }
  void set_stat_service(IPelkaStatService* service) { stat_service_ = service; }

 protected:
  // Host services and objects, obtained in Initialize.
  IPelkaDiagnosisService* diagnosis_service_ = nullptr;
  IPelkaIconService* icon_service_ = nullptr;
  IPelkaNotify* notify_ = nullptr;
  int32_t icon_index_ = -1;
  std::wstring text_holder_;

  CEmailRecordWriter records_;
  CConnectionStatistics statistics_;
  CDiagnosisChecks diagnosis_;
};

}  // namespace pelka
