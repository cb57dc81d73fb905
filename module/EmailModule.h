// CPelkaEmailModule: the e-mail analysis module object.
//
// The host drives it through its interfaces: the main table's lifecycle
// operations initialise it, let it register its icon and email log, and store
// its one option, max_flow_length; the diagnosis and statistics clients define
// its events and counters; the flow client carries every packet of every
// SMTP, POP3 and IMAP4 flow. The object is reference counted: the factory
// makes it with a count of 1 and the last Release destroys it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "flow/EmailFlowContext.h"
#include "flow/MessageBufferPool.h"
#include "flow/MultiPatternSearcher.h"
#include "host/FlowInterfaces.h"
#include "host/ModuleFramework.h"
#include "output/ConnectionCounter.h"

namespace pelka {

class IPelkaDiagnosisEvent;
class IPelkaDiagnosisService;
class IPelkaIconService;
class IPelkaLog;
class IPelkaLogService;
class IPelkaStatCategory;
class IPelkaStatRegistrar;
class IPelkaStatService;

// Which mail protocol a packet or check belongs to.
enum class MailProtocol { kSmtp, kPop3, kImap4 };

// Number of keyed columns of the email log.
constexpr int kEmailLogKeyedColumns = 20;
constexpr uint16_t kNoColumn = 0xFFFF;

// Default largest collected message per flow: 2 MiB.
constexpr uint32_t kDefaultMaxFlowLength = 0x200000;

// The framework stack the module stands on, the graph client at its top.
using CPelkaEmailModuleBase = CPelkaGraphClientImplT<CPelkaDiagnosisClientImplT<
    CPelkaStatClientImplT<CPelkaFlowClientImplT<CPelkaModuleNotifyImplT<CPelkaPluginModuleImplT<CPAEBaseModuleImpl>>>>>>;

class CPelkaEmailModule : public CPelkaEmailModuleBase {
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
  void ResetNumbering() override { email_number_.store(0); }
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
  // Posts one email log record for a finished message (and its summary entry).
  void PostEmailRecord(IPelkaFlow* flow, CEmailFlowContext& context, IPelkaFlowNode* node);
  // Writes the ".eml" copy of a finished message when the host asks for copies.
  void SaveEmailCopy(CEmailFlowContext* context, const PacketRecord* packet);
  // Local time "%Y-%m-%d %H.%M.%S" of whole seconds, held in the text holder.
  const wchar_t* MakeCopyTimeText(uint64_t seconds);
  // Creates the email log, its columns and identifiers, and registers its two
  // storage kinds ("log_email" with the export lines, "email_copy").
  void DefineEmailLog();

  // --- Diagnosis -------------------------------------------------------------
  void DefineDiagnosisEvents() override;
  // Gives every defined event back to the host (at Uninitialize).
  void ReleaseDiagnosisEvents();
  void CheckSlowResponse(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                         const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol);
  void CheckDubiousConversation(CEmailFlowContext& context, const PacketRecord* packet, uint32_t direction,
                                const uint8_t* payload, uint32_t length, IPelkaFlowNode* node, MailProtocol protocol);
  void CheckSmtpServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node);
  void CheckPop3ServerError(const uint8_t* payload, uint32_t length, const PacketRecord* packet, IPelkaFlowNode* node);

  // --- Connection statistics -------------------------------------------------
  void DefineConnectionStatistics();
  ConnectionCounter* AddConnectionCounter(IPelkaStatCategory* category, const char* name, const wchar_t* caption,
                                          uint64_t scope);
  void ClearConnectionCounters();
  // Counts one bound flow of the protocol on the flow's statistics object.
  void CountConnection(MailProtocol protocol, IPelkaFlowStats* stats);
  // The statistics client's operations. Each acts only when `service` is the
  // statistics service the module registered with.
  void DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) override;
  void AssignStatisticIndexes(IPelkaStatService* service) override;
  void DetachStatistics(IPelkaStatService* service) override;

  // --- Settings and shared read-only state -----------------------------------
  uint32_t max_flow_length() const { return max_flow_length_.load(std::memory_order_relaxed); }
  void set_max_flow_length(uint32_t bytes) { max_flow_length_.store(bytes, std::memory_order_relaxed); }
  const CMultiPatternSearcher& end_marker_searcher() const { return end_marker_searcher_; }
  uint64_t last_email_number() const { return email_number_.load(); }
  // Grown message buffers of ended flows, for the flows that start later.
  MessageBufferPool& message_buffers() { return message_buffers_; }

  // Host services; null when the host does not offer them.
  IPelkaLogService* log_service() const { return log_service_; }
  IPelkaLog* email_log() const { return email_log_; }
  void set_log_service(IPelkaLogService* service) { log_service_ = service; }
  void set_diagnosis_service(IPelkaDiagnosisService* service) { diagnosis_service_ = service; }
  void set_stat_service(IPelkaStatService* service) { stat_service_ = service; }

 protected:
  // Host services and objects, obtained in Initialize.
  IPelkaDiagnosisService* diagnosis_service_ = nullptr;
  IPelkaIconService* icon_service_ = nullptr;
  IPelkaNotify* notify_ = nullptr;

  // Diagnosis events and their threshold parameters.
  IPelkaDiagnosisEvent* smtp_slow_event_ = nullptr;
  uint32_t smtp_time_parameter_ = 0;
  IPelkaDiagnosisEvent* smtp_dubious_event_ = nullptr;
  IPelkaDiagnosisEvent* smtp_error_event_ = nullptr;
  IPelkaDiagnosisEvent* pop3_slow_event_ = nullptr;
  uint32_t pop3_time_parameter_ = 0;
  IPelkaDiagnosisEvent* pop3_dubious_event_ = nullptr;
  IPelkaDiagnosisEvent* pop3_error_event_ = nullptr;

  // Connection statistics (the service pointer is the statistics client's).
  IPelkaStatRegistrar* stat_registrar_ = nullptr;
  std::vector<std::unique_ptr<ConnectionCounter>> connection_counters_;
  ConnectionCounter* smtp_counter_ = nullptr;
  ConnectionCounter* pop3_counter_ = nullptr;
  ConnectionCounter* imap4_counter_ = nullptr;

  // The email log.
  IPelkaLogService* log_service_ = nullptr;
  IPelkaLog* email_log_ = nullptr;
  int32_t icon_index_ = -1;
  uint16_t column_ids_[kEmailLogKeyedColumns];

  // Sequence number of the last email record. Atomic so that flows analysed on
  // several threads still number their records uniquely.
  std::atomic<uint64_t> email_number_{0};
  std::atomic<uint32_t> max_flow_length_{kDefaultMaxFlowLength};
  std::wstring text_holder_;
  CMultiPatternSearcher end_marker_searcher_;
  MessageBufferPool message_buffers_;
};

}  // namespace pelka
