#include "onvif/RecordingFacts.h"

#include <strings.h>

#include <cstring>

#include "client/ClientError.h"
#include "client/ServiceConnection.h"
#include "onvif/SoapFault.h"

namespace onvif {

const char* trackType(const std::string& token)
{
    const auto startsWith = [&](const char* prefix) {
        return strncasecmp(token.c_str(), prefix, std::strlen(prefix)) == 0;
    };
    if (startsWith("video")) return "Video";
    if (startsWith("audio")) return "Audio";
    if (startsWith("meta")) return "Metadata";
    return "Extended";
}

std::optional<std::pair<rsclient::TimePoint, rsclient::TimePoint>> recordingSpan()
{
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    return service.recordingSpan();
}

RecordingFacts recordingFacts()
{
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    RecordingFacts facts;
    try {
        const auto span = service.recordingSpan();
        facts.hasData = span.has_value();
        if (span) {
            facts.from = span->first;
            facts.to = span->second;
            facts.recording = service.recordingOnAt(span->second);
        }
        for (const auto& [token, trackSpan] : service.trackSpans()) {
            // A track without data is shown empty at the recording's start.
            const auto from = trackSpan ? trackSpan->first : facts.from;
            const auto to = trackSpan ? trackSpan->second : facts.from;
            facts.tracks.push_back(TrackFacts{token, trackType(token), from, to});
        }
    } catch (const rsclient::ClientError&) {
        throw SoapFault(SoapFault::Code::Receiver, {"ter:Action"},
                        "the recording services did not answer");
    }
    return facts;
}

}  // namespace onvif
