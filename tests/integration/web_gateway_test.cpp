// recording_search_web as a remote program uses it: the real binaries on a bus of the test's
// own, curl as the HTTP client.
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"
#include "support/ServiceStack.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using reliability::bin;
using reliability::freePort;
using reliability::lines;

const char* const kToken = "test-token-1";
const std::string kWholeHour = R"("start":"2024-01-01T00:00:00Z","end":"2024-01-01T01:00:00Z")";

rstest::ServiceStack::Options sampleStack()
{
    static const rstest::GeneratedRecording sample(
        RS_BIN_DIR, {"--seed", "7", "--start", "2024-01-01T00:00:00Z", "--duration", "1h",
                     "--video-tracks", "2", "--recording-on", "900", "--recording-off", "60",
                     "--track-on", "300", "--track-off", "30"});
    return {RS_BIN_DIR, sample.path(), {}, true};
}

// What arrives on `s` until `marker` has (empty: until the end), within 60 s.
std::string readUntil(int s, const std::string& marker)
{
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    char buffer[4096];
    while (marker.empty() || text.find(marker) == std::string::npos) {
        pollfd readable{s, POLLIN, 0};
        if (std::chrono::steady_clock::now() > deadline || poll(&readable, 1, 1000) < 0) break;
        if (readable.revents == 0) continue;
        const ssize_t n = read(s, buffer, marker.empty() ? sizeof buffer : 1);
        if (n <= 0) break;
        text.append(buffer, size_t(n));
    }
    EXPECT_TRUE(marker.empty() || text.find(marker) != std::string::npos) << text;
    return text;
}

// The stack, and the gateway in front of it.
class Gateway {
public:
    explicit Gateway(std::vector<std::string> extraArgs = {})
        : stack_(sampleStack()), port_(freePort())
    {
        const std::string tokens =
            dir_.write("tokens", std::string("# a comment\n") + kToken + "\n");
        std::vector<std::string> args = {"--listen", "127.0.0.1:" + std::to_string(port_),
                                         "--token-file", tokens};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        auto env = stack_.clientEnv();
        env["KAVRO_LOG_FILE"] = dir_.file("web.log");
        web_ = std::make_unique<rstest::ProcessRunner>(bin("recording_search_web"), args, env);
        web_->start();
        if (!web_->waitForNotify("READY=1")) throw std::runtime_error("the gateway is not ready");
    }

    std::string url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

    // curl's arguments for a request with the token and a JSON body.
    std::vector<std::string> curlArgs(const std::string& path, const std::string& body,
                                      std::vector<std::string> extra = {}) const
    {
        std::vector<std::string> args = {"-sN", "-H",
                                         std::string("Authorization: Bearer ") + kToken, "-H",
                                         "Content-Type: application/json"};
        if (!body.empty()) args.insert(args.end(), {"--data-binary", body});
        args.insert(args.end(), extra.begin(), extra.end());
        args.push_back(url(path));
        return args;
    }

    rstest::RunResult post(const std::string& path, const std::string& body,
                           std::vector<std::string> extra = {}) const
    {
        return rstest::runToEnd("curl", curlArgs(path, body, std::move(extra)), {}, 60s);
    }

    // A raw connection with a small receive buffer, its request sent; nothing read yet.
    int request(const std::string& path, const std::string& body) const
    {
        const int s = socket(AF_INET, SOCK_STREAM, 0);
        const int small = 4096;
        setsockopt(s, SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(uint16_t(port_));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string text =
            "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + "Authorization: Bearer " +
            kToken + "\r\nConnection: close\r\nContent-Type: application/json\r\nContent-Length: " +
            std::to_string(body.size()) + "\r\n\r\n" + body;
        EXPECT_EQ(write(s, text.data(), text.size()), ssize_t(text.size()));
        return s;
    }

    rstest::RunResult recsearch(const std::vector<std::string>& args) const
    {
        return rstest::runToEnd(bin("recsearch"), args, stack_.clientEnv(), 60s);
    }

    rstest::ServiceStack& stack() { return stack_; }
    pid_t pid() const { return web_->pid(); }
    bool alive() const { return kill(web_->pid(), 0) == 0 && !web_->exitedWithin(0ms); }
    const rstest::TempDir& dir() const { return dir_; }

private:
    rstest::TempDir dir_{"rs-web"};
    rstest::ServiceStack stack_;
    int port_;
    std::unique_ptr<rstest::ProcessRunner> web_;

public:
    int port() const { return port_; }
};

// A raw exchange on a connection of its own: `request` is sent as it is, then what comes back
// until the gateway closes (or 30 s pass).
std::string exchange(int port, const std::string& request, bool halfClose = false)
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return "";
    EXPECT_EQ(write(s, request.data(), request.size()), ssize_t(request.size()));
    if (halfClose) shutdown(s, SHUT_WR);
    std::string text;
    char buffer[4096];
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd readable{s, POLLIN, 0};
        if (poll(&readable, 1, 200) <= 0) continue;
        const ssize_t n = read(s, buffer, sizeof buffer);
        if (n <= 0) break;
        text.append(buffer, size_t(n));
    }
    close(s);
    return text;
}

