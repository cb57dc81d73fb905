// The capture host's services driving the real module, loaded from the built
// library as the program loads it: frames go through the decoder and the flow
// tracker into HostServices, and the output files are checked line by line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "FrameBuilder.h"
#include "support/TempFile.h"
#include "capture/FlowTracker.h"
#include "capture/HostServices.h"
#include "capture/ModuleLoader.h"
#include "capture/PacketDecoder.h"

namespace pelka {
namespace {

using test::Bytes;
using test::Segment;

constexpr uint64_t kStart = 1'700'000'000'000'000;  // 2023-11-14 22:13:20 UTC
constexpr uint64_t kMs = 1000;

// What one side of the connection says, and when: milliseconds after kStart.
struct Say {
  bool client;
  std::string text;
  uint64_t ms;
};

// One TCP connection between 10.0.0.1:40000 (or 2001:db8::1) and port 25: a
// handshake at kStart, then what is said, as Ethernet frames through the
// decoder and the tracker.
void Converse(FlowSink* sink, bool ipv6, const std::vector<Say>& says) {
  PacketDecoder decoder;
  FlowTracker tracker(sink);
  Segment client = ipv6 ? test::Between(test::V6(1), 40000, test::V6(2), 25) : Segment{};
  test::TcpConnection tcp(client, 5000);
  uint64_t number = 0;
  const auto send = [&](bool from_client, uint8_t flags, const std::string& payload, uint64_t ms) {
    const Bytes frame = tcp.Send(from_client, flags, payload);
    DecodedPacket packet;
    ASSERT_EQ(decoder.Decode(kLinkEthernet, frame.data(), frame.size(), &packet), DecodeStatus::kTcp);
    tracker.OnPacket(packet, frame.data(), ++number, kStart + ms * kMs);
  };
  send(true, kTcpSyn, "", 0);
  send(false, kTcpSyn | kTcpAck, "", 1);
  send(true, kTcpAck, "", 2);
  for (const Say& say : says) send(say.client, kTcpAck | kTcpPsh, say.text, say.ms);
  tracker.Finish();
}

const std::string kMessage =
    "From: Alice <alice@example.com>\r\n"
    "To: Bob <bob@example.org>\r\n"
    "Subject: Hello, world\r\n"
    "Date: Mon, 2 Jan 2023 10:00:00 +0000\r\n"
    "X-Mailer: TestMailer 1.0\r\n"
    "\r\n"
    "Hi, Bob.\r\n"
    ".\r\n";

// A whole SMTP session carrying kMessage, cut into two packets two seconds
// apart.
std::vector<Say> SmtpSession() {
  return {{false, "220 mail.example.org ESMTP\r\n", 100}, {true, "EHLO client\r\n", 200},
          {false, "250 mail.example.org\r\n", 300},       {true, "MAIL FROM:<alice@example.com>\r\n", 400},
          {false, "250 OK\r\n", 500},                     {true, "RCPT TO:<bob@example.org>\r\n", 600},
          {false, "250 OK\r\n", 700},                     {true, "DATA\r\n", 800},
          {false, "354 go on\r\n", 900},                  {true, kMessage.substr(0, 40), 1000},
          {true, kMessage.substr(40), 3000},               {false, "250 queued\r\n", 3100},
          {true, "QUIT\r\n", 3200},                       {false, "221 bye\r\n", 3300}};
}

class HostServicesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    options_.out_dir = (out_ / "run").string();
  }

  // Runs the module over the conversation and finishes the run.
  HostRunCounts Run(const std::vector<Say>& says, bool ipv6 = false) {
    HostServices services(options_);
    EXPECT_TRUE(services.Open()) << services.error();
    std::string error;
    // Released before the services it holds.
    const std::unique_ptr<LoadedModule> module =
        LoadedModule::Load(std::string(PELKA_BINARY_DIR) + "/" + kModuleLibraryName, &error);
    if (!module) {
      ADD_FAILURE() << error;
      return {};
    }
    EXPECT_NE(services.StartModule(module->main_table()), nullptr);
    Converse(services.flow_sink(), ipv6, says);
    EXPECT_TRUE(services.FinishRun(module->main_table())) << services.error();
    return services.counts();
  }

  std::string Output(const std::string& name) const { return test::ReadWholeFile(out_ / "run" / name); }

  test::TempDir out_;
  HostOptions options_;
};

