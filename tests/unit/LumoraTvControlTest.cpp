#include <gtest/gtest.h>

#include "LogCapture.h"
#include "LumoraTvControl.h"
#include "tvhost/power.h"

namespace {
constexpr int kDebug = 3;
}

TEST(LumoraTvControl, PowerOffAsksForKindThreeAndReportsWhetherItWasAccepted)
{
    LogCapture log;
    CLumoraTvControl control;

    EXPECT_TRUE(control.PowerOff());
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"CLumoraTvControl success to power off the TV!"});
    EXPECT_EQ(log.PriorityOf("CLumoraTvControl success to power off the TV!"), kDebug);

    log.Clear();
    tvhost::power::QueueResult(-1);
    EXPECT_FALSE(control.PowerOff());
    EXPECT_EQ(log.Messages(), std::vector<std::string>{"CLumoraTvControl failed to power off the TV!"});
    EXPECT_EQ(log.PriorityOf("CLumoraTvControl failed to power off the TV!"), kDebug);

    // Any refusal counts, not just -1, and nothing is retried.
    tvhost::power::QueueResult(5);
    EXPECT_FALSE(control.PowerOff());
    EXPECT_EQ(tvhost::power::Requests(), (std::vector<int>{3, 3, 3}));
}
