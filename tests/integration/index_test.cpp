// recording_index against the walk, which is the oracle: the same filter searches through
// recsearch, answered from the index and by walking (--walk), give the same lines, over
// generated recordings of several seeds; after a SIGKILL mid-build, after the recording is
// replaced, and for documents that do not parse, carry a DTD or pass the size bound.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "store/RecordingWriter.h"
#include "store/SqliteDb.h"
#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/ServiceStack.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using reliability::bin;
using reliability::lines;

const char* const kFrom = "2024-01-01T00:00:00Z";
const char* const kTo = "2024-01-01T00:01:30Z";

std::vector<std::string> generated(unsigned seed, const std::string& duration)
{
    return {"--seed", std::to_string(seed), "--duration", duration, "--objects-per-minute",
            "40",     "--object-seconds",   "6"};
}

// A stack with recording_index following its recording.
class IndexedStack {
public:
    // `indexArgs`: more of recording_index's options.
    explicit IndexedStack(const std::string& recording, std::vector<std::string> indexArgs = {})
        : stack_({RS_BIN_DIR, recording, {}, true}), indexArgs_(std::move(indexArgs))
    {
        startIndex();
    }

    void startIndex()
    {
        index_ = reliability::startedIndex(dir_.file("index.db"), stack_, indexArgs_);
    }

    json state() const
    {
        const auto r = recsearch({"index", "--json"});
        return r.status.code == 0 ? json::parse(r.out) : json::object();
    }

    // Until it has read the whole track and follows it; the state at that moment.
    json waitUntilFollowing(std::chrono::seconds bound = 60s) const
    {
        json last;
        rstest::pollUntil([&] { return (last = state()).value("state", "") == "following"; },
                          bound);
        return last;
    }

    rstest::RunResult recsearch(std::vector<std::string> args) const
    {
        return rstest::runToEnd(bin("recsearch"), args, stack_.clientEnv(), 120s);
    }

    rstest::ServiceStack& stack() { return stack_; }
    rstest::ProcessRunner& index() { return *index_; }
    std::string database() const { return dir_.file("index.db"); }

private:
    rstest::TempDir dir_{"rs-index"};
    rstest::ServiceStack stack_;
    std::vector<std::string> indexArgs_;
    std::unique_ptr<rstest::ProcessRunner> index_;
};

// A search's lines as the walk gives them: results and spans with job ids made equal, without
// the last line (which says where the answer came from), notices, and what the index adds to an
// appearance (what appeared in it), which the walk cannot know.
std::vector<std::string> answerLines(const std::string& out)
{
    std::vector<std::string> kept;
    for (const auto& line : lines(out)) {
        json j = json::parse(line);
        const std::string kind = j.value("kind", "");
        if (kind == "completed" || kind == "notice") continue;
        j["job"] = 0;
        for (const char* added :
             {"classes", "colour", "likelihood", "box_at_start", "box_at_end"}) {
            j.erase(added);
        }
        kept.push_back(j.dump());
    }
    return kept;
}

// The same search from the index and by walking; the index must have answered.
void expectSameAsTheWalk(const IndexedStack& stack, std::vector<std::string> args)
{
    args.push_back("--json");
    const auto indexed = stack.recsearch(args);
    args.push_back("--walk");
    const auto walked = stack.recsearch(args);
    std::string what;
    for (const auto& a : args) what += a + " ";
    ASSERT_EQ(indexed.status.code, 0) << what << indexed.err;
    ASSERT_EQ(walked.status.code, 0) << what << walked.err;
    EXPECT_EQ(answerLines(indexed.out), answerLines(walked.out)) << what;
    const json last = json::parse(lines(indexed.out).back());
    EXPECT_TRUE(last.contains("index")) << what << ": not answered from the index: " << last;
    // What appeared is known of a filter's matches; an XPath's say nothing of it.
    const bool filtered = std::any_of(args.begin(), args.end(), [](const std::string& a) {
        return a.rfind("--class", 0) == 0 || a.rfind("--colour", 0) == 0 ||
               a.rfind("--region", 0) == 0 || a.rfind("--motion", 0) == 0 ||
               a.rfind("--min-likelihood", 0) == 0;
    });
    for (const auto& line : lines(indexed.out)) {
        const json j = json::parse(line);
        if (j.value("kind", "") == "span") {
            EXPECT_EQ(j.contains("classes"), filtered) << what << line;
        }
    }
}

