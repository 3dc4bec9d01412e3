// A client that leaves the bus, however it leaves, takes its searches with it: their slots are
// free again at once, and nobody else's search is touched.

#include <signal.h>

#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "fault_stack.h"
#include "support/LogCapture.h"
#include "support/ProcessRunner.h"
#include "support/SearchClient.h"

namespace {

using namespace std::chrono_literals;
using reliability::completionCount;
using reliability::LongRecording;

int32_t createLongEventSearch(rstest::SearchClient& client)
{
    return client.createEventSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0, -1, 0, 0, 0)
        .value;
}

// A departure is handled within 3 s: pollUntil(..., 3s) asks again until then.
TEST(ClientDeparture, SearchesEndWithTheirClientAndOthersAreUntouched)
{
    rstest::ServiceStack stack(reliability::longRecordingStack());
    rstest::SearchClient observer(stack.address());
    rstest::LogCapture log(stack.logPath());

    auto leaver = std::make_unique<rstest::SearchClient>(stack.address());
    const int32_t walking = createLongEventSearch(*leaver);
    const int32_t idle = createLongEventSearch(*leaver);
    ASSERT_GT(walking, 0);
    ASSERT_GT(idle, 0);
    ASSERT_TRUE(leaver->beginSearch(walking).ok());
    ASSERT_TRUE(reliability::waitForResults(observer, walking, 5));
    EXPECT_EQ(createLongEventSearch(observer), -1);
    leaver.reset();

    rstest::SearchClient other(stack.address());
    int32_t survivor = -1;
    ASSERT_TRUE(
        rstest::pollUntil([&] { return (survivor = createLongEventSearch(other)) > 0; }, 3s))
        << log.dump();
    ASSERT_TRUE(other.beginSearch(survivor).ok());
    EXPECT_EQ(observer.getSearchState(walking).value.state, 0u);
    EXPECT_EQ(observer.getSearchState(idle).value.state, 0u);
    EXPECT_EQ(completionCount(observer.signals(), walking), 1);
    EXPECT_TRUE(log.contains(6, "with 2 searches")) << log.dump();

    // A client that leaves with a search of its own ends only that one.
    auto brief = std::make_unique<rstest::SearchClient>(stack.address());
    const int32_t briefNoop = brief->createNoopSearch().value;
    ASSERT_GT(briefNoop, 0);
    brief.reset();
    ASSERT_TRUE(
        rstest::pollUntil([&] { return observer.getSearchState(briefNoop).value.state == 0; }, 3s))
        << "the search outlived its client";
    EXPECT_EQ(observer.getSearchState(survivor).value.state, 1u);
    EXPECT_TRUE(observer.endSearch(survivor).ok());
    EXPECT_EQ(other.getSearchState(survivor).value.state, 0u);
    EXPECT_EQ(completionCount(observer.signals(), survivor), 1);
    EXPECT_EQ(stack.stop(), "");
}

// A client that leaves while its create waits for a stalled store: the search it asked for is
// ended as soon as it exists, so its slot is free at once, not after the unbegun expiry (30 s).
TEST(ClientDeparture, ClientGoneWhileItsCreateWaitsLeavesNoSearchBehind)
{
    rstest::ServiceStack stack(reliability::longRecordingStack());
    rstest::LogCapture log(stack.logPath());
    rstest::SearchClient observer(stack.address());
    ASSERT_GT(createLongEventSearch(observer),
              0);  // one slot taken; the gone client's is the other
    stack.store().sendSignal(SIGSTOP);
    rstest::ProcessRunner gone(
        "busctl", {"--address=" + stack.address(), "--timeout=20", "call", "kavro.recording_search",
                   "/kavro/recording_search", "kavro.recording_search", "CreateEventSearch",
                   "uuuuiyyy", std::to_string(LongRecording::kStart), "0",
                   std::to_string(LongRecording::kEnd), "0", "1000000", "0", "0", "0"});
    gone.start();
    std::this_thread::sleep_for(500ms);  // the call reaches the service, which asks the store
    gone.sendSignal(SIGKILL);
    gone.waitForExit();
    stack.store().sendSignal(SIGCONT);
    EXPECT_TRUE(rstest::pollUntil([&] { return createLongEventSearch(observer) > 0; }, 3s))
        << log.dump();
    EXPECT_EQ(stack.stop(), "");
}

}  // namespace
