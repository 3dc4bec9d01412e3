// recsearch --devices against several real stacks, each a bus, recording_store,
// recording_search and recording_search_web with a recording of its own. The oracle for the
// merged stream is each device searched alone on its own bus, tagged and merged by time (ties
// in the devices file's order).

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/ServiceStack.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using reliability::bin;
using reliability::freePort;
using reliability::lines;

// One device: its stack and its gateway, with a token of its own.
class Device {
public:
    // `indexed`: with recording_index, followed to the recording's end before the gateway starts.
    Device(const std::string& name, unsigned seed, bool indexed = false,
           std::vector<std::string> gatewayArgs = {}, const std::string& duration = "1h")
        : name_(name),
          recording_(RS_BIN_DIR,
                     {"--seed", std::to_string(seed), "--duration", duration,
                      "--objects-per-minute", "20", "--track-on", "120", "--track-off", "20"}),
          stack_({RS_BIN_DIR, recording_.path(), {}, true}),
          port_(freePort())
    {
        tokenFile_ = dir_.write("token", "token-of-" + name + "\n");
        if (indexed) startIndex();
        startGateway(std::move(gatewayArgs));
    }

    void startIndex()
    {
        index_ = reliability::startedIndex(dir_.file("index.db"), stack_);
        const bool following = rstest::pollUntil(
            [&] { return alone({"index"}).out.find("following") != std::string::npos; }, 180s);
        if (!following) throw std::runtime_error("the index does not follow");
    }

    void startGateway(std::vector<std::string> extra = {})
    {
        auto env = stack_.clientEnv();
        env["KAVRO_LOG_FILE"] = dir_.file("web.log");
        web_ = std::make_unique<rstest::ProcessRunner>(
            bin("recording_search_web"),
            [&] {
                std::vector<std::string> args = {"--listen", "127.0.0.1:" + std::to_string(port_),
                                                 "--token-file", tokenFile_};
                args.insert(args.end(), extra.begin(), extra.end());
                return args;
            }(),
            env);
        web_->start();
        if (!web_->waitForNotify("READY=1")) throw std::runtime_error("the gateway is not ready");
    }

    std::string line() const
    {
        return name_ + " http://127.0.0.1:" + std::to_string(port_) + " " + tokenFile_;
    }
    // This device searched alone, on its own bus.
    rstest::RunResult alone(const std::vector<std::string>& args) const
    {
        return rstest::runToEnd(bin("recsearch"), args, stack_.clientEnv(), 120s);
    }
    const std::string& name() const { return name_; }
    rstest::ProcessRunner& gateway() { return *web_; }

private:
    std::string name_;
    rstest::TempDir dir_{"rs-device"};
    rstest::GeneratedRecording recording_;
    rstest::ServiceStack stack_;
    int port_;
    std::string tokenFile_;
    std::unique_ptr<rstest::ProcessRunner> index_;
    std::unique_ptr<rstest::ProcessRunner> web_;
};

class Devices : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        for (const auto& [name, seed] : {std::pair{"north", 21u}, {"east", 22u}, {"south", 23u}})
            devices_.push_back(std::make_unique<Device>(name, seed));
    }
    static void TearDownTestSuite() { devices_.clear(); }

    // A devices file of the shared devices, then `more` lines.
    std::string devicesFile(const std::vector<std::string>& more = {})
    {
        std::string text = "# the test's devices\n";
        for (const auto& d : devices_) text += d->line() + "\n";
        for (const auto& line : more) text += line + "\n";
        return dir_.write("devices", text);
    }

    rstest::RunResult merged(const std::string& file, std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--devices", file});
        return rstest::runToEnd(bin("recsearch"), args, {}, 120s);
    }

    static std::vector<std::unique_ptr<Device>> devices_;
    rstest::TempDir dir_{"rs-devices"};
};

std::vector<std::unique_ptr<Device>> Devices::devices_;

int64_t timeOf(const json& j)
{
    if (j.contains("sec")) return j["sec"].get<int64_t>() * 1000000 + j["usec"].get<int64_t>();
    return j["start_sec"].get<int64_t>() * 1000000 + j["start_usec"].get<int64_t>();
}

// Result lines without what differs from run to run (job ids) or says where they came from.
std::vector<json> resultLines(const std::string& out, const std::string& device = "")
{
    std::vector<json> kept;
    for (const auto& line : lines(out)) {
        json j = json::parse(line);
        const std::string kind = j.value("kind", "");
        if (kind == "completed" || kind == "limit" || kind == "notice" || kind == "progress")
            continue;
        j.erase("job");
        if (!device.empty()) j["device"] = device;
        kept.push_back(j);
    }
    return kept;
}

