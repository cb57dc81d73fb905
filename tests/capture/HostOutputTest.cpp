// The writers' building blocks: line files' failures, the statistics tree and
// the diagnosis parameters. JSON texts are checked through HostLogTest; lines
// reaching the files during a run, by StopSignalTest.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/resource.h>

#include <string>

#include "capture/HostDiagnosis.h"
#include "capture/HostStatistics.h"
#include "capture/OutputFiles.h"
#include "support/TempFile.h"

namespace pelka {
namespace {

// A write fails here as on a full disk: the file size limit is 0 bytes.
class FileSizeLimit {
 public:
  FileSizeLimit() {
    ::getrlimit(RLIMIT_FSIZE, &old_);
    old_signal_ = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, old_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &old_);
    ::signal(SIGXFSZ, old_signal_);
  }

 private:
  rlimit old_{};
  sighandler_t old_signal_ = nullptr;
};

TEST(HostOutputFile, TheFirstWriteFailureIsKeptAndLaterWritesStop) {
  test::TempFile path("");
  OutputFile file;
  ASSERT_TRUE(file.Open(path.path()));
  const FileSizeLimit full;
  EXPECT_TRUE(file.WriteLine("{\"a\": 1}")) << "gathered, not written yet";
  EXPECT_FALSE(file.Flush());
  EXPECT_NE(file.error().find(path.path().string()), std::string::npos) << file.error();
  const std::string first = file.error();
  EXPECT_FALSE(file.WriteLine("next"));
  EXPECT_EQ(file.error(), first);
  EXPECT_EQ(file.lines(), 0u);
  EXPECT_FALSE(file.Close());
}

// Only a regular file, or none, is written: anything else is refused at once.
TEST(HostOutputFile, OpensOnlyARegularFileOrNone) {
  const struct {
    const char* path;
    const char* error;
  } cases[] = {
      {"/nonexistent-directory/x.jsonl", "cannot create"},
      {"/dev/null", "refusing to write to the FIFO, device or socket /dev/null"},
      {"/tmp", "cannot create /tmp: Is a directory"},
  };
  for (const auto& c : cases) {
    OutputFile file;
    EXPECT_FALSE(file.Open(c.path)) << c.path;
    EXPECT_NE(file.error().find(c.error), std::string::npos) << file.error();
  }
}

// The tree is HostServicesTest's (statistics.json); the scopes a counter is
// given change nothing in what the host writes.
TEST(HostStatistics, CountersAreIndexedInOrderAndUnknownIndexesCountNothing) {
  HostStatService service;
  struct Client final : IPelkaStatClient {
    void DefineStatistics(IPelkaStatService*, IPelkaStatRegistrar* registrar) override {
      IPelkaStatCategory* category = registrar->AddCategory("Cat", L"", 0, "owner");
      for (const char* item : {"A", "B"}) last = category->AddItem(item, L"", 0, "")->AddCounter("Count", 1, 4, 0, "");
    }
    void AssignStatisticIndexes(IPelkaStatService*) override { assigned = last->GetIndex(); }
    void ResetStatistics(IPelkaStatService*) override {}
    void DetachStatistics(IPelkaStatService*) override { ++detached; }
    void UpdateStatistics(IPelkaStatService*) override {}
    IPelkaStatCounter* last = nullptr;
    int32_t assigned = -1;
    int detached = 0;
  } client;
  EXPECT_EQ(service.RegisterClient(&client), 0u);
  service.DefineClients();
  EXPECT_EQ(client.assigned, 1);
  HostFlowStats stats(service);
  for (int32_t index : {1, 1, -1, 0xFFFF, 2}) stats.AddToCounter(index, 1, 1, 1);
  EXPECT_EQ(service.ToJson(), "{\"Cat\": {\"A\": {\"Count\": 0}, \"B\": {\"Count\": 2}}}");
  service.DetachClients();
  EXPECT_EQ(service.WithdrawClient(&client), 0u);
  service.DetachClients();
  EXPECT_EQ(client.detached, 1);
}

TEST(HostDiagnosis, ParametersStartAtTheirOverrideWithinTheirRange) {
  struct Case {
    const char* key;
    int32_t override_value;
    int32_t expected;
  } cases[] = {
      {"smtp_time", 500, 500}, {"smtp_time", 0, 1}, {"smtp_time", 200000, 100000}, {"other", 500, 200},
  };
  for (const Case& c : cases) {
    HostDiagnosisService service(nullptr);
    service.OverrideParameter("smtp_time", c.override_value);
    IPelkaDiagnosisEvent* event = nullptr;
    ASSERT_EQ(service.DefineEvent("E", L"title", 1, 2, 3, &event, 1), 0u);
    const uint32_t id = event->AddParameter(c.key, L"caption", 200, 1, 100000);
    int32_t value = 0;
    EXPECT_EQ(event->GetParameterValue(id, &value), 1u);
    EXPECT_EQ(value, c.expected) << c.key << " " << c.override_value;
    EXPECT_EQ(event->GetParameterValue(id + 1, &value), 0u);
  }
  HostDiagnosisService off(nullptr);
  off.set_enabled(false);
  IPelkaDiagnosisEvent* event = nullptr;
  ASSERT_EQ(off.DefineEvent("E", L"title", 1, 2, 3, &event, 1), 0u);
  EXPECT_EQ(event->IsEnabled(), 0u);
}

}  // namespace
}  // namespace pelka
