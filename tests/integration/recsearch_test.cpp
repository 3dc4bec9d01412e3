// recsearch as a person or a script uses it: the real binaries on a bus of each test's own.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <map>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"
#include "support/ServiceStack.h"

namespace {

using namespace std::chrono_literals;
using reliability::bin;
using reliability::lines;
using rstest::SearchSignal;
using Kind = SearchSignal::Kind;
using nlohmann::json;

// The sample recording: one hour from 2024-01-01T00:00:00Z.
constexpr uint32_t kFrom = 1704067200;
constexpr uint32_t kTo = kFrom + 3600;
const std::string kFromText = std::to_string(kFrom), kToText = std::to_string(kTo);
const char* const kPersonXPath = "//Object[Appearance/Class/Type=\"Person\"]";

// recording_store serving the sample on a bus of the test's own and, unless told otherwise,
// recording_search.
rstest::ServiceStack::Options sampleStack(bool withService = true)
{
    static const rstest::GeneratedRecording sample(
        RS_BIN_DIR, {"--seed", "11", "--start", "2024-01-01T00:00:00Z", "--duration", "1h",
                     "--video-tracks", "2", "--audio-tracks", "1", "--recording-on", "900",
                     "--recording-off", "60", "--track-on", "300", "--track-off", "30"});
    return {RS_BIN_DIR, sample.path(), {}, withService};
}

rstest::RunResult recsearch(const rstest::ServiceStack& stack, const std::vector<std::string>& args)
{
    return rstest::runToEnd(bin("recsearch"), args, stack.clientEnv(), 60s);
}

bool ok(const rstest::RunResult& r) { return r.status.exited && r.status.code == 0; }

std::string describe(const rstest::RunResult& r)
{
    return "exit " + std::to_string(r.status.code) + " (signal " +
           std::to_string(r.status.termSignal) + ")\nstdout:\n" + r.out + "\nstderr:\n" + r.err;
}

// Microseconds since 1970 of "YYYY-MM-DDTHH:MM:SS.ffffffZ", worked out independently of
// recsearch; `seconds` ("SEC.USEC"), when given, must be the same time.
int64_t micros(const std::string& iso, const std::string& seconds = "")
{
    std::tm tm{};
    unsigned sec = 0, usec = 0;
    const char* rest = strptime(iso.c_str(), "%Y-%m-%dT%H:%M:%S", &tm);
    EXPECT_TRUE(rest && std::sscanf(rest, ".%6uZ", &usec) == 1) << iso;
    const int64_t t = int64_t(timegm(&tm)) * 1000000 + usec;
    if (!seconds.empty()) {
        EXPECT_EQ(std::sscanf(seconds.c_str(), "%u.%6u", &sec, &usec), 2) << seconds;
        EXPECT_EQ(int64_t(sec) * 1000000 + usec, t) << iso << " differs from " << seconds;
    }
    return t;
}

// A --json time: `key` ("time", "start", "end") in ISO form and as its sec/usec fields.
int64_t micros(const json& j, const std::string& key)
{
    const std::string prefix = key == "time" ? "" : key + "_";
    const int64_t t = j.at(prefix + "sec").get<uint32_t>() * int64_t(1000000) +
                      j.at(prefix + "usec").get<uint32_t>();
    EXPECT_EQ(micros(j.at(key).get<std::string>()), t) << j;
    return t;
}

// --json output: the objects before the summary, then the summary (the one with "results").
struct JsonRun {
    std::vector<json> items;
    json summary;
};

JsonRun parseJson(const std::string& out)
{
    JsonRun run;
    for (const auto& line : lines(out)) {
        auto j = json::parse(line);
        EXPECT_TRUE(run.summary.is_null()) << "after the summary: " << line;
        (j.contains("results") ? run.summary : run.items.emplace_back()) = std::move(j);
    }
    return run;
}

// A --json result as the service's signal, and the readable line that says the same.
SearchSignal signalOf(const json& j, std::string& line)
{
    SearchSignal s;
    const int64_t t = micros(j, "time");
    s.sec = uint32_t(t / 1000000);
    s.usec = uint32_t(t % 1000000);
    char sec[32];
    std::snprintf(sec, sizeof sec, "%u.%06u", s.sec, s.usec);
    line = j.at("time").get<std::string>() + "  " + sec + "  ";
    const std::string kind = j.at("kind");
    if (kind == "metadata") {
        s.kind = Kind::MetadataSearchResult;
        line += "metadata match";
        return s;
    }
    EXPECT_TRUE(kind == "track" || kind == "recording") << j;
    s.kind =
        kind == "track" ? Kind::TrackStateEventSearchResult : Kind::RecordingStateEventSearchResult;
    s.trackName = j.value("track", "");
    s.state = j.at("on").get<bool>();
    s.startState = j.at("start_state").get<bool>();
    line += (kind == "track" ? "track " + s.trackName + " " : "recording ") +
            (s.state ? "on" : "off") + (s.startState ? "  (start state)" : "");
    return s;
}

// Results: what recsearch prints is what the service sends for the same search.

TEST(RecsearchResults, PrintExactlyWhatTheServiceSendsForTheSameSearch)
{
    rstest::ServiceStack stack(sampleStack());
    using Create = std::function<rstest::CallResult<int32_t>(rstest::SearchClient&)>;
    const std::vector<std::pair<std::vector<std::string>, Create>> cases{
        {{"events", "2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z", "--start-state"},
         [](auto& c) { return c.createEventSearch(kFrom, 0, kTo, 0, -1, 0, 0, 1); }},
        {{"events", kToText, kFromText, "--max", "7"},
         [](auto& c) { return c.createEventSearch(kTo, 0, kFrom, 0, 7, 0, 0, 0); }},
        {{"events", "2024-01-01T00:10:00.25Z", "1704069000.5", "-s", "--flag2"},
         [](auto& c) {
             return c.createEventSearch(kFrom + 600, 250000, 1704069000, 500000, -1, 0, 1, 1);
         }},
        {{"metadata", "2024-01-01T00:00:00Z", "2024-01-01T00:05:00Z", kPersonXPath, "-n", "20"},
         [](auto& c) {
             return c.createMetadataSearch(kFrom, 0, kFrom + 300, 0, 20, kPersonXPath);
         }},
        {{"noop"}, [](auto& c) { return c.createNoopSearch(); }},
    };
    for (const auto& [args, create] : cases) {
        SCOPED_TRACE(args.front() + " " + (args.size() > 1 ? args[1] : ""));
        // The same search made directly: its results, in order, with job ids cleared.
        rstest::SearchClient client(stack.address());
        const auto created = create(client);
        ASSERT_TRUE(created.ok() && created.value >= 0) << created.errorMessage;
        const auto jobId = uint32_t(created.value);
        ASSERT_TRUE(client.beginSearch(jobId).ok() && client.waitForCompleted(jobId, 60s));
        EXPECT_TRUE(client.endSearch(jobId).ok());
        std::vector<SearchSignal> expected;
        for (auto s : client.signalsFor(jobId)) {
            s.jobId = 0;
            if (s.kind != Kind::SearchCompleted) expected.push_back(s);
        }
        EXPECT_EQ(expected.empty(), args.front() == "noop") << "the sample holds matches";

        auto jsonArgs = args;
        jsonArgs.push_back("--json");
        const auto jsonRun = recsearch(stack, jsonArgs);
        ASSERT_TRUE(ok(jsonRun)) << describe(jsonRun);
        const auto run = parseJson(jsonRun.out);
        std::vector<SearchSignal> printed;
        std::vector<std::string> textLines(run.items.size());
        for (std::size_t i = 0; i < run.items.size(); ++i) {
            printed.push_back(signalOf(run.items[i], textLines[i]));
        }
        EXPECT_EQ(printed, expected);
        EXPECT_EQ(run.summary.value("kind", ""), "completed") << jsonRun.out;
        EXPECT_EQ(run.summary.at("results"), expected.size());

        // Readable lines say the same as the JSON ones.
        const auto text = recsearch(stack, args);
        ASSERT_TRUE(ok(text)) << describe(text);
        EXPECT_EQ(lines(text.out), textLines);
        EXPECT_NE(text.err.find("completed: " + std::to_string(expected.size()) + " results"),
                  std::string::npos)
            << text.err;
        EXPECT_EQ(text.err.find('\r'), std::string::npos) << "a progress line, though piped";
    }
}

// A search that is cut short: by Ctrl-C, or by the service or the bus going away.

TEST(RecsearchCutShort, CtrlCEndsTheSearchAndADepartureEndsRecsearchWithAClearMessage)
{
    // The stop signals exit with 128 + their number, as a shell and a supervisor read it.
    enum Way {
        CtrlC = SIGINT,
        Terminate = SIGTERM,
        HangUp = SIGHUP,
        ServiceStops = -1,
        ServiceCrashes = -2,
        BusGoes = -3
    };
    for (Way way : {CtrlC, Terminate, HangUp, ServiceStops, ServiceCrashes, BusGoes}) {
        const bool signalled = way > 0;
        SCOPED_TRACE(way);
        rstest::ServiceStack stack(sampleStack());
        // Every document matches: a search of the whole hour runs for seconds, streaming results.
        rstest::ProcessRunner rs(bin("recsearch"), {"metadata", kFromText, kToText, ""},
                                 stack.clientEnv());
        rs.start();
        ASSERT_TRUE(rs.waitForStdout("metadata match\n", 10s)) << rs.stderrText();
        switch (way) {
        case CtrlC:
        case Terminate:
        case HangUp: rs.sendSignal(way); break;
        case ServiceStops: stack.service().sendSignal(SIGTERM); break;
        case ServiceCrashes: stack.service().sendSignal(SIGKILL); break;
        case BusGoes: stack.bus().kill(); break;
        }
        const auto status = rs.waitForExit(20s);
        ASSERT_TRUE(status && status->exited);
        const std::string err = rs.stderrText();
        EXPECT_EQ(status->code, signalled ? 128 + way : 6) << err;
        if (!signalled) {
            EXPECT_NE(err.find(way == BusGoes ? "recsearch: lost the bus"
                                              : "recsearch: recording_search went away"),
                      std::string::npos)
                << err;
            continue;
        }
        std::smatch m;
        static const std::regex summary(
            R"(metadata search (\d+) begun\n[\s\S]*interrupted: search \1 ended after (\d+) )"
            R"(results; it had searched through (\S+) \((\S+)\))");
        ASSERT_TRUE(std::regex_search(err, m, summary)) << err;
        const auto jobId = uint32_t(std::stoul(m[1]));
        const auto printed = lines(rs.stdoutText());
        ASSERT_FALSE(printed.empty());
        EXPECT_EQ(std::stoul(m[2]), printed.size());
        const int64_t reached = micros(m[3].str(), m[4].str());
        EXPECT_LT(reached, int64_t(kTo) * 1000000) << "the walk takes seconds; it cannot be over";
        // Each line begins with its ISO time.
        EXPECT_GE(reached, micros(printed.back().substr(0, printed.back().find(' '))))
            << "reported less than it printed";
        // Ended on the service, not just abandoned.
        const auto state = rstest::SearchClient(stack.address()).getSearchState(jobId);
        ASSERT_TRUE(state.ok());
        EXPECT_EQ(state.value.state, 0u);
    }
}

// state and end of a search that another recsearch runs.

TEST(RecsearchOtherClientsSearch, StateAndEndOfARunningSearchWhoseRecsearchSeesItEnded)
{
    rstest::ServiceStack stack(sampleStack());
    rstest::ProcessRunner watcher(bin("recsearch"), {"metadata", kFromText, kToText, "", "--json"},
                                  stack.clientEnv());
    watcher.start();
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
    const std::regex form("job " + id + R"( ended; it had searched through (\S+) \((\S+)\)\n)");
    ASSERT_TRUE(std::regex_match(r.out, m, form)) << r.out;
    EXPECT_LT(micros(m[1].str(), m[2].str()), int64_t(kTo) * 1000000)
        << "ended long before the walk could have finished";

    const auto status = watcher.waitForExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 0) << watcher.stderrText();
    const auto run = parseJson(watcher.stdoutText());
    ASSERT_FALSE(run.summary.is_null()) << watcher.stdoutText();
    EXPECT_EQ(run.summary.at("kind"), "ended_elsewhere");
    EXPECT_EQ(run.summary.at("job"), jobId);
    // A result the worker was already producing may follow the completion; none is printed.
    EXPECT_EQ(run.summary.at("results"), run.items.size());

