// recsearch --devices against several real stacks, each a bus, recording_store,
// recording_search and recording_search_web with a recording of its own. The oracle for the
// merged stream is each device searched alone on its own bus, tagged and merged by time (ties
// in the devices file's order).

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <thread>
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
                               tokens, "--devices", file, "--device-timeout", "3"});
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
        {"RS_HUB_DEVICES", "north,east,south"},
        {"RS_HUB_STOP_PID", std::to_string(devices_[2]->gateway().pid())},
        {"RS_SCREENSHOT_DIR", std::string(RS_BIN_DIR) + "/../screenshots"}};
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

// A device's gateway gone wrong (tests/support/fake_device.py): one server, and the first part
// of a device's URL says how it misbehaves.
class FakeDevice {
public:
    FakeDevice()
        : port_(freePort()),
          server_("/usr/bin/python3", {std::string(RS_SOURCE_DIR) + "/tests/support/fake_device.py",
                                       std::to_string(port_)})
    {
        server_.start();
        if (!server_.waitForStdout("ready", 20s)) throw std::runtime_error("no fake device");
        token_ = dir_.write("token", "fake-token\n");
    }
    std::string line(const std::string& mode) const
    {
        return mode + " http://127.0.0.1:" + std::to_string(port_) + "/" + mode + " " + token_;
    }

private:
    rstest::TempDir dir_{"rs-fake-device"};
    int port_;
    rstest::ProcessRunner server_;
    std::string token_;
};

const std::vector<std::string> kFailing = {
    "sec-as-text", "kind-number", "through-number", "error-number", "error-object",
    "year-1970",   "sec-2-62",    "sec-1e300",      "disorder",     "wrong-kind"};
const std::vector<std::string> kStalling = {"chatter", "same-progress", "drip"};
const std::vector<std::string> kCompleting = {"claims-north", "bom", "controls"};

// What every merged stream must be, whatever its devices sent: JSON objects whose only
// "device" is ours and comes first; the real devices' results complete and their own; each bad
// device with a line of its own and the outcome it earned.
void expectTheMergeHeld(const std::string& out, const std::vector<const Device*>& real,
                        const std::vector<std::string>& search)
{
    std::map<std::string, std::vector<json>> byDevice;
    int64_t last = 0;
    json end = json::object();
    for (const auto& line : lines(out)) {
        const json j = json::parse(line, nullptr, false);
        ASSERT_TRUE(j.is_object()) << line;
        std::size_t tags = 0;
        for (std::size_t at = 0; (at = line.find("\"device\":", at)) != std::string::npos; ++at)
            ++tags;
        EXPECT_EQ(tags, j.contains("devices") ? j["devices"].size() : 1) << line;
        const std::string kind = j.value("kind", "");
        if (kind == "completed" || kind == "limit") end = j;
        if (kind != "recording" && kind != "track") continue;
        EXPECT_EQ(line.rfind("{\"device\":", 0), 0u) << line;
        EXPECT_GE(timeOf(j), last) << "out of time order: " << line;
        last = timeOf(j);
        byDevice[j["device"]].push_back(j);
    }
    for (const Device* d : real) {
        std::vector<json> own;
        for (auto& j : resultLines(d->alone(search).out, d->name())) own.push_back(j);
        std::vector<json> merged;
        for (json j : byDevice[d->name()]) {
            j.erase("job");
            merged.push_back(j);
        }
        EXPECT_EQ(merged, own) << d->name();
    }
    std::map<std::string, std::string> outcomes;
    for (const auto& d : end.value("devices", json::array())) outcomes[d["device"]] = d["outcome"];
    for (const auto& mode : kFailing) EXPECT_EQ(outcomes[mode], "failed") << mode << ": " << end;
    for (const auto& mode : kStalling) EXPECT_EQ(outcomes[mode], "dropped") << mode << ": " << end;
    for (const auto& mode : kCompleting) {
        EXPECT_EQ(outcomes[mode], "completed") << mode << ": " << end;
        EXPECT_FALSE(byDevice[mode].empty()) << mode;
    }
    for (const auto& mode : kFailing) {
        EXPECT_NE(out.find("{\"device\":\"" + mode + "\",\"kind\":\"error\""), std::string::npos)
            << mode << " has no line of its own";
    }
}

