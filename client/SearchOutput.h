// What a client does with what a search says: print it, stream it over HTTP, draw it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientEvent.h"
#include "client/Coverage.h"
#include "client/Picture.h"
#include "client/Spans.h"

namespace rsclient {

// One bucket of a metadata search's counts: the appearances that start in it and the
// matching documents in it.
struct MatchCount {
    TimePoint from;
    TimePoint to;
    std::size_t appearances = 0;
    std::size_t documents = 0;
};

struct SearchEnd {
    // Incomplete: the walk ended early because a recording service failed; `reached` is where.
    enum class Kind { Completed, Interrupted, EndedElsewhere, Incomplete };
    Kind kind = Kind::Completed;
    uint32_t jobId = 0;
    TimePoint reached;  // not known when ended elsewhere
    std::size_t results = 0;
    // Results answered by recording_index, and the stretch it answered for; the rest walked.
    std::size_t fromIndex = 0;
    std::optional<std::pair<TimePoint, TimePoint>> indexed;
};

// Every call comes from the thread that runs the session.
class SearchOutput {
public:
    virtual ~SearchOutput() = default;
    virtual void begun(uint32_t /*jobId*/) {}
    virtual void result(const SearchResult& result) = 0;  // not for summaries nor with spans
    virtual void span(uint32_t jobId, const Span& span) = 0;
    virtual void reached(TimePoint /*t*/, std::size_t /*results*/) {}  // after every result
    // Just before reached(): progress is held back (an appearance still open), while the search
    // itself has come as far as `t`.
    virtual void searched(TimePoint /*t*/) {}
    virtual void idle() {}  // nothing arrived for a while
    // The picture cut into buckets of `size` (forEachBucket), then the recording's gaps.
    virtual void coverage(const Picture& picture, Micros size,
                          const std::vector<Segment>& gaps) = 0;
    virtual void picture(const Picture& /*picture*/) {}  // only when the request asks for one
    virtual void count(const MatchCount& /*bucket*/) {}  // after the results, bucket by bucket
    virtual void ended(const SearchEnd& end) = 0;
    // One sentence about how the search is answered (the index absent or failing, say).
    virtual void notice(uint32_t /*jobId*/, const std::string& /*text*/) {}
    // False once nobody reads what is written; the search is then ended without a word.
    virtual bool good() const { return true; }
};

}  // namespace rsclient
