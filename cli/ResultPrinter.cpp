#include "ResultPrinter.h"

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

namespace recsearch {

namespace {

// Keys in the order a person reads them: which search, what, when, then the details.
using Json = nlohmann::ordered_json;

const char* stateName(uint32_t state)
{
    switch (state) {
    case 1: return "searching";
    case 2: return "completed";
    case 0: return "unknown";
    default: return "invalid";
    }
}

const char* kindName(SearchResult::Kind kind)
{
    switch (kind) {
    case SearchResult::Kind::Metadata: return "metadata";
    case SearchResult::Kind::TrackState: return "track";
    case SearchResult::Kind::RecordingState: return "recording";
    }
    return "unknown";
}

// Track names come from the recording: keep control bytes from breaking lines or the terminal.
std::string printable(const std::string& text)
{
    std::string out;
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            out += escaped;
        } else {
            out += char(c);
        }
    }
    return out;
}

std::string bothTimes(TimePoint t) { return isoText(t) + " (" + secondsText(t) + ")"; }

void putJson(std::ostream& out, const Json& j)
{
    // Invalid UTF-8 in a track name must not end the run.
    out << j.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n' << std::flush;
}

void addTime(Json& j, TimePoint t)
{
    j["time"] = isoText(t);
    j["sec"] = t.sec;
    j["usec"] = t.usec;
}

}  // namespace

void ResultPrinter::result(const SearchResult& r)
{
    if (json_) {
        Json j = {{"job", r.jobId}, {"kind", kindName(r.kind)}};
        addTime(j, r.time);
        if (r.kind == SearchResult::Kind::TrackState) j["track"] = r.track;
        if (r.kind != SearchResult::Kind::Metadata) {
            j["on"] = r.on;
            j["start_state"] = r.startState;
        }
        putJson(out_, j);
        return;
    }
    out_ << isoText(r.time) << "  " << secondsText(r.time) << "  ";
    switch (r.kind) {
    case SearchResult::Kind::Metadata: out_ << "metadata match"; break;
    case SearchResult::Kind::TrackState: out_ << "track " << printable(r.track) << ' '; break;
    case SearchResult::Kind::RecordingState: out_ << "recording "; break;
    }
    if (r.kind != SearchResult::Kind::Metadata) {
        out_ << (r.on ? "on" : "off");
        if (r.startState) out_ << "  (start state)";
    }
    out_ << '\n' << std::flush;
}

void ResultPrinter::state(uint32_t jobId, uint32_t state)
{
    if (json_) {
        putJson(out_, {{"job", jobId}, {"state", state}, {"state_name", stateName(state)}});
        return;
    }
    out_ << "job " << jobId << ": " << stateName(state);
    if (state == 0) out_ << " (no such search)";
    out_ << '\n' << std::flush;
}

void ResultPrinter::ended(uint32_t jobId, TimePoint reached)
{
    if (json_) {
        Json j = {{"job", jobId}, {"kind", "ended"}};
        addTime(j, reached);
        putJson(out_, j);
        return;
    }
    out_ << "job " << jobId << " ended; it had searched through " << bothTimes(reached) << '\n'
         << std::flush;
}

void ResultPrinter::searchEnded(uint32_t jobId, TimePoint reached, std::size_t results,
                                bool interrupted)
{
    if (json_) {
        Json j = {{"job", jobId},
                            {"kind", interrupted ? "interrupted" : "completed"},
                            {"results", results}};
        addTime(j, reached);
        putJson(out_, j);
        return;
    }
    if (interrupted) {
        err_ << "interrupted: search " << jobId << " ended after " << results
             << " results; it had searched through " << bothTimes(reached) << '\n';
    } else {
        err_ << "search " << jobId << " completed: " << results << " results; searched through "
             << bothTimes(reached) << '\n';
    }
}

void ResultPrinter::endedElsewhere(uint32_t jobId, std::size_t results)
{
    if (json_) {
        putJson(out_, {{"job", jobId}, {"kind", "ended_elsewhere"}, {"results", results}});
        return;
    }
    err_ << "search " << jobId << " was ended by another client after " << results
         << " results\n";
}

}  // namespace recsearch
