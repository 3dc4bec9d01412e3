// The answer rules of the read side, on a small recording written by the test.
#include "store/Recording.h"

#include <optional>
#include <ostream>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include "store/RecordingSchema.h"
#include "store/RecordingWriter.h"
#include "store/StoreError.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
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
    // Before the first event and after the last: the recording's start and end.
    writer.addDocument(at(50), "<a n='0'/>");
    writer.addDocument(at(400), "<a n='6'/>");
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

class NeighbourLookup : public SmallRecording, public testing::WithParamInterface<LookupCase> {};

TEST_P(NeighbourLookup, AnswersTheOneAtOrBeforeElseAfterWithItsNeighbours)
{
    const LookupCase& c = GetParam();
    const store::Neighbours times = c.table == Table::HistoryEvents
                                        ? recording_.historyEventAt(c.asked).value().times
                                        : recording_.metadataAt(c.asked).value().times;
    EXPECT_EQ(std::vector<StoreTime>({times.cur, times.prev, times.next}),
              std::vector<StoreTime>({c.cur, c.prev, c.next}));
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
        LookupCase{"AfterTheLast", kEvents, at(4000000000u), at(300, 999999), at(250), at(0)},
        LookupCase{"MicrosecondsBeyondTheSecond", kEvents, at(300, 1500000), at(300, 999999),
                   at(250), at(0)},
        LookupCase{"HugeMicrosecondsStayInTheirSecond", kEvents, at(200, 4000000000u), at(200),
                   at(100, 500000), at(250)},
        LookupCase{"OneMicrosecondApart", kDocuments, at(150, 1), at(150, 1), at(150), at(160)},
        LookupCase{"SharedTime", kDocuments, at(160), at(160), at(150, 1), at(170)},
        LookupCase{"JustAfterSharedTime", kDocuments, at(160, 1), at(160), at(150, 1), at(170)},
        LookupCase{"AfterTheLast", kDocuments, at(401), at(400), at(170), at(0)}),
    [](const auto& info) {
        return (info.param.table == kEvents ? "Event" : "Document") + std::string(info.param.name);
    });

TEST_F(SmallRecording, EventsSharingATimeAnswerAsOneInStoredOrder)
{
    EXPECT_THAT(recording_.historyEventAt(at(200))->properties,
                ElementsAre(recordingSwitch(false), trackSwitch("AUDIO001", true)));
    EXPECT_THAT(recording_.historyEventAt(at(100))->properties,
                ElementsAre(recordingSwitch(true), trackSwitch("VIDEO001", true),
                            trackSwitch("META001", true)));
}

TEST_F(SmallRecording, DocumentsSharingATimeAnswerTheOneStoredFirst)
{
    EXPECT_EQ(recording_.metadataAt(at(160))->body, "<a n='3'/>");
    EXPECT_EQ(recording_.metadataAt(at(150, 1))->body, "<a n='2'/>");
}

TEST_F(SmallRecording, StateAppliesEveryEventUpToAndIncludingTheTime)
{
    const std::vector<std::pair<StoreTime, store::RecordingState>> cases{
        {at(99, 999999), {0, {}}},           {at(100), {1, {"VIDEO001", "META001"}}},
        {at(100, 500000), {1, {"META001"}}}, {at(200), {0, {"META001", "AUDIO001"}}},
        {at(250), {0, {"META001"}}},         {at(300, 2000000), {1, {"VIDEO001", "META001"}}}};
    for (const auto& [asked, expected] : cases) {
        const store::RecordingState state = recording_.stateAt(asked);
        EXPECT_EQ(state.state, expected.state) << asked.toString();
        EXPECT_EQ(state.tracksOn, expected.tracksOn) << asked.toString();
    }
}

TEST_F(SmallRecording, TracksSummaryAndTrackSpans)
{
    EXPECT_THAT(recording_.tracks(), ElementsAre("VIDEO001", "META001", "AUDIO001", "SPARE"));
    const auto summary = recording_.summary();
    ASSERT_TRUE(summary);
    EXPECT_EQ(summary->start, at(50));
    EXPECT_EQ(summary->end, at(400));
    EXPECT_EQ(recording_.firstHistoryEventTime(), std::optional<StoreTime>(at(100)));

    // A track spans its first switch on to its last off, or to the end while still on.
    const std::vector<std::pair<const char*, std::vector<StoreTime>>> spans{
        {"META001", {at(50), at(400)}},
        {"AUDIO001", {at(200), at(250)}},
        {"VIDEO001", {at(100), at(400)}},
        {"SPARE", {}},
        {"NOPE", {}}};
    for (const auto& [track, expected] : spans) {
        const auto span = recording_.trackSummary(track);
        EXPECT_EQ(
            span ? std::vector<StoreTime>({span->start, span->end}) : std::vector<StoreTime>(),
            expected)
            << track;
    }
    EXPECT_TRUE(recording_.hasTrack("SPARE"));
    EXPECT_FALSE(recording_.hasTrack("NOPE"));
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
        UnusableCase{"Missing", [](const TempDir& d) { return d.file("none.db"); }, "No such file"},
        UnusableCase{"Directory", [](const TempDir& d) { return d.path(); }, "not a regular file"},
        UnusableCase{"Text",
                     [](const TempDir& d) { return d.write("t.db", std::string(4096, 'x')); },
                     "not a recording"},
        UnusableCase{"ForeignDatabase",
                     [](const TempDir& d) {
                         runSql(d.file("f.db"), "CREATE TABLE other(x)");
                         return d.file("f.db");
                     },
                     "application id 0x00000000"},
        UnusableCase{
            "NewerVersion",
            [](const TempDir& d) {
                {
                    RecordingWriter writer(d.file("n.db"), RecordingWriter::Durability::Safe);
                }
                runSql(d.file("n.db"), "PRAGMA user_version = 99");
                // Nor may the writer add to it.
                EXPECT_THROW(RecordingWriter(d.file("n.db"), RecordingWriter::Durability::Safe),
                             store::StoreError);
                return d.file("n.db");
            },
            "version 99 is newer than this build reads (1)"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
