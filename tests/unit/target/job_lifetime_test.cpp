// How long a search may hold its place: searches never begun expire, and a full table gives up
// its oldest completed search. Bounds made small so the test does not wait for the real ones.

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "support/ScriptedRecordingServices.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

using namespace std::chrono_literals;

class JobLifetimeTest : public ::testing::Test {
protected:
    explicit JobLifetimeTest(RecordingSearchTargetImpl::Limits limits = {})
        : target(nullptr, limits), loop([this] { target.processEventLoop(); })
    {
    }
    ~JobLifetimeTest() override
    {
        target.stopProcessEvents();
        loop.join();
    }

    int create()
    {
        int id = -2;
        EXPECT_EQ(target.createMetadataSearch(100, 0, 200, 0, -1, "/", &id), 0);
        return id;
    }
    int createNoop()
    {
        int id = -2;
        EXPECT_EQ(target.createNoopSearch(&id), 0);
        return id;
    }
    unsigned int state(int id)
    {
        unsigned int idOut = 0;
        unsigned int stateOut = 99;
        target.getSearchState(static_cast<unsigned int>(id), &idOut, &stateOut);
        return stateOut;
    }

    rstest::ScriptedRecordingServices services{
        rstest::Recording{{"META001"}, {}, {{{100, 0}, "<a/>"}, {{200, 0}, "<a/>"}}}};
    RecordingSearchTargetImpl target;
    std::thread loop;
};

class UnbegunExpiryTest : public JobLifetimeTest {
protected:
    UnbegunExpiryTest() : JobLifetimeTest({256, boost::chrono::milliseconds(300)}) {}
};

TEST_F(UnbegunExpiryTest, SearchNeverBegunFreesItsSlotWhileABegunOneKeepsWalking)
{
    services.stallMethod("GetRecordingSummary", 3s);  // the begun walk sits in its first call
    const int begun = create();
    const int idle = create();
    unsigned int out = 0;
    target.beginSearch(static_cast<unsigned int>(begun), &out);
    ASSERT_TRUE(services.waitForCalls("GetRecordingSummary", 1));
    const auto created = std::chrono::steady_clock::now();
    EXPECT_EQ(create(), -1);

    int third = -1;
    while (third < 0 && std::chrono::steady_clock::now() - created < 3s) {
        std::this_thread::sleep_for(20ms);
        third = create();
    }
    EXPECT_GT(third, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - created, 250ms);
    EXPECT_EQ(state(idle), 0u);
    EXPECT_EQ(state(begun), 1u);
}

class FullTableTest : public JobLifetimeTest {
protected:
    FullTableTest() : JobLifetimeTest({2, boost::chrono::hours(1)}) {}
};

TEST_F(FullTableTest, CreateEndsTheOldestCompletedSearchOrIsRefusedWhenNoneHasCompleted)
{
    const int running = create();
    const int done = createNoop();
    const int noop = createNoop();
    EXPECT_GT(noop, 0);
    EXPECT_EQ(state(done), 0u);
    EXPECT_EQ(state(running), 1u);

    unsigned int id = 0, sec = 0, usec = 0;
    target.endSearch(static_cast<unsigned int>(noop), &id, &sec, &usec);
    EXPECT_GT(create(), 0);
    EXPECT_EQ(createNoop(), -1);
    EXPECT_EQ(state(running), 1u);
}

}  // namespace
