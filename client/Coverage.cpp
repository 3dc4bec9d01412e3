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

}  // namespace

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
