// The email log record of one finished message, and its summary entry.
#include <charconv>
#include <string>

#include "host/AsciiText.h"
#include "host/DataFormat.h"
#include "host/LogInterfaces.h"
#include "host/Types.h"
#include "output/EmailRecordWriter.h"

namespace pelka {
namespace {

// The first of the two addresses that holds an "@", else empty.
const std::wstring& ChooseAddress(const std::wstring& header_address, const std::wstring& fallback) {
  static const std::wstring kNone;
  if (header_address.find(L'@') != std::wstring::npos) return header_address;
  if (fallback.find(L'@') != std::wstring::npos) return fallback;
  return kNone;
}

// Service ports are tested server side first, per protocol, so a flow between
// port 25 and port 110 is SMTP. Null when neither side has a service port.
const wchar_t* ProtocolName(uint16_t server_port, uint16_t client_port) {
  struct Service {
    uint16_t port;
    const wchar_t* name;
  };
  static constexpr Service kServices[] = {{kSmtpPort, L"SMTP"}, {kPop3Port, L"POP3"}, {kImapPort, L"IMAPv4"}};
  for (const Service& service : kServices)
    if (server_port == service.port || client_port == service.port) return service.name;
  return nullptr;
}

// "a.b.c.d:port", or "[address]:port" for a flow that gives its address as
// text (IPv6), into `out`.
void WriteEndpoint(const CTQDataFormat& format, IPelkaFlow* flow, uint32_t side, uint32_t address, uint16_t port,
                   std::wstring& out) {
  out.clear();
  if (const wchar_t* text = flow ? flow->GetAddressText(side) : nullptr) {
    out += L'[';
    out += text;
    out += L"]:";
  } else {
    out += format.FormatIpAddress(address);
    out += L':';
  }
  char digits[8];
  const char* end = std::to_chars(digits, digits + sizeof digits, port).ptr;
  out.append(static_cast<const char*>(digits), end);
}

const wchar_t* NodeText(const wchar_t* text) { return text ? text : L""; }

}  // namespace

void CEmailRecordWriter::PostEmailRecord(IPelkaFlow* flow, CEmailFlowContext& context, IPelkaFlowNode* node) {
  IPelkaLog* log = email_log_;
  if (!log || !log->IsLogEnabled()) return;

  const std::wstring& sender = ChooseAddress(context.sender_address, context.return_path);
  const std::wstring& receiver = ChooseAddress(context.receiver_address, context.envelope_to);
  if (sender.empty() && receiver.empty()) return;

  const uint64_t seconds = context.first_packet_time / kMicrosecondsPerSecond;
  IPelkaLogRecord* record = log->NewRecord(seconds, flow, 0);
  if (!record) return;
  const auto& id = column_ids_;
  log->SetNumber(record, id[kColumnNumber], ++email_number_);

  const uint32_t client_address = flow ? flow->GetClientAddress() : 0;
  const uint32_t server_address = flow ? flow->GetServerAddress() : 0;
  const uint16_t client_port = flow ? flow->GetClientPort() : 0;
  const uint16_t server_port = flow ? flow->GetServerPort() : 0;
  const CTQDataFormat format;
  WriteEndpoint(format, flow, kFromServer, server_address, server_port, context.server_endpoint);
  log->SetText(record, id[kColumnServer], context.server_endpoint.c_str());
  WriteEndpoint(format, flow, kFromClient, client_address, client_port, context.client_endpoint);
  log->SetText(record, id[kColumnClient], context.client_endpoint.c_str());
  if (const wchar_t* protocol = ProtocolName(server_port, client_port))
    log->SetText(record, id[kColumnProtocol], protocol);

  log->SetText(record, id[kColumnSender], context.sender_name.c_str());
  log->SetText(record, id[kColumnSenderAddress], sender.c_str());
  log->SetText(record, id[kColumnReceiver], context.receiver_name.c_str());
  log->SetText(record, id[kColumnReceiverAddress], receiver.c_str());
  log->SetText(record, id[kColumnCc], context.cc.c_str());
  log->SetText(record, id[kColumnSubject], context.subject.c_str());
  log->SetText(record, id[kColumnSentTime], context.sent_time.c_str());
  log->SetText(record, id[kColumnMailer], context.mailer.c_str());
  log->SetText(record, id[kColumnAccount], context.account.c_str());
  log->SetText(record, id[kColumnAttachments], context.attachments.c_str());
  log->SetNumber(record, id[kColumnFileSize], context.message_size);
  log->SetDouble(record, id[kColumnDuration], context.duration);
  log->SetDouble(record, id[kColumnAverageSpeed], context.average_speed);
  log->SetText(record, id[kColumnCopyPath], context.copy_path.c_str());
  log->SetText(record, id[kColumnProtocolPath], node ? NodeText(node->GetProtocolPath()) : L"");
  const wchar_t* group = node ? NodeText(node->GetGroup()) : L"";
  log->SetText(record, id[kColumnGroup], group);
  log->PostRecord(record);

  std::wstring summary;
  summary.reserve(sender.size() + receiver.size() + 4);
  summary.append(sender).append(L" To ").append(receiver);
  log->AddEntry(seconds, flow, L"Email", summary.c_str(), group);
}

}  // namespace pelka
