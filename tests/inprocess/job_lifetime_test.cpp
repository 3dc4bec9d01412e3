// How long a search may hold its place: searches never begun expire, and a full table gives up
// its oldest completed search. Bounds made small so the test does not wait for the real ones.

#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "inprocess/WalkFixture.h"

namespace walk {
namespace {

using namespace std::chrono_literals;

class JobLifetime : public WalkTest {
protected:
    explicit JobLifetime(RecordingSearchTargetImpl::Limits limits) : WalkTest(limits) {}

    unsigned int state(int id)
    {
        unsigned int idOut = 0, s = 99;
        target->getSearchState(static_cast<unsigned int>(id), &idOut, &s);
        return s;
    }
    int create() { return createMetadata(t(100), t(130), "/"); }
    int createNoop()
    {
        int id = -2;
        EXPECT_EQ(0, target->createNoopSearch(&id));
        return id;
    }
};

class UnbegunExpiry : public JobLifetime {
protected:
    UnbegunExpiry() : JobLifetime({256, boost::chrono::milliseconds(300)}) {}
};

// The service is otherwise idle while the expiry is due: the begun search sits in a call and
// sends nothing, and the test only reads states (which wakes nothing). The expiry has to come
// from its own timer.
TEST_F(UnbegunExpiry, SearchNeverBegunFreesItsSlotOnItsOwnTimerWhileABegunOneKeepsWalking)
{
    std::atomic<bool> inCall{false}, release{false};
    services.document = [&](SearchTime, fake::MetadataAnswer&) {
        inCall = true;
        for (int i = 0; i < 1000 && !release; ++i) std::this_thread::sleep_for(10ms);
    };
    // The loop has sent a completion and gone back to its wait when the searches are created.
    ASSERT_TRUE(fake::waitForCompletion(createNoop()));
    std::this_thread::sleep_for(50ms);
    const auto created = std::chrono::steady_clock::now();
    const int begun = create();
    const int idle = create();
    unsigned int out = 0;
    target->beginSearch(static_cast<unsigned int>(begun), &out);
    ASSERT_TRUE(pollUntil([&] { return inCall.load(); })) << "the begun search never walked";
    // Clearly before the expiry (300 ms after the create) the search is still there.
    std::this_thread::sleep_until(created + 100ms);
    if (std::chrono::steady_clock::now() < created + 200ms) {
        EXPECT_EQ(state(idle), 1u);
    }
    EXPECT_TRUE(pollUntil([&] { return state(idle) == 0; }, 2s))
        << "the search never begun was not ended while the service was idle";
    EXPECT_EQ(state(begun), 1u);
    EXPECT_GT(create(), 0) << "its slot is still taken";
    release = true;
    unsigned int id = 0, sec = 0, usec = 0;
    target->endSearch(static_cast<unsigned int>(begun), &id, &sec, &usec);  // joins the walk
}

class FullTable : public JobLifetime {
protected:
    FullTable() : JobLifetime({2, boost::chrono::hours(1)}) {}
};

TEST_F(FullTable, CreateEndsTheOldestCompletedSearchOrIsRefusedWhenNoneHasCompleted)
{
    const int running = create();
    const int done = createNoop();
    const int noop = createNoop();
    EXPECT_GT(noop, 0);
    EXPECT_EQ(state(done), 0u);
    EXPECT_EQ(state(running), 1u);

    unsigned int id = 0, sec = 0, usec = 0;
    target->endSearch(static_cast<unsigned int>(noop), &id, &sec, &usec);
    EXPECT_GT(create(), 0);
    EXPECT_EQ(createNoop(), -1);
    EXPECT_EQ(state(running), 1u);
}

}  // namespace
}  // namespace walk
