// Several clients at once against recording_search while two searches walk the recording:
// every request answers as the contract says, ids never repeat, every search completes exactly
// once. Latency under the same load is bench/system_bench's to measure.
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

class LoadClient {
public:
    LoadClient(const std::string& address, uint32_t walkingA, uint32_t walkingB)
        : client_(address), walking_{walkingA, walkingB}
    {
    }

    void run(Clock::time_point deadline, long maxRequests)
    {
        for (long round = 0; Clock::now() < deadline && out.requests < maxRequests; ++round) {
            switch (round % 4) {
            case 0: noopLifecycle(false); break;
            case 1: refusedCreates(); break;
            case 2: walkingStates(); break;
            case 3: noopLifecycle(true); break;
            }
        }
    }

    ClientOutcome out;

private:
    template <typename Call>
    auto timed(const char* name, Call call)
    {
        auto result = call();
        ++out.requests;
        if (!result.ok()) fail(std::string(name) + ": " + result.errorName + " " +
                                   result.errorMessage);
        return result;
    }

    void fail(const std::string& what)
    {
        if (out.failures.size() < 20) out.failures.push_back(what);
    }

    void noopLifecycle(bool begin)
    {
        const auto created = timed("CreateNoopSearch", [&] { return client_.createNoopSearch(); });
        if (!created.ok()) return;
        if (created.value < 0) return fail("a no-op search was refused");
        const auto id = static_cast<uint32_t>(created.value);
        out.noopIds.push_back(id);
        if (begin) {
            const auto begun = timed("BeginSearch", [&] { return client_.beginSearch(id); });
            if (begun.ok() && begun.value != id) fail("BeginSearch answered another id");
        }
        const auto state = timed("GetSearchState", [&] { return client_.getSearchState(id); });
        if (state.ok() && state.value.state != 2) fail("a no-op search is not completed");
        const auto ended = timed("EndSearch", [&] { return client_.endSearch(id); });
        if (ended.ok() && (ended.value.jobId != id || ended.value.sec != 0 || ended.value.usec != 0)) {
            fail("EndSearch of a no-op search answered " + std::to_string(ended.value.jobId) +
                 " at " + std::to_string(ended.value.sec));
        }
    }

    void refusedCreates()
    {
        const auto events = timed("CreateEventSearch", [&] {
            return client_.createEventSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0, -1,
                                             0, 0, 0);
        });
        if (events.ok() && events.value != -1) fail("a third event search was not refused");
        const auto documents = timed("CreateMetadataSearch", [&] {
            return client_.createMetadataSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0,
                                                -1, "//Frame");
        });
        if (documents.ok() && documents.value != -1) fail("a third metadata search was not refused");
    }

    void walkingStates()
    {
        for (uint32_t id : walking_) {
            const auto state = timed("GetSearchState", [&] { return client_.getSearchState(id); });
            if (state.ok() && state.value.state != 1) fail("a walking search is not searching");
        }
    }

    rstest::SearchClient client_;
    uint32_t walking_[2];
};

uint32_t beginWalk(rstest::SearchClient& client, bool metadata)
{
    const auto created =
        metadata ? client.createMetadataSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0,
                                               -1, "//Object")
                 : client.createEventSearch(LongRecording::kStart, 0, LongRecording::kEnd, 0, -1,
                                            0, 0, 1);
    EXPECT_TRUE(created.ok() && created.value > 0) << created.errorMessage;
    const auto id = static_cast<uint32_t>(created.value);
    EXPECT_TRUE(client.beginSearch(id).ok());
    return id;
}

TEST(LoadRequests, ClientsAtOnceWithTwoSearchesWalking)
{
    const long clients = reliability::envNumber("RS_LOAD_CLIENTS", 4);
    const auto duration = std::chrono::seconds(reliability::envNumber("RS_LOAD_SECONDS", 5));
    const long maxRequests = reliability::envNumber("RS_LOAD_REQUESTS", 20000);

    rstest::ServiceStack stack(reliability::longRecordingStack());
    rstest::SearchClient observer(stack.address());
    const uint32_t events = beginWalk(observer, false);
    const uint32_t documents = beginWalk(observer, true);
    ASSERT_TRUE(reliability::waitForResults(observer, events, 10));
    ASSERT_TRUE(reliability::waitForResults(observer, documents, 10));

    std::vector<std::unique_ptr<LoadClient>> load;
    for (long i = 0; i < clients; ++i) {
        load.push_back(std::make_unique<LoadClient>(stack.address(), events, documents));
    }
    const auto deadline = Clock::now() + duration;
    std::vector<std::thread> threads;
    for (auto& c : load) threads.emplace_back([&c, deadline, maxRequests] {
        c->run(deadline, maxRequests);
    });
    for (auto& t : threads) t.join();

    // The premise: both walks ran for the whole load.
    ASSERT_EQ(observer.getSearchState(events).value.state, 1u) << "the event walk ended early";
    ASSERT_EQ(observer.getSearchState(documents).value.state, 1u)
        << "the metadata walk ended early";
    ASSERT_TRUE(observer.endSearch(events).ok());
    ASSERT_TRUE(observer.endSearch(documents).ok());

    std::vector<uint32_t> ids{events, documents};
    long requests = 0;
    for (auto& c : load) {
        for (const auto& f : c->out.failures) ADD_FAILURE() << f;
        ids.insert(ids.end(), c->out.noopIds.begin(), c->out.noopIds.end());
        requests += c->out.requests;
    }
    const std::set<uint32_t> unique(ids.begin(), ids.end());
    EXPECT_EQ(unique.size(), ids.size()) << "an id was handed out twice";

    const std::set<uint32_t> idSet(ids.begin(), ids.end());
    ASSERT_TRUE(observer.waitUntil(
        [&](const std::vector<rstest::SearchSignal>& all) {
            size_t completions = 0;
            for (const auto& s : all) {
                if (reliability::isCompletion(s) && idSet.count(s.jobId)) ++completions;
            }
            return completions >= ids.size();
        },
        30s))
        << "not every search reported SearchCompleted";
    const auto all = observer.signals();
    std::map<uint32_t, int> completions;
    for (const auto& s : all) {
        if (reliability::isCompletion(s)) ++completions[s.jobId];
    }
    for (uint32_t id : ids) EXPECT_EQ(completions[id], 1) << "search " << id;
    EXPECT_EQ(completions.size(), ids.size()) << "a completion for a search nobody created";

    std::printf("load: %ld clients, %ld requests in %lld s, %zu searches, two walking\n", clients,
                requests, static_cast<long long>(duration.count()), ids.size());
    testing::Test::RecordProperty("requests", static_cast<int>(requests));
    EXPECT_EQ(stack.stop(), "");
}

}  // namespace
