#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/EmailModule.h"
#include "output/EmailLogExport.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::InMemoryLog;
using testing::InMemoryLogService;

// Column keys, their order and value kinds, the default captions and the
// export reach the host's output files, where the capture host's tests check
// them; here only the declaration's shape.
TEST(EmailLogDefinitionTest, DeclaresTheColumnsAndBothStorageKinds) {
  InMemoryLogService service;
  CPelkaEmailModule module;
  module.set_log_service(&service);
  module.DefineEmailLog();

  InMemoryLog* log = service.log();
  ASSERT_NE(log, nullptr);
  EXPECT_EQ(module.email_log(), log);
  EXPECT_EQ(log->columns.size(), 27u);
  EXPECT_EQ(log->end_columns_calls, 1);
  ASSERT_EQ(log->storages.size(), 2u);
  EXPECT_EQ(log->storages[0]->export_fn, &FormatEmailLogLines);
  EXPECT_EQ(log->storages[1]->name, "email_copy");
  EXPECT_EQ(log->storages[1]->export_fn, nullptr);
}

TEST(EmailLogDefinitionTest, FailuresLeaveWhatWasReached) {
  struct Case {
    const char* name;
    uint32_t create_status;
    std::string refused_key;
    bool log_expected;
  };
  const std::vector<Case> cases = {
      {"create fails", 0x80920001u, "", false},
      {"a column is refused", 0, "email_cc", true},
      {"the last column is refused", 0, "group", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryLogService service;
    service.create_status = c.create_status;
    service.refuse_key = c.refused_key;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    EXPECT_EQ(module.email_log() != nullptr, c.log_expected);
    InMemoryLog* log = service.log();
    if (!c.log_expected) {
      EXPECT_EQ(log, nullptr);
      continue;
    }
    ASSERT_NE(log, nullptr);
    EXPECT_EQ(log->columns.size(), 27u);   // every column is still declared
    EXPECT_EQ(log->end_columns_calls, 0);  // but the declaration stays open
    EXPECT_EQ(log->storages.size(), 2u);   // the log exists, so its kinds do
  }

  CPelkaEmailModule without_service;
  without_service.DefineEmailLog();
  EXPECT_EQ(without_service.email_log(), nullptr);
}

}  // namespace
}  // namespace pelka
