// Requests at the edges of what the contract allows, and some that it does not, sent to the
// real recording_search: each gets the contract's answer, and the service goes on serving.
// (Microseconds out of range, refused creates and unknown ids are the target's own tests;
// calls of the wrong shape are refused by the generated adaptor before any of our code.)

#include <algorithm>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fault_stack.h"
#include "store/RecordingWriter.h"
#include "support/SearchClient.h"
#include "support/ServiceStack.h"

namespace {

using namespace std::chrono_literals;
using rstest::SearchSignal;
using Kind = SearchSignal::Kind;

constexpr uint32_t kMax = UINT32_MAX;
constexpr uint32_t kFirst = 1000;  // the recording: one event a second from here
constexpr int kEvents = 5;

// One track switching on and off, and one small document half a second after each switch,
// written with the store's own writer.
std::string writeSmallRecording(const std::string& path)
{
    store::RecordingWriter w(path, store::RecordingWriter::Durability::Bulk);
    auto transaction = w.transaction();
    w.addTrack("Video1");
    w.addTrack("META001");
    for (uint32_t i = 0; i < kEvents; ++i) {
        w.addEvent({kFirst + i, 0}, {{1, i % 2, "Video1"}});
        w.addDocument({kFirst + i, 500000},
                      "<Frame n='" + std::to_string(i) + "'><Object/></Frame>");
    }
    transaction->commit();
    return path;
}

// The seconds a search over the whole recording reports: one result a second, the track's
// state alternating from off.
std::vector<uint32_t> expectedSeconds(bool forward, int limit)
{
    std::vector<uint32_t> secs;
    for (int i = 0; i < kEvents; ++i) secs.push_back(kFirst + i);
    if (!forward) std::reverse(secs.begin(), secs.end());
    if (limit >= 0 && secs.size() > size_t(limit)) secs.resize(limit);
    return secs;
}

class HostileRequests : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        dir_ = new rstest::TempDir("rs-hostile");
        stack_ = new rstest::ServiceStack(
            {RS_BIN_DIR, writeSmallRecording(dir_->file("small.rec")), {}, true});
    }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(stack_->stop(), "")
            << "the service survives every hostile request and stops cleanly";
        delete stack_;
        delete dir_;
    }
    void TearDown() override
    {
        // Whatever the case did, the service still serves.
        EXPECT_TRUE(client_.createNoopSearch().ok()) << "the service stopped answering";
    }

    // Creates and runs a search; returns its results, or fails the test.
    template <typename Create>
    std::vector<SearchSignal> run(Create create)
    {
        const auto created = create();
        EXPECT_TRUE(created.ok()) << created.errorName << ": " << created.errorMessage;
        EXPECT_GT(created.value, 0);
        if (!created.ok() || created.value <= 0) return {};
        const auto id = static_cast<uint32_t>(created.value);
        EXPECT_TRUE(client_.beginSearch(id).ok());
        EXPECT_TRUE(client_.waitForCompleted(id, 60s)) << "search " << id << " never completed";
        EXPECT_TRUE(client_.endSearch(id).ok());
        return reliability::resultsOf(client_, id);
    }

    static inline rstest::TempDir* dir_ = nullptr;
    static inline rstest::ServiceStack* stack_ = nullptr;
    rstest::SearchClient client_{stack_->address()};
};

struct LimitCase {
    const char* name;
    bool forward;
    int maxResults;
};

class HostileLimits : public HostileRequests, public testing::WithParamInterface<LimitCase> {};

TEST_P(HostileLimits, EveryLimitIsHonouredOverTheWholeTimeRange)
{
    const LimitCase c = GetParam();
    const uint32_t fromSec = c.forward ? 0 : kMax, fromUsec = c.forward ? 0 : 999999;
    const uint32_t toSec = c.forward ? kMax : 0, toUsec = c.forward ? 999999 : 0;

    const auto events = run([&] {
        return client_.createEventSearch(fromSec, fromUsec, toSec, toUsec, c.maxResults, 0, 0, 0);
    });
    const auto documents = run([&] {
        return client_.createMetadataSearch(fromSec, fromUsec, toSec, toUsec, c.maxResults,
                                            "//Object");
    });
    std::vector<uint32_t> eventSecs, documentSecs;
    for (const auto& s : events) {
        EXPECT_EQ(s.kind, Kind::TrackStateEventSearchResult);
        EXPECT_EQ(s.state, (s.sec - kFirst) % 2) << s.sec;
        eventSecs.push_back(s.sec);
    }
    for (const auto& s : documents) documentSecs.push_back(s.sec);
    EXPECT_EQ(eventSecs, expectedSeconds(c.forward, c.maxResults));
    EXPECT_EQ(documentSecs, expectedSeconds(c.forward, c.maxResults));
}

INSTANTIATE_TEST_SUITE_P(Limits, HostileLimits,
                         testing::Values(LimitCase{"IntMaxForward", true, INT_MAX},
                                         LimitCase{"IntMinForward", true, INT_MIN},
                                         LimitCase{"MinusOneBackward", false, -1},
                                         LimitCase{"ZeroForward", true, 0},
                                         LimitCase{"OneBackward", false, 1},
                                         LimitCase{"IntMaxBackward", false, INT_MAX}),
                         [](const auto& info) { return std::string(info.param.name); });

struct ExpressionCase {
    const char* name;
    std::string xpath;
    bool matchesAll;  // else matches none
};

class HostileExpressions : public HostileRequests,
                           public testing::WithParamInterface<ExpressionCase> {};

TEST_P(HostileExpressions, SearchCompletesWithTheExpressionsAnswer)
{
    const ExpressionCase& c = GetParam();
    const auto results =
        run([&] { return client_.createMetadataSearch(0, 0, kMax, 999999, -1, c.xpath); });
    EXPECT_EQ(results.size(), c.matchesAll ? size_t(kEvents) : 0u);
}

std::string nested(int depth, const std::string& open, const std::string& core,
                   const std::string& close)
{
    std::string text;
    for (int i = 0; i < depth; ++i) text += open;
    text += core;
    for (int i = 0; i < depth; ++i) text += close;
    return text;
}

INSTANTIATE_TEST_SUITE_P(
    Expressions, HostileExpressions,
    testing::Values(
        ExpressionCase{"Empty", "", true}, ExpressionCase{"DoesNotCompile", "//Object[", false},
        ExpressionCase{
            "MegabyteLiteral",
            "string-length('" + std::string(1 << 20, 'a') + "') = " + std::to_string(1 << 20),
            true},
        ExpressionCase{"LongUnion", nested(20000, "", "//Object", " | //NoSuchElement"), true},
        ExpressionCase{"Nested100Parentheses", nested(100, "(", "//Object", ")"), true},
        ExpressionCase{"Nested100kParentheses", nested(100000, "(", "//Object", ")"), false},
        ExpressionCase{"Nested100kNot", nested(100000, "not(", "//Object", ")"), false},
        ExpressionCase{"Nested100kPredicates", nested(100000, "//*[", "1", "]"), false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
