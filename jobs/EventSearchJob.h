#pragma once

#include <set>
#include <string>
#include <vector>

#include "jobs/TimelineSearchJob.h"
#include "jobs/TimelineStep.h"

// One change taken from a history event.
struct EventProperty {
    unsigned int key;    // 0: the recording's state, 1: a track's state, else unknown
    unsigned int value;  // nonzero: on
    std::string name;    // the track, for key 1
};

// Reports when the recording and its tracks were switched on or off within a range, and on
// request the state in force where the walk starts (and, going backward, where it ends).
//
// Threads: the constructor runs on the request thread that creates the search and is the only
// writer of allTracks and the flags; everything else runs on the job's worker.
class EventSearchJob : public TimelineSearchJob {
public:
    EventSearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target,
                   unsigned int startSec, unsigned int startUsec, unsigned int endSec,
                   unsigned int endUsec, int maxResults, bool requestFlag1, bool requestFlag2,
                   bool includeStartStateEvents);
    ~EventSearchJob() override;

    void performTimelineSearch(void* informationHandle, void* dataAccessHandle) override;

    // The two request flags select nothing yet; they are kept so that a client's request is
    // not silently altered once they do.
    bool getRequestFlag1() const { return requestFlag1; }
    bool getRequestFlag2() const { return requestFlag2; }
    bool getIncludeStartStateEvents() const { return includeStartStateEvents; }
    const std::set<std::string>& getAllTracks() const { return allTracks; }

protected:
    // One step: replaces the contents of properties with what the answer at searchPoint
    // yields; throws EndOfSearchException to end the walk.
    void _getNextEvents(void* dataAccessHandle, std::vector<EventProperty>& properties);
    void _findStateEventsAt(void* informationHandle, unsigned int sec, unsigned int usec);
    // Appends the properties of one answer while the result limit allows, counting each.
    void _takeProperties(char** names, unsigned int** keys, unsigned int** values,
                         std::vector<EventProperty>& properties);

private:
    void _fetchAllTracks();
    void _startAtFirstEvent(void* dataAccessHandle);
    void _queueProperties(const std::vector<EventProperty>& properties);

    std::set<std::string> allTracks;
    const bool requestFlag1;
    const bool requestFlag2;
    const bool includeStartStateEvents;
    const TimelineStep step;
};
