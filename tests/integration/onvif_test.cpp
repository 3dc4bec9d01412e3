// The standard search interface as a video management program uses it: SOAP requests built by
// hand against the real gateway on a stack of the test's own, answers read with libxml2 and
// compared with what recsearch finds in the same range.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "onvif/OnvifUsers.h"
#include "onvif/XsdValues.h"
#include "support/GeneratedRecording.h"
#include "support/ProcessRunner.h"
#include "support/ServiceStack.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using reliability::bin;
using reliability::lines;

const char* const kUser = "vms";
const char* const kPassword = "s3cret pass";
const std::string kHourStart = "2024-01-01T00:00:00Z";
const std::string kHourEnd = "2024-01-01T01:00:00Z";
// Matches no document: a metadata search that walks the whole hour (about 13 s) finding nothing.
const std::string kNothing = "//Frame[@ObjectCount &gt; 1000]";

struct Answer {
    int status = 0;
    std::string body;
};

// The values that an XPath over the answer selects, as text. `path` names elements by local
// name, "A/B" for //A/B, "A//B" for B anywhere below A, "A/@b" for A's attribute b.
std::vector<std::string> values(const std::string& xml, const std::string& path)
{
    std::string xpath = "/";
    std::size_t from = 0;
    while (from <= path.size()) {
        const auto slash = std::min(path.find('/', from), path.size());
        const std::string step = path.substr(from, slash - from);
        xpath += step.empty()     ? "/"
                 : step[0] == '@' ? "/" + step
                                  : "/*[local-name()='" + step + "']";
        from = slash + 1;
    }
    std::vector<std::string> found;
    xmlDocPtr doc = xmlReadMemory(xml.data(), int(xml.size()), nullptr, nullptr, XML_PARSE_NONET);
    if (doc == nullptr) return found;
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    xmlXPathObjectPtr result =
        xmlXPathEvalExpression(reinterpret_cast<const xmlChar*>(xpath.c_str()), context);
    for (int i = 0; result && result->nodesetval && i < result->nodesetval->nodeNr; ++i) {
        xmlChar* text = xmlNodeGetContent(result->nodesetval->nodeTab[i]);
        found.emplace_back(reinterpret_cast<const char*>(text));
        xmlFree(text);
    }
    xmlXPathFreeObject(result);
    xmlXPathFreeContext(context);
    xmlFreeDoc(doc);
    return found;
}

std::string value(const std::string& xml, const std::string& path)
{
    const auto all = values(xml, path);
    return all.empty() ? "" : all.front();
}

// The fault's codes, outermost first: "env:Sender ter:InvalidArgVal ter:InvalidToken".
std::string faultCodes(const std::string& xml)
{
    std::string codes;
    for (const auto& code : values(xml, "Fault/Code//Value"))
        codes += (codes.empty() ? "" : " ") + code;
    return codes;
}

std::string usernameToken(const std::string& user, const std::string& password,
                          const std::string& nonce, const std::string& created, bool digest = true)
{
    // The nonce goes as base64.
    static const char* const table =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string encoded;
    for (std::size_t i = 0; i < nonce.size(); i += 3) {
        const unsigned n = (unsigned(uint8_t(nonce[i])) << 16) |
                           (i + 1 < nonce.size() ? unsigned(uint8_t(nonce[i + 1])) << 8 : 0) |
                           (i + 2 < nonce.size() ? unsigned(uint8_t(nonce[i + 2])) : 0);
        encoded += table[(n >> 18) & 63];
        encoded += table[(n >> 12) & 63];
        encoded += i + 1 < nonce.size() ? table[(n >> 6) & 63] : '=';
        encoded += i + 2 < nonce.size() ? table[n & 63] : '=';
    }
    const std::string sent =
        digest ? onvif::OnvifUsers::passwordDigest(nonce, created, password) : password;
    return "<s:Header><wsse:Security xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
           "oasis-200401-wss-wssecurity-secext-1.0.xsd\" xmlns:wsu=\"http://docs.oasis-open.org/"
           "wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd\"><wsse:UsernameToken>"
           "<wsse:Username>" +
           user +
           "</wsse:Username><wsse:Password Type=\"http://docs.oasis-open.org/wss/2004/01/"
           "oasis-200401-wss-username-token-profile-1.0#" +
           (digest ? "PasswordDigest" : "PasswordText") + "\">" + sent +
           "</wsse:Password><wsse:Nonce>" + encoded + "</wsse:Nonce><wsu:Created>" + created +
           "</wsu:Created></wsse:UsernameToken></wsse:Security></s:Header>";
}

