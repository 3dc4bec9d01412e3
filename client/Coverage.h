// Coverage: how long the recording and each track were on per time bucket, and the gaps.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/Picture.h"

namespace rsclient {

struct Bucket {
    Micros from;
    Micros to;
    Micros recordingOn{0};
    std::map<std::string, Micros> tracksOn;  // every track of the picture, also when never on
};

// More buckets than this are refused: a summary's work and output follow their number.
constexpr int64_t kMaxBuckets = 10000;

// What is wrong with cutting start..end into buckets of `size` (0: the default size), or an
// empty string.
std::string checkBucketCount(TimePoint start, TimePoint end, Micros size);

// Consecutive buckets of `size` from the picture's start, handed to `each` one at a time; the
// last one ends at the picture's end. With an `origin`, edges fall on it plus whole buckets (a
// midnight, say), so that the first bucket may be shorter.
void forEachBucket(const Picture& events, Micros size,
                   const std::function<void(const Bucket&)>& each,
                   std::optional<Micros> origin = std::nullopt);

// Times when the recording was off for longer than `longer`.
std::vector<Segment> recordingGaps(const Picture& events, Micros longer);

// A round bucket size that cuts `range` into 10 to 40 buckets (fewer for very short ranges).
Micros defaultBucket(Micros range);

}  // namespace rsclient
