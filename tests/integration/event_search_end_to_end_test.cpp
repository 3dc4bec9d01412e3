// An event search through the real recording_search and recording_store processes: what the
// client receives equals what the generated recording holds.

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "end_to_end_recording.h"
#include "support/SearchClient.h"

namespace {

using namespace e2e;
using rstest::SearchSignal;
using Kind = SearchSignal::Kind;
using namespace std::chrono_literals;

SearchSignal trackSignal(uint32_t id, int64_t t, const std::string& name, int state, int start)
{
    SearchSignal s;
    s.kind = Kind::TrackStateEventSearchResult;
    s.jobId = id;
    s.sec = secOf(t);
    s.usec = usecOf(t);
    s.trackName = name;
    s.state = static_cast<uint8_t>(state);
    s.startState = static_cast<uint8_t>(start);
    return s;
}

SearchSignal recordingSignal(uint32_t id, int64_t t, int state, int start)
{
    SearchSignal s = trackSignal(id, t, "", state, start);
    s.kind = Kind::RecordingStateEventSearchResult;
    return s;
}

// The state in force at t: every property at or before t applied in order. Tracks that are on
// come in the order they were added, then every other track ascending, then the recording.
void appendStateAt(std::vector<SearchSignal>& out, uint32_t id, int64_t t)
{
    const RecordingOnDisk& r = RecordingOnDisk::get();
    int recording = 0;
    std::map<std::string, uint32_t> trackState;
    for (const auto& [time, properties] : r.events()) {
        if (time > t) break;
        for (const auto& p : properties) {
            if (p.key == 0) recording = p.value != 0;
            if (p.key == 1) trackState[p.track] = p.value;
        }
    }
    std::set<std::string> off(r.tracks().begin(), r.tracks().end());
    for (const std::string& track : r.tracks()) {
        if (trackState[track] == 0) continue;
        out.push_back(trackSignal(id, t, track, 1, 1));
        off.erase(track);
    }
    for (const std::string& track : off) out.push_back(trackSignal(id, t, track, 0, 1));
    out.push_back(recordingSignal(id, t, recording, 1));
}

std::vector<SearchSignal> expectedSignals(uint32_t id, int64_t start, int64_t end, int maxResults,
                                          bool startState)
{
    const RecordingOnDisk& r = RecordingOnDisk::get();
    const bool forward = !(end < start);
    int64_t lo = std::max(std::min(start, end), r.first());
    const int64_t hi = std::min(std::max(start, end), r.last());
    std::vector<SearchSignal> out;
    if (startState) appendStateAt(out, id, forward ? lo : hi);
    lo = std::max(lo, r.events().begin()->first);

    std::vector<int64_t> times;
    for (const auto& entry : r.events()) {
        if (entry.first >= lo && entry.first <= hi) times.push_back(entry.first);
    }
    if (!forward) std::reverse(times.begin(), times.end());
    int results = 0;
    for (int64_t t : times) {
        for (const auto& p : r.events().at(t)) {
            if (maxResults >= 0 && results >= maxResults) break;
            ++results;
            out.push_back(p.key == 1 ? trackSignal(id, t, p.track, p.value != 0, 0)
                                     : recordingSignal(id, t, p.value != 0, 0));
        }
    }
    if (startState && !forward) appendStateAt(out, id, lo);
    SearchSignal done;
    done.kind = Kind::SearchCompleted;
    done.jobId = id;
    out.push_back(done);
    return out;
}

struct EndToEndCase {
    const char* name;
    int64_t startOffset, endOffset;  // from the recording's first time; negative: before it
    bool fromEnd;                    // offsets count back from the recording's last time
    int maxResults;
    bool startState;
};

void PrintTo(const EndToEndCase& c, std::ostream* os) { *os << c.name; }

class EventSearchEndToEnd : public testing::TestWithParam<EndToEndCase> {};

TEST_P(EventSearchEndToEnd, ClientReceivesWhatTheRecordingHolds)
{
    const EndToEndCase& c = GetParam();
    const RecordingOnDisk& r = RecordingOnDisk::get();
    ASSERT_GT(r.events().size(), 20u) << "the generated recording should have some history";
    const int64_t base = c.fromEnd ? r.last() : r.first();
    const int64_t start = base + c.startOffset, end = base + c.endOffset;

    rstest::ServiceStack stack(stackOptions());
    rstest::SearchClient client(stack.address());
    const auto created = client.createEventSearch(secOf(start), usecOf(start), secOf(end),
                                                  usecOf(end), c.maxResults, 0, 0, c.startState);
    ASSERT_TRUE(created.ok()) << created.errorMessage;
    ASSERT_GT(created.value, 0);
    const uint32_t id = static_cast<uint32_t>(created.value);
    ASSERT_TRUE(client.beginSearch(id).ok());
    ASSERT_TRUE(client.waitForCompleted(id, 60s));

    const auto ended = client.endSearch(id);
    ASSERT_TRUE(ended.ok());
    EXPECT_EQ(std::make_pair(ended.value.sec, ended.value.usec),
              std::make_pair(secOf(end), usecOf(end)))
        << "a search that ran to its end reports the end it was asked for";
    const auto expected = expectedSignals(id, start, end, c.maxResults, c.startState);
    EXPECT_EQ(client.signalsFor(id), expected);
    EXPECT_EQ(stack.stop(), "");
}

constexpr int64_t kSecond = 1000000;

INSTANTIATE_TEST_SUITE_P(
    Searches, EventSearchEndToEnd,
    testing::Values(
        EndToEndCase{"WholeRecordingForward", -10 * kSecond, 10 * kSecond, true, -1, true},
        EndToEndCase{"WholeRecordingBackward", 10 * kSecond, -1000 * kSecond, true, -1, true},
        EndToEndCase{"MiddleForwardLimited", 100 * kSecond + 250000, 400 * kSecond, false, 10,
                     true},
        EndToEndCase{"MiddleBackwardLimited", 400 * kSecond, 100 * kSecond + 250000, false, 7,
                     true},
        EndToEndCase{"MiddleForwardWithoutStartState", 50 * kSecond, 300 * kSecond, false, -1,
                     false}),
    testing::PrintToStringParamName());

}  // namespace
