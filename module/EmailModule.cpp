#include "module/EmailModule.h"

#include "module/ResStringTable.h"
#include "output/EmailCopy.h"

namespace pelka {

CPelkaEmailModule::CPelkaEmailModule()
    : records_(CResStringTable::Instance()),
      statistics_(CResStringTable::Instance()),
      diagnosis_(CResStringTable::Instance()) {}

CPelkaEmailModule::~CPelkaEmailModule() { ClearConnectionCounters(); }

const wchar_t* CPelkaEmailModule::MakeCopyTimeText(uint64_t seconds) {
  text_holder_ = FormatCopyTimeText(seconds);
  return text_holder_.c_str();
}

void CPelkaEmailModule::DefineDiagnosisEvents() {
  if (!notify_) return;
  diagnosis_.DefineEvents(diagnosis_service_, text_holder_);
}

void CPelkaEmailModule::DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) {
  if (!service || service != stat_service_) return;
  statistics_.set_registrar(registrar);
  DefineConnectionStatistics();
  statistics_.set_registrar(nullptr);
}

void CPelkaEmailModule::AssignStatisticIndexes(IPelkaStatService* service) {
  if (!service || service != stat_service_) return;
  statistics_.AssignIndexes();
}

void CPelkaEmailModule::DetachStatistics(IPelkaStatService* service) {
  if (!service || service != stat_service_) return;
  statistics_.Detach();
}

}  // namespace pelka