long residentKiB(pid_t pid)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// The lines a search streams, without its id line and progress lines, with job ids made equal.
std::vector<std::string> resultLines(const std::string& text)
{
    std::vector<std::string> out;
    for (const auto& line : lines(text)) {
        const json j = json::parse(line);
        if (j.value("kind", "") == "search" || j.value("kind", "") == "progress") continue;
        out.push_back(std::regex_replace(line, std::regex(R"("job":\d+)"), R"("job":0)"));
    }
    return out;
}

TEST(GatewayAnswers, AreLineForLineWhatRecsearchPrintsForTheSameQuery)
{
    Gateway gateway;
    struct Case {
        std::string path, body;
        std::vector<std::string> recsearch;
    };
    const std::vector<Case> cases = {
        {"/api/v1/events",
         "{" + kWholeHour + R"(,"startState":true,"maxResults":40})",
         {"events", "2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z", "-s", "-n", "40"}},
        {"/api/v1/metadata",
         R"({"start":1704067200,"end":"2024-01-01T00:05:00Z","class":["person","vehicle"],)"
         R"("region":[0,0,0.5,1],"spans":"3s"})",
         {"metadata", "1704067200", "2024-01-01T00:05:00Z", "--class", "person,vehicle", "--region",
          "0,0,0.5,1", "--spans=3s"}},
        {"/api/v1/summary",
         "{" + kWholeHour + R"(,"bucket":"10m"})",
         {"summary", "2024-01-01T00:00:00Z", "2024-01-01T01:00:00Z", "--bucket", "10m"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path + " " + c.body);
        const auto web = gateway.post(c.path, c.body);
        auto args = c.recsearch;
        args.push_back("--json");
        const auto cli = gateway.recsearch(args);
        ASSERT_EQ(cli.status.code, 0) << cli.err;
        EXPECT_EQ(json::parse(lines(web.out).at(0)).at("kind"), "search") << web.out;
        const auto expected = resultLines(cli.out);
        EXPECT_GT(expected.size(), 2u);
        EXPECT_EQ(resultLines(web.out), expected);
    }

    const std::string svg = gateway.dir().file("range.svg");
    ASSERT_EQ(gateway
                  .recsearch({"events", "2024-01-01T00:00:00Z", "2024-01-01T00:30:00Z", "-s",
                              "--svg", svg, "-q"})
                  .status.code,
              0);
    std::ifstream file(svg);
    const std::string drawn((std::istreambuf_iterator<char>(file)), {});
    const auto picture = gateway.post(
        "/api/v1/picture", R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:30:00Z"})");
    EXPECT_EQ(picture.out, drawn);

    const auto xpath = gateway.post("/api/v1/xpath", R"({"class":"person","motion":true})");
    const auto shown =
        gateway.recsearch({"metadata", "--class", "person", "--motion", "--show-xpath"});
    EXPECT_EQ(json::parse(xpath.out).at("xpath").get<std::string>() + "\n", shown.out);
}

// Progress never passes an appearance still open, either way: a merge of many devices trusts
// that nothing is still to come before a progress line's time.
TEST(GatewayAnswers, ProgressNeverOvertakesAnAppearanceStillOpen)
{
    Gateway gateway;
    for (const bool backward : {false, true}) {
        const std::string from = "2024-01-01T00:00:00Z", to = "2024-01-01T00:20:00Z";
        const auto web =
            gateway.post("/api/v1/metadata", R"({"start":")" + (backward ? to : from) +
                                                 R"(","end":")" + (backward ? from : to) +
                                                 R"(","class":["person"],"spans":"2s"})");
        std::string through;  // the latest progress line's time, as ISO text
        int progress = 0, spans = 0;
        for (const auto& line : lines(web.out)) {
            const json j = json::parse(line);
            const std::string kind = j.value("kind", "");
            if (kind == "progress") {
                through = j["through"];
                ++progress;
            } else if (kind == "span" && !through.empty()) {
                ++spans;
                const std::string start = j["start"];
                EXPECT_TRUE(backward ? start <= through : start >= through)
                    << (backward ? "backward" : "forward") << ": a span from " << start
                    << " after progress through " << through;
            }
        }
        EXPECT_GT(progress, 3) << web.out;
        EXPECT_GT(spans, 3);
    }
}

