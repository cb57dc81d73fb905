// Writes a classic pcap capture (Ethernet, IPv4) of many concurrent SMTP
// connections, each left inside an unfinished DATA body: the worst case for
// memory, since every message body is kept until its end marker arrives.
//
//   stuck_flows OUT.pcap [FLOWS [BODY_BYTES [SEGMENT_BYTES]]]
//
// Every connection is opened first (handshake, greeting, EHLO, MAIL, RCPT,
// DATA, 354), then the bodies arrive round robin, SEGMENT_BYTES at a time,
// until each connection has sent BODY_BYTES. No body is ever ended and no
// connection is closed, so every flow is still live when the capture ends.
// Defaults: 100000 flows, 4096 body bytes, 1400-byte segments. Packets are one
// microsecond apart, so no flow reaches an idle timeout.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kSyn = 0x02;
constexpr uint8_t kPush = 0x08;
constexpr uint8_t kAck = 0x10;
constexpr uint64_t kStartTimeUs = 1700000000ull * 1000000;

void PutBig16(Bytes& out, uint32_t value) {
  out.push_back(static_cast<uint8_t>(value >> 8));
  out.push_back(static_cast<uint8_t>(value));
}

void PutBig32(Bytes& out, uint32_t value) {
  PutBig16(out, value >> 16);
  PutBig16(out, value & 0xFFFF);
}

void PutLittle32(Bytes& out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

// One side of a connection: its address, port and next sequence number.
struct Endpoint {
  uint32_t address;
  uint16_t port;
  uint32_t next_sequence;
};

class PcapFile {
 public:
  explicit PcapFile(std::FILE* file) : file_(file) {
    Bytes header;
    PutLittle32(header, 0xA1B2C3D4);
    header.insert(header.end(), {2, 0, 4, 0});  // version 2.4
    PutLittle32(header, 0);                     // time zone
    PutLittle32(header, 0);                     // accuracy
    PutLittle32(header, 65535);                 // snap length
    PutLittle32(header, 1);                     // Ethernet
    Write(header);
  }

  // One TCP segment from `from` to `to`; advances the sender's sequence.
  void Segment(Endpoint& from, const Endpoint& to, uint8_t flags, const std::string& payload) {
    frame_.assign({0x02, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x01, 0x08, 0x00});
    frame_.push_back(0x45);
    frame_.push_back(0);
    PutBig16(frame_, static_cast<uint32_t>(40 + payload.size()));
    frame_.insert(frame_.end(), {0, 1, 0x40, 0, 64, 6, 0, 0});
    PutBig32(frame_, from.address);
    PutBig32(frame_, to.address);
    PutBig16(frame_, from.port);
    PutBig16(frame_, to.port);
    PutBig32(frame_, from.next_sequence);
    PutBig32(frame_, to.next_sequence);
    frame_.insert(frame_.end(), {0x50, flags, 0xFF, 0xFF, 0, 0, 0, 0});
    frame_.insert(frame_.end(), payload.begin(), payload.end());
    from.next_sequence += static_cast<uint32_t>(payload.size()) + ((flags & kSyn) ? 1 : 0);
    Record();
  }

  bool ok() const { return ok_; }

 private:
  void Record() {
    const uint64_t time = kStartTimeUs + packets_++;
    Bytes header;
    PutLittle32(header, static_cast<uint32_t>(time / 1000000));
    PutLittle32(header, static_cast<uint32_t>(time % 1000000));
    PutLittle32(header, static_cast<uint32_t>(frame_.size()));
    PutLittle32(header, static_cast<uint32_t>(frame_.size()));
    Write(header);
    Write(frame_);
  }

  void Write(const Bytes& bytes) {
    if (ok_ && std::fwrite(bytes.data(), 1, bytes.size(), file_) != bytes.size()) ok_ = false;
  }

  std::FILE* file_;
  Bytes frame_;
  uint64_t packets_ = 0;
  bool ok_ = true;
};

struct Connection {
  Endpoint client;
  Endpoint server;
};

Connection MakeConnection(uint32_t index) {
  // 10.0.0.0/8 clients, 40 000 ports each; one server.
  const uint32_t client_address = 0x0A000001 + index / 40000;
  const uint16_t client_port = static_cast<uint16_t>(20000 + index % 40000);
  return {{client_address, client_port, 1000 + index}, {0xC0000201, 25, 5000 + index}};
}

void Open(PcapFile& out, Connection& c, uint32_t index) {
  out.Segment(c.client, c.server, kSyn, "");
  out.Segment(c.server, c.client, kSyn | kAck, "");
  out.Segment(c.client, c.server, kAck, "");
  const std::string id = std::to_string(index);
  const std::pair<const char*, std::string> dialogue[] = {
      {"S", "220 mx.example.net ESMTP\r\n"},
      {"C", "EHLO client" + id + ".example.org\r\n"},
      {"S", "250 mx.example.net\r\n"},
      {"C", "MAIL FROM:<sender" + id + "@example.org>\r\n"},
      {"S", "250 OK\r\n"},
      {"C", "RCPT TO:<receiver" + id + "@example.net>\r\n"},
      {"S", "250 OK\r\n"},
      {"C", "DATA\r\n"},
      {"S", "354 End data with <CR><LF>.<CR><LF>\r\n"},
      {"C", "From: <sender" + id + "@example.org>\r\nSubject: stuck " + id + "\r\n\r\n"},
  };
  for (const auto& [side, text] : dialogue) {
    if (side[0] == 'C') {
      out.Segment(c.client, c.server, kPush | kAck, text);
    } else {
      out.Segment(c.server, c.client, kPush | kAck, text);
    }
  }
}

// Body text that never holds the end marker: lines of letters.
std::string BodyPiece(size_t length) {
  std::string piece;
  piece.reserve(length);
  while (piece.size() < length) piece += (piece.size() % 72 == 70) ? "\r\n" : "x";
  piece.resize(length);
  return piece;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s OUT.pcap [FLOWS [BODY_BYTES [SEGMENT_BYTES]]]\n", argv[0]);
    return 2;
  }
  const uint32_t flows = argc > 2 ? static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10)) : 100000;
  const size_t body_bytes = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 4096;
  const size_t segment_bytes = argc > 4 ? std::strtoul(argv[4], nullptr, 10) : 1400;
  if (flows == 0 || flows > 40000u * 250 || segment_bytes == 0 || segment_bytes > 1460) {
    std::fprintf(stderr, "%s: FLOWS must be 1..10000000 and SEGMENT_BYTES 1..1460\n", argv[0]);
    return 2;
  }
  std::FILE* file = std::fopen(argv[1], "wb");
  if (!file) {
    std::perror(argv[1]);
    return 1;
  }
  PcapFile out(file);
  std::vector<Connection> connections;
  connections.reserve(flows);
  for (uint32_t i = 0; i < flows; ++i) {
    connections.push_back(MakeConnection(i));
    Open(out, connections.back(), i);
  }
  const std::string piece = BodyPiece(segment_bytes);
  for (size_t sent = 0; sent < body_bytes; sent += segment_bytes) {
    const std::string chunk = piece.substr(0, std::min(segment_bytes, body_bytes - sent));
    for (Connection& c : connections) out.Segment(c.client, c.server, kPush | kAck, chunk);
  }
  const bool written = out.ok() && std::fclose(file) == 0;
  if (!written) {
    std::perror(argv[1]);
    return 1;
  }
  return 0;
}
