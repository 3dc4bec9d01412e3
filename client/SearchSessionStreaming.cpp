// SearchSession streaming its parts, in the order they were planned: the index's pages, then
// the walk's signals; stops and departures obeyed between them.
#include <signal.h>

#include <string>

#include "client/ClientError.h"
#include "client/SearchSession.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"

namespace rsclient {

namespace {

constexpr std::chrono::milliseconds kTickEvery{100};
constexpr std::chrono::milliseconds kAskProgressEvery{250};

}  // namespace

int SearchSession::stream()
{
    if (!notice_.empty()) output_.notice(jobId_, notice_);
    for (const Part& part : parts_) {
        if (part.fromIndex) {
            if (const int signal = streamIndex(part); signal != 0) return finish(signal);
        } else if (const int signal = streamWalk(); signal != 0) {
            return finish(signal);
        }
        if (limitReached() || walkedToTheEnd_) break;
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
        TimePoint through = part.to;  // the last document the page looked at
        try {
            more = request_.filter
                       ? service_.indexMatches(from, part.to, *request_.filter, kPage, page)
                       : service_.indexXPathMatches(from, part.to, request_.xpath, kPage, page,
                                                    through);
            if (request_.filter && !page.empty()) through = page.back().time;
            if (forward ? earlier(through, from) || earlier(part.to, through)
                        : earlier(from, through) || earlier(through, part.to)) {
                throw ClientError(ErrorKind::Failure, "it answered a page outside its stretch");
            }
        } catch (const ClientError& e) {
            output_.notice(jobId_, std::string("recording_index failed (") + e.what() +
                                       "); the rest of its stretch is walked");
            return walkInstead(Part{false, from, part.to});
        }
        for (const IndexMatch& match : page) {
            if (limitReached()) break;
            answeringFromIndex_ = true;
            take(SearchResult{SearchResult::Kind::Metadata, jobId_, match.time, "", false, false},
                 request_.filter ? &match : nullptr);
            answeringFromIndex_ = false;
            ++fromIndex_;
        }
        if (!indexed_) indexed_ = std::make_pair(part.from, part.to);
        if (!more || (page.empty() && request_.filter)) break;
        // A page of an XPath may end on a stretch without a match: progress moves over it.
        if (!request_.filter) report(through);
        if (!output_.good()) return SIGPIPE;
        const Micros after = sinceEpoch(through) + (forward ? Micros(1) : Micros(-1));
        from = timePointAt(after);
    }
    reachedByIndex_ = part.to;
    return 0;
}

// What the index did not answer is walked instead, from where it stopped to the search's end.
// A walk of the rest already running (a forward search) has sent nothing yet: it is ended, and
// the one walk covers its stretch too, so that results still leave in time order.
int SearchSession::walkInstead(const Part& part)
{
    if (walking_) service_.endSearch(jobId_);
    beginWalk(part.from, request_.end);
    walkedToTheEnd_ = true;
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
    if (!walking_ || walkCompleted_) return 0;
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
            if (event->jobId != jobId_) break;
            walkCompleted_ = true;
            return 0;
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

}  // namespace rsclient
