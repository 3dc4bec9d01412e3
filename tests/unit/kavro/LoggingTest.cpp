#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "kavro/core.h"
#include "support/LogCapture.h"

namespace rstest {
namespace {

class Logging : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(kavro_core_logging_init("LOGTEST", &cookie_), KAVRO_STATUS_OK);
        log_.mark();
    }
    void TearDown() override { kavro_core_logging_deinit(cookie_); }

    void* cookie_ = nullptr;
    LogCapture log_;
};

TEST_F(Logging, WritesOneLinePerCallWithPriorityAndIdentity)
{
    kavro_core_logging_log(cookie_, 6, "%d - Created new %s search", 7, "forward");
    kavro_core_logging_log(cookie_, 3, "Unknown exception caught in main!");
    const auto lines = log_.since();
    ASSERT_EQ(lines.size(), 2u) << log_.dump();
    EXPECT_EQ(lines[0].priority, 6);
    EXPECT_EQ(lines[0].identity, "LOGTEST");
    EXPECT_EQ(lines[0].message, "7 - Created new forward search");
    EXPECT_EQ(lines[1].priority, 3);
    EXPECT_EQ(lines[1].message, "Unknown exception caught in main!");
}

TEST_F(Logging, MessageLongerThanAnyShortBufferIsWrittenWhole)
{
    const std::string big(5000, 'x');
    kavro_core_logging_log(cookie_, 7, "<%s>", big.c_str());
    EXPECT_EQ(log_.count(7, "<" + big + ">"), 1) << log_.dump().substr(0, 200);
}

TEST_F(Logging, ConcurrentCallsOnOneHandleKeepEveryLineWhole)
{
    constexpr int kThreads = 8;
    constexpr int kLines = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < kLines; ++i) {
                kavro_core_logging_log(cookie_, 7, "thread %d line %d %s", t, i,
                                       "padding-padding-padding-padding-padding-padding");
            }
        });
    }
    for (auto& th : threads) th.join();

    std::set<std::string> seen;
    for (const auto& line : log_.since()) {
        ASSERT_EQ(line.identity, "LOGTEST") << "torn line: " << line.message;
        seen.insert(line.message);
    }
    ASSERT_EQ(seen.size(), size_t(kThreads * kLines));
    for (int t = 0; t < kThreads; ++t) {
        for (int i = 0; i < kLines; ++i) {
            const std::string expected = "thread " + std::to_string(t) + " line " +
                                         std::to_string(i) +
                                         " padding-padding-padding-padding-padding-padding";
            ASSERT_EQ(seen.count(expected), 1u) << expected;
        }
    }
}

// A client's text (an XPath expression) can reach a log message; it must not forge lines.
TEST_F(Logging, MessageWithNewlineStaysOneLine)
{
    kavro_core_logging_log(cookie_, 6, "Starting metadata job %d with xpath %s", 1,
                           "//a\n3 RECORDING_SEARCH: forged");
    EXPECT_EQ(log_.since().size(), 1u) << log_.dump();
    EXPECT_FALSE(log_.contains(3, "forged"));
}

TEST(LoggingHandle, NullHandleStillLogsUnderTheFrameworkIdentity)
{
    LogCapture log;
    EXPECT_EQ(kavro_core_logging_log(nullptr, 4, "no handle %d", 1), KAVRO_STATUS_OK);
    const auto lines = log.since();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].priority, 4);
    EXPECT_EQ(lines[0].identity, "kavro");
    EXPECT_EQ(lines[0].message, "no handle 1");
}

// The service logs from its target's destructor, which may run after logging is shut down.
TEST(LoggingHandle, DeinitialisedHandleIsAcceptedAndStillLogs)
{
    void* cookie = nullptr;
    ASSERT_EQ(kavro_core_logging_init("GONE", &cookie), KAVRO_STATUS_OK);
    kavro_core_logging_deinit(cookie);
    LogCapture log;
    kavro_core_logging_log(cookie, 6, "%d - ~TimelineSearchJob", 3);
    EXPECT_EQ(log.count(6, "3 - ~TimelineSearchJob"), 1) << log.dump();
}

TEST(LoggingHandle, NullArgumentsAreRefused)
{
    EXPECT_EQ(kavro_core_logging_log(nullptr, 6, nullptr), KAVRO_STATUS_INVALID_ARGUMENT);
    void* cookie = nullptr;
    EXPECT_NE(kavro_core_logging_init(nullptr, &cookie), KAVRO_STATUS_OK);
    EXPECT_NE(kavro_core_logging_init("X", nullptr), KAVRO_STATUS_OK);
}

TEST(LoggingHandle, MaxPriorityDropsLessUrgentLines)
{
    setenv("KAVRO_LOG_MAX_PRIORITY", "5", 1);
    void* cookie = nullptr;
    const auto status = kavro_core_logging_init("QUIET", &cookie);
    unsetenv("KAVRO_LOG_MAX_PRIORITY");
    ASSERT_EQ(status, KAVRO_STATUS_OK);
    LogCapture log;
    kavro_core_logging_log(cookie, 6, "life of a search");
    kavro_core_logging_log(cookie, 5, "limit reached");
    kavro_core_logging_deinit(cookie);
    EXPECT_EQ(log.count(6, "life of a search"), 0);
    EXPECT_EQ(log.count(5, "limit reached"), 1);
}

}  // namespace
}  // namespace rstest
