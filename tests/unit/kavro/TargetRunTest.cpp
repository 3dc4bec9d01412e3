// The runner: requests reach the target on request threads, statuses and failures reach the
// client as the bus contract says, and events leave as signals in order.
#include <atomic>
#include <future>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

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
// Job ids with a meaning to getSearchState; any other id is echoed back with state 1.
constexpr unsigned kStatusJob = 999, kThrowJob = 666, kBlockJob = 444;

// Request operations run on the runner's request threads; what they hand the test thread goes
// through the mutex or a future.
class TestTarget : public KavroApiRecordingSearchTargetImplBase {
public:
    TestTarget() : KavroApiRecordingSearchTargetImplBase(nullptr) {}

    int createEventSearch(unsigned a, unsigned b, unsigned c, unsigned d, int max, unsigned char f1,
                          unsigned char f2, unsigned char inc, int* jobId) override
    {
        record(a, b, c, d, max, +f1, +f2, +inc);
        return *jobId = -1, 0;
    }
    int createMetadataSearch(unsigned a, unsigned b, unsigned c, unsigned d, int max,
                             const char* xpath, int* jobId) override
    {
        record(a, b, c, d, max, xpath);
        return *jobId = 16, 0;
    }
    int createNoopSearch(int* jobId) override
    {
        if (!noopSeen.exchange(true)) noop.set_value();
        return *jobId = 1, 0;
    }
    int beginSearch(unsigned jobId, unsigned* jobIdOut) override
    {
        return *jobIdOut = jobId + 1, 0;
    }
    int getSearchState(unsigned jobId, unsigned* jobIdOut, unsigned* stateOut) override
    {
        *jobIdOut = jobId;
        *stateOut = 1;
        if (jobId == kThrowJob) throw std::runtime_error("boom in getSearchState");
        if (jobId == kBlockJob) {
            blocked.set_value();
            EXPECT_EQ(released.wait_for(std::chrono::seconds(30)), std::future_status::ready)
                << "the blocked request was never released";
        }
        return jobId == kStatusJob ? 42 : 0;
    }
    int getSearchProgress(unsigned jobId, unsigned* jobIdOut, unsigned*, unsigned*, unsigned*,
                          unsigned char*, unsigned*, unsigned*) override
    {
        return *jobIdOut = jobId, 0;
    }
    int endSearch(unsigned jobId, unsigned* jobIdOut, unsigned* secOut, unsigned* usecOut) override
    {
        return *jobIdOut = jobId, *secOut = jobId * 10, *usecOut = jobId * 100, 0;
    }
    void release()
    {
        if (!releaseSent.exchange(true)) releaser.set_value();
    }

    template <typename... T>
    void record(const T&... args)
    {
        std::ostringstream out;
        ((out << args << ' '), ...);
        std::lock_guard<std::mutex> lock(mutex_);
        lastArgs_ = out.str();
    }
    std::string lastArgs()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return lastArgs_;
    }

    std::promise<void> noop, blocked, releaser;  // noop: the first no-op search
    std::atomic<bool> noopSeen{false}, releaseSent{false};
    std::shared_future<void> released = releaser.get_future().share();

private:
    std::mutex mutex_;
    std::string lastArgs_;
};

class TargetRun : public testing::Test {
protected:
    ~TargetRun() override
    {
        target_->release();  // a blocked request would hold up the runner's destruction
        runner_.reset();
    }

    boost::shared_ptr<TestTarget> target_ = boost::make_shared<TestTarget>();
    std::unique_ptr<KavroApiRecordingSearchTargetRun> runner_ =
        std::make_unique<KavroApiRecordingSearchTargetRun>(kService, nullptr, target_);
    SearchClient client_;
};

