// The per-flow state of one SMTP, POP3 or IMAP4 conversation.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "host/Base64Coder.h"
#include "host/FlowInterfaces.h"
#include "host/RefPtr.h"
#include "mail/MessageFields.h"

namespace pelka {

class CEmailFlowDataImpl;
class CEmailSessionHost;

// A view over the payload being parsed. It does not own the bytes.
class CSectionString {
 public:
  virtual ~CSectionString() = default;

  void Set(const uint8_t* data, uint64_t length) {
    data_ = data;
    length_ = length;
  }
  const uint8_t* data() const { return data_; }
  uint64_t length() const { return length_; }

  // Index of the first occurrence of the needle in the view, or -1. A needle
  // longer than the view gives -1; bytes are compared exactly.
  int32_t Find(const void* needle, uint64_t needle_length) const;

 private:
  const uint8_t* data_ = nullptr;
  uint64_t length_ = 0;
};

// Progress of the end tests over the collected bytes, so that each packet costs
// time for its own new bytes only while the answer stays that of a search over
// the whole collection. Reset whenever the collection is emptied.
struct EndSearchProgress {
  // SMTP/POP3: bytes at the front of flow_data known to hold no end marker.
  uint64_t marker_free_length = 0;
  // IMAP4: first position at which the completion marker has not been tried;
  // bytes known to hold no zero byte, and whether a zero byte ended the text
  // the completion test may see.
  uint64_t fetch_scan_position = 0;
  uint64_t zero_free_length = 0;
  bool fetch_text_ended = false;
  // IMAP4: the fetch tag followed by " OK", made at the first question after
  // the tag or the collection changed rather than for every packet; empty
  // until then.
  std::string fetch_marker;
};

// The message fields (sender_name ... attachments, the body times, size,
// duration and speed) come from MessageFields, which the header extractor
// fills.
class CEmailFlowContext final : public IPelkaFlowBindContext, public MessageFields {
 public:
  CEmailFlowContext(CEmailSessionHost* module, IPelkaFlow* flow);
  ~CEmailFlowContext();
  CEmailFlowContext(const CEmailFlowContext&) = delete;
  CEmailFlowContext& operator=(const CEmailFlowContext&) = delete;

  // The owning module's flow client, or null without a module.
  IPelkaFlowClient* GetFlowClient() override;

  // Ends the current message: per-message times, sizes and texts are emptied.
  // The session state (account, tags, diagnosis fields, flags) stays.
  void ResetMessage();

  // Empties flow_data after a finished (or abandoned) message.
  void DiscardCollectedBytes();

  CTQBase64Coder base64_coder;
  IPelkaFlow* flow = nullptr;
  RefPtr<CEmailFlowDataImpl> flow_data;
  FILE* copy_file = nullptr;
  CSectionString section;
  uint64_t request_packet = 0;
  uint64_t request_time = 0;
  uint32_t reply_seen = 0;
  uint32_t in_body = 0;
  uint32_t await_auth_user = 0;
  uint32_t await_auth_pass = 0;
  uint64_t first_packet_time = 0;
  std::wstring server_endpoint;
  std::wstring client_endpoint;
  std::wstring account;
  std::wstring copy_path;
  std::string fetch_tag;
  uint32_t conversation_unconfirmed = 1;
  uint32_t dubious_count = 0;
  std::wstring qp_text;
  CEmailSessionHost* module = nullptr;

  EndSearchProgress end_search;
};

}  // namespace pelka