    r = recsearch(stack, {"state", id});
    EXPECT_EQ(r.status.code, 7) << describe(r);
    EXPECT_EQ(r.out, "job " + id + ": unknown (no such search)\n");
    r = recsearch(stack, {"end", id});
    EXPECT_EQ(r.status.code, 7) << describe(r);
    EXPECT_EQ(r.err, "recsearch: no search with job id " + id + "\n");
}

// Errors: each its own line on standard error and its own exit code.

void expectError(const rstest::RunResult& r, int code, const std::string& message)
{
    EXPECT_TRUE(r.status.exited && r.status.code == code) << describe(r);
    EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_EQ(r.out, "");
}

TEST(RecsearchErrors, GiveOneLineAndTheirExitCode)
{
    {
        rstest::ServiceStack stack(sampleStack());
        expectError(recsearch(stack, {"events", kFromText + ".1000000", kToText}), 5,
                    "recsearch: recording_search answered CreateEventSearch with status 1");
        expectError(recsearch(stack, {"metadata", kFromText, kToText + ".1000000", "//Object"}), 5,
                    "recsearch: recording_search answered CreateMetadataSearch with status 1");
        rstest::SearchClient holder(stack.address());
        for (int i = 0; i < 2; ++i) {
            ASSERT_GT(holder.createEventSearch(kFrom, 0, kTo, 0, -1, 0, 0, 0).value, 0);
        }
        expectError(recsearch(stack, {"metadata", kFromText, kToText, "//Object"}), 4, "job id -1");
    }
    rstest::ServiceStack noService(sampleStack(false));
    const std::string notRunning = "recsearch: recording_search is not running";
    expectError(recsearch(noService, {"events", kFromText, kToText}), 3, notRunning);
    expectError(recsearch(noService, {"state", "1"}), 3, notRunning);
    const std::string nowhere = "unix:path=/nonexistent/recsearch-test-bus";
    expectError(
        rstest::runToEnd(bin("recsearch"), {"noop"}, {{"DBUS_SYSTEM_BUS_ADDRESS", nowhere}}), 3,
        "recsearch: cannot connect to " + nowhere);
}

