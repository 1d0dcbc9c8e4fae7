#include <gtest/gtest.h>

#include "ExtLog.h"
#include "LogCapture.h"
#include "tvhost/log.h"

TEST(ExtLog, LevelsMapOntoPlatformPrioritiesAndOthersAreDropped)
{
    LogCapture log;
    for (int level : {-1, 0, 1, 2, 3, 4, 5, 100})
        ext_log_base_print(level, "LUMORA", "level %d", level);

    auto records = log.Records();
    ASSERT_EQ(records.size(), 5u);
    const int expected[] = {3, 4, 5, 6, 7};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(records[i].priority, expected[i]);
        EXPECT_EQ(records[i].tag, "LUMORA");
        EXPECT_EQ(records[i].text, "level " + std::to_string(i));
    }
    EXPECT_EQ(tvhost::log::PrintCount(), 5u) << "unknown levels must not reach the platform log";
}

TEST(ExtLog, SwitchedOffLogFormatsNothingAndReadsNoArgument)
{
    LogCapture log;
    tvhost::log::SetEnabled(false);
    // A format whose arguments are missing: harmless only if nothing is formatted.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    ext_log_base_print(0, "LUMORA", "%s %s %s %n");
#pragma GCC diagnostic pop
    tvhost::log::SetEnabled(true);
    EXPECT_EQ(tvhost::log::PrintCount(), 0u);
    EXPECT_TRUE(log.Records().empty());
}

TEST(ExtLog, MacroPrefixesFileFunctionAndLineAndKeepsExternalTextLiteral)
{
    LogCapture log;
    const char *pHostile = "%s%n%s";
    int nLine = __LINE__ + 1;
    LUMORA_LOG(EXT_LOG_ERROR, "name [%s]\n", pHostile);

    auto records = log.Records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, 6);
    EXPECT_EQ(records[0].tag, "LUMORA");
    EXPECT_EQ(records[0].text, "ExtLogTest.cpp:TestBody(" + std::to_string(nLine) + ")>name [%s%n%s]\n");
}