TEST_F(HostServicesTest, OneSmtpMessageGivesItsRecordEntryExportLinesAndStatistics) {
  const HostRunCounts counts = Run(SmtpSession());
  EXPECT_EQ(counts.records, 1u);
  EXPECT_EQ(counts.flows_bound, 1u);
  EXPECT_EQ(counts.diagnosis_reports, 0u);

  // The whole message was collected, end marker included, in two seconds.
  ASSERT_EQ(kMessage.size() % 2, 0u);
  const std::string size = std::to_string(kMessage.size());
  const std::string speed = std::to_string(kMessage.size() / 2) + ".0";
  EXPECT_EQ(Output("emails.jsonl"),
            "{\"email_number\": 1, \"timestamp\": \"2023-11-14 22:13:20\", \"protocol\": \"SMTP\", "
            "\"src_mac\": \"02:00:00:00:00:01\", \"src_ip4\": \"10.0.0.1\", \"src_port\": 40000, "
            "\"dst_mac\": \"02:00:00:00:00:02\", \"dst_ip4\": \"10.0.0.2\", \"dst_port\": 25, "
            "\"email_server\": \"10.0.0.2:25\", \"email_client\": \"10.0.0.1:40000\", "
            "\"email_sender\": \"Alice \", \"email_sender_email\": \"alice@example.com\", "
            "\"email_receiver\": \"Bob \", \"email_receive_email\": \"bob@example.org\", \"email_cc\": \"\", "
            "\"email_subject\": \"Hello, world\", \"email_sent_time\": \"Mon, 2 Jan 2023 10:00:00 +0000\", "
            "\"email_emailclient\": \"TestMailer 1.0\", \"email_account\": \"\", \"email_attachment\": \"\", "
            "\"email_filesize\": " + size + ", \"email_duration\": 2.0, \"email_averagespeed\": " + speed +
            ", \"email_file_path\": \"\", \"protocol_path\": \"ETH/IPv4/TCP/SMTP\", \"group\": \"\"}\n");
  EXPECT_EQ(Output("entries.jsonl"),
            "{\"time\": \"2023-11-14 22:13:20\", \"kind\": \"Email\", "
            "\"summary\": \"alice@example.com To bob@example.org\", \"group\": \"\"}\n");
  EXPECT_EQ(Output("statistics.json"), "{\"Email\": {\"SMTP\": {\"Count\": 1}, \"POP3\": {\"Count\": 0}, "
                                       "\"IMAP4\": {\"Count\": 0}}}\n");
  EXPECT_EQ(Output("diagnosis.jsonl"), "");

  // Every column in order, as written. Default captions (no string table);
  // commas inside values become fullwidth commas in the comma-separated form only.
  EXPECT_EQ(Output("email_log.csv"),
            "日期时间, 客户端地址, 客户端端口, 服务器地址, 服务器端口, 发送者, 发送邮件地址, 接收者, 接收邮件地址, "
            "抄送, 标题, 发送时间, 文件大小(字节), 协议, 邮件客户端, 帐户, 附件\r\n"
            "2023-11-14 22:13:20, 10.0.0.1, 40000, 10.0.0.2, 25, Alice , alice@example.com, Bob , bob@example.org, "
            ", Hello， world, Mon， 2 Jan 2023 10:00:00 +0000, " + size + ", SMTP, TestMailer 1.0, , \r\n");
  EXPECT_EQ(Output("email_log.txt"),
            "日期时间 客户端地址 客户端端口 服务器地址 服务器端口 发送者 发送邮件地址 接收者 接收邮件地址 "
            "抄送 标题 发送时间 文件大小(字节) 协议 邮件客户端 帐户 附件\r\n"
            "2023-11-14 22:13:20 10.0.0.1:40000 10.0.0.2:25 \"Alice \" alice@example.com \"Bob \" bob@example.org "
            "\"\" Hello, world Mon, 2 Jan 2023 10:00:00 +0000 " + size + " SMTP \"TestMailer 1.0\"  \"\"\r\n");
  EXPECT_FALSE(std::filesystem::exists(out_ / "run" / "email_copy"));
}

// The report line as written; the threshold and the switch are ProgramTest's
// (ThresholdsSwitchAndLanguageDecideTheSlowReplyReport) and HostDiagnosis's, the
// threshold's edge ResponseChecksTest's.
TEST_F(HostServicesTest, ASlowReplyIsReportedInOneLine) {
  // The reply, packet 6, comes 450 ms after packet 5; the threshold is 200 ms.
  const HostRunCounts counts =
      Run({{false, "220 ready\r\n", 100}, {true, "EHLO client\r\n", 200}, {false, "250 hello\r\n", 650}});
  EXPECT_EQ(counts.diagnosis_reports, 1u);
  EXPECT_EQ(counts.reports_by_event.at("SMTPServerSlowResponseTime"), 1u);
  EXPECT_EQ(Output("diagnosis.jsonl"),
            "{\"event\": \"SMTPServerSlowResponseTime\", \"title\": \"SMTP 服务器慢响应\", "
            "\"text\": \"SMTP Server  Slow Response#(数据包 [5] 与数据包 [6] 相隔450ms)\", \"codes\": [1, 1], "
            "\"packet\": 6, \"time\": 1700000000650000, \"related_packet\": 5, "
            "\"client\": \"10.0.0.1:40000\", \"server\": \"10.0.0.2:25\"}\n");
}

TEST_F(HostServicesTest, Ipv6FlowsShowTheirAddressTexts) {
  Run(SmtpSession(), true);
  const std::string record = Output("emails.jsonl");
  EXPECT_NE(record.find("\"src_ip4\": \"2001:db8::1\", \"src_port\": 40000"), std::string::npos) << record;
  EXPECT_NE(record.find("\"dst_ip4\": \"2001:db8::2\", \"dst_port\": 25"), std::string::npos) << record;
  EXPECT_NE(record.find("\"protocol_path\": \"ETH/IPv6/TCP/SMTP\""), std::string::npos) << record;
  EXPECT_NE(record.find("\"email_server\": \"[2001:db8::2]:25\", \"email_client\": \"[2001:db8::1]:40000\""),
            std::string::npos)
      << "the module's endpoints come from the flow's address texts: " << record;
}

}  // namespace
}  // namespace pelka
