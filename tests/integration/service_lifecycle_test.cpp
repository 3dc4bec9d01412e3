// recording_search as a process on a private bus: readiness, the stop signals, and its fatal
// path at start (a name it cannot take is the runner's, in TargetRunTest.cpp).

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault_stack.h"
#include "support/LogCapture.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

const std::string kStderrPrefix = "ERROR: recording_search caught exception: ";

class ServiceProcessTest : public ::testing::Test {
protected:
    ServiceProcessTest() : dir_("rs-service"), logPath_(dir_.file("service.log")) {}

    std::unique_ptr<rstest::ProcessRunner> service(std::map<std::string, std::string> env = {})
    {
        env.emplace("KAVRO_LOG_FILE", logPath_);
        return std::make_unique<rstest::ProcessRunner>(reliability::bin("recording_search"),
                                                       std::vector<std::string>{}, env);
    }

    std::unique_ptr<rstest::ProcessRunner> startedService(
        std::map<std::string, std::string> env = {})
    {
        auto process = service(std::move(env));
        process->start();
        EXPECT_TRUE(process->waitForNotify("READY=1"));
        return process;
    }

    static void expectCleanExit(rstest::ProcessRunner& process, int signal = SIGTERM)
    {
        process.sendSignal(signal);
        const auto status = process.waitForExit(15s);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(status->exited);
        EXPECT_EQ(status->code, 0);
        EXPECT_EQ(process.stdoutText() + process.stderrText(), "");
    }

    // The service's fatal path: one line on standard error, "ERRNO=5", exit status 1, and the
    // same text logged at priority 3.
    void expectFatalExit(rstest::ProcessRunner& process)
    {
        const auto status = process.waitForExit(15s);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(status->exited && status->code == 1);
        EXPECT_TRUE(process.waitForNotify("ERRNO=5", 1s));
        const std::string err = process.stderrText();
        ASSERT_EQ(err.rfind(kStderrPrefix, 0), 0u) << err;
        ASSERT_EQ(err.find('\n'), err.size() - 1) << "exactly one line: " << err;
        EXPECT_EQ(process.stdoutText(), "");
        const std::string what =
            err.substr(kStderrPrefix.size(), err.size() - kStderrPrefix.size() - 1);
        const auto lines = log_.since();
        EXPECT_TRUE(std::any_of(
            lines.begin(), lines.end(),
            [&](const rstest::LogLine& l) { return l.priority == 3 && l.message == what; }))
            << "the fatal error is logged at priority 3: " << what;
    }

    rstest::TempDir dir_;
    std::string logPath_;
    rstest::LogCapture log_{logPath_};  // the service's every line: the file is new
};

TEST_F(ServiceProcessTest, ReportsReadyIgnoresSigpipeAndServesNoopSearchesFromId1)
{
    rstest::SearchClient client;
    auto process = startedService();
    process->sendSignal(SIGPIPE);
    const auto first = client.createNoopSearch();
    ASSERT_TRUE(first.ok()) << first.errorName << ": " << first.errorMessage;
    EXPECT_EQ(first.value, 1) << "a fresh process hands out 1 first";
    EXPECT_TRUE(client.waitForCompleted(1));
    expectCleanExit(*process);
    EXPECT_EQ(process->notifications(), std::vector<std::string>{"READY=1"});
}
struct StopCase {
    int signal;
    int searches;  // event searches when the signal arrives, the first walking
};

class ServiceStopTest : public ServiceProcessTest,
                        public ::testing::WithParamInterface<StopCase> {};

TEST_P(ServiceStopTest, StopSignalEndsEverySearchAndExitsCleanly)
{
    const StopCase c = GetParam();
    std::unique_ptr<rstest::ProcessRunner> store;
    if (c.searches > 0) {
        store = std::make_unique<rstest::ProcessRunner>(
            reliability::bin("recording_store"),
            std::vector<std::string>{"serve", reliability::LongRecording::path()});
        store->start();
        ASSERT_TRUE(store->waitForNotify("READY=1"));
    }
    rstest::SearchClient client;
    auto process = startedService();

    // A completed no-op search, and of the others the first walking, the second never begun.
    ASSERT_GT(client.createNoopSearch().value, 0);
    for (int i = 0; i < c.searches; ++i) {
        const auto created =
            client.createEventSearch(reliability::LongRecording::kStart, 0,
                                     reliability::LongRecording::kEnd, 0, -1, 0, 0, 0);
        ASSERT_GT(created.value, 0) << created.errorMessage;
        const auto id = static_cast<uint32_t>(created.value);
        if (i > 0) continue;
        ASSERT_TRUE(client.beginSearch(id).ok());
        ASSERT_TRUE(reliability::waitForResults(client, id, 1));
        EXPECT_EQ(client.getSearchState(id).value.state, 1u) << "still searching";
    }

    expectCleanExit(*process, c.signal);

    std::vector<std::string> endAll;
    for (const auto& line : log_.since()) {
        if (line.priority == 5 && line.message.rfind("Ending all ", 0) == 0) {
            endAll.push_back(line.message);
        }
    }
    const auto endAllLine = [](int n) {
        return "Ending all " + std::to_string(n) +
               " search jobs (this should only happen on app exit)";
    };
    EXPECT_EQ(endAll, (std::vector<std::string>{endAllLine(c.searches + 1), endAllLine(0)}))
        << "every search is ended at shutdown; the target finds none left at exit";
}

INSTANTIATE_TEST_SUITE_P(Signals, ServiceStopTest,
                         ::testing::Values(StopCase{SIGTERM, 2}, StopCase{SIGINT, 0},
                                           StopCase{SIGHUP, 2}),
                         [](const auto& info) {
                             const int s = info.param.signal;
                             return std::string(s == SIGTERM  ? "Sigterm"
                                                : s == SIGINT ? "Sigint"
                                                              : "Sighup") +
                                    "With" + std::to_string(info.param.searches) + "Searches";
                         });

TEST_F(ServiceProcessTest, StopSignalRightAfterReadinessIsNotLost)
{
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        expectCleanExit(*startedService());
    }
}

TEST_F(ServiceProcessTest, UnreachableBusIsFatal)
{
    auto process = service({{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir_.file("no-bus-here")}});
    process->start();
    expectFatalExit(*process);
    for (const auto& message : process->notifications()) EXPECT_NE(message, "READY=1");
}

}  // namespace
