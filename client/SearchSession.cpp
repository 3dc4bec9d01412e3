#include "client/SearchSession.h"

#include <signal.h>

#include <string>

#include "client/ClientError.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"

namespace rsclient {

namespace {

constexpr std::chrono::milliseconds kTickEvery{100};
constexpr std::chrono::milliseconds kAskProgressEvery{250};
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
}

std::optional<uint32_t> SearchSession::start(const std::function<bool()>& stopped)
{
    service_.watchService();
    if (stopped && stopped()) return std::nullopt;
    const int32_t id = create();
    if (id == kavro::contract::kRefusedJobId) {
        throw ClientError(ErrorKind::Refused, std::string("recording_search refused the ") +
                                                  searchName(request_.kind) +
                                                  " (job id -1): two searches are already running");
    }
    jobId_ = uint32_t(id);
    service_.beginSearch(jobId_);
    output_.begun(jobId_);
    return jobId_;
}

int32_t SearchSession::create()
{
    const SearchRequest& r = request_;
    switch (r.kind) {
    case SearchRequest::Kind::Events:
        return service_.createEventSearch(r.start, r.end, r.maxResults, r.flag1, r.flag2,
                                          r.startState);
    case SearchRequest::Kind::Summary:
        return service_.createEventSearch(r.start, r.end, -1, false, false, true);
    case SearchRequest::Kind::Metadata:
        return service_.createMetadataSearch(r.start, r.end, r.maxResults, r.xpath);
    default: return service_.createNoopSearch();
    }
}

int SearchSession::stream()
{
    while (true) {
        auto event = inbox_.waitNext(kTickEvery);
        if (!event) {
            askProgress();
            output_.idle();
            continue;
        }
        switch (event->kind) {
        case ClientEvent::Kind::Result:
            if (event->jobId != jobId_) break;
            take(event->result);
            if (!output_.good()) return finish(SIGPIPE);
            break;
        case ClientEvent::Kind::Completed:
            if (event->jobId == jobId_) return finish(0);
            break;
        case ClientEvent::Kind::Interrupted: return finish(event->signal);
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
        output_.reached(progress.through, results_);
    }
}

void SearchSession::take(const SearchResult& result)
{
    ++results_;
    last_ = result.time;
    lastReached_ = std::chrono::steady_clock::now();
    const bool metadata = result.kind == SearchResult::Kind::Metadata;
    if (keep_ && !metadata) kept_.push_back(result);
    if (keep_ && metadata && !spans_) marks_.push_back(Span{result.time, result.time, 1});
    if (spans_) {
        if (auto closed = spans_->add(result.time)) {
            output_.span(jobId_, *closed);
            if (keep_) marks_.push_back(*closed);
        }
    } else if (request_.kind != SearchRequest::Kind::Summary) {
        output_.result(result);
    }
    output_.reached(result.time, results_);
}

// What comes after the results: the last span, coverage, the picture. Only what arrived up to
// `reached` is known.
void SearchSession::conclude(TimePoint reached)
{
    if (spans_) {
        if (auto open = spans_->finish()) {
            output_.span(jobId_, *open);
            if (keep_) marks_.push_back(*open);
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

// signal 0: the search completed by itself, or someone else ended it.
int SearchSession::finish(int signal)
{
    std::optional<TimePoint> failedAt;
    if (signal == 0) {
        const SearchProgress progress = service_.searchProgress(jobId_);
        if (progress.state == kavro::contract::kStateUnknown) {
            // Ended elsewhere: there is no position left to ask for; the last result is as far
            // as anything is known.
            conclude(results_ > 0 ? last_ : request_.start);
            output_.ended(SearchEnd{SearchEnd::Kind::EndedElsewhere, jobId_, last_, results_});
            return 0;
        }
        failedAt = progress.failedAt;
    }
    const EndReply end = service_.endSearch(jobId_);
    if (signal == SIGPIPE) return signal;  // nobody left to tell
    if (failedAt) {
        conclude(*failedAt);
        output_.ended(SearchEnd{SearchEnd::Kind::Incomplete, jobId_, *failedAt, results_});
        return 0;
    }
    conclude(end.reached);
    const auto kind = signal == 0 ? SearchEnd::Kind::Completed : SearchEnd::Kind::Interrupted;
    output_.ended(SearchEnd{kind, jobId_, end.reached, results_});
    return signal;
}

}  // namespace rsclient
