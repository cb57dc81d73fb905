// Attachments taken out of hand-made messages: which parts, their names and
// decoded bytes, the bounds on hostile structure, the hashes and types told
// of the bytes, the store that keeps each file once, and the queue that
// hands the messages to the taker's thread.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>
#include <optional>
#include <string>
#include <vector>

#include "capture/AttachmentQueue.h"
#include "capture/AttachmentStore.h"
#include "capture/ContentTypeDetector.h"
#include "capture/FileHashes.h"
#include "capture/MessageParts.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

namespace fs = std::filesystem;

// Copies are stored with CRLF line ends, as they were sent.
std::string Crlf(std::string_view text) {
  std::string out;
  for (char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

const std::string kPng("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\0\x01\0\0\0\x01\x08\x02\0\0\0", 29);
const std::string kPngBase64 = "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAIAAAA=";
// The start of a DOS program: what hides behind an ".pdf" that runs.
const std::string kProgram = std::string("MZ\x90\0\x03\0\0\0\x04\0\0\0\xff\xff\0\0", 16) + std::string(64, '\0');
const std::string kProgramBase64 =
    "TVqQAAMAAAAEAAAA//8AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";

std::string Attachment(const std::string& boundary, const std::string& headers, const std::string& body) {
  return "--" + boundary + "\n" + headers + "\n\n" + body + "\n";
}

// A message whose attachment sits `levels` multiparts deep (none of them ended).
std::string Nested(int levels) {
  std::string message;
  for (int level = 0; level < levels; ++level) {
    const std::string boundary = "b" + std::to_string(level);
    message += "Content-Type: multipart/mixed; boundary=\"" + boundary + "\"\n\n--" + boundary + "\n";
  }
  return message + "Content-Disposition: attachment; filename=\"deep.txt\"\n\ndeep";
}

// `count` attachments of one byte each.
std::string Several(int count) {
  std::string message = "Content-Type: multipart/mixed; boundary=\"s\"\n\n";
  for (int i = 0; i < count; ++i) message += Attachment("s", "Content-Type: application/x-part", std::to_string(i));
  return message + "--s--\n";
}

// A message sent inside another, with an attachment of its own.
const std::string kForwarded =
    "Subject: inner\nContent-Type: multipart/mixed; boundary=\"in\"\n\n" +
    Attachment("in", "Content-Type: text/plain", "inner body") +
    Attachment("in",
               "Content-Type: text/plain; name=\"notes.txt\"\nContent-Disposition: attachment\n"
               "Content-Transfer-Encoding: quoted-printable",
               "caf=C3=A9 costs 3=3D3=\n euros") +
    "--in--";

struct Expected {
  std::string name;
  std::string type;
  std::string content;
};

struct MessageCase {
  const char* name;
  std::string message;
  std::vector<Expected> parts;
  PartCuts cuts;
  PartLimits limits = {};
};

TEST(AttachmentPartsTest, TakesTheFilesOutOfMessages) {
  const MessageCase cases[] = {
      {"nested multiparts, a forwarded message inside",
       "Subject: nested\nMIME-Version: 1.0\nContent-Type: multipart/mixed; boundary=\"outer\"\n\npreamble\n" +
           Attachment("outer", "Content-Type: multipart/alternative; boundary=\"alt\"",
                      Attachment("alt", "Content-Type: text/plain", "body") +
                          Attachment("alt", "Content-Type: text/html", "<p>body</p>") + "--alt--") +
           Attachment("outer", "Content-Type: multipart/related; boundary=\"rel\"",
                      Attachment("rel", "Content-Type: IMAGE/PNG\nContent-Transfer-Encoding: base64", kPngBase64) +
                          "--rel--") +
           Attachment("outer", "Content-Type: message/rfc822\nContent-Disposition: attachment; filename=\"fwd.txt\"",
                      kForwarded) +
           Attachment("outer",
                      "Content-Type: application/pdf\nContent-Disposition: attachment; filename=\"invoice.pdf\"\n"
                      "Content-Transfer-Encoding: base64",
                      kProgramBase64) +
           "--outer--\n",
       {{"", "image/png", kPng},
        {"fwd.txt", "message/rfc822", Crlf(kForwarded) + "\r\n"},
        {"notes.txt", "text/plain", "caf\xc3\xa9 costs 3=3 euros"},
        {"invoice.pdf", "application/pdf", kProgram}},
       {}},
      {"forwarded messages in base64, and in text that only claims to be base64",
       "Content-Type: multipart/mixed; boundary=\"f\"\n\n" +
           Attachment("f", "Content-Type: message/rfc822\nContent-Transfer-Encoding: base64",
                      "Q29udGVudC1EaXNwb3NpdGlvbjogYXR0YWNobWVudDsgZmlsZW5hbWU9YS5iaW4KCmlubmVy") +
           Attachment("f", "Content-Type: message/rfc822; name=\"innocent.txt\"\nContent-Transfer-Encoding: base64",
                      "Content-Type: application/octet-stream; name=\"malware.exe\"\n\nMZ payload") +
           "--f--\n",
       {{"a.bin", "application/octet-stream", "inner"},
        {"innocent.txt", "message/rfc822",
         Crlf("Content-Type: application/octet-stream; name=\"malware.exe\"\n\nMZ payload")},
        {"malware.exe", "application/octet-stream", "MZ payload"}},
       {}},
      {"names in RFC 2231 and RFC 2047, a part without a type",
       "Content-Type: multipart/mixed; boundary=\"n\"\n\n" +
           Attachment("n", "Content-Disposition: attachment; filename*0*=iso-8859-1''%E4rger; filename*1=\".txt\"",
                      "1") +
           Attachment("n", "Content-Type: text/csv; name*=UTF-8''%E2%82%AC%20rates.csv", "2") +
           Attachment("n", "Content-Type: application/msword; name=\"=?windows-1251?B?0e/o8e7q?=.doc\"", "3") +
           Attachment("n", "Content-Disposition: attachment; filename*0=\"long\"; filename*1=\"name.bin\"", "4") +
           "--n--\n",
       {{"\xc3\xa4rger.txt", "application/octet-stream", "1"},
        {"\xe2\x82\xac rates.csv", "text/csv", "2"},
        {"\xd0\xa1\xd0\xbf\xd0\xb8\xd1\x81\xd0\xbe\xd0\xba.doc", "application/msword", "3"},
        {"longname.bin", "application/octet-stream", "4"}},
       {}},
      {"base64 cut short, with foreign bytes, going on after its end, no end boundary",
       "Content-Type: multipart/mixed; boundary=\"m\"\n\n" +
           Attachment("m", "Content-Type: application/x-a\nContent-Transfer-Encoding: base64", "aGVsbG8sIHdvcmxkC") +
           Attachment("m", "Content-Type: application/x-b\nContent-Transfer-Encoding: base64",
                      "aGVs*bG8sIHdv\ncmxkCg==") +
           Attachment("m", "Content-Type: application/x-e\nContent-Transfer-Encoding: base64", "aGk=\naGk=") +
           Attachment("m", "Content-Type: application/x-c\nContent-Transfer-Encoding: base64", "aGVsbG8sIHdvcmxkCg=="),
       {{"", "application/x-a", "hello, world"},
        {"", "application/x-b", "hello, world\n"},
        {"", "application/x-e", "hi"},
        {"", "application/x-c", "hello, world\n"}},
       {.malformed = 3}},
      {"garbage", std::string("\0\xff\x01--\n\n--\n\n\x80", 12), {}, {}},
      {"leaf at the depth bound", Nested(5), {{"deep.txt", "application/octet-stream", "deep"}}, {}, {.max_depth = 5}},
      {"leaf below the depth bound", Nested(6), {}, {.too_deep = 1}, {.max_depth = 5}},
      {"parts beyond the part bound", Several(5),
       {{"", "application/x-part", "0"}, {"", "application/x-part", "1"}, {"", "application/x-part", "2"}},
       {.too_many = 2}, {.max_parts = 4}},
      // Four parts are read (up to the fifth boundary line), the rest counts as one.
      {"a message with many more parts read in part", Several(8), {}, {.too_many = 4 + 1}, {.max_parts = 1}},
      // The same inside a message in base64, which hides its boundary lines: of nine parts the first six are
      // read, one of them within the bound.
      {"a message inside with many more parts read in part",
       "Content-Type: multipart/mixed; boundary=\"f\"\n\n" +
           Attachment("f", "Content-Type: message/rfc822\nContent-Transfer-Encoding: base64",
                      "Q29udGVudC1UeXBlOiBtdWx0aXBhcnQvbWl4ZWQ7IGJvdW5kYXJ5PXMKCi0tcwoKMAotLXMKCjEKLS1zCgoyCi0tcwoKMwotLXMK"
                      "CjQKLS1zCgo1Ci0tcwoKNgotLXMKCjcKLS1zCgo4Ci0tcy0tCg==") +
           "--f--\n",
       {}, {.too_many = 5 + 1}, {.max_parts = 4}},
      {"parts beyond the byte bound",
       "Content-Type: multipart/mixed; boundary=\"y\"\n\n" +
           Attachment("y", "Content-Type: image/png\nContent-Transfer-Encoding: base64", kPngBase64) +
           Attachment("y", "Content-Type: application/x-d", "hello, world") +
           Attachment("y", "Content-Type: application/x-e", "!") + "--y--\n",
       {{"", "image/png", kPng}, {"", "application/x-d", "hello, world"}},
       {.too_big = 1}, {.max_bytes = 29 + 12}},
  };
  for (const MessageCase& c : cases) {
    SCOPED_TRACE(c.name);
    const MessageParts taken = TakeMessageParts(Crlf(c.message), c.limits);
    ASSERT_EQ(taken.parts.size(), c.parts.size());
    for (size_t i = 0; i < c.parts.size(); ++i) {
      SCOPED_TRACE("part " + std::to_string(i + 1));
      EXPECT_EQ(taken.parts[i].index, i + 1);
      EXPECT_EQ(taken.parts[i].file_name, c.parts[i].name);
      EXPECT_EQ(taken.parts[i].declared_type, c.parts[i].type);
      EXPECT_EQ(taken.parts[i].content, c.parts[i].content);
    }
    EXPECT_EQ(taken.cuts.too_deep, c.cuts.too_deep);
    EXPECT_EQ(taken.cuts.too_many, c.cuts.too_many);
    EXPECT_EQ(taken.cuts.too_big, c.cuts.too_big);
    EXPECT_EQ(taken.cuts.malformed, c.cuts.malformed);
  }
}

// Hashes as sha256sum, sha1sum and md5sum print them, and the type told of
// the bytes against the declared one; rows without bytes give the detection.
TEST(AttachmentPartsTest, HashesAndTypesOfTheBytes) {
  struct Case {
    const char* name;
    std::optional<std::string> bytes;
    const char* declared;
    const char* detected;
    bool disagree;
    FileHashes hashes;
  };
  const char* kScript = "#!/bin/sh\nrm -rf ~\n";
  const Case cases[] = {
      {"a program declared as a PDF", kProgram, "application/pdf", "application/x-dosexec", true,
       {"4fc083a67a4b6f8f5a628625728521a5", "30ac8c9f4774290538fd34fbf3ff0eee12d9b3bc",
        "860eacd2997a0be759fe760bcd6e139c2ead3fd7e5928eb1ee1c3a61cb3bd66f"}},
      {"a program sent as bytes", kProgram, "application/octet-stream", "application/x-dosexec", false, {}},
      {"a picture", kPng, "image/png", "image/png", false,
       {"f7a93f4b3e6d74a5439940e1d616cd0b", "38f71554f1c24ac542113b10c0a0e6895b1541d9",
        "4d2d6e1e125088bb80b839944f31934e3a7707049a84c68fd54122bc20437c7f"}},
      {"a script declared as a picture", kScript, "image/jpeg", "text/x-shellscript", true, {}},
      {"a script declared as text", kScript, "text/plain", "text/x-shellscript", false, {}},
      {"nothing", "", "text/plain", "application/x-empty", false,
       {"d41d8cd98f00b204e9800998ecf8427e", "da39a3ee5e6b4b0d3255bfef95601890afd80709",
        "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"}},
      {"an office file is a zip", {}, "application/vnd.openxmlformats-officedocument.wordprocessingml.document",
       "application/zip", false, {}},
      {"an old office file is a compound file", {}, "application/msword", "application/CDFV2", false, {}},
      {"an archive declared as a picture", {}, "image/png", "application/zip", true, {}},
  };
  std::string error;
  const auto detector = ContentTypeDetector::Open(&error);
  ASSERT_TRUE(detector) << error;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.bytes) {
      EXPECT_EQ(detector->Detect(*c.bytes), c.detected);
    }
    EXPECT_EQ(TypesDisagree(c.declared, c.detected), c.disagree);
    if (c.hashes.sha256.empty()) continue;
    const FileHashes hashes = HashBytes(*c.bytes);
    EXPECT_EQ(hashes.md5, c.hashes.md5);
    EXPECT_EQ(hashes.sha1, c.hashes.sha1);
    EXPECT_EQ(hashes.sha256, c.hashes.sha256);
  }
}

