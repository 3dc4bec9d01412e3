// The shared fixtures are what every other test stands on: check the parts whose faults would
// make other tests pass or fail for the wrong reason.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/Contract.h"
#include "support/LogCapture.h"
#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "support/ScriptedRecordingServices.h"
#include "support/TempDir.h"

namespace rstest {
namespace {

using namespace std::chrono_literals;

struct ParseCase {
    std::string text;
    int priority;
    std::string identity;
    std::string message;
};

void PrintTo(const ParseCase& c, std::ostream* os) { *os << '"' << c.text << '"'; }

class LogLineParse : public testing::TestWithParam<ParseCase> {};

TEST_P(LogLineParse, SplitsPriorityIdentityAndMessage)
{
    const LogLine line = LogCapture::parse(GetParam().text);
    EXPECT_EQ(line.priority, GetParam().priority);
    EXPECT_EQ(line.identity, GetParam().identity);
    EXPECT_EQ(line.message, GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, LogLineParse,
    testing::Values(ParseCase{"6 RECORDING_SEARCH: 1 - Created", 6, "RECORDING_SEARCH", "1 - Created"},
                    ParseCase{"3 kavro: a: b: c", 3, "kavro", "a: b: c"},
                    ParseCase{"7 X: ", 7, "X", ""},
                    ParseCase{"not a log line", -1, "", "not a log line"},
                    ParseCase{"12345678901 X: overflow", -1, "", "12345678901 X: overflow"}));

class LogCaptureFile : public testing::Test {
protected:
    void SetUp() override { append("6 OLD: before the mark\n"); }
    void append(const std::string& text)
    {
        std::ofstream(path_, std::ios::app) << text;
    }

    TempDir dir_{"rs-logcap"};
    std::string path_ = dir_.file("log");
};

TEST_F(LogCaptureFile, SeesOnlyWholeLinesWrittenAfterTheMark)
{
    LogCapture log(path_);
    append("4 NEW: one\n5 NEW: two\n6 NEW: partial without newline");
    const auto lines = log.since();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].message, "one");
    EXPECT_EQ(lines[1].message, "two");
    EXPECT_EQ(log.count(5, "two"), 1);
    EXPECT_EQ(log.count(4, "two"), 0);
    EXPECT_FALSE(log.contains(6, "before the mark"));

    log.mark();
    append("\n7 NEW: three\n");
    EXPECT_TRUE(log.waitFor(7, "thr", 1s));
    EXPECT_FALSE(log.waitFor(4, "one", 50ms));
}

TEST(PrivateBusTest, ServesConnectionsUntilStopped)
{
    PrivateBus bus;
    ASSERT_FALSE(bus.address().empty());
    auto connection = sdbus::createSessionBusConnectionWithAddress(bus.address());
    EXPECT_FALSE(connection->getUniqueName().empty());
    const pid_t pid = bus.pid();
    bus.stop();
    EXPECT_FALSE(bus.running());
    EXPECT_NE(::kill(pid, 0), 0) << "daemon still there after stop()";
    // Through the system-bus path: sdbus-c++ leaks the bus object when a connection by address fails.
    ScopedBusAddress gone(bus.address());
    EXPECT_THROW(kavro::bus::connectToBus(), sdbus::Error);
}

TEST(ProcessRunnerTest, CapturesOutputAndExitCode)
{
    const RunResult r = runToEnd("/bin/sh", {"-c", "echo out; echo \"$EXTRA\" >&2; exit 3"},
                                 {{"EXTRA", "from the test"}});
    EXPECT_TRUE(r.status.exited);
    EXPECT_EQ(r.status.code, 3);
    EXPECT_EQ(r.out, "out\n");
    EXPECT_EQ(r.err, "from the test\n");
}

TEST(ProcessRunnerTest, ReportsTheSignalThatEndedTheProcess)
{
    ProcessRunner p("/bin/sleep", {"30"});
    p.start();
    EXPECT_FALSE(p.exitedWithin(50ms));
    p.sendSignal(SIGTERM);
    const auto status = p.waitForExit(5s);
    ASSERT_TRUE(status.has_value());
    EXPECT_FALSE(status->exited);
    EXPECT_EQ(status->termSignal, SIGTERM);
}

TEST(ProcessRunnerTest, CollectsNotificationsLineByLine)
{
    ProcessRunner p("/bin/sh", {"-c", "echo \"$NOTIFY_SOCKET\"; exec sleep 30"});
    p.start();
    // What systemd-notify or sd_notify would send: one datagram, newline-separated assignments.
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, p.notifySocketPath().c_str(), sizeof addr.sun_path - 1);
    const std::string datagram = "READY=1\nSTATUS=serving";
    ASSERT_EQ(sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<sockaddr*>(&addr),
                     sizeof addr),
              static_cast<ssize_t>(datagram.size()));
    ::close(fd);
    EXPECT_TRUE(p.waitForNotify("READY=1", 5s));
    EXPECT_TRUE(p.waitForNotify("STATUS=serving", 5s));
    EXPECT_FALSE(p.waitForNotify("ERRNO=5", 20ms));
    EXPECT_TRUE(p.waitForStdout(p.notifySocketPath() + "\n", 5s)) << p.stdoutText();
    p.sendSignal(SIGKILL);
    ASSERT_TRUE(p.waitForExit(5s).has_value());
}

