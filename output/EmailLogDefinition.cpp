// The email log: its columns, their identifiers and its two storage kinds.
#include <array>

#include <algorithm>

#include "host/LogInterfaces.h"
#include "output/EmailLogColumns.h"
#include "output/EmailLogExport.h"
#include "output/EmailRecordWriter.h"

namespace pelka {
namespace {

constexpr uint32_t kEmailLogCapacity = 0x200000;

// Column flags, as the host defines them.
enum : uint32_t {
  kFlagsPlain = 0x001,
  kFlagsHidden = 0x010,
  kFlagsEndpoint = 0x021,
  kFlagsAttachment = 0x081,
  kFlagsText = 0x0A1,
  kFlagsStandard = 0x201,
  kFlagsCopyPath = 0x2C1,
};

// The slot of a standard column, which has no identifier of the module's.
constexpr size_t kStandardColumn = kEmailLogColumnCount;

struct ColumnDefinition {
  const char* key;               // null for a standard column
  size_t slot;                   // EmailLogColumn of a keyed column
  uint32_t standard_field;       // kLogField..., for a standard column
  const wchar_t* caption_id;     // null: empty caption
  const wchar_t* default_caption;
  uint32_t value_kind;           // keyed columns only
  uint32_t width;
  uint32_t flags;
};

// The 27 columns in position order (EmailLogPosition).
constexpr std::array<ColumnDefinition, kEmailLogPositionCount> kColumns = {{
    {"email_number", kColumnNumber, 0, L"IDS_SN", L"序号", kLogValueNumber, 80, kFlagsPlain},
    {nullptr, kStandardColumn, kLogFieldDateTime, L"IDS_DATE_TIME", L"日期时间", 0, 140, kFlagsPlain},
    {"protocol", kColumnProtocol, 0, L"IDS_PTL", L"协议", kLogValueText, 80, kFlagsEndpoint},
    {nullptr, kStandardColumn, kLogFieldClientMac, L"IDS_CLIENT_MAC", L"客户端物理地址", 0, 120, kFlagsStandard},
    {nullptr, kStandardColumn, kLogFieldClientAddress, L"IDS_CLIENT_ADDR", L"客户端地址", 0, 120, kFlagsStandard},
    {nullptr, kStandardColumn, kLogFieldClientPort, L"IDS_CLIENT_PORT", L"客户端端口", 0, 80, kFlagsStandard},
    {nullptr, kStandardColumn, kLogFieldServerMac, L"IDS_SERVER_MAC", L"服务器物理地址", 0, 120, kFlagsStandard},
    {nullptr, kStandardColumn, kLogFieldServerAddress, L"IDS_SERVER_ADDR", L"服务器地址", 0, 120, kFlagsStandard},
    {nullptr, kStandardColumn, kLogFieldServerPort, L"IDS_SERVER_POT", L"服务器端口", 0, 80, kFlagsStandard},
    {"email_server", kColumnServer, 0, L"IDS_SERVER", L"服务端", kLogValueText, 150, kFlagsEndpoint},
    {"email_client", kColumnClient, 0, L"IDS_CLIENT", L"客户端", kLogValueText, 150, kFlagsEndpoint},
    {"email_sender", kColumnSender, 0, L"IDS_SENDER", L"发送者", kLogValueText, 80, kFlagsText},
    {"email_sender_email", kColumnSenderAddress, 0, L"IDS_SEND_ADDR", L"发送邮件地址", kLogValueText, 200, kFlagsText},
    {"email_receiver", kColumnReceiver, 0, L"IDS_RECEIVER", L"接收者", kLogValueText, 80, kFlagsText},
    {"email_receive_email", kColumnReceiverAddress, 0, L"IDS_RECV_ADDR", L"接收邮件地址", kLogValueText, 200, kFlagsText},
    {"email_cc", kColumnCc, 0, L"IDS_COPYTO", L"抄送", kLogValueText, 300, kFlagsText},
    {"email_subject", kColumnSubject, 0, L"IDS_TITLE", L"标题", kLogValueText, 200, kFlagsText},
    {"email_sent_time", kColumnSentTime, 0, L"IDS_SEND_TIME", L"发送时间", kLogValueText, 180, kFlagsPlain},
    {"email_emailclient", kColumnMailer, 0, L"IDS_EMAIL_CLIENT", L"邮件客户端", kLogValueText, 100, kFlagsPlain},
    {"email_account", kColumnAccount, 0, L"IDS_ACCOUNT", L"帐户", kLogValueText, 100, kFlagsText},
    {"email_attachment", kColumnAttachments, 0, L"IDS_ADDITIONAL", L"附件", kLogValueText, 300, kFlagsAttachment},
    {"email_filesize", kColumnFileSize, 0, L"IDS_FILE_SIZE", L"文件大小(字节)", kLogValueNumber, 100, kFlagsPlain},
    {"email_duration", kColumnDuration, 0, L"IDS_DURATION_TIME", L"持续时间(s)", kLogValueDouble, 100, kFlagsPlain},
    {"email_averagespeed", kColumnAverageSpeed, 0, L"IDS_AVG_SPEED", L"平均速度(B/S)", kLogValueDouble, 100, kFlagsPlain},
    {"email_file_path", kColumnCopyPath, 0, L"IDS_MAIL_COPY_PATH", L"存放邮件副本路径", kLogValueText, 200, kFlagsCopyPath},
    {"protocol_path", kColumnProtocolPath, 0, nullptr, nullptr, kLogValueText, 0, kFlagsHidden},
    {"group", kColumnGroup, 0, nullptr, nullptr, kLogValueText, 0, kFlagsHidden},
}};

// The hidden columns close the declaration; the host marks them so.
bool IsFinalColumn(const ColumnDefinition& option) { return option.caption_id == nullptr; }

}  // namespace

CEmailRecordWriter::CEmailRecordWriter(ITextSource& texts) : texts_(texts) {
  std::fill(std::begin(column_ids_), std::end(column_ids_), kNoColumn);
}

void CEmailRecordWriter::DefineEmailLog(int32_t icon_index) {
  if (!log_service_) return;
  ITextSource& strings = texts_;
  std::wstring caption;

  IPelkaLog* log = nullptr;
  strings.GetString(caption, L"IDS_EMAIL_INFO", L"Email信息");
  if (log_service_->CreateLog("email_flow", caption.c_str(), kEmailLogCapacity, icon_index, &log) != 0) return;
  if (!log) return;
  email_log_ = log;

  uint16_t combined = 0;
  for (const ColumnDefinition& option : kColumns) {
    caption.clear();
    if (option.caption_id) strings.GetString(caption, option.caption_id, option.default_caption);
    if (!option.key) {
      log->AddStandardColumn(caption.c_str(), option.standard_field, option.width, option.flags);
      continue;
    }
    const uint16_t id =
        log->AddColumn(option.key, caption.c_str(), option.value_kind, option.width, option.flags, IsFinalColumn(option));
    column_ids_[option.slot] = id;
    combined |= id;
  }
  // A refused column comes back with the top bit set (0xFFFF): the
  // declaration is then left open.
  if (static_cast<int16_t>(combined) >= 0) log->EndColumns();

  strings.GetString(caption, L"IDS_EMAIL_LOG", L"邮件日志");
  log->AddStorage("log_email", "log_email", "email", caption.c_str(), &FormatEmailLogLines);
  strings.GetString(caption, L"IDS_EMAIL_COPY", L"Email Copy");
  log->AddStorage("email_copy", "email_copy", "-", caption.c_str(), nullptr);
}

}  // namespace pelka
