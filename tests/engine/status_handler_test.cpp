#include "engine/status_handler.h"

#include <gtest/gtest.h>

namespace tavo::test {
namespace {

TEST(ProgressBar, GrowsByOneMarkEveryFivePercent) {
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
  ProgressBar bar;
  for (const auto& row : kRows) {
    bar.Begin(row.total);
    EXPECT_EQ(bar.Redraw(row.current), row.line) << "a new transfer erases nothing";
  }
}

TEST(ProgressBar, ErasesExactlyTheOneBefore) {
  ProgressBar bar;
  bar.Begin(10);
  bar.Redraw(0);
  EXPECT_EQ(bar.Redraw(150), std::string(28, '\b') + "[--------------------] 1500 %");
  EXPECT_EQ(bar.Redraw(5), std::string(29, '\b') + "[----------          ]  50 %");
}

}  // namespace
}  // namespace tavo::test
