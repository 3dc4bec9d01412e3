// MetadataSearchJob against bad answers and hostile documents, ended mid-walk, and created
// through the target's request.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "event_and_metadata_fixture.h"
#include "jobs/MetadataSearchJob.h"
#include "jobs/XmlLibrary.h"

namespace {

using namespace walktest;
using rstest::MetadataAnswer;
using rstest::Recording;
using rstest::Reply;
using rstest::StoreTime;

const SearchTime d0{200, 0}, d1{201, 0}, d2{202, 0}, d3{203, 0};

Recording documentsAt(std::vector<std::pair<SearchTime, std::string>> documents)
{
    Recording r;
    r.tracks = {"META001"};
    for (auto& [t, text] : documents) r.documents.push_back({st(t), text});
    return r;
}

std::vector<Rec> results(std::vector<SearchTime> times)
{
    std::vector<Rec> out;
    for (const auto& t : times) out.push_back(meta(t));
    out.push_back(completed());
    return out;
}

class MetadataBadReplyTest : public WalkTest {
protected:
    void SetUp() override
    {
        services->setRecording(documentsAt(
            {{d0, "<a/>"}, {d1, "<a/>"}, {d2, "<a/>"}, {d3, "<a/>"}}));
    }

    // Answers as the recording would, except for the request at `at`, which `change` edits.
    void editAnswerAt(SearchTime at, std::function<void(MetadataAnswer&)> change)
    {
        auto* s = &*services;
        services->scriptGetMetadata([s, at, change](StoreTime t) -> Reply<MetadataAnswer> {
            auto answer = s->modelMetadata(t);
            if (!answer) return Reply<MetadataAnswer>::status(1);
            if (t == st(at)) change(*answer);
            return *answer;
        });
    }
};

TEST_F(MetadataBadReplyTest, AllZeroTimesGiveBothNoticesTheOrderMessageAndTheSkip)
{
    editAnswerAt(d1, [](MetadataAnswer& a) { a.cur = a.prev = a.next = StoreTime{0, 0}; });
    const int id = createMetadata(d0, d3, -1, "true()");
    EXPECT_EQ(run(id), results({d0}));
    const std::vector<rstest::LogLine> lines = log.since();
    std::vector<std::pair<int, std::string>> afterSecondRequest;
    bool seen = false;
    for (const auto& line : lines) {
        if (line.message == "Current metadata search point is 201.000000") seen = true;
        if (seen) afterSecondRequest.push_back({line.priority, line.message});
    }
    const std::vector<std::pair<int, std::string>> expected = {
        {7, "Current metadata search point is 201.000000"},
        {5, "Prev 0.000000 == Cur 0.000000.  Setting prev to 0.0"},
        {5, "Next 0.000000 == Cur 0.000000.  Setting next to 0.0"},
        {3, "Returned times were not linear. 0.000000 (prev) < 0.000000 (cur) < 0.000000 (next)"},
        {6, "Skipping response because its time 0.000000 is outside the range of our search."},
        {7, "Finished searching search range"},
        {6, format("Metadata Search %d completed work", id)},
    };
    afterSecondRequest.resize(std::min(afterSecondRequest.size(), expected.size()));
    EXPECT_EQ(afterSecondRequest, expected) << log.dump();
    EXPECT_EQ(end(id), d3);
}

// An answer whose neighbour in the walk's direction equals cur.
struct EqualNeighbourCase {
    const char* name;
    SearchTime editAt, start, end;
    std::vector<SearchTime> reported;
    const char* notice;
};

void PrintTo(const EqualNeighbourCase& c, std::ostream* os) { *os << c.name; }

class MetadataEqualNeighbourTest : public MetadataBadReplyTest,
                                   public ::testing::WithParamInterface<EqualNeighbourCase> {};

TEST_P(MetadataEqualNeighbourTest, IsClearedAndTheWalkEndsAfterTheDocument)
{
    const EqualNeighbourCase& c = GetParam();
    const bool forward = !(c.end.sec < c.start.sec);
    editAnswerAt(c.editAt,
                 [forward](MetadataAnswer& a) { (forward ? a.next : a.prev) = a.cur; });
    const int id = createMetadata(c.start, c.end, -1, "/a");
    EXPECT_EQ(run(id), results(c.reported));
    EXPECT_EQ(log.count(5, c.notice), 1) << log.dump();
    EXPECT_EQ(callCount("GetMetadata"), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Neighbours, MetadataEqualNeighbourTest,
    ::testing::Values(
        EqualNeighbourCase{"ForwardNext", d1, d0, d3, {d0, d1},
                           "Next 201.000000 == Cur 201.000000.  Setting next to 0.0"},
        EqualNeighbourCase{"BackwardPrev", d2, d3, d0, {d3, d2},
                           "Prev 202.000000 == Cur 202.000000.  Setting prev to 0.0"}),
    ::testing::PrintToStringParamName());

struct DisorderCase {
    const char* name;
    StoreTime prev, cur, next;  // the answer to the request for 201.0
    const char* line;
};

void PrintTo(const DisorderCase& c, std::ostream* os) { *os << c.name; }

class MetadataDisorderTest : public MetadataBadReplyTest,
                             public ::testing::WithParamInterface<DisorderCase> {};

TEST_P(MetadataDisorderTest, EndsTheWalkWithoutEvaluatingTheAnswer)
{
    const DisorderCase& c = GetParam();
    editAnswerAt(d1, [&](MetadataAnswer& a) {
        a.prev = c.prev;
        a.cur = c.cur;
        a.next = c.next;
    });
    const int id = createMetadata(d0, d3, -1, "true()");
    EXPECT_EQ(run(id), results({d0}));
    EXPECT_EQ(log.count(3, c.line), 1) << log.dump();
    EXPECT_EQ(end(id), d3);
    EXPECT_EQ(callCount("GetMetadata"), 2);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, MetadataDisorderTest,
    ::testing::Values(
        DisorderCase{"NextBeforeRequested", {200, 0}, {200, 500000}, {200, 700000},
                     "Returned times were not linear. 200.000000 (prev) < 201.000000 (requested) "
                     "< 200.700000 (next)"},
        DisorderCase{"NextBeforeCur", {200, 0}, {202, 500000}, {202, 0},
                     "Returned times were not linear. 200.000000 (prev) < 202.500000 (cur) < "
                     "202.000000 (next)"},
        // The event search would take this next as absent (its halves add up to 0); here only
        // 0.0 is absent.
        DisorderCase{"NextWhoseHalvesAddUpToZero", {200, 0}, {201, 0}, {1, 4294967295u},
                     "Returned times were not linear. 200.000000 (prev) < 201.000000 (cur) < "
                     "1.-00001 (next)"}),
    ::testing::PrintToStringParamName());

TEST_F(MetadataBadReplyTest, FailedRequestIsLoggedAndTheSearchCompletes)
{
    auto* s = &*services;
    services->scriptGetMetadata([s](StoreTime t) -> Reply<MetadataAnswer> {
        if (t == st(d2)) return Reply<MetadataAnswer>::status(42);
        return *s->modelMetadata(t);
    });
    const int id = createMetadata(d0, d3, -1, "/a");
    EXPECT_EQ(run(id), results({d0, d1}));
    EXPECT_EQ(log.count(3, "Bad return 42 call while getting metadata at time 202.000000"), 1)
        << log.dump();
    EXPECT_EQ(end(id), d3);
}

// A file outside the recording that a document tries to pull in.
class SecretFile {
public:
    SecretFile()
    {
        char name[] = "/tmp/rs-secret-XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) close(fd);
        path_ = name;
        std::ofstream(path_) << "SECRET";
    }
    ~SecretFile() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

std::string repeat(const std::string& s, size_t n)
{
    std::string out;
    out.reserve(s.size() * n);
    for (size_t i = 0; i < n; ++i) out += s;
    return out;
}

struct HostileCase {
    const char* name;
    std::string document;  // at 200.0; a plain <a>SECRET</a> follows at 201.0
    const char* xpath;
    std::vector<SearchTime> matches;
};

void PrintTo(const HostileCase& c, std::ostream* os) { *os << c.name; }

class MetadataHostileDocumentTest : public MetadataBadReplyTest,
                                    public ::testing::WithParamInterface<HostileCase> {};

TEST_P(MetadataHostileDocumentTest, IsTreatedAsADocumentThatDoesNotParse)
{
    const HostileCase& c = GetParam();
    SecretFile secret;
    std::string document = c.document;
    const auto at = document.find("SECRETPATH");
    if (at != std::string::npos) document.replace(at, 10, secret.path());
    services->setRecording(documentsAt({{d0, document}, {d1, "<a>SECRET</a>"}}));

    const auto started = std::chrono::steady_clock::now();
    const int id = createMetadata(d0, d1, -1, c.xpath);
    EXPECT_EQ(run(id), results(c.matches)) << log.dump();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

const std::string kLaughs =
    "<!DOCTYPE l [<!ENTITY a \"aaaaaaaaaa\">"
    "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\"><!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
    "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\"><!ENTITY e \"&d;&d;&d;&d;&d;&d;&d;&d;&d;&d;\">"
    "<!ENTITY f \"&e;&e;&e;&e;&e;&e;&e;&e;&e;&e;\"><!ENTITY g \"&f;&f;&f;&f;&f;&f;&f;&f;&f;&f;\">"
    "<!ENTITY h \"&g;&g;&g;&g;&g;&g;&g;&g;&g;&g;\"><!ENTITY i \"&h;&h;&h;&h;&h;&h;&h;&h;&h;&h;\">"
    "]><l>&i;</l>";

INSTANTIATE_TEST_SUITE_P(
    Documents, MetadataHostileDocumentTest,
    ::testing::Values(
        HostileCase{"ExternalEntity",
                    "<!DOCTYPE a [<!ENTITY e SYSTEM \"file://SECRETPATH\">]><a>&e;</a>",
                    "contains(string(/), 'SECRET')", {d1}},
        HostileCase{"ExternalDtd", "<!DOCTYPE a SYSTEM \"file://SECRETPATH\"><a>x</a>", "/a", {d1}},
        HostileCase{"OneLargeEntityReferencedOften",
                    "<!DOCTYPE a [<!ENTITY e \"" + repeat("x", 20000) + "\">]><a>" +
                        repeat("&e;", 20000) + "</a>",
                    "string-length(string(/a)) > 0", {d1}},
        HostileCase{"BillionLaughs", kLaughs, "/l or /a", {d1}},
        HostileCase{"DeepNesting", repeat("<a>", 100000) + repeat("</a>", 100000), "/a", {d1}},
        HostileCase{"LargerThanTheBound", "<a>" + repeat("x", kMaxDocumentBytes) + "</a>", "/a",
                    {d1}},
        HostileCase{"ExactlyAtTheBound", "<a>" + repeat("x", kMaxDocumentBytes - 7) + "</a>",
                    "/a", {d0, d1}},
        HostileCase{"Empty", "", "/", {d1}},
        HostileCase{"EmptyButTheExpressionNeedsNoDocument", "", "true()", {d0, d1}},
        HostileCase{"NotXml", "\x01\x02 not xml at all", "/", {d1}}),
    ::testing::PrintToStringParamName());

TEST_F(MetadataBadReplyTest, DeeplyNestedExpressionMatchesNothingAndDoesNotCrash)
{
    const int id = createMetadata(d0, d3, -1, repeat("(", 200000) + "1" + repeat(")", 200000));
    EXPECT_EQ(run(id), results({}));
    EXPECT_EQ(callCount("GetMetadata"), 4);
}

TEST_F(MetadataBadReplyTest, EndingMidWalkStopsAfterTheFetchInProgress)
{
    Gate gate;
    std::atomic<int> answers{0};
    auto* s = &*services;
    services->scriptGetMetadata([&, s](StoreTime t) -> Reply<MetadataAnswer> {
        if (++answers == 2) gate.waitOpen();
        return *s->modelMetadata(t);
    });
    const int id = createMetadata(d0, d3, -1, "/a");
    begin(id);
    ASSERT_TRUE(gate.waitForWaiter()) << log.dump();
    auto ending = std::async(std::launch::async, [&] { return end(id); });
    EXPECT_TRUE(waitCompleted(id));
    gate.open();
    EXPECT_EQ(ending.get(), d0) << "the time of the last document accepted";
    EXPECT_EQ(records(id), (std::vector<Rec>{meta(d0), completed(), meta(d1)}));
    EXPECT_EQ(callCount("GetMetadata"), 2);
    EXPECT_EQ(log.count(6, format("Metadata Search %d completed work", id)), 1) << log.dump();
    EXPECT_EQ(log.count(7, "Finished searching search range"), 0);
}

TEST_F(MetadataBadReplyTest, EmptyExpressionIsStoredAsRoot)
{
    const int id = createMetadata(d0, d3, -1, "");
    auto job = boost::dynamic_pointer_cast<MetadataSearchJob>(
        target.findJob(static_cast<unsigned int>(id)));
    ASSERT_TRUE(job != nullptr);
    EXPECT_EQ(job->getXpath(), "/");
}

TEST_F(MetadataBadReplyTest, RefusedWhileTwoEventSearchesRunAcceptedOnceOneCompletes)
{
    Gate gate;
    services->scriptGetFirstRecordingHistoryEventTime([&]() -> Reply<StoreTime> {
        gate.waitOpen();
        return Reply<StoreTime>::status(1);
    });
    const int first = createEvent(d0, d3);
    const int second = createEvent(d0, d3);
    begin(first);
    begin(second);
    ASSERT_TRUE(gate.waitForWaiter());
    EXPECT_EQ(createMetadata(d0, d3, -1, "/"), -1);
    gate.open();
    ASSERT_TRUE(waitCompleted(first));
    ASSERT_TRUE(waitCompleted(second));
    EXPECT_GT(createMetadata(d0, d3, -1, "/"), 0);
}

}  // namespace
