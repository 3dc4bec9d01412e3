// The runner: requests reach the target on request threads, statuses and failures reach the
// client as the bus contract says, and events leave as signals in order.
#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>

#include "kavro/KavroApiException.h"
#include "kavro/KavroApiRecordingSearchTargetImplBase.h"
#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "kavro/bus/Contract.h"
#include "support/LogCapture.h"
#include "support/PrivateBus.h"
#include "support/SearchClient.h"

namespace rstest {
namespace {

using namespace std::chrono_literals;
using Kind = SearchSignal::Kind;

constexpr const char* kService = "recording_search";

// Job ids with a meaning to this target's getSearchState; any other id is echoed back with
// state 1.
constexpr unsigned kStatusJob = 999;      // answers status 42
constexpr unsigned kThrowJob = 666;       // throws
constexpr unsigned kBlockJob = 444;       // waits until released

struct EventArgs {
    unsigned startSec = 0, startUsec = 0, endSec = 0, endUsec = 0;
    int maxResults = 0;
    unsigned char flag1 = 0, flag2 = 0, includeStart = 0;
    bool operator==(const EventArgs& o) const
    {
        return std::tie(startSec, startUsec, endSec, endUsec, maxResults, flag1, flag2, includeStart) ==
               std::tie(o.startSec, o.startUsec, o.endSec, o.endUsec, o.maxResults, o.flag1, o.flag2,
                        o.includeStart);
    }
};

// Thread use: request operations run on the runner's request threads; everything they share
// with the test thread is under mutex_.
class TestTarget : public KavroApiRecordingSearchTargetImplBase {
public:
    TestTarget() : KavroApiRecordingSearchTargetImplBase(nullptr) {}

    int createEventSearch(unsigned startSec, unsigned startUsec, unsigned endSec, unsigned endUsec,
                          int maxResults, unsigned char f1, unsigned char f2, unsigned char inc,
                          int* jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        eventArgs = {startSec, startUsec, endSec, endUsec, maxResults, f1, f2, inc};
        *jobId = -1;
        return 0;
    }

    int createMetadataSearch(unsigned, unsigned, unsigned, unsigned, int, const char* xpath,
                             int* jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastXpath = xpath;
        *jobId = static_cast<int>(lastXpath.size());
        return 0;
    }

    int createNoopSearch(int* jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++noopCount;
        changed_.notify_all();
        *jobId = 1;
        return 0;
    }

    int beginSearch(unsigned jobId, unsigned* jobIdOut) override
    {
        *jobIdOut = jobId + 1;
        return 0;
    }

    int getSearchState(unsigned jobId, unsigned* jobIdOut, unsigned* stateOut) override
    {
        *jobIdOut = jobId;
        *stateOut = 1;
        switch (jobId) {
        case kStatusJob: return 42;
        case kThrowJob: throw std::runtime_error("boom in getSearchState");
        case kBlockJob: waitForRelease(); return 0;
        default: return 0;
        }
    }

    int endSearch(unsigned jobId, unsigned* jobIdOut, unsigned* secOut, unsigned* usecOut) override
    {
        *jobIdOut = jobId;
        *secOut = jobId * 10;
        *usecOut = jobId * 100;
        return 0;
    }

    bool waitUntilBlocked(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [this] { return blocked_ > 0; });
    }

    void release()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

    bool waitForNoop(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [this] { return noopCount > 0; });
    }

    EventArgs eventArgs;
    std::string lastXpath;
    int noopCount = 0;

private:
    void waitForRelease()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++blocked_;
        changed_.notify_all();
        changed_.wait_for(lock, 10s, [this] { return released_; });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    int blocked_ = 0;
    bool released_ = false;
};

class TargetRun : public testing::Test {
protected:
    void SetUp() override
    {
        target_ = boost::make_shared<TestTarget>();
        runner_ = std::make_unique<KavroApiRecordingSearchTargetRun>(kService, nullptr, target_);
    }