// Devices that send fields of other types, times out of range or order, lines of other
// searches, another device's name, a byte-order mark, terminal controls, or chatter without
// progress: each gets its line, the real devices' results are whole, through recsearch and
// through a hub, which goes on serving.
TEST_F(Devices, MisbehavingDevicesCannotHarmTheMergeNorTheHub)
{
    FakeDevice fake;
    std::vector<std::string> more;
    for (const auto* modes : {&kFailing, &kStalling, &kCompleting}) {
        for (const auto& mode : *modes) more.push_back(fake.line(mode));
    }
    const std::string file = dir_.write(
        "devices-bad", devices_[0]->line() + "\n" + devices_[1]->line() + "\n" + [&] {
            std::string text;
            for (const auto& line : more) text += line + "\n";
            return text;
        }());
    const std::vector<std::string> search = {"events", "2024-01-01T00:00:00Z",
                                             "2024-01-01T00:05:00Z", "--start-state", "--json"};
    const std::vector<const Device*> real = {devices_[0].get(), devices_[1].get()};
    auto args = search;
    args.insert(args.begin(), {"--device-timeout", "3s"});
    const auto viaRecsearch = merged(file, args);
    EXPECT_EQ(viaRecsearch.status.code, 10) << viaRecsearch.err;
    expectTheMergeHeld(viaRecsearch.out, real, search);

    // A person's terminal gets no control character from a device.
    const std::string controls = dir_.write("devices-controls", fake.line("controls") + "\n");
    const auto printed = merged(
        controls, {"events", "2024-01-01T00:00:00Z", "2024-01-01T00:05:00Z", "--no-progress"});
    EXPECT_EQ(printed.status.code, 0) << printed.err;
    for (const char* control : {"\x1b", "\x07", "\xc2\x9b"}) {
        EXPECT_EQ((printed.out + printed.err).find(control), std::string::npos)
            << printed.out << printed.err;
    }

    const std::string tokens = dir_.write("hub-tokens", "hub-token\n");
    const int port = freePort();
    rstest::ProcessRunner hub(bin("recording_search_web"),
                              {"--listen", "127.0.0.1:" + std::to_string(port), "--token-file",
                               tokens, "--devices", file, "--device-timeout", "3"});
    hub.start();
    ASSERT_TRUE(hub.waitForNotify("READY=1"));
    const auto viaHub =
        rstest::runToEnd("curl",
                         {"-sN", "-H", "Authorization: Bearer hub-token", "-H",
                          "Content-Type: application/json", "--data-binary",
                          R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:05:00Z",)"
                          R"("startState":true,"devices":"all"})",
                          "http://127.0.0.1:" + std::to_string(port) + "/api/v1/events"},
                         {}, 60s);
    std::string hubLines;
    for (const auto& line : lines(viaHub.out)) {
        const std::string kind = json::parse(line).value("kind", "");
        if (kind != "search" && kind != "progress") hubLines += line + "\n";
    }
    expectTheMergeHeld(hubLines, real, search);
    EXPECT_FALSE(hub.exitedWithin(0ms)) << hub.stderrText();
}

