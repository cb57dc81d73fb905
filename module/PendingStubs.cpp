// Operations whose subsystems are not built yet: each does nothing, as the
// module does when the host service behind it is missing.
#include "flow/SessionHandlers.h"
#include "module/EmailModule.h"

namespace pelka {

void CPelkaEmailModule::DefineDiagnosisEvents() {}
void CPelkaEmailModule::CheckSlowResponse(CEmailFlowContext&, const PacketRecord*, uint32_t, const uint8_t*, uint32_t,
                                          IPelkaFlowNode*, MailProtocol) {}
void CPelkaEmailModule::CheckDubiousConversation(CEmailFlowContext&, const PacketRecord*, uint32_t, const uint8_t*,
                                                 uint32_t, IPelkaFlowNode*, MailProtocol) {}
void CPelkaEmailModule::CheckSmtpServerError(const uint8_t*, uint32_t, const PacketRecord*, IPelkaFlowNode*) {}
void CPelkaEmailModule::CheckPop3ServerError(const uint8_t*, uint32_t, const PacketRecord*, IPelkaFlowNode*) {}

void CPelkaEmailModule::DefineConnectionStatistics() {}
ConnectionCounter* CPelkaEmailModule::AddConnectionCounter(IPelkaStatCategory*, const char*, const wchar_t*,
                                                           uint64_t) {
  return nullptr;
}
void CPelkaEmailModule::ClearConnectionCounters() {}
void CPelkaEmailModule::CountConnection(MailProtocol, IPelkaFlowStats*) {}

}  // namespace pelka
