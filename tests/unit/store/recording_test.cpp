// The answer rules of the read side, on a small recording written by the test.
#include <sqlite3.h>

#include <fstream>
#include <optional>
#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/Recording.h"
#include "store/RecordingSchema.h"
#include "store/RecordingWriter.h"
#include "store/StoreError.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
using store::EventProperty;
using store::Recording;
using store::RecordingWriter;
using store::StoreTime;
using testing::ElementsAre;
using testing::HasSubstr;

// Two events share 200.0, as do two documents at 160.0; AUDIO001 ends switched off, VIDEO001
// ends switched on, and SPARE never switches at all.
std::string writeSmallRecording(const TempDir& dir)
{
    const std::string path = dir.file("small.db");
    RecordingWriter writer(path, RecordingWriter::Durability::Safe);
    auto transaction = writer.transaction();
    writer.addEvent(at(100), {recordingSwitch(true), trackSwitch("VIDEO001", true),
                              trackSwitch("META001", true)});
    writer.addEvent(at(100, 500000), {trackSwitch("VIDEO001", false)});
    writer.addEvent(at(200), {recordingSwitch(false)});
    writer.addEvent(at(200), {trackSwitch("AUDIO001", true)});
    writer.addEvent(at(250), {trackSwitch("AUDIO001", false)});
    writer.addEvent(at(300, 999999), {recordingSwitch(true), trackSwitch("VIDEO001", true)});
    writer.addTrack("SPARE");
    writer.addDocument(at(150), "<a n='1'/>");
    writer.addDocument(at(150, 1), "<a n='2'/>");
    writer.addDocument(at(160), "<a n='3'/>");
    writer.addDocument(at(160), "<a n='4'/>");
    writer.addDocument(at(170), "<a n='5'/>");
    transaction->commit();
    return path;
}

class SmallRecording : public testing::Test {
protected:
    TempDir dir_;
    Recording recording_{writeSmallRecording(dir_)};
};

enum class Table { HistoryEvents, Documents };

struct LookupCase {
    const char* name;
    Table table;
    StoreTime asked;
    StoreTime cur, prev, next;
};

class NeighbourLookup : public SmallRecording, public testing::WithParamInterface<LookupCase> {
protected:
    std::optional<store::Neighbours> timesAt(Table table, StoreTime t)
    {
        if (table == Table::HistoryEvents) {
            const auto event = recording_.historyEventAt(t);
            return event ? std::optional(event->times) : std::nullopt;
        }
        const auto document = recording_.metadataAt(t);
        return document ? std::optional(document->times) : std::nullopt;
    }
};

TEST_P(NeighbourLookup, AnswersTheOneAtOrBeforeElseAfterWithItsNeighbours)
{
    const LookupCase& c = GetParam();
    const auto times = timesAt(c.table, c.asked);
    ASSERT_TRUE(times);
    EXPECT_EQ(times->cur, c.cur);
    EXPECT_EQ(times->prev, c.prev);
    EXPECT_EQ(times->next, c.next);
}

constexpr Table kEvents = Table::HistoryEvents;
constexpr Table kDocuments = Table::Documents;

INSTANTIATE_TEST_SUITE_P(
    Times, NeighbourLookup,
    testing::Values(
        LookupCase{"ExactHit", kEvents, at(100, 500000), at(100, 500000), at(100), at(200)},
        LookupCase{"Between", kEvents, at(150), at(100, 500000), at(100), at(200)},
        LookupCase{"ExactHitOnASharedTime", kEvents, at(200), at(200), at(100, 500000), at(250)},
        LookupCase{"BeforeTheFirst", kEvents, at(99, 999999), at(100), at(0), at(100, 500000)},
        LookupCase{"AtZero", kEvents, at(0), at(100), at(0), at(100, 500000)},
        LookupCase{"AfterTheLast", kEvents, at(4000000000u), at(300, 999999), at(250), at(0)},
        LookupCase{"MicrosecondsBeyondTheSecond", kEvents, at(300, 1500000), at(300, 999999),
                   at(250), at(0)},
        LookupCase{"HugeMicrosecondsStayInTheirSecond", kEvents, at(200, 4000000000u), at(200),
                   at(100, 500000), at(250)},
        LookupCase{"ExactHitOnTheFirst", kDocuments, at(150), at(150), at(0), at(150, 1)},
        LookupCase{"OneMicrosecondApart", kDocuments, at(150, 1), at(150, 1), at(150), at(160)},
        LookupCase{"Between", kDocuments, at(155), at(150, 1), at(150), at(160)},
        LookupCase{"SharedTime", kDocuments, at(160), at(160), at(150, 1), at(170)},
        LookupCase{"JustAfterSharedTime", kDocuments, at(160, 1), at(160), at(150, 1), at(170)},
        LookupCase{"BeforeTheFirst", kDocuments, at(1), at(150), at(0), at(150, 1)},
        LookupCase{"AfterTheLast", kDocuments, at(171), at(170), at(160), at(0)}),
    [](const auto& info) {
        return (info.param.table == kEvents ? "Event" : "Document") + std::string(info.param.name);
    });

