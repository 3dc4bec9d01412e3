// Loading a user's files: good input lands, any bad line is reported by its place while
// nothing at all is loaded, and loading the same files again changes nothing.
#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "store/Importer.h"
#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
using store::ImportReport;
using store::ImportSources;
using store::Importer;
using store::Recording;
using store::RecordingWriter;
using testing::ElementsAre;
using testing::HasSubstr;

ImportReport runImport(const std::string& recording, const ImportSources& sources)
{
    RecordingWriter writer(recording, RecordingWriter::Durability::Safe);
    return Importer(writer).run(sources);
}

// A directory "frames" in `dir` holding the given files; returns its path.
std::string framesDirectory(const TempDir& dir, const std::map<std::string, std::string>& files)
{
    std::filesystem::create_directory(dir.file("frames"));
    for (const auto& [name, text] : files) dir.write("frames/" + name, text);
    return dir.file("frames");
}

const char* const kGoodEvents =
    "time,key,value,track\n"
    "# switched on together\n"
    "100,0,1\n"
    "100, 1, 1, VIDEO001\n"
    "\n"
    "1970-01-01T00:01:40.5Z,1,0,VIDEO001\r\n"
    "200.000001,0,0,\n";

TEST(Importer, LoadsEventsGroupingLinesOfOneTime)
{
    TempDir dir;
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", kGoodEvents)};
    sources.tracks = {"AUDIO001"};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    ASSERT_TRUE(report.loaded()) << testing::PrintToString(report.problems);
    EXPECT_EQ(report.events, 3u);
    EXPECT_EQ(report.properties, 4u);

    Recording recording(dir.file("r.db"));
    EXPECT_THAT(recording.tracks(), ElementsAre("AUDIO001", "VIDEO001"));
    const auto first = recording.historyEventAt(at(100));
    ASSERT_TRUE(first);
    ASSERT_EQ(first->properties.size(), 2u);
    EXPECT_EQ(first->properties[1].name, "VIDEO001");
    EXPECT_EQ(first->times.next, at(100, 500000));
    EXPECT_EQ(recording.historyEventAt(at(300))->times.cur, at(200, 1));
    EXPECT_EQ(recording.stateAt(at(150)).state, 1);
    EXPECT_TRUE(recording.stateAt(at(150)).tracksOn.empty());
}

TEST(Importer, LoadsDocumentsFromJsonLinesAndFromADirectory)
{
    TempDir dir;
    ImportSources sources;
    sources.documentFiles = {dir.write("d.jsonl",
                                       "{\"time\": \"100.000001\", \"document\": \"<a>one</a>\"}\n"
                                       "\n"
                                       "{\"sec\": 200, \"usec\": 7, \"document\": \"<a>two</a>\", \"x\": 1}\n"
                                       "{\"time\": 250, \"document\": \"<a>whole</a>\"}\n")};
    sources.documentDirectories = {framesDirectory(
        dir, {{"1970-01-01T00:05:00.25Z.xml", "<Frame n=\"dir\"/>"},
              {"notes.txt", "not a document, not looked at"}})};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    ASSERT_TRUE(report.loaded()) << testing::PrintToString(report.problems);
    EXPECT_EQ(report.documents, 4u);

    Recording recording(dir.file("r.db"));
    EXPECT_THAT(recording.tracks(), ElementsAre("META001"));
    EXPECT_EQ(recording.metadataAt(at(100, 1))->body, "<a>one</a>");
    EXPECT_EQ(recording.metadataAt(at(200, 7))->body, "<a>two</a>");
    EXPECT_EQ(recording.metadataAt(at(250))->body, "<a>whole</a>");
    const auto last = recording.metadataAt(at(300, 250000));
    EXPECT_EQ(last->body, "<Frame n=\"dir\"/>");
    EXPECT_EQ(last->times.prev, at(250));
}

TEST(Importer, AddsToAnExistingRecording)
{
    TempDir dir;
    ImportSources first;
    first.eventFiles = {dir.write("a.csv", "100,0,1\n")};
    ASSERT_TRUE(runImport(dir.file("r.db"), first).loaded());
    ImportSources second;
    second.eventFiles = {dir.write("b.csv", "200,0,0\n")};
    ASSERT_TRUE(runImport(dir.file("r.db"), second).loaded());
    EXPECT_EQ(Recording(dir.file("r.db")).historyEventAt(at(100))->times.next, at(200));
}