std::string now() { return onvif::dateTimeText({uint32_t(std::time(nullptr)), 0}); }

std::string envelope(const std::string& header, const std::string& operation)
{
    return "<?xml version=\"1.0\"?><s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\" "
           "xmlns:tse=\"http://www.onvif.org/ver10/search/wsdl\" "
           "xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\" "
           "xmlns:tt=\"http://www.onvif.org/ver10/schema\">" +
           header + "<s:Body>" + operation + "</s:Body></s:Envelope>";
}

// The stack, recording_index when asked, and the gateway with one user.
class OnvifStack {
public:
    explicit OnvifStack(bool withIndex) : stack_(sample()), port_(reliability::freePort())
    {
        if (withIndex) {
            index_ = reliability::startedIndex(dir_.file("index.db"), stack_);
            rstest::pollUntil(
                [&] {
                    const auto r = recsearch({"index", "--json"});
                    return r.status.code == 0 &&
                           json::parse(r.out).value("state", "") == "following";
                },
                90s);
        }
        const std::string tokens = dir_.write("tokens", "t\n");
        const std::string users =
            dir_.write("users", std::string("# who may search\n") + kUser + " " + kPassword + "\n");
        chmod(users.c_str(), 0600);
        auto env = stack_.clientEnv();
        env["KAVRO_LOG_FILE"] = dir_.file("web.log");
        web_ = std::make_unique<rstest::ProcessRunner>(
            bin("recording_search_web"),
            std::vector<std::string>{"--listen", "127.0.0.1:" + std::to_string(port_),
                                     "--token-file", tokens, "--onvif-users", users},
            env);
        web_->start();
        if (!web_->waitForNotify("READY=1")) throw std::runtime_error("the gateway is not ready");
    }

    Answer post(const std::string& service, const std::string& body,
                const std::string& contentType = "application/soap+xml") const
    {
        const auto r = rstest::runToEnd(
            "curl",
            {"-s", "-w", "\n%{http_code}", "-H", "Content-Type: " + contentType, "--data-binary",
             body, "http://127.0.0.1:" + std::to_string(port_) + "/onvif/" + service},
            {}, 60s);
        const auto cut = r.out.rfind('\n');
        return {std::atoi(r.out.c_str() + cut + 1), r.out.substr(0, cut)};
    }

    // One operation of the search service with a fresh digest.
    Answer search(const std::string& operation) const
    {
        return post("search_service", envelope(freshToken(), operation));
    }

    std::string freshToken() const
    {
        return usernameToken(kUser, kPassword, "nonce-" + std::to_string(++nonces_), now());
    }

    rstest::RunResult recsearch(std::vector<std::string> args) const
    {
        return rstest::runToEnd(bin("recsearch"), args, stack_.clientEnv(), 120s);
    }

    rstest::ProcessRunner& gateway() { return *web_; }

private:
    static rstest::ServiceStack::Options sample()
    {
        static const rstest::GeneratedRecording recording(
            RS_BIN_DIR, {"--seed", "7", "--start", kHourStart, "--duration", "1h", "--video-tracks",
                         "2", "--audio-tracks", "1", "--recording-on", "900", "--recording-off",
                         "60", "--track-on", "300", "--track-off", "30"});
        return {RS_BIN_DIR, recording.path(), {}, true};
    }

