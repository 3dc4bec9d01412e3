// Loading a user's files: good input lands, any bad line is reported by its place while
// nothing at all is loaded, and loading the same files again changes nothing.
#include "store/Importer.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "jobs/XmlLibrary.h"
#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "unit/store/StoreTestFiles.h"

namespace {

using namespace storetest;
using store::Importer;
using store::ImportReport;
using store::ImportSources;
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

// Every time form, events and documents in one load.
TEST(Importer, LoadsEventsGroupingLinesOfOneTimeAndDocumentsFromFilesAndADirectory)
{
    TempDir dir;
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", kGoodEvents)};
    sources.tracks = {"AUDIO001"};
    sources.documentFiles = {
        dir.write("d.jsonl",
                  "{\"time\": \"100.000001\", \"document\": \"<a>one</a>\"}\n"
                  "\n"
                  "{\"sec\": 200, \"usec\": 7, \"document\": \"<a>two</a>\", \"x\": 1}\n"
                  "{\"time\": 250, \"document\": \"<a>whole</a>\"}\n")};
    sources.documentDirectories = {
        framesDirectory(dir, {{"1970-01-01T00:05:00.25Z.xml", "<Frame n=\"dir\"/>"},
                              {"notes.txt", "not a document, not looked at"}})};
    const ImportReport report = runImport(dir.file("r.db"), sources);
    ASSERT_TRUE(report.loaded()) << testing::PrintToString(report.problems);
    EXPECT_EQ(std::vector<uint64_t>({report.events, report.properties, report.documents}),
              std::vector<uint64_t>({3, 4, 4}));

    Recording recording(dir.file("r.db"));
    EXPECT_THAT(recording.tracks(), ElementsAre("AUDIO001", "VIDEO001", "META001"));
    const auto first = recording.historyEventAt(at(100));
    ASSERT_EQ(first->properties.size(), 2u);
    EXPECT_EQ(first->properties[1].name, "VIDEO001");
    EXPECT_EQ(first->times.next, at(100, 500000));
    EXPECT_EQ(recording.historyEventAt(at(300))->times.cur, at(200, 1));
    EXPECT_EQ(recording.metadataAt(at(100, 1))->body, "<a>one</a>");
    EXPECT_EQ(recording.metadataAt(at(200, 7))->body, "<a>two</a>");
    EXPECT_EQ(recording.metadataAt(at(250))->body, "<a>whole</a>");
    const auto last = recording.metadataAt(at(300, 250000));
    EXPECT_EQ(last->body, "<Frame n=\"dir\"/>");
    EXPECT_EQ(last->times.prev, at(250));
}

// Every history event and document as the store answers them, walked from the first; a next
// that does not move on ends a walk instead of looping.
std::string answers(const std::string& path)
{
    Recording recording(path);
    std::ostringstream out;
    for (auto t = at(1); !t.isNone();) {
        const auto event = recording.historyEventAt(t);
        out << event->times.cur.toString() << event->times.prev.toString();
        for (const auto& p : event->properties) out << ' ' << p.key << p.value << p.name;
        t = t < event->times.next ? event->times.next : at(0);
    }
    for (auto t = at(1); !t.isNone();) {
        const auto document = recording.metadataAt(t);
        out << document->times.cur.toString() << document->body;
        t = t < document->times.next ? document->times.next : at(0);
    }
    return out.str();
}

TEST(Importer, RunTwiceSkipsWhatIsPresentAndRefusesWhatDiffers)
{
    TempDir dir;
    ImportSources sources;
    sources.eventFiles = {dir.write("e.csv", kGoodEvents)};
    sources.documentFiles = {dir.write("d.jsonl",
                                       "{\"time\": 300, \"document\": \"<a/>\"}\n"
                                       "{\"time\": 400, \"document\": \"<b/>\"}\n")};
    ASSERT_TRUE(runImport(dir.file("r.db"), sources).loaded());
    const std::string first = answers(dir.file("r.db"));

    const ImportReport again = runImport(dir.file("r.db"), sources);
    ASSERT_TRUE(again.loaded()) << testing::PrintToString(again.problems);
    EXPECT_EQ(again.events + again.documents, 0u);
    EXPECT_EQ(again.skippedEvents, 3u);
    EXPECT_EQ(again.skippedDocuments, 2u);
    EXPECT_EQ(answers(dir.file("r.db")), first);

    // An event that differs only in its track's name is another event, not a repeat.
    sources.eventFiles = {dir.write("more.csv", "500,0,1\n200.000001,0,1\n100.5,1,0,AUDIO001\n")};
    sources.documentFiles = {dir.write("d.jsonl", "{\"time\": 300, \"document\": \"<c/>\"}\n")};
    const ImportReport differing = runImport(dir.file("r.db"), sources);
    EXPECT_THAT(
        differing.problems,
        ElementsAre(dir.file("more.csv") + ":2: the recording holds a different history event "
                                           "at 200.000001",
                    dir.file("more.csv") + ":3: the recording holds a different history event "
                                           "at 100.500000",
                    dir.file("d.jsonl") + ":1: the recording holds a different metadata document "
                                          "at 300.000000"));
    EXPECT_EQ(answers(dir.file("r.db")), first);
    // Two tracks that switch at the same moment are told apart by their names, on both runs.
    sources.eventFiles = {dir.write("pair.csv", "600,1,1,AUDIO001\n600,1,1,AUDIO002\n")};
    sources.documentFiles = {};
    ASSERT_EQ(runImport(dir.file("r.db"), sources).events, 1u);
    const ImportReport pairAgain = runImport(dir.file("r.db"), sources);
    EXPECT_EQ(std::vector<uint64_t>({pairAgain.events, pairAgain.skippedEvents}),
              std::vector<uint64_t>({0, 1}));
    const auto pair = Recording(dir.file("r.db")).historyEventAt(at(600));
    ASSERT_EQ(pair->properties.size(), 2u);
    EXPECT_EQ(pair->properties[0].name + " " + pair->properties[1].name, "AUDIO001 AUDIO002");
}

// Each bad line sits between good ones, so a partial load would show; every one is reported
// by its line, as are unreadable files and bad files in a directory, and nothing is loaded.
TEST(Importer, ReportsEveryBadLineAndFileByItsPlaceAndLoadsNothing)
{
    const std::vector<std::pair<std::string, std::string>> badEvents{
        {"201,0", "found 2 fields"},
        {"noon,0,1", "time \"noon\": expected SECONDS[.MICROSECONDS]"},
        {"-5,0,1", "not an ISO 8601 time"},
        {"202.1234567,0,1", "more than six digits"},
        {"4294967296,0,1", "seconds beyond 4294967295"},
        {"1970-01-01T00:03:23+02:00,0,1", "must be UTC"},
        {"0.000000,0,1", "time 0.0 is reserved"},
        {"204,2,1,VIDEO001", "key \"2\" is not 0 or 1"},
        {"205,0,on", "value \"on\" is not 0 or 1"},
        {"206,1,1", "key 1 needs a track name"},
        {"207,0,1,VIDEO001", "takes no track name"},
        {"100,0,0", "time 100.000000 is given twice"}};
    const std::vector<std::pair<std::string, std::string>> badDocuments{
        {"{\"time\": \"200\", \"document\": ", "not a JSON value"},
        {"[1, 2]", "not a JSON object"},
        {"{\"document\": \"<a/>\"}", "no \"time\""},
        {"{\"time\": 201.5, \"document\": \"<a/>\"}", "or whole seconds"},
        {"{\"sec\": 202, \"usec\": 1000000, \"document\": \"<a/>\"}", "\"usec\" 0 to 999999"},
        {"{\"sec\": -1, \"document\": \"<a/>\"}", "\"sec\" must be"},
        {"{\"time\": \"203\"}", "\"document\" must be a string"},
        {"{\"time\": \"204\", \"document\": \"\"}", "the document is empty"},
        {"{\"time\": \"205\", \"document\": \"<a><b></a>\"}", "not well-formed XML (line 1: "},
        {"{\"time\": \"206\", \"document\": \"<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>\"}",
         "carries a DTD"}};
    TempDir dir;
    {
        RecordingWriter writer(dir.file("r.db"), RecordingWriter::Durability::Safe);
        writer.addEvent(at(50), {recordingSwitch(true)});
    }
    std::vector<std::string> expected;
    auto badFile = [&](const std::string& name, const std::string& good,
                       const std::vector<std::pair<std::string, std::string>>& bad) {
        std::string text = good + "\n";
        for (size_t i = 0; i < bad.size(); ++i) {
            text += bad[i].first + "\n";
            const size_t line = i + 2 + std::count(good.begin(), good.end(), '\n');
            expected.push_back(dir.file(name) + ":" + std::to_string(line) + ": " + bad[i].second);
        }
        return dir.write(name, text + "\n");
    };
    ImportSources sources;
    sources.eventFiles = {badFile("e.csv", "100,1,1,VIDEO001\n150,0,1", badEvents),
                          dir.file("missing.csv")};
    sources.documentFiles = {
        badFile("d.jsonl", "{\"time\": \"100\", \"document\": \"<a/>\"}", badDocuments)};
    sources.documentDirectories = {
        framesDirectory(dir, {{"soon.xml", "<a/>"},
                              {"400.xml", "<a>"},
                              {"500.xml", std::string(kMaxDocumentBytes + 1, 'x')}})};
    expected.insert(expected.begin() + badEvents.size(), dir.file("missing.csv") + ": cannot read");
    expected.push_back(dir.file("frames/400.xml") + ": the document is not well-formed");
    expected.push_back(dir.file("frames/500.xml") +
                       ": the document has 1048577 bytes (at most 1048576)");
    expected.push_back(dir.file("frames/soon.xml") + ": time \"soon\"");

    const ImportReport report = runImport(dir.file("r.db"), sources);
    EXPECT_FALSE(report.loaded());
    EXPECT_EQ(report.problemCount, expected.size());
    ASSERT_EQ(report.problems.size(), expected.size()) << testing::PrintToString(report.problems);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_THAT(report.problems[i],
                    testing::StartsWith(expected[i].substr(0, expected[i].find(": ") + 2)));
        EXPECT_THAT(report.problems[i], HasSubstr(expected[i].substr(expected[i].find(": ") + 2)));
    }
    Recording recording(dir.file("r.db"));
    EXPECT_EQ(recording.summary()->start, at(50));
    EXPECT_EQ(recording.summary()->end, at(50));
    EXPECT_FALSE(recording.hasTrack("VIDEO001"));
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

}  // namespace
