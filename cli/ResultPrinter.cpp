#include "ResultPrinter.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "client/InputText.h"
#include "client/ResultJson.h"
#include "kavro/contract.h"

namespace recsearch {

using namespace rsclient;

namespace {

std::string bothTimes(TimePoint t) { return isoText(t) + " (" + secondsText(t) + ")"; }

void putJson(std::ostream& out, const Json& j) { out << jsonLine(j) << std::flush; }

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
        putJson(out_, spanJson(jobId, span));
        return;
    }
    out_ << prefix_ << rangeText(from, to) << "  " << durationText(to - from) << "  "
         << span.matches << (span.matches == 1 ? " match" : " matches");
    if (const auto& a = span.appeared) {
        std::string classes;
        for (const auto& name : a->classes) classes += (classes.empty() ? "" : ",") + name;
        out_ << "  " << printable(classes);
        if (!a->colour.empty()) out_ << ' ' << printable(a->colour);
        if (!a->likelihood.empty()) out_ << ' ' << printable(a->likelihood);
    }
    out_ << '\n' << std::flush;
}

void ResultPrinter::coverage(const Picture& picture, Micros size, const std::vector<Segment>& gaps)
{
    if (json_) {
        forEachBucket(picture, size, [&](const Bucket& b) { putJson(out_, bucketJson(b)); });
        for (const auto& g : gaps) putJson(out_, gapJson(g));
        return;
    }
    if (picture.to <= picture.from) return;
    // A table: a bucket a line, a column per row of the picture, each wide enough for its name.
    out_ << rangeText(picture.from, picture.to) << " in buckets of "
         << durationText(std::min(size, picture.to - picture.from)) << ": how long each was on\n";
    std::vector<std::string> names;
    auto column = [&](const std::string& text, const std::string& name) {
        const std::size_t width = std::max<std::size_t>(12, name.size());
        out_ << "  " << std::string(width > text.size() ? width - text.size() : 0, ' ') << text;
    };
    forEachBucket(picture, size, [&](const Bucket& b) {
        if (names.empty()) {
            names.emplace_back("recording");
            for (const auto& entry : b.tracksOn) names.push_back(printable(entry.first));
            const std::string first = bucketStart(b.from);
            out_ << "from" << std::string(first.size() - 4, ' ');
            for (const auto& name : names) column(name, name);
            out_ << '\n';
        }
        out_ << bucketStart(b.from);
        column(shareText(b.recordingOn, b.to - b.from), names[0]);
        std::size_t i = 1;
        for (const auto& entry : b.tracksOn) {
            column(shareText(entry.second, b.to - b.from), names[i++]);
        }
        out_ << '\n';
    });
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
        putJson(out_, resultJson(r));
        return;
    }
    out_ << prefix_ << isoText(r.time) << "  " << secondsText(r.time) << "  ";
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
        putJson(out_, stateJson(jobId, state));
        return;
    }
    out_ << "job " << jobId << ": " << stateName(state);
    if (state == kavro::contract::kStateUnknown) out_ << " (no such search)";
    out_ << '\n' << std::flush;
}

void ResultPrinter::ended(uint32_t jobId, TimePoint reached)
{
    if (json_) {
        putJson(out_, endedJson(jobId, reached));
        return;
    }
    out_ << "job " << jobId << " ended; it had searched through " << bothTimes(reached) << '\n'
         << std::flush;
}

void ResultPrinter::notice(uint32_t jobId, const std::string& text)
{
    if (json_) {
        putJson(out_, noticeJson(jobId, text));
        return;
    }
    err_ << "note: " << text << '\n';
}

void ResultPrinter::count(const MatchCount& c)
{
    if (json_) {
        putJson(out_, countJson(c));
        return;
    }
    out_ << prefix_ << rangeText(sinceEpoch(c.from), sinceEpoch(c.to)) << "  " << c.appearances
         << (c.appearances == 1 ? " appearance  " : " appearances  ") << c.documents
         << (c.documents == 1 ? " matching document\n" : " matching documents\n");
}

void ResultPrinter::index(const IndexState& state)
{
    if (json_) {
        putJson(out_, indexJson(state));
        return;
    }
    if (state.documents == 0) {
        out_ << "recording_index holds nothing yet (" << state.state << ")\n";
        return;
    }
    out_ << "recording_index: " << state.documents << " documents from " << isoText(state.from)
         << " through " << isoText(state.through) << ", " << state.bytes / 1024 << " KiB, "
         << state.state << '\n';
}

void ResultPrinter::searchEnd(const SearchEnd& end)
{
    if (json_) {
        putJson(out_, searchEndJson(end));
        return;
    }
    if (end.indexed) {
        err_ << end.fromIndex << " of the results came from recording_index ("
             << isoText(end.indexed->first) << " to " << isoText(end.indexed->second)
             << "), the rest from walking\n";
    }
    switch (end.kind) {
    case SearchEnd::Kind::Interrupted:
        err_ << "interrupted: search " << end.jobId << " ended after " << end.results
             << " results; it had searched through " << bothTimes(end.reached) << '\n';
        break;
    case SearchEnd::Kind::Completed:
        err_ << "search " << end.jobId << " completed: " << end.results
             << " results; searched through " << bothTimes(end.reached) << '\n';
        break;
    case SearchEnd::Kind::Incomplete:
        err_ << incompleteText(end) << " (" << end.results << " results before it)\n";
        break;
    case SearchEnd::Kind::EndedElsewhere:
        err_ << "search " << end.jobId << " was ended by another client after " << end.results
             << " results\n";
        break;
    }
}

}  // namespace recsearch
