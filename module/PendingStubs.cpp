// Operations whose subsystems are not built yet: each does nothing, as the
// module does when the host service behind it is missing.
#include "flow/SessionHandlers.h"
#include "module/EmailModule.h"

namespace pelka {

void CPelkaEmailModule::PostEmailRecord(IPelkaFlow*, CEmailFlowContext&, IPelkaFlowNode*) {}
void CPelkaEmailModule::SaveEmailCopy(CEmailFlowContext*, const PacketRecord*) {}
const wchar_t* CPelkaEmailModule::MakeCopyTimeText(uint64_t) { return text_holder_.c_str(); }
void CPelkaEmailModule::DefineEmailLog() {}

}  // namespace pelka
