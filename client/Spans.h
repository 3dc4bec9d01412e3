// Appearances: metadata matches grouped into runs whose neighbours are no more than a gap
// apart, so that one person walking past is one line instead of sixty.
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "client/IndexAnswers.h"
#include "client/TimeText.h"

namespace rsclient {

// What appeared in an appearance, when the index answered for it: the class names of its
// matching objects, the first one's colour, the best likelihood, and the box at its start and
// at its end (left, top, right, bottom as written).
struct Appeared {
    std::vector<std::string> classes;
    std::string colour;
    std::string likelihood;
    std::vector<std::string> boxAtStart;
    std::vector<std::string> boxAtEnd;
};

struct Span {
    TimePoint start;  // never later than end, whichever way the search went
    TimePoint end;
    std::size_t matches = 0;
    std::optional<Appeared> appeared;
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
    // The span that the last match joined or opened; only while one is open.
    const Span& open() const { return *open_; }
    bool isOpen() const { return open_.has_value(); }

private:
    Micros gap_;
    std::optional<Span> open_;
    TimePoint last_;
};

// One more match of the open span `span`, with what the index saw in it.
void noteAppeared(std::optional<Appeared>& appeared, const Span& span, const IndexMatch& match);

}  // namespace rsclient