    rstest::TempDir dir_{"rs-onvif"};
    rstest::ServiceStack stack_;
    std::unique_ptr<rstest::ProcessRunner> index_;
    int port_;
    std::unique_ptr<rstest::ProcessRunner> web_;
    mutable int nonces_ = 0;
};

std::string findEvents(const std::string& from, const std::string& to, bool startState,
                       const std::string& more = "")
{
    return "<tse:FindEvents><tse:StartPoint>" + from + "</tse:StartPoint><tse:EndPoint>" + to +
           "</tse:EndPoint><tse:Scope/><tse:SearchFilter/><tse:IncludeStartState>" +
           (startState ? "true" : "false") + "</tse:IncludeStartState>" + more +
           "<tse:KeepAliveTime>PT10S</tse:KeepAliveTime></tse:FindEvents>";
}

std::string findMetadata(const std::string& from, const std::string& to, const std::string& xpath,
                         const std::string& more = "", const std::string& keepAlive = "PT10S")
{
    return "<tse:FindMetadata><tse:StartPoint>" + from + "</tse:StartPoint><tse:EndPoint>" + to +
           "</tse:EndPoint><tse:Scope/><tse:MetadataFilter><tse:MetadataStreamFilter>" + xpath +
           "</tse:MetadataStreamFilter></tse:MetadataFilter>" + more + "<tse:KeepAliveTime>" +
           keepAlive + "</tse:KeepAliveTime></tse:FindMetadata>";
}

std::string getResults(const std::string& kind, const std::string& token, int least, int most,
                       const std::string& wait)
{
    return "<tse:Get" + kind + "SearchResults><tse:SearchToken>" + token +
           "</tse:SearchToken><tse:MinResults>" + std::to_string(least) +
           "</tse:MinResults><tse:MaxResults>" + std::to_string(most) +
           "</tse:MaxResults><tse:WaitTime>" + wait + "</tse:WaitTime></tse:Get" + kind +
           "SearchResults>";
}

std::string tokenOf(const Answer& a)
{
    EXPECT_EQ(a.status, 200) << a.body;
    return value(a.body, "SearchToken");
}

// Every page until Completed; each result as "time track on start" (events) or its time.
std::vector<std::string> pullAll(const OnvifStack& s, const std::string& kind,
                                 const std::string& token, int most = 100)
{
    std::vector<std::string> found;
    for (int pages = 0; pages < 1000; ++pages) {
        const Answer a = s.search(getResults(kind, token, 1, most, "PT5S"));
        EXPECT_EQ(a.status, 200) << a.body;
        if (a.status != 200) break;
        const auto times = values(a.body, "ResultList/Result/Time");
        EXPECT_LE(times.size(), std::size_t(most));
        if (kind == "Event") {
            const auto tracks = values(a.body, "ResultList/Result/TrackToken");
            const auto on = values(a.body, "Result/Event/Message/Message/Data/SimpleItem/@Value");
            const auto start = values(a.body, "ResultList/Result/StartStateEvent");
            EXPECT_EQ(tracks.size(), times.size());
            EXPECT_EQ(on.size(), times.size());
            EXPECT_EQ(start.size(), times.size());
            if (tracks.size() != times.size() || on.size() != times.size() ||
                start.size() != times.size())
                break;
            for (std::size_t i = 0; i < times.size(); ++i) {
                found.push_back(times[i] + " " + tracks[i] + " " + on[i] + " " + start[i]);
            }
        } else {
            found.insert(found.end(), times.begin(), times.end());
        }
        if (value(a.body, "ResultList/SearchState") == "Completed") return found;
    }
    ADD_FAILURE() << "the search never said Completed";
    return found;
}

