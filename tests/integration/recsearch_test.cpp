// recsearch as a person or a script uses it: the real binaries on a bus of each test's own.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"
#include "support/ServiceStack.h"

namespace {

using namespace std::chrono_literals;
using rstest::SearchSignal;
using Kind = SearchSignal::Kind;

std::string bin(const std::string& name) { return std::string(RS_BIN_DIR) + "/" + name; }

// The sample recording: one hour from 2024-01-01T00:00:00Z.
constexpr uint32_t kFrom = 1704067200;
constexpr uint32_t kTo = kFrom + 3600;
const char* const kPersonXPath = "//Object[Appearance/Class/Type=\"Person\"]";

// recording_store serving the sample on a bus of the test's own and, unless told otherwise,
// recording_search.
rstest::ServiceStack::Options sampleStack(bool withService = true)
{
    static const rstest::GeneratedRecording sample(
        RS_BIN_DIR, {"--seed", "11", "--start", "2024-01-01T00:00:00Z", "--duration", "1h",
                     "--video-tracks", "2", "--audio-tracks", "1", "--recording-on", "900",
                     "--recording-off", "60", "--track-on", "300", "--track-off", "30"});
    rstest::ServiceStack::Options options;
    options.binDir = RS_BIN_DIR;
    options.recording = sample.path();
    options.startService = withService;
    return options;
}

rstest::RunResult recsearch(const rstest::ServiceStack& stack, const std::vector<std::string>& args)
{
    return rstest::runToEnd(bin("recsearch"), args, stack.clientEnv(), 60s);
}

std::unique_ptr<rstest::ProcessRunner> startRecsearch(const rstest::ServiceStack& stack,
                                                      const std::vector<std::string>& args)
{
    auto p = std::make_unique<rstest::ProcessRunner>(bin("recsearch"), args, stack.clientEnv());
    p->start();
    return p;
}

std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string describe(const rstest::RunResult& r)
{
    return "exit " + std::to_string(r.status.code) + " (signal " +
           std::to_string(r.status.termSignal) + ")\nstdout:\n" + r.out + "\nstderr:\n" + r.err;
}

// Seconds since 1970 of "YYYY-MM-DDTHH:MM:SS.ffffffZ", worked out independently of recsearch.
std::pair<uint32_t, uint32_t> isoSeconds(const std::string& iso)
{
    std::tm tm{};
    const char* rest = strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    EXPECT_NE(rest, nullptr) << iso;
    unsigned usec = 0;
    EXPECT_EQ(std::sscanf(rest ? rest : "", ".%6uZ", &usec), 1) << iso;
    return {uint32_t(timegm(&tm)), usec};
}

std::pair<uint32_t, uint32_t> secondsField(const std::string& text)
{
    unsigned sec = 0, usec = 0;
    EXPECT_EQ(std::sscanf(text.c_str(), "%u.%6u", &sec, &usec), 2) << text;
    return {sec, usec};
}

// --json output: the results, then the summary object.
struct JsonRun {
    std::vector<SearchSignal> results;
    nlohmann::json summary;
};

JsonRun parseJson(const std::string& out)
{
    JsonRun run;
    for (const auto& line : lines(out)) {
        const auto j = nlohmann::json::parse(line);
        const std::string kind = j.at("kind");
        if (kind == "completed" || kind == "interrupted" || kind == "ended_elsewhere") {
            EXPECT_TRUE(run.summary.is_null()) << "two summaries: " << line;
            run.summary = j;
            continue;
        }
        SearchSignal s;
        s.sec = j.at("sec");
        s.usec = j.at("usec");
        EXPECT_EQ(isoSeconds(j.at("time")), std::make_pair(s.sec, s.usec)) << line;
        EXPECT_TRUE(run.summary.is_null()) << "a result after the summary: " << line;
        if (kind == "metadata") {
            s.kind = Kind::MetadataSearchResult;
        } else {
            s.kind = kind == "track" ? Kind::TrackStateEventSearchResult
                                     : Kind::RecordingStateEventSearchResult;
            if (kind == "track") s.trackName = j.at("track");
            s.state = j.at("on").get<bool>();
            s.startState = j.at("start_state").get<bool>();
        }
        run.results.push_back(s);
    }
    return run;
}

// A readable line: ISO time, seconds, then "metadata match", "recording on|off" or
// "track NAME on|off", then "(start state)" when it is one.
SearchSignal parseTextLine(const std::string& line)
{
    static const std::regex form(
        R"(^(\S+)  (\S+)  (?:(metadata match)|recording (on|off)|track (.+) (on|off))(  \(start state\))?$)");
    std::smatch m;
    SearchSignal s;
    if (!std::regex_match(line, m, form)) {
        ADD_FAILURE() << "unexpected result line: " << line;
        return s;
    }
    std::tie(s.sec, s.usec) = secondsField(m[2]);
    EXPECT_EQ(isoSeconds(m[1]), std::make_pair(s.sec, s.usec)) << "the two times differ: " << line;
    if (m[3].matched) {
        s.kind = Kind::MetadataSearchResult;
    } else if (m[4].matched) {
        s.kind = Kind::RecordingStateEventSearchResult;
        s.state = m[4] == "on";
    } else {
        s.kind = Kind::TrackStateEventSearchResult;
        s.trackName = m[5];
        s.state = m[6] == "on";
    }
    s.startState = m[7].matched;
    return s;
}

// ---------------------------------------------------------------------------------------------
// Results: what recsearch prints is what the service sends for the same search.

struct SearchCase {
    std::string name;
    std::vector<std::string> args;
    std::function<rstest::CallResult<int32_t>(rstest::SearchClient&)> create;
    bool findsSomething = true;  // the sample holds matches: an empty answer is a fault
};

std::ostream& operator<<(std::ostream& os, const SearchCase& c) { return os << c.name; }

// The same search made directly: its results, in order, with job ids cleared.
std::vector<SearchSignal> expectedResults(const rstest::ServiceStack& stack, const SearchCase& c)
{
    rstest::SearchClient client(stack.address());
    const auto created = c.create(client);
    EXPECT_TRUE(created.ok() && created.value >= 0) << created.errorMessage;
    const auto jobId = uint32_t(created.value);
    EXPECT_TRUE(client.beginSearch(jobId).ok());
    EXPECT_TRUE(client.waitForCompleted(jobId, 60s));
    EXPECT_TRUE(client.endSearch(jobId).ok());
    std::vector<SearchSignal> results;
    for (auto s : client.signalsFor(jobId)) {
        if (s.kind == Kind::SearchCompleted) continue;
        s.jobId = 0;
        results.push_back(s);
    }
    return results;
}

class RecsearchResults : public testing::TestWithParam<SearchCase> {};

TEST_P(RecsearchResults, PrintsExactlyWhatTheServiceSendsForTheSearch)
{
    rstest::ServiceStack stack(sampleStack());
    const auto expected = expectedResults(stack, GetParam());
    EXPECT_EQ(!expected.empty(), GetParam().findsSomething);

    auto args = GetParam().args;
    args.push_back("--json");
    const auto json = recsearch(stack, args);
    ASSERT_TRUE(json.status.exited && json.status.code == 0) << describe(json);
    const auto run = parseJson(json.out);
    EXPECT_EQ(run.results, expected);
    ASSERT_FALSE(run.summary.is_null()) << json.out;
    EXPECT_EQ(run.summary.at("kind"), "completed");
    EXPECT_EQ(run.summary.at("results"), expected.size());

    const auto text = recsearch(stack, GetParam().args);
    ASSERT_TRUE(text.status.exited && text.status.code == 0) << describe(text);
    std::vector<SearchSignal> printed;
    for (const auto& line : lines(text.out)) printed.push_back(parseTextLine(line));
    EXPECT_EQ(printed, expected);
    EXPECT_NE(text.err.find("completed: " + std::to_string(expected.size()) + " results"),
              std::string::npos)
        << text.err;
    // Piped: no progress line.
    EXPECT_EQ(text.err.find('\r'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Searches, RecsearchResults,
    testing::Values(
        SearchCase{"EventsForwardWithStartState",
                   {"events", "2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z", "--start-state"},
                   [](rstest::SearchClient& c) {
                       return c.createEventSearch(kFrom, 0, kTo, 0, -1, 0, 0, 1);
                   }},
        SearchCase{"EventsBackwardLimited",
                   {"events", std::to_string(kTo), std::to_string(kFrom), "--max", "7"},
                   [](rstest::SearchClient& c) {
                       return c.createEventSearch(kTo, 0, kFrom, 0, 7, 0, 0, 0);
                   }},
        SearchCase{"EventsFractionalTimesBothForms",
                   {"events", "2024-01-01T00:10:00.25Z", "1704069000.5", "-s", "--flag2"},
                   [](rstest::SearchClient& c) {
                       return c.createEventSearch(kFrom + 600, 250000, 1704069000, 500000, -1,
                                                  0, 1, 1);
                   }},
        SearchCase{"MetadataPersonFirstTwenty",
                   {"metadata", "2024-01-01T00:00:00Z", "2024-01-01T00:05:00Z", kPersonXPath,
                    "-n", "20"},
                   [](rstest::SearchClient& c) {
                       return c.createMetadataSearch(kFrom, 0, kFrom + 300, 0, 20, kPersonXPath);
                   }},
        SearchCase{"Noop", {"noop"}, [](rstest::SearchClient& c) { return c.createNoopSearch(); },
                   false}),
    [](const testing::TestParamInfo<SearchCase>& info) { return info.param.name; });

// ---------------------------------------------------------------------------------------------
// A search that is cut short: by Ctrl-C, or by the service or the bus going away.

// Every document matches, so a search of the whole hour runs for seconds and streams results.
const std::vector<std::string> kLongSearch{"metadata", std::to_string(kFrom), std::to_string(kTo),
                                           ""};

TEST(RecsearchCutShort, CtrlCEndsTheSearchAndADepartureEndsRecsearchWithAClearMessage)
{
    enum Way { CtrlC, ServiceStops, ServiceCrashes, BusGoes };
    for (Way way : {CtrlC, ServiceStops, ServiceCrashes, BusGoes}) {
        SCOPED_TRACE(way);
        rstest::ServiceStack stack(sampleStack());
        auto rs = startRecsearch(stack, kLongSearch);
        ASSERT_TRUE(rs->waitForStdout("metadata match\n", 10s)) << rs->stderrText();
        switch (way) {
        case CtrlC: rs->sendSignal(SIGINT); break;
        case ServiceStops: stack.service().sendSignal(SIGTERM); break;
        case ServiceCrashes: stack.service().sendSignal(SIGKILL); break;
        case BusGoes: stack.bus().kill(); break;
        }
        const auto status = rs->waitForExit(20s);
        ASSERT_TRUE(status.has_value());
        const std::string err = rs->stderrText();
        EXPECT_TRUE(status->exited);
        EXPECT_EQ(status->code, way == CtrlC ? 130 : 6) << err;
        if (way != CtrlC) {
            EXPECT_NE(err.find(way == BusGoes ? "recsearch: lost the bus"
                                              : "recsearch: recording_search went away"),
                      std::string::npos)
                << err;
            continue;
        }
        std::smatch begun, m;
        ASSERT_TRUE(std::regex_search(err, begun, std::regex("metadata search (\\d+) begun"))) << err;
        const auto jobId = uint32_t(std::stoul(begun[1]));
        static const std::regex summary(
            R"(interrupted: search (\d+) ended after (\d+) results; it had searched through (\S+) \((\S+)\))");
        ASSERT_TRUE(std::regex_search(err, m, summary)) << err;
        EXPECT_EQ(std::stoul(m[1]), jobId);
        const auto printed = lines(rs->stdoutText());
        ASSERT_FALSE(printed.empty());
        EXPECT_EQ(std::stoul(m[2]), printed.size());
        const auto reached = secondsField(m[4]);
        EXPECT_EQ(isoSeconds(m[3]), reached);
        EXPECT_LT(reached.first, kTo) << "the walk takes seconds; it cannot have finished";
        const auto last = parseTextLine(printed.back());
        EXPECT_GE(reached, std::make_pair(last.sec, last.usec)) << "reported less than it printed";
        // Ended on the service, not just abandoned.
        const auto state = rstest::SearchClient(stack.address()).getSearchState(jobId);
        ASSERT_TRUE(state.ok());
        EXPECT_EQ(state.value.state, 0u);
    }
}

// ---------------------------------------------------------------------------------------------
// state and end of a search that another recsearch runs.

TEST(RecsearchOtherClientsSearch, StateAndEndOfARunningSearchWhoseRecsearchSeesItEnded)
{
    rstest::ServiceStack stack(sampleStack());
    auto watcher = startRecsearch(stack, {"metadata", std::to_string(kFrom), std::to_string(kTo), "",
                                         "--json"});
    rstest::SearchClient observer(stack.address());
    // The watcher's search is the only one: its first result names its job id.
    ASSERT_TRUE(observer.waitForSignalCount(1, 10s));
    const uint32_t jobId = observer.signals().front().jobId;
    const std::string id = std::to_string(jobId);

    auto r = recsearch(stack, {"state", id});
    EXPECT_EQ(r.status.code, 0) << describe(r);
    EXPECT_EQ(r.out, "job " + id + ": searching\n");

    r = recsearch(stack, {"end", id});
    EXPECT_EQ(r.status.code, 0) << describe(r);
    std::smatch m;
    static const std::regex form(R"(^job (\d+) ended; it had searched through (\S+) \((\S+)\)\n$)");
    ASSERT_TRUE(std::regex_match(r.out, m, form)) << r.out;
    EXPECT_EQ(m[1], id);
    const auto reached = secondsField(m[3]);
    EXPECT_EQ(isoSeconds(m[2]), reached);
    EXPECT_LT(reached.first, kTo) << "ended long before the walk could have finished";

    const auto status = watcher->waitForExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << watcher->stderrText();
    const auto run = parseJson(watcher->stdoutText());
    ASSERT_FALSE(run.summary.is_null()) << watcher->stdoutText();
    EXPECT_EQ(run.summary.at("kind"), "ended_elsewhere");
    EXPECT_EQ(run.summary.at("job"), jobId);
    // A result the worker was already producing may follow the completion; none is printed.
    EXPECT_EQ(run.summary.at("results"), run.results.size());

    r = recsearch(stack, {"state", id});
    EXPECT_EQ(r.status.code, 7) << describe(r);
    EXPECT_EQ(r.out, "job " + id + ": unknown (no such search)\n");
    r = recsearch(stack, {"end", id});
    EXPECT_EQ(r.status.code, 7) << describe(r);
    EXPECT_EQ(r.err, "recsearch: no search with job id " + id + "\n");
}

// ---------------------------------------------------------------------------------------------
// Errors: each its own line on standard error and its own exit code.

TEST(RecsearchErrors, GiveOneLineAndTheirExitCode)
{
    enum Where { Service, NoService, NoBus, TwoRunning };
    const std::string from = std::to_string(kFrom), to = std::to_string(kTo);
    const std::string nowhere = "unix:path=/nonexistent/recsearch-test-bus";
    const std::vector<std::tuple<Where, std::vector<std::string>, int, std::string>> cases{
        {Service, {"events", from + ".1000000", to}, 5,
         "recsearch: recording_search answered CreateEventSearch with status 1"},
        {Service, {"metadata", from, to + ".1000000", "//Object"}, 5,
         "recsearch: recording_search answered CreateMetadataSearch with status 1"},
        {TwoRunning, {"metadata", from, to, "//Object"}, 4, "job id -1"},
        {NoService, {"events", from, to}, 3, "recsearch: recording_search is not running"},
        {NoService, {"state", "1"}, 3, "recsearch: recording_search is not running"},
        {NoBus, {"noop"}, 3, "recsearch: cannot connect to " + nowhere},
    };
    for (const auto& [where, args, code, message] : cases) {
        SCOPED_TRACE(args.front() + " " + std::to_string(where));
        rstest::ServiceStack stack(sampleStack(where != NoService));
        std::optional<rstest::SearchClient> holder;
        if (where == TwoRunning) holder.emplace(stack.address());
        for (int i = 0; holder && i < 2; ++i) {
            ASSERT_GT(holder->createEventSearch(kFrom, 0, kTo, 0, -1, 0, 0, 0).value, 0);
        }
        auto env = stack.clientEnv();
        if (where == NoBus) env = {{"DBUS_SYSTEM_BUS_ADDRESS", nowhere}};
        const auto r = rstest::runToEnd(bin("recsearch"), args, env, 60s);
        EXPECT_TRUE(r.status.exited);
        EXPECT_EQ(r.status.code, code) << describe(r);
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "");
    }
}

// ---------------------------------------------------------------------------------------------
// Appearances and coverage, checked against the plain results of the same recording.

int64_t micros(const nlohmann::json& j, const std::string& prefix)
{
    const auto sec = j.at(prefix + "_sec").get<uint32_t>();
    const auto usec = j.at(prefix + "_usec").get<uint32_t>();
    EXPECT_EQ(isoSeconds(j.at(prefix)), std::make_pair(sec, usec)) << j;
    return int64_t(sec) * 1000000 + usec;
}

std::vector<nlohmann::json> jsonOfKind(const std::string& out, const std::string& kind)
{
    std::vector<nlohmann::json> found;
    for (const auto& line : lines(out)) {
        auto j = nlohmann::json::parse(line);
        if (j.at("kind") == kind) found.push_back(j);
    }
    return found;
}

TEST(RecsearchAppearances, EveryMatchLiesInExactlyOneSpanForwardAndBackward)
{
    rstest::ServiceStack stack(sampleStack());
    const std::string from = std::to_string(kFrom), to = std::to_string(kFrom + 300);
    // A likelihood near the threshold flickers from frame to frame: pauses of many lengths.
    const std::vector<std::string> filter{"--class", "person", "--min-likelihood", "0.9", "--json"};
    auto search = [&](const std::string& a, const std::string& b, const std::string& extra) {
        std::vector<std::string> args{"metadata", a, b, extra};
        args.insert(args.end(), filter.begin(), filter.end());
        return recsearch(stack, args);
    };
    const auto plain = search(from, to, "--no-progress");
    ASSERT_EQ(plain.status.code, 0) << describe(plain);
    std::vector<int64_t> matches;
    for (const auto& m : parseJson(plain.out).results) {
        matches.push_back(int64_t(m.sec) * 1000000 + m.usec);
    }
    // The gap is the middle one of the pauses (longer than the 0.2 s between documents):
    // some pauses are shorter, some longer, and one is exactly as long, which still belongs
    // to one span.
    std::vector<int64_t> pauses;
    for (std::size_t i = 1; i < matches.size(); ++i) {
        if (matches[i] - matches[i - 1] > 300000) pauses.push_back(matches[i] - matches[i - 1]);
    }
    ASSERT_GE(pauses.size(), 10u);
    std::nth_element(pauses.begin(), pauses.begin() + pauses.size() / 2, pauses.end());
    const int64_t gap = pauses[pauses.size() / 2];
    char gapText[32];
    std::snprintf(gapText, sizeof gapText, "--spans=%.6fs", double(gap) / 1e6);

    for (bool forward : {true, false}) {
        SCOPED_TRACE(forward ? "forward" : "backward");
        const auto spanned = search(forward ? from : to, forward ? to : from, gapText);
        ASSERT_EQ(spanned.status.code, 0) << describe(spanned);
        const auto spans = jsonOfKind(spanned.out, "span");
        ASSERT_GT(spans.size(), 1u);
        EXPECT_EQ(jsonOfKind(spanned.out, "completed").at(0).at("results"), matches.size());
        std::size_t total = 0;
        for (std::size_t i = 0; i < spans.size(); ++i) {
            const int64_t start = micros(spans[i], "start"), end = micros(spans[i], "end");
            ASSERT_LE(start, end) << spans[i];
            std::vector<int64_t> inside;
            std::copy_if(matches.begin(), matches.end(), std::back_inserter(inside),
                         [&](int64_t m) { return start <= m && m <= end; });
            ASSERT_FALSE(inside.empty()) << spans[i];
            EXPECT_EQ(spans[i].at("matches"), inside.size()) << spans[i];
            EXPECT_EQ(inside.front(), start) << spans[i];
            EXPECT_EQ(inside.back(), end) << spans[i];
            for (std::size_t k = 1; k < inside.size(); ++k) {
                EXPECT_LE(inside[k] - inside[k - 1], gap) << "a pause within " << spans[i];
            }
            total += inside.size();
            if (i == 0) continue;
            // In the order of the search, and more than the gap apart.
            const int64_t before = forward ? micros(spans[i - 1], "end") : end;
            const int64_t after = forward ? start : micros(spans[i - 1], "start");
            EXPECT_GT(after - before, gap) << spans[i - 1] << " then " << spans[i];
        }
        EXPECT_EQ(total, matches.size()) << "a match outside every span, or in two";
    }
}

TEST(RecsearchSummary, OnTimePerBucketAndGapsAreWhatTheEventsSay)
{
    rstest::ServiceStack stack(sampleStack());
    const std::string from = std::to_string(kFrom), to = std::to_string(kTo);
    const auto events = recsearch(stack, {"events", from, to, "--start-state", "--json"});
    const auto summary = recsearch(stack, {"summary", from, to, "--bucket", "7m", "--json"});
    ASSERT_EQ(events.status.code, 0) << describe(events);
    ASSERT_EQ(summary.status.code, 0) << describe(summary);

    // Each stream's changes in time order ("" is the recording); a change holds until the next.
    std::map<std::string, std::vector<std::pair<int64_t, bool>>> changes;
    for (const auto& e : parseJson(events.out).results) {
        changes[e.trackName].emplace_back(int64_t(e.sec) * 1000000 + e.usec, e.state != 0);
    }
    const int64_t end = int64_t(kTo) * 1000000;
    auto onWithin = [&](const std::string& stream, int64_t from, int64_t to) {
        const auto& c = changes.at(stream);
        int64_t on = 0;
        for (std::size_t i = 0; i < c.size(); ++i) {
            const int64_t until = i + 1 < c.size() ? c[i + 1].first : end;
            if (!c[i].second) continue;
            on += std::max<int64_t>(0, std::min(until, to) - std::max(c[i].first, from));
        }
        return double(on) / 1e6;
    };

    const auto buckets = jsonOfKind(summary.out, "bucket");
    ASSERT_EQ(buckets.size(), 9u) << summary.out;  // 60 minutes in 7-minute buckets
    int64_t covered = int64_t(kFrom) * 1000000;
    for (const auto& b : buckets) {
        EXPECT_EQ(micros(b, "start"), covered) << b;
        covered = micros(b, "end");
        EXPECT_NEAR(b.at("recording_on_s").get<double>(), onWithin("", micros(b, "start"), covered),
                    1e-6) << b;
        EXPECT_EQ(b.at("tracks").size(), changes.size() - 1) << b;
        for (const auto& [track, seconds] : b.at("tracks").items()) {
            EXPECT_NEAR(seconds.get<double>(), onWithin(track, micros(b, "start"), covered), 1e-6)
                << track << " in " << b;
        }
    }
    EXPECT_EQ(covered, end);

    std::vector<std::pair<int64_t, int64_t>> expectedGaps, gaps;
    const auto& recording = changes.at("");
    for (std::size_t i = 0; i < recording.size(); ++i) {
        const int64_t until = i + 1 < recording.size() ? recording[i + 1].first : end;
        if (!recording[i].second && until - recording[i].first > 60000000) {
            expectedGaps.emplace_back(recording[i].first, until);
        }
    }
    for (const auto& g : jsonOfKind(summary.out, "gap")) {
        gaps.emplace_back(micros(g, "start"), micros(g, "end"));
    }
    EXPECT_FALSE(expectedGaps.empty()) << "the sample should have a gap to find";
    EXPECT_EQ(gaps, expectedGaps);
}

// ---------------------------------------------------------------------------------------------
// The command line itself, checked before any bus is needed: with none, a valid line fails with 3.

TEST(RecsearchUsage, BadCommandLinesExitWithTwoAndBoundaryValuesPass)
{
    const std::vector<std::pair<int, std::vector<std::string>>> cases{
        {2, {}},
        {2, {"search"}},
        {2, {"events", "1704067200"}},
        {2, {"events", "yesterday", "1704067200"}},
        {2, {"events", "2024-01-01T00:00:00", "1704067200"}},
        {2, {"events", "1704067200", "4294967296"}},
        {2, {"events", "1", "2", "--max", "-3"}},
        {2, {"metadata", "1", "2"}},
        {2, {"summary", "1", "1"}},
        {2, {"summary", "1", "2", "--bucket", "0"}},
        {2, {"state", "-1"}},
        {2, {"end", "x"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "1.01"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "-0.1"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "1e-3"}},  // not an XPath number
        {3, {"metadata", "1", "2", "--min-likelihood", "1"}},
        {3, {"metadata", "1", "2", "--min-likelihood", ".5"}},
        {2, {"metadata", "1", "2", "--region", "0.5,0,0.5,1"}},
        {2, {"metadata", "1", "2", "--region", "0,0,1"}},
        {2, {"metadata", "1", "2", "--region", "0,1,1,0.5"}},
        {2, {"metadata", "1", "2", "--region", "0,0,1,1e0"}},
        {3, {"metadata", "1", "2", "--region", "-0.1,0,.5,1"}},
        {2, {"metadata", "1", "2", "--class", "Per\"son"}},
        {2, {"metadata", "1", "2", "--colour", "o'range"}},
        {2, {"metadata", "1", "2", "--class", ""}},
        {2, {"metadata", "1", "2", "--spans=soon", "--class", "Person"}},
    };
    for (const auto& [code, args] : cases) {
        const auto r = rstest::runToEnd(bin("recsearch"), args,
                                        {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"}});
        EXPECT_EQ(r.status.code, code) << describe(r);
        EXPECT_FALSE(r.err.empty());
    }
}

TEST(RecsearchUsage, EverySubcommandHasHelp)
{
    for (const std::string sub : {"", "events", "metadata", "summary", "noop", "state", "end"}) {
        std::vector<std::string> args{"--help"};
        if (!sub.empty()) args.insert(args.begin(), sub);
        const auto r = rstest::runToEnd(bin("recsearch"), args);
        EXPECT_EQ(r.status.code, 0) << describe(r);
        EXPECT_NE(r.out.find("recsearch " + sub), std::string::npos) << r.out;
    }
}

}  // namespace
