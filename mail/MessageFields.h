// The fields of one mail message that the header extractor fills, and the
// times it measures the transfer by.
#pragma once

#include <cstdint>
#include <string>

namespace pelka {

// Which mail protocol a packet, a check or a collected message belongs to.
enum class MailProtocol { kSmtp, kPop3, kImap4 };

struct MessageFields {
  // Capture times in microseconds of the message's first and last packet; the
  // extractor reads them for the duration.
  uint64_t body_start_time = 0;
  uint64_t body_end_time = 0;

  std::wstring sender_name;
  std::wstring sender_address;
  std::wstring receiver_name;
  std::wstring receiver_address;
  std::wstring return_path;
  std::wstring envelope_to;
  std::wstring cc;
  std::wstring subject;
  std::wstring sent_time;
  std::wstring mailer;
  std::wstring attachments;
  uint64_t message_size = 0;
  double duration = 0.0;       // seconds
  double average_speed = 0.0;  // bytes per second
};

}  // namespace pelka
