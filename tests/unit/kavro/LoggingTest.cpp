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

// One line per call under the handle's identity; the framework's own without a handle, and a
// handle's after deinit too (the service logs from destructors that run after logging is shut
// down). Neither a long message nor a client's line break (an XPath) may change the line count.
TEST(Logging, WritesOneWholeLinePerCallWithPriorityAndIdentity)
{
    void *cookie = nullptr, *gone = nullptr;
    ASSERT_EQ(kavro_core_logging_init("LOGTEST", &cookie), KAVRO_STATUS_OK);
    ASSERT_EQ(kavro_core_logging_init("GONE", &gone), KAVRO_STATUS_OK);
    kavro_core_logging_deinit(gone);
    LogCapture log;
    const std::string big(5000, 'x');
    kavro_core_logging_log(cookie, 6, "%d - Created new %s search", 7, "forward");
    EXPECT_EQ(kavro_core_logging_log(nullptr, 4, "no handle %d", 1), KAVRO_STATUS_OK);
    kavro_core_logging_log(gone, 3, "%d - ~TimelineSearchJob", 3);
    kavro_core_logging_log(cookie, 7, "<%s>", big.c_str());
    kavro_core_logging_log(cookie, 6, "xpath %s", "//a\n3 RECORDING_SEARCH: forged");
    kavro_core_logging_deinit(cookie);
    const std::vector<std::tuple<int, std::string, std::string>> expected = {
        {6, "LOGTEST", "7 - Created new forward search"},
        {4, "kavro", "no handle 1"},
        {3, "GONE", "3 - ~TimelineSearchJob"},
        {7, "LOGTEST", "<" + big + ">"},
        {6, "LOGTEST", "xpath //a\\n3 RECORDING_SEARCH: forged"}};
    std::vector<std::tuple<int, std::string, std::string>> got;
    for (const auto& l : log.since()) got.emplace_back(l.priority, l.identity, l.message);
    EXPECT_EQ(got, expected) << log.dump().substr(0, 300);
}

TEST(Logging, ConcurrentCallsOnOneHandleKeepEveryLineWhole)
{
    void* cookie = nullptr;
    ASSERT_EQ(kavro_core_logging_init("LOGTEST", &cookie), KAVRO_STATUS_OK);
    LogCapture log;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([cookie, t] {
            for (int i = 0; i < 500; ++i)
                kavro_core_logging_log(cookie, 7, "%d line %d padding-end", t, i);
        });
    }
    for (auto& th : threads) th.join();
    kavro_core_logging_deinit(cookie);
    std::set<std::string> seen;
    for (const auto& line : log.since()) {
        ASSERT_EQ(line.identity, "LOGTEST") << "torn line: " << line.message;
        ASSERT_EQ(line.message.find(" line "), line.message.find(' '))
            << "torn line: " << line.message;
        ASSERT_EQ(line.message.substr(line.message.size() - 12), " padding-end") << line.message;
        seen.insert(line.message);
    }
    EXPECT_EQ(seen.size(), 8u * 500u);
}

TEST(Logging, MaxPriorityDropsLessUrgentLines)
{
    void* cookie = nullptr;
    setenv("KAVRO_LOG_MAX_PRIORITY", "5", 1);
    const auto status = kavro_core_logging_init("QUIET", &cookie);
    unsetenv("KAVRO_LOG_MAX_PRIORITY");
    ASSERT_EQ(status, KAVRO_STATUS_OK);
    LogCapture log;
    kavro_core_logging_log(cookie, 6, "life of a search");
    kavro_core_logging_log(cookie, 5, "limit reached");
    kavro_core_logging_deinit(cookie);
    EXPECT_EQ(log.dump(), "5 QUIET: limit reached\n");
}

}  // namespace
}  // namespace rstest
