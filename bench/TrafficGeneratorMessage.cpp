#include "bench/TrafficGeneratorMessage.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace pelka {
namespace {

// Chinese phrases in UTF-8 and in GB2312 (the same bytes in GBK).
struct Phrase {
  std::string_view utf8;
  std::string_view gb;
};

constexpr Phrase kSubjects[] = {
    {"会议通知", "\xBB\xE1\xD2\xE9\xCD\xA8\xD6\xAA"},
    {"季度报告", "\xBC\xBE\xB6\xC8\xB1\xA8\xB8\xE6"},
    {"项目进度更新", "\xCF\xEE\xC4\xBF\xBD\xF8\xB6\xC8\xB8\xFC\xD0\xC2"},
    {"关于下周培训的安排", "\xB9\xD8\xD3\xDA\xCF\xC2\xD6\xDC\xC5\xE0\xD1\xB5\xB5\xC4\xB0\xB2\xC5\xC5"},
    {"合同草案", "\xBA\xCF\xCD\xAC\xB2\xDD\xB0\xB8"},
    {"请查收附件", "\xC7\xEB\xB2\xE9\xCA\xD5\xB8\xBD\xBC\xFE"},
    {"年度预算", "\xC4\xEA\xB6\xC8\xD4\xA4\xCB\xE3"},
    {"客户反馈汇总", "\xBF\xCD\xBB\xA7\xB7\xB4\xC0\xA1\xBB\xE3\xD7\xDC"},
    {"技术方案评审", "\xBC\xBC\xCA\xF5\xB7\xBD\xB0\xB8\xC6\xC0\xC9\xF3"},
    {"工作总结", "\xB9\xA4\xD7\xF7\xD7\xDC\xBD\xE1"},
};

constexpr Phrase kFileStems[] = {
    {"发票", "\xB7\xA2\xC6\xB1"},
    {"销售数据", "\xCF\xFA\xCA\xDB\xCA\xFD\xBE\xDD"},
    {"产品目录", "\xB2\xFA\xC6\xB7\xC4\xBF\xC2\xBC"},
    {"报价单", "\xB1\xA8\xBC\xDB\xB5\xA5"},
    {"测试报告", "\xB2\xE2\xCA\xD4\xB1\xA8\xB8\xE6"},
    {"合同草案", "\xBA\xCF\xCD\xAC\xB2\xDD\xB0\xB8"},
};

struct Person {
  Phrase name;           // empty: the person writes an English name
  std::string_view english;
  std::string_view user;
};

constexpr Person kPeople[] = {
    {{"张伟", "\xD5\xC5\xCE\xB0"}, "", "zhang.wei"},
    {{"王芳", "\xCD\xF5\xB7\xBC"}, "", "wangfang"},
    {{"李娜", "\xC0\xEE\xC4\xC8"}, "", "li.na"},
    {{"刘洋", "\xC1\xF5\xD1\xF3"}, "", "liuyang"},
    {{"陈静", "\xB3\xC2\xBE\xB2"}, "", "chen.jing"},
    {{"杨磊", "\xD1\xEE\xC0\xDA"}, "", "yanglei"},
    {{"赵敏", "\xD5\xD4\xC3\xF4"}, "", "zhao.min"},
    {{"黄磊", "\xBB\xC6\xC0\xDA"}, "", "huang.lei"},
    {{"周杰", "\xD6\xDC\xBD\xDC"}, "", "zhoujie"},
    {{"吴倩", "\xCE\xE2\xD9\xBB"}, "", "wu.qian"},
    {{}, "Alice Martin", "alice"},
    {{}, "Bob Keller", "bkeller"},
    {{}, "Carol Diaz", "carol.diaz"},
    {{}, "Dmitri Volkov", "dvolkov"},
    {{}, "Emma Stone-Hill", "emma"},
    {{}, "Frank Ober", "f.ober"},
};

constexpr std::string_view kDomains[] = {"example.com", "example.net", "example.org", "mail.example.cn",
                                         "corp.example.com", "example.edu"};

constexpr std::string_view kEnglishSubjects[] = {
    "Quarterly report", "Re: Project schedule", "Fwd: Invoice 2023-0173", "Meeting notes from Tuesday",
    "Re: Re: Budget review", "Updated price list", "Your order has shipped", "Weekly status"};

constexpr std::string_view kMailers[] = {"Pelka Mail 3.2.1", "QuickPost 7.1.2 [cn]", "Webmail 2.4",
                                         "Tiny Mailer 1.0", "Mobile Mail (build 2214)"};

// Words for the plain text part; none of them is a command word that the
// SMTP parser would take for the start of a body if it opened a segment.
constexpr std::string_view kWords[] = {
    "the",     "report", "meeting", "please", "review", "attached", "schedule", "next",    "week",
    "budget",  "team",   "project", "update", "thanks", "regards",  "customer", "invoice", "price",
    "numbers", "and",    "for",     "with",   "we",     "will",     "discuss",  "on",      "Monday",
    "final",   "draft",  "changes", "to",     "our",    "plan",     "before",   "friday",  "office"};

struct Attachment {
  std::string_view extension;
  std::string_view content_type;
};

constexpr Attachment kAttachmentKinds[] = {
    {"pdf", "application/pdf"},
    {"docx", "application/vnd.openxmlformats-officedocument.wordprocessingml.document"},
    {"xlsx", "application/vnd.openxmlformats-officedocument.spreadsheetml.sheet"},
    {"jpg", "image/jpeg"},
    {"zip", "application/zip"},
};

constexpr std::string_view kAsciiStems[] = {"report_2023Q3", "invoice_0173", "photo_0231", "minutes",
                                            "slides_final", "archive"};

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t kBase64Line = 76;

// The encoded-word forms a display name, subject or file name is written in.
enum class WordForm { kGb2312B, kGb2312Q, kGbkB, kGbkQ, kUtf8B, kUtf8Q };

std::string QuotedPrintableWord(std::string_view bytes) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : bytes) {
    if (c >= 0x80 || c == '=' || c == '?' || c == '_' || c == ' ') {
      out += '=';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

bool IsUtf8(WordForm form) { return form == WordForm::kUtf8B || form == WordForm::kUtf8Q; }

// `bytes` are in the form's character set.
std::string EncodedWord(std::string_view bytes, WordForm form) {
  switch (form) {
    case WordForm::kGb2312B: return "=?GB2312?B?" + Base64Encode(bytes) + "?=";
    case WordForm::kGb2312Q: return "=?gb2312?Q?" + QuotedPrintableWord(bytes) + "?=";
    case WordForm::kGbkB: return "=?GBK?B?" + Base64Encode(bytes) + "?=";
    case WordForm::kGbkQ: return "=?gbk?Q?" + QuotedPrintableWord(bytes) + "?=";
    case WordForm::kUtf8B: return "=?UTF-8?B?" + Base64Encode(bytes) + "?=";
    case WordForm::kUtf8Q: return "=?utf-8?q?" + QuotedPrintableWord(bytes) + "?=";
  }
  return {};
}

std::string EncodedWord(const Phrase& phrase, WordForm form) {
  return EncodedWord(IsUtf8(form) ? phrase.utf8 : phrase.gb, form);
}

WordForm RandomForm(TrafficRandom& random) { return static_cast<WordForm>(random.Below(6)); }

std::string Address(const Person& person, TrafficRandom& random) {
  return std::string(person.user) + "@" + std::string(random.Pick(kDomains));
}

Mailbox RandomMailbox(TrafficRandom& random) {
  const Person& person = random.Pick(kPeople);
  Mailbox mailbox{{}, Address(person, random)};
  if (random.Chance(0.15)) return mailbox;  // bare address
  if (!person.name.utf8.empty()) {
    mailbox.display = EncodedWord(person.name, RandomForm(random));
  } else {
    mailbox.display = random.Chance(0.5) ? "\"" + std::string(person.english) + "\"" : std::string(person.english);
  }
  return mailbox;
}

std::string FormatMailbox(const Mailbox& mailbox) {
  if (mailbox.display.empty()) return mailbox.address;
  return mailbox.display + " <" + mailbox.address + ">";
}

std::string FormatList(const std::vector<Mailbox>& list) {
  std::string out;
  for (size_t i = 0; i < list.size(); ++i) {
    if (i > 0) out += ",\r\n\t";
    out += FormatMailbox(list[i]);
  }
  return out;
}

// A date in November 2023 (the 1st was a Wednesday), China time.
std::string RandomDate(TrafficRandom& random) {
  static constexpr std::string_view kDays[] = {"Wed", "Thu", "Fri", "Sat", "Sun", "Mon", "Tue"};
  const unsigned day = static_cast<unsigned>(random.Between(1, 30));
  char text[64];
  std::snprintf(text, sizeof text, "%.*s, %u Nov 2023 %02u:%02u:%02u +0800",
                static_cast<int>(kDays[(day - 1) % 7].size()), kDays[(day - 1) % 7].data(), day,
                static_cast<unsigned>(random.Below(24)), static_cast<unsigned>(random.Below(60)),
                static_cast<unsigned>(random.Below(60)));
  return text;
}

std::string Hex(uint64_t value, int digits) {
  char text[24];
  std::snprintf(text, sizeof text, "%0*llX", digits, static_cast<unsigned long long>(value));
  return text;
}

std::string Subject(TrafficRandom& random) {
  if (random.Chance(0.4)) return std::string(random.Pick(kEnglishSubjects));
  const Phrase& phrase = random.Pick(kSubjects);
  std::string subject = random.Chance(0.2) ? "Re: " : "";
  return subject + EncodedWord(phrase, RandomForm(random));
}

std::string FileName(TrafficRandom& random, const Attachment& kind) {
  const std::string extension = "." + std::string(kind.extension);
  if (random.Chance(0.6)) return std::string(random.Pick(kAsciiStems)) + extension;
  const Phrase& stem = random.Pick(kFileStems);
  // File names in encoded words are written whole, extension inside.
  static constexpr WordForm kForms[] = {WordForm::kGb2312B, WordForm::kGbkB, WordForm::kUtf8B};
  const WordForm form = random.Pick(kForms);
  return EncodedWord(std::string(IsUtf8(form) ? stem.utf8 : stem.gb) + extension, form);
}

// Appends exactly `size` bytes of plain text lines.
void AppendText(TrafficRandom& random, std::string& out, size_t size) {
  while (size > 0) {
    std::string line;
    while (line.size() < 60) {
      if (!line.empty()) line += ' ';
      line += random.Pick(kWords);
    }
    line += "\r\n";
    if (line.size() > size || size - line.size() < 3) {
      // Last line: cut or widen to what is left; one byte left becomes a blank.
      line.assign(size >= 2 ? size - 2 : 0, 'x');
      if (size >= 2) line += "\r\n"; else line = " ";
    }
    out += line;
    size -= line.size();
  }
}

// Appends exactly `size` bytes: base64 lines of `source` bytes drawn on
// demand, then blank lines (or one blank) to make up the rest.
template <typename Source>
void AppendBase64Block(std::string& out, size_t size, Source&& source) {
  size_t chars = size * kBase64Line / (kBase64Line + 2) / 4 * 4;
  auto total = [](size_t c) { return c + 2 * ((c + kBase64Line - 1) / kBase64Line); };
  while (chars > 0 && total(chars) > size) chars -= 4;
  std::string raw;
  raw.reserve(chars / 4 * 3);
  while (raw.size() < chars / 4 * 3) source(raw);
  raw.resize(chars / 4 * 3);
  const std::string encoded = Base64Encode(raw);
  for (size_t at = 0; at < encoded.size(); at += kBase64Line) {
    out.append(encoded, at, kBase64Line);
    out += "\r\n";
  }
  size_t rest = size - total(chars);
  if (rest % 2) {
    out += ' ';
    --rest;
  }
  out.append(rest / 2 * 2, '\n');
  for (size_t i = out.size() - rest; i < out.size(); i += 2) out[i] = '\r';
}

std::string Headers(TrafficRandom& random, const MessageEnvelope& envelope, bool stored, const std::string& boundary) {
  std::string h;
  const std::string date = RandomDate(random);
  const std::string& first_to = envelope.to.front().address;
  if (stored) {
    h += "Return-Path: <" + envelope.from.address + ">\r\n";
    h += "Delivered-To: " + first_to + "\r\n";
    h += "Received: from mx" + std::to_string(random.Between(1, 9)) + ".example.net (mx.example.net [198.51.100." +
         std::to_string(random.Between(2, 250)) + "])\r\n\tby mail.example.com with ESMTPS id " +
         Hex(random.Next(), 10) + "\r\n\tfor <" + first_to + ">; " + date + "\r\n";
    h += "Received: from [10.1." + std::to_string(random.Below(256)) + "." + std::to_string(random.Between(1, 254)) +
         "] (unknown [203.0.113." + std::to_string(random.Between(1, 254)) +
         "])\r\n\tby mx.example.net with ESMTPSA; " + date + "\r\n";
  }
  h += "Date: " + date + "\r\n";
  h += "From: " + FormatMailbox(envelope.from) + "\r\n";
  h += "To: " + FormatList(envelope.to) + "\r\n";
  if (!envelope.cc.empty()) h += "Cc: " + FormatList(envelope.cc) + "\r\n";
  h += "Subject: " + Subject(random) + "\r\n";
  h += "Message-ID: <" + Hex(random.Next(), 16) + "." + Hex(random.Below(1u << 20), 5) + "@" +
       envelope.from.address.substr(envelope.from.address.find('@') + 1) + ">\r\n";
  if (random.Chance(0.6)) h += "X-Mailer: " + std::string(random.Pick(kMailers)) + "\r\n";
  if (random.Chance(0.3)) h += "X-Priority: 3\r\n";
  h += "MIME-Version: 1.0\r\n";
  h += "Content-Type: multipart/mixed;\r\n\tboundary=\"" + boundary + "\"\r\n";
  h += "\r\nThis is a multi-part message in MIME format.\r\n";
  return h;
}

// The text part's header; its body follows.
std::string TextPartHeader(bool chinese, bool utf8) {
  if (!chinese) return "Content-Type: text/plain; charset=us-ascii\r\nContent-Transfer-Encoding: 7bit\r\n\r\n";
  return std::string("Content-Type: text/plain; charset=\"") + (utf8 ? "utf-8" : "gb2312") +
         "\"\r\nContent-Transfer-Encoding: base64\r\n\r\n";
}

std::string AttachmentPartHeader(TrafficRandom& random) {
  const Attachment& kind = random.Pick(kAttachmentKinds);
  const std::string name = FileName(random, kind);
  return "Content-Type: " + std::string(kind.content_type) + ";\r\n\tname=\"" + name +
         "\"\r\nContent-Transfer-Encoding: base64\r\nContent-Disposition: attachment;\r\n\tfilename=\"" + name +
         "\"\r\n\r\n";
}

}  // namespace

std::string Base64Encode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const uint32_t v = static_cast<uint8_t>(bytes[i]) << 16 | static_cast<uint8_t>(bytes[i + 1]) << 8 |
                       static_cast<uint8_t>(bytes[i + 2]);
    out += kBase64Alphabet[v >> 18];
    out += kBase64Alphabet[(v >> 12) & 63];
    out += kBase64Alphabet[(v >> 6) & 63];
    out += kBase64Alphabet[v & 63];
  }
  if (i < bytes.size()) {
    uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    out += kBase64Alphabet[v >> 18];
    out += kBase64Alphabet[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? kBase64Alphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

MessageEnvelope RandomEnvelope(TrafficRandom& random) {
  MessageEnvelope envelope;
  envelope.from = RandomMailbox(random);
  const uint64_t receivers = random.Chance(0.7) ? 1 : random.Between(2, 4);
  for (uint64_t i = 0; i < receivers; ++i) envelope.to.push_back(RandomMailbox(random));
  if (random.Chance(0.3)) {
    const uint64_t copies = random.Between(1, 2);
    for (uint64_t i = 0; i < copies; ++i) envelope.cc.push_back(RandomMailbox(random));
  }
  return envelope;
}

std::string LoginName(const Mailbox& mailbox) { return mailbox.address; }

std::string BuildMessage(TrafficRandom& random, const MessageEnvelope& envelope, size_t size, bool stored) {
  size = std::max(size, kMinimumMessageSize);
  const std::string boundary = "----=_Part_" + std::to_string(random.Below(100000)) + "_" + Hex(random.Next(), 12);
  const std::string delimiter = "\r\n--" + boundary + "\r\n";
  const std::string closing = "\r\n--" + boundary + "--\r\n";
  std::string message = Headers(random, envelope, stored, boundary);
  const bool chinese = random.Chance(0.5);
  const bool utf8 = random.Chance(0.5);
  const std::string text_header = TextPartHeader(chinese, utf8);
  const size_t fixed = delimiter.size() + text_header.size();
  // The header fields stay well under kMinimumMessageSize; this only guards
  // against a future header outgrowing it.
  size = std::max(size, message.size() + closing.size() + fixed + 64);
  message.reserve(size);
  size_t left = size - message.size() - closing.size();
  size_t text = std::min<size_t>(left - fixed, random.Between(300, 4000));
  const size_t spare = left - fixed - text;
  const size_t attachments = spare < 4096 ? 0 : spare < 16384 ? 1 : random.Between(1, 3);
  if (attachments == 0) text = left - fixed;

  message += delimiter;
  message += text_header;
  if (chinese) {
    const Phrase& phrase = random.Pick(kSubjects);
    const std::string_view sentence = utf8 ? phrase.utf8 : phrase.gb;
    AppendBase64Block(message, text, [&](std::string& raw) {
      raw += sentence;
      raw += ". ";
    });
  } else {
    AppendText(random, message, text);
  }

  for (size_t i = 0; i < attachments; ++i) {
    const std::string part = AttachmentPartHeader(random);
    left = size - message.size() - closing.size();
    const size_t room = left - delimiter.size() - part.size();
    // Earlier attachments take a random share, the last one all that is left.
    const size_t body = i + 1 == attachments ? room : random.Between(room / 8, room / 2);
    message += delimiter;
    message += part;
    AppendBase64Block(message, body, [&](std::string& raw) {
      const uint64_t word = random.Next();
      raw.append(reinterpret_cast<const char*>(&word), sizeof word);
    });
  }
  message += closing;
  return message;
}

}  // namespace pelka
