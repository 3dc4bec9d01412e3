// The event and the metadata walks against the store's answers, and against answers that a
// neighbour service gets wrong.

#include <climits>

#include <gmock/gmock.h>

#include "inprocess/WalkFixture.h"

namespace walk {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class EventWalk : public WalkTest {};

TEST_F(EventWalk, BackwardReportsInReverseWithTheStateAtBothEnds)
{
    EXPECT_THAT(walk(createEvent(t(125), t(105), -1, true)),
                ElementsAre(track(t(125), "AUDIO001", 1, 1), track(t(125), "META001", 0, 1),
                            track(t(125), "VIDEO001", 0, 1), recording(t(125), 1, 1),
                            track(t(120), "VIDEO001", 0), track(t(110, 500000), "AUDIO001", 1),
                            track(t(105), "VIDEO001", 1, 1), track(t(105), "AUDIO001", 0, 1),
                            track(t(105), "META001", 0, 1), recording(t(105), 1, 1)));
}

TEST_F(EventWalk, RangeBeyondTheRecordingIsFittedToItAndIncludesBothEnds)
{
    SearchTime reached;
    EXPECT_THAT(walk(createEvent(t(50), t(500)), &reached),
                ElementsAre(recording(t(100), 1), track(t(100), "VIDEO001", 1),
                            track(t(110, 500000), "AUDIO001", 1), track(t(120), "VIDEO001", 0),
                            recording(t(130), 0), track(t(130), "AUDIO001", 0)));
    EXPECT_EQ(t(500), reached);
    EXPECT_THAT(walk(createEvent(t(4294967295u, 999999), t(0), INT_MAX)),
                ElementsAre(recording(t(130), 0), track(t(130), "AUDIO001", 0),
                            track(t(120), "VIDEO001", 0), track(t(110, 500000), "AUDIO001", 1),
                            recording(t(100), 1), track(t(100), "VIDEO001", 1)));
    EXPECT_THAT(walk(createEvent(t(120), t(110, 500000))),
                ElementsAre(track(t(120), "VIDEO001", 0), track(t(110, 500000), "AUDIO001", 1)));
}

// Start equal to end: a forward search of one instant, whose bounds both hold what is there.
TEST_F(EventWalk, ASingleInstantHoldsTheChangeAtIt)
{
    SearchTime reached;
    EXPECT_THAT(walk(createEvent(t(120), t(120)), &reached),
                ElementsAre(track(t(120), "VIDEO001", 0)));
    EXPECT_EQ(t(120), reached);
    EXPECT_THAT(walk(createEvent(t(120), t(120), -1, true)),
                ElementsAre(track(t(120), "AUDIO001", 1, 1), track(t(120), "META001", 0, 1),
                            track(t(120), "VIDEO001", 0, 1), recording(t(120), 1, 1),
                            track(t(120), "VIDEO001", 0)));
    EXPECT_THAT(walk(createEvent(t(121), t(121))), IsEmpty());
    EXPECT_THAT(walk(createMetadata(t(112), t(112), kPerson)), ElementsAre(meta(t(112))));
}

TEST_F(EventWalk, EachPropertyCountsAgainstTheLimitAndTheStartStateDoesNot)
{
    EXPECT_THAT(walk(createEvent(t(100), t(130), 3)),
                ElementsAre(recording(t(100), 1), track(t(100), "VIDEO001", 1),
                            track(t(110, 500000), "AUDIO001", 1)));
    EXPECT_THAT(walk(createEvent(t(100), t(130), 1)), ElementsAre(recording(t(100), 1)));
    const int calls = services.historyCalls;
    EXPECT_THAT(walk(createEvent(t(111), t(130), 0, true)),
                ElementsAre(track(t(111), "VIDEO001", 1, 1), track(t(111), "AUDIO001", 1, 1),
                            track(t(111), "META001", 0, 1), recording(t(111), 1, 1)));
    EXPECT_EQ(calls, services.historyCalls);
}

TEST_F(EventWalk, WalkStartsOrStopsAtTheFirstEventWhenItComesAfterTheRangeStart)
{
    struct MovedFirst : StoreServices {
        using StoreServices::StoreServices;
        SearchTime first;
        kavro_core_status firstEvent(SearchTime& at) override
        {
            at = first;
            return KAVRO_STATUS_OK;
        }
    } moved(path);
    fake::install(&moved);
    moved.first = t(115);
    // Forward, the start state stays that of the range start; the walk begins at 115.
    EXPECT_THAT(walk(createEvent(t(101), t(125), -1, true)),
                ElementsAre(track(t(101), "VIDEO001", 1, 1), track(t(101), "AUDIO001", 0, 1),
                            track(t(101), "META001", 0, 1), recording(t(101), 1, 1),
                            track(t(120), "VIDEO001", 0)));
    // Backward, the walk stops there and the closing state is taken there.
    EXPECT_THAT(walk(createEvent(t(125), t(101), -1, true)),
                ElementsAre(track(t(125), "AUDIO001", 1, 1), track(t(125), "META001", 0, 1),
                            track(t(125), "VIDEO001", 0, 1), recording(t(125), 1, 1),
                            track(t(120), "VIDEO001", 0), track(t(115), "VIDEO001", 1, 1),
                            track(t(115), "AUDIO001", 1, 1), track(t(115), "META001", 0, 1),
                            recording(t(115), 1, 1)));
    moved.first = t(200);
    EXPECT_THAT(walk(createEvent(t(101), t(125))), IsEmpty());
}

class MetadataWalk : public WalkTest {};

TEST_F(MetadataWalk, ReportsMatchingDocumentsInWalkOrderWithinTheRange)
{
    SearchTime reached;
    EXPECT_THAT(walk(createMetadata(t(0), t(4000000000u), kPerson), &reached),
                ElementsAre(meta(t(102)), meta(t(112))));
    EXPECT_EQ(t(4000000000u), reached);
    EXPECT_THAT(walk(createMetadata(t(130), t(102), kPerson)),
                ElementsAre(meta(t(112)), meta(t(102))));
    EXPECT_THAT(walk(createMetadata(t(103), t(125), "//Type")),
                ElementsAre(meta(t(105)), meta(t(112)), meta(t(125))));
    EXPECT_THAT(walk(createMetadata(t(100), t(130), "", 3)),
                ElementsAre(meta(t(102)), meta(t(105)), meta(t(112))));
    EXPECT_THAT(walk(createMetadata(t(100), t(130), "//[")), IsEmpty());
    // The whole time line, either way, with the limits at their extremes.
    EXPECT_THAT(walk(createMetadata(t(4294967295u, 999999), t(0), kPerson, 1)),
                ElementsAre(meta(t(112))));
    EXPECT_THAT(walk(createMetadata(t(0), t(4294967295u, 999999), kPerson, INT_MIN)),
                ElementsAre(meta(t(102)), meta(t(112))));
}

TEST_F(MetadataWalk, RangeOutsideTheMetadataTrackOrALimitOfZeroAsksForNoDocument)
{
    EXPECT_THAT(walk(createMetadata(t(126), t(130), "/")), IsEmpty());
    EXPECT_THAT(walk(createMetadata(t(100), t(101), "/")), IsEmpty());
    EXPECT_THAT(walk(createMetadata(t(100), t(130), "/", 0)), IsEmpty());
    EXPECT_EQ(0, services.metadataCalls);
}

// What each search does when one answer of a neighbour service is a failure.
TEST_F(EventWalk, FailedAnswersEndOnlyWhatDependsOnThem)
{
    services.failing = {"summary"};
    EXPECT_THAT(walk(createEvent(t(100), t(130), -1, true)), IsEmpty());

    services.failing = {"tracks"};  // only the tracks that are on can be named
    EXPECT_THAT(walk(createEvent(t(111), t(112), -1, true)),
                ElementsAre(track(t(111), "VIDEO001", 1, 1), track(t(111), "AUDIO001", 1, 1),
                            recording(t(111), 1, 1)));

    services.failing = {"state", "firstEvent"};
    EXPECT_THAT(walk(createEvent(t(105), t(115), -1, true)),
                ElementsAre(track(t(110, 500000), "AUDIO001", 1)));

    services.failing = {};
    services.history = [&](SearchTime at, fake::HistoryAnswer&) {
        if (at == t(120)) services.failing = {"historyEvent"};
    };
    EXPECT_THAT(walk(createEvent(t(105), t(130))),
                ElementsAre(track(t(110, 500000), "AUDIO001", 1), track(t(120), "VIDEO001", 0)));
}

TEST_F(MetadataWalk, FailedAnswersEndOnlyWhatDependsOnThem)
{
    services.failing = {"trackSummary"};  // the range stays fitted to the recording
    EXPECT_THAT(walk(createMetadata(t(0), t(113), kPerson)),
                ElementsAre(meta(t(102)), meta(t(112))));
    services.failing = {"metadata"};
    EXPECT_THAT(walk(createMetadata(t(0), t(113), kPerson)), IsEmpty());
    services.failing = {"summary"};
    EXPECT_THAT(walk(createMetadata(t(0), t(113), kPerson)), IsEmpty());
}

// Answers whose times are out of order end the walk, without what they carried.
TEST_F(EventWalk, AnswerOutOfOrderEndsTheWalkWithoutItsProperties)
{
    const std::function<void(fake::HistoryAnswer&)> disorders[] = {
        [](fake::HistoryAnswer& a) { a.times.next = t(119); },  // next before the asked time
        [](fake::HistoryAnswer& a) { a.times.prev = t(121); },  // prev after the asked time
        [](fake::HistoryAnswer& a) { a.times.cur = t(110); },   // cur before prev
    };
    for (const auto& disorder : disorders) {
        services.history = [&](SearchTime at, fake::HistoryAnswer& a) {
            if (at == t(120)) disorder(a);
        };
        SearchTime reached;
        EXPECT_THAT(walk(createEvent(t(105), t(125)), &reached),
                    ElementsAre(track(t(110, 500000), "AUDIO001", 1)));
        EXPECT_EQ(t(125), reached);
    }
}

TEST_F(EventWalk, NeighbourEqualToTheEventIsDroppedAndTheWalkEndsAfterIt)
{
    services.history = [](SearchTime, fake::HistoryAnswer& a) {
        if (a.times.cur == t(110, 500000)) a.times.next = a.times.cur;
    };
    EXPECT_THAT(walk(createEvent(t(105), t(125))),
                ElementsAre(track(t(110, 500000), "AUDIO001", 1)));
    services.history = [](SearchTime, fake::HistoryAnswer& a) {
        if (a.times.cur == t(120)) a.times.prev = a.times.cur;
    };
    EXPECT_THAT(walk(createEvent(t(125), t(105))), ElementsAre(track(t(120), "VIDEO001", 0)));
    // A next whose halves add up to zero is read as absent.
    services.history = [](SearchTime, fake::HistoryAnswer& a) {
        if (a.times.cur == t(110, 500000)) a.times.next = t(1, 4294967295u);
    };
    EXPECT_THAT(walk(createEvent(t(105), t(125))),
                ElementsAre(track(t(110, 500000), "AUDIO001", 1)));
}

TEST_F(EventWalk, MalformedPropertiesAreCutWhereTheShortestArrayEnds)
{
    services.history = [](SearchTime, fake::HistoryAnswer& a) {
        if (a.times.cur != t(100)) return;
        a.names->pop_back();   // names for one of two properties
        a.keys->push_back(1);  // a key without a value
        a.keys->at(0) = 7;     // unknown: counted, not reported
    };
    EXPECT_THAT(walk(createEvent(t(100), t(111))),
                ElementsAre(track(t(110, 500000), "AUDIO001", 1)));
    EXPECT_THAT(walk(createEvent(t(100), t(111), 1)), IsEmpty());
    services.history = [](SearchTime, fake::HistoryAnswer& a) {
        if (a.times.cur == t(100)) a.values.reset();
        if (a.times.cur == t(110, 500000)) a.names.reset();
    };
    EXPECT_THAT(walk(createEvent(t(100), t(120))), ElementsAre(track(t(120), "VIDEO001", 0)));
}

TEST_F(MetadataWalk, AnswerOutOfOrderOrWithoutADocumentMatchesNothing)
{
    services.document = [](SearchTime, fake::MetadataAnswer& a) {
        if (a.times.cur == t(102)) a.document.reset();
        if (a.times.cur == t(112)) a.times.prev = t(113);
    };
    EXPECT_THAT(walk(createMetadata(t(100), t(130), "/")), ElementsAre(meta(t(105))));
    services.document = [](SearchTime, fake::MetadataAnswer& a) {
        if (a.times.cur == t(105)) a.times.next = a.times.cur;
    };
    EXPECT_THAT(walk(createMetadata(t(100), t(130), "/")), ElementsAre(meta(t(102)), meta(t(105))));
}

}  // namespace
}  // namespace walk
