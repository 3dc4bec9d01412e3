#pragma once

#include <atomic>

#include "jobs/EndOfSearchException.h"
#include "jobs/SearchJob.h"
#include "jobs/SearchTime.h"
#include "jobs/TimelineStep.h"
#include "kavro/core.h"

// A search that walks the recorded timeline between two inclusive bounds, forward or backward.
// The constructor runs on a request thread; performSearch and the whole walk run on the job's
// worker, which alone writes the range, currentTime and searchPoint after construction.
// getCurrentTimes may run on a request thread at the same time: currentTime is atomic.
class TimelineSearchJob : public SearchJob {
public:
    TimelineSearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target,
                      unsigned int startSec, unsigned int startUsec, unsigned int endSec,
                      unsigned int endUsec, int maxResults);
    ~TimelineSearchJob() override;

    void performSearch() override;
    // The handles are valid only for the length of the call; the walk neither keeps nor
    // releases them.
    virtual void performTimelineSearch(void* informationHandle, void* dataAccessHandle) = 0;

    void getCurrentTimes(unsigned int* sec, unsigned int* usec) const;
    // True when the walk ended because a recording service failed; `reached` is then where it
    // had got to. Safe from any thread.
    bool endedByServiceFailure(SearchTime* reached) const;

protected:
    void _resetStartingTimes();
    // On the worker, when a call fails with `status`: if the service failed (rather than
    // answering a status of its own), the walk is cut short here, not at its end.
    void _noteServiceFailure(kavro_core_status status);
    bool _earlier(unsigned int sec1, unsigned int usec1, unsigned int sec2,
                  unsigned int usec2) const
    {
        return SearchTime{sec1, usec1} < SearchTime{sec2, usec2};
    }
    using SearchJob::_inRange;
    bool _inRange(unsigned int sec, unsigned int usec) const;

    // The loop of both searches. It asks the state before every step and stops once the job
    // is Completed. fetch() ends the walk normally by throwing EndOfSearchException:
    // finishedText is logged at 7 and currentTime becomes requestedEnd. Otherwise take() uses
    // what fetch() found, and endsBeforePause() may stop the walk before the pause.
    template <typename Fetch, typename Take, typename EndsBeforePause>
    void _walk(const char* finishedText, Fetch fetch, Take take, EndsBeforePause endsBeforePause)
    {
        while (getSearchState() != Completed) {
            try {
                fetch();
            } catch (const EndOfSearchException&) {
                kavro_core_logging_log(logCookie, 7, "%s", finishedText);
                currentTime = requestedEnd;
                return;
            }
            take();
            if (endsBeforePause()) return;
            TimelineStep::pause();
        }
    }

    const SearchTime requestedEnd;
    SearchTime rangeStart;
    SearchTime rangeEnd;
    const bool forward;
    AtomicSearchTime currentTime;
    AtomicSearchTime failedAt;
    std::atomic<bool> failed{false};  // published after failedAt
    SearchTime searchPoint;

private:
    bool _narrowToRecording(void* informationHandle);
};
