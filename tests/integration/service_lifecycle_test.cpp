// recording_search as a process on a private bus: readiness, the stop signals, and the two
// ways it can fail at start (a bus it cannot use, a name it cannot take).

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/LogCapture.h"
#include "support/ProcessRunner.h"
#include "store/RecordingWriter.h"
#include "support/SearchClient.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

const std::string kStderrPrefix = "ERROR: recording_search caught exception: ";

// A recording that a walk needs minutes for: one history event a second for a day.
std::string writeLongRecording(const std::string& path)
{
    store::RecordingWriter w(path, store::RecordingWriter::Durability::Bulk);
    auto transaction = w.transaction();
    w.addTrack("META001");
    for (uint32_t t = 0; t < 86400; ++t) w.addEvent({1000000 + t, 0}, {{1, t % 2, "Video1"}});
    transaction->commit();
    return path;
}

class ServiceProcessTest : public ::testing::Test {
protected:
    ServiceProcessTest() : dir_("rs-service"), logPath_(dir_.file("service.log")) {}

    std::unique_ptr<rstest::ProcessRunner> service(std::map<std::string, std::string> env = {})
    {
        env.emplace("KAVRO_LOG_FILE", logPath_);
        return std::make_unique<rstest::ProcessRunner>(std::string(RS_BIN_DIR) + "/recording_search",
                                                       std::vector<std::string>{}, env);
    }

    std::unique_ptr<rstest::ProcessRunner> startedService(std::map<std::string, std::string> env = {})
    {
        auto process = service(std::move(env));
        process->start();
        EXPECT_TRUE(process->waitForNotify("READY=1"));
        return process;
    }

    // Every line the service logged, from the start of its file.
    std::vector<rstest::LogLine> fromStartLines() const;

    // The service's fatal path: one line on standard error, "ERRNO=5", exit status 1, and the
    // same text logged at priority 3.
    void expectFatalExit(rstest::ProcessRunner& process)
    {
        const auto status = process.waitForExit(15s);
        ASSERT_TRUE(status.has_value());
        EXPECT_TRUE(status->exited);
        EXPECT_EQ(status->code, 1);
        EXPECT_TRUE(process.waitForNotify("ERRNO=5", 1s));
        const std::string err = process.stderrText();
        ASSERT_EQ(err.rfind(kStderrPrefix, 0), 0u) << err;
        ASSERT_EQ(err.find('\n'), err.size() - 1) << "exactly one line: " << err;
        EXPECT_EQ(process.stdoutText(), "");
        const std::string what = err.substr(kStderrPrefix.size(), err.size() - kStderrPrefix.size() - 1);
        bool logged = false;
        for (const auto& line : fromStartLines()) {
            if (line.priority == 3 && line.message == what) logged = true;
        }
        EXPECT_TRUE(logged) << "the fatal error is logged at priority 3: " << what;
    }

    rstest::TempDir dir_;
    std::string logPath_;
};

std::vector<rstest::LogLine> ServiceProcessTest::fromStartLines() const
{
    std::vector<rstest::LogLine> lines;
    std::ifstream in(logPath_);
    std::string text;
    while (std::getline(in, text)) lines.push_back(rstest::LogCapture::parse(text));
    return lines;
}

TEST_F(ServiceProcessTest, ReportsReadyIgnoresSigpipeAndServesNoopSearchesFromId1)
{
    rstest::SearchClient client;
    auto process = startedService();
    process->sendSignal(SIGPIPE);

    const auto first = client.createNoopSearch();
    ASSERT_TRUE(first.ok()) << first.errorName << ": " << first.errorMessage;
    EXPECT_EQ(first.value, 1) << "a fresh process hands out 1 first";
    const auto second = client.createNoopSearch();
    EXPECT_EQ(second.value, 2);
    EXPECT_TRUE(client.waitForCompleted(1));
    EXPECT_TRUE(client.waitForCompleted(2));

    const auto state = client.getSearchState(1);
    EXPECT_EQ(state.value.state, 2u);
    const auto ended = client.endSearch(1);
    EXPECT_EQ(ended.value.jobId, 1u);
    EXPECT_EQ(ended.value.sec, 0u);

    process->sendSignal(SIGTERM);
    const auto status = process->waitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_EQ(process->notifications(), std::vector<std::string>{"READY=1"});
}