// Each refusal once: its status, and for a bad value the message recsearch gives for it.
TEST(GatewayRefusals, AnswerEachBadRequestWithItsStatusAndMessage)
{
    Gateway gateway;
    const std::string events = "/api/v1/events";
    const std::string good = "{" + kWholeHour + "}";
    struct Case {
        std::string what;
        std::vector<std::string> args;
        std::string status, message;
    };
    const std::string big(70 * 1024, ' ');
    std::vector<Case> cases = {
        {"no token",
         {"-sN", "-H", "Content-Type: application/json", "-d", good, gateway.url(events)},
         "401",
         "a valid bearer token is required"},
        {"another origin",
         gateway.curlArgs(events, good, {"-H", "Origin: http://elsewhere.example"}), "403",
         "requests from another origin are refused"},
        {"body too large", gateway.curlArgs(events, big), "413", "the body is larger than 64 KiB"},
        {"not JSON",
         {"-sN", "-H", std::string("Authorization: Bearer ") + kToken, "-d", good,
          gateway.url(events)},
         "415",
         "the body must be JSON (Content-Type: application/json)"},
        {"method", gateway.curlArgs(events, "", {"-X", "GET"}), "405",
         "/api/v1/events answers POST only"},
        {"bad time", gateway.curlArgs(events, R"({"start":"2024-13-01T00:00:00Z","end":1})"), "400",
         "start: 2024-13-01T00:00:00Z: not an ISO 8601 time of the form "
         "2026-11-23T10:00:00[.250]Z"},
        {"bad likelihood",
         gateway.curlArgs("/api/v1/metadata", "{" + kWholeHour + R"(,"minLikelihood":1.5})"), "400",
         "minLikelihood: 1.5 is not a likelihood from 0 to 1 (for example 0.8)"},
        {"unknown search", gateway.curlArgs("/api/v1/searches/4294967296", "", {"-X", "DELETE"}),
         "404", "no search with job id 4294967296"},
        {"search nobody has", gateway.curlArgs("/api/v1/searches/77", "", {"-X", "DELETE"}), "404",
         "no search with job id 77"},
    };
    // A token matches whole: its beginning, more after it, or its last character changed are
    // each refused, so that it cannot be found a character at a time.
    for (const std::string token : {"test-token-", "test-token-12", "test-token-2"}) {
        cases.push_back({"token " + token,
                         {"-sN", "-H", "Authorization: Bearer " + token, "-H",
                          "Content-Type: application/json", "-d", good, gateway.url(events)},
                         "401",
                         "a valid bearer token is required"});
    }
    for (const auto& c : cases) {
        auto args = c.args;
        args.insert(args.begin(), {"-w", "%{http_code}"});
        const auto r = rstest::runToEnd("curl", args, {}, 30s);
        const auto out = lines(r.out);
        ASSERT_EQ(out.size(), 2u) << c.what << ": " << r.out;
        EXPECT_EQ(out[1], c.status) << c.what;
        EXPECT_EQ(json::parse(out[0]).at("error"), c.message) << c.what;
    }

    // The limit of two: a third search is refused while two stream.
    const std::string wholeHour = "{" + kWholeHour + R"(,"xpath":""})";
    std::vector<std::unique_ptr<rstest::ProcessRunner>> running;
    for (int i = 0; i < 2; ++i) {
        running.push_back(std::make_unique<rstest::ProcessRunner>(
            "curl", gateway.curlArgs("/api/v1/metadata", wholeHour)));
        running.back()->start();
        ASSERT_TRUE(running.back()->waitForStdout("\"kind\":\"search\"")) << "search " << i;
    }
    const auto third = gateway.post("/api/v1/metadata", wholeHour, {"-i"});
    EXPECT_NE(third.out.find("HTTP/1.1 429"), std::string::npos) << third.out;
    EXPECT_NE(third.out.find("Retry-After: 5"), std::string::npos) << third.out;
    running.clear();

    // The service gone: the status says so.
    EXPECT_EQ(gateway.stack().stop(), "");
    const auto status = rstest::runToEnd(
        "curl", gateway.curlArgs("/api/v1/status", "", {"-w", "%{http_code}"}), {}, 30s);
    EXPECT_EQ(lines(status.out).back(), "502") << status.out;
}