// The stand-in's answer rules, which the job tests take as the behaviour of the real store.
class StandInRecording : public testing::Test {
protected:
    static Recording recording()
    {
        Recording r;
        r.tracks = {"CAM01", "CAM02", kMetadataTrack};
        // Deliberately out of order: the stand-in sorts.
        r.events = {{{300, 0}, {{"CAM01", kTrackKey, 0}}},
                    {{100, 0}, {{"rec", kRecordingKey, 1}, {"CAM01", kTrackKey, 1}}},
                    {{200, 5}, {{"CAM02", kTrackKey, 1}}}};
        r.documents = {{{150, 0}, "<a/>"}, {{250, 0}, "<b/>"}};
        return r;
    }

    ScriptedRecordingServices services_{recording(), {}};  // model only, nothing on the bus
};

struct LookupCase {
    StoreTime asked;
    StoreTime cur, prev, next;
};

void PrintTo(const LookupCase& c, std::ostream* os) { *os << "at " << c.asked.text(); }

class StandInLookup : public StandInRecording, public testing::WithParamInterface<LookupCase> {};

TEST_P(StandInLookup, HistoryEventAtOrBeforeElseFirstAfter)
{
    const auto a = services_.modelHistoryEvent(GetParam().asked);
    ASSERT_TRUE(a.has_value());
    EXPECT_EQ(a->cur, GetParam().cur);
    EXPECT_EQ(a->prev, GetParam().prev);
    EXPECT_EQ(a->next, GetParam().next);
    EXPECT_EQ(a->names.size(), a->keys.size());
    EXPECT_EQ(a->names.size(), a->values.size());
}

INSTANTIATE_TEST_SUITE_P(
    Times, StandInLookup,
    testing::Values(LookupCase{{50, 0}, {100, 0}, {0, 0}, {200, 5}},    // before all: first
                    LookupCase{{100, 0}, {100, 0}, {0, 0}, {200, 5}},   // exact first
                    LookupCase{{200, 4}, {100, 0}, {0, 0}, {200, 5}},   // latest before
                    LookupCase{{200, 5}, {200, 5}, {100, 0}, {300, 0}}, // exact middle
                    LookupCase{{999, 0}, {300, 0}, {200, 5}, {0, 0}})); // after all: last

TEST_F(StandInRecording, StateAtATimeAppliesEveryEventUpToIt)
{
    EXPECT_EQ(services_.modelRecordingState({99, 999999}).state, 0);
    EXPECT_TRUE(services_.modelRecordingState({99, 999999}).tracksOn.empty());
    const auto mid = services_.modelRecordingState({200, 5});
    EXPECT_EQ(mid.state, 1);
    EXPECT_EQ(mid.tracksOn, (std::vector<std::string>{"CAM01", "CAM02"}));
    EXPECT_EQ(services_.modelRecordingState({300, 0}).tracksOn,
              (std::vector<std::string>{"CAM02"}));
}

TEST_F(StandInRecording, SummariesAndUnknownTrack)
{
    const auto all = services_.modelRecordingSummary();
    ASSERT_TRUE(all.has_value());
    EXPECT_EQ(all->start, (StoreTime{100, 0}));
    EXPECT_EQ(all->end, (StoreTime{300, 0}));
    const auto meta = services_.modelTrackSummary(kMetadataTrack);
    ASSERT_TRUE(meta.has_value());
    EXPECT_EQ(meta->start, (StoreTime{150, 0}));
    EXPECT_EQ(meta->end, (StoreTime{250, 0}));
    const auto cam2 = services_.modelTrackSummary("CAM02");
    ASSERT_TRUE(cam2.has_value());
    EXPECT_EQ(cam2->start, (StoreTime{200, 5}));
    EXPECT_FALSE(services_.modelTrackSummary("NOPE").has_value());
    EXPECT_EQ(services_.modelFirstHistoryEventTime(), (StoreTime{100, 0}));
}

TEST(StandInEmptyRecording, HasNoAnswers)
{
    ScriptedRecordingServices services({}, {});
    EXPECT_FALSE(services.modelHistoryEvent({1, 0}).has_value());
    EXPECT_FALSE(services.modelMetadata({1, 0}).has_value());
    EXPECT_FALSE(services.modelRecordingSummary().has_value());
    EXPECT_FALSE(services.modelFirstHistoryEventTime().has_value());
}

}  // namespace
}  // namespace rstest
