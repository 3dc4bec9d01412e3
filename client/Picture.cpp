#include "client/Picture.h"

#include <algorithm>
#include <map>

namespace rsclient {

namespace {

struct Range {
    Micros lo, hi;              // the picture
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

}  // namespace rsclient
