#include "client/Spans.h"

namespace rsclient {

std::optional<Span> SpanGrouper::add(TimePoint match)
{
    std::optional<Span> closed;
    if (open_ && std::chrono::abs(sinceEpoch(match) - sinceEpoch(last_)) > gap_) closed = finish();
    if (!open_) open_ = Span{match, match, 0, std::nullopt};
    if (earlier(match, open_->start)) open_->start = match;
    if (earlier(open_->end, match)) open_->end = match;
    ++open_->matches;
    last_ = match;
    return closed;
}

std::optional<Span> SpanGrouper::finish()
{
    std::optional<Span> span;
    span.swap(open_);
    return span;
}

}  // namespace rsclient
