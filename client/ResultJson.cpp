#include "client/ResultJson.h"

#include "kavro/contract.h"

namespace rsclient {

namespace {

const char* kindName(SearchResult::Kind kind)
{
    switch (kind) {
    case SearchResult::Kind::Metadata: return "metadata";
    case SearchResult::Kind::TrackState: return "track";
    case SearchResult::Kind::RecordingState: return "recording";
    }
    return "unknown";
}

void addRange(Json& j, Micros from, Micros to)
{
    const TimePoint start = timePointAt(from), end = timePointAt(to);
    j["start"] = isoText(start);
    j["end"] = isoText(end);
    j["start_sec"] = start.sec;
    j["start_usec"] = start.usec;
    j["end_sec"] = end.sec;
    j["end_usec"] = end.usec;
}

double secondsOf(Micros d) { return double(d.count()) / 1e6; }

}  // namespace

const char* stateName(uint32_t state)
{
    switch (state) {
    case kavro::contract::kStateSearching: return "searching";
    case kavro::contract::kStateCompleted: return "completed";
    case kavro::contract::kStateUnknown: return "unknown";
    default: return "invalid";
    }
}

void addTime(Json& j, TimePoint t)
{
    j["time"] = isoText(t);
    j["sec"] = t.sec;
    j["usec"] = t.usec;
}

std::string jsonLine(const Json& json)
{
    return json.dump(-1, ' ', false, Json::error_handler_t::replace) + '\n';
}

Json resultJson(const SearchResult& r)
{
    Json j = {{"job", r.jobId}, {"kind", kindName(r.kind)}};
    addTime(j, r.time);
    if (r.kind == SearchResult::Kind::TrackState) j["track"] = r.track;
    if (r.kind != SearchResult::Kind::Metadata) {
        j["on"] = r.on;
        j["start_state"] = r.startState;
    }
    return j;
}

Json spanJson(uint32_t jobId, const Span& span)
{
    Json j = {{"job", jobId}, {"kind", "span"}};
    addRange(j, sinceEpoch(span.start), sinceEpoch(span.end));
    j["matches"] = span.matches;
    if (const auto& a = span.appeared) {
        j["classes"] = a->classes;
        if (!a->colour.empty()) j["colour"] = a->colour;
        if (!a->likelihood.empty()) j["likelihood"] = a->likelihood;
        if (!a->boxAtStart.empty()) j["box_at_start"] = a->boxAtStart;
        if (!a->boxAtEnd.empty()) j["box_at_end"] = a->boxAtEnd;
    }
    return j;
}

Json countJson(const MatchCount& c)
{
    Json j = {{"kind", "count"}};
    addRange(j, sinceEpoch(c.from), sinceEpoch(c.to));
    j["appearances"] = c.appearances;
    j["documents"] = c.documents;
    return j;
}

Json bucketJson(const Bucket& b)
{
    Json j = {{"kind", "bucket"}};
    addRange(j, b.from, b.to);
    j["recording_on_s"] = secondsOf(b.recordingOn);
    j["tracks"] = Json::object();
    for (const auto& [name, on] : b.tracksOn) j["tracks"][name] = secondsOf(on);
    return j;
}

Json gapJson(const Segment& g)
{
    Json j = {{"kind", "gap"}};
    addRange(j, g.from, g.to);
    j["duration_s"] = secondsOf(g.to - g.from);
    return j;
}

Json stateJson(uint32_t jobId, uint32_t state)
{
    return {{"job", jobId}, {"state", state}, {"state_name", stateName(state)}};
}

Json endedJson(uint32_t jobId, TimePoint reached)
{
    Json j = {{"job", jobId}, {"kind", "ended"}};
    addTime(j, reached);
    return j;
}

Json noticeJson(uint32_t jobId, const std::string& text)
{
    return {{"job", jobId}, {"kind", "notice"}, {"message", text}};
}

Json indexJson(const IndexState& state)
{
    Json j = {{"kind", "index"},
              {"state", state.state},
              {"documents", state.documents},
              {"bytes", state.bytes}};
    if (state.documents > 0) {
        j["from"] = isoText(state.from);
        j["through"] = isoText(state.through);
    }
    return j;
}

std::string incompleteText(const SearchEnd& end)
{
    return "a recording service failed during search " + std::to_string(end.jobId) +
           ": the results are incomplete after " + isoText(end.reached);
}

Json searchEndJson(const SearchEnd& end)
{
    if (end.kind == SearchEnd::Kind::EndedElsewhere) {
        return {{"job", end.jobId}, {"kind", "ended_elsewhere"}, {"results", end.results}};
    }
    const char* kind = end.kind == SearchEnd::Kind::Interrupted  ? "interrupted"
                       : end.kind == SearchEnd::Kind::Incomplete ? "incomplete"
                                                                 : "completed";
    Json j = {{"job", end.jobId}, {"kind", kind}, {"results", end.results}};
    addTime(j, end.reached);
    if (end.kind == SearchEnd::Kind::Incomplete) j["error"] = incompleteText(end);
    if (end.indexed) {
        j["index"] = {{"from", isoText(end.indexed->first)},
                      {"to", isoText(end.indexed->second)},
                      {"results", end.fromIndex}};
    }
    return j;
}

}  // namespace rsclient
