// The framework's bus replaced at link time, for the jobs and the target in-process: the
// initiator calls of the three recording services are answered by whatever RecordingServices
// is installed, and a KavroApiRecordingSearchTargetRun keeps the events that its target sends
// instead of putting them on a bus. Shared by the unit tests and the fuzz targets.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "jobs/TimelineStep.h"
#include "kavro/core.h"

namespace fake {

// Missing arrays and documents stay missing, and arrays may differ in length: replies can be
// as malformed as a neighbour service makes them.
struct HistoryAnswer {
    NeighbourTimes times;
    std::optional<std::vector<std::string>> names;
    std::optional<std::vector<uint32_t>> keys;
    std::optional<std::vector<uint32_t>> values;
};

struct MetadataAnswer {
    NeighbourTimes times;
    std::optional<std::string> document;
};

// What the three services answer. Each call returns 0 with its answer filled in, or the
// failure status the caller receives. Calls may come from several threads, never two at once.
class RecordingServices {
public:
    virtual ~RecordingServices() = default;
    virtual kavro_core_status tracks(std::vector<std::string>& names) = 0;
    virtual kavro_core_status summary(SearchTime& start, SearchTime& end) = 0;
    virtual kavro_core_status trackSummary(const std::string& track, SearchTime& start,
                                           SearchTime& end) = 0;
    virtual kavro_core_status state(SearchTime at, unsigned char& state,
                                    std::vector<std::string>& tracksOn) = 0;
    virtual kavro_core_status firstEvent(SearchTime& at) = 0;
    virtual kavro_core_status historyEvent(SearchTime at, HistoryAnswer& answer) = 0;
    virtual kavro_core_status metadata(SearchTime at, MetadataAnswer& answer) = 0;
};

// Until the next install. With none installed every initiator init fails, as with no bus.
void install(RecordingServices* services);

// One event as the target sent it; fields its kind does not carry are zero.
struct Sent {
    enum Kind { Completed, Metadata, Track, Recording } kind = Completed;
    unsigned int jobId = 0;
    SearchTime time;
    std::string track;
    int state = 0;
    int startState = 0;

    bool operator==(const Sent& o) const
    {
        return kind == o.kind && jobId == o.jobId && time == o.time && track == o.track &&
               state == o.state && startState == o.startState;
    }
};
std::ostream& operator<<(std::ostream& os, const Sent& sent);

// Everything sent since the last take, in order.
std::vector<Sent> takeSent();
// Waits until the target has sent SearchCompleted for the job.
bool waitForCompletion(unsigned int jobId,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

}  // namespace fake
