// The host's objects of one connection the module took (bound), kept in
// TrackedFlow::user_data while it lasts: the flow object the module sees, its
// statistics, the mail observer that tells what the module did not record,
// and the tally of its row in the database.
#pragma once

#include <cstdint>

#include "capture/FlowTracker.h"
#include "capture/HostFlow.h"
#include "capture/HostStatistics.h"
#include "capture/MailObserver.h"
#include "capture/Notices.h"
#include "capture/RunDatabase.h"

namespace pelka {

// Where the notices of every flow are written.
class NoticeWriter {
 public:
  virtual ~NoticeWriter() = default;
  virtual void WriteNotice(const TrackedFlow& flow, NoticeKind kind, uint64_t packet, uint64_t time_us) = 0;
};

// The host's objects of one bound flow, kept in TrackedFlow::user_data.
struct BoundFlow final : NoticeListener {
  BoundFlow(TrackedFlow& tracked, HostStatService& statistics, NoticeWriter& writer, uint64_t max_flow_length)
      : flow(tracked), node(flow), stats(statistics), observer(tracked.application_protocol(), max_flow_length, *this),
        notices(writer), tracked(tracked) {}
  void OnNotice(NoticeKind kind, uint64_t packet) override {
    notices.WriteNotice(flow.tracked(), kind, packet, time_us);
  }
  // The connection's own notices, once each: it began before the capture, it
  // lost data. `packet` is the number of the packet just handled.
  void NoticeCapture(uint64_t packet) {
    if (!seen_packet && !flow.tracked().opened_by_syn()) OnNotice(NoticeKind::kMidstreamStart, packet);
    seen_packet = true;
    if (flow.tracked().gaps() > 0 && !gap_noticed) OnNotice(NoticeKind::kTcpGap, packet);
    gap_noticed = flow.tracked().gaps() > 0;
  }
  HostFlow flow;
  HostFlowNode node;
  HostFlowStats stats;
  IPelkaFlowBindContext* context = nullptr;
  ConnectionTally tally;  // for the database's table connections
  MailObserver observer;
  NoticeWriter& notices;
  uint64_t packet = 0;  // the last packet's number and time
  uint64_t time_us = 0;
  bool seen_packet = false;
  bool gap_noticed = false;
  uint32_t gaps_seen = 0;
  TrackedFlow& tracked;
  uint64_t sequence = 0;  // a rotating run's order of the flows
};

// The connection's row in a database: its protocol and endpoints.
void StartConnectionRow(RunDatabase& database, BoundFlow& bound);

// The tally of a connection carried into a new folder: what comes from now
// on, with a request that waits for its reply still waiting.
ConnectionTally CarriedTally(const ConnectionTally& tally);

}  // namespace pelka
