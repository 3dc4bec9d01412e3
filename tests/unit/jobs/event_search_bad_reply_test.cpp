// EventSearchJob against recording services that fail or answer nonsense: each failure ends at
// worst the walk, with its own log line, and the search completes normally.

#include <memory>
#include <string>
#include <vector>

#include "event_and_metadata_fixture.h"
#include "jobs/EventSearchJob.h"
#include "support/PrivateBus.h"

namespace {

using namespace walktest;
using rstest::HistoryEventAnswer;
using rstest::InspectableTarget;
using rstest::Reply;
using rstest::StoreTime;

class EventBadReplyTest : public EventWalkTest {
protected:
    // Answers as the recording would, except for the request at `at`, which `change` edits.
    void editAnswerAt(SearchTime at, std::function<void(HistoryEventAnswer&)> change)
    {
        auto* s = &*services;
        services->scriptGetRecordingHistoryEvent(
            [s, at, change](StoreTime t) -> Reply<HistoryEventAnswer> {
                auto answer = s->modelHistoryEvent(t);
                if (!answer) return Reply<HistoryEventAnswer>::status(1);
                if (t == st(at)) change(*answer);
                return *answer;
            });
    }
};

// An answer whose neighbour in the walk's direction equals cur.
struct EqualNeighbourCase {
    const char* name;
    SearchTime editAt, start, end;
    std::vector<Rec> expected;
    const char* notice;
    int requests;
};

void PrintTo(const EqualNeighbourCase& c, std::ostream* os) { *os << c.name; }

class EventEqualNeighbourTest : public EventBadReplyTest,
                                public ::testing::WithParamInterface<EqualNeighbourCase> {};

TEST_P(EventEqualNeighbourTest, IsClearedAndTheWalkEndsAfterTheEvent)
{
    const EqualNeighbourCase& c = GetParam();
    const bool forward = !(c.end.sec < c.start.sec);
    editAnswerAt(c.editAt,
                 [forward](HistoryEventAnswer& a) { (forward ? a.next : a.prev) = a.cur; });
    const int id = createEvent(c.start, c.end);
    EXPECT_EQ(run(id), c.expected);
    EXPECT_EQ(log.count(5, c.notice), 1) << log.dump();
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), c.requests);
    EXPECT_EQ(end(id), c.end);
}

INSTANTIATE_TEST_SUITE_P(
    Neighbours, EventEqualNeighbourTest,
    ::testing::Values(
        EqualNeighbourCase{"ForwardNext", t110, {105, 0}, {125, 0},
                           {track(t110, "V2", 1), completed()},
                           "Next 110.500000 == Cur 110.500000.  Setting next to 0.0", 2},
        EqualNeighbourCase{"BackwardPrev", {125, 0}, {125, 0}, {105, 0},
                           {track(t120, "V1", 0), completed()},
                           "Prev 120.000000 == Cur 120.000000.  Setting prev to 0.0", 1}),
    ::testing::PrintToStringParamName());

struct DisorderCase {
    const char* name;
    StoreTime prev, cur, next;  // the answer to the request for 110.5
    bool requestedLine, curLine;
};

void PrintTo(const DisorderCase& c, std::ostream* os) { *os << c.name; }

class EventDisorderTest : public EventBadReplyTest,
                          public ::testing::WithParamInterface<DisorderCase> {};

TEST_P(EventDisorderTest, DropsTheAnswerAndCompletesAtTheRequestedEnd)
{
    const DisorderCase& c = GetParam();
    editAnswerAt(t110, [&](HistoryEventAnswer& a) {
        a.prev = c.prev;
        a.cur = c.cur;
        a.next = c.next;
    });
    const int id = createEvent({105, 0}, {125, 0});
    EXPECT_EQ(run(id), std::vector<Rec>{completed()}) << "in range, but out of order: dropped";
    EXPECT_EQ(end(id), (SearchTime{125, 0}));
    EXPECT_EQ(callCount("GetRecordingHistoryEvent"), 2) << "the walk ends after the bad answer";
    EXPECT_EQ(log.count(7, "Successful completion of search range"), 1);
    const std::string times[] = {format("%u.%06u", c.prev.sec, c.prev.usec),
                                 format("%u.%06u", c.cur.sec, c.cur.usec),
                                 format("%u.%06u", c.next.sec, c.next.usec)};
    EXPECT_EQ(log.count(3, "Returned times were not linear. " + times[0] + " (prev) < 110.500000 "
                               "(requested) < " + times[2] + " (next)"),
              c.requestedLine ? 1 : 0)
        << log.dump();
    EXPECT_EQ(log.count(3, "Returned times were not linear. " + times[0] + " (prev) < " +
                               times[1] + " (cur) < " + times[2] + " (next)"),
              c.curLine ? 1 : 0)
        << log.dump();
}