// recsearch's lines in the same shape.
std::vector<std::string> recsearchFinds(const OnvifStack& s, std::vector<std::string> args)
{
    args.push_back("--json");
    const auto r = s.recsearch(args);
    EXPECT_EQ(r.status.code, 0) << r.err;
    std::vector<std::string> found;
    for (const auto& line : lines(r.out)) {
        const json j = json::parse(line);
        const std::string kind = j.value("kind", "");
        const auto t = onvif::dateTimeText({j.value("sec", 0u), j.value("usec", 0u)});
        if (kind == "metadata") found.push_back(t);
        if (kind == "track" || kind == "recording") {
            found.push_back(t + " " + j.value("track", "") + " " +
                            (j.value("on", false) ? "true" : "false") + " " +
                            (j.value("start_state", false) ? "true" : "false"));
        }
    }
    return found;
}

class OnvifWithIndex : public ::testing::Test {
protected:
    static void SetUpTestSuite() { stack_ = new OnvifStack(true); }
    static void TearDownTestSuite()
    {
        delete stack_;
        stack_ = nullptr;
    }
    static OnvifStack* stack_;
};
OnvifStack* OnvifWithIndex::stack_ = nullptr;

TEST_F(OnvifWithIndex, FindsWhatRecsearchFindsBothWaysWithTheStartStateAndALimit)
{
    const OnvifStack& s = *stack_;
    const std::string from = "2024-01-01T00:00:00Z", to = "2024-01-01T00:20:00Z";
    struct Case {
        std::string find;
        const char* kind;
        std::vector<std::string> recsearch;
    } cases[] = {
        {findEvents(from, to, true), "Event", {"events", from, to, "--start-state"}},
        {findEvents(to, from, true), "Event", {"events", to, from, "--start-state"}},
        {findEvents(from, to, false, "<tse:MaxMatches>7</tse:MaxMatches>"),
         "Event",
         {"events", from, to, "--max", "7"}},
        {findMetadata(from, to, "//Object[Appearance/Class/Type=\"Person\"]",
                      "<tse:MaxMatches>40</tse:MaxMatches>"),
         "Metadata",
         {"metadata", from, to, "//Object[Appearance/Class/Type=\"Person\"]", "--max", "40"}},
        {findMetadata(to, from, "count(//Object) &gt;= 3"),
         "Metadata",
         {"metadata", to, from, "count(//Object) >= 3"}},
    };
    for (const auto& c : cases) {
        const auto expected = recsearchFinds(s, c.recsearch);
        ASSERT_FALSE(expected.empty()) << c.find;
        EXPECT_EQ(pullAll(s, c.kind, tokenOf(s.search(c.find)), 25), expected) << c.find;
    }
}

// More results than a search holds: it waits for its client, and loses nothing meanwhile.
TEST_F(OnvifWithIndex, AClientThatDoesNotPullHoldsItsSearchAtABoundAndLosesNothing)
{
    const OnvifStack& s = *stack_;
    const auto expected = recsearchFinds(s, {"metadata", kHourStart, kHourEnd, "true()"});
    ASSERT_GT(expected.size(), 5000u);  // more than two searches' worth of what one holds
    const std::string token =
        tokenOf(s.search(findMetadata(kHourStart, kHourEnd, "true()", "", "PT60S")));
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(value(s.search("<tse:GetSearchState><tse:SearchToken>" + token +
                             "</tse:SearchToken></tse:GetSearchState>")
                        .body,
                    "State"),
              "Searching");
    EXPECT_EQ(pullAll(s, "Metadata", token, 1000), expected);
}

class OnvifFace : public ::testing::Test {
protected:
    static void SetUpTestSuite() { stack_ = new OnvifStack(false); }
    static void TearDownTestSuite()
    {
        delete stack_;
        stack_ = nullptr;
    }
    static OnvifStack* stack_;
};
OnvifStack* OnvifFace::stack_ = nullptr;

