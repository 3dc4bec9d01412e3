// What the event and metadata search tests share: a target whose queue the test reads, the
// scripted recording services, and the records of one search in a form that prints well.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/SearchTime.h"
#include "support/LogCapture.h"
#include "support/ScriptedRecordingServices.h"
#include "unit/target/InspectableTarget.h"

namespace walktest {

inline rstest::StoreTime st(SearchTime t) { return rstest::StoreTime{t.sec, t.usec}; }

// One queued record, with only the fields its kind carries.
struct Rec {
    RecordingSearchEventType type = SearchCompleted;
    SearchTime time;
    std::string track;
    int state = 0;
    int startState = 0;

    bool operator==(const Rec& o) const
    {
        return type == o.type && time == o.time && track == o.track && state == o.state &&
               startState == o.startState;
    }
};

inline std::ostream& operator<<(std::ostream& os, const Rec& r)
{
    static const char* const kinds[] = {"Completed", "Metadata", "Track", "Recording"};
    os << "{" << (r.type <= 3 ? kinds[r.type] : "?") << " " << r.time.sec << "."
       << r.time.usec;
    if (r.type == TrackStateEventSearchResult) os << " " << r.track;
    if (r.type >= TrackStateEventSearchResult) {
        os << " state=" << r.state << " start=" << r.startState;
    }
    return os << "}";
}

inline Rec track(SearchTime t, std::string name, int state, int startState = 0)
{
    return Rec{TrackStateEventSearchResult, t, std::move(name), state, startState};
}
inline Rec recording(SearchTime t, int state, int startState = 0)
{
    return Rec{RecordingStateEventSearchResult, t, "", state, startState};
}
inline Rec meta(SearchTime t) { return Rec{MetadataSearchResult, t, "", 0, 0}; }
inline Rec completed() { return Rec{}; }

inline Rec toRec(const RecordingSearchEventData& d)
{
    Rec r;
    r.type = d.eventType;
    if (d.eventType == SearchCompleted) return r;
    r.time = SearchTime{d.sec, d.usec};
    if (d.eventType == MetadataSearchResult) return r;
    if (d.eventType == TrackStateEventSearchResult) r.track = d.trackName;
    r.state = d.state;
    r.startState = d.startState;
    return r;
}

inline std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* fmt, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

class WalkTest : public ::testing::Test {
protected:
    int createEvent(SearchTime start, SearchTime end, int maxResults = -1,
                    unsigned char includeStartState = 0, unsigned char flag1 = 0,
                    unsigned char flag2 = 0)
    {
        int id = -7;
        EXPECT_EQ(target.createEventSearch(start.sec, start.usec, end.sec, end.usec, maxResults,
                                           flag1, flag2, includeStartState, &id),
                  0);
        return id;
    }

    int createMetadata(SearchTime start, SearchTime end, int maxResults, const std::string& xpath)
    {
        int id = -7;
        EXPECT_EQ(target.createMetadataSearch(start.sec, start.usec, end.sec, end.usec,
                                              maxResults, xpath.c_str(), &id),
                  0);
        return id;
    }

    void begin(int id)
    {
        unsigned int out = 0;
        EXPECT_EQ(target.beginSearch(static_cast<unsigned int>(id), &out), 0);
    }

    bool waitCompleted(int id)
    {
        return rstest::eventually(
            [&] { return target.completedCount(static_cast<unsigned int>(id)) == 1; });
    }

    // Begins the search, waits until its worker has queued SearchCompleted (its last record
    // when it ends by itself), and returns every record of the job.
    std::vector<Rec> run(int id)
    {
        begin(id);
        EXPECT_TRUE(waitCompleted(id)) << log.dump();
        return records(id);
    }

    std::vector<Rec> records(int id)
    {
        std::vector<Rec> out;
        for (const auto& d : target.queued()) {
            if (d.jobId == static_cast<unsigned int>(id)) out.push_back(toRec(d));
        }
        return out;
    }

    // Ends the search (joining its worker) and returns the time it reports.
    SearchTime end(int id)
    {
        unsigned int out = 0;
        SearchTime t{12345, 6789};
        EXPECT_EQ(target.endSearch(static_cast<unsigned int>(id), &out, &t.sec, &t.usec), 0);
        return t;
    }

    int callCount(const std::string& method) { return services->callCount(method); }

    // The arguments of every request of `method`, in the order they arrived.
    std::vector<std::string> requestsOf(const std::string& method)
    {
        std::vector<std::string> args;
        for (const auto& call : services->calls()) {
            if (call.method == method) args.push_back(call.args);
        }
        return args;
    }

    rstest::LogCapture log;
    rstest::InspectableTarget target;
    std::optional<rstest::ScriptedRecordingServices> services{std::in_place};
};

// Four history events from 100.0 to 130.0. The tracks are listed in an order that is not
// ascending, so that "the service's order" and "ascending" differ in the start-state records.
const SearchTime t100{100, 0}, t110{110, 500000}, t120{120, 0}, t130{130, 0};

inline rstest::Recording fourEventRecording()
{
    rstest::Recording r;
    r.tracks = {"V1", "A1", "V2"};
    r.events = {
        {st(t100), {{"", 0, 1}, {"V1", 1, 1}, {"A1", 1, 1}}},
        {st(t110), {{"V2", 1, 1}}},
        {st(t120), {{"V1", 1, 0}}},
        {st(t130), {{"", 0, 0}, {"V2", 1, 0}, {"A1", 1, 0}}},
    };
    return r;
}

// Event searches over the four-event recording.
class EventWalkTest : public WalkTest {
protected:
    void SetUp() override { services->setRecording(fourEventRecording()); }
};

// Holds a scripted answer until the test opens the gate, so that a test can act while a
// worker waits for a reply. Opening is final; the gate also opens by itself after a generous
// timeout, so that a failing test cannot hang the run.
class Gate {
public:
    void waitOpen()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        ++waiting_;
        changed_.notify_all();
        changed_.wait_for(lock, std::chrono::seconds(20), [&] { return open_; });
    }
    bool waitForWaiter(std::chrono::milliseconds timeout = std::chrono::seconds(10))
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return waiting_ > 0; });
    }
    void open()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int waiting_ = 0;
    bool open_ = false;
};

// When each request of one kind reached the scripted service, to check the walk's pause.
class RequestClock {
public:
    void tick()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        times_.push_back(std::chrono::steady_clock::now());
    }
    // The shortest time between two consecutive requests; max() with fewer than two.
    std::chrono::steady_clock::duration shortestGap() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto shortest = std::chrono::steady_clock::duration::max();
        for (size_t i = 1; i < times_.size(); ++i) {
            shortest = std::min(shortest, times_[i] - times_[i - 1]);
        }
        return shortest;
    }
    size_t count() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return times_.size();
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::chrono::steady_clock::time_point> times_;
};

}  // namespace walktest
