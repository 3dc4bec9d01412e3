// The target's requests, its limit of running searches, and its event loop, reached through
// its public operations only; searches walk on their own workers where the test is about them.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "inprocess/WalkFixture.h"

namespace walk {
namespace {

using ::testing::ElementsAre;

class Target : public WalkTest {
protected:
    unsigned int state(int id)
    {
        unsigned int idOut = 0, s = 99;
        EXPECT_EQ(0, target->getSearchState(id, &idOut, &s));
        EXPECT_EQ(static_cast<unsigned>(id), idOut);
        return s;
    }
    SearchTime end(int id)
    {
        unsigned int idOut = 0;
        SearchTime reached{7, 7};
        EXPECT_EQ(0, target->endSearch(id, &idOut, &reached.sec, &reached.usec));
        return reached;
    }
    int begin(int id)
    {
        unsigned int idOut = 0;
        EXPECT_EQ(0, target->beginSearch(id, &idOut));
        return static_cast<int>(idOut);
    }
    int noop()
    {
        int id = -1;
        EXPECT_EQ(0, target->createNoopSearch(&id));
        return id;
    }
};

TEST_F(Target, AtMostTwoSearchesRunAndARefusalTakesNoId)
{
    const int a = createEvent(t(100), t(130));
    const int b = createMetadata(t(100), t(130), "/");
    int refused = 0;
    EXPECT_EQ(0, target->createEventSearch(100, 0, 130, 0, -1, 0, 0, 0, &refused));
    EXPECT_EQ(-1, refused);
    EXPECT_EQ(0, target->createMetadataSearch(100, 0, 130, 0, -1, "/", &refused));
    EXPECT_EQ(-1, refused);
    const int n = noop();  // completed at once: never counted
    EXPECT_EQ(b + 1, n);
    EXPECT_EQ(2u, state(n));
    EXPECT_EQ(t(0), end(n));

    EXPECT_EQ(a, begin(a));
    ASSERT_TRUE(fake::waitForCompletion(a));
    EXPECT_EQ(2u, state(a));
    EXPECT_EQ(n + 1, createEvent(t(100), t(130)));  // a completed search frees its slot
    EXPECT_EQ(1u, state(b));
}

// Creates that arrive at the same moment, as from several clients: never a third running search.
TEST_F(Target, CreatesAtTheSameMomentNeverMakeAThirdRunningSearch)
{
    for (int round = 0; round < 20; ++round) {
        std::promise<void> go;
        const std::shared_future<void> started = go.get_future().share();
        std::vector<int> ids(6, -1);
        std::vector<std::thread> clients;
        for (std::size_t i = 0; i < ids.size(); ++i) {
            clients.emplace_back([&, i] {
                started.wait();
                target->createEventSearch(100, 0, 130, 0, -1, 0, 0, 0, &ids[i]);
            });
        }
        go.set_value();
        for (auto& client : clients) client.join();
        EXPECT_EQ(2, std::count_if(ids.begin(), ids.end(), [](int id) { return id != -1; }))
            << "round " << round;
        for (int id : ids) {
            if (id != -1) end(id);
        }
    }
}

TEST_F(Target, MicrosecondsAbove999999AreRefusedWithStatus1)
{
    for (unsigned int bad : {1000000u, 4294967295u}) {
        int id = 5;
        EXPECT_EQ(1, target->createEventSearch(1, bad, 2, 0, -1, 0, 0, 0, &id));
        EXPECT_EQ(1, target->createEventSearch(1, 0, 2, bad, -1, 0, 0, 0, &id));
        EXPECT_EQ(1, target->createMetadataSearch(1, bad, 2, 0, -1, "/", &id));
        EXPECT_EQ(1, target->createMetadataSearch(1, 0, 2, bad, -1, "/", &id));
    }
    EXPECT_NE(-1, createEvent(t(1, 999999), t(2, 999999)));
    EXPECT_NE(-1, createMetadata(t(1, 999999), t(2, 999999), "/"));
}

TEST_F(Target, UnknownIdsAreAnsweredWithStatusZeroAndStateZero)
{
    const int id = createEvent(t(100), t(130));
    end(id);
    for (unsigned int unknown : {static_cast<unsigned>(id), 0u, 4294967295u}) {
        EXPECT_EQ(static_cast<int>(unknown), begin(unknown));
        EXPECT_EQ(0u, state(unknown));
        unsigned int idOut = 0, sec = 0, usec = 0;
        EXPECT_EQ(0, target->endSearch(unknown, &idOut, &sec, &usec));
        EXPECT_EQ(unknown, idOut);
    }
}

TEST_F(Target, BegunSearchWalksOnceCompletesOnceAndEndsWithWhereItGot)
{
    const int id = createEvent(t(105), t(125));
    EXPECT_EQ(1u, state(id));
    begin(id);
    begin(id);  // a second begin starts no second walk
    ASSERT_TRUE(fake::waitForCompletion(id));
    EXPECT_EQ(t(125), end(id));
    EXPECT_EQ(0u, state(id));
    EXPECT_THAT(fake::takeSent(),
                ElementsAre(Sent{Sent::Track, unsigned(id), t(110, 500000), "AUDIO001", 1, 0},
                            Sent{Sent::Track, unsigned(id), t(120), "VIDEO001", 0, 0},
                            Sent{Sent::Completed, unsigned(id), {}, "", 0, 0}));
}

TEST_F(Target, EndingARunningWalkWaitsForTheStepInProgressAndCompletesOnce)
{
    std::atomic<bool> inCall{false};
    services.history = [&](SearchTime at, fake::HistoryAnswer&) {
        if (at != t(120)) return;
        inCall = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    };
    const int id = createEvent(t(105), t(130));
    begin(id);
    ASSERT_TRUE(pollUntil([&] { return inCall.load(); })) << "the walk never reached 120";
    EXPECT_EQ(t(110, 500000), end(id));
    const int calls = services.historyCalls;  // the worker has stopped: no call after this
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(calls, services.historyCalls);
    ASSERT_TRUE(fake::waitForCompletion(id));
    int completions = 0;
    for (const Sent& s : fake::takeSent()) completions += s.kind == Sent::Completed;
    EXPECT_EQ(1, completions);
}

TEST_F(Target, WalkThatThrowsStillCompletesAndFreesItsSlot)
{
    services.history = [](SearchTime, fake::HistoryAnswer&) { throw std::runtime_error("boom"); };
    const int a = createEvent(t(100), t(130));
    const int b = createEvent(t(100), t(130));
    begin(a);
    begin(b);
    ASSERT_TRUE(fake::waitForCompletion(a));
    ASSERT_TRUE(fake::waitForCompletion(b));
    EXPECT_NE(-1, createEvent(t(100), t(130)));
}

}  // namespace
}  // namespace walk
