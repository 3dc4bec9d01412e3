#include "jobs/TimelineSearchJob.h"

#include <algorithm>

#include "kavro/core.h"
#include "kavro/recording_initiators.h"

namespace {

// Releases the walk's two initiator handles however the walk ends, data access first.
class WalkHandles {
public:
    explicit WalkHandles(void* logCookie)
    {
        kavro_api_recording_information_initiator_init(nullptr, logCookie, &information, nullptr,
                                                       nullptr);
        kavro_api_recording_data_access_initiator_init(nullptr, logCookie, &dataAccess, nullptr,
                                                       nullptr);
    }
    ~WalkHandles()
    {
        kavro_api_recording_data_access_initiator_deinit(dataAccess);
        kavro_api_recording_information_initiator_deinit(information);
    }
    WalkHandles(const WalkHandles&) = delete;
    WalkHandles& operator=(const WalkHandles&) = delete;

    void* information = nullptr;
    void* dataAccess = nullptr;
};

}  // namespace

TimelineSearchJob::TimelineSearchJob(unsigned int jobId, void* logCookie,
                                     RecordingSearchTargetImpl* target, unsigned int startSec,
                                     unsigned int startUsec, unsigned int endSec,
                                     unsigned int endUsec, int maxResults)
    : SearchJob(jobId, logCookie, target, maxResults),
      requestedEnd{endSec, endUsec},
      rangeStart(std::min(SearchTime{startSec, startUsec}, requestedEnd)),
      rangeEnd(std::max(requestedEnd, SearchTime{startSec, startUsec})),
      forward(!(requestedEnd < SearchTime{startSec, startUsec}))
{
    _resetStartingTimes();
    const SearchTime current = currentTime.load();
    kavro_core_logging_log(logCookie, 6,
                           "%d - Created new %s search from %d.%06d to %d.%06d. Starting at "
                           "%d.%06d",
                           jobId, forward ? "forward" : "backward", rangeStart.sec, rangeStart.usec,
                           rangeEnd.sec, rangeEnd.usec, current.sec, current.usec);
}

TimelineSearchJob::~TimelineSearchJob()
{
    kavro_core_logging_log(logCookie, 6, "%d - ~TimelineSearchJob", jobId);
}

void TimelineSearchJob::performSearch()
{
    WalkHandles handles(logCookie);
    if (_narrowToRecording(handles.information)) {
        performTimelineSearch(handles.information, handles.dataAccess);
    }
}

// Without the recording's bounds there is nothing sound to walk, so a failed summary ends the
// walk at once and the client sees only the completion.
bool TimelineSearchJob::_narrowToRecording(void* informationHandle)
{
    SearchTime recordingStart;
    SearchTime recordingEnd;
    const kavro_core_status status = kavro_api_recording_information_get_recording_summary_send(
        informationHandle, "recording_information", &recordingStart.sec, &recordingStart.usec,
        &recordingEnd.sec, &recordingEnd.usec);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 4,
                               "%d - Could not get the recording summary (status %d), ending "
                               "the search",
                               jobId, status);
        _noteServiceFailure(status);
        return false;
    }
    if (rangeStart < recordingStart) {
        kavro_core_logging_log(logCookie, 5,
                               "Adjusting our search start %d.%06d to the start of the "
                               "recording %d.%06d",
                               rangeStart.sec, rangeStart.usec, recordingStart.sec,
                               recordingStart.usec);
        rangeStart = recordingStart;
    }
    if (recordingEnd < rangeEnd) {
        kavro_core_logging_log(logCookie, 5,
                               "Adjusting our search end %d.%06d to the end of the recording "
                               "%d.%06d",
                               rangeEnd.sec, rangeEnd.usec, recordingEnd.sec, recordingEnd.usec);
        rangeEnd = recordingEnd;
    }
    _resetStartingTimes();
    return true;
}

void TimelineSearchJob::getCurrentTimes(unsigned int* sec, unsigned int* usec) const
{
    const SearchTime current = currentTime.load();
    *sec = current.sec;
    *usec = current.usec;
}

bool TimelineSearchJob::endedByServiceFailure(SearchTime* reached) const
{
    if (!failed.load(std::memory_order_acquire)) return false;
    *reached = failedAt.load();
    return true;
}

// The framework's own statuses say that a service could not be reached or did not answer in
// time; a service's own status (no data, say) is one of its answers.
void TimelineSearchJob::_noteServiceFailure(kavro_core_status status)
{
    if (status < KAVRO_STATUS_INVALID_ARGUMENT) return;
    failedAt = currentTime.load();
    failed.store(true, std::memory_order_release);
}

void TimelineSearchJob::_resetStartingTimes()
{
    const SearchTime start = forward ? rangeStart : rangeEnd;
    currentTime = start;
    searchPoint = start;
}

bool TimelineSearchJob::_inRange(unsigned int sec, unsigned int usec) const
{
    if (!SearchJob::_inRange()) {
        return false;
    }
    const SearchTime time{sec, usec};
    return rangeStart <= time && time <= rangeEnd;
}