TEST_F(Devices, MergedStreamIsEachDeviceAloneMergedByTime)
{
    const std::string file = devicesFile();
    const char* from = "2024-01-01T00:00:00Z";
    const char* to = "2024-01-01T00:05:00Z";
    struct Search {
        std::vector<std::string> args;
        int limit;  // -1: none
    };
    const std::vector<Search> searches = {
        {{"events", from, to, "--start-state"}, -1},
        {{"events", to, from, "--start-state"}, -1},
        {{"events", from, to, "--max", "7"}, 7},
        {{"metadata", from, to, "--class", "person", "--spans"}, -1},
        {{"metadata", to, from, "--class", "vehicle", "--spans=1s"}, -1},
        {{"metadata", from, "2024-01-01T00:01:00Z", "//Object[Appearance/Class/Type='Animal']"},
         -1},
        {{"metadata", from, to, "--colour", "red", "--counts", "1m"}, -1},
        {{"summary", from, "2024-01-01T00:30:00Z", "--bucket", "10m"}, -1},
    };
    for (const auto& search : searches) {
        auto args = search.args;
        args.push_back("--json");
        std::string what;
        for (const auto& a : args) what += a + " ";
        const bool backward = std::string(args[1]) > std::string(args[2]);
        std::vector<std::pair<std::size_t, json>> expected;
        for (std::size_t d = 0; d < devices_.size(); ++d) {
            const auto alone = devices_[d]->alone(args);
            ASSERT_EQ(alone.status.code, 0) << what << alone.err;
            for (auto& j : resultLines(alone.out, devices_[d]->name())) expected.emplace_back(d, j);
        }
        std::stable_sort(expected.begin(), expected.end(), [&](const auto& a, const auto& b) {
            const auto rank = [](const json& j) {
                const std::string kind = j.value("kind", "");
                return kind == "count" || kind == "gap" ? 1 : 0;
            };
            if (rank(a.second) != rank(b.second)) return rank(a.second) < rank(b.second);
            const int64_t ta = timeOf(a.second), tb = timeOf(b.second);
            if (ta != tb) return backward ? ta > tb : ta < tb;
            return a.first < b.first;
        });
        std::vector<json> want;
        for (auto& e : expected) want.push_back(e.second);
        if (search.limit >= 0) want.resize(std::min(want.size(), std::size_t(search.limit)));

        const auto together = merged(file, args);
        ASSERT_EQ(together.status.code, 0) << what << together.err;
        const auto got = resultLines(together.out);
        EXPECT_EQ(got, want) << what;
        EXPECT_GT(want.size(), 1u) << what << ": a search that shows nothing of the merge";
        const json last = json::parse(lines(together.out).back());
        EXPECT_EQ(last["kind"], search.limit >= 0 ? "limit" : "completed") << what;
        EXPECT_EQ(last["devices"].size(), devices_.size()) << what;
    }
}

// A device with a bad token, one nobody answers at, one whose gateway dies mid-stream and one
// that stops answering: each gets a line of its own, and the others complete.
TEST_F(Devices, EachFailingDeviceGetsItsLineAndTheRestComplete)
{
    Device dying("dying", 31);
    const std::string badToken = dir_.write("bad-token", "not-a-token\n");
    const std::string file = devicesFile(
        {"refused http://127.0.0.1:" + std::to_string(freePort()) + " " + badToken, dying.line()});
    // The refused device points at a port nobody listens on, so it is the unreachable one too;
    // the shared north device with the bad token is the refused one.
    const std::string refusing = dir_.write(
        "devices-refusing", devices_[0]->line().substr(0, devices_[0]->line().rfind(' ')) + " " +
                                badToken + "\n" + devices_[1]->line() + "\n");
    const auto refused =
        merged(refusing, {"events", "2024-01-01T00:00:00Z", "2024-01-01T00:10:00Z", "--json"});
    EXPECT_EQ(refused.status.code, 10) << refused.err;
    const json end = json::parse(lines(refused.out).back());
    EXPECT_EQ(end["devices"][0]["outcome"], "failed");
    EXPECT_NE(end["devices"][0].value("error", "").find("401"), std::string::npos) << end;
    EXPECT_EQ(end["devices"][1]["outcome"], "completed");

    devices_[2]->gateway().sendSignal(SIGSTOP);
    rstest::ProcessRunner search(
        bin("recsearch"), {"--devices", file, "--device-timeout", "2s", "metadata",
                           "2024-01-01T00:00:00Z", "2024-01-01T00:20:00Z", "", "--walk", "--json"});
    search.start();
    ASSERT_TRUE(search.waitForStdout("\"device\":\"dying\"", 30s)) << search.stderrText();
    dying.gateway().sendSignal(SIGKILL);
    const auto status = search.waitForExit(180s);
    devices_[2]->gateway().sendSignal(SIGCONT);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 10) << search.stderrText();
    const json last = json::parse(lines(search.stdoutText()).back());
    std::map<std::string, std::string> outcomes;
    for (const auto& d : last["devices"]) outcomes[d["device"]] = d["outcome"];
    EXPECT_EQ(outcomes, (std::map<std::string, std::string>{{"north", "completed"},
                                                            {"east", "completed"},
                                                            {"south", "dropped"},
                                                            {"refused", "failed"},
                                                            {"dying", "failed"}}))
        << last;
    for (const char* name : {"south", "refused", "dying"}) {
        EXPECT_NE(search.stdoutText().find(std::string("{\"device\":\"") + name + "\",\"kind\":"),
                  std::string::npos)
            << name << " has no line of its own";
    }
}

