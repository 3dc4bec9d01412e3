// The one recording as the standard describes it: its token, its span, its tracks and their
// types, asked of the recording services at the time of the request.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/TimeText.h"

namespace rsclient {
class ServiceConnection;
}

namespace onvif {

// The device keeps one recording; its token never changes.
constexpr const char* kRecordingToken = "RECORDING001";

struct TrackFacts {
    std::string token;
    const char* type;  // Video, Audio, Metadata or Extended
    rsclient::TimePoint from;
    rsclient::TimePoint to;
};

struct RecordingFacts {
    bool hasData = false;
    rsclient::TimePoint from;
    rsclient::TimePoint to;
    bool recording = false;  // switched on at its last time
    std::vector<TrackFacts> tracks;
};

// The recording's span only; nothing when it has no data or its services do not answer.
std::optional<std::pair<rsclient::TimePoint, rsclient::TimePoint>> recordingSpan();
// Everything; throws SoapFault when the recording services do not answer.
RecordingFacts recordingFacts();

// The recording services name tracks but do not type them: the name says what a track holds.
const char* trackType(const std::string& token);

}  // namespace onvif
