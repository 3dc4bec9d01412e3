#pragma once

#include "jobs/SearchJob.h"
#include "jobs/SearchTime.h"

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

protected:
    void _resetStartingTimes();
    bool _earlier(unsigned int sec1, unsigned int usec1, unsigned int sec2,
                  unsigned int usec2) const;
    using SearchJob::_inRange;
    bool _inRange(unsigned int sec, unsigned int usec) const;

    const SearchTime requestedEnd;
    SearchTime rangeStart;
    SearchTime rangeEnd;
    const bool forward;
    AtomicSearchTime currentTime;
    SearchTime searchPoint;

private:
    bool _narrowToRecording(void* informationHandle);
};