INSTANTIATE_TEST_SUITE_P(
    Answers, EventDisorderTest,
    ::testing::Values(
        DisorderCase{"NextBeforeRequested", {100, 0}, {105, 0}, {108, 0}, true, false},
        DisorderCase{"NextBeforeCur", {100, 0}, {115, 0}, {112, 0}, false, true},
        DisorderCase{"PrevAfterBoth", {121, 0}, {110, 500000}, {122, 0}, true, true},
        DisorderCase{"PrevEqualToRequested", {110, 500000}, {111, 0}, {120, 0}, true, false}),
    ::testing::PrintToStringParamName());

// The event search counts a next time as present when its two halves, added as 32-bit
// numbers, do not give 0; such a next never fails the ordering checks.
TEST_F(EventBadReplyTest, NextWhoseHalvesAddUpToZeroCountsAsAbsent)
{
    const unsigned int top = 4294967295u;
    services->scriptGetRecordingSummary(
        [=]() -> Reply<rstest::Span> { return rstest::Span{{top, 0}, {top, 10}}; });
    services->scriptGetFirstRecordingHistoryEventTime(
        []() -> Reply<StoreTime> { return StoreTime{1, 0}; });
    services->scriptGetRecordingHistoryEvent([=](StoreTime) -> Reply<HistoryEventAnswer> {
        HistoryEventAnswer a;
        a.prev = {1, 0};
        a.cur = {top, 5};
        a.next = {top, 1};  // earlier than cur, but its halves add up to 0
        a.names = {"V1"};
        a.keys = {1};
        a.values = {1};
        return a;
    });
    const int id = createEvent({top, 0}, {top, 10}, 2);
    EXPECT_EQ(run(id), (std::vector<Rec>{track({top, 5}, "V1", 1), track({top, 5}, "V1", 1),
                                         completed()}))
        << log.dump();
    EXPECT_TRUE(log.since(3).empty()) << log.dump();
}

