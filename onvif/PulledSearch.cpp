#include "onvif/PulledSearch.h"

#include <signal.h>

#include <algorithm>

#include "client/ClientError.h"
#include "client/SearchSession.h"
#include "client/ServiceConnection.h"

namespace onvif {

namespace {

// While two searches run on the service, a resumed one asks again after this.
constexpr std::chrono::seconds kRetryRefused{1};

bool sameTime(rsclient::TimePoint a, rsclient::TimePoint b)
{
    return a.sec == b.sec && a.usec == b.usec;
}

}  // namespace

PulledSearch::PulledSearch(const rsclient::SearchRequest& request, std::size_t mostHeld)
    : request_(request), current_(request), mostHeld_(std::max<std::size_t>(mostHeld, 2))
{
    reached_ = request.start;
}

PulledSearch::~PulledSearch()
{
    end();
    session_.reset();
    service_.reset();
}

void PulledSearch::start()
{
    inbox_ = std::make_unique<rsclient::EventInbox>();
    service_ = std::make_unique<rsclient::ServiceConnection>(*inbox_);
    session_ = std::make_unique<rsclient::SearchSession>(current_, *service_, *inbox_, output());
    session_->start();
    thread_ = std::thread([this] { run(); });
}

void PulledSearch::run()
{
    do {
        try {
            session_->stream();
        } catch (const std::exception&) {
            // The service or the bus went away: the search ends with what it found.
            std::lock_guard<std::mutex> lock(mutex_);
            completedThere_ = true;
        }
    } while (waitForRoom() && openSession());
    finish();
}

bool PulledSearch::waitForRoom()
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (completedThere_ || ending_ || !full_) return false;
    changed_.wait(lock, [this] { return ending_ || held_.size() <= mostHeld_ / 2; });
    return !ending_;
}

bool PulledSearch::openSession()
{
    session_.reset();
    service_.reset();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        full_ = false;
        current_.start = lastTime_;
        current_.startState = false;
        if (request_.maxResults >= 0) {
            current_.maxResults = request_.maxResults - int32_t(delivered_);
            if (current_.maxResults <= 0) return false;
        }
        skip_ = atLastTime_;
    }
    for (;;) {
        auto inbox = std::make_unique<rsclient::EventInbox>();
        auto service = std::make_unique<rsclient::ServiceConnection>(*inbox);
        auto session =
            std::make_unique<rsclient::SearchSession>(current_, *service, *inbox, output());
        try {
            if (!session->start([this] {
                    std::lock_guard<std::mutex> lock(mutex_);
                    return ending_;
                })) {
                return false;
            }
        } catch (const rsclient::ClientError& e) {
            if (e.kind() != rsclient::ErrorKind::Refused) return false;
            std::unique_lock<std::mutex> lock(mutex_);
            if (changed_.wait_for(lock, kRetryRefused, [this] { return ending_; })) return false;
            continue;
        }
        std::lock_guard<std::mutex> lock(mutex_);
        inbox_ = std::move(inbox);
        service_ = std::move(service);
        session_ = std::move(session);
        // end() may have come while the session began: it is told now.
        if (ending_)
            inbox_->push(rsclient::ClientEvent{
                rsclient::ClientEvent::Kind::Interrupted, 0, {}, SIGTERM, {}});
        return true;
    }
}

void PulledSearch::finish()
{
    std::lock_guard<std::mutex> lock(mutex_);
    done_ = true;
    changed_.notify_all();
}

void PulledSearch::result(const rsclient::SearchResult& result)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (skip_ > 0 && sameTime(result.time, lastTime_)) {
        --skip_;
        return;
    }
    skip_ = 0;
    held_.push_back(result);
    ++delivered_;
    if (sameTime(result.time, lastTime_)) {
        ++atLastTime_;
    } else {
        lastTime_ = result.time;
        atLastTime_ = 1;
    }
    reached_ = result.time;
    if (held_.size() >= mostHeld_) full_ = true;
    changed_.notify_all();
}

void PulledSearch::reached(rsclient::TimePoint t, std::size_t)
{
    std::lock_guard<std::mutex> lock(mutex_);
    reached_ = t;
}

void PulledSearch::ended(const rsclient::SearchEnd& end)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (end.kind == rsclient::SearchEnd::Kind::Interrupted) return;  // full, or ended by end()
    completedThere_ = true;
    if (end.kind == rsclient::SearchEnd::Kind::Completed) reached_ = request_.end;
    if (end.kind == rsclient::SearchEnd::Kind::Incomplete) reached_ = end.reached;
}

bool PulledSearch::good() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !full_ && !ending_;
}

PulledSearch::Page PulledSearch::take(std::size_t least, std::size_t most,
                                      std::chrono::milliseconds wait)
{
    std::unique_lock<std::mutex> lock(mutex_);
    least = std::min(least, mostHeld_);
    changed_.wait_for(lock, wait, [&] { return held_.size() >= least || done_; });
    Page page;
    const std::size_t n = std::min(most, held_.size());
    page.results.assign(held_.begin(), held_.begin() + std::ptrdiff_t(n));
    held_.erase(held_.begin(), held_.begin() + std::ptrdiff_t(n));
    page.completed = done_ && held_.empty();
    changed_.notify_all();
    return page;
}

bool PulledSearch::searching() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !done_;
}

rsclient::TimePoint PulledSearch::end()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!ending_ && inbox_) {
            inbox_->push(rsclient::ClientEvent{
                rsclient::ClientEvent::Kind::Interrupted, 0, {}, SIGTERM, {}});
        }
        ending_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return reached_;
}

}  // namespace onvif