// A hub whose merge waits on a silent device still sees its readers hang up, and frees their
// slots; a slow reader holds the devices back rather than losing its search; a device that
// floods it with long lines costs a bounded amount of memory.
TEST_F(Devices, AHubBoundsWhatItsReadersAndDevicesCost)
{
    FakeDevice fake;
    const std::string file =
        dir_.write("devices-hub", devices_[0]->line() + "\n" + devices_[1]->line() + "\n" +
                                      fake.line("chatter") + "\n" + fake.line("flood") + "\n");
    const std::string tokens = dir_.write("hub-tokens", "hub-token\n");
    const int port = freePort();
    rstest::ProcessRunner hub(
        bin("recording_search_web"),
        {"--listen", "127.0.0.1:" + std::to_string(port), "--token-file", tokens, "--devices", file,
         "--device-timeout", "60", "--max-streams", "2", "--max-buffered", "4096"});
    hub.start();
    ASSERT_TRUE(hub.waitForNotify("READY=1"));
    const auto curl = [&](const std::string& body, std::vector<std::string> more = {},
                          const std::string& search = "events") {
        std::vector<std::string> args = {
            "-sN",
            "-H",
            "Authorization: Bearer hub-token",
            "-H",
            "Content-Type: application/json",
            "--data-binary",
            R"({"start":"2024-01-01T00:00:00Z",)"
            R"("end":"2024-01-01T01:00:00Z",)" +
                body + "}",
            "http://127.0.0.1:" + std::to_string(port) + "/api/v1/" + search};
        args.insert(args.begin(), more.begin(), more.end());
        return args;
    };
    {
        std::vector<std::unique_ptr<rstest::ProcessRunner>> readers;
        for (int i = 0; i < 2; ++i) {
            readers.push_back(std::make_unique<rstest::ProcessRunner>(
                "curl", curl(R"("devices":["north","chatter"])")));
            readers.back()->start();
            ASSERT_TRUE(readers.back()->waitForStdout("\"kind\":\"search\"", 10s));
        }
        for (auto& reader : readers) reader->sendSignal(SIGKILL);
    }
    const auto third = [&] {
        return rstest::runToEnd("curl", curl(R"("devices":["north"])", {"-w", "%{http_code}"}), {},
                                60s);
    };
    EXPECT_TRUE(rstest::pollUntil(
        [&] { return third().out.find("\"completed\"") != std::string::npos; }, 5s))
        << "the slots of readers that hung up are still taken";

    // Read at 20 KB/s through a 4 KiB buffer: every line arrives all the same.
    const auto slow = rstest::runToEnd(
        "curl", curl(R"("startState":true,"devices":["north","east"])", {"--limit-rate", "20k"}),
        {}, 120s);
    std::size_t results = 0;
    for (const auto& line : lines(slow.out)) {
        const std::string kind = json::parse(line).value("kind", "");
        results += kind == "recording" || kind == "track";
    }
    const std::vector<std::string> alone = {"events", "2024-01-01T00:00:00Z",
                                            "2024-01-01T01:00:00Z", "--start-state", "--json"};
    EXPECT_EQ(results, resultLines(devices_[0]->alone(alone).out).size() +
                           resultLines(devices_[1]->alone(alone).out).size())
        << lines(slow.out).back();
    EXPECT_EQ(json::parse(lines(slow.out).back()).value("kind", ""), "completed");

    // Lines of 60 KB as fast as they can be taken, while a walk holds the merge back.
    // Its lines are at the range's end, far beyond a walk of every document that holds the
    // merge back: they wait in the merge, as much as the merge lets them.
    rstest::ProcessRunner flooded("curl",
                                  curl(R"("xpath":"","walk":true,"devices":["north","flood"])",
                                       {"--limit-rate", "50k", "-o", "/dev/null"}, "metadata"));
    flooded.start();
    long most = 0;
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(250ms);
        std::ifstream status("/proc/" + std::to_string(hub.pid()) + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("VmRSS:", 0) == 0) most = std::max(most, std::stol(line.substr(6)));
        }
    }
    flooded.sendSignal(SIGKILL);
    // A sanitizer's quarantine holds freed memory: the bound is the plain build's.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(most, 40 * 1024) << "kB resident while a device floods the hub";
#endif
}

}  // namespace