// Every history event and document as the store answers them, walked from the first.
std::string answers(const std::string& path)
{
    Recording recording(path);
    std::ostringstream out;
    for (auto t = at(1); !t.isNone();) {
        const auto event = recording.historyEventAt(t);
        out << event->times.cur.toString() << event->times.prev.toString();
        for (const auto& p : event->properties) out << ' ' << p.key << p.value << p.name;
        t = event->times.next;
    }
    for (auto t = at(1); !t.isNone();) {
        const auto document = recording.metadataAt(t);
        out << document->times.cur.toString() << document->body;
        t = document->times.next;
    }
    return out.str();
}

TEST(Importer, RunTwiceSkipsWhatIsPresentAndRefusesWhatDiffers)
{
    TempDir dir;
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", kGoodEvents)};
    sources.documentFiles = {dir.write("d.jsonl", "{\"time\": 300, \"document\": \"<a/>\"}\n"
                                                  "{\"time\": 400, \"document\": \"<b/>\"}\n")};
    ASSERT_TRUE(runImport(dir.file("r.db"), sources).loaded());
    const std::string first = answers(dir.file("r.db"));

    const ImportReport again = runImport(dir.file("r.db"), sources);
    ASSERT_TRUE(again.loaded()) << testing::PrintToString(again.problems);
    EXPECT_EQ(again.events + again.documents, 0u);
    EXPECT_EQ(again.skippedEvents, 3u);
    EXPECT_EQ(again.skippedDocuments, 2u);
    EXPECT_EQ(answers(dir.file("r.db")), first);

    sources.eventFiles = {dir.write("more.csv", "500,0,1\n")};
    sources.documentFiles = {dir.write("d.jsonl", "{\"time\": 300, \"document\": \"<c/>\"}\n")};
    const ImportReport differing = runImport(dir.file("r.db"), sources);
    EXPECT_THAT(differing.problems, ElementsAre(dir.file("d.jsonl") + ":1: the recording holds a "
                                                "different metadata document at 300.000000"));
    EXPECT_EQ(answers(dir.file("r.db")), first);
}

struct BadLine {
    const char* name;
    bool events;  // CSV events, else JSON lines documents
    const char* badLine;
    const char* reason;
};

void PrintTo(const BadLine& c, std::ostream* os) { *os << c.name; }

class ImporterBadLine : public testing::TestWithParam<BadLine> {};

