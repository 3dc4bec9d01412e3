#include "Timeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <regex>

namespace recsearch {

namespace {

using std::chrono::seconds;

struct Range {
    Micros lo, hi;            // the picture
    Micros knownFrom, knownTo;  // the part the search walked
};

Range rangeOf(TimePoint a, TimePoint b, TimePoint reached)
{
    const Micros lo = std::min(sinceEpoch(a), sinceEpoch(b));
    const Micros hi = std::max(sinceEpoch(a), sinceEpoch(b));
    const Micros r = std::clamp(sinceEpoch(reached), lo, hi);
    const bool forward = !earlier(b, a);
    return forward ? Range{lo, hi, lo, r} : Range{lo, hi, r, hi};
}

void append(Row& row, Micros from, Micros to, State state)
{
    if (to <= from) return;
    auto& segments = row.segments;
    if (!segments.empty() && segments.back().state == state && segments.back().to == from) {
        segments.back().to = to;
    } else {
        segments.push_back(Segment{from, to, state});
    }
}

// Nothing is known about the parts that the search did not walk.
void appendWalked(Row& row, const Segment& s, const Range& r)
{
    append(row, s.from, std::min(s.to, r.knownFrom), State::Unknown);
    append(row, std::max(s.from, r.knownFrom), std::min(s.to, r.knownTo), s.state);
    append(row, std::max(s.from, r.knownTo), s.to, State::Unknown);
}

using Changes = std::vector<std::pair<Micros, bool>>;

Row stateRow(const std::string& name, Changes changes, const Range& r)
{
    // A backward search sends its history newest first; each change holds from its time on.
    std::stable_sort(changes.begin(), changes.end(),
                     [](const auto& x, const auto& y) { return x.first < y.first; });
    Row row{name, {}};
    State state = State::Unknown;
    Micros at = r.lo;
    for (const auto& [when, on] : changes) {
        const Micros t = std::clamp(when, r.lo, r.hi);
        appendWalked(row, Segment{at, t, state}, r);
        at = std::max(at, t);
        state = on ? State::On : State::Off;
    }
    appendWalked(row, Segment{at, r.hi, state}, r);
    return row;
}

Micros onWithin(const std::vector<Segment>& segments, std::size_t& next, Micros from, Micros to)
{
    while (next < segments.size() && segments[next].to <= from) ++next;
    Micros on{0};
    for (std::size_t i = next; i < segments.size() && segments[i].from < to; ++i) {
        if (segments[i].state != State::On) continue;
        on += std::min(to, segments[i].to) - std::max(from, segments[i].from);
    }
    return on;
}

}  // namespace

Picture eventPicture(const std::vector<SearchResult>& results, TimePoint a, TimePoint b,
                     TimePoint reached)
{
    const Range r = rangeOf(a, b, reached);
    Changes recording;
    std::map<std::string, Changes> tracks;
    for (const auto& result : results) {
        if (result.kind == SearchResult::Kind::Metadata) continue;
        auto& changes =
            result.kind == SearchResult::Kind::TrackState ? tracks[result.track] : recording;
        changes.emplace_back(sinceEpoch(result.time), result.on);
    }
    Picture picture{r.lo, r.hi, false, {}};
    picture.rows.push_back(stateRow("recording", std::move(recording), r));
    for (auto& [name, changes] : tracks) {
        picture.rows.push_back(stateRow(name, std::move(changes), r));
    }
    return picture;
}

Picture matchPicture(const std::vector<Span>& marks, TimePoint a, TimePoint b, TimePoint reached)
{
    const Range r = rangeOf(a, b, reached);
    Row row{"matches", {}};
    appendWalked(row, Segment{r.lo, r.hi, State::Off}, r);
    for (const auto& mark : marks) {
        row.segments.push_back(Segment{sinceEpoch(mark.start), sinceEpoch(mark.end), State::On});
    }
    return Picture{r.lo, r.hi, true, {std::move(row)}};
}

std::vector<Bucket> coverage(const Picture& events, Micros size)
{
    std::vector<Bucket> buckets;
    for (Micros from = events.from; from < events.to; from += size) {
        Bucket bucket{from, std::min(from + size, events.to), Micros{0}, {}};
        buckets.push_back(bucket);
    }
    for (std::size_t i = 0; i < events.rows.size(); ++i) {
        const Row& row = events.rows[i];
        std::size_t next = 0;
        for (auto& bucket : buckets) {
            const Micros on = onWithin(row.segments, next, bucket.from, bucket.to);
            if (i == 0) {
                bucket.recordingOn = on;
            } else {
                bucket.tracksOn[row.name] = on;
            }
        }
    }
    return buckets;
}

std::vector<Segment> recordingGaps(const Picture& events, Micros longer)
{
    std::vector<Segment> gaps;
    if (events.rows.empty()) return gaps;
    for (const auto& s : events.rows.front().segments) {
        if (s.state == State::Off && s.to - s.from > longer) gaps.push_back(s);
    }
    return gaps;
}

Micros defaultBucket(Micros range)
{
    static const int64_t kRound[] = {1,    2,    5,     10,    15,    30,    60,
                                     120,  300,  600,   900,   1800,  3600,  7200,
                                     10800, 21600, 43200, 86400, 172800, 604800};
    for (int64_t s : kRound) {
        if (seconds(s) * 40 >= range) return seconds(s);
    }
    const seconds day(86400);
    return day * ((range + day * 40 - Micros(1)) / (day * 40));
}

std::optional<Micros> parseDuration(const std::string& text, std::string* why)
{
    static const std::regex form(R"(([0-9]+(\.[0-9]*)?|\.[0-9]+)(ms|s|m|min|h|d)?)");
    std::smatch m;
    if (!std::regex_match(text, m, form)) {
        *why = text + " is not a duration such as 90s, 500ms, 5m, 2h or 1d";
        return std::nullopt;
    }
    const std::string unit = m[3];
    double scale = 1e6;  // seconds
    if (unit == "ms") scale = 1e3;
    if (unit == "m" || unit == "min") scale = 60e6;
    if (unit == "h") scale = 3600e6;
    if (unit == "d") scale = 86400e6;
    const double usec = std::round(std::stod(m[1]) * scale);
    if (usec < 1 || usec > 3650 * 86400e6) {
        *why = text + " is not a duration above 0 and up to ten years";
        return std::nullopt;
    }
    return Micros(int64_t(usec));
}

std::string durationText(Micros d)
{
    char text[48];
    const int64_t s = std::chrono::duration_cast<seconds>(d).count();
    if (d < seconds(60)) {
        std::snprintf(text, sizeof text, "%.1f s", double(d.count()) / 1e6);
    } else if (s < 3600) {
        std::snprintf(text, sizeof text, "%lld min %02lld s", (long long)(s / 60),
                      (long long)(s % 60));
    } else if (s < 86400) {
        std::snprintf(text, sizeof text, "%lld h %02lld min", (long long)(s / 3600),
                      (long long)(s % 3600 / 60));
    } else {
        std::snprintf(text, sizeof text, "%lld d %02lld h", (long long)(s / 86400),
                      (long long)(s % 86400 / 3600));
    }
    std::string out = text;
    for (const char* zero : {" 00 s", " 00 min", " 00 h"}) {
        const auto at = out.find(zero);
        if (at != std::string::npos && at + std::string(zero).size() == out.size()) out.resize(at);
    }
    return out;
}

}  // namespace recsearch