    void TearDown() override
    {
        target_->release();  // a blocked request would hold up the runner's destruction
        runner_.reset();
    }

    boost::shared_ptr<TestTarget> target_;
    std::unique_ptr<KavroApiRecordingSearchTargetRun> runner_;
    SearchClient client_;
};

TEST_F(TargetRun, RequestsCarryTheirArgumentsAndOutputs)
{
    const auto created = client_.createEventSearch(1, 2, 3, 4, -5, 6, 7, 8);
    ASSERT_TRUE(created.ok()) << created.errorName << ": " << created.errorMessage;
    EXPECT_EQ(created.value, -1);
    EXPECT_EQ(target_->eventArgs, (EventArgs{1, 2, 3, 4, -5, 6, 7, 8}));

    const auto meta = client_.createMetadataSearch(0, 0, 1, 0, 10, "//frame[@id='3']");
    ASSERT_TRUE(meta.ok());
    EXPECT_EQ(meta.value, 16);
    EXPECT_EQ(target_->lastXpath, "//frame[@id='3']");

    EXPECT_EQ(client_.beginSearch(41).value, 42u);
    const auto state = client_.getSearchState(9);
    EXPECT_EQ(state.value.jobId, 9u);
    EXPECT_EQ(state.value.state, 1u);
    const auto ended = client_.endSearch(3);
    ASSERT_TRUE(ended.ok());
    EXPECT_EQ(ended.value.jobId, 3u);
    EXPECT_EQ(ended.value.sec, 30u);
    EXPECT_EQ(ended.value.usec, 300u);
}

TEST_F(TargetRun, NonzeroStatusReachesTheClientAsThatNumber)
{
    const auto r = client_.getSearchState(kStatusJob);
    EXPECT_EQ(r.status, 42);
    EXPECT_EQ(r.errorName, kavro::bus::kStatusErrorName);
}

TEST_F(TargetRun, ThrowingRequestIsAnsweredAsFailedAndServiceGoesOn)
{
    LogCapture log;
    const auto r = client_.getSearchState(kThrowJob);
    EXPECT_NE(r.status, 0);
    EXPECT_EQ(r.errorName, kavro::bus::kFailedErrorName);
    EXPECT_NE(r.errorMessage.find("boom in getSearchState"), std::string::npos) << r.errorMessage;
    EXPECT_TRUE(log.contains(3, "boom in getSearchState")) << log.dump();

    const auto after = client_.getSearchState(5);
    ASSERT_TRUE(after.ok());
    EXPECT_EQ(after.value.jobId, 5u);
}