// What an attacker sends, each answered from what it is: a clear refusal, never a crash, a
// 500, a hang or memory that follows the request. The gateway serves afterwards.
TEST(GatewayHostile, RefusesWhatAnAttackerSendsAndKeepsServing)
{
    Gateway gateway({"--max-buffered", "65536"});
    const auto request = [](const std::string& path, const std::string& body,
                            const std::string& headers = "") {
        return "POST " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " + kToken +
               "\r\nContent-Type: application/json\r\nConnection: close\r\n" + headers +
               (headers.find("Content-Length") == std::string::npos
                    ? "Content-Length: " + std::to_string(body.size()) + "\r\n"
                    : "") +
               "\r\n" + body;
    };
    const auto nested = [](const std::string& field, int depth) {
        return "{" + kWholeHour + ",\"" + field + "\":" + std::string(depth, '[') +
               std::string(depth, ']') + "}";
    };
    const std::string nines(400, '9');
    struct Case {
        std::string what, request, status, message;
    };
    const std::vector<Case> cases = {
        {"a long number",
         request("/api/v1/xpath", R"({"minLikelihood":"0.)" + std::string(3000, '1') + "\"}"),
         "400", "minLikelihood: a value of 3002 characters is too long (at most 64)"},
        {"deep class", request("/api/v1/xpath", nested("class", 6000)), "400",
         "the body nests deeper than 8 levels"},
        {"deep maxResults", request("/api/v1/events", nested("maxResults", 5000)), "400",
         "the body nests deeper than 8 levels"},
        {"a million buckets",
         request("/api/v1/summary", "{" + kWholeHour + R"(,"bucket":"0.001"})"), "400",
         "bucket: a bucket of 1 ms cuts this range into 3600000 buckets; at most 10000 are "
         "made (choose a bucket of 360 ms or more)"},
        {"bucket of nines",
         request("/api/v1/summary", "{" + kWholeHour + R"(,"bucket":")" + nines + "\"}"), "400",
         "bucket: a value of 400 characters is too long (at most 64)"},
        {"spans of nines",
         request("/api/v1/metadata",
                 "{" + kWholeHour + R"(,"class":"person","spans":")" + nines + "\"}"),
         "400", "spans: a value of 400 characters is too long (at most 64)"},
        {"a NUL in the xpath",
         request("/api/v1/metadata", "{" + kWholeHour + R"(,"xpath":"//Object\u0000["})"), "400",
         "xpath: must not contain a NUL character"},
        {"a long bad time, quoted short",
         request("/api/v1/events", R"({"start":")" + std::string(60, 'x') + R"(","end":1})"), "400",
         "start: " + std::string(40, 'x') +
             "... (60 characters): expected SECONDS[.MICROSECONDS] "
             "or an ISO 8601 UTC time such as 2026-11-23T10:00:00Z"},
        {"a gigabyte without a token",
         "POST /api/v1/events HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: application/json\r\n"
         "Expect: 100-continue\r\nContent-Length: 1000000000\r\n\r\n",
         "401", "a valid bearer token is required"},
        {"a gigabyte with a token",
         request("/api/v1/events", "", "Expect: 100-continue\r\nContent-Length: 1000000000\r\n"),
         "413", "the body is larger than 64 KiB"},
        {"two lengths",
         request("/api/v1/xpath", "{}", "Content-Length: 2\r\nContent-Length: 20\r\n"), "400",
         "the request has more than one Content-Length"},
        {"length and chunks, a request smuggled after",
         request("/api/v1/xpath", "{}GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n",
                 "Content-Length: 2\r\nTransfer-Encoding: chunked\r\n"),
         "400", "a request body must come with one Content-Length and no Transfer-Encoding"},
    };
    [[maybe_unused]] const long before = residentKiB(gateway.pid());
    for (const auto& c : cases) {
        const std::string answer = exchange(gateway.port(), c.request);
        ASSERT_EQ(answer.substr(0, 12), "HTTP/1.1 " + c.status) << c.what << ": " << answer;
        EXPECT_EQ(answer.find("100 Continue"), std::string::npos) << c.what;
        EXPECT_EQ(answer.find("HTTP/1.1", 1), std::string::npos) << c.what << ": a second answer";
        EXPECT_NE(answer.find("X-Content-Type-Options: nosniff"), std::string::npos) << c.what;
        const auto body = answer.substr(answer.find("\r\n\r\n") + 4);
        EXPECT_EQ(json::parse(body).at("error"), c.message) << c.what;
    }
    // The most buckets allowed leave at a reader's pace, held a few at a time (far more than
    // the buffer holds).
    const auto most = gateway.post("/api/v1/summary", "{" + kWholeHour + R"(,"bucket":"0.36"})");
    const auto mostLines = lines(most.out);
    EXPECT_EQ(std::count_if(mostLines.begin(), mostLines.end(),
                            [](const std::string& line) {
                                return json::parse(line).value("kind", "") == "bucket";
                            }),
              10000);
    EXPECT_EQ(json::parse(lines(most.out).back()).at("kind"), "completed");