TEST_F(OnvifFace, TheDeviceServiceLeadsToTheSearchService)
{
    const OnvifStack& s = *stack_;
    const Answer services =
        s.post("device_service", envelope(s.freshToken(),
                                          "<tds:GetServices><tds:IncludeCapability>true"
                                          "</tds:IncludeCapability></tds:GetServices>"));
    EXPECT_EQ(values(services.body, "Service/Namespace"),
              (std::vector<std::string>{"http://www.onvif.org/ver10/device/wsdl",
                                        "http://www.onvif.org/ver10/search/wsdl"}));
    const auto addresses = values(services.body, "Service/XAddr");
    ASSERT_EQ(addresses.size(), 2u);
    EXPECT_NE(addresses[1].find("/onvif/search_service"), std::string::npos);
    EXPECT_EQ(value(services.body, "Service/Capabilities/Capabilities/@MetadataSearch"), "true");
    const Answer capabilities =
        s.post("device_service", envelope(s.freshToken(),
                                          "<tds:GetCapabilities><tds:Category>All"
                                          "</tds:Category></tds:GetCapabilities>"));
    EXPECT_EQ(value(capabilities.body, "Capabilities/Extension/Search/XAddr"), addresses[1]);

    const Answer information = s.search(
        "<tse:GetRecordingInformation><tse:RecordingToken>RECORDING001</tse:RecordingToken>"
        "</tse:GetRecordingInformation>");
    EXPECT_EQ(values(information.body, "Track/TrackType"),
              (std::vector<std::string>{"Video", "Video", "Audio", "Metadata"}));
    EXPECT_EQ(value(information.body, "EarliestRecording"), kHourStart);
    const Answer summary = s.search("<tse:GetRecordingSummary/>");
    EXPECT_EQ(value(summary.body, "Summary/DataUntil"), kHourEnd);
    const std::string token = tokenOf(
        s.search("<tse:FindRecordings><tse:Scope/><tse:KeepAliveTime>PT5S</tse:KeepAliveTime>"
                 "</tse:FindRecordings>"));
    const Answer found = s.search(getResults("Recording", token, 1, 10, "PT1S"));
    EXPECT_EQ(values(found.body, "ResultList/RecordingInformation/RecordingToken"),
              std::vector<std::string>{"RECORDING001"});
    EXPECT_EQ(value(found.body, "ResultList/SearchState"), "Completed");
}

TEST_F(OnvifFace, PagesHoldToMinMaxAndWaitAndEndSearchSaysWhereItGot)
{
    const OnvifStack& s = *stack_;
    // A metadata walk that finds nothing for about 13 s: the wait is all WaitTime.
    const std::string walking = tokenOf(s.search(findMetadata(kHourStart, kHourEnd, kNothing)));
    const auto before = std::chrono::steady_clock::now();
    const Answer waited = s.search(getResults("Metadata", walking, 1, 10, "PT1.5S"));
    const auto took = std::chrono::steady_clock::now() - before;
    EXPECT_GE(took, 1400ms);
    EXPECT_LT(took, 5s);
    EXPECT_EQ(value(waited.body, "ResultList/SearchState"), "Searching");
    EXPECT_TRUE(values(waited.body, "ResultList/Result").empty());
    const Answer ended = s.search("<tse:EndSearch><tse:SearchToken>" + walking +
                                  "</tse:SearchToken></tse:EndSearch>");
    const std::string endpoint = value(ended.body, "EndSearchResponse/Endpoint");
    EXPECT_GT(endpoint, kHourStart);
    EXPECT_LT(endpoint, kHourEnd);
    EXPECT_EQ(faultCodes(s.search("<tse:GetSearchState><tse:SearchToken>" + walking +
                                  "</tse:SearchToken></tse:GetSearchState>")
                             .body),
              "env:Sender ter:InvalidArgVal ter:InvalidToken");

    // Events come at once: a page has at least MinResults and at most MaxResults.
    const std::string events = tokenOf(s.search(findEvents(kHourStart, kHourEnd, true)));
    const Answer page = s.search(getResults("Event", events, 4, 6, "PT10S"));
    const auto n = values(page.body, "ResultList/Result").size();
    EXPECT_GE(n, 4u);
    EXPECT_LE(n, 6u);
    EXPECT_EQ(pullAll(s, "Event", events).size() + n,
              recsearchFinds(s, {"events", kHourStart, kHourEnd, "--start-state"}).size());
}