TEST_F(TargetRun, RequestsCarryArgumentsOutputsStatusesAndFailures)
{
    EXPECT_EQ(client_.createEventSearch(1, 2, 3, 4, -5, 6, 7, 8).value, -1);
    EXPECT_EQ(target_->lastArgs(), "1 2 3 4 -5 6 7 8 ");
    EXPECT_EQ(client_.createMetadataSearch(9, 10, 11, 12, 13, "//frame[@id='3']").value, 16);
    EXPECT_EQ(target_->lastArgs(), "9 10 11 12 13 //frame[@id='3'] ");
    EXPECT_EQ(client_.beginSearch(41).value, 42u);
    const auto state = client_.getSearchState(9).value;
    EXPECT_EQ(std::make_pair(state.jobId, state.state), std::make_pair(9u, 1u));
    const auto ended = client_.endSearch(3).value;
    EXPECT_EQ(std::make_tuple(ended.jobId, ended.sec, ended.usec), std::make_tuple(3u, 30u, 300u));

    const auto status = client_.getSearchState(kStatusJob);
    EXPECT_EQ(std::make_pair(status.status, status.errorName),
              std::make_pair(42, std::string(kavro::bus::kStatusErrorName)));
    LogCapture log;
    const auto thrown = client_.getSearchState(kThrowJob);
    EXPECT_EQ(thrown.errorName, kavro::bus::kFailedErrorName);
    EXPECT_NE(thrown.errorMessage.find("boom in getSearchState"), std::string::npos)
        << thrown.errorMessage;
    EXPECT_TRUE(log.contains(3, "boom in getSearchState")) << log.dump();
    EXPECT_TRUE(client_.getSearchState(5).ok());
}

// A request served while another is blocked: requests run on several threads at once.
TEST_F(TargetRun, BlockedRequestHoldsUpNeitherRequestsNorEvents)
{
    auto blocked =
        std::async(std::launch::async, [this] { return client_.getSearchState(kBlockJob); });
    ASSERT_EQ(target_->blocked.get_future().wait_for(5s), std::future_status::ready);
    SearchClient other;
    EXPECT_TRUE(other.getSearchState(8).ok());
    target_->sendEventSearchCompleted(8);
    EXPECT_TRUE(other.waitForCompleted(8, 3s));
    target_->release();
    EXPECT_TRUE(blocked.get().ok());
}

TEST_F(TargetRun, SignalsOfAllFourKindsArriveWholeInOrderWithoutLoss)
{
    constexpr unsigned kCount = 10000;
    std::vector<SearchSignal> expected;
    for (unsigned i = 0; i < kCount; ++i) {
        SearchSignal s{static_cast<Kind>(i % 4), i, i + 1, i % 4, "", i % 3 == 0, i % 5 == 0};
        const char* track = i % 8 == 2 ? nullptr : "CAM02";  // no name arrives as an empty one
        switch (s.kind) {
        case Kind::SearchCompleted:
            target_->sendEventSearchCompleted(i), s.sec = s.usec = s.state = s.startState = 0;
            break;
        case Kind::MetadataSearchResult:
            target_->sendEventMetadataSearchResult(i, i + 1, 1), s.state = s.startState = 0;
            break;
        case Kind::TrackStateEventSearchResult:
            target_->sendEventTrackStateEventSearchResult(i, i + 1, 2, track, s.state,
                                                          s.startState),
                s.trackName = track ? track : "";
            break;
        case Kind::RecordingStateEventSearchResult:
            target_->sendEventRecordingStateEventSearchResult(i, i + 1, 3, s.state, s.startState);
            break;
        }
        expected.push_back(s);
    }
    ASSERT_TRUE(client_.waitForSignalCount(kCount, 30s)) << client_.signals().size() << " arrived";
    const auto got = client_.signals();
    for (unsigned i = 0; i < kCount; ++i) ASSERT_EQ(got[i], expected[i]) << "at " << i;
}

TEST_F(TargetRun, SecondRunnerForTheSameNameSaysTheNameIsTaken)
{
    try {
        KavroApiRecordingSearchTargetRun second(kService, nullptr,
                                                boost::make_shared<TestTarget>());
        ADD_FAILURE() << "a second runner took a name that is already owned";
    } catch (const kavro::core::KavroApiException& e) {
        // The operator must be told it is a second instance, not a policy problem.
        EXPECT_NE(std::string(e.what()).find(kavro::core::statusToString(KAVRO_STATUS_NAME_TAKEN)),
                  std::string::npos)
            << e.what();
    }
    EXPECT_TRUE(client_.getSearchState(1).ok());
}

// When the bus goes away the runner logs it and wakes the target with a no-op search, whose
// event send then throws, so that the service's dispatch loop ends instead of waiting forever.
TEST(TargetRunLifetime, LostBusIsLoggedWakesTheTargetAndSendsThrow)
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
    ASSERT_EQ(target->noop.get_future().wait_for(5s), std::future_status::ready);
    EXPECT_THROW(target->sendEventSearchCompleted(1), kavro::core::KavroApiException);
    EXPECT_TRUE(log.contains(3, "Lost the connection to the bus")) << log.dump();
}

}  // namespace
}  // namespace rstest
