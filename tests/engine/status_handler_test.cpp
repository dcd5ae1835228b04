#include "engine/status_handler.h"

#include <gtest/gtest.h>

#include "engine/firmware_updater.h"
#include "tests/support/virtual_platform.h"

namespace tavo::test {
namespace {

class StatusHandlerTest : public testing::Test {
 protected:
  // The text that handling this message prints.
  std::string Printed(const StatusMessage& message) {
    m_platform.ClearConsole();
    m_handler.Handle(message);
    return m_platform.Console();
  }

  // The first bar drawn, for `current` of `total` bytes.
  std::string Bar(std::int32_t current, std::int32_t total) {
    m_handler.Handle({StatusKind::TransferBegins, total});
    return Printed({StatusKind::TransferProgress, current});
  }

  VirtualPlatform m_platform;
  Logger m_log{m_platform};
  TransportHolder m_holder{m_platform, [](TransportKind) { return nullptr; }};
  FirmwareUpdater m_engine{m_platform, m_log, m_holder};
  StatusHandler m_handler{m_platform, m_engine};
};

TEST_F(StatusHandlerTest, TheBarGrowsByOneMarkEveryFivePercent) {
  const struct {
    std::int32_t current, total;
    const char* line;
  } kRows[] = {
      {49, 1000, "[                    ]   4 %"},
      {50, 1000, "[-                   ]   5 %"},
      {999, 2000, "[---------           ]  49 %"},
      {1000, 1000, "[--------------------] 100 %"},
      {1300, 1000, "[--------------------] 130 %"},
      {128, 0, "[                    ]   0 %"},
      {30 << 20, 40 << 20, "[---------------     ]  75 %"},  // above 2^31 when times 100
      {2147483647, 1, "[--------------------] 214748364700 %"},
  };
  for (const auto& row : kRows) EXPECT_EQ(Bar(row.current, row.total), row.line);
}

TEST_F(StatusHandlerTest, EachBarErasesExactlyTheOneBefore) {
  Bar(0, 10);
  EXPECT_EQ(Printed({StatusKind::TransferProgress, 150}),
            std::string(28, '\b') + "[--------------------] 1500 %");
  EXPECT_EQ(Printed({StatusKind::TransferProgress, 5}),
            std::string(29, '\b') + "[----------          ]  50 %");
  EXPECT_EQ(Bar(10, 10), "[--------------------] 100 %") << "a new transfer erases nothing";
}

}  // namespace
}  // namespace tavo::test