MATCHER_P3(IsProperty, key, value, name, "")
{
    return arg.key == uint32_t(key) && arg.value == uint32_t(value) && arg.name == name;
}

TEST_F(SmallRecording, EventsSharingATimeAnswerAsOneInStoredOrder)
{
    const auto event = recording_.historyEventAt(at(200));
    ASSERT_TRUE(event);
    EXPECT_THAT(event->properties, ElementsAre(IsProperty(0, 0, ""), IsProperty(1, 1, "AUDIO001")));
}

TEST_F(SmallRecording, EventCarriesEveryPropertyInOrder)
{
    const auto event = recording_.historyEventAt(at(100));
    ASSERT_TRUE(event);
    EXPECT_THAT(event->properties, ElementsAre(IsProperty(0, 1, ""), IsProperty(1, 1, "VIDEO001"),
                                               IsProperty(1, 1, "META001")));
}

TEST_F(SmallRecording, DocumentsSharingATimeAnswerTheOneStoredFirst)
{
    const auto document = recording_.metadataAt(at(160));
    ASSERT_TRUE(document);
    EXPECT_EQ(document->body, "<a n='3'/>");
    EXPECT_EQ(recording_.metadataAt(at(150, 1))->body, "<a n='2'/>");
}

TEST_F(SmallRecording, WalkingByNextVisitsEveryTimeOnceAndEndsAtNone)
{
    std::vector<StoreTime> visited;
    for (StoreTime t = at(0); visited.size() < 10;) {
        const auto document = recording_.metadataAt(t);
        ASSERT_TRUE(document);
        visited.push_back(document->times.cur);
        if (document->times.next.isNone()) break;
        t = document->times.next;
    }
    EXPECT_THAT(visited, ElementsAre(at(150), at(150, 1), at(160), at(170)));
}

struct StateCase {
    const char* name;
    StoreTime asked;
    uint8_t state;
    std::vector<std::string> tracksOn;
};

class StateLookup : public SmallRecording, public testing::WithParamInterface<StateCase> {};

TEST_P(StateLookup, AppliesEveryEventUpToAndIncludingTheTime)
{
    const store::RecordingState state = recording_.stateAt(GetParam().asked);
    EXPECT_EQ(state.state, GetParam().state);
    EXPECT_EQ(state.tracksOn, GetParam().tracksOn);
}

