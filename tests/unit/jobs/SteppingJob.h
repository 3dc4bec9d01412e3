// A timeline walk in fixed steps that reports every point it visits as a result: a stand-in
// for the real searches, following their rules (state test before each step, _inRange on the
// search point, currentTime = requestedEnd on a normal end).
#pragma once

#include <atomic>
#include <chrono>

#include <boost/chrono.hpp>
#include <boost/thread/thread.hpp>

#include "jobs/TimelineSearchJob.h"
#include "target/RecordingSearchTargetImpl.h"

namespace rstest {

struct SteppingOptions {
    int maxResults = -1;
    unsigned int stepSec = 10;
    std::chrono::microseconds pause{0};  // after each step, as the real walks pause
};

class SteppingJob : public TimelineSearchJob {
public:
    using Options = SteppingOptions;

    SteppingJob(unsigned int jobId, RecordingSearchTargetImpl* target, SearchTime start,
                SearchTime end, Options options = {})
        : TimelineSearchJob(jobId, nullptr, target, start.sec, start.usec, end.sec, end.usec,
                            options.maxResults),
          options_(options)
    {
    }

    void performTimelineSearch(void* informationHandle, void* dataAccessHandle) override
    {
        gotHandles.store(informationHandle != nullptr && dataAccessHandle != nullptr);
        walked.store(true);
        walking.store(true);
        walkSteps();
        walking.store(false);
    }

    bool earlier(SearchTime a, SearchTime b) const
    {
        return _earlier(a.sec, a.usec, b.sec, b.usec);
    }
    bool inRange(SearchTime t) const { return _inRange(t.sec, t.usec); }
    SearchTime start() const { return rangeStart; }
    SearchTime end() const { return rangeEnd; }
    bool isForward() const { return forward; }
    SearchTime current() const
    {
        SearchTime t;
        getCurrentTimes(&t.sec, &t.usec);
        return t;
    }

    std::atomic<bool> walked{false};
    std::atomic<bool> walking{false};
    std::atomic<bool> gotHandles{false};

private:
    void walkSteps()
    {
        for (;;) {
            if (getSearchState() == Completed) return;
            if (!_inRange(searchPoint.sec, searchPoint.usec)) {
                currentTime = requestedEnd;
                return;
            }
            RecordingSearchEventData result;
            result.eventType = MetadataSearchResult;
            result.jobId = jobId;
            result.sec = searchPoint.sec;
            result.usec = searchPoint.usec;
            target->queueEventData(result);
            _incResultCount();
            currentTime = searchPoint;
            if (!forward && searchPoint.sec < options_.stepSec) return;
            searchPoint.sec = forward ? searchPoint.sec + options_.stepSec
                                      : searchPoint.sec - options_.stepSec;
            if (options_.pause.count() > 0) {
                boost::this_thread::sleep_for(boost::chrono::microseconds(options_.pause.count()));
            }
        }
    }

    Options options_;
};

}  // namespace rstest