// A gateway with a devices file is a hub: a search that names devices streams what recsearch
// --devices prints, under the hub's own token, and its page lists the devices and shows their
// results in one list; a search naming a device it does not have is refused.
TEST_F(Devices, HubStreamsTheMergeUnderItsOwnTokenAndItsPageShowsIt)
{
    const std::string file = devicesFile();
    const std::string tokens = dir_.write("hub-tokens", "hub-token\n");
    const int port = freePort();
    rstest::ProcessRunner hub(bin("recording_search_web"),
                              {"--listen", "127.0.0.1:" + std::to_string(port), "--token-file",
                               tokens, "--devices", file});
    hub.start();
    ASSERT_TRUE(hub.waitForNotify("READY=1"));
    const auto post = [&](const std::string& body) {
        return rstest::runToEnd("curl",
                                {"-sN", "-H", "Authorization: Bearer hub-token", "-H",
                                 "Content-Type: application/json", "--data-binary", body,
                                 "http://127.0.0.1:" + std::to_string(port) + "/api/v1/metadata"},
                                {}, 60s);
    };
    const auto viaHub = post(R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:05:00Z",)"
                             R"("class":["vehicle"],"spans":"2s","devices":["east","south"]})");
    const auto direct =
        merged(file, {"--device", "east", "--device", "south", "metadata", "2024-01-01T00:00:00Z",
                      "2024-01-01T00:05:00Z", "--class", "vehicle", "--spans", "--json"});
    ASSERT_FALSE(viaHub.out.empty());
    EXPECT_EQ(json::parse(lines(viaHub.out).front())["kind"], "search");
    std::string results;  // without the first line and the progress lines
    for (const auto& line : lines(viaHub.out)) {
        const std::string kind = json::parse(line).value("kind", "");
        if (kind != "search" && kind != "progress") results += line + "\n";
    }
    EXPECT_EQ(resultLines(results), resultLines(direct.out));
    EXPECT_GT(resultLines(results).size(), 1u);
    // The hub's page: the devices to tick, and their results in one list.
    auto env = std::map<std::string, std::string>{
        {"RS_HUB_URL", "http://127.0.0.1:" + std::to_string(port)},
        {"RS_HUB_TOKEN", "hub-token"},
        {"RS_HUB_DEVICES", "north,east,south"}};
    const auto page = rstest::runToEnd(
        "/usr/bin/python3", {std::string(RS_SOURCE_DIR) + "/tests/browser/hub_test.py"}, env, 240s);
    EXPECT_TRUE(page.status.exited && page.status.code == 0) << page.err;

    const auto refused = post(R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:05:00Z",)"
                              R"("class":["vehicle"],"devices":["west"]})");
    EXPECT_EQ(json::parse(refused.out).value("field", ""), "devices") << refused.out;
}

// A device that answers from its index runs far ahead of one that walks: the merge stops
// reading it, and its gateway, whose buffer is small here, waits for room instead of ending
// the search.
TEST_F(Devices, ADeviceFarAheadWaitsForTheMerge)
{
    Device ahead("ahead", 24, true, {"--max-buffered", "4096"}, "30m");
    const std::string file =
        dir_.write("devices-ahead", ahead.line() + "\n" + devices_[2]->line() + "\n");
    const std::vector<std::string> search = {
        "metadata", "2024-01-01T00:00:00Z", "2024-01-01T00:30:00Z", "--class", "person", "--json"};
    const auto together = merged(file, search);
    ASSERT_EQ(together.status.code, 0) << together.err << lines(together.out).back();
    const json last = json::parse(lines(together.out).back());
    EXPECT_EQ(last["devices"][0]["results"], resultLines(ahead.alone(search).out).size()) << last;
    EXPECT_GT(last["devices"][0]["results"].get<int>(), 2000) << "too few to run ahead";
}

// Ctrl-C ends every device's search, on each device's service.
TEST_F(Devices, InterruptEndsTheSearchOnEveryDevice)
{
    rstest::ProcessRunner search(bin("recsearch"),
                                 {"--devices", devicesFile(), "metadata", "2024-01-01T00:00:00Z",
                                  "2024-01-01T01:00:00Z", "", "--walk", "--json"});
    search.start();
    std::map<std::string, uint32_t> jobs;
    ASSERT_TRUE(rstest::pollUntil(
        [&] {
            for (const auto& line : lines(search.stdoutText())) {
                const json j = json::parse(line, nullptr, false);
                if (j.is_object() && j.contains("job")) jobs[j["device"]] = j["job"];
            }
            return jobs.size() == devices_.size();
        },
        30s));
    search.sendSignal(SIGINT);
    const auto status = search.waitForExit(10s);
    ASSERT_TRUE(status.has_value());
    EXPECT_EQ(status->code, 130);
    for (const auto& d : devices_) {
        EXPECT_TRUE(rstest::pollUntil(
            [&] {
                const auto state = d->alone({"state", std::to_string(jobs[d->name()]), "--json"});
                return state.out.find("\"searching\"") == std::string::npos;
            },
            5s))
            << d->name() << "'s search still runs";
    }
}

}  // namespace
