#include "bench/TrafficGeneratorSessions.h"

#include <algorithm>
#include <string>
#include <utility>

#include "bench/TrafficGeneratorMessage.h"

namespace pelka {
namespace {

constexpr double kSlowReplyShare = 0.03;
constexpr double kServerErrorShare = 0.06;
constexpr double kAuthShare = 0.85;
constexpr size_t kBdatChunkMin = 8 * 1024;
constexpr size_t kBdatChunkMax = 64 * 1024;
// Room kept below the flow limit for a BDAT session's commands.
constexpr uint64_t kBdatMargin = 64 * 1024;
// Bytes of an IMAP response around one literal (FETCH line, ")" CR LF, tag
// line), with room to spare.
constexpr size_t kImapOverhead = 512;

// Appends the turns of one conversation with realistic pauses.
class Script {
 public:
  explicit Script(TrafficRandom& random) : random_(random) {}

  void Client(std::string bytes) { Add(Side::kClient, random_.Between(100, 3000), std::move(bytes)); }
  // A client turn sent right behind the previous one (pipelining, chunks).
  void ClientNow(std::string bytes) { Add(Side::kClient, 20, std::move(bytes)); }
  void Server(std::string bytes) {
    const bool slow = random_.Chance(kSlowReplyShare);
    Add(Side::kServer, slow ? random_.Between(250000, 1500000) : random_.Between(300, 20000), std::move(bytes));
  }

  std::vector<Turn> Take() { return std::move(turns_); }

 private:
  void Add(Side side, uint64_t delay_us, std::string bytes) { turns_.push_back({side, delay_us, std::move(bytes)}); }