// The bad line sits between good ones, so the good ones would be loaded by a partial load.
TEST_P(ImporterBadLine, IsReportedWithItsLineNumberAndNothingIsLoaded)
{
    TempDir dir;
    ImportSources sources;
    std::string file;
    if (GetParam().events) {
        file = dir.write("in.csv", std::string("100,0,1\n100,1,1,VIDEO001\n") + GetParam().badLine +
                                       "\n300,0,0\n");
        sources.eventFiles = {file};
    } else {
        file = dir.write("in.jsonl", std::string("{\"time\": \"100\", \"document\": \"<a/>\"}\n\n") +
                                         GetParam().badLine + "\n{\"time\": \"300\", \"document\": \"<b/>\"}\n");
        sources.documentFiles = {file};
    }
    // A recording with something in it already, which must come out untouched.
    {
        RecordingWriter writer(dir.file("r.db"), RecordingWriter::Durability::Safe);
        writer.addEvent(at(50), {recordingSwitch(true)});
    }
    const ImportReport report = runImport(dir.file("r.db"), sources);
    EXPECT_FALSE(report.loaded());
    ASSERT_EQ(report.problems.size(), 1u) << testing::PrintToString(report.problems);
    EXPECT_THAT(report.problems[0], testing::StartsWith(file + ":3: "));
    EXPECT_THAT(report.problems[0], HasSubstr(GetParam().reason));

    Recording recording(dir.file("r.db"));
    EXPECT_EQ(recording.summary()->start, at(50));
    EXPECT_EQ(recording.summary()->end, at(50));
    EXPECT_FALSE(recording.metadataAt(at(100)));
    EXPECT_FALSE(recording.hasTrack("VIDEO001"));
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ImporterBadLine,
    testing::Values(
        BadLine{"TooFewFields", true, "200,0", "found 2 fields"},
        BadLine{"TooManyFields", true, "200,1,1,VIDEO001,extra", "found 5 fields"},
        BadLine{"TimeNotANumber", true, "noon,0,1", "time \"noon\": expected SECONDS[.MICROSECONDS]"},
        BadLine{"TimeNegative", true, "-5,0,1", "not an ISO 8601 time"},
        BadLine{"SevenDigitFraction", true, "200.1234567,0,1", "more than six digits"},
        BadLine{"SecondsBeyond32Bits", true, "4294967296,0,1", "seconds beyond 4294967295"},
        BadLine{"IsoNotUtc", true, "1970-01-01T00:03:20+02:00,0,1", "must be UTC"},
        BadLine{"DifferentEventAtARecordedTime", true, "50,0,0", "different history event at 50.000000"},
        BadLine{"TimeZero", true, "0.000000,0,1", "time 0.0 is reserved"},
        BadLine{"UnknownKey", true, "200,2,1,VIDEO001", "key \"2\" is not 0 or 1"},
        BadLine{"ValueNotAFlag", true, "200,0,on", "value \"on\" is not 0 or 1"},
        BadLine{"TrackMissing", true, "200,1,1", "key 1 needs a track name"},
        BadLine{"TrackOnRecordingKey", true, "200,0,1,VIDEO001", "takes no track name"},
        BadLine{"NotJson", false, "{\"time\": \"200\", \"document\": ", "not a JSON value"},
        BadLine{"JsonArray", false, "[1, 2]", "not a JSON object"},
        BadLine{"NoTime", false, "{\"document\": \"<a/>\"}", "no \"time\""},
        BadLine{"TimeAsFraction", false, "{\"time\": 200.5, \"document\": \"<a/>\"}", "or whole seconds"},
        BadLine{"TimeTwiceInOneFile", false, "{\"time\": \"1970-01-01T00:01:40Z\", \"document\": \"<a/>\"}",
                "time 100.000000 is given twice"},
        BadLine{"UsecTooLarge", false, "{\"sec\": 200, \"usec\": 1000000, \"document\": \"<a/>\"}",
                "\"usec\" 0 to 999999"},
        BadLine{"NegativeSec", false, "{\"sec\": -1, \"document\": \"<a/>\"}", "\"sec\" must be"},
        BadLine{"NoDocument", false, "{\"time\": \"200\"}", "\"document\" must be a string"},
        BadLine{"EmptyDocument", false, "{\"time\": \"200\", \"document\": \"\"}", "the document is empty"},
        BadLine{"NotWellFormed", false, "{\"time\": \"200\", \"document\": \"<a><b></a>\"}",
                "not well-formed XML (line 1: "},
        BadLine{"CarriesADtd", false,
                "{\"time\": \"200\", \"document\": \"<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>\"}",
                "carries a DTD"}),
    testing::PrintToStringParamName());

TEST(Importer, ReportsEveryBadLineAndEveryBadFile)
{
    TempDir dir;
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", "100,0,1\nx,0,1\n200,0,9\n300,0,0\n100,0,1\n"),
                          dir.file("missing.csv")};
    sources.documentDirectories = {
        framesDirectory(dir, {{"soon.xml", "<a/>"}, {"400.xml", "<a>"}})};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    EXPECT_EQ(report.problemCount, 6u);
    ASSERT_EQ(report.problems.size(), 6u);
    EXPECT_THAT(report.problems[0], testing::StartsWith(dir.file("e.csv") + ":2: "));
    EXPECT_THAT(report.problems[1], testing::StartsWith(dir.file("e.csv") + ":3: "));
    EXPECT_THAT(report.problems[2], testing::StartsWith(dir.file("e.csv") + ":5: time 100.000000 is given twice"));
    EXPECT_THAT(report.problems[3], testing::StartsWith(dir.file("missing.csv") + ": cannot read"));
    EXPECT_THAT(report.problems[4], testing::StartsWith(dir.file("frames/400.xml") + ": the document is not well-formed"));
    EXPECT_THAT(report.problems[5], testing::StartsWith(dir.file("frames/soon.xml") + ": time \"soon\""));
}

TEST(Importer, CountsProblemsBeyondThoseItLists)
{
    TempDir dir;
    std::string lines;
    for (int i = 0; i < 250; ++i) lines += "bad\n";
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", lines)};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    EXPECT_EQ(report.problemCount, 250u);
    EXPECT_EQ(report.problems.size(), Importer::kMaxReported);
}

TEST(Importer, RefusesAnOversizedDocumentFile)
{
    TempDir dir;
    ImportSources sources;
    sources.documentDirectories = {framesDirectory(
        dir, {{"100.xml", "<a>" + std::string(Importer::kMaxDocumentBytes, 'x') + "</a>"}})};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    ASSERT_EQ(report.problems.size(), 1u);
    EXPECT_THAT(report.problems[0], HasSubstr("(at most 1048576)"));
}

}  // namespace
