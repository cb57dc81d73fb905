// The mail conversations of the traffic generator, as scripts of turns:
// SMTP with AUTH LOGIN and DATA or BDAT, POP3 with USER/PASS and RETR, IMAP4
// with LOGIN and UID FETCH BODY.PEEK[] answered by literals. Some replies are
// slow (over 200 ms) and some are server errors, as in real traffic.
//
// The scripts know what the email module will make of them, so that a
// benchmark can check the records it gets:
// - a message is recorded when its end arrives before the collected bytes pass
//   the module's flow limit, and also when the limit cuts it; a message cut
//   by the limit is its session's last, since the module gives up the flow;
// - a FETCH response is kept within the limit (a message too large for one
//   response is shortened), because a response cut by the limit is recorded
//   as one raw blob;
// - a BDAT message has no end marker, so the module never completes it: BDAT
//   sessions are kept within the limit and their messages are not expected
//   as records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "bench/TrafficGeneratorRandom.h"
#include "bench/TrafficGeneratorTcp.h"

namespace pelka {

enum class MailProtocol : uint8_t { kSmtp = 0, kPop3 = 1, kImap = 2 };
inline constexpr uint16_t kServicePort[] = {25, 110, 143};

struct SessionPlan {
  MailProtocol protocol = MailProtocol::kSmtp;
  std::vector<size_t> sizes;  // wanted message sizes, in order
  bool bdat = false;          // SMTP: send the messages in BDAT chunks
  uint64_t flow_limit = 2 * 1024 * 1024;  // the module's max_flow_length
};

struct SessionCounts {
  uint32_t messages = 0;          // messages the session carries
  uint32_t bdat_messages = 0;     // of them, sent in BDAT chunks
  uint32_t expected_records = 0;  // of them, the ones the module records
  uint64_t message_bytes = 0;
};

struct Session {
  std::vector<Turn> turns;
  SessionCounts counts;
};

// May carry fewer messages than planned: a message cut by the flow limit
// ends its SMTP or POP3 session.
Session BuildSession(TrafficRandom& random, const SessionPlan& plan);

// Whether a turn of `length` bytes, collected from its first byte, ends
// before the collected bytes pass `limit` (the module tests the limit before
// each packet, on what it collected before it).
inline bool EndsWithinLimit(uint64_t length, uint64_t limit) {
  return length == 0 || (SegmentCount(length) - 1) * kTrafficMss <= limit;
}

}  // namespace pelka