class AttachmentStoreTest : public ::testing::Test {
 protected:
  static mode_t Mode(const fs::path& path) {
    struct stat info {};
    ::lstat(path.c_str(), &info);
    return info.st_mode & 07777;
  }
  test::TempDir dir_;
  const fs::path out_ = dir_.path();
  const std::string out_dir_ = out_.string() + "/";
};

// A run stopped while writing a file through a temporary name leaves it
// behind; the next run into the folder removes it and keeps the rest.
TEST_F(AttachmentStoreTest, RemovesTheFilesAStoppedRunLeftHalfWritten) {
  fs::create_directory(out_ / "attachments");
  test::WriteWholeFile(out_ / "attachments" / ".partial-7-0", "half");
  test::WriteWholeFile(out_ / "attachments" / "kept", "whole");
  std::string error;
  ASSERT_TRUE(AttachmentStore::Open(out_dir_, &error)) << error;
  EXPECT_FALSE(fs::exists(out_ / "attachments" / ".partial-7-0"));
  EXPECT_TRUE(fs::exists(out_ / "attachments" / "kept"));
}

// The same file attached twice (under two names) is written once, 0600,
// under its hash, into a 0750 folder.
TEST_F(AttachmentStoreTest, KeepsEachFileOnceUnderItsHash) {
  const std::string message = Crlf(
      "Content-Type: multipart/mixed; boundary=\"d\"\n\n" +
      Attachment("d", "Content-Type: image/png; name=\"a.png\"\nContent-Transfer-Encoding: base64", kPngBase64) +
      Attachment("d", "Content-Type: image/png; name=\"b.png\"\nContent-Transfer-Encoding: base64", kPngBase64) +
      "--d--\n");
  std::string error;
  const auto store = AttachmentStore::Open(out_dir_, &error);
  ASSERT_TRUE(store) << error;
  const MessageParts taken = TakeMessageParts(message);
  ASSERT_EQ(taken.parts.size(), 2u);
  const std::string sha256 = "4d2d6e1e125088bb80b839944f31934e3a7707049a84c68fd54122bc20437c7f";
  for (const MessagePart& part : taken.parts)
    EXPECT_EQ(store->Store(HashBytes(part.content).sha256, part.content), "attachments/" + sha256);
  EXPECT_EQ(store->stored(), 1u);
  EXPECT_EQ(store->duplicates(), 1u);
  EXPECT_EQ(test::ReadWholeFile(out_ / "attachments" / sha256), kPng);
  EXPECT_EQ(Mode(out_ / "attachments" / sha256), 0600u);
  EXPECT_EQ(Mode(out_ / "attachments"), 0750u);
  EXPECT_EQ(std::distance(fs::directory_iterator(out_ / "attachments"), fs::directory_iterator()), 1);
}

