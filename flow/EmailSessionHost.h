// CEmailSessionHost: what the protocol sessions need of the module that hosts
// them.
//
// It holds the flow side's shared state, the longest message collected on one
// flow, the end-marker searcher and the pool of grown message buffers, and it
// passes every finished message that qualifies to the records: first its copy,
// then its email log record. The module derives from it and supplies those
// two steps, so the sessions know nothing of the log, the copies or the
// diagnosis checks.
#pragma once

#include <atomic>
#include <cstdint>

#include "flow/MessageBufferPool.h"
#include "flow/MultiPatternSearcher.h"
#include "host/FlowInterfaces.h"

namespace pelka {

class CEmailFlowContext;

// Default largest collected message per flow: 2 MiB.
constexpr uint32_t kDefaultMaxFlowLength = 0x200000;

class CEmailSessionHost {
 public:
  // Builds the end-marker searcher for CR LF "." CR LF.
  CEmailSessionHost();
  virtual ~CEmailSessionHost();
  CEmailSessionHost(const CEmailSessionHost&) = delete;
  CEmailSessionHost& operator=(const CEmailSessionHost&) = delete;

  // A message is finished once its collected bytes pass this length.
  uint32_t max_flow_length() const { return max_flow_length_.load(std::memory_order_relaxed); }
  void set_max_flow_length(uint32_t bytes) { max_flow_length_.store(bytes, std::memory_order_relaxed); }
  // Built in the constructor and only read afterwards, by any thread.
  const CMultiPatternSearcher& end_marker_searcher() const { return end_marker_searcher_; }
  // Grown message buffers of ended flows, for the flows that start later.
  MessageBufferPool& message_buffers() { return message_buffers_; }

  // The flow client that the contexts name to the host.
  virtual IPelkaFlowClient* SessionFlowClient() = 0;
  // Writes the ".eml" copy of a finished message when the host asks for copies.
  virtual void SaveEmailCopy(CEmailFlowContext* context, const PacketRecord* packet) = 0;
  // Posts one email log record for a finished message (and its summary entry).
  virtual void PostEmailRecord(IPelkaFlow* flow, CEmailFlowContext& context, IPelkaFlowNode* node) = 0;

 private:
  std::atomic<uint32_t> max_flow_length_{kDefaultMaxFlowLength};
  CMultiPatternSearcher end_marker_searcher_;
  MessageBufferPool message_buffers_;
};

}  // namespace pelka
