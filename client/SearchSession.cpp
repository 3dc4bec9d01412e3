#include "client/SearchSession.h"

#include <signal.h>

#include <algorithm>
#include <string>

#include "client/ClientError.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"

namespace rsclient {

namespace {

constexpr std::chrono::milliseconds kTickEvery{100};
constexpr std::chrono::milliseconds kAskProgressEvery{250};
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
    service_.beginSearch(jobId_);
    output_.begun(jobId_);
}

// The parts of the range in the order their results leave: what recording_index covers is
// answered from it, the rest (the recent stretch it has not reached) walked. Only a filter
// search without an XPath of the person's own may use the index.
void SearchSession::planParts()
{
    const SearchRequest& r = request_;
    parts_ = {Part{false, r.start, r.end}};
    if (r.kind != SearchRequest::Kind::Metadata || !r.filter || r.walk) return;
    const auto index = service_.indexState();
    if (!index || index->documents == 0) {
        notice_ = index ? "recording_index holds nothing yet: this search walks the whole range"
                        : "recording_index is not running: this search walks the whole range";
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

int SearchSession::stream()
{
    if (!notice_.empty()) output_.notice(jobId_, notice_);
    for (const Part& part : parts_) {
        if (part.fromIndex) {
            if (const int signal = streamIndex(part); signal != 0) return finish(signal);
        } else if (const int signal = streamWalk(); signal != 0) {
            return finish(signal);
        }
        if (limitReached()) break;
    }
    return finish(0);
}

// The index's matches, page by page, as if the walk had found them. Events that arrive
// meanwhile (the walk of the rest, already running) are kept for streamWalk; a stop is obeyed
// between pages. An index that fails mid-way: what it did not answer is walked after all.
int SearchSession::streamIndex(const Part& part)
{
    constexpr uint32_t kPage = 10000;
    const bool forward = !earlier(part.to, part.from);
    TimePoint from = part.from;
    std::vector<IndexMatch> page;
    while (!limitReached()) {
        if (const int signal = takeWaitingEvents(); signal != 0) return signal;
        bool more = false;
        try {
            more = service_.indexMatches(from, part.to, *request_.filter, kPage, page);
        } catch (const ClientError& e) {
            output_.notice(jobId_, std::string("recording_index failed (") + e.what() +
                                       "); the rest of its stretch is walked");
            return walkInstead(Part{false, from, part.to});
        }
        for (const IndexMatch& match : page) {
            if (limitReached()) break;
            answeringFromIndex_ = true;
            take(SearchResult{SearchResult::Kind::Metadata, jobId_, match.time, "", false, false},
                 &match);
            answeringFromIndex_ = false;
            ++fromIndex_;
        }
        if (!indexed_) indexed_ = std::make_pair(part.from, part.to);
        if (!more || page.empty()) break;
        const Micros after = sinceEpoch(page.back().time) + (forward ? Micros(1) : Micros(-1));
        from = timePointAt(after);
    }
    reachedByIndex_ = part.to;
    return 0;
}

// The index's stretch walked instead, once the walk of the rest (if any) is done with.
int SearchSession::walkInstead(const Part& part)
{
    if (walking_) {
        if (const int signal = streamWalk(); signal != 0) return signal;
        service_.endSearch(jobId_);
        walking_ = false;
    }
    beginWalk(part.from, part.to);
    return streamWalk();
}

// Interrupts and departures among the events that came while the index answered; the walk's
// own events are kept, in order, for streamWalk.
int SearchSession::takeWaitingEvents()
{
    while (auto event = inbox_.waitNext(std::chrono::milliseconds(0))) {
        switch (event->kind) {
        case ClientEvent::Kind::Interrupted: return event->signal;
        case ClientEvent::Kind::ServiceGone:
        case ClientEvent::Kind::BusLost: held_.push_back(std::move(*event)); return 0;
        default: held_.push_back(std::move(*event));
        }
    }
    return 0;
}

// Until the walk completes (0) or is stopped (the signal).
int SearchSession::streamWalk()
{
    if (!walking_) return 0;
    while (true) {
        std::optional<ClientEvent> event;
        if (!held_.empty()) {
            event = std::move(held_.front());
            held_.pop_front();
        } else {
            event = inbox_.waitNext(kTickEvery);
        }
        if (!event) {
            askProgress();
            output_.idle();
            continue;
        }
        switch (event->kind) {
        case ClientEvent::Kind::Result:
            if (event->jobId != jobId_) break;
            take(event->result);
            if (!output_.good()) return SIGPIPE;
            // The walk keeps its own limit; after the index's answers it counts them too (a
            // metadata result is one match, so the count is the walk's).
            if (fromIndex_ > 0 && limitReached()) return 0;
            break;
        case ClientEvent::Kind::Completed:
            if (event->jobId == jobId_) return 0;
            break;
        case ClientEvent::Kind::Interrupted: return event->signal;
        case ClientEvent::Kind::ServiceGone:
            throw ClientError(ErrorKind::ServiceGone,
                              "recording_search went away (stopped or restarted) during search " +
                                  std::to_string(jobId_) + " after " + std::to_string(results_) +
                                  " results");
        case ClientEvent::Kind::BusLost:
            throw ClientError(
                ErrorKind::ServiceGone,
                "lost the bus during search " + std::to_string(jobId_) + ": " + event->detail);
        }
    }
}

// While no result arrives, the service is asked how far the search has got, so that progress
// moves over stretches that match nothing.
void SearchSession::askProgress()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - lastReached_ < kAskProgressEvery) return;
    lastReached_ = now;
    const SearchProgress progress = service_.searchProgress(jobId_);
    if (progress.state == kavro::contract::kStateSearching) {
        report(progress.through);
    }
}

// An appearance still open is sent when it closes, dated from its start (its earliest match,
// whichever way the search goes): until then progress stays at that start, so that whoever
// merges by time may trust it.
void SearchSession::report(TimePoint through)
{
    if (spans_ && spans_->isOpen()) {
        const TimePoint held = spans_->open().start;
        const bool forward = !earlier(request_.end, request_.start);
        if (forward ? earlier(held, through) : earlier(through, held)) through = held;
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