// A link in place of the folder is refused; a name that is not a hash, and
// a link under an attachment's name, are failures that write nothing.
TEST_F(AttachmentStoreTest, NeverWritesThroughLinksOrByOtherNames) {
  fs::create_directory(out_ / "elsewhere");
  fs::create_directory_symlink(out_ / "elsewhere", out_ / "attachments");
  std::string error;
  EXPECT_FALSE(AttachmentStore::Open(out_dir_, &error));
  EXPECT_NE(error.find("symbolic link"), std::string::npos) << error;
  fs::remove(out_ / "attachments");

  const auto store = AttachmentStore::Open(out_dir_, &error);
  ASSERT_TRUE(store) << error;
  const std::string sha256(64, 'a');
  fs::create_symlink(out_ / "elsewhere" / "target", out_ / "attachments" / sha256);
  EXPECT_EQ(store->Store(sha256, kPng), "");
  EXPECT_EQ(store->Store("../escape", kPng), "");
  EXPECT_EQ(store->failures(), 2u);
  EXPECT_EQ(store->stored(), 0u);
  EXPECT_FALSE(fs::exists(out_ / "elsewhere" / "target"));
  EXPECT_FALSE(fs::exists(out_ / "escape"));
}


// Several threads take the messages, the first the slowest, yet they come
// out in the order they came; the poster is held while the queue is full,
// and Finish returns once the last is out.
TEST(AttachmentQueueTest, EmitsInOrderAndHoldsThePosterAtTheBound) {
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;
  std::vector<uint64_t> emitted;
  AttachmentQueue queue(
      3,
      [&](const QueuedMessage& message) {
        if (message.email_number == 0) {
          std::unique_lock<std::mutex> lock(mutex);
          opened.wait(lock, [&] { return open; });
        }
        TakenMessage taken;
        taken.rows.emplace_back().email_number = message.email_number;
        return taken;
      },
      [&](const TakenMessage& taken) { emitted.push_back(taken.rows.at(0).email_number); });
  constexpr uint64_t kCount = AttachmentQueue::kMaxItems + 2;
  std::atomic<uint64_t> pushed{0};
  std::thread poster([&] {
    for (uint64_t number = 0; number < kCount; ++number) {
      queue.Push(number, "x");
      ++pushed;
    }
  });
  for (int waited = 0; pushed < AttachmentQueue::kMaxItems && waited < 1000; ++waited)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(pushed.load(), AttachmentQueue::kMaxItems);
  {
    const std::lock_guard<std::mutex> lock(mutex);
    EXPECT_TRUE(emitted.empty());
    open = true;
  }
  opened.notify_all();
  poster.join();
  queue.Finish();
  std::vector<uint64_t> expected;
  for (uint64_t number = 0; number < kCount; ++number) expected.push_back(number);
  EXPECT_EQ(emitted, expected);
}

}  // namespace
}  // namespace pelka
