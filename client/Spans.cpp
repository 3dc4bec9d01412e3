#include "client/Spans.h"

#include <algorithm>
#include <cstdlib>

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

namespace {

double likelihoodOf(const std::string& text)
{
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return end != text.c_str() ? value : -1;
}

}  // namespace

void noteAppeared(std::optional<Appeared>& appeared, const Span& span, const IndexMatch& match)
{
    if (!appeared) appeared.emplace();
    std::string rest = match.classes;
    for (std::size_t at = 0; at <= rest.size();) {
        const std::size_t comma = std::min(rest.find(',', at), rest.size());
        const std::string name = rest.substr(at, comma - at);
        if (!name.empty() && std::find(appeared->classes.begin(), appeared->classes.end(), name) ==
                                 appeared->classes.end()) {
            appeared->classes.push_back(name);
        }
        at = comma + 1;
    }
    if (appeared->colour.empty()) appeared->colour = match.colour;
    if (likelihoodOf(match.likelihood) > likelihoodOf(appeared->likelihood)) {
        appeared->likelihood = match.likelihood;
    }
    if (!earlier(span.start, match.time)) appeared->boxAtStart = match.box;
    if (!earlier(match.time, span.end)) appeared->boxAtEnd = match.box;
}

}  // namespace rsclient