std::vector<std::string> search(std::vector<std::string> filter, bool backward = false)
{
    std::vector<std::string> args = {"metadata", backward ? kTo : kFrom, backward ? kFrom : kTo};
    args.insert(args.end(), filter.begin(), filter.end());
    return args;
}

class IndexAgreesWithTheWalk : public testing::TestWithParam<unsigned> {};

// Answers of a dozen lines, so that most searches take several pages and the client must read
// them all.
TEST_P(IndexAgreesWithTheWalk, ForEveryKindOfFilterEitherWay)
{
    const rstest::GeneratedRecording recording(RS_BIN_DIR, generated(GetParam(), "90s"));
    IndexedStack stack(recording.path(), {"--page", "12"});
    stack.waitUntilFollowing();
    const std::vector<std::vector<std::string>> filters = {
        {"--class", "person"},
        {"--class", "Vehicle", "--colour", "RED"},
        {"--class", "bicycle,animal", "--spans=1s"},
        {"--colour", "blue", "--spans"},
        // Likelihoods are written with two decimals: at a value, and just either side of it.
        {"--min-likelihood", "0.7"},
        {"--min-likelihood", "0.70000001"},
        {"--min-likelihood", "0.69999999"},
        {"--class", "person", "--min-likelihood", "0.85"},
        // Boxes are written with three decimals: a box that only touches does not overlap.
        {"--region", "0,0,0.5,0.5"},
        {"--region", "0.25,0.25,0.75,0.75", "--class", "vehicle"},
        {"--region", "0.5,0,1,0.5", "--colour", "white", "--spans=500ms"},
        {"--motion"},
        {"--motion", "--class", "person", "--spans"},
        {"--class", "person", "--max", "7"},
        // What a person asks of appearances: the ones that stayed, and how many per bucket.
        {"--class", "vehicle", "--spans", "--min-duration", "3s"},
        {"--colour", "white", "--counts", "20s"},
        {"--class", "person", "--spans=1s", "--counts", "40s"},
    };
    for (const auto& filter : filters) {
        for (bool backward : {false, true}) expectSameAsTheWalk(stack, search(filter, backward));
    }
}

// The index's own appearance and count queries, on the bus, against the walk's matches and
// spans: appearances read one at a time, as a client pages through them.
TEST_P(IndexAgreesWithTheWalk, AppearancesAndCountsOnTheBus)
{
    const rstest::GeneratedRecording recording(RS_BIN_DIR, generated(GetParam(), "90s"));
    IndexedStack stack(recording.path());
    stack.waitUntilFollowing();
    const int64_t from = 1704067200000000, to = from + 90000000, gap = 1000000, bucket = 10000000;
    const auto call = [&](const std::string& method, const std::string& signature,
                          std::vector<std::string> args) {
        args.insert(args.begin(),
                    {"--system", "--json=short", "call", "kavro.recording_index",
                     "/kavro/recording_index", "kavro.recording_index", method, signature});
        for (const char* filter : {"1", "person", "", "", "0", "false"}) args.push_back(filter);
        const auto r = rstest::runToEnd("busctl", args, stack.stack().clientEnv());
        EXPECT_EQ(r.status.code, 0) << r.err;
        return json::parse(r.out.empty() ? "{}" : r.out).value("data", json::array());
    };
    std::vector<std::string> fromIndex;
    for (int64_t after = from, more = 1; more;) {
        const json page =
            call("FindAppearances", "xxxuasssasb",
                 {std::to_string(after), std::to_string(to), std::to_string(gap), "1"});
        ASSERT_EQ(page.size(), 2u);
        for (const auto& a : page[0]) {
            fromIndex.push_back(std::to_string(a[0].get<int64_t>()) + ".." +
                                std::to_string(a[1].get<int64_t>()) + " " +
                                std::to_string(a[2].get<int64_t>()));
            after = a[1].get<int64_t>() + 1;
        }
        more = page[1].get<bool>();
    }
    const auto walked =
        stack.recsearch(search({"--class", "person", "--spans=1s", "--walk", "--json"}));
    const auto matches = stack.recsearch(search({"--class", "person", "--walk", "--json"}));
    std::vector<std::string> byWalk;
    std::map<int64_t, std::pair<int64_t, int64_t>> perBucket;  // appearances, documents
    for (const auto& line : lines(walked.out)) {
        const json j = json::parse(line);
        if (j.value("kind", "") != "span") continue;
        const int64_t start =
            j["start_sec"].get<int64_t>() * 1000000 + j["start_usec"].get<int64_t>();
        byWalk.push_back(
            std::to_string(start) + ".." +
            std::to_string(j["end_sec"].get<int64_t>() * 1000000 + j["end_usec"].get<int64_t>()) +
            " " + std::to_string(j["matches"].get<int64_t>()));
        ++perBucket[(start - from) / bucket].first;
    }
    for (const auto& line : lines(matches.out)) {
        const json j = json::parse(line);
        if (j.value("kind", "") != "metadata") continue;
        ++perBucket[(j["sec"].get<int64_t>() * 1000000 + j["usec"].get<int64_t>() - from) / bucket]
              .second;
    }
    EXPECT_GE(byWalk.size(), 2u);
    EXPECT_EQ(fromIndex, byWalk);
    const json counts = call(
        "CountPerBucket", "xxxxasssasb",
        {std::to_string(from), std::to_string(to), std::to_string(bucket), std::to_string(gap)});
    ASSERT_EQ(counts.size(), 1u);
    for (const auto& c : counts[0]) {
        const auto expected = perBucket[(c[0].get<int64_t>() - from) / bucket];
        EXPECT_EQ(std::make_pair(c[1].get<int64_t>(), c[2].get<int64_t>()), expected)
            << "bucket at " << c[0];
    }
}

