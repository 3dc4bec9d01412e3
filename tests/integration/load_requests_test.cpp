// Several clients at once against recording_search while two searches walk the recording:
// every request answers as the contract says, ids never repeat, every search completes exactly
// once, and afterwards no thread or descriptor is left behind. Latency and memory under the
// same load are bench/system_bench's to measure.
//
// RS_LOAD_CLIENTS (default 4) and RS_LOAD_SECONDS (default 5) scale the run; each client also
// stops after RS_LOAD_REQUESTS requests (default 20000), so the run is bounded both ways.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fault_stack.h"
#include "support/SearchClient.h"

namespace {

using namespace std::chrono_literals;
using reliability::LongRecording;
using Clock = std::chrono::steady_clock;

// What one client thread did.
struct ClientOutcome {
    std::vector<uint32_t> noopIds;
    std::vector<std::string> failures;
    long requests = 0;
};

// One client's rounds until the deadline: no-op searches created, begun or not, asked for and
// ended; event and metadata creates, refused while two searches walk; the walks' state.
void loadClient(const std::string& address, const std::vector<uint32_t>& walking,
                Clock::time_point deadline, long maxRequests, ClientOutcome& out)
{
    rstest::SearchClient client(address);
    const auto expect = [&](const auto& result, bool right, const char* wrong) {
        ++out.requests;
        if ((!result.ok() || !right) && out.failures.size() < 20) {
            out.failures.push_back(wrong + (" " + result.errorName + " " + result.errorMessage));
        }
        return result.ok() && right;
    };
    constexpr uint32_t from = LongRecording::kStart, to = LongRecording::kEnd;
    for (long round = 0; Clock::now() < deadline && out.requests < maxRequests; ++round) {
        if (round % 2 == 1) {
            const auto events = client.createEventSearch(from, 0, to, 0, -1, 0, 0, 0);
            expect(events, events.value == -1, "a third event search was not refused");
            const auto documents = client.createMetadataSearch(from, 0, to, 0, -1, "//Frame");
            expect(documents, documents.value == -1, "a third metadata search was not refused");
            for (uint32_t id : walking) {
                const auto state = client.getSearchState(id);
                expect(state, state.value.state == 1, "a walking search is not searching");
            }
            continue;
        }
        const auto created = client.createNoopSearch();
        if (!expect(created, created.value > 0, "a no-op search was refused")) continue;
        const auto id = static_cast<uint32_t>(created.value);
        out.noopIds.push_back(id);
        if (round % 4 == 2) {
            const auto begun = client.beginSearch(id);
            expect(begun, begun.value == id, "BeginSearch answered another id");
        }
        const auto state = client.getSearchState(id);
        expect(state, state.value.state == 2, "a no-op search is not completed");
        const auto ended = client.endSearch(id);
        expect(ended, ended.value.jobId == id && ended.value.sec == 0 && ended.value.usec == 0,
               "EndSearch of a no-op search answered another id or a time");
    }
}

TEST(LoadRequests, ClientsAtOnceWithTwoSearchesWalking)
{
    const long clients = reliability::envNumber("RS_LOAD_CLIENTS", 4);
    const auto duration = std::chrono::seconds(reliability::envNumber("RS_LOAD_SECONDS", 5));
    const long maxRequests = reliability::envNumber("RS_LOAD_REQUESTS", 20000);

    rstest::ServiceStack stack(reliability::longRecordingStack());
    rstest::SearchClient observer(stack.address());
    const auto before = reliability::processUse(stack.service().pid());
    std::vector<uint32_t> walking;
    for (bool metadata : {false, true}) {
        const auto created =
            metadata ? observer.createMetadataSearch(LongRecording::kStart, 0, LongRecording::kEnd,
                                                     0, -1, "//Object")
                     : observer.createEventSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0,
                                                  -1, 0, 0, 1);
        ASSERT_GT(created.value, 0) << created.errorMessage;
        walking.push_back(uint32_t(created.value));
        ASSERT_TRUE(observer.beginSearch(walking.back()).ok());
        ASSERT_TRUE(reliability::waitForResults(observer, walking.back(), 10));
    }

    std::vector<ClientOutcome> outcomes(clients);
    const auto deadline = Clock::now() + duration;
    std::vector<std::thread> threads;
    for (auto& out : outcomes) {
        threads.emplace_back(
            [&, deadline] { loadClient(stack.address(), walking, deadline, maxRequests, out); });
    }
    for (auto& t : threads) t.join();

    // The premise: both walks ran for the whole load.
    for (uint32_t id : walking) {
        ASSERT_EQ(observer.getSearchState(id).value.state, 1u) << "walk " << id << " ended early";
        ASSERT_TRUE(observer.endSearch(id).ok());
    }
    std::vector<uint32_t> ids = walking;
    long requests = 0;
    for (const auto& out : outcomes) {
        for (const auto& f : out.failures) ADD_FAILURE() << f;
        ids.insert(ids.end(), out.noopIds.begin(), out.noopIds.end());
        requests += out.requests;
    }
    const std::set<uint32_t> unique(ids.begin(), ids.end());
    EXPECT_EQ(unique.size(), ids.size()) << "an id was handed out twice";

    const auto completions = [](const std::vector<rstest::SearchSignal>& all) {
        std::map<uint32_t, int> n;
        for (const auto& s : all) {
            if (reliability::isCompletion(s)) ++n[s.jobId];
        }
        return n;
    };
    EXPECT_TRUE(observer.waitUntil(
        [&](const auto& all) { return completions(all).size() >= ids.size(); }, 30s))
        << "not every search reported SearchCompleted";
    const auto counted = completions(observer.signals());
    for (uint32_t id : ids) EXPECT_EQ(counted.count(id) ? counted.at(id) : 0, 1) << "search " << id;
    EXPECT_EQ(counted.size(), ids.size()) << "a completion for a search nobody created";
    const auto after = reliability::processUse(stack.service().pid());
    EXPECT_EQ(after.threads, before.threads) << "a worker was left behind";
    EXPECT_EQ(after.fds, before.fds) << "a connection or file was left open";

    std::printf("load: %ld clients, %ld requests in %lld s, %zu searches, two walking\n", clients,
                requests, static_cast<long long>(duration.count()), ids.size());
    testing::Test::RecordProperty("requests", static_cast<int>(requests));
    EXPECT_EQ(stack.stop(), "");
}

}  // namespace
