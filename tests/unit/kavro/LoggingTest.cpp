#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <tuple>
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

// One line per call under the handle's identity; the framework's own without a handle, and a
// handle's after deinit too (the service logs from destructors that run after logging is shut down).
TEST_F(Logging, WritesOneLinePerCallWithPriorityAndIdentity)
{
    void* gone = nullptr;
    ASSERT_EQ(kavro_core_logging_init("GONE", &gone), KAVRO_STATUS_OK);
    kavro_core_logging_deinit(gone);
    kavro_core_logging_log(cookie_, 6, "%d - Created new %s search", 7, "forward");
    EXPECT_EQ(kavro_core_logging_log(nullptr, 4, "no handle %d", 1), KAVRO_STATUS_OK);
    kavro_core_logging_log(gone, 3, "%d - ~TimelineSearchJob", 3);
    const auto lines = log_.since();
    ASSERT_EQ(lines.size(), 3u) << log_.dump();
    const std::vector<std::tuple<int, std::string, std::string>> expected = {
        {6, "LOGTEST", "7 - Created new forward search"}, {4, "kavro", "no handle 1"}, {3, "GONE", "3 - ~TimelineSearchJob"}};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(std::make_tuple(lines[i].priority, lines[i].identity, lines[i].message), expected[i]);
    }
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
        ASSERT_NE(line.message.find(" line "), std::string::npos) << "torn line: " << line.message;
        ASSERT_EQ(line.message.substr(line.message.size() - 16), "-padding-padding") << line.message;
        seen.insert(line.message);
    }
    EXPECT_EQ(seen.size(), size_t(kThreads * kLines));
}

// A client's text (an XPath expression) can reach a log message; it must not forge lines.
TEST_F(Logging, MessageWithNewlineStaysOneLine)
{
    kavro_core_logging_log(cookie_, 6, "Starting metadata job %d with xpath %s", 1,
                           "//a\n3 RECORDING_SEARCH: forged");
    EXPECT_EQ(log_.since().size(), 1u) << log_.dump();
    EXPECT_FALSE(log_.contains(3, "forged"));
}

TEST(LoggingHandle, NullArgumentsAreRefusedAndMaxPriorityDropsLessUrgentLines)
{
    void* cookie = nullptr;
    EXPECT_EQ(kavro_core_logging_log(nullptr, 6, nullptr), KAVRO_STATUS_INVALID_ARGUMENT);
    EXPECT_NE(kavro_core_logging_init(nullptr, &cookie), KAVRO_STATUS_OK);
    EXPECT_NE(kavro_core_logging_init("X", nullptr), KAVRO_STATUS_OK);
    setenv("KAVRO_LOG_MAX_PRIORITY", "5", 1);
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
