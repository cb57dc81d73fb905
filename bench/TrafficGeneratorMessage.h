// Realistic mail messages for the traffic generator: header fields with
// display names and subjects in plain ASCII or as encoded words (GB2312, GBK
// and UTF-8, base64 and quoted-printable), a text part, and base64 attachments
// whose file names may be encoded words too. Every message is built to an
// exact size so that a capture's contents are known in advance.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "bench/TrafficGeneratorRandom.h"

namespace pelka {

struct Mailbox {
  std::string display;  // as written in a header: plain, quoted or an encoded word; may be empty
  std::string address;  // always holds "@"
};

struct MessageEnvelope {
  Mailbox from;
  std::vector<Mailbox> to;  // at least one
  std::vector<Mailbox> cc;
};

// Smallest size BuildMessage honours exactly; smaller requests get this size.
inline constexpr size_t kMinimumMessageSize = 2048;

MessageEnvelope RandomEnvelope(TrafficRandom& random);

// A message of exactly max(size, kMinimumMessageSize) bytes (a header that
// would not fit makes it just large enough for the header); every line,
// the last one too, ends with CR LF, and no line begins with ".". A `stored`
// message is one as a mailbox server hands it out: it carries Return-Path,
// Delivered-To and Received fields.
std::string BuildMessage(TrafficRandom& random, const MessageEnvelope& envelope, size_t size, bool stored);

std::string Base64Encode(std::string_view bytes);

// A login name for the sender of a message, as mail clients send it.
std::string LoginName(const Mailbox& mailbox);

}  // namespace pelka
