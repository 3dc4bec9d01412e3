// recording_store failing under a running recording_search: killed or stalled mid-walk and
// then back, and the bus itself going away. Every affected search must end normally within a
// bound, and the next searches must answer as before.

#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fault_stack.h"
#include "support/LogCapture.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"

namespace {

using namespace std::chrono_literals;
using reliability::LongRecording;
using reliability::referenceSearch;
using reliability::SearchRun;
using Stack = rstest::ServiceStack;
using Clock = std::chrono::steady_clock;

// Short enough to keep the stall tests quick, long enough that a busy sanitizer run does not
// time out healthy calls.
constexpr auto kCallTimeout = 1500ms;
Stack::Options faultStack()
{
    return reliability::longRecordingStack(
        {{"KAVRO_CALL_TIMEOUT_MS", std::to_string(kCallTimeout.count())}});
}

// The same search compares equal whatever id it ran under.
std::vector<rstest::SearchSignal> withoutIds(std::vector<rstest::SearchSignal> signals)
{
    for (auto& s : signals) s.jobId = 0;
    return signals;
}

// A search over the whole recording, begun and 20 results into its walk; returns its id.
uint32_t beginLongSearch(rstest::SearchClient& client, bool metadata)
{
    const auto created = metadata ? client.createMetadataSearch(LongRecording::kStart, 0,
                                                                LongRecording::kEnd, 0, -1, "")
                                  : client.createEventSearch(LongRecording::kStart, 0,
                                                             LongRecording::kEnd, 0, -1, 0, 0, 0);
    EXPECT_GT(created.value, 0) << created.errorMessage;
    const auto id = static_cast<uint32_t>(created.value);
    EXPECT_TRUE(client.beginSearch(id).ok());
    EXPECT_TRUE(reliability::waitForResults(client, id, 20));
    return id;
}

struct FaultCase {
    const char* name;
    bool metadata;
    bool stall;  // SIGSTOP, else SIGKILL
};

class StoreFaultTest : public testing::TestWithParam<FaultCase> {};

TEST_P(StoreFaultTest, MidWalkFaultEndsTheSearchAndLaterSearchesAnswerAsBefore)
{
    const FaultCase c = GetParam();
    Stack stack(faultStack());
    rstest::SearchClient client(stack.address());
    rstest::LogCapture log(stack.logPath());

    const SearchRun before = referenceSearch(client, c.metadata);
    ASSERT_TRUE(before.completed);
    ASSERT_FALSE(before.results.empty()) << "the reference search must find something";

    const uint32_t id = beginLongSearch(client, c.metadata);
    ASSERT_EQ(client.getSearchState(id).value.state, 1u) << "still walking when the fault hits";

    const auto faultAt = Clock::now();
    kill(stack.store().pid(), c.stall ? SIGSTOP : SIGKILL);
    // The service keeps answering while its search waits on the store.
    EXPECT_TRUE(client.createNoopSearch().ok());
    EXPECT_LT(Clock::now() - faultAt, kCallTimeout) << "a request waited on the failed store";

    ASSERT_TRUE(client.waitForCompleted(id, kCallTimeout + 10s))
        << "the search must end on its own\n"
        << log.dump();
    const auto took = Clock::now() - faultAt;
    if (c.stall) {
        EXPECT_GE(took, kCallTimeout - 200ms) << "a stalled store is waited for up to the timeout";
    }
    EXPECT_LT(took, kCallTimeout + 5s);
    EXPECT_EQ(reliability::completionCount(client.signals(), id), 1);
    EXPECT_TRUE(log.contains(3, "Bad return")) << log.dump();

    ASSERT_TRUE(client.endSearch(id).ok());

    if (c.stall) {
        kill(stack.store().pid(), SIGCONT);
    } else {
        ASSERT_TRUE(stack.store().waitForExit(5s).has_value());
        stack.startStore();
    }
    const SearchRun after = referenceSearch(client, c.metadata);
    ASSERT_TRUE(after.completed);
    EXPECT_EQ(withoutIds(after.results), withoutIds(before.results));
    EXPECT_EQ(stack.stop(), "");
}

INSTANTIATE_TEST_SUITE_P(Faults, StoreFaultTest,
                         testing::Values(FaultCase{"EventSearchStoreKilled", false, false},
                                         FaultCase{"MetadataSearchStoreKilled", true, false},
                                         FaultCase{"EventSearchStoreStalled", false, true},
                                         FaultCase{"MetadataSearchStoreStalled", true, true}),
                         [](const auto& info) { return std::string(info.param.name); });

// The walk ends normally when the store dies, but the client is told where it was cut short:
// its last line says the results are incomplete after that time, and recsearch exits 9.
TEST(StoreFault, KilledStoreMidWalkIsReportedAsAnEarlyEndNotACompletion)
{
    Stack stack(faultStack());
    rstest::ProcessRunner search(RS_BIN_DIR "/recsearch",
                                 {"metadata", std::to_string(LongRecording::kStart),
                                  std::to_string(LongRecording::kEnd), "/", "--json"},
                                 stack.clientEnv());
    search.start();
    ASSERT_TRUE(search.waitForStdout("\"kind\":\"metadata\"", 20s));
    kill(stack.store().pid(), SIGKILL);
    const auto status = search.waitForExit(kCallTimeout + 10s);
    ASSERT_TRUE(status.has_value()) << "recsearch did not end";
    EXPECT_EQ(status->code, 9) << search.stderrText();
    const auto out = reliability::lines(search.stdoutText());
    ASSERT_GE(out.size(), 2u);
    const auto last = nlohmann::json::parse(out.back());
    const auto lastResult = nlohmann::json::parse(out[out.size() - 2]);
    EXPECT_EQ(last.at("kind"), "incomplete") << out.back();
    EXPECT_LT(last.at("sec").get<uint32_t>(), LongRecording::kEnd) << out.back();
    EXPECT_GE(last.at("sec").get<uint32_t>(), lastResult.at("sec").get<uint32_t>()) << out.back();
    EXPECT_NE(last.value("error", "").find("incomplete after"), std::string::npos) << out.back();
}

TEST(StoreFault, EndSearchOnAStalledStoreReturnsWithinTheCallTimeout)
{
    Stack stack(faultStack());
    rstest::SearchClient client(stack.address());
    const uint32_t id = beginLongSearch(client, true);

    kill(stack.store().pid(), SIGSTOP);
    // The walk sends its next call within one pause (0.5 ms) of the stop; this wait only makes
    // sure that the worker is inside that call, which is the worst case for endSearch.
    std::this_thread::sleep_for(300ms);
    const auto start = Clock::now();
    const auto ended = client.endSearch(id);
    const auto took = Clock::now() - start;
    ASSERT_TRUE(ended.ok()) << ended.errorName << ": " << ended.errorMessage;
    EXPECT_GE(took, kCallTimeout - 300ms - 200ms) << "the worker was not held by the store";
    EXPECT_LT(took, kCallTimeout + 3s) << "endSearch joins a worker held by the stalled store";
    EXPECT_TRUE(client.waitForCompleted(id, 5s));
    EXPECT_EQ(client.getSearchState(id).value.state, 0u) << "ended searches leave the table";

    kill(stack.store().pid(), SIGCONT);
    EXPECT_TRUE(referenceSearch(client, true).completed);
    EXPECT_EQ(stack.stop(), "");
}

TEST(BusFault, BusGoingAwayMidSearchEndsTheServiceOnItsFatalPath)
{
    Stack stack(faultStack());
    rstest::SearchClient client(stack.address());
    beginLongSearch(client, false);
    beginLongSearch(client, true);

    stack.bus().kill();
    auto& service = stack.service();
    const auto status = service.waitForExit(15s);
    ASSERT_TRUE(status.has_value()) << "the service hung on after losing the bus";
    EXPECT_TRUE(status->exited && status->code == 1);
    EXPECT_TRUE(service.waitForNotify("ERRNO=5", 1s));
    const std::string err = service.stderrText();
    EXPECT_EQ(err.rfind("ERROR: recording_search caught exception: ", 0), 0u) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    const auto store = stack.store().waitForExit(15s);
    ASSERT_TRUE(store.has_value()) << "the store hung on after losing the bus";
    EXPECT_EQ(store->code, 1);
    EXPECT_NE(stack.store().stderrText().find("the bus went away"), std::string::npos);
}

}  // namespace
