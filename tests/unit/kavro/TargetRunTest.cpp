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
        eventArgs = {startSec, startUsec, endSec, endUsec, unsigned(maxResults), f1, f2, inc};
        *jobId = -1;
        return 0;
    }

    int createMetadataSearch(unsigned, unsigned, unsigned, unsigned, int, const char* xpath,
                             int* jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastXpath = xpath;
        return *jobId = static_cast<int>(lastXpath.size()), 0;
    }

    int createNoopSearch(int* jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++noopCount;
        changed_.notify_all();
        return *jobId = 1, 0;
    }

    int beginSearch(unsigned jobId, unsigned* jobIdOut) override { return *jobIdOut = jobId + 1, 0; }

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
        return *jobIdOut = jobId, *secOut = jobId * 10, *usecOut = jobId * 100, 0;
    }

    bool waitUntilBlocked() { return waitFor([this] { return blocked_ > 0; }); }
    bool waitForNoop() { return waitFor([this] { return noopCount > 0; }); }
    void release()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }

    std::vector<unsigned> eventArgs;
    std::string lastXpath;
    int noopCount = 0;

private:
    template <typename Pred>
    bool waitFor(Pred pred)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, 5s, pred);
    }
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
    EXPECT_EQ(target_->eventArgs, (std::vector<unsigned>{1, 2, 3, 4, unsigned(-5), 6, 7, 8}));

    const auto meta = client_.createMetadataSearch(0, 0, 1, 0, 10, "//frame[@id='3']");
    ASSERT_TRUE(meta.ok());
    EXPECT_EQ(meta.value, 16);
    EXPECT_EQ(target_->lastXpath, "//frame[@id='3']");

    EXPECT_EQ(client_.beginSearch(41).value, 42u);
    const auto state = client_.getSearchState(9);
    EXPECT_EQ(std::make_pair(state.value.jobId, state.value.state), std::make_pair(9u, 1u));
    const auto ended = client_.endSearch(3);
    EXPECT_EQ(std::make_tuple(ended.value.jobId, ended.value.sec, ended.value.usec),
              std::make_tuple(3u, 30u, 300u));
    // A nonzero status reaches the client as that number.
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
    EXPECT_TRUE(client_.getSearchState(5).ok());
}

// A request served while another is blocked: requests run on several threads at once.
TEST_F(TargetRun, BlockedRequestHoldsUpNeitherRequestsNorEvents)
{
    auto blocked = std::async(std::launch::async, [this] { return client_.getSearchState(kBlockJob); });
    ASSERT_TRUE(target_->waitUntilBlocked());

    SearchClient other;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(other.getSearchState(8).ok());
    target_->sendEventSearchCompleted(8);
    EXPECT_TRUE(other.waitForCompleted(8, 5s));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);

    target_->release();
    EXPECT_TRUE(blocked.get().ok());
}

TEST_F(TargetRun, SignalsOfAllFourKindsArriveWholeInOrderWithoutLoss)
{
    constexpr unsigned kCount = 10000;
    std::vector<SearchSignal> expected;
    for (unsigned i = 0; i < kCount; ++i) {
        const uint8_t on = i % 3 == 0, start = i % 5 == 0;
        switch (i % 4) {
        case 0: target_->sendEventSearchCompleted(i); expected.push_back({Kind::SearchCompleted, i, 0, 0, "", 0, 0}); break;
        case 1: target_->sendEventMetadataSearchResult(i, i, 1); expected.push_back({Kind::MetadataSearchResult, i, i, 1, "", 0, 0}); break;
        case 2:  // no track name arrives as an empty one
            target_->sendEventTrackStateEventSearchResult(i, i, 2, i % 8 == 2 ? nullptr : "CAM02", on, start);
            expected.push_back({Kind::TrackStateEventSearchResult, i, i, 2, i % 8 == 2 ? "" : "CAM02", on, start});
            break;
        default: target_->sendEventRecordingStateEventSearchResult(i, i, 3, on, start); expected.push_back({Kind::RecordingStateEventSearchResult, i, i, 3, "", on, start}); break;
        }
    }
    ASSERT_TRUE(client_.waitForSignalCount(kCount, 30s)) << client_.signals().size() << " arrived";
    const auto got = client_.signals();
    for (unsigned i = 0; i < kCount; ++i) ASSERT_EQ(got[i], expected[i]) << "at " << i;
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
                  std::string::npos) << e.what();
    }
    EXPECT_TRUE(client_.getSearchState(1).ok());
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
    ASSERT_TRUE(target->waitForNoop());
    EXPECT_THROW(target->sendEventSearchCompleted(1), kavro::core::KavroApiException);
    EXPECT_TRUE(log.waitFor(3, "Lost the connection to the bus", 2s)) << log.dump();
    runner.reset();
}

}  // namespace
}  // namespace rstest
