#include "jobs/MetadataSearchJob.h"

#include <string_view>

#include "jobs/EndOfSearchException.h"
#include "jobs/InitiatorResults.h"
#include "jobs/XPathMatcher.h"
#include "kavro/contract.h"
#include "kavro/recording_initiators.h"
#include "target/RecordingSearchEventData.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

const TimelineStep::Texts kMetadataStepTexts{
    "Current metadata search point is %d.%06d",
    "Request time is %d.%06d which is outside of our search range of %d.%06d to %d.%06d",
    "Skipping response because its time %d.%06d is outside the range of our search.",
    6,
    NextPresence::NotZeroTime,
};

// A successful answer without a text is taken as an empty document: one that does not parse.
std::string_view textOf(const OwnedText& text) { return text ? text.get() : ""; }

}  // namespace

MetadataSearchJob::MetadataSearchJob(unsigned int jobId, void* logCookie,
                                     RecordingSearchTargetImpl* target, unsigned int startSec,
                                     unsigned int startUsec, unsigned int endSec,
                                     unsigned int endUsec, int maxResults, std::string xpath)
    : TimelineSearchJob(jobId, logCookie, target, startSec, startUsec, endSec, endUsec, maxResults),
      xpath(searchExpression(std::move(xpath))),
      step(logCookie, kMetadataStepTexts)
{
}

MetadataSearchJob::~MetadataSearchJob() = default;

void MetadataSearchJob::performTimelineSearch(void* informationHandle, void* dataAccessHandle)
{
    _narrowToMetadataTrack(informationHandle);
    _resetStartingTimes();
    kavro_core_logging_log(logCookie, 6, "Starting metadata job %d with xpath %s", jobId,
                           xpath.c_str());
    kavro_core_logging_log(logCookie, 7, "%s search %d from %d.%06d to %d.%06d ",
                           forward ? "Forward" : "Backward", jobId, rangeStart.sec, rangeStart.usec,
                           rangeEnd.sec, rangeEnd.usec);
    {
        // An expression that does not compile is accepted: the walk then matches nothing.
        XPathMatcher matcher(xpath);
        std::optional<OwnedText> document;
        _walk(
            "Finished searching search range",
            [&] { document = _getNextMetadataDoc(dataAccessHandle); },
            [&] {
                if (document && matcher.matches(textOf(*document))) _queueResult();
                // Released before the next fetch, so that a walk holds one text at most.
                document.reset();
            },
            [] { return false; });
    }
    kavro_core_logging_log(logCookie, 6, "Metadata Search %d completed work", jobId);
}

void MetadataSearchJob::_narrowToMetadataTrack(void* informationHandle)
{
    unsigned int startSec = 0;
    unsigned int startUsec = 0;
    unsigned int endSec = 0;
    unsigned int endUsec = 0;
    const kavro_core_status status = kavro_api_recording_information_get_track_summary_send(
        informationHandle, "recording_information", kavro::contract::kMetadataTrack, &startSec,
        &startUsec, &endSec, &endUsec);
    if (status != 0) {
        // The track's bounds are unknown: the walk keeps the range as fitted to the recording,
        // and the data-access service's answers alone decide what lies in it.
        kavro_core_logging_log(logCookie, 4,
                               "Could not get the bounds of track META001 (status %d); searching "
                               "the range fitted to the recording",
                               status);
        return;
    }
    if (rangeStart < SearchTime{startSec, startUsec}) {
        kavro_core_logging_log(
            logCookie, 5,
            "Adjusting our search start %d.%06d to the start of the metadata track %d.%06d",
            rangeStart.sec, rangeStart.usec, startSec, startUsec);
        rangeStart = SearchTime{startSec, startUsec};
    }
    if (SearchTime{endSec, endUsec} < rangeEnd) {
        kavro_core_logging_log(
            logCookie, 5,
            "Adjusting our search end %d.%06d to the end of the metadata track %d.%06d",
            rangeEnd.sec, rangeEnd.usec, endSec, endUsec);
        rangeEnd = SearchTime{endSec, endUsec};
    }
}

std::optional<OwnedText> MetadataSearchJob::_getNextMetadataDoc(void* dataAccessHandle)
{
    step.enter(_inRange(searchPoint.sec, searchPoint.usec), searchPoint, rangeStart, rangeEnd);

    NeighbourTimes times;
    char* text = nullptr;
    const kavro_core_status status = kavro_api_recording_data_access_get_metadata_send(
        dataAccessHandle, "recording_data_access", searchPoint.sec, searchPoint.usec,
        &times.cur.sec, &times.cur.usec, &times.prev.sec, &times.prev.usec, &times.next.sec,
        &times.next.usec, &text);
    OwnedText ownedText(text);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 3,
                               "Bad return %d call while getting metadata at time %d.%06d", status,
                               searchPoint.sec, searchPoint.usec);
        _noteServiceFailure(status);
        throw EndOfSearchException();
    }

    const StepVerdict verdict = step.apply(times, _inRange(times.cur.sec, times.cur.usec), forward,
                                           currentTime, searchPoint);
    // An answer whose times are out of order ends the walk unevaluated.
    if (!verdict.linear) throw EndOfSearchException();
    // The text is handed on rather than copied: documents can be large, and one comes every step.
    if (!verdict.accepted) return std::nullopt;
    return ownedText;
}

void MetadataSearchJob::_queueResult()
{
    _incResultCount();
    RecordingSearchEventData data;
    data.eventType = MetadataSearchResult;
    data.jobId = jobId;
    const SearchTime at = currentTime;
    data.sec = at.sec;
    data.usec = at.usec;
    target->queueEventData(data);
}
