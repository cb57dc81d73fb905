#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/EmailModule.h"
#include "support/InMemoryLog.h"

namespace pelka {
namespace {

using testing::InMemoryLogService;

// The columns, captions and export reach the host's output files, where the
// capture host's tests check them; here what a failing log service leaves.
TEST(EmailLogDefinitionTest, FailuresLeaveWhatWasReached) {
  struct Case {
    const char* name;
    uint32_t create_status;
    std::string refused_key;
    int end_columns_calls;  // a refused column leaves the declaration open
  } cases[] = {
      {"nothing refused", 0, "", 1},
      {"create fails", 0x80920001u, "", 0},
      {"a column is refused", 0, "email_cc", 0},
      {"the last column is refused", 0, "group", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    InMemoryLogService service;
    service.create_status = c.create_status;
    service.refuse_key = c.refused_key;
    CPelkaEmailModule module;
    module.set_log_service(&service);
    module.DefineEmailLog();
    EXPECT_EQ(module.email_log(), service.log());
    if (c.create_status) {
      EXPECT_EQ(service.log(), nullptr);
      continue;
    }
    ASSERT_NE(service.log(), nullptr);
    EXPECT_EQ(service.log()->columns.size(), 27u);   // every column is still declared
    EXPECT_EQ(service.log()->end_columns_calls, c.end_columns_calls);
    EXPECT_EQ(service.log()->storages.size(), 2u);   // the log exists, so its kinds do
  }
}

}  // namespace
}  // namespace pelka