// Coverage: the on-time per bucket and the gaps are what the events of the same recording say.

TEST(RecsearchCoverage, AgreesWithTheEventsOfTheSameRecording)
{
    rstest::ServiceStack stack(sampleStack());
    const auto events = recsearch(stack, {"events", kFromText, kToText, "--start-state", "--json"});
    const auto summary =
        recsearch(stack, {"summary", kFromText, kToText, "--bucket", "7m", "--json"});
    ASSERT_TRUE(ok(events)) << describe(events);
    ASSERT_TRUE(ok(summary)) << describe(summary);

    // Each stream's stretches from one change to the next ("" is the recording): start, end, on.
    const int64_t end = int64_t(kTo) * 1000000;
    std::map<std::string, std::vector<std::tuple<int64_t, int64_t, bool>>> stretches;
    for (const auto& e : parseJson(events.out).items) {
        auto& stream = stretches[e.value("track", "")];
        if (!stream.empty()) std::get<1>(stream.back()) = micros(e, "time");
        stream.emplace_back(micros(e, "time"), end, e.at("on").get<bool>());
    }
    auto onWithin = [&](const std::string& stream, int64_t from, int64_t to) {
        int64_t total = 0;
        for (const auto& [a, b, on] : stretches.at(stream)) {
            if (on) total += std::max<int64_t>(0, std::min(b, to) - std::max(a, from));
        }
        return double(total) / 1e6;
    };

    std::vector<std::pair<int64_t, int64_t>> expectedGaps, gaps;
    for (const auto& item : parseJson(summary.out).items) {
        const int64_t start = micros(item, "start"), stop = micros(item, "end");
        if (item.at("kind") == "gap") {
            gaps.emplace_back(start, stop);
            continue;
        }
        EXPECT_NEAR(item.at("recording_on_s").get<double>(), onWithin("", start, stop), 1e-6)
            << item;
        EXPECT_EQ(item.at("tracks").size(), stretches.size() - 1) << item;
        for (const auto& [track, seconds] : item.at("tracks").items()) {
            EXPECT_NEAR(seconds.get<double>(), onWithin(track, start, stop), 1e-6)
                << track << " in " << item;
        }
    }
    for (const auto& [a, b, on] : stretches.at("")) {
        if (!on && b - a > 60000000) expectedGaps.emplace_back(a, b);
    }
    EXPECT_FALSE(expectedGaps.empty()) << "the sample should have a gap to find";
    EXPECT_EQ(gaps, expectedGaps);
}