TEST_F(OnvifFace, ASearchNobodyAsksForEndsAfterItsKeepAliveAndFreesItsSlot)
{
    const OnvifStack& s = *stack_;
    const std::string a =
        tokenOf(s.search(findMetadata(kHourStart, kHourEnd, kNothing, "", "PT1S")));
    const std::string b =
        tokenOf(s.search(findMetadata(kHourStart, kHourEnd, kNothing, "", "PT1S")));
    // Two walks run on the service: a third is refused with the resource fault.
    EXPECT_EQ(faultCodes(s.search(findMetadata(kHourStart, kHourEnd, kNothing)).body),
              "env:Receiver ter:Action ter:ResourceProblem");
    std::this_thread::sleep_for(2500ms);
    const std::string c = tokenOf(s.search(findMetadata(kHourStart, kHourEnd, kNothing)));
    EXPECT_EQ(faultCodes(s.search(getResults("Metadata", a, 1, 1, "PT0S")).body),
              "env:Sender ter:InvalidArgVal ter:InvalidToken");
    s.search("<tse:EndSearch><tse:SearchToken>" + c + "</tse:SearchToken></tse:EndSearch>");
    (void)b;
}

TEST_F(OnvifFace, EveryRefusalIsTheStandardsFaultNeverAServerError)
{
    const OnvifStack& s = *stack_;
    const std::string events = tokenOf(s.search(findEvents(kHourStart, kHourEnd, false)));
    struct Case {
        const char* what;
        Answer answer;
        const char* codes;
    } cases[] = {
        {"a time that is not xs:dateTime",
         s.search(findEvents("2024-13-01T00:00:00Z", kHourEnd, false)),
         "env:Sender ter:InvalidArgVal"},
        {"an XPath that does not compile", s.search(findMetadata(kHourStart, kHourEnd, "//[")),
         "env:Sender ter:InvalidArgVal ter:InvalidFilterFragment"},
        {"an unknown token", s.search(getResults("Event", "00ff", 1, 1, "PT0S")),
         "env:Sender ter:InvalidArgVal ter:InvalidToken"},
        {"a token of another kind of search",
         s.search(getResults("Metadata", events, 1, 1, "PT0S")),
         "env:Sender ter:InvalidArgVal ter:InvalidToken"},
        {"an unknown recording",
         s.search("<tse:GetRecordingInformation><tse:RecordingToken>X</tse:RecordingToken>"
                  "</tse:GetRecordingInformation>"),
         "env:Sender ter:InvalidArgVal ter:NoRecording"},
        {"a search we do not have",
         s.search("<tse:FindPTZPosition><tse:StartPoint>" + kHourStart +
                  "</tse:StartPoint><tse:Scope/><tse:SearchFilter/><tse:KeepAliveTime>PT5S"
                  "</tse:KeepAliveTime></tse:FindPTZPosition>"),
         "env:Receiver ter:ActionNotSupported"},
        {"a device operation we do not have",
         s.post("device_service", envelope(s.freshToken(), "<tds:SystemReboot/>")),
         "env:Receiver ter:ActionNotSupported"},
        {"a body that is not SOAP", s.post("search_service", "{\"start\": 1}", "application/json"),
         "env:Sender ter:WellFormed"},
        {"a SOAP 1.1 envelope",
         s.post("search_service",
                "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"><e:Body>"
                "<tse:GetRecordingSummary xmlns:tse=\"http://www.onvif.org/ver10/search/wsdl\"/>"
                "</e:Body></e:Envelope>"),
         "env:VersionMismatch"},
        {"an entity from outside",
         s.post("search_service", "<!DOCTYPE s [<!ENTITY x SYSTEM \"file:///etc/passwd\">]>" +
                                      envelope("", "<tse:GetRecordingSummary/>")),
         "env:Sender ter:WellFormed"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.answer.status, 400) << c.what;
        EXPECT_EQ(faultCodes(c.answer.body), c.codes) << c.what << "\n" << c.answer.body;
        EXPECT_FALSE(value(c.answer.body, "Fault/Reason/Text").empty()) << c.what;
    }
    s.search("<tse:EndSearch><tse:SearchToken>" + events + "</tse:SearchToken></tse:EndSearch>");
}

