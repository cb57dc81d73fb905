#include "flow/EmailFlowContext.h"

#include <cstring>

#include "flow/EmailFlowData.h"
#include "flow/EmailSessionHost.h"

namespace pelka {

int32_t CSectionString::Find(const void* needle, uint64_t needle_length) const {
  if (!data_ || !needle || needle_length == 0 || needle_length > length_) return -1;
  const auto* pattern = static_cast<const uint8_t*>(needle);
  const uint64_t last_start = length_ - needle_length;
  for (uint64_t i = 0; i <= last_start; ++i) {
    if (data_[i] == pattern[0] && std::memcmp(data_ + i, pattern, needle_length) == 0) {
      return static_cast<int32_t>(i);
    }
  }
  return -1;
}

CEmailFlowContext::CEmailFlowContext(CEmailSessionHost* owner, IPelkaFlow* host_flow)
    : flow(host_flow), module(owner) {
  ResetMessage();
  flow_data = RefPtr<CEmailFlowDataImpl>::Adopt(new CEmailFlowDataImpl);
  if (owner) flow_data->set_buffer_pool(&owner->message_buffers());
}

CEmailFlowContext::~CEmailFlowContext() {
  flow_data.Reset();
  if (copy_file) std::fclose(copy_file);
}

IPelkaFlowClient* CEmailFlowContext::GetFlowClient() { return module ? module->SessionFlowClient() : nullptr; }

void CEmailFlowContext::ResetMessage() {
  reply_seen = 0;
  first_packet_time = 0;
  body_start_time = 0;
  body_end_time = 0;
  message_size = 0;
  duration = 0.0;
  average_speed = 0.0;
  for (std::wstring* text : {&server_endpoint, &client_endpoint, &sender_name, &sender_address, &receiver_name,
                             &receiver_address, &return_path, &envelope_to, &cc, &subject, &sent_time, &mailer,
                             &attachments}) {
    text->clear();
  }
}

void CEmailFlowContext::DiscardCollectedBytes() {
  if (flow_data) {
    flow_data->Consume(flow_data->GetLength());
    flow_data->Commit();
  }
  end_search = EndSearchProgress{};
}

}  // namespace pelka
