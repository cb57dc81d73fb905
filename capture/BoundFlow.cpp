#include "capture/BoundFlow.h"

namespace pelka {

void StartConnectionRow(RunDatabase& database, BoundFlow& bound) {
  const TrackedFlow& tracked = bound.tracked;
  database.OnConnectionStart(&bound.flow, ConnectionProtocolText(tracked.application_protocol()),
                             EndpointText(tracked.client()), EndpointText(tracked.server()));
}

ConnectionTally CarriedTally(const ConnectionTally& tally) {
  ConnectionTally carried;
  carried.request_time = tally.request_time;
  carried.awaiting_reply = tally.awaiting_reply;
  return carried;
}

}  // namespace pelka