TEST_F(OnvifFace, OnlyAUserWithAFreshDigestGetsIn)
{
    const OnvifStack& s = *stack_;
    const std::string summary = "<tse:GetRecordingSummary/>";
    const std::string fresh = now();
    const std::string stale = onvif::dateTimeText({uint32_t(std::time(nullptr) - 600), 0});
    const std::string replayed = usernameToken(kUser, kPassword, "used-once", fresh);
    struct Case {
        const char* what;
        std::string header;
        bool allowed;
    } cases[] = {
        {"the right digest", replayed, true},
        {"the same nonce again", replayed, false},
        {"a wrong password", usernameToken(kUser, "wrong", "n-1", fresh), false},
        {"an unknown user", usernameToken("nobody", kPassword, "n-2", fresh), false},
        {"a Created ten minutes old", usernameToken(kUser, kPassword, "n-3", stale), false},
        {"no user at all", "", false},
        {"plain text from this machine", usernameToken(kUser, kPassword, "n-4", fresh, false),
         true},
    };
    for (const auto& c : cases) {
        const Answer a = s.post("search_service", envelope(c.header, summary));
        if (c.allowed) {
            EXPECT_EQ(a.status, 200) << c.what << "\n" << a.body;
            EXPECT_EQ(value(a.body, "Summary/NumberRecordings"), "1") << c.what;
        } else {
            EXPECT_EQ(faultCodes(a.body), "env:Sender ter:NotAuthorized") << c.what;
        }
    }
    // The clock answers anyone: clients set their stamps by it.
    const Answer clock = s.post("device_service", envelope("", "<tds:GetSystemDateAndTime/>"));
    EXPECT_EQ(clock.status, 200);
    EXPECT_FALSE(value(clock.body, "UTCDateTime/Date/Year").empty());
}

// Last of its suite: it stops the suite's gateway.
TEST_F(OnvifFace, StopsAtOnceWhileAClientWaitsAndLeavesNothingBehind)
{
    OnvifStack& s = *stack_;
    const std::string walking = tokenOf(s.search(findMetadata(kHourStart, kHourEnd, kNothing)));
    Answer waited;
    // The client's connection has its own thread in the gateway: once that is there (and a
    // moment more for its request to be read), the client waits.
    const pid_t gateway = s.gateway().pid();
    const long threads = reliability::processUse(gateway).threads;
    std::thread client([&] { waited = s.search(getResults("Metadata", walking, 1, 10, "PT30S")); });
    EXPECT_TRUE(
        rstest::pollUntil([&] { return reliability::processUse(gateway).threads > threads; }, 20s));
    std::this_thread::sleep_for(1s);
    const auto before = std::chrono::steady_clock::now();
    s.gateway().sendSignal(SIGTERM);
    const auto exit = s.gateway().waitForExit(10s);
    client.join();
    ASSERT_TRUE(exit.has_value());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
    EXPECT_TRUE(exit->exited && exit->code == 0);
    EXPECT_EQ(s.gateway().stderrText(), "");  // a sanitizer's report, say
    EXPECT_EQ(value(waited.body, "ResultList/SearchState"), "Completed")
        << waited.status << " " << waited.body;
}

}  // namespace
