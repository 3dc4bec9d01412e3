#pragma once

#include <cstdint>
#include <string>

// Which framework event a record becomes. Fixed underlying type: a record may carry any
// 32-bit value, and the dispatch loop drops the ones that name no event.
enum RecordingSearchEventType : std::uint32_t {
    SearchCompleted = 0,
    MetadataSearchResult = 1,
    TrackStateEventSearchResult = 2,
    RecordingStateEventSearchResult = 3,
};

// One event on its way from a job to the clients. Queued by copy.
struct RecordingSearchEventData {
    RecordingSearchEventType eventType = SearchCompleted;
    unsigned int jobId = 0;
    unsigned int sec = 0;
    unsigned int usec = 0;
    std::string trackName;
    unsigned char state = 0;
    unsigned char startState = 0;
};