// A request served while another is blocked: requests run on several threads at once.
TEST_F(TargetRun, BlockedRequestHoldsUpNeitherRequestsNorEvents)
{
    auto blocked = std::async(std::launch::async, [this] { return client_.getSearchState(kBlockJob); });
    ASSERT_TRUE(target_->waitUntilBlocked(5s));

    SearchClient other;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(other.getSearchState(8).ok());
    target_->sendEventSearchCompleted(8);
    EXPECT_TRUE(other.waitForCompleted(8, 5s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);

    target_->release();
    EXPECT_TRUE(blocked.get().ok());
}

TEST_F(TargetRun, FourSendersArriveAsSignalsInOrder)
{
    target_->sendEventSearchCompleted(1);
    target_->sendEventMetadataSearchResult(2, 10, 20);
    target_->sendEventTrackStateEventSearchResult(3, 30, 40, "CAM01", 1, 0);
    target_->sendEventRecordingStateEventSearchResult(4, 50, 60, 0, 1);
    target_->sendEventTrackStateEventSearchResult(5, 70, 80, nullptr, 0, 1);
    ASSERT_TRUE(client_.waitForSignalCount(5, 5s));
    const std::vector<SearchSignal> expected = {
        {Kind::SearchCompleted, 1, 0, 0, "", 0, 0},
        {Kind::MetadataSearchResult, 2, 10, 20, "", 0, 0},
        {Kind::TrackStateEventSearchResult, 3, 30, 40, "CAM01", 1, 0},
        {Kind::RecordingStateEventSearchResult, 4, 50, 60, "", 0, 1},
        {Kind::TrackStateEventSearchResult, 5, 70, 80, "", 0, 1}};
    EXPECT_EQ(client_.signals(), expected);
}

TEST_F(TargetRun, TenThousandSignalsArriveInOrderWithoutLoss)
{
    constexpr unsigned kCount = 10000;
    for (unsigned i = 0; i < kCount; ++i) {
        switch (i % 4) {
        case 0: target_->sendEventSearchCompleted(i); break;
        case 1: target_->sendEventMetadataSearchResult(i, i, 1); break;
        case 2: target_->sendEventTrackStateEventSearchResult(i, i, 2, "CAM02", 1, 0); break;
        default: target_->sendEventRecordingStateEventSearchResult(i, i, 3, 1, 0); break;
        }
    }
    ASSERT_TRUE(client_.waitForSignalCount(kCount, 30s)) << client_.signals().size() << " arrived";
    const auto got = client_.signals();
    for (unsigned i = 0; i < kCount; ++i) {
        ASSERT_EQ(got[i].jobId, i) << "out of order or lost at " << i;
        ASSERT_EQ(static_cast<unsigned>(got[i].kind), i % 4);
    }
}

TEST_F(TargetRun, SecondRunnerForTheSameNameThrows)
{
    auto other = boost::make_shared<TestTarget>();
    try {
        KavroApiRecordingSearchTargetRun second(kService, nullptr, other);
        ADD_FAILURE() << "a second runner took a name that is already owned";
    } catch (const kavro::core::KavroApiException& e) {
        // The operator must be told it is a second instance, not a policy problem.
        EXPECT_NE(std::string(e.what()).find(kavro::core::statusToString(KAVRO_STATUS_NAME_TAKEN)),
                  std::string::npos)
            << e.what();
    }
    // The first runner is unharmed.
    EXPECT_TRUE(client_.getSearchState(1).ok());
}

// Tests create a runner each; the next one must find the name free at once.
TEST(TargetRunLifetime, NameIsFreeAgainAsSoonAsTheRunnerIsGone)
{
    auto target = boost::make_shared<TestTarget>();
    for (int i = 0; i < 30; ++i) {
        try {
            KavroApiRecordingSearchTargetRun runner(kService, nullptr, target);
        } catch (const kavro::core::KavroApiException& e) {
            FAIL() << "round " << i << ": " << e.what();
        }
    }
}

TEST(TargetRunLifetime, NoBusMakesTheRunnerThrow)
{
    ScopedBusAddress nowhere("unix:path=/nonexistent/rs-test-bus");
    auto target = boost::make_shared<TestTarget>();
    EXPECT_THROW(KavroApiRecordingSearchTargetRun(kService, nullptr, target),
                 kavro::core::KavroApiException);
}

// When the bus goes away the runner wakes the target with a no-op search, whose event send
// then throws, so that the service's dispatch loop ends instead of waiting forever.
TEST(TargetRunLifetime, LostBusWakesTheTargetAndSendsThrow)
{
    PrivateBus bus;
    auto target = boost::make_shared<TestTarget>();
    std::unique_ptr<KavroApiRecordingSearchTargetRun> runner;
    {
        ScopedBusAddress here(bus.address());
        runner = std::make_unique<KavroApiRecordingSearchTargetRun>(kService, nullptr, target);
    }
    LogCapture log;
    bus.kill();
    ASSERT_TRUE(target->waitForNoop(5s));
    EXPECT_THROW(target->sendEventSearchCompleted(1), kavro::core::KavroApiException);
    EXPECT_TRUE(log.waitFor(3, "Lost the connection to the bus", 2s)) << log.dump();
    runner.reset();
}

}  // namespace
}  // namespace rstest
