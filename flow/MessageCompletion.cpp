#include "flow/EmailFlowData.h"
#include "flow/SessionHandlers.h"
#include "host/Types.h"
#include "mail/HeaderExtractor.h"

namespace pelka {
namespace {

// The end marker is five bytes; four of the bytes searched before may start it.
constexpr uint64_t kMarkerOverlap = 4;

}  // namespace

bool HasMailAddress(const std::wstring& text) { return text.find(L'@') != std::wstring::npos; }

bool IsMessageComplete(const CEmailSessionHost& module, CEmailFlowContext& context) {
  CEmailFlowDataImpl& data = *context.flow_data;
  const uint64_t total = data.GetLength();
  if (total < 3) return false;

  // Every earlier question over the front of the collection answered "no", so
  // a marker can only lie in the new bytes or straddle into them.
  uint64_t checked = context.end_search.marker_free_length;
  if (checked > total) checked = 0;
  const uint64_t start = checked > kMarkerOverlap ? checked - kMarkerOverlap : 0;
  const uint64_t count = total - start;
  const uint8_t* bytes = data.GetBuffer(static_cast<uint32_t>(start), static_cast<uint32_t>(count));
  const bool found = bytes && module.end_marker_searcher().Search(bytes, count);
  if (!found) context.end_search.marker_free_length = total;
  return found;
}

void ExtractMessageFields(CEmailFlowContext& context, MailProtocol protocol) {
  if (!context.flow_data) return;
  ExtractMailHeaders(*context.flow_data, SplitScratch{context.base64_coder, context.qp_text}, context, protocol);
}

void FinishAtFlowLimit(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args,
                       MailProtocol protocol) {
  context.body_end_time = GetPacketTime(args.packet);
  CompleteMessage(module, context, args, protocol, ReceiverTest::kToOnly);
}

bool QualifiesForRecord(const CEmailFlowContext& context, ReceiverTest receiver_test) {
  const bool sender = HasMailAddress(context.sender_address) || HasMailAddress(context.return_path);
  bool receiver = HasMailAddress(context.receiver_address) || HasMailAddress(context.envelope_to);
  if (receiver_test == ReceiverTest::kToOrCc) receiver = receiver || HasMailAddress(context.cc);
  return sender && receiver;
}

void CompleteMessage(CEmailSessionHost& module, CEmailFlowContext& context, const PacketArgs& args,
                     MailProtocol protocol, ReceiverTest receiver_test) {
  ExtractMessageFields(context, protocol);
  if (QualifiesForRecord(context, receiver_test)) {
    module.SaveEmailCopy(&context, args.packet);
    module.PostEmailRecord(args.flow, context, args.node);
  }
  context.in_body = 0;
  context.DiscardCollectedBytes();
  context.ResetMessage();
}

void CollectMessagePacket(CEmailSessionHost& module, CEmailFlowDataImpl& data, CEmailFlowContext& context,
                          const PacketArgs& args, MailProtocol protocol, ReceiverTest receiver_test) {
  const uint64_t time = GetPacketTime(args.packet);
  if (context.body_start_time == 0) context.body_start_time = time;
  data.Append(args.payload, args.length);
  data.Commit();
  if (IsMessageComplete(module, context)) {
    context.body_end_time = time;
    CompleteMessage(module, context, args, protocol, receiver_test);
  }
}

}  // namespace pelka