  TrafficRandom& random_;
  std::vector<Turn> turns_;
};

// The message as a DATA body or a RETR reply carries it: lines that begin
// with "." get a second one, and the terminating line "." follows.
std::string DotStuffed(const std::string& message) {
  std::string out;
  out.reserve(message.size() + 3);
  size_t line = 0;
  while (line < message.size()) {
    size_t end = message.find("\r\n", line);
    end = end == std::string::npos ? message.size() : end + 2;
    if (message[line] == '.') out += '.';
    out.append(message, line, end - line);
    line = end;
  }
  out += ".\r\n";
  return out;
}

std::string Number(uint64_t value) { return std::to_string(value); }

std::string QueueId(TrafficRandom& random) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string id;
  for (int i = 0; i < 10; ++i) id += kDigits[random.Below(16)];
  return id;
}

void AddCounts(SessionCounts& counts, size_t size, bool bdat, bool recorded) {
  ++counts.messages;
  counts.bdat_messages += bdat;
  counts.expected_records += recorded;
  counts.message_bytes += size;
}

void SmtpLogin(TrafficRandom& random, Script& script, const MessageEnvelope& first) {
  script.Server("220 mx" + Number(random.Between(1, 9)) + ".example.com ESMTP ready\r\n");
  script.Client("EHLO [10.0." + Number(random.Below(256)) + "." + Number(random.Between(1, 254)) + "]\r\n");
  script.Server(
      "250-mx.example.com\r\n250-PIPELINING\r\n250-SIZE 52428800\r\n250-ETRN\r\n250-AUTH PLAIN LOGIN\r\n"
      "250-ENHANCEDSTATUSCODES\r\n250-8BITMIME\r\n250-CHUNKING\r\n250 DSN\r\n");
  if (!random.Chance(kAuthShare)) return;
  script.Client("AUTH LOGIN\r\n");
  script.Server("334 VXNlcm5hbWU6\r\n");
  script.Client(Base64Encode(LoginName(first.from)) + "\r\n");
  script.Server("334 UGFzc3dvcmQ6\r\n");
  script.Client(Base64Encode("pw-" + QueueId(random)) + "\r\n");
  script.Server("235 2.7.0 Authentication successful\r\n");
}

void SmtpEnvelope(TrafficRandom& random, Script& script, const MessageEnvelope& envelope, size_t size) {
  script.Client("MAIL FROM:<" + envelope.from.address + "> SIZE=" + Number(size) + "\r\n");
  script.Server("250 2.1.0 Ok\r\n");
  for (const auto* list : {&envelope.to, &envelope.cc}) {
    for (const Mailbox& mailbox : *list) {
      script.Client("RCPT TO:<" + mailbox.address + ">\r\n");
      script.Server("250 2.1.5 Ok\r\n");
    }
  }
  if (random.Chance(kServerErrorShare)) {
    script.Client("RCPT TO:<nobody@example.org>\r\n");
    script.Server("550 5.1.1 <nobody@example.org>: Recipient address rejected: User unknown\r\n");
  }
}

// Sends the message in BDAT chunks, the last one marked LAST.
void SmtpBdat(TrafficRandom& random, Script& script, const std::string& message) {
  size_t at = 0;
  while (at < message.size()) {
    const size_t chunk = std::min<size_t>(message.size() - at, random.Between(kBdatChunkMin, kBdatChunkMax));
    const bool last = at + chunk == message.size();
    script.Client("BDAT " + Number(chunk) + (last ? " LAST\r\n" : "\r\n"));
    script.ClientNow(message.substr(at, chunk));
    script.Server("250 2.0.0 Ok: " + Number(chunk) + " octets received\r\n");
    at += chunk;
  }
}

// Bytes the module collects for a BDAT session: everything the client sends
// after the first BDAT command. An estimate from above.
uint64_t BdatCollected(const std::vector<size_t>& sizes) {
  uint64_t total = 0;
  for (size_t size : sizes) total += std::max(size, kMinimumMessageSize) + 4096;
  return total;
}

Session BuildSmtp(TrafficRandom& random, const SessionPlan& plan) {
  Session session;
  Script script(random);
  const bool bdat = plan.bdat && BdatCollected(plan.sizes) + kBdatMargin <= plan.flow_limit;
  const MessageEnvelope first = RandomEnvelope(random);
  SmtpLogin(random, script, first);
  for (size_t i = 0; i < plan.sizes.size(); ++i) {
    const MessageEnvelope envelope = i == 0 ? first : RandomEnvelope(random);
    const std::string message = BuildMessage(random, envelope, plan.sizes[i], false);
    SmtpEnvelope(random, script, envelope, message.size());
    if (bdat) {
      SmtpBdat(random, script, message);
      AddCounts(session.counts, message.size(), true, false);
      continue;
    }
    script.Client("DATA\r\n");
    script.Server("354 End data with <CR><LF>.<CR><LF>\r\n");
    std::string body = DotStuffed(message);
    const bool cut = !EndsWithinLimit(body.size(), plan.flow_limit);
    script.Client(std::move(body));
    script.Server("250 2.0.0 Ok: queued as " + QueueId(random) + "\r\n");
    AddCounts(session.counts, message.size(), false, true);
    if (cut) break;
  }
  script.Client("QUIT\r\n");
  script.Server("221 2.0.0 Bye\r\n");
  session.turns = script.Take();
  return session;
}

Session BuildPop3(TrafficRandom& random, const SessionPlan& plan) {
  Session session;
  Script script(random);
  const MessageEnvelope owner = RandomEnvelope(random);
  const std::string user = owner.to.front().address;
  script.Server("+OK POP3 ready <" + Number(random.Between(1000, 99999)) + "." + Number(random.Next() % 100000000) +
                "@pop.example.com>\r\n");
  if (random.Chance(kServerErrorShare)) {
    script.Client("USER " + user + "\r\n");
    script.Server("+OK\r\n");
    script.Client("PASS wrong-" + QueueId(random) + "\r\n");
    script.Server("-ERR [AUTH] Authentication failed.\r\n");
  }
  script.Client("USER " + user + "\r\n");
  script.Server("+OK\r\n");
  script.Client("PASS pw-" + QueueId(random) + "\r\n");
  script.Server("+OK Logged in.\r\n");
  script.Client("STAT\r\n");
  script.Server("+OK " + Number(plan.sizes.size()) + " " + Number(plan.sizes.size() * 30000) + "\r\n");
  for (size_t i = 0; i < plan.sizes.size(); ++i) {
    const MessageEnvelope envelope = RandomEnvelope(random);
    const std::string message = BuildMessage(random, envelope, plan.sizes[i], true);
    script.Client("RETR " + Number(i + 1) + "\r\n");
    std::string reply = "+OK " + Number(message.size()) + " octets\r\n" + DotStuffed(message);
    const bool cut = !EndsWithinLimit(reply.size(), plan.flow_limit);
    script.Server(std::move(reply));
    AddCounts(session.counts, message.size(), false, true);
    if (cut) break;
    if (random.Chance(0.5)) {
      script.Client("DELE " + Number(i + 1) + "\r\n");
      script.Server("+OK Marked to be deleted.\r\n");
    }
  }
  if (random.Chance(kServerErrorShare)) {
    script.Client("DELE 99\r\n");
    script.Server("-ERR There's no message 99.\r\n");
  }
  script.Client("QUIT\r\n");
  script.Server("+OK Logging out.\r\n");
  session.turns = script.Take();
  return session;
}

class ImapTags {
 public:
  std::string Next() {
    char tag[16];
    std::snprintf(tag, sizeof tag, "a%04u", ++count_);
    return tag;
  }

