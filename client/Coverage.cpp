#include "client/Coverage.h"

#include <algorithm>

namespace rsclient {

namespace {

using std::chrono::seconds;

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

// Sub-second sizes to the microsecond, so that a bound just below them is seen as such.
std::string sizeText(Micros d)
{
    if (d >= seconds(1)) return durationText(d);
    if (d.count() % 1000 == 0) return std::to_string(d.count() / 1000) + " ms";
    return std::to_string(d.count()) + " µs";
}

}  // namespace

std::string checkBucketCount(TimePoint start, TimePoint end, Micros size)
{
    if (size.count() <= 0) return "";
    const Micros range = earlier(end, start) ? sinceEpoch(start) - sinceEpoch(end)
                                             : sinceEpoch(end) - sinceEpoch(start);
    const int64_t count = (range.count() + size.count() - 1) / size.count();
    if (count <= kMaxBuckets) return "";
    const Micros least((range.count() + kMaxBuckets - 1) / kMaxBuckets);
    return "a bucket of " + sizeText(size) + " cuts this range into " + std::to_string(count) +
           " buckets; at most " + std::to_string(kMaxBuckets) + " are made (choose a bucket of " +
           sizeText(least) + " or more)";
}

void forEachBucket(const Picture& events, Micros size,
                   const std::function<void(const Bucket&)>& each, std::optional<Micros> origin)
{
    std::vector<std::size_t> next(events.rows.size(), 0);
    // The first edge after the start that falls on the origin plus whole buckets.
    Micros firstEdge = events.from + size;
    if (origin) {
        const int64_t past =
            ((events.from - *origin).count() % size.count() + size.count()) % size.count();
        if (past != 0) firstEdge = events.from + Micros(size.count() - past);
    }
    for (Micros from = events.from; from < events.to;
         from = from == events.from ? firstEdge : from + size) {
        const Micros to = from == events.from ? firstEdge : from + size;
        Bucket bucket{from, std::min(to, events.to), Micros{0}, {}};
        for (std::size_t i = 0; i < events.rows.size(); ++i) {
            const Micros on = onWithin(events.rows[i].segments, next[i], bucket.from, bucket.to);
            if (i == 0) {
                bucket.recordingOn = on;
            } else {
                bucket.tracksOn[events.rows[i].name] = on;
            }
        }
        each(bucket);
    }
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
    static const int64_t kRound[] = {1,     2,     5,     10,    15,     30,    60,
                                     120,   300,   600,   900,   1800,   3600,  7200,
                                     10800, 21600, 43200, 86400, 172800, 604800};
    for (int64_t s : kRound) {
        if (seconds(s) * 40 >= range) return seconds(s);
    }
    const seconds day(86400);
    return day * ((range + day * 40 - Micros(1)) / (day * 40));
}

}  // namespace rsclient
