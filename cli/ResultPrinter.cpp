#include "ResultPrinter.h"

#include <algorithm>
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

std::string rangeText(Micros from, Micros to)
{
    return isoText(timePointAt(from)) + " .. " + isoText(timePointAt(to));
}

// "123.4 s  41%", the on-time of one bucket.
std::string shareText(Micros on, Micros of)
{
    char text[48];
    // Rounded down: 100% only when it was on all the time.
    const int64_t percent = of.count() > 0 ? on.count() * 100 / of.count() : 0;
    std::snprintf(text, sizeof text, "%.1f s %3lld%%", secondsOf(on), (long long)percent);
    return text;
}

// Whole seconds, the common case, without the microseconds.
std::string bucketStart(Micros t)
{
    std::string text = isoText(timePointAt(t));
    const std::string zero = ".000000Z";
    const std::size_t at = text.size() - zero.size();
    if (text.compare(at, zero.size(), zero) == 0) text.replace(at, zero.size(), "Z");
    return text;
}

}  // namespace

void ResultPrinter::span(uint32_t jobId, const Span& span)
{
    const Micros from = sinceEpoch(span.start), to = sinceEpoch(span.end);
    if (json_) {
        Json j = {{"job", jobId}, {"kind", "span"}};
        addRange(j, from, to);
        j["matches"] = span.matches;
        putJson(out_, j);
        return;
    }
    out_ << rangeText(from, to) << "  " << durationText(to - from) << "  " << span.matches
         << (span.matches == 1 ? " match\n" : " matches\n") << std::flush;
}

void ResultPrinter::coverage(const std::vector<Bucket>& buckets, const std::vector<Segment>& gaps)
{
    if (json_) {
        for (const auto& b : buckets) {
            Json j = {{"kind", "bucket"}};
            addRange(j, b.from, b.to);
            j["recording_on_s"] = secondsOf(b.recordingOn);
            j["tracks"] = Json::object();
            for (const auto& [name, on] : b.tracksOn) j["tracks"][name] = secondsOf(on);
            putJson(out_, j);
        }
        for (const auto& g : gaps) {
            Json j = {{"kind", "gap"}};
            addRange(j, g.from, g.to);
            j["duration_s"] = secondsOf(g.to - g.from);
            putJson(out_, j);
        }
        return;
    }
    if (buckets.empty()) return;
    // A table: a bucket a line, a column per row of the picture, each wide enough for its name.
    out_ << rangeText(buckets.front().from, buckets.back().to) << " in buckets of "
         << durationText(buckets.front().to - buckets.front().from)
         << ": how long each was on\n";
    std::vector<std::string> names{"recording"};
    for (const auto& entry : buckets.front().tracksOn) names.push_back(printable(entry.first));
    auto column = [&](const std::string& text, const std::string& name) {
        const std::size_t width = std::max<std::size_t>(12, name.size());
        out_ << "  " << std::string(width > text.size() ? width - text.size() : 0, ' ') << text;
    };
    const std::string first = bucketStart(buckets.front().from);
    out_ << "from" << std::string(first.size() - 4, ' ');
    for (const auto& name : names) column(name, name);
    out_ << '\n';
    for (const auto& b : buckets) {
        out_ << bucketStart(b.from);
        column(shareText(b.recordingOn, b.to - b.from), names[0]);
        std::size_t i = 1;
        for (const auto& entry : b.tracksOn) {
            column(shareText(entry.second, b.to - b.from), names[i++]);
        }
        out_ << '\n';
    }
    if (gaps.empty()) {
        out_ << "\nno gaps: the recording was never off for more than a minute\n";
    } else {
        out_ << "\ngaps (the recording off for more than a minute):\n";
        for (const auto& g : gaps) {
            out_ << "  " << rangeText(g.from, g.to) << "  " << durationText(g.to - g.from) << '\n';
        }
    }
    out_ << std::flush;
}

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
