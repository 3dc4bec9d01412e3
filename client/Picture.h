// What a finished search says about its time range: per row (the recording, each track, or
// the metadata matches) when it was on, off or unknown. Drawn as SVG or in a terminal, summed
// by coverage.
#pragma once

#include <string>
#include <vector>

#include "client/ClientEvent.h"
#include "client/Spans.h"
#include "client/TimeText.h"

namespace rsclient {

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

}  // namespace rsclient
