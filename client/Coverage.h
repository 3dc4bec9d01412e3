// Coverage: how long the recording and each track were on per time bucket, and the gaps.
#pragma once

#include <map>
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

// Consecutive buckets of `size` from the picture's start; the last one ends at its end.
std::vector<Bucket> coverage(const Picture& events, Micros size);

// Times when the recording was off for longer than `longer`.
std::vector<Segment> recordingGaps(const Picture& events, Micros longer);

// A round bucket size that cuts `range` into 10 to 40 buckets (fewer for very short ranges).
Micros defaultBucket(Micros range);

}  // namespace rsclient