// The command line itself, checked before any bus is needed: with none, a valid line fails with 3.

TEST(RecsearchUsage, BadCommandLinesExitWithTwoAndBoundaryValuesPass)
{
    const std::vector<std::pair<int, std::vector<std::string>>> cases{
        {2, {"events", "2024-01-01T00:00:00", "1704067200"}},
        {2, {"events", "1704067200", "4294967296"}},
        {2, {"events", "1", "2", "--max", "-3"}},
        {2, {"metadata", "1", "2"}},
        {2, {"summary", "1", "1"}},
        {2, {"summary", "1", "2", "--bucket", "0"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "1.01"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "-0.1"}},
        {2, {"metadata", "1", "2", "--min-likelihood", "1e-3"}},  // not an XPath number
        {3, {"metadata", "1", "2", "--min-likelihood", "1"}},
        {2, {"metadata", "1", "2", "--region", "0.5,0,0.5,1"}},
        {2, {"metadata", "1", "2", "--region", "0,0,1"}},
        {2, {"metadata", "1", "2", "--region", "0,1,1,1"}},
        {3, {"metadata", "1", "2", "--region", "-0.1,0,.5,1"}},
        {2, {"metadata", "1", "2", "--class", "Per\"son"}},
        {2, {"metadata", "1", "2", "--colour", "o'range"}},
        {2, {"metadata", "1", "2", "--class", ""}},
        {2, {"metadata", "1", "2", "--spans=soon", "--class", "Person"}},
    };
    for (const auto& [code, args] : cases) {
        const auto r = rstest::runToEnd(
            bin("recsearch"), args, {{"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus"}});
        EXPECT_EQ(r.status.code, code) << describe(r);
        EXPECT_FALSE(r.err.empty());
    }
}

}  // namespace
