// Appearances: metadata matches grouped into runs whose neighbours are no more than a gap
// apart, so that one person walking past is one line instead of sixty.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "client/TimeText.h"

namespace rsclient {

struct Span {
    TimePoint start;  // never later than end, whichever way the search went
    TimePoint end;
    std::size_t matches = 0;
};

// Takes matches in the order a search sends them: ascending, or descending when it goes
// backward.
class SpanGrouper {
public:
    explicit SpanGrouper(Micros gap) : gap_(gap) {}

    // The span that this match closes, if it is more than the gap away from the last one.
    std::optional<Span> add(TimePoint match);
    // The span still open, if any; afterwards the grouper is empty.
    std::optional<Span> finish();

private:
    Micros gap_;
    std::optional<Span> open_;
    TimePoint last_;
};

}  // namespace rsclient
