// EventSearchJob: everything one search queues, in order, forward and backward, with and
// without the start-state records; and the range and the result limit.

#include <string>
#include <vector>

#include "event_and_metadata_fixture.h"

namespace {

using namespace walktest;
using rstest::HistoryEvent;
using rstest::Property;
using rstest::Recording;

std::vector<Rec> startState(SearchTime t, std::vector<std::string> on, std::vector<std::string> off,
                            int recordingState)
{
    std::vector<Rec> out;
    for (auto& name : on) out.push_back(track(t, name, 1, 1));
    for (auto& name : off) out.push_back(track(t, name, 0, 1));
    out.push_back(recording(t, recordingState, 1));
    return out;
}

std::vector<Rec> join(std::initializer_list<std::vector<Rec>> parts)
{
    std::vector<Rec> out;
    for (const auto& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

const std::vector<Rec> at100 = {recording(t100, 1), track(t100, "V1", 1), track(t100, "A1", 1)};
const std::vector<Rec> at110 = {track(t110, "V2", 1)};
const std::vector<Rec> at120 = {track(t120, "V1", 0)};
const std::vector<Rec> at130 = {recording(t130, 0), track(t130, "V2", 0), track(t130, "A1", 0)};

struct OrderCase {
    const char* name;
    SearchTime start, end;
    bool startStateRecords;
    std::vector<Rec> expected;  // SearchCompleted is appended
};

void PrintTo(const OrderCase& c, std::ostream* os) { *os << c.name; }

class EventSearchOrderTest : public EventWalkTest,
                             public ::testing::WithParamInterface<OrderCase> {};

TEST_P(EventSearchOrderTest, QueuesStartStateThenTheWalkThenClosingStateThenCompletion)
{
    const OrderCase& c = GetParam();
    const int id = createEvent(c.start, c.end, -1, c.startStateRecords ? 1 : 0);
    std::vector<Rec> expected = c.expected;
    expected.push_back(completed());
    EXPECT_EQ(run(id), expected) << log.dump();
    EXPECT_EQ(end(id), c.end) << "a normal end reports the end the client asked for";
    EXPECT_EQ(log.count(6, format("Event Search %d completed work", id)), 1);
    EXPECT_EQ(log.count(7, "Successful completion of search range"), 1);
    const bool forward = !(c.end.sec < c.start.sec);
    const int startStateGroups = c.startStateRecords ? (forward ? 1 : 2) : 0;
    EXPECT_EQ(log.count(7, std::string("Including start state events at ") +
                               (forward ? "beginning of forward" : "end of backward") + " search"),
              startStateGroups);
}

INSTANTIATE_TEST_SUITE_P(
    Walks, EventSearchOrderTest,
    ::testing::Values(
        OrderCase{"Forward", {105, 0}, {125, 0}, false, join({at110, at120})},
        OrderCase{"Backward", {125, 0}, {105, 0}, false, join({at120, at110})},
        OrderCase{"ForwardWithStartState", {105, 0}, {125, 0}, true,
                  join({startState({105, 0}, {"V1", "A1"}, {"V2"}, 1), at110, at120})},
        OrderCase{"BackwardWithStartStateAtBothEnds", {125, 0}, {105, 0}, true,
                  join({startState({125, 0}, {"A1", "V2"}, {"V1"}, 1), at120, at110,
                        startState({105, 0}, {"V1", "A1"}, {"V2"}, 1)})},
        OrderCase{"ForwardOverTheWholeRecording", {90, 0}, {140, 0}, false,
                  join({at100, at110, at120, at130})},
        OrderCase{"BackwardOverTheWholeRecording", {140, 0}, {90, 0}, true,
                  join({startState({130, 0}, {}, {"A1", "V1", "V2"}, 0), at130, at120, at110,
                        at100, startState({100, 0}, {"V1", "A1"}, {"V2"}, 1)})},
        OrderCase{"SingleInstantOnAnEvent", {120, 0}, {120, 0}, false, at120}),
    ::testing::PrintToStringParamName());

TEST_F(EventWalkTest, AnEventBeforeTheRangeIsSkippedAndTheWalkGoesOnFromItsNext)
{
    const int id = createEvent({105, 0}, {125, 0});
    EXPECT_EQ(run(id), join({at110, at120, {completed()}}));
    EXPECT_EQ(log.count(5, "Skipping response because its time 100.000000 is outside the range "
                           "of our search or the maximum result count has been reached"),
              1)
        << log.dump();
    EXPECT_EQ(log.count(6, "Request time is 130.000000 which is outside of our search range of "
                           "105.000000 to 125.000000, or the maximum result count has been "
                           "reached"),
              1)
        << log.dump();
    EXPECT_EQ(requestsOf("GetRecordingHistoryEvent"),
              (std::vector<std::string>{"105.000000", "110.500000", "120.000000"}));
}

TEST_F(EventWalkTest, FirstEventAtTheRangeStartIsLoggedAndChangesNothing)
{
    const int id = createEvent({90, 0}, {140, 0});
    run(id);
    EXPECT_EQ(log.count(5, "First recording event 100.000000 is after our search start "
                           "100.000000."),
              1)
        << log.dump();
}

// A document at 50.0 makes the recording begin long before its first history event.
class EventFirstEventTest : public EventWalkTest {
protected:
    void SetUp() override
    {
        Recording r = fourEventRecording();
        r.documents = {{{50, 0}, "<frame/>"}};
        services->setRecording(r);
    }
};

TEST_F(EventFirstEventTest, ForwardWalkStartsAtTheFirstEventAfterTheStartStateOfTheRangeStart)
{
    const int id = createEvent({70, 0}, {125, 0}, -1, 1);
    EXPECT_EQ(run(id), join({startState({70, 0}, {}, {"A1", "V1", "V2"}, 0), at100, at110, at120,
                             {completed()}}));
    EXPECT_EQ(log.count(5, "First recording event 100.000000 is after our search start "
                           "70.000000."),
              1)
        << log.dump();
    const auto asked = requestsOf("GetRecordingHistoryEvent");
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(asked.front(), "100.000000") << "the first history request asks for the first event";
}

TEST_F(EventFirstEventTest, BackwardWalkStopsAtTheFirstEventAndClosesWithItsState)
{
    const int id = createEvent({125, 0}, {70, 0}, -1, 1);
    EXPECT_EQ(run(id), join({startState({125, 0}, {"A1", "V2"}, {"V1"}, 1), at120, at110, at100,
                             startState(t100, {"V1", "A1"}, {"V2"}, 1), {completed()}}));
    EXPECT_EQ(end(id), (SearchTime{70, 0}));
}

TEST_F(EventFirstEventTest, FirstEventAfterTheRangeEndLeavesNothingToAsk)
{
    const int id = createEvent({60, 0}, {80, 0});
    EXPECT_EQ(run(id), std::vector<Rec>{completed()});
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 0);
}

TEST_F(EventWalkTest, ZeroLimitSendsNoHistoryRequestButStillReportsTheStartState)
{
    const int id = createEvent({105, 0}, {125, 0}, 0, 1);
    EXPECT_EQ(run(id), join({startState({105, 0}, {"V1", "A1"}, {"V2"}, 1), {completed()}}));
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 0);
    EXPECT_EQ(end(id), (SearchTime{125, 0}));
}

struct LimitCase {
    int maxResults;
    size_t reported;  // of the eight properties from 100.0 to 130.0, in walk order
};

void PrintTo(const LimitCase& c, std::ostream* os)
{
    *os << (c.maxResults < 0 ? "Minus" : "") << std::abs(c.maxResults);
}

class EventSearchLimitTest : public EventWalkTest,
                             public ::testing::WithParamInterface<LimitCase> {};

TEST_P(EventSearchLimitTest, EachPropertyCountsAsOneResult)
{
    const int id = createEvent({90, 0}, {140, 0}, GetParam().maxResults);
    std::vector<Rec> all = join({at100, at110, at120, at130});
    std::vector<Rec> expected(all.begin(), all.begin() + GetParam().reported);
    expected.push_back(completed());
    EXPECT_EQ(run(id), expected) << log.dump();
    EXPECT_EQ(end(id), (SearchTime{140, 0}));
}

INSTANTIATE_TEST_SUITE_P(Limits, EventSearchLimitTest,
                         ::testing::Values(LimitCase{-1, 8}, LimitCase{-100, 8}, LimitCase{8, 8},
                                           LimitCase{100, 8}, LimitCase{7, 7}, LimitCase{3, 3},
                                           LimitCase{2, 2}, LimitCase{1, 1}),
                         ::testing::PrintToStringParamName());

TEST_F(EventWalkTest, FivePropertiesWhenTwoResultsRemainReportTwoAndEndTheWalk)
{
    Recording r;
    r.tracks = {"T1", "T2", "T3", "T4", "T5"};
    r.events = {{{200, 0}, {{"", 0, 1}}},
                {{210, 0}, {{"T1", 1, 1}, {"T2", 1, 1}, {"T3", 1, 1}, {"T4", 1, 1}, {"T5", 1, 1}}},
                {{220, 0}, {{"T1", 1, 0}}}};
    services->setRecording(r);
    const int id = createEvent({200, 0}, {220, 0}, 3);
    EXPECT_EQ(run(id), (std::vector<Rec>{recording({200, 0}, 1), track({210, 0}, "T1", 1),
                                         track({210, 0}, "T2", 1), completed()}));
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 2);
    EXPECT_EQ(log.count(6, "Request time is 220.000000 which is outside of our search range of "
                           "200.000000 to 220.000000, or the maximum result count has been "
                           "reached"),
              1)
        << log.dump();
}

TEST_F(EventWalkTest, PausesAtLeast500MicrosecondsBetweenHistoryRequests)
{
    RequestClock clock;
    auto* s = &*services;
    services->scriptGetRecordingHistoryEvent(
        [&clock, s](rstest::StoreTime t) -> rstest::Reply<rstest::HistoryEventAnswer> {
            clock.tick();
            return *s->modelHistoryEvent(t);
        });
    run(createEvent({90, 0}, {140, 0}));
    EXPECT_EQ(clock.count(), 4u);
    EXPECT_GE(clock.shortestGap(), std::chrono::microseconds(500));
}

}  // namespace
