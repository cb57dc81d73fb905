// Connection statistics: the category "Email" with one item per mail protocol,
// each with a "Count" counter, and one count per bound flow.
#include <memory>

#include "output/ConnectionStatistics.h"

#include "host/FlowInterfaces.h"
#include "host/StatInterfaces.h"

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

void CConnectionStatistics::DefineConnectionStatistics(IPelkaStatService* service, std::wstring& holder) {
  const uint64_t scope = service ? service->ParseScopes(kScopes) : 0;
  const wchar_t* caption = texts_.GetString(holder, L"IDS_EMAIL_APP_ANA", L"Email Analysis");
  if (!registrar_) return;
  IPelkaStatCategory* category = registrar_->AddCategory("Email", caption, scope, kOwnerName);
  if (!category) return;

  auto add = [&](const ItemDefinition& item) {
    const wchar_t* item_caption = texts_.GetString(holder, item.caption_id, item.default_caption);
    return AddConnectionCounter(service, category, item.name, item_caption, scope);
  };
  smtp_counter_ = add(kSmtpItem);
  pop3_counter_ = add(kPop3Item);
  imap4_counter_ = add(kImap4Item);
}

ConnectionCounter* CConnectionStatistics::AddConnectionCounter(IPelkaStatService* service,
                                                               IPelkaStatCategory* category, const char* name,
                                                               const wchar_t* caption, uint64_t scope) {
  if (!category) return nullptr;
  auto holder = std::make_unique<ConnectionCounter>();
  holder->service = service;
  holder->item = category->AddItem(name, caption, scope, kOwnerName);
  if (!holder->item) return nullptr;
  holder->counter = holder->item->AddCounter("Count", 1, 4, scope, kOwnerName);
  counters_.push_back(std::move(holder));
  return counters_.back().get();
}

void CConnectionStatistics::ClearConnectionCounters() {
  smtp_counter_ = nullptr;
  pop3_counter_ = nullptr;
  imap4_counter_ = nullptr;
}

void CConnectionStatistics::CountConnection(MailProtocol protocol, IPelkaFlowStats* stats) {
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

void CConnectionStatistics::AssignIndexes() {
  for (const auto& holder : counters_) {
    if (holder->counter) holder->index = holder->counter->GetIndex();
  }
}

void CConnectionStatistics::Detach() {
  ClearConnectionCounters();
  counters_.clear();
}

}  // namespace pelka
