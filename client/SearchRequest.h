// One search as a client asks for it, whichever way it was asked (command line or HTTP).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/MetadataFilter.h"
#include "client/TimeText.h"

namespace rsclient {

struct SearchRequest {
    // Summary: an event search with the start state, summed into coverage afterwards.
    enum class Kind { Events, Metadata, Summary, Noop };
    Kind kind = Kind::Noop;
    TimePoint start;
    TimePoint end;
    int32_t maxResults = -1;  // negative: no limit
    bool startState = false;
    bool flag1 = false;
    bool flag2 = false;
    std::string xpath;  // with the filters' conditions already in it
    // The filter alone, when the person gave no XPath of their own: recording_index may then
    // answer what it covers. `walk` asks for the walk regardless.
    std::optional<MetadataFilter> filter;
    bool walk = false;
    std::optional<Micros> spanGap;       // metadata matches grouped into appearances
    Micros minDuration{0};               // appearances shorter than this are left out
    Micros countBucket{0};               // metadata: appearances and matches per bucket; 0: none
    Micros bucket{0};                    // summary; 0: a round size for the range
    std::optional<Micros> bucketOrigin;  // summary: edges on this time plus whole buckets
    bool picture = false;                // draw the range afterwards
    Micros utcOffset{0};                 // the picture's axis in this zone (east of UTC)
};

const char* searchName(SearchRequest::Kind kind);  // "event search", ...

}  // namespace rsclient