struct FailureCase {
    const char* name;
    const char* method;
    int priority;
    const char* line;
    std::vector<Rec> expected;  // forward 105.0 to 125.0 with start-state records
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class EventFailureTest : public EventBadReplyTest,
                         public ::testing::WithParamInterface<FailureCase> {};

TEST_P(EventFailureTest, LogsTheFailureAndCompletesNormally)
{
    const FailureCase& c = GetParam();
    services->failMethod(c.method, 42);
    const int id = createEvent({105, 0}, {125, 0}, -1, 1);
    std::vector<Rec> expected = c.expected;
    expected.push_back(completed());
    EXPECT_EQ(run(id), expected) << log.dump();
    EXPECT_EQ(log.count(c.priority, c.line), 1) << log.dump();
    EXPECT_EQ(end(id), (SearchTime{125, 0}));
}

const SearchTime t105{105, 0};

INSTANTIATE_TEST_SUITE_P(
    Calls, EventFailureTest,
    ::testing::Values(
        FailureCase{"TrackList", "GetTracks", 3, "Couldn't get list of all tracks",
                    {track(t105, "V1", 1, 1), track(t105, "A1", 1, 1), recording(t105, 1, 1),
                     track(t110, "V2", 1), track(t120, "V1", 0)}},
        FailureCase{"FirstEventTime", "GetFirstRecordingHistoryEventTime", 4,
                    "Call to get first recording history event failed 42",
                    {track(t105, "V1", 1, 1), track(t105, "A1", 1, 1), track(t105, "V2", 0, 1),
                     recording(t105, 1, 1), track(t110, "V2", 1), track(t120, "V1", 0)}},
        FailureCase{"HistoryEvent", "GetRecordingHistoryEvent", 3,
                    "Bad return from recording_data_access while getting Recording/History events",
                    {track(t105, "V1", 1, 1), track(t105, "A1", 1, 1), track(t105, "V2", 0, 1),
                     recording(t105, 1, 1)}},
        FailureCase{"RecordingState", "GetRecordingState", 3,
                    "Kavro get_recording_state failed with 42",
                    {track(t110, "V2", 1), track(t120, "V1", 0)}}),
    ::testing::PrintToStringParamName());

TEST_F(EventBadReplyTest, UnreachableRecordingControlLeavesOnlyTheTracksThatAreOn)
{
    int id = -1;
    {
        rstest::ScopedBusAddress nowhere("unix:path=/nonexistent/bus/socket");
        id = createEvent({105, 0}, {125, 0}, -1, 1);
    }
    EXPECT_EQ(log.count(3, "Could not connect to Recording Control service"), 1) << log.dump();
    EXPECT_EQ(callCount("GetTracks"), 0);
    EXPECT_EQ(run(id), (std::vector<Rec>{track(t105, "V1", 1, 1), track(t105, "A1", 1, 1),
                                         recording(t105, 1, 1), track(t110, "V2", 1),
                                         track(t120, "V1", 0), completed()}));
}

// The framework refuses an answer whose arrays differ in length, or that has no property at all,
// as a malformed reply: the step then fails like any other refused request.
struct MalformedCase {
    const char* name;
    std::vector<std::string> names;
    std::vector<uint32_t> keys, values;
};

void PrintTo(const MalformedCase& c, std::ostream* os) { *os << c.name; }

class EventMalformedReplyTest : public EventBadReplyTest,
                                public ::testing::WithParamInterface<MalformedCase> {};

TEST_P(EventMalformedReplyTest, EndsTheWalkLikeARefusedRequest)
{
    const MalformedCase& c = GetParam();
    editAnswerAt(t110, [&](HistoryEventAnswer& a) {
        a.names = c.names;
        a.keys = c.keys;
        a.values = c.values;
    });
    const int id = createEvent({105, 0}, {125, 0});
    EXPECT_EQ(run(id), std::vector<Rec>{completed()}) << log.dump();
    EXPECT_EQ(log.count(3, "Bad return from recording_data_access while getting "
                           "Recording/History events"),
              1)
        << log.dump();
    EXPECT_EQ(end(id), (SearchTime{125, 0}));
}

INSTANTIATE_TEST_SUITE_P(
    Arrays, EventMalformedReplyTest,
    ::testing::Values(MalformedCase{"FewerNames", {"V2"}, {1, 1, 0}, {1, 0, 1}},
                      MalformedCase{"FewerKeys", {"V2", "V1", "A1"}, {1}, {1, 0, 1}},
                      MalformedCase{"FewerValues", {"V2", "V1", "A1"}, {1, 1, 1}, {0, 1}},
                      MalformedCase{"NoProperty", {}, {}, {}}),
    ::testing::PrintToStringParamName());

struct KeyCase {
    const char* name;
    std::vector<std::string> names;
    std::vector<uint32_t> keys, values;
    int maxResults;
    std::vector<Rec> expected;  // of the answer at 110.5
};

void PrintTo(const KeyCase& c, std::ostream* os) { *os << c.name; }

class EventUnknownKeyTest : public EventBadReplyTest,
                            public ::testing::WithParamInterface<KeyCase> {};

TEST_P(EventUnknownKeyTest, IsLoggedAndNotReportedButCountsAsAResult)
{
    const KeyCase& c = GetParam();
    editAnswerAt(t110, [&](HistoryEventAnswer& a) {
        a.names = c.names;
        a.keys = c.keys;
        a.values = c.values;
    });
    const int id = createEvent(t110, {115, 0}, c.maxResults);
    std::vector<Rec> expected = c.expected;
    expected.push_back(completed());
    EXPECT_EQ(run(id), expected) << log.dump();
    EXPECT_EQ(log.count(4, "Unknown event key=7"), 1) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(
    Keys, EventUnknownKeyTest,
    ::testing::Values(KeyCase{"Unlimited", {"X", "V2"}, {7, 1}, {1, 5}, -1, {track(t110, "V2", 1)}},
                      KeyCase{"LimitOne", {"X", "V2"}, {7, 1}, {1, 1}, 1, {}}),
    ::testing::PrintToStringParamName());

// What no bus reply can carry, since the framework checks the arrays first; the job must stay
// safe on its own all the same. Built here by hand and handed to the step's property reader.
class PropertyReader : public EventSearchJob {
public:
    PropertyReader(InspectableTarget* target, int maxResults)
        : EventSearchJob(target->takeJobId(), nullptr, target, 110, 500000, 115, 0, maxResults,
                         false, false, false)
    {
    }
    std::vector<EventProperty> read(char** names, unsigned int** keys, unsigned int** values)
    {
        std::vector<EventProperty> properties;
        _takeProperties(names, keys, values, properties);
        return properties;
    }
};

struct ArraysCase {
    const char* name;
    int names, keys, values;  // entries before the terminator; -1 for a missing array
    int maxResults;
    size_t taken;
    bool namesShortLine;
};

void PrintTo(const ArraysCase& c, std::ostream* os) { *os << c.name; }

class EventPropertyArraysTest : public EventBadReplyTest,
                                public ::testing::WithParamInterface<ArraysCase> {};

TEST_P(EventPropertyArraysTest, ReadsNoArrayPastItsEnd)
{
    const ArraysCase& c = GetParam();
    // Exactly sized arrays, so that a read past a terminator is caught by the sanitizers.
    std::vector<std::string> nameText = {"T0", "T1", "T2", "T3"};
    std::vector<unsigned int> numbers = {1, 1, 1, 1};
    auto names = std::make_unique<char*[]>(c.names < 0 ? 1 : c.names + 1);
    auto keys = std::make_unique<unsigned int*[]>(c.keys < 0 ? 1 : c.keys + 1);
    auto values = std::make_unique<unsigned int*[]>(c.values < 0 ? 1 : c.values + 1);
    for (int i = 0; i <= c.names; ++i) names[i] = i < c.names ? nameText[i].data() : nullptr;
    for (int i = 0; i <= c.keys; ++i) keys[i] = i < c.keys ? &numbers[i] : nullptr;
    for (int i = 0; i <= c.values; ++i) values[i] = i < c.values ? &numbers[i] : nullptr;

    PropertyReader reader(&target, c.maxResults);
    const auto properties = reader.read(c.names < 0 ? nullptr : names.get(),
                                        c.keys < 0 ? nullptr : keys.get(),
                                        c.values < 0 ? nullptr : values.get());
    ASSERT_EQ(properties.size(), c.taken);
    for (size_t i = 0; i < properties.size(); ++i) {
        EXPECT_EQ(properties[i].name, nameText[i]);
        EXPECT_EQ(properties[i].key, 1u);
    }
    EXPECT_EQ(log.contains(4, "has track names for only"), c.namesShortLine) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(
    Arrays, EventPropertyArraysTest,
    ::testing::Values(ArraysCase{"Complete", 3, 3, 3, -1, 3, false},
                      ArraysCase{"FewerNames", 1, 3, 3, -1, 1, true},
                      ArraysCase{"MissingNames", -1, 3, 3, -1, 0, true},
                      ArraysCase{"FewerKeys", 3, 2, 3, -1, 2, false},
                      ArraysCase{"MissingKeys", 3, -1, 3, -1, 0, false},
                      ArraysCase{"MissingValues", 3, 3, -1, -1, 0, false},
                      ArraysCase{"AllMissing", -1, -1, -1, -1, 0, false},
                      ArraysCase{"LimitBeforeNamesRunOut", 1, 3, 3, 1, 1, false}),
    ::testing::PrintToStringParamName());

}  // namespace