// Expressions built at random from the documents' own names and values: node sets, booleans,
// numbers and strings as results, functions, every comparison, predicates on frames, objects,
// PTZ and events, and one that fails at run time on some documents.
std::vector<std::string> randomXPaths(unsigned seed, std::size_t count)
{
    std::mt19937 random(seed);
    const auto pick = [&](const std::vector<std::string>& from) {
        return from[std::uniform_int_distribution<std::size_t>(0, from.size() - 1)(random)];
    };
    const std::vector<std::string> ops = {"=", "!=", "<", "<=", ">", ">="};
    const std::vector<std::string> numbers = {"0", "0.25", "0.5", "0.71", "0.8", "1", "2", "3"};
    const std::vector<std::string> boxes = {"@left", "@top", "@right", "@bottom"};
    const std::vector<std::string> classes = {"\"Person\"", "\"Vehicle\"", "\"Bicycle\"",
                                              "\"Animal\"", "'Person'"};
    const std::vector<std::function<std::string()>> forms = {
        [&] { return "//Object[Appearance/Class/Type " + pick(ops) + " " + pick(classes) + "]"; },
        [&] { return "count(//Object) " + pick(ops) + " " + pick(numbers); },
        [&] {
            return "//BoundingBox[" + pick(boxes) + " " + pick(ops) + " " + pick(numbers) + "]";
        },
        [&] { return "//Type[@Likelihood " + pick(ops) + " " + pick(numbers) + "]"; },
        [&] {
            return "contains(//ColorCluster/@Name, \"" + pick({"re", "bl", "gr", "e"}) + "\")";
        },
        [&] {
            return "starts-with(//Frame/@UtcTime, \"2024-01-01T00:00:" + pick({"1", "3", "5"}) +
                   "\")";
        },
        [&] { return "sum(//BoundingBox/" + pick(boxes) + ") " + pick(ops) + " " + pick(numbers); },
        [&] {
            return "number(//Frame/@Sequence) mod " + pick({"2", "3", "7"}) + " = 0";
        },
        [&] {
            return "//PTZStatus/Position/PanTilt[@x " + pick(ops) + " " +
                   pick({"0", "0.005", "-0.1"}) + "]";
        },
        [&] {
            return "//Object[Behaviour/Speed " + pick(ops) +
                   " 0.01 and Appearance/Class/Type = " + pick(classes) + "]";
        },
        [&] {
            return "//NotificationMessage[Data/SimpleItem[@Name=\"State\" and @Value=\"" +
                   pick({"true", "false"}) + "\"]]";
        },
        [&] { return "string(//Frame/@ObjectCount)"; },
        [&] {
            return "string(//Object[" + pick({"1", "2", "last()"}) + "]/Appearance/Class/Type)";
        },
        [&] {
            return "not(//Object[Appearance/Color/ColorCluster/@Name = \"" +
                   pick({"red", "blue", "white"}) + "\"])";
        },
        [&] { return "string-length(normalize-space(//Frame/@Source)) " + pick(ops) + " 8"; },
        [&] {
            return "//Object[last()]/Behaviour/Direction/@Yaw " + pick(ops) + " " +
                   pick({"45", "90", "180"});
        },
        [&] {
            return "boolean(//Object[" + pick({"2", "3"}) + "])";
        },
        [&] {
            return "//Frame[@ObjectCount " + pick(ops) + " " + pick(numbers) +
                   "] or (//Object | 1)";
        },
    };
    std::vector<std::string> chosen;
    for (std::size_t i = 0; i < count; ++i) chosen.push_back(forms[i % forms.size()]());
    std::shuffle(chosen.begin(), chosen.end(), random);
    return chosen;
}

