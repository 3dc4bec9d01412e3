#include "jobs/EventSearchJob.h"

#include "jobs/EndOfSearchException.h"
#include "jobs/InitiatorResults.h"
#include "kavro/contract.h"
#include "kavro/recording_initiators.h"
#include "target/RecordingSearchEventData.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

const TimelineStep::Texts kEventStepTexts{
    "Current event search point is %d.%06d",
    "Request time is %d.%06d which is outside of our search range of %d.%06d to %d.%06d, or "
    "the maximum result count has been reached",
    "Skipping response because its time %d.%06d is outside the range of our search or the "
    "maximum result count has been reached",
    5,
    NextPresence::HalvesSumNonZero,
};

}  // namespace

EventSearchJob::EventSearchJob(unsigned int jobId, void* logCookie,
                               RecordingSearchTargetImpl* target, unsigned int startSec,
                               unsigned int startUsec, unsigned int endSec, unsigned int endUsec,
                               int maxResults, bool requestFlag1, bool requestFlag2,
                               bool includeStartStateEvents)
    : TimelineSearchJob(jobId, logCookie, target, startSec, startUsec, endSec, endUsec, maxResults),
      requestFlag1(requestFlag1),
      requestFlag2(requestFlag2),
      includeStartStateEvents(includeStartStateEvents),
      step(logCookie, kEventStepTexts)
{
    _fetchAllTracks();
}

EventSearchJob::~EventSearchJob() = default;

void EventSearchJob::_fetchAllTracks()
{
    void* handle = nullptr;
    if (kavro_api_recording_control_initiator_init(nullptr, logCookie, &handle, nullptr, nullptr) !=
        0) {
        kavro_core_logging_log(logCookie, 3, "Could not connect to Recording Control service");
        return;
    }
    struct Closer {
        void* handle;
        ~Closer() { kavro_api_recording_control_initiator_deinit(handle); }
    } closer{handle};

    char** tracks = nullptr;
    const kavro_core_status status =
        kavro_api_recording_control_get_tracks_send(handle, "recording_control", &tracks);
    OwnedStringArray ownedTracks(tracks);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 3, "Couldn't get list of all tracks");
        return;
    }
    // A successful answer without an array lists no tracks.
    for (std::size_t i = 0; tracks != nullptr && tracks[i] != nullptr; ++i) {
        allTracks.insert(tracks[i]);
    }
}

void EventSearchJob::performTimelineSearch(void* informationHandle, void* dataAccessHandle)
{
    if (includeStartStateEvents) {
        const SearchTime& point = forward ? rangeStart : rangeEnd;
        _findStateEventsAt(informationHandle, point.sec, point.usec);
    }
    _startAtFirstEvent(dataAccessHandle);

    // One list serves every step, so that a step reuses the room of the one before.
    std::vector<EventProperty> properties;
    _walk(
        "Successful completion of search range",
        [&] { _getNextEvents(dataAccessHandle, properties); },
        [&] { _queueProperties(properties); }, [&] { return getSearchState() == Completed; });

    if (includeStartStateEvents && !forward) {
        _findStateEventsAt(informationHandle, rangeStart.sec, rangeStart.usec);
    }
    kavro_core_logging_log(logCookie, 6, "Event Search %d completed work", jobId);
}

void EventSearchJob::_startAtFirstEvent(void* dataAccessHandle)
{
    unsigned int sec = 0;
    unsigned int usec = 0;
    const kavro_core_status status =
        kavro_api_recording_data_access_get_first_recording_history_event_time_send(
            dataAccessHandle, "recording_data_access", &sec, &usec);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 4, "Call to get first recording history event failed %d",
                               status);
        return;
    }
    if (SearchTime{sec, usec} < rangeStart) return;
    kavro_core_logging_log(logCookie, 5,
                           "First recording event %d.%06d is after our search start %d.%06d.", sec,
                           usec, rangeStart.sec, rangeStart.usec);
    rangeStart = SearchTime{sec, usec};
    // Going backward the walk keeps its starting point; only where it stops moves.
    if (forward) {
        currentTime = rangeStart;
        searchPoint = rangeStart;
    }
}

