// What a finished search says about its time range: per row (the recording, each track, or
// the metadata matches) when it was on, off or unknown. Drawn by Picture, summed by coverage.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ClientEvent.h"
#include "Spans.h"

namespace recsearch {

enum class State { Unknown, Off, On };

struct Segment {
    Micros from;
    Micros to;  // equal to from for a single metadata match
    State state;
};

struct Row {
    std::string name;
    // Ascending and covering the picture's range; a metadata row adds its matches after that,
    // to be drawn on top.
    std::vector<Segment> segments;
};

struct Picture {
    Micros from;
    Micros to;
    bool metadata = false;
    std::vector<Row> rows;  // an event picture: the recording first, then the tracks by name
};

// An event search over a..b (either way) that walked up to `reached`. Without start-state
// results a row is unknown until its first result; everything beyond `reached` is unknown.
Picture eventPicture(const std::vector<SearchResult>& results, TimePoint a, TimePoint b,
                     TimePoint reached);

// A metadata search: one row of marks, each a match or a span (from == to for a match).
Picture matchPicture(const std::vector<Span>& marks, TimePoint a, TimePoint b, TimePoint reached);

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

// "90", "90s", "500ms", "1.5m", "2h", "1d"; above zero. On failure, *why says what is wrong.
std::optional<Micros> parseDuration(const std::string& text, std::string* why);
std::string durationText(Micros d);  // 2 h 05 min, 12.4 s

}  // namespace recsearch