 private:
  unsigned count_ = 0;
};

std::string ImapLiteral(uint64_t sequence, uint64_t uid, const std::string& message) {
  return "* " + Number(sequence) + " FETCH (UID " + Number(uid) + " RFC822.SIZE " + Number(message.size()) +
         " BODY[] {" + Number(message.size()) + "}\r\n" + message + ")\r\n";
}

Session BuildImap(TrafficRandom& random, const SessionPlan& plan) {
  Session session;
  Script script(random);
  ImapTags tags;
  const MessageEnvelope owner = RandomEnvelope(random);
  script.Server("* OK [CAPABILITY IMAP4rev1 LITERAL+ SASL-IR ID ENABLE IDLE AUTH=PLAIN] Server ready.\r\n");
  std::string tag = tags.Next();
  script.Client(tag + " LOGIN " + owner.to.front().address + " pw-" + QueueId(random) + "\r\n");
  script.Server(tag + " OK [CAPABILITY IMAP4rev1 LITERAL+ SORT THREAD=REFERENCES] Logged in\r\n");
  if (random.Chance(kServerErrorShare)) {
    tag = tags.Next();
    script.Client(tag + " SELECT Archive/2019\r\n");
    script.Server(tag + " NO Mailbox doesn't exist: Archive/2019\r\n");
  }
  tag = tags.Next();
  const uint64_t first_uid = random.Between(1000, 9000);
  const uint64_t exists = plan.sizes.size() + random.Below(40);
  script.Client(tag + " SELECT INBOX\r\n");
  script.Server("* FLAGS (\\Answered \\Flagged \\Deleted \\Seen \\Draft)\r\n* " + Number(exists) +
                " EXISTS\r\n* 0 RECENT\r\n* OK [UIDVALIDITY 1700000000] UIDs valid\r\n* OK [UIDNEXT " +
                Number(first_uid + exists) + "] Predicted next UID\r\n" + tag +
                " OK [READ-WRITE] Select completed.\r\n");
  if (random.Chance(0.3)) {
    tag = tags.Next();
    script.Client(tag + " UID FETCH " + Number(first_uid) + ":* (FLAGS)\r\n");
    std::string flags;
    for (size_t i = 0; i < plan.sizes.size(); ++i) {
      flags += "* " + Number(i + 1) + " FETCH (UID " + Number(first_uid + i) + " FLAGS (\\Seen))\r\n";
    }
    script.Server(flags + tag + " OK Fetch completed.\r\n");
  }
  // Messages go out in as few responses as the flow limit allows.
  size_t next = 0;
  while (next < plan.sizes.size()) {
    tag = tags.Next();
    std::string response;
    const size_t begin = next;
    while (next < plan.sizes.size()) {
      const size_t size = std::min<uint64_t>(std::max(plan.sizes[next], kMinimumMessageSize),
                                             plan.flow_limit - kImapOverhead);
      if (next > begin && response.size() + size + kImapOverhead > plan.flow_limit) break;
      const std::string message = BuildMessage(random, RandomEnvelope(random), size, true);
      response += ImapLiteral(next + 1, first_uid + next, message);
      AddCounts(session.counts, message.size(), false, true);
      ++next;
    }
    const std::string range = Number(first_uid + begin) + ":" + Number(first_uid + next - 1);
    script.Client(tag + " UID FETCH " + range + " (UID RFC822.SIZE BODY.PEEK[])\r\n");
    script.Server(response + tag + " OK Fetch completed (0.004 + 0.000 secs).\r\n");
  }
  tag = tags.Next();
  script.Client(tag + " LOGOUT\r\n");
  script.Server("* BYE Logging out\r\n" + tag + " OK Logout completed.\r\n");
  session.turns = script.Take();
  return session;
}

}  // namespace

Session BuildSession(TrafficRandom& random, const SessionPlan& plan) {
  switch (plan.protocol) {
    case MailProtocol::kSmtp: return BuildSmtp(random, plan);
    case MailProtocol::kPop3: return BuildPop3(random, plan);
    case MailProtocol::kImap: return BuildImap(random, plan);
  }
  return {};
}

}  // namespace pelka
