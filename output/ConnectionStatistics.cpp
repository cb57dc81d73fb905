// Connection statistics: the category "Email" with one item per mail protocol,
// each with a "Count" counter, and one count per bound flow.
#include <memory>

#include "host/StatInterfaces.h"
#include "module/EmailModule.h"
#include "module/ResStringTable.h"
#include "output/ConnectionCounter.h"

namespace pelka {
namespace {

constexpr const char* kOwnerName = "CPelkaEmailModule";
constexpr const char* kScopes = "global, group, ipv4_addr";

struct ItemDefinition {
  const char* name;
  const wchar_t* caption_id;
  const wchar_t* default_caption;
};

constexpr ItemDefinition kSmtpItem = {"SMTP", L"IDS_SMTP_CONN", L"SMTP Connections"};
constexpr ItemDefinition kPop3Item = {"POP3", L"IDS_POP3_CONN", L"POP3 Connections"};
constexpr ItemDefinition kImap4Item = {"IMAP4", L"IDS_IMAP4_CONN", L"IMAP4 Connections"};

}  // namespace

void CPelkaEmailModule::DefineConnectionStatistics() {
  const uint64_t scope = stat_service_ ? stat_service_->ParseScopes(kScopes) : 0;
  const wchar_t* caption =
      CResStringTable::Instance().GetString(text_holder_, L"IDS_EMAIL_APP_ANA", L"Email Analysis");
  if (!stat_registrar_) return;
  IPelkaStatCategory* category = stat_registrar_->AddCategory("Email", caption, scope, kOwnerName);
  if (!category) return;

  auto add = [&](const ItemDefinition& item) {
    const wchar_t* item_caption =
        CResStringTable::Instance().GetString(text_holder_, item.caption_id, item.default_caption);
    return AddConnectionCounter(category, item.name, item_caption, scope);
  };
  smtp_counter_ = add(kSmtpItem);
  pop3_counter_ = add(kPop3Item);
  imap4_counter_ = add(kImap4Item);
}

ConnectionCounter* CPelkaEmailModule::AddConnectionCounter(IPelkaStatCategory* category, const char* name,
                                                           const wchar_t* caption, uint64_t scope) {
  if (!category) return nullptr;
  auto holder = std::make_unique<ConnectionCounter>();
  holder->service = stat_service_;
  holder->item = category->AddItem(name, caption, scope, kOwnerName);
  if (!holder->item) return nullptr;
  holder->counter = holder->item->AddCounter("Count", 1, 4, scope, kOwnerName);
  connection_counters_.push_back(std::move(holder));
  return connection_counters_.back().get();
}

void CPelkaEmailModule::ClearConnectionCounters() {
  smtp_counter_ = nullptr;
  pop3_counter_ = nullptr;
  imap4_counter_ = nullptr;
}

void CPelkaEmailModule::CountConnection(MailProtocol protocol, IPelkaFlowStats* stats) {
  ConnectionCounter* holder = nullptr;
  switch (protocol) {
    case MailProtocol::kSmtp:
      holder = smtp_counter_;
      break;
    case MailProtocol::kPop3:
      holder = pop3_counter_;
      break;
    case MailProtocol::kImap4:
      holder = imap4_counter_;
      break;
  }
  if (!holder || !stats) return;
  // Widened with its sign, so that an index never assigned counts as -1.
  const int32_t index = static_cast<int16_t>(holder->index);
  stats->UseCounter(index);
  stats->AddToCounter(index, 1, 1, 1);
}

void CPelkaEmailModule::DefineStatistics(IPelkaStatService* service, IPelkaStatRegistrar* registrar) {
  if (!service || service != stat_service_) return;
  // The registrar is valid only while the host's call runs.
  stat_registrar_ = registrar;
  DefineConnectionStatistics();
  stat_registrar_ = nullptr;
}

void CPelkaEmailModule::AssignStatisticIndexes(IPelkaStatService* service) {
  if (!service || service != stat_service_) return;
  for (const auto& holder : connection_counters_) {
    if (holder->counter) holder->index = holder->counter->GetIndex();
  }
}

void CPelkaEmailModule::DetachStatistics(IPelkaStatService* service) {
  if (!service || service != stat_service_) return;
  ClearConnectionCounters();
  connection_counters_.clear();
}

}  // namespace pelka