INSTANTIATE_TEST_SUITE_P(
    Times, StateLookup,
    testing::Values(
        StateCase{"BeforeTheFirstEventAllIsOff", at(99, 999999), 0, {}},
        StateCase{"AtTheFirstEvent", at(100), 1, {"VIDEO001", "META001"}},
        StateCase{"JustBeforeATrackSwitchesOff", at(100, 499999), 1, {"VIDEO001", "META001"}},
        StateCase{"AtATrackSwitchingOff", at(100, 500000), 1, {"META001"}},
        StateCase{"AtTwoEventsSharingATime", at(200), 0, {"META001", "AUDIO001"}},
        StateCase{"AfterATrackWentOff", at(250), 0, {"META001"}},
        StateCase{"AtTheLastEvent", at(300, 999999), 1, {"VIDEO001", "META001"}},
        StateCase{"BeyondTheSecond", at(300, 2000000), 1, {"VIDEO001", "META001"}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(SmallRecording, ListsTracksInTheOrderTheyCameIn)
{
    EXPECT_THAT(recording_.tracks(), ElementsAre("VIDEO001", "META001", "AUDIO001", "SPARE"));
}

TEST_F(SmallRecording, SummarySpansEventsAndDocuments)
{
    const auto summary = recording_.summary();
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->start, at(100));
    EXPECT_EQ(summary->end, at(300, 999999));
    EXPECT_EQ(recording_.firstHistoryEventTime(), std::optional<StoreTime>(at(100)));
}

struct TrackCase {
    const char* track;
    bool known;
    std::optional<std::pair<StoreTime, StoreTime>> span;
};

class TrackSummary : public SmallRecording, public testing::WithParamInterface<TrackCase> {};

TEST_P(TrackSummary, SpansTheTracksData)
{
    const auto span = recording_.trackSummary(GetParam().track);
    EXPECT_EQ(recording_.hasTrack(GetParam().track), GetParam().known);
    ASSERT_EQ(span.has_value(), GetParam().span.has_value());
    if (!span) return;
    EXPECT_EQ(span->start, GetParam().span->first);
    EXPECT_EQ(span->end, GetParam().span->second);
}

INSTANTIATE_TEST_SUITE_P(
    Tracks, TrackSummary,
    testing::Values(TrackCase{"META001", true, std::make_pair(at(150), at(170))},
                    TrackCase{"AUDIO001", true, std::make_pair(at(200), at(250))},
                    TrackCase{"VIDEO001", true, std::make_pair(at(100), at(300, 999999))},
                    TrackCase{"SPARE", true, std::nullopt},
                    TrackCase{"NOPE", false, std::nullopt},
                    TrackCase{"", false, std::nullopt}),
    [](const auto& info) { return std::string(*info.param.track ? info.param.track : "Empty"); });

TEST(EmptyRecording, AnswersNothingButTheTracksAndAnAllOffState)
{
    TempDir dir;
    {
        RecordingWriter writer(dir.file("empty.db"), RecordingWriter::Durability::Safe);
        writer.addTrack("VIDEO001");
    }
    Recording recording(dir.file("empty.db"));
    EXPECT_THAT(recording.tracks(), ElementsAre("VIDEO001"));
    EXPECT_FALSE(recording.summary());
    EXPECT_FALSE(recording.firstHistoryEventTime());
    EXPECT_FALSE(recording.historyEventAt(at(100)));
    EXPECT_FALSE(recording.metadataAt(at(100)));
    EXPECT_FALSE(recording.trackSummary("META001"));
    const store::RecordingState state = recording.stateAt(at(100));
    EXPECT_EQ(state.state, 0);
    EXPECT_TRUE(state.tracksOn.empty());
}

TEST(DocumentsOnlyRecording, SummaryComesFromTheDocuments)
{
    TempDir dir;
    {
        RecordingWriter writer(dir.file("docs.db"), RecordingWriter::Durability::Safe);
        writer.addDocument(at(5), "<a/>");
        writer.addDocument(at(7), "<a/>");
    }
    Recording recording(dir.file("docs.db"));
    ASSERT_TRUE(recording.summary());
    EXPECT_EQ(recording.summary()->start, at(5));
    EXPECT_EQ(recording.summary()->end, at(7));
    EXPECT_FALSE(recording.historyEventAt(at(6)));
}

TEST(RecordingWriterChecks, RefusesTimesAndKeysTheAnswersCannotCarry)
{
    TempDir dir;
    RecordingWriter writer(dir.file("w.db"), RecordingWriter::Durability::Safe);
    EXPECT_THROW(writer.addDocument(at(0), "<a/>"), store::StoreError);
    EXPECT_THROW(writer.addDocument(at(1, 1000000), "<a/>"), store::StoreError);
    EXPECT_THROW(writer.addEvent(at(1), {}), store::StoreError);
    EXPECT_THROW(writer.addEvent(at(1), {EventProperty{2, 1, "X"}}), store::StoreError);
    EXPECT_THROW(writer.addEvent(at(1), {EventProperty{1, 1, ""}}), store::StoreError);
}

// Files that must not be served, each with the reason the one-line error gives.
struct UnusableCase {
    const char* name;
    std::function<std::string(const TempDir&)> make;
    const char* reason;
};

void runSql(const std::string& path, const std::string& sql)
{
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
}

class UnusableFile : public testing::TestWithParam<UnusableCase> {};

TEST_P(UnusableFile, IsRefusedWithItsReason)
{
    TempDir dir;
    const std::string path = GetParam().make(dir);
    try {
        Recording recording(path);
        FAIL() << "opened " << path;
    } catch (const store::StoreError& e) {
        EXPECT_THAT(e.what(), HasSubstr(GetParam().reason));
        EXPECT_THAT(e.what(), HasSubstr(path));
        EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Files, UnusableFile,
    testing::Values(
        UnusableCase{"Missing", [](const TempDir& d) { return d.file("none.db"); },
                     "No such file"},
        UnusableCase{"Directory", [](const TempDir& d) { return d.path(); }, "not a regular file"},
        UnusableCase{"Text", [](const TempDir& d) { return d.write("t.db", std::string(4096, 'x')); },
                     "not a recording"},
        UnusableCase{"ForeignDatabase",
                     [](const TempDir& d) {
                         runSql(d.file("f.db"), "CREATE TABLE other(x)");
                         return d.file("f.db");
                     },
                     "application id 0x00000000"},
        UnusableCase{"NewerVersion",
                     [](const TempDir& d) {
                         { RecordingWriter writer(d.file("n.db"), RecordingWriter::Durability::Safe); }
                         runSql(d.file("n.db"), "PRAGMA user_version = 99");
                         return d.file("n.db");
                     },
                     "version 99 is newer than this build reads (1)"},
        UnusableCase{"DamagedHeader",
                     [](const TempDir& d) {
                         { RecordingWriter writer(d.file("c.db"), RecordingWriter::Durability::Safe); }
                         std::fstream file(d.file("c.db"), std::ios::in | std::ios::out | std::ios::binary);
                         file.write("garbage garbage!", 16);
                         return d.file("c.db");
                     },
                     "not a recording"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(RecordingWriterOpen, RefusesToWriteIntoANewerRecording)
{
    TempDir dir;
    { RecordingWriter writer(dir.file("n.db"), RecordingWriter::Durability::Safe); }
    runSql(dir.file("n.db"), "PRAGMA user_version = 2");
    EXPECT_THROW(RecordingWriter(dir.file("n.db"), RecordingWriter::Durability::Safe),
                 store::StoreError);
}

}  // namespace
