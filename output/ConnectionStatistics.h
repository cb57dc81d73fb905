// CConnectionStatistics: the module's connection counters.
//
// When the host hands over its registrar, the category "Email" is defined
// with the items "SMTP", "POP3" and "IMAP4", each counting "Count", all with
// the scope "global, group, ipv4_addr". Every bound flow then adds 1 to its
// protocol's counter on the flow's statistics object. A counter the host
// refused, or one it never numbered (index -1), is handled by the host.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/TextSource.h"
#include "mail/MessageFields.h"
#include "output/ConnectionCounter.h"

namespace pelka {

class IPelkaFlowStats;
class IPelkaStatCategory;
class IPelkaStatRegistrar;
class IPelkaStatService;

class CConnectionStatistics {
 public:
  explicit CConnectionStatistics(ITextSource& texts) : texts_(texts) {}
  CConnectionStatistics(const CConnectionStatistics&) = delete;
  CConnectionStatistics& operator=(const CConnectionStatistics&) = delete;

  // The registrar is valid only while the host's call that hands it over
  // runs: held for DefineConnectionStatistics, then set back to null.
  void set_registrar(IPelkaStatRegistrar* registrar) { registrar_ = registrar; }

  // Defines the category, its three items and their counters with the held
  // registrar; the captions pass through `holder`.
  void DefineConnectionStatistics(IPelkaStatService* service, std::wstring& holder);
  // One item with its "Count" counter in the category: the holder, or null
  // when the category or the item is missing.
  ConnectionCounter* AddConnectionCounter(IPelkaStatService* service, IPelkaStatCategory* category,
                                          const char* name, const wchar_t* caption, uint64_t scope);
  // Forgets the three protocol counters; the holders stay.
  void ClearConnectionCounters();
  // Counts one bound flow of the protocol on the flow's statistics object.
  void CountConnection(MailProtocol protocol, IPelkaFlowStats* stats);
  // Takes the index the host gave each counter.
  void AssignIndexes();
  // Forgets the counters and releases every holder.
  void Detach();

 private:
  ITextSource& texts_;
  IPelkaStatRegistrar* registrar_ = nullptr;
  std::vector<std::unique_ptr<ConnectionCounter>> counters_;
  ConnectionCounter* smtp_counter_ = nullptr;
  ConnectionCounter* pop3_counter_ = nullptr;
  ConnectionCounter* imap4_counter_ = nullptr;
};

}  // namespace pelka
