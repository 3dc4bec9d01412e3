// The result queue and the dispatch loop: order, copies, unknown records, and every way a stop
// request can meet the loop, observed as signals received by a client over the bus.

#include <signal.h>
#include <pthread.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "support/LogCapture.h"
#include "support/SearchClient.h"
#include "unit/target/InspectableTarget.h"

namespace {

using rstest::InspectableTarget;
using rstest::SearchSignal;
using Kind = rstest::SearchSignal::Kind;

constexpr unsigned int kSentinel = 4000000000u;

RecordingSearchEventData record(RecordingSearchEventType type, unsigned int jobId,
                                unsigned int sec = 0, unsigned int usec = 0,
                                const std::string& trackName = "", unsigned char state = 0,
                                unsigned char startState = 0)
{
    RecordingSearchEventData data;
    data.eventType = type;
    data.jobId = jobId;
    data.sec = sec;
    data.usec = usec;
    data.trackName = trackName;
    data.state = state;
    data.startState = startState;
    return data;
}

SearchSignal completed(unsigned int jobId)
{
    SearchSignal s;
    s.jobId = jobId;
    return s;
}

// The loop runs on a thread of its own, as it runs on the main thread of the service.
class DispatchLoopTest : public ::testing::Test {
protected:
    ~DispatchLoopTest() override
    {
        target->stopProcessEvents();
        if (!loop.joinable()) return;
        if (!loopReturns()) {
            // A loop that a stop request cannot end would hang the whole run instead.
            std::fprintf(stderr, "FATAL: the dispatch loop did not return after a stop request\n");
            std::abort();
        }
        loop.join();
    }

    void startLoop()
    {
        loop = std::thread([this] {
            loopThread.set_value(pthread_self());
            target->processEventLoop();
            loopReturned.set_value();
        });
        loopThreadId = loopThread.get_future().get();
    }

    bool loopReturns()
    {
        return loopDone.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    }

    void queue(RecordingSearchEventData data) { target->queueEventData(data); }

    // Sent after everything else from this test: once it arrives, every signal the loop sent
    // has arrived too (one connection's signals keep their order).
    std::vector<SearchSignal> signalsUpToSentinel()
    {
        target->sendEventSearchCompleted(kSentinel);
        EXPECT_TRUE(client.waitForCompleted(kSentinel));
        auto all = client.signals();
        EXPECT_FALSE(all.empty());
        if (!all.empty()) all.pop_back();
        return all;
    }

