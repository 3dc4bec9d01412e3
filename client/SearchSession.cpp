#include "client/SearchSession.h"

#include <signal.h>

#include <algorithm>
#include <string>

#include "client/ClientError.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"

namespace rsclient {

namespace {

// Appearances are counted with --spans' gap, or this one.
constexpr std::chrono::seconds kDefaultGap{2};
constexpr std::chrono::minutes kLongGap{1};

}  // namespace

const char* searchName(SearchRequest::Kind kind)
{
    switch (kind) {
    case SearchRequest::Kind::Events:
    case SearchRequest::Kind::Summary: return "event search";
    case SearchRequest::Kind::Metadata: return "metadata search";
    default: return "no-op search";
    }
}

SearchSession::SearchSession(const SearchRequest& request, ServiceConnection& service,
                             EventInbox& inbox, SearchOutput& output)
    : request_(request),
      service_(service),
      inbox_(inbox),
      output_(output),
      // Whatever is drawn or summed afterwards needs the results kept.
      keep_(request.picture || request.kind == SearchRequest::Kind::Summary)
{
    if (request.spanGap) spans_.emplace(*request.spanGap);
    if (request.countBucket.count() > 0) {
        countSpans_.emplace(request.spanGap.value_or(kDefaultGap));
        const bool forward = !earlier(request.end, request.start);
        countFrom_ = sinceEpoch(forward ? request.start : request.end);
        const Micros range = sinceEpoch(forward ? request.end : request.start) - countFrom_;
        const auto buckets = (range + request.countBucket - Micros(1)) / request.countBucket;
        counts_.resize(std::max<std::size_t>(1, std::size_t(buckets)));
    }
}

void SearchSession::countMatch(TimePoint time)
{
    const auto bucketOf = [&](TimePoint t) {
        return std::min(counts_.size() - 1,
                        std::size_t((sinceEpoch(t) - countFrom_) / request_.countBucket));
    };
    ++counts_[bucketOf(time)].documents;
    if (auto closed = countSpans_->add(time)) ++counts_[bucketOf(closed->start)].appearances;
}

void SearchSession::concludeCounts()
{
    if (counts_.empty()) return;
    if (auto open = countSpans_->finish()) {
        const auto at = std::size_t((sinceEpoch(open->start) - countFrom_) / request_.countBucket);
        ++counts_[std::min(counts_.size() - 1, at)].appearances;
    }
    const bool forward = !earlier(request_.end, request_.start);
    const Micros last = sinceEpoch(forward ? request_.end : request_.start);
    for (std::size_t i = 0; i < counts_.size(); ++i) {
        const Micros from = countFrom_ + request_.countBucket * int64_t(i);
        MatchCount& c = counts_[i];
        c.from = timePointAt(from);
        c.to = timePointAt(std::min(from + request_.countBucket, last));
        output_.count(c);
    }
    counts_.clear();
}

std::optional<uint32_t> SearchSession::start(const std::function<bool()>& stopped)
{
    service_.watchService();
    if (stopped && stopped()) return std::nullopt;
    planParts();
    const auto walk =
        std::find_if(parts_.begin(), parts_.end(), [](const Part& p) { return !p.fromIndex; });
    if (walk != parts_.end()) {
        beginWalk(walk->from, walk->to);
    } else {
        output_.begun(jobId_);
    }
    return jobId_;
}

void SearchSession::beginWalk(TimePoint from, TimePoint to)
{
    const int32_t id = create(from, to);
    if (id == kavro::contract::kRefusedJobId) {
        throw ClientError(ErrorKind::Refused, std::string("recording_search refused the ") +
                                                  searchName(request_.kind) +
                                                  " (job id -1): two searches are already running");
    }
    jobId_ = uint32_t(id);
    walking_ = true;
    walkCompleted_ = false;
    service_.beginSearch(jobId_);
    output_.begun(jobId_);
}

// The parts of the range in the order their results leave: what recording_index covers is
// answered from it, the rest (the recent stretch it has not reached) walked. A filter search
// asks for the filter's matches, any other metadata search for its XPath's.
void SearchSession::planParts()
{
    const SearchRequest& r = request_;
    parts_ = {Part{false, r.start, r.end}};
    if (r.kind != SearchRequest::Kind::Metadata || r.walk) return;
    const auto index = service_.indexState();
    // Without an index on the bus an XPath of one's own walks as it always has, without a word:
    // only a filter search says what it misses.
    if (!index && !r.filter) return;
    if (!index || index->documents == 0) {
        notice_ = !index                   ? "recording_index is not running"
                  : index->state == "busy" ? "recording_index is busy"
                                           : "recording_index holds nothing yet";
        notice_ += ": this search walks the whole range";
        return;
    }
    const bool forward = !earlier(r.end, r.start);
    const TimePoint lo = forward ? r.start : r.end, hi = forward ? r.end : r.start;
    if (earlier(index->through, lo)) return;  // all of it lies beyond the index
    const TimePoint indexedTo = earlier(hi, index->through) ? hi : index->through;
    const bool rest = earlier(index->through, hi);
    const TimePoint restFrom = timePointAt(sinceEpoch(index->through) + Micros(1));
    if (forward) {
        parts_ = {Part{true, lo, indexedTo}};
        if (rest) parts_.push_back(Part{false, restFrom, hi});
    } else {
        parts_.clear();
        if (rest) parts_.push_back(Part{false, hi, restFrom});
        parts_.push_back(Part{true, indexedTo, lo});
    }
}

int32_t SearchSession::create(TimePoint from, TimePoint to)
{
    const SearchRequest& r = request_;
    switch (r.kind) {
    case SearchRequest::Kind::Events:
        return service_.createEventSearch(from, to, r.maxResults, r.flag1, r.flag2, r.startState);
    case SearchRequest::Kind::Summary:
        return service_.createEventSearch(from, to, -1, false, false, true);
    case SearchRequest::Kind::Metadata:
        return service_.createMetadataSearch(from, to, r.maxResults, r.xpath);
    default: return service_.createNoopSearch();
    }
}

bool SearchSession::limitReached() const
{
    return request_.maxResults >= 0 && results_ >= std::size_t(request_.maxResults);
}

// An appearance still open is sent when it closes, dated from its start (its earliest match,
// whichever way the search goes): until then progress stays at that start, so that whoever
// merges by time may trust it.
void SearchSession::report(TimePoint through)
{
    if (spans_ && spans_->isOpen()) {
        const TimePoint held = spans_->open().start;
        const bool forward = !earlier(request_.end, request_.start);
        if (forward ? earlier(held, through) : earlier(through, held)) {
            output_.searched(through);
            through = held;
        }
    }
    output_.reached(through, results_);
}

void SearchSession::emitSpan(const Span& span)
{
    if (sinceEpoch(span.end) - sinceEpoch(span.start) < request_.minDuration) return;
    output_.span(jobId_, span);
    if (keep_) marks_.push_back(span);
}

void SearchSession::take(const SearchResult& result, const IndexMatch* seen)
{
    ++results_;
    last_ = result.time;
    if (!counts_.empty() && result.kind == SearchResult::Kind::Metadata) countMatch(result.time);
    lastReached_ = std::chrono::steady_clock::now();
    const bool metadata = result.kind == SearchResult::Kind::Metadata;
    if (keep_ && !metadata) kept_.push_back(result);
    if (keep_ && metadata && !spans_)
        marks_.push_back(Span{result.time, result.time, 1, std::nullopt});
    if (spans_) {
        if (auto closed = spans_->add(result.time)) {
            closed->appeared = std::exchange(appeared_, std::nullopt);
            emitSpan(*closed);
        }
        if (seen) noteAppeared(appeared_, spans_->open(), *seen);
    } else if (request_.kind != SearchRequest::Kind::Summary && counts_.empty()) {
        output_.result(result);
    }
    report(result.time);
}

// What comes after the results: the last span, coverage, the picture. Only what arrived up to
// `reached` is known.
void SearchSession::conclude(TimePoint reached)
{
    concludeCounts();
    if (spans_) {
        if (auto open = spans_->finish()) {
            open->appeared = std::move(appeared_);
            emitSpan(*open);
        }
    }
    if (!keep_) return;
    const SearchRequest& r = request_;
    // Stopped by the limit: the service may say it reached the end, but nothing beyond the
    // last result was looked at.
    if (r.maxResults >= 0 && results_ >= std::size_t(r.maxResults)) {
        reached = results_ > 0 ? last_ : r.start;
    }
    const Picture picture = r.kind == SearchRequest::Kind::Metadata
                                ? matchPicture(marks_, r.start, r.end, reached)
                                : eventPicture(kept_, r.start, r.end, reached);
    if (r.kind == SearchRequest::Kind::Summary) {
        const Micros size =
            r.bucket.count() > 0 ? r.bucket : defaultBucket(picture.to - picture.from);
        output_.coverage(picture, size, recordingGaps(picture, kLongGap));
    }
    if (r.picture) output_.picture(picture);
}

// signal 0: the search completed by itself (or reached its limit), or someone else ended it.
int SearchSession::finish(int signal)
{
    std::optional<TimePoint> failedAt;
    TimePoint reached = results_ > 0 ? last_ : request_.start;
    if (walking_) {
        if (signal == 0) {
            const SearchProgress progress = service_.searchProgress(jobId_);
            if (progress.state == kavro::contract::kStateUnknown) {
                // Ended elsewhere: there is no position left to ask for; the last result is as
                // far as anything is known.
                conclude(reached);
                output_.ended(SearchEnd{SearchEnd::Kind::EndedElsewhere, jobId_, last_, results_,
                                        fromIndex_, indexed_});
                return 0;
            }
            failedAt = progress.failedAt;
        }
        reached = service_.endSearch(jobId_).reached;
    } else if (signal == 0) {
        reached = request_.end;
    }
    // Later than anything walked: the index's stretch came last (a backward search).
    if (signal == 0 && reachedByIndex_ && parts_.back().fromIndex) reached = *reachedByIndex_;
    if (signal == SIGPIPE) return signal;  // nobody left to tell
    if (failedAt) {
        conclude(*failedAt);
        output_.ended(SearchEnd{SearchEnd::Kind::Incomplete, jobId_, *failedAt, results_,
                                fromIndex_, indexed_});
        return 0;
    }
    conclude(reached);
    const auto kind = signal == 0 ? SearchEnd::Kind::Completed : SearchEnd::Kind::Interrupted;
    output_.ended(SearchEnd{kind, jobId_, reached, results_, fromIndex_, indexed_});
    return signal;
}

}  // namespace rsclient
