// The user's e-mail conditions, applied on the host side of the module.
//
// The module posts every message it finds to the host's email log. The
// filter stands between the module and the host's log service: a record the
// module opens is held back until the module posts it, then judged by its
// fields (attachments, size, sender address, receiver address). A message
// that meets every condition reaches the host's log as if nothing stood
// between; one that does not leaves nothing: its record is never opened in
// the host's log (so no emails.jsonl line and no export line), the summary
// entry the module adds right after it is dropped, and the ".eml" copy the
// module wrote for it beforehand is removed.
//
// The module sees the filter only through the host object it is given: the
// filter's main table forwards every operation to the module's own, except
// SetHost, which hands the module a host object whose log service is the
// filter's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/ModuleInterfaces.h"
#include "module/ConditionDialogs.h"

namespace pelka {

// The facts the conditions look at, from a record's field texts. Several
// receiver addresses in one field are separated by ";", "," or blanks.
EmailFacts FactsFromRecord(const std::wstring& attachments, uint64_t size_bytes, const std::wstring& sender,
                           const std::wstring& receivers);

class MessageFilter {
 public:
  // `module` stays the caller's and must outlive the filter's use.
  MessageFilter(EmailConditions conditions, CPAEBaseModule* module);
  ~MessageFilter();
  MessageFilter(const MessageFilter&) = delete;
  MessageFilter& operator=(const MessageFilter&) = delete;

  // The main table to hand to the host instead of the module's own.
  CPAEBaseModule* main_table();

  // Messages that did not meet the conditions.
  uint64_t dropped() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace pelka