#ifndef RS_SANITIZED  // a sanitizer keeps freed memory aside on purpose
    EXPECT_LT(residentKiB(gateway.pid()), before + 8 * 1024) << "KiB resident";
#endif
    ASSERT_TRUE(gateway.alive());
    const auto status = gateway.post("/api/v1/status", "", {"-X", "GET"});
    EXPECT_EQ(json::parse(status.out).at("service"), "running");
}

// Clients that trickle their requests, more of them than the gateway allows at once, cost
// nobody else a place: a new connection closes the oldest that still waits, and none waits past
// the request deadline.
TEST(GatewayHostile, TricklingClientsLockNobodyOut)
{
    Gateway gateway({"--max-connections", "8", "--max-per-client", "4", "--request-timeout", "3"});
    std::vector<int> trickling;
    for (int i = 0; i < 16; ++i) {
        const int s = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(uint16_t(gateway.port()));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(connect(s, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(write(s, "G", 1), 1);
        trickling.push_back(s);
    }
    const auto served = rstest::runToEnd(
        "curl", {"-s", "-m", "2", "-w", "%{http_code}", "-o", "/dev/null", gateway.url("/")}, {},
        10s);
    EXPECT_EQ(served.out, "200");
    // A byte a while from each: trickling is not silence, but the deadline still comes.
    const auto closedByGateway = [](int s) {
        char c = 0;
        return recv(s, &c, 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET;
    };
    std::size_t open = trickling.size();
    const auto until = std::chrono::steady_clock::now() + 10s;
    while (open > 0 && std::chrono::steady_clock::now() < until) {
        open = 0;
        for (int s : trickling) {
            if (closedByGateway(s)) continue;
            ++open;
            (void)send(s, "E", 1, MSG_NOSIGNAL);
        }
        std::this_thread::sleep_for(500ms);
    }
    EXPECT_EQ(open, 0u) << "connections still trickling past the deadline";
    for (int s : trickling) close(s);
}

// A search ends with its stream: a client that goes away ends it within a second, a reader too
// slow for the bound is cut off. (DELETE, as the page's stop button sends it, is the page's test.)
TEST(GatewayStreams, EndWithTheirReader)
{
    Gateway gateway({"--max-buffered", "4096"});
    const std::string wholeHour = "{" + kWholeHour + R"(,"xpath":""})";

    // Both slots taken and their clients gone: the service ends both searches within a second
    // or two, though each had most of its hour still to walk.
    rstest::SearchClient service(gateway.stack().address());
    for (int i = 0; i < 2; ++i) {
        rstest::ProcessRunner gone("curl", gateway.curlArgs("/api/v1/metadata", wholeHour));
        gone.start();
        ASSERT_TRUE(gone.waitForStdout("\"kind\":\"search\""));
        const auto id = uint32_t(json::parse(lines(gone.stdoutText()).at(0)).at("id").get<int>());
        gone.sendSignal(SIGKILL);
        ASSERT_TRUE(gone.waitForExit(5s));
        EXPECT_TRUE(
            rstest::pollUntil([&] { return service.getSearchState(id).value.state == 0; }, 2s))
            << "search " << id << " outlived its client";
    }

    // Every document matches: a result every step, but progress lines a few a second at most.
    const auto begun = std::chrono::steady_clock::now();
    const auto every = gateway.post(
        "/api/v1/metadata",
        R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:05:00Z","xpath":"/"})");
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    std::size_t results = 0, progress = 0;
    for (const auto& line : lines(every.out)) {
        const std::string kind = json::parse(line).value("kind", "");
        results += kind == "metadata";
        progress += kind == "progress";
    }
    EXPECT_GT(results, 1000u);
    EXPECT_LE(double(progress), 4 * seconds + 1)
        << progress << " progress lines in " << seconds << " s";

    // A client that only half-closes after its request (as `nc -N` does) still reads it all.
    const std::string twoMinutes =
        R"({"start":"2024-01-01T00:00:00Z","end":"2024-01-01T00:02:00Z","xpath":"//Nothing"})";
    const std::string halfClosed = exchange(
        gateway.port(),
        "POST /api/v1/metadata HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
            std::string(kToken) + "\r\nContent-Type: application/json\r\nContent-Length: " +
            std::to_string(twoMinutes.size()) + "\r\nConnection: close\r\n\r\n" + twoMinutes,
        true);
    EXPECT_NE(halfClosed.find("\"kind\":\"completed\""), std::string::npos)
        << halfClosed.substr(0, 400);

    // A reader that reads nothing, with a small receive buffer: only the bound ends its search.
    const int reader = gateway.request("/api/v1/metadata", wholeHour);
    const std::string head = readUntil(reader, "}\n");  // the line naming the search
    const auto slowId = uint32_t(
        std::stoul(std::regex_replace(head, std::regex(R"([\s\S]*"id":(\d+)[\s\S]*)"), "$1")));
    ASSERT_TRUE(
        rstest::pollUntil([&] { return service.getSearchState(slowId).value.state == 0; }, 30s))
        << "search " << slowId << " still runs";
    const std::string rest = readUntil(reader, "");
    close(reader);
    // The last line of the body, between the chunks' framing.
    const auto at = rest.rfind("{\"error\"");
    ASSERT_NE(at, std::string::npos) << rest.substr(rest.size() > 300 ? rest.size() - 300 : 0);
    const json cut = json::parse(rest.substr(at, rest.find('\n', at) - at));
    EXPECT_NE(cut.value("error", "").find("the client read too slowly"), std::string::npos) << cut;
}

// The search page in headless Chromium (Debian's chromium, chromium-driver, python3-selenium)
// against this gateway: tests/browser/page_test.py.
TEST(GatewayPage, PassesItsBrowserTests)
{
    Gateway gateway;
    auto env = gateway.stack().clientEnv();
    env.insert({{"RS_PAGE_URL", gateway.url("")},
                {"RS_PAGE_TOKEN", kToken},
                {"RS_BIN_DIR", RS_BIN_DIR},
                {"RS_SERVICE_PID", std::to_string(gateway.stack().service().pid())},
                {"RS_SCREENSHOT_DIR", std::string(RS_BIN_DIR) + "/../screenshots"}});
    const auto run =
        rstest::runToEnd("/usr/bin/python3",
                         {std::string(RS_SOURCE_DIR) + "/tests/browser/page_test.py"}, env, 480s);
    EXPECT_TRUE(run.status.exited && run.status.code == 0) << run.err;
}

}  // namespace

namespace {

// What the README promises of the API, --help says too: every route and every body field.
TEST(GatewayHelp, ListsEveryRouteAndBodyFieldTheReadmeLists)
{
    std::ifstream file(std::string(RS_SOURCE_DIR) + "/README.md");
    const std::string readme((std::istreambuf_iterator<char>(file)), {});
    const auto help = rstest::runToEnd(bin("recording_search_web"), {"--help"}, {}, 10s);
    ASSERT_EQ(help.status.code, 0);
    const std::regex row(R"(\| `(GET|POST|DELETE) (/api/v1/[a-z/]+)(ID)?` \| ([^|]*)\|)");
    int routes = 0;
    for (std::sregex_iterator it(readme.begin(), readme.end(), row), end; it != end;
         ++it, ++routes) {
        const std::string route = (*it)[1].str() + " ";
        const std::string path = (*it)[2].str();
        EXPECT_TRUE(std::regex_search(help.out, std::regex(route + " *" + path))) << route << path;
        const std::string fields = (*it)[4].str();
        const std::regex field("`([a-zA-Z]+)`");
        for (std::sregex_iterator f(fields.begin(), fields.end(), field), none; f != none; ++f) {
            EXPECT_NE(help.out.find((*f)[1].str()), std::string::npos) << path << " " << (*f)[1];
        }
    }
    EXPECT_EQ(routes, 9);
}

}  // namespace
