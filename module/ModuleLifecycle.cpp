// The module's start and stop: host services, the string table, the icon and
// the email log, and the statistics client's registration.
#include <string>

#include "host/DiagnosisInterfaces.h"
#include "host/LogInterfaces.h"
#include "host/ModuleInterfaces.h"
#include "host/StatInterfaces.h"
#include "module/EmailModule.h"
#include "module/ModuleHandle.h"
#include "module/ResStringTable.h"

namespace pelka {
namespace {

template <typename Service>
Service* AskService(IPelkaHost* host, const Guid& service_id) {
  void* service = nullptr;
  if (!host || !host->GetService(service_id, &service, 0)) return nullptr;
  return static_cast<Service*>(service);
}

std::wstring ResourcePath(IPelkaNotify* notify) {
  std::wstring path;
  if (notify) notify->GetResourcePath(GetModuleInstanceHandle(), &path);
  return path;
}

}  // namespace

void CPelkaEmailModule::Initialize() {
  IPelkaHost* host = GetHost();
  icon_service_ = AskService<IPelkaIconService>(host, kIconServiceId);
  records_.set_log_service(AskService<IPelkaLogService>(host, kLogServiceId));
  notify_ = GetNotify();

  CResStringTable& table = CResStringTable::Instance();
  if (notify_ && !table.loaded_once()) {
    // Marked before trying, so a missing or bad file is not tried again.
    table.set_loaded_once();
    table.LoadFromFile((ResourcePath(notify_) + L"PelkaEmailRes.cst").c_str());
  }

  if (IPelkaStatService* stats = AskService<IPelkaStatService>(host, kStatServiceId)) {
    stats->RegisterClient(this);
    stat_service_ = stats;
  }
  diagnosis_service_ = AskService<IPelkaDiagnosisService>(host, kDiagnosisServiceId);
}

uint32_t CPelkaEmailModule::RegisterOutputs() {
  std::wstring path = ResourcePath(notify_);
  if (icon_service_) icon_index_ = icon_service_->AddIcon((path + L"email.ico").c_str());
  if (records_.log_service()) DefineEmailLog();
  return 1;
}

void CPelkaEmailModule::Uninitialize() {
  ReleaseDiagnosisEvents();
  records_.set_log_service(nullptr);
  icon_service_ = nullptr;
  if (IPelkaStatService* stats = AskService<IPelkaStatService>(GetHost(), kStatServiceId)) {
    stats->WithdrawClient(this);
    stat_service_ = nullptr;
  }
}

const wchar_t* CPelkaEmailModule::GetDescription() {
  return CResStringTable::Instance().GetString(text_holder_, L"IDS_EMAIL_MODULE", L"分析SMTP/POP3/IMAP4协议");
}

}  // namespace pelka