void EventSearchJob::_getNextEvents(void* dataAccessHandle, std::vector<EventProperty>& properties)
{
    properties.clear();
    step.enter(_inRange(searchPoint.sec, searchPoint.usec), searchPoint, rangeStart, rangeEnd);

    NeighbourTimes times;
    char** names = nullptr;
    unsigned int** keys = nullptr;
    unsigned int** values = nullptr;
    const kavro_core_status status =
        kavro_api_recording_data_access_get_recording_history_event_send(
            dataAccessHandle, "recording_data_access", searchPoint.sec, searchPoint.usec,
            &times.cur.sec, &times.cur.usec, &times.prev.sec, &times.prev.usec, &times.next.sec,
            &times.next.usec, &names, &keys, &values);
    // Declared in reverse so that keys, then values, then names are released.
    OwnedStringArray ownedNames(names);
    OwnedUintArray ownedValues(values);
    OwnedUintArray ownedKeys(keys);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 3,
                               "Bad return from %s while getting Recording/History events",
                               "recording_data_access");
        _noteServiceFailure(status);
        throw EndOfSearchException();
    }

    const StepVerdict verdict = step.apply(times, _inRange(times.cur.sec, times.cur.usec), forward,
                                           currentTime, searchPoint);
    if (verdict.accepted) _takeProperties(names, keys, values, properties);
    // The properties of an answer whose times are out of order are dropped unreported.
    if (!verdict.linear) throw EndOfSearchException();
}

void EventSearchJob::_takeProperties(char** names, unsigned int** keys, unsigned int** values,
                                     std::vector<EventProperty>& properties)
{
    // A reply may be malformed. A missing array is taken as empty, and the three arrays end
    // where the shortest ends: a pair without a name stops the list just as a missing key or
    // value does, so no name is ever read past its array's end.
    const std::size_t nameCount = nullTerminatedLength(names);
    std::size_t i = 0;
    for (; _inRange() && keys != nullptr && values != nullptr && keys[i] != nullptr &&
           values[i] != nullptr;
         ++i) {
        if (i >= nameCount) {
            kavro_core_logging_log(logCookie, 4,
                                   "History event at %d.%06d has track names for only %d of "
                                   "its properties; the rest are dropped",
                                   currentTime.load().sec, currentTime.load().usec,
                                   static_cast<int>(nameCount));
            break;
        }
        properties.push_back(EventProperty{*keys[i], *values[i], names[i]});
        _incResultCount();
    }
}

void EventSearchJob::_queueProperties(const std::vector<EventProperty>& properties)
{
    RecordingSearchEventData data;
    data.jobId = jobId;
    const SearchTime at = currentTime;
    data.sec = at.sec;
    data.usec = at.usec;
    data.startState = 0;
    for (const EventProperty& property : properties) {
        data.state = property.value != 0 ? 1 : 0;
        if (property.key == kavro::contract::kTrackKey) {
            data.eventType = TrackStateEventSearchResult;
            data.trackName = property.name;
        } else if (property.key == kavro::contract::kRecordingKey) {
            data.eventType = RecordingStateEventSearchResult;
            data.trackName.clear();
        } else {
            kavro_core_logging_log(logCookie, 4, "Unknown event key=%d", property.key);
            continue;
        }
        target->queueEventData(data);
    }
}

void EventSearchJob::_findStateEventsAt(void* informationHandle, unsigned int sec,
                                        unsigned int usec)
{
    if (getSearchState() == Completed) return;
    kavro_core_logging_log(logCookie, 7, "Including start state events at %s search",
                           forward ? "beginning of forward" : "end of backward");

    unsigned char state = 0;
    char** tracksOn = nullptr;
    const kavro_core_status status = kavro_api_recording_information_get_recording_state_send(
        informationHandle, "recording_information", sec, usec, &state, &tracksOn);
    OwnedStringArray ownedTracksOn(tracksOn);
    if (status != 0) {
        kavro_core_logging_log(logCookie, 3, "Kavro get_recording_state failed with %d", status);
        return;
    }

    RecordingSearchEventData data;
    data.jobId = jobId;
    data.sec = sec;
    data.usec = usec;
    data.startState = 1;
    data.eventType = TrackStateEventSearchResult;
    std::set<std::string> remaining = allTracks;
    // A successful answer without an array has no track on.
    for (std::size_t i = 0; tracksOn != nullptr && tracksOn[i] != nullptr; ++i) {
        data.trackName = tracksOn[i];
        data.state = 1;
        target->queueEventData(data);
        remaining.erase(data.trackName);
    }
    for (const std::string& name : remaining) {
        data.trackName = name;
        data.state = 0;
        target->queueEventData(data);
    }
    data.eventType = RecordingStateEventSearchResult;
    data.trackName.clear();
    data.state = state != 0 ? 1 : 0;
    target->queueEventData(data);
}
