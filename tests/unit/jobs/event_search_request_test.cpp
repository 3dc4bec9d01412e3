// EventSearchJob through the target's requests: creation (the running limit, ids, the flag
// bytes, the track list) and ending a search in the middle of its walk. The refusal of bad
// times, for both kinds of search, is tested with the target.

#include <atomic>
#include <future>
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "event_and_metadata_fixture.h"
#include "jobs/EventSearchJob.h"

namespace {

using namespace walktest;
using rstest::HistoryEventAnswer;
using rstest::InspectableTarget;
using rstest::Recording;
using rstest::Reply;
using rstest::StoreTime;

const SearchTime t105{105, 0}, t125{125, 0};

class EventRequestTest : public EventWalkTest {
protected:
    boost::shared_ptr<EventSearchJob> job(int id)
    {
        return boost::dynamic_pointer_cast<EventSearchJob>(
            target.findJob(static_cast<unsigned int>(id)));
    }
};

TEST_F(EventRequestTest, ThirdSearchIsRefusedWithoutTakingAnIdUntilOneCompletes)
{
    const unsigned int before = InspectableTarget::lastId();
    const int first = createEvent(t105, t125);
    const int second = createEvent(t105, t125);
    EXPECT_EQ(first, static_cast<int>(before + 1));
    EXPECT_EQ(second, static_cast<int>(before + 2));

    EXPECT_EQ(createEvent(t105, t125), -1) << "two searches are Searching, begun or not";
    EXPECT_EQ(log.count(5, "Cannot create new search job because 2 jobs are already running "
                           "(max 2)"),
              1)
        << log.dump();
    EXPECT_EQ(callCount("GetTracks"), 2) << "a refused request builds no job";

    run(first);
    const int third = createEvent(t105, t125);
    EXPECT_EQ(third, static_cast<int>(before + 3)) << "the refusal took no id";
}

struct FlagsCase {
    const char* name;
    unsigned char flag1, flag2, includeStartState;
};

void PrintTo(const FlagsCase& c, std::ostream* os) { *os << c.name; }

class EventCreateFlagsTest : public EventRequestTest,
                             public ::testing::WithParamInterface<FlagsCase> {};

TEST_P(EventCreateFlagsTest, AnyNonzeroByteIsTrue)
{
    const FlagsCase& c = GetParam();
    const int id = createEvent(t105, t125, -1, c.includeStartState, c.flag1, c.flag2);
    auto created = job(id);
    ASSERT_TRUE(created != nullptr);
    EXPECT_EQ(created->getRequestFlag1(), c.flag1 != 0);
    EXPECT_EQ(created->getRequestFlag2(), c.flag2 != 0);
    EXPECT_EQ(created->getIncludeStartStateEvents(), c.includeStartState != 0);
}

INSTANTIATE_TEST_SUITE_P(Flags, EventCreateFlagsTest,
                         ::testing::Values(FlagsCase{"None", 0, 0, 0}, FlagsCase{"First", 1, 0, 0},
                                           FlagsCase{"Second", 0, 2, 0},
                                           FlagsCase{"StartState", 0, 0, 255},
                                           FlagsCase{"All", 128, 255, 7}),
                         ::testing::PrintToStringParamName());

TEST_F(EventRequestTest, RequestFlagsChangeNothingThatIsQueued)
{
    const std::vector<Rec> plain = run(createEvent(t125, t105, -1, 1, 0, 0));
    const std::vector<Rec> flagged = run(createEvent(t125, t105, -1, 1, 255, 1));
    EXPECT_EQ(plain.size(), 11u);
    EXPECT_EQ(plain, flagged);
}

TEST_F(EventRequestTest, TrackListIsFetchedOnceWhenTheSearchIsCreated)
{
    const int id = createEvent(t105, t125, -1, 1);
    EXPECT_EQ(callCount("GetTracks"), 1);
    auto created = job(id);
    ASSERT_TRUE(created != nullptr);
    EXPECT_EQ(created->getAllTracks(), (std::set<std::string>{"A1", "V1", "V2"}));

    Recording changed = fourEventRecording();
    changed.tracks.push_back("Z9");
    services->setRecording(changed);
    const std::vector<Rec> records = run(id);
    EXPECT_EQ(callCount("GetTracks"), 1);
    for (const Rec& r : records) EXPECT_NE(r.track, "Z9") << "a track added later is not known";
}

TEST_F(EventRequestTest, RepeatedTrackNamesCollapseIntoOne)
{
    services->scriptGetTracks([]() -> Reply<std::vector<std::string>> {
        return std::vector<std::string>{"V2", "A1", "V2", "", "A1"};
    });
    const int id = createEvent(t105, t125, -1, 1);
    EXPECT_EQ(job(id)->getAllTracks(), (std::set<std::string>{"", "A1", "V2"}));
}

struct EndCase {
    const char* name;
    SearchTime start, end;
    SearchTime reported;           // how far the walk had got when it was ended
    std::vector<Rec> beforeEnd;    // queued before SearchCompleted
    std::vector<Rec> stepInFlight; // the step that was waiting for its answer
};

void PrintTo(const EndCase& c, std::ostream* os) { *os << c.name; }

class EventEndMidWalkTest : public EventRequestTest,
                            public ::testing::WithParamInterface<EndCase> {};

// The second history answer is held back until the client's end request has taken effect.
TEST_P(EventEndMidWalkTest, StopsAfterTheStepInProgressWithoutClosingRecords)
{
    const EndCase& c = GetParam();
    Gate gate;
    std::atomic<int> answers{0};
    auto* s = &*services;
    services->scriptGetRecordingHistoryEvent([&, s](StoreTime t) -> Reply<HistoryEventAnswer> {
        if (++answers == 2) gate.waitOpen();
        return *s->modelHistoryEvent(t);
    });
    const int id = createEvent(c.start, c.end, -1, 1);
    begin(id);
    ASSERT_TRUE(gate.waitForWaiter()) << log.dump();

    auto ending = std::async(std::launch::async, [&] { return end(id); });
    EXPECT_TRUE(waitCompleted(id)) << "ending queues SearchCompleted before it waits";
    gate.open();
    EXPECT_EQ(ending.get(), c.reported);

    std::vector<Rec> expected = c.beforeEnd;
    expected.push_back(completed());
    expected.insert(expected.end(), c.stepInFlight.begin(), c.stepInFlight.end());
    EXPECT_EQ(records(id), expected) << log.dump();
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 2) << "no request after the step in progress";
    EXPECT_EQ(log.count(6, format("Event Search %d completed work", id)), 1) << log.dump();
    EXPECT_EQ(log.count(7, "Successful completion of search range"), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, EventEndMidWalkTest,
    ::testing::Values(
        EndCase{"ForwardBeforeAnyEventWasAccepted", t105, t125, t105,
                {track(t105, "V1", 1, 1), track(t105, "A1", 1, 1), track(t105, "V2", 0, 1),
                 recording(t105, 1, 1)},
                {track(t110, "V2", 1)}},
        EndCase{"BackwardAfterOneEvent", t125, t105, t120,
                {track(t125, "A1", 1, 1), track(t125, "V2", 1, 1), track(t125, "V1", 0, 1),
                 recording(t125, 1, 1), track(t120, "V1", 0)},
                {track(t110, "V2", 1)}}),
    ::testing::PrintToStringParamName());

TEST_F(EventRequestTest, EndingBeforeTheWalkBeginsQueuesNoStartState)
{
    Gate gate;
    services->scriptGetRecordingSummary([&]() -> Reply<rstest::Span> {
        gate.waitOpen();
        return rstest::Span{st(t100), st(t130)};
    });
    const int id = createEvent(t125, t105, -1, 1);
    begin(id);
    ASSERT_TRUE(gate.waitForWaiter());
    auto ending = std::async(std::launch::async, [&] { return end(id); });
    EXPECT_TRUE(waitCompleted(id));
    gate.open();
    EXPECT_EQ(ending.get(), t125);
    EXPECT_EQ(records(id), std::vector<Rec>{completed()});
    EXPECT_EQ(callCount("GetRecordingState"), 0);
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 0);
}

}  // namespace
