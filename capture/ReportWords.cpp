#include "capture/ReportWords.h"

#include <cstring>
#include <utility>

namespace report {
namespace {

const std::pair<const char*, const char*> kChinese[] = {
    {"E-mail messages: ", "电子邮件："},
    {"Run", "运行"},
    {"Captures", "捕获"},
    {"Messages", "邮件"},
    {"no messages", "无邮件"},
    {" to ", " 至 "},
    {"Diagnosis reports", "诊断报告"},
    {"Packets", "数据包"},
    {"Read", "读取"},
    {" in ", "，用时 "},
    {"not known here", "此处未知"},
    {"Dropped by the kernel", "内核丢弃"},
    {"not a live capture", "非实时捕获"},
    {"Ended", "结束"},
    {"stopped by a signal or a limit", "因信号或限制而停止"},
    {"at the end of the input", "输入结束"},
    {"Messages over time", "邮件随时间分布"},
    {"messages", "封邮件"},
    {"Who and what", "发件人、收件人与附件"},
    {"Top senders", "发件最多的发件人"},
    {"Top receivers", "收件最多的收件人"},
    {"Top sender domains", "发件最多的域"},
    {"Top receiver domains", "收件最多的域"},
    {"Attachments by type", "附件类型"},
    {"Sender", "发件人"},
    {"Receiver", "收件人"},
    {"Domain", "域"},
    {"Type", "类型"},
    {"Count", "数量"},
    {"None.", "无。"},
    {"Diagnosis", "诊断"},
    {"slow reply", "慢响应"},
    {"error", "错误"},
    {"other", "其他"},
    {"reports (capture time, UTC)", "份报告（捕获时间，UTC）"},
    {"Per server", "按服务器"},
    {"Server", "服务器"},
    {"Slow replies", "慢响应"},
    {"Errors", "错误"},
    {"Other reports", "其他报告"},
    {"(unknown)", "（未知）"},
    {"Reply times per server", "各服务器响应时间"},
    {"None. (Reply times are kept in emails.sqlite; runs with --no-db have none.)",
     "无。（响应时间保存在 emails.sqlite 中；使用 --no-db 的运行没有。）"},
    {"From the client's last data packet to the server's next one.", "从客户端最后一个数据包到服务器的下一个数据包。"},
    {"Replies", "响应"},
    {"under 10 ms", "10 毫秒以内"},
    {"10-100 ms", "10-100 毫秒"},
    {"0.1-1 s", "0.1-1 秒"},
    {"1-10 s", "1-10 秒"},
    {"10 s or more", "10 秒及以上"},
    {"Spread", "分布"},
    {"The newest %1 of %2 messages are shown; emails.jsonl and email_log.csv beside this page hold them all.",
     "显示最新的 %1 封（共 %2 封）；本页旁的 emails.jsonl 和 email_log.csv 包含全部邮件。"},
    {"Filter by any text", "按任意文字筛选"},
    {"Filter messages", "筛选邮件"},
    {"%1 shown", "显示 %1 封"},
    {"%1 of %2 shown", "显示 %1 封（共 %2 封）"},
    {"Time", "时间"},
    {"Protocol", "协议"},
    {"From", "发件人"},
    {"To", "收件人"},
    {"Subject", "主题"},
    {"Size (bytes)", "大小（字节）"},
    {"Attachments", "附件"},
    {"Copy", "副本"},
    {"Made by pelka-email. Times are local (%1) unless marked otherwise.",
     "由 pelka-email 生成。除另有标注外，时间均为本地时间（%1）。"},
    {"at most per bar", "（每条最多）"},
    {"per", "每"},
    {"min", "分钟"},
    {"day(s)", "天"},
    {"pelka-email report", "pelka-email 报告"},
    {"Seen but not recorded", "已看到但未记录"},
    {"Mail traffic the analysis saw go by without recording it, and why; notices.jsonl holds every notice.",
     "分析看到但未记录的邮件流量及其原因；notices.jsonl 包含全部通知。"},
    {"Notices by kind", "按类型统计的通知"},
    {"Kind", "类型"},
    {"Client", "客户端"},
    {"Packet", "数据包"},
    {"What", "说明"},
    {"%1 attachments; attachments.jsonl holds them all, and attachments/ each file once, named by its SHA-256.",
     "%1 个附件；attachments.jsonl 包含全部附件，attachments/ 中每个文件只存一份，以其 SHA-256 命名。"},
    {"Attachments by detected type", "按检测类型统计的附件"},
    {"Largest", "最大的附件"},
    {"Type mismatches", "类型不符"},
    {"On the hash list", "在哈希列表中"},
    {"File name", "文件名"},
    {"Declared type", "声明类型"},
    {"Detected type", "检测类型"},
};

}  // namespace

std::string Words::operator()(const char* english) const {
  if (!chinese_) return english;
  for (const auto& [from, to] : kChinese) {
    if (std::strcmp(from, english) == 0) return to;
  }
  return english;
}

std::string Words::operator()(const char* english, const std::string& first, const std::string& second) const {
  std::string text = (*this)(english);
  for (const auto& [mark, value] : {std::pair<const char*, const std::string&>{"%1", first}, {"%2", second}}) {
    if (const size_t at = text.find(mark); at != std::string::npos) text.replace(at, 2, value);
  }
  return text;
}

}  // namespace report