struct StopCase {
    int signal;
    int searches;  // running when the signal arrives
};

class ServiceStopTest : public ServiceProcessTest,
                        public ::testing::WithParamInterface<StopCase> {};

TEST_P(ServiceStopTest, StopSignalEndsEverySearchAndExitsCleanly)
{
    const StopCase c = GetParam();
    std::unique_ptr<rstest::ProcessRunner> store;
    if (c.searches > 0) {
        store = std::make_unique<rstest::ProcessRunner>(
            std::string(RS_BIN_DIR) + "/recording_store",
            std::vector<std::string>{"serve", writeLongRecording(dir_.file("long.rec"))});
        store->start();
        ASSERT_TRUE(store->waitForNotify("READY=1"));
    }
    rstest::SearchClient client;
    auto process = startedService();

    for (int i = 0; i < c.searches; ++i) {
        const auto created = client.createEventSearch(1000000, 0, 1086400, 0, -1, 0, 0, 0);
        ASSERT_TRUE(created.ok()) << created.errorMessage;
        ASSERT_GT(created.value, 0);
        const auto id = static_cast<uint32_t>(created.value);
        ASSERT_TRUE(client.beginSearch(id).ok());
        ASSERT_TRUE(client.waitUntil([id](const std::vector<rstest::SearchSignal>& all) {
            for (const auto& s : all) {
                if (s.jobId == id) return true;
            }
            return false;
        })) << "search " << id << " reports its first result";
        EXPECT_EQ(client.getSearchState(id).value.state, 1u) << "still searching";
    }

    process->sendSignal(c.signal);
    const auto status = process->waitForExit(15s);
    ASSERT_TRUE(status.has_value());
    EXPECT_TRUE(status->exited);
    EXPECT_EQ(status->code, 0);
    EXPECT_EQ(process->stdoutText(), "");
    EXPECT_EQ(process->stderrText(), "");

    std::vector<std::string> endAll;
    for (const auto& line : fromStartLines()) {
        if (line.priority == 5 && line.message.rfind("Ending all ", 0) == 0) {
            endAll.push_back(line.message);
        }
    }
    const auto endAllLine = [](int n) {
        return "Ending all " + std::to_string(n) +
               " search jobs (this should only happen on app exit)";
    };
    EXPECT_EQ(endAll, (std::vector<std::string>{endAllLine(c.searches), endAllLine(0)}))
        << "every search is ended at shutdown; the target finds none left at exit";
}

std::string signalName(int signal)
{
    switch (signal) {
    case SIGTERM: return "Sigterm";
    case SIGINT: return "Sigint";
    case SIGHUP: return "Sighup";
    default: return "Signal" + std::to_string(signal);
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, ServiceStopTest,
                         ::testing::Values(StopCase{SIGTERM, 2}, StopCase{SIGINT, 0},
                                           StopCase{SIGHUP, 2}),
                         [](const auto& info) {
                             return signalName(info.param.signal) + "With" +
                                    std::to_string(info.param.searches) + "Searches";
                         });

TEST_F(ServiceProcessTest, StopSignalRightAfterReadinessIsNotLost)
{
    for (int round = 0; round < 5; ++round) {
        auto process = startedService();
        process->sendSignal(SIGTERM);
        const auto status = process->waitForExit(15s);
        ASSERT_TRUE(status.has_value()) << "round " << round;
        EXPECT_EQ(status->code, 0);
        EXPECT_EQ(process->stderrText(), "");
    }
}

TEST_F(ServiceProcessTest, UnreachableBusIsFatal)
{
    auto process = service({{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=" + dir_.file("no-bus-here")}});
    process->start();
    expectFatalExit(*process);
    for (const auto& message : process->notifications()) EXPECT_NE(message, "READY=1");
}

TEST_F(ServiceProcessTest, SecondInstanceCannotTakeTheNameAndIsFatal)
{
    rstest::SearchClient client;
    auto first = startedService();
    auto second = service();
    second->start();
    expectFatalExit(*second);
    EXPECT_TRUE(client.createNoopSearch().ok()) << "the first instance still serves";
    first->sendSignal(SIGTERM);
    const auto status = first->waitForExit();
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0);
}

}  // namespace