    rstest::LogCapture log;
    boost::shared_ptr<InspectableTarget> target = boost::make_shared<InspectableTarget>();
    rstest::SearchClient client;
    KavroApiRecordingSearchTargetRun runner{"recording_search", nullptr, target};
    std::promise<pthread_t> loopThread;
    pthread_t loopThreadId{};
    std::promise<void> loopReturned;
    std::future<void> loopDone = loopReturned.get_future();
    std::thread loop;
};

TEST_F(DispatchLoopTest, SendsRecordsInQueueOrderAcrossJobs)
{
    const std::vector<unsigned int> jobs{1, 2, 1, 3, 2, 2, 1};
    for (size_t i = 0; i < jobs.size(); ++i) {
        queue(record(MetadataSearchResult, jobs[i], static_cast<unsigned int>(i), 5));
    }
    startLoop();
    ASSERT_TRUE(client.waitForSignalCount(jobs.size()));
    const auto got = client.signals();
    ASSERT_EQ(got.size(), jobs.size());
    for (size_t i = 0; i < jobs.size(); ++i) {
        EXPECT_EQ(got[i].kind, Kind::MetadataSearchResult);
        EXPECT_EQ(got[i].jobId, jobs[i]);
        EXPECT_EQ(got[i].sec, i);
    }
}

TEST_F(DispatchLoopTest, ConcurrentProducersLoseNothingAndKeepTheirOwnOrder)
{
    constexpr unsigned int kProducers = 4;
    constexpr unsigned int kEach = 2000;
    startLoop();
    std::vector<std::thread> producers;
    for (unsigned int p = 0; p < kProducers; ++p) {
        producers.emplace_back([this, p] {
            RecordingSearchEventData data = record(MetadataSearchResult, 100 + p);
            for (unsigned int i = 0; i < kEach; ++i) {
                data.sec = i;
                target->queueEventData(data);
            }
        });
    }
    for (auto& producer : producers) producer.join();
    ASSERT_TRUE(client.waitForSignalCount(kProducers * kEach, std::chrono::seconds(60)));
    for (unsigned int p = 0; p < kProducers; ++p) {
        const auto mine = client.signalsFor(100 + p);
        ASSERT_EQ(mine.size(), kEach);
        for (unsigned int i = 0; i < kEach; ++i) ASSERT_EQ(mine[i].sec, i) << "producer " << p;
    }
}

struct RecordCase {
    const char* name;
    RecordingSearchEventData data;
    SearchSignal expected;
};

void PrintTo(const RecordCase& c, std::ostream* os) { *os << c.name; }

class DispatchRecordTest : public DispatchLoopTest,
                           public ::testing::WithParamInterface<RecordCase> {};

TEST_P(DispatchRecordTest, EachKindCarriesOnlyItsOwnFields)
{
    queue(GetParam().data);
    startLoop();
    ASSERT_TRUE(client.waitForSignalCount(1));
    EXPECT_EQ(client.signals().front(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DispatchRecordTest,
    ::testing::Values(
        RecordCase{"Completed", record(SearchCompleted, 7, 1, 2, "Video1", 1, 1), completed(7)},
        RecordCase{"Metadata",
                   record(MetadataSearchResult, 8, 1700000000, 999999, "Video1", 1, 1),
                   {Kind::MetadataSearchResult, 8, 1700000000, 999999, "", 0, 0}},
        RecordCase{"TrackState",
                   record(TrackStateEventSearchResult, 9, 10, 20, "Video1", 1, 0),
                   {Kind::TrackStateEventSearchResult, 9, 10, 20, "Video1", 1, 0}},
        RecordCase{"TrackStateStart",
                   record(TrackStateEventSearchResult, 9, 10, 20, "", 0, 1),
                   {Kind::TrackStateEventSearchResult, 9, 10, 20, "", 0, 1}},
        RecordCase{"RecordingStateDropsTrackName",
                   record(RecordingStateEventSearchResult, 10, 30, 40, "Video1", 1, 1),
                   {Kind::RecordingStateEventSearchResult, 10, 30, 40, "", 1, 1}}),
    ::testing::PrintToStringParamName());

TEST_F(DispatchLoopTest, QueuedRecordsAreCopiesOfTheProducersRecord)
{
    RecordingSearchEventData reused = record(TrackStateEventSearchResult, 11, 1, 0, "A", 1);
    target->queueEventData(reused);
    reused.trackName = "B";
    reused.sec = 2;
    target->queueEventData(reused);
    startLoop();
    reused.trackName = "C";
    reused.sec = 3;
    target->queueEventData(reused);
    reused.trackName = "changed after the last call";
    ASSERT_TRUE(client.waitForSignalCount(3));
    const auto got = client.signals();
    EXPECT_EQ(got[0].trackName, "A");
    EXPECT_EQ(got[1].trackName, "B");
    EXPECT_EQ(got[2].trackName, "C");
    EXPECT_EQ(got[2].sec, 3u);
}

TEST_F(DispatchLoopTest, UnknownEventTypeIsLoggedAndSkipped)
{
    queue(record(SearchCompleted, 21));
    queue(record(static_cast<RecordingSearchEventType>(7), 22));
    queue(record(SearchCompleted, 23));
    startLoop();
    ASSERT_TRUE(client.waitForSignalCount(2));
    EXPECT_EQ(signalsUpToSentinel(), (std::vector<SearchSignal>{completed(21), completed(23)}));
    EXPECT_EQ(log.count(4, "RecordingSearchEventData object passed with unknown event type"), 1);
}

TEST_F(DispatchLoopTest, StopBeforeTheLoopStartsSendsNothingEvenWithRecordsQueued)
{
    queue(record(SearchCompleted, 31));
    target->stopProcessEvents();
    queue(record(SearchCompleted, 32));
    startLoop();
    ASSERT_TRUE(loopReturns());
    target->processEventLoop();  // a further call returns at once as well
    EXPECT_TRUE(signalsUpToSentinel().empty());
    EXPECT_EQ(target->queued().size(), 2u) << "records stay queued, unsent";
}

TEST_F(DispatchLoopTest, RecordsQueuedAfterTheStopAreNeverSent)
{
    startLoop();
    queue(record(SearchCompleted, 41));
    ASSERT_TRUE(client.waitForCompleted(41));
    target->stopProcessEvents();
    ASSERT_TRUE(loopReturns());
    queue(record(SearchCompleted, 42));
    EXPECT_EQ(signalsUpToSentinel(), std::vector<SearchSignal>{completed(41)});
}

TEST_F(DispatchLoopTest, StopWithRecordsQueuedSendsAtMostTheOneInHand)
{
    constexpr unsigned int kQueued = 50000;
    RecordingSearchEventData data = record(MetadataSearchResult, 51);
    for (unsigned int i = 0; i < kQueued; ++i) {
        data.sec = i;
        target->queueEventData(data);
    }
    startLoop();
    ASSERT_TRUE(client.waitForSignalCount(10));
    target->stopProcessEvents();
    ASSERT_TRUE(loopReturns());
    const size_t left = target->queued().size();
    const auto sent = signalsUpToSentinel();
    EXPECT_EQ(sent.size() + left, kQueued);
    for (size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(sent[i].sec, i);
}

// stopProcessEvents as the service calls it: from a signal handler, on the loop's own thread
// or on another one, while the loop waits on an empty queue.
InspectableTarget* signalTarget = nullptr;
void stopFromHandler(int) { signalTarget->stopProcessEvents(); }

enum class StopBy { CallFromAnotherThread, SignalToLoopThread, SignalToOtherThread };

void PrintTo(StopBy way, std::ostream* os)
{
    switch (way) {
    case StopBy::CallFromAnotherThread: *os << "CallFromAnotherThread"; return;
    case StopBy::SignalToLoopThread: *os << "SignalToLoopThread"; return;
    case StopBy::SignalToOtherThread: *os << "SignalToOtherThread"; return;
    }
    *os << "Unknown";
}

class DispatchStopTest : public DispatchLoopTest, public ::testing::WithParamInterface<StopBy> {
protected:
    void SetUp() override
    {
        signalTarget = target.get();
        struct sigaction action {};
        action.sa_handler = stopFromHandler;
        sigemptyset(&action.sa_mask);
        action.sa_flags = SA_RESTART;
        sigaction(SIGUSR1, &action, &previous);
    }
    void TearDown() override { sigaction(SIGUSR1, &previous, nullptr); }

    struct sigaction previous {};
};

TEST_P(DispatchStopTest, StopWhileTheLoopWaitsEndsIt)
{
    startLoop();
    queue(record(SearchCompleted, 61));
    ASSERT_TRUE(client.waitForCompleted(61));  // the loop is running, and then waits
    switch (GetParam()) {
    case StopBy::CallFromAnotherThread:
        std::thread([this] { target->stopProcessEvents(); }).join();
        break;
    case StopBy::SignalToLoopThread:
        pthread_kill(loopThreadId, SIGUSR1);
        break;
    case StopBy::SignalToOtherThread: {
        std::thread other([] {
            sigset_t usr1;
            sigemptyset(&usr1);
            sigaddset(&usr1, SIGUSR1);
            pthread_sigmask(SIG_UNBLOCK, &usr1, nullptr);
            pthread_kill(pthread_self(), SIGUSR1);
        });
        other.join();
        break;
    }
    }
    EXPECT_TRUE(loopReturns());
}

INSTANTIATE_TEST_SUITE_P(Ways, DispatchStopTest,
                         ::testing::Values(StopBy::CallFromAnotherThread,
                                           StopBy::SignalToLoopThread,
                                           StopBy::SignalToOtherThread),
                         ::testing::PrintToStringParamName());

// The stop request races the loop's test and wait many times over: none may be lost.
TEST(DispatchLoopRace, StopAtAnyMomentEndsTheLoop)
{
    for (int round = 0; round < 300; ++round) {
        InspectableTarget target;
        std::promise<void> returned;
        auto done = returned.get_future();
        std::thread loop([&] {
            target.processEventLoop();
            returned.set_value();
        });
        if (round % 3 == 1) std::this_thread::yield();
        target.stopProcessEvents();
        if (done.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            std::fprintf(stderr, "FATAL: stop request lost in round %d\n", round);
            std::abort();
        }
        loop.join();
    }
}

}  // namespace