// Any XPath, answered from the documents the index kept, exactly as the walk answers it, in
// pages of a dozen, either way, with a limit, appearances, counts and the shortest ones left out.
TEST_P(IndexAgreesWithTheWalk, ForRandomXPathsEitherWay)
{
    const rstest::GeneratedRecording recording(RS_BIN_DIR, generated(GetParam(), "90s"));
    IndexedStack stack(recording.path(), {"--page", "12"});
    stack.waitUntilFollowing();
    const auto xpaths = randomXPaths(GetParam(), 18);
    const std::vector<std::vector<std::string>> extras = {{},
                                                          {"--max", "9"},
                                                          {"--spans"},
                                                          {"--spans=1s", "--min-duration", "2s"},
                                                          {"--counts", "30s"}};
    for (std::size_t i = 0; i < xpaths.size(); ++i) {
        for (bool backward : {false, true}) {
            auto args = search({xpaths[i]}, backward);
            const auto& extra = extras[i % extras.size()];
            args.insert(args.end(), extra.begin(), extra.end());
            expectSameAsTheWalk(stack, args);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, IndexAgreesWithTheWalk, testing::Values(3u, 11u));

// Killed mid-build, it resumes from its mark; it waits while the recording services are gone;
// given another recording under the same name, it notices and rebuilds. Its answers are the
// walk's.
TEST(IndexFollows, ResumesAfterAKillAndRebuildsForAnotherRecording)
{
    const rstest::TempDir dir("rs-index-rec");
    const std::string path = dir.file("recording.db");
    auto generate = [&](unsigned seed) {
        auto args = generated(seed, "6m");
        args.insert(args.begin(), {"generate", path, "--force"});
        ASSERT_EQ(rstest::runToEnd(bin("recording_store"), args).status.code, 0);
    };
    generate(5);
    IndexedStack stack(path);
    ASSERT_TRUE(rstest::pollUntil([&] { return stack.state().value("documents", 0) > 300; }, 30s));
    stack.index().sendSignal(SIGKILL);
    ASSERT_TRUE(stack.index().waitForExit(5s).has_value());
    // Without the index a filter search walks, says so in one line, and answers as the walk.
    const std::vector<std::string> person = {"metadata", kFrom,    "2024-01-01T00:01:00Z",
                                             "--class",  "person", "--json"};
    const auto alone = stack.recsearch(person);
    auto walkArgs = person;
    walkArgs.push_back("--walk");
    EXPECT_EQ(answerLines(alone.out), answerLines(stack.recsearch(walkArgs).out));
    const auto said = lines(alone.out);
    EXPECT_EQ(std::count_if(said.begin(), said.end(),
                            [](const std::string& line) {
                                return line.find("\"notice\"") != std::string::npos &&
                                       line.find("not running") != std::string::npos;
                            }),
              1)
        << alone.out;
    stack.startIndex();
    const json resumed = stack.waitUntilFollowing();
    // Every document once: none lost or doubled where the kill struck.
    const auto all = stack.recsearch({"metadata", kFrom, "2024-01-01T00:06:00Z", "", "--json"});
    EXPECT_EQ(resumed.value("documents", 0), int(lines(all.out).size()) - 1) << resumed;
    expectSameAsTheWalk(stack, {"metadata", kFrom, "2024-01-01T00:06:00Z", "--class", "person"});
    // About 1,800 documents: the first thousand kept before the index had a dictionary.
    expectSameAsTheWalk(stack,
                        {"metadata", "2024-01-01T00:06:00Z", kFrom,
                         "//Object[Appearance/Class/Type = 'Person'] and count(//Object) < 3"});

    const std::string before = resumed.dump();
    EXPECT_EQ(stack.stack().stop(), "");
    // The recording services gone: it waits for them, and says so.
    EXPECT_TRUE(
        rstest::pollUntil([&] { return stack.state().value("state", "") == "waiting"; }, 10s))
        << stack.state();
    generate(6);
    stack.stack().startStore();
    ASSERT_TRUE(rstest::pollUntil(
        [&] {
            const json now = stack.state();
            return now.value("state", "") == "following" && now.dump() != before;
        },
        60s));
    // Another seed over the same times: what it answers is the new recording's.
    stack.stack().startService();
    expectSameAsTheWalk(stack, {"metadata", kFrom, "2024-01-01T00:06:00Z", "--class", "person"});
    EXPECT_EQ(stack.stack().stop(), "");
}

// A recording that grows while it is served, and then loses its start to retention: the
// index keeps up with both, holding every document once.
TEST(IndexFollows, ARecordingThatGrowsAndLosesItsStart)
{
    const rstest::TempDir dir("rs-index-grow");
    const std::string path = dir.file("recording.db");
    auto args = generated(9, "30s");
    args.insert(args.begin(), {"generate", path});
    ASSERT_EQ(rstest::runToEnd(bin("recording_store"), args).status.code, 0);
    IndexedStack stack(path);
    stack.waitUntilFollowing();
    const std::vector<std::string> everything = {"metadata", kFrom,    "2024-01-01T00:02:00Z",
                                                 "",         "--json", "--walk"};
    const auto documentsHeld = [&] {
        const auto all = stack.recsearch(everything);
        return int(lines(all.out).size()) - 1;
    };
    const auto indexHolds = [&](int documents) {
        return rstest::pollUntil([&] { return stack.state().value("documents", 0) == documents; },
                                 20s);
    };
    for (int stretch = 0; stretch < 3; ++stretch) {
        auto more = generated(20 + unsigned(stretch), "10s");
        more.insert(more.begin(), {"generate", path, "--append"});
        const auto appended = rstest::runToEnd(bin("recording_store"), more);
        ASSERT_EQ(appended.status.code, 0) << appended.err;
    }
    const int grown = documentsHeld();
    EXPECT_TRUE(indexHolds(grown)) << grown << " documents, the index: " << stack.state();
    expectSameAsTheWalk(stack, {"metadata", kFrom, "2024-01-01T00:02:00Z", "--class", "person"});

    {
        store::SqliteDb db(path, store::SqliteDb::Mode::ReadWrite);
        db.exec("PRAGMA busy_timeout = 5000");
        db.exec("DELETE FROM documents WHERE t < 1704067220000000");
    }
    const int kept = documentsHeld();
    ASSERT_LT(kept, grown);
    EXPECT_TRUE(indexHolds(kept)) << kept << " documents, the index: " << stack.state();
    const std::string from = stack.state().value("from", "");
    EXPECT_TRUE(from >= "2024-01-01T00:00:20" && from < "2024-01-01T00:00:21") << from;
    expectSameAsTheWalk(stack, {"metadata", kFrom, "2024-01-01T00:02:00Z", "--class", "person"});
    // The texts too: none of the lost start, each one of the rest, where a block was cut.
    expectSameAsTheWalk(stack, {"metadata", "2024-01-01T00:02:00Z", kFrom, "//Frame"});
    EXPECT_EQ(stack.stack().stop(), "");
}

// Three hours of one blue vehicle a minute, and in them one red bicycle, one likely person and
// one motion: a filter that passes over the minutes it cannot match must still find each one.
TEST(IndexAgreesWithTheWalk, FindsTheOneMatchInHoursOfOthers)
{
    const rstest::TempDir dir("rs-index-one");
    const std::string path = dir.file("one.db");
    const auto frame = [](const std::string& type, const std::string& likelihood,
                          const std::string& colour, const std::string& box, bool motion) {
        return "<Frame><Object><Appearance><Shape><BoundingBox " + box +
               "/></Shape><Class><Type Likelihood=\"" + likelihood + "\">" + type +
               "</Type></Class><Color><ColorCluster Name=\"" + colour +
               "\"/></Color></Appearance></Object>" +
               (motion ? R"(<NotificationMessage Topic="VideoSource/MotionAlarm"><Data>)"
                         R"(<SimpleItem Name="State" Value="true"/></Data></NotificationMessage>)"
                       : "") +
               "</Frame>";
    };
    const std::string plain = R"(left="0.1" top="0.1" right="0.2" bottom="0.2")";
    {
        store::RecordingWriter writer(path, store::RecordingWriter::Durability::Bulk);
        auto transaction = writer.transaction();
        writer.addTrack("META001");
        writer.addEvent({1704067200, 0}, {{0, 1, ""}});
        for (uint32_t minute = 0; minute < 180; ++minute) {
            std::string document = frame("Vehicle", "0.5", "blue", plain, false);
            if (minute == 97) {
                document = frame("Bicycle", "0.9", "Red",
                                 R"(left="0.6" top="0.6" right="0.7" bottom="0.7")", false);
            }
            if (minute == 130) document = frame("Person", "0.70", "blue", plain, false);
            if (minute == 171) document = frame("Vehicle", "0.5", "blue", plain, true);
            writer.addDocument({1704067200 + minute * 60 + 7, 0}, document);
        }
        transaction->commit();
    }
    IndexedStack stack(path);
    stack.waitUntilFollowing();
    for (const auto& filter : std::vector<std::vector<std::string>>{
             {"--class", "bicycle", "--colour", "red", "--region", "0.5,0.5,1,1"},
             {"--class", "person", "--min-likelihood", "0.7"},
             {"--motion"},
             {"--class", "person", "--min-likelihood", "0.71"},
         }) {
        for (bool backward : {false, true}) {
            std::vector<std::string> args = {"metadata", backward ? "2024-01-01T03:00:00Z" : kFrom,
                                             backward ? kFrom : "2024-01-01T03:00:00Z"};
            args.insert(args.end(), filter.begin(), filter.end());
            expectSameAsTheWalk(stack, args);
        }
    }
}

// Documents as a hostile or careless camera might write them, each a person in some form: the
// index answers for every one exactly as the walk does.
TEST(IndexAgreesWithTheWalk, OnDocumentsThatAreNotPlainFrames)
{
    const rstest::TempDir dir("rs-index-odd");
    const std::string path = dir.file("odd.db");
    const auto object = [](const std::string& type, const std::string& likelihood,
                           const std::string& box =
                               R"(left="0.1" top="0.1" right="0.4" bottom="0.4")") {
        return "<Object><Appearance><Shape><BoundingBox " + box + "/></Shape><Class><Type " +
               likelihood + ">" + type + "</Type></Class><Color><ColorCluster Name=\"Red\"/>" +
               "</Color></Appearance></Object>";
    };
    const std::vector<std::string> documents = {
        "<Frame>" + object("Person", R"(Likelihood="0.9")") + "</Frame>",
        "<Frame>" + object("Person", R"(Likelihood="0.9")"),  // does not parse
        "<!DOCTYPE Frame [<!ENTITY p \"Person\">]><Frame>" + object("&p;", R"(Likelihood="0.9")") +
            "</Frame>",
        "<Frame>" + object("Person", R"(Likelihood="0.9")") + std::string(1 << 20, ' ') +
            "</Frame>",
        R"(<Frame xmlns="urn:camera">)" + object("Person", R"(Likelihood="0.9")") + "</Frame>",
        "<Frame>" + object("PERSON", R"(Likelihood=" 0.95 ")") + "</Frame>",
        "<Frame>" + object("Person", R"(Likelihood="1e0")") + "</Frame>",
        "<Frame>" + object("Per<b>son</b>", R"(Likelihood="0.9")") + "</Frame>",
        "<Frame>" + object("Person", "") + object("Animal", R"(Likelihood="0.99")") + "</Frame>",
        "<Frame>" + object("Person", R"(Likelihood="0.9")", R"(left="0.5" top="0.5" right="0.6")") +
            "</Frame>",
        "<Frame><Object><Object><Appearance><Class><Type>Person</Type></Class></Appearance>"
        "</Object></Object></Frame>",
        "<Frame>" + object("Person", R"(Likelihood="0.9")") +
            R"(<NotificationMessage Topic="VideoSource/MotionAlarm"><Data><SimpleItem Name="State" )"
            R"(Value="true"/></Data></NotificationMessage></Frame>)",
        "",
    };
    {
        store::RecordingWriter writer(path, store::RecordingWriter::Durability::Bulk);
        auto transaction = writer.transaction();
        writer.addTrack("META001");
        writer.addEvent({1704067200, 0}, {{0, 1, ""}});
        for (std::size_t i = 0; i < documents.size(); ++i) {
            writer.addDocument({1704067201 + uint32_t(i), 0}, documents[i]);
        }
        transaction->commit();
    }
    IndexedStack stack(path);
    stack.waitUntilFollowing();
    const std::vector<std::vector<std::string>> filters = {
        {"--class", "person"},
        {"--class", "person", "--min-likelihood", "0.9"},
        {"--colour", "red", "--region", "0.4,0.4,0.55,0.55"},
        {"--region", "0,0,0.1,0.1"},
        // A region whose edge is exactly a box's edge, on each side: touching is not inside.
        {"--region", "0.4,0,0.6,0.6"},
        {"--region", "0,0,0.1,0.6"},
        {"--region", "0,0.4,0.6,0.6"},
        {"--region", "0,0,0.6,0.1"},
        {"--region", "0.39,0.39,0.6,0.6"},
        {"--motion", "--class", "person"},
        {"//Type[. = 'Person']"},
        {""},
        {"true()"},
        {"not(/)"},
        {"//Object[Appearance/Shape/BoundingBox/@left < 0.2]", "--spans"},
    };
    for (const auto& filter : filters) {
        auto args = filter;
        args.insert(args.begin(), {"metadata", "2024-01-01T00:00:00Z", "2024-01-01T00:01:00Z"});
        expectSameAsTheWalk(stack, args);
    }
}

// A call to recording_index on the bus, as any client of the bus may make it.
rstest::RunResult callIndex(IndexedStack& stack, const std::string& method,
                            const std::string& signature, std::vector<std::string> args,
                            bool waitForReply = true)
{
    args.insert(args.begin(), {"--system", "--timeout=5",
                               waitForReply ? "--expect-reply=yes" : "--expect-reply=no", "call",
                               "kavro.recording_index", "/kavro/recording_index",
                               "kavro.recording_index", method, signature});
    return rstest::runToEnd("busctl", args, stack.stack().clientEnv(), 30s);
}

// Ranges at the ends of 64-bit time, a flood of calls whose callers leave at once, and a file
// that is truncated, overwritten or holds rows that do not decode: the index refuses, sheds or
// rebuilds, and answers as the walk does afterwards.
TEST(IndexHolds, RangesAtTheEndsOfTimeAFloodOfCallsAndADamagedFile)
{
    auto args = generated(13, "6m");
    args.insert(args.end(), {"--rate", "20"});
    const rstest::GeneratedRecording recording(RS_BIN_DIR, args);
    IndexedStack stack(recording.path());
    stack.waitUntilFollowing(120s);
    // The walks it is compared with go through two minutes; the scans through all of it.
    const std::vector<std::string> person = {"metadata", kFrom, "2024-01-01T00:02:00Z", "--class",
                                             "person"};

    const std::string most = "9223372036854775807", least = "-9223372036854775808";
    const std::vector<std::pair<std::string, std::vector<std::string>>> ranges = {
        {"CountPerBucket", {"9223372036854775802", most, "10", "1"}},
        {"CountPerBucket", {least, most, "1000000000000", "1"}},
        {"CountPerBucket", {"0", "1000", most, "1"}},
        {"FindAppearances", {"0", most, most, "10"}},
        {"FindMatches", {least, "0", "10"}},
    };
    for (const auto& [method, range] : ranges) {
        auto call = range;
        for (const char* filter : {"1", "person", "", "", "0", "false"}) call.push_back(filter);
        const std::string signature = method == "FindMatches"       ? "xxuasssasb"
                                      : method == "FindAppearances" ? "xxxuasssasb"
                                                                    : "xxxxasssasb";
        // Refused at once: not an answer that never comes, nor one it took its time over.
        const auto r = callIndex(stack, method, signature, call);
        EXPECT_NE(r.status.code, 0) << method << " " << range[0] << " " << range[1] << r.out;
        EXPECT_EQ(r.err.find("imed out"), std::string::npos) << method << ": " << r.err;
    }
    ASSERT_FALSE(stack.index().exitedWithin(0ms));

    // A query that costs about a second a page: an XPath that pairs every element with every
    // other, over every document.
    const std::vector<std::string> slow = {"0", "4102444800000000", "10000",
                                           "count(//*//*//*) < 0"};
    // Two hundred of them, their callers gone at once: a search meanwhile is still answered by
    // the index, without waiting behind them.
    for (int i = 0; i < 200; ++i) callIndex(stack, "FindXPathMatches", "xxus", slow, false);
    auto asJson = person;
    asJson.push_back("--json");
    const auto during = stack.recsearch(asJson);
    EXPECT_EQ(during.status.code, 0) << during.err;
    EXPECT_EQ(during.out.find("\"notice\""), std::string::npos) << during.out.substr(0, 600);
    EXPECT_NE(lines(during.out).back().find("\"index\""), std::string::npos);
    // Callers that wait: beyond a few, they are told at once that the index is busy; once they
    // leave, what they asked for is dropped.
    std::vector<std::unique_ptr<rstest::ProcessRunner>> waiting;
    for (int i = 0; i < 24; ++i) {
        std::vector<std::string> call = {"--system",
                                         "call",
                                         "kavro.recording_index",
                                         "/kavro/recording_index",
                                         "kavro.recording_index",
                                         "FindXPathMatches",
                                         "xxus"};
        call.insert(call.end(), slow.begin(), slow.end());
        waiting.push_back(
            std::make_unique<rstest::ProcessRunner>("busctl", call, stack.stack().clientEnv()));
        waiting.back()->start();
    }
    EXPECT_TRUE(rstest::pollUntil(
        [&] {
            return std::any_of(waiting.begin(), waiting.end(), [](const auto& call) {
                return call->stderrText().find("busy") != std::string::npos;
            });
        },
        10s));
    for (auto& call : waiting) call->sendSignal(SIGKILL);
    waiting.clear();
    expectSameAsTheWalk(stack, person);

    // Damaged while it was stopped: cut in half, written over, rows that do not decode.
    const auto damage = [&](const std::function<void()>& how) {
        stack.index().sendSignal(SIGTERM);
        ASSERT_TRUE(stack.index().waitForExit(10s).has_value());
        how();
        stack.startIndex();
        stack.waitUntilFollowing(120s);
    };
    const std::string db = stack.database();
    damage([&] { ASSERT_EQ(::truncate(db.c_str(), 8192), 0); });
    expectSameAsTheWalk(stack, person);
    damage([&] {
        std::ofstream(db, std::ios::binary | std::ios::trunc) << std::string(65536, '\x5a');
    });
    expectSameAsTheWalk(stack, person);
    // Facts or texts that do not decode: the first search meets them and walks around them;
    // they are read again.
    const std::vector<std::string> frames = {"metadata", kFrom, "2024-01-01T00:02:00Z",
                                             "//Frame[@ObjectCount > 1]"};
    for (const auto& [sql, search] :
         {std::pair{"UPDATE documents SET facts = x'ffffffff' WHERE t % 7 = 0", person},
          std::pair{"UPDATE texts SET text = x'28b52ffd0000' WHERE t % 3 = 0", frames}}) {
        damage([&, sql = sql] {
            store::SqliteDb file(db, store::SqliteDb::Mode::ReadWrite);
            file.exec(sql);
        });
        auto json = search;
        json.push_back("--json");
        auto walked = json;
        walked.push_back("--walk");
        EXPECT_EQ(answerLines(stack.recsearch(json).out), answerLines(stack.recsearch(walked).out))
            << sql;
        EXPECT_TRUE(rstest::pollUntil(
            [&, search = search] {
                return stack.recsearch(search).out.find("recording_index failed") ==
                       std::string::npos;
            },
            30s))
            << sql;
        expectSameAsTheWalk(stack, search);
    }
}

}  // namespace
