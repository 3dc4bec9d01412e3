// RecordingSearchTargetImpl's second half: the queue of results and completions on their way to
// the clients, and the loop that sends them as signals, which also ends the searches never begun.
// The job table and the requests are in RecordingSearchTargetImpl.cpp.
#include <iterator>

#include <boost/thread/lock_guard.hpp>

#include "jobs/SearchJob.h"
#include "target/RecordingSearchTargetImpl.h"

// The loop waits only on an empty queue, so only the first record of a batch wakes it; the
// notify comes after the unlock, so that the loop does not wake into a mutex still held.
void RecordingSearchTargetImpl::queueEventData(RecordingSearchEventData& data)
{
    bool wasEmpty = false;
    {
        boost::lock_guard<boost::mutex> lock(eventQueueMutex);
        wasEmpty = eventQueue.empty();
        eventQueue.push_back(data);
    }
    if (wasEmpty) eventAvailable.notify_one();
}

// Each wake-up takes every record queued so far and sends them in order: a walk step that
// yields several records costs one wake-up, not one each.
void RecordingSearchTargetImpl::processEventLoop()
{
    if (stopRequest.requested()) {
        return;
    }
    // A request made just before the wait below is not missed: the watch takes the queue's
    // mutex before it notifies.
    kavro::tools::StopWatch watch(stopRequest, [this] {
        {
            boost::lock_guard<boost::mutex> lock(eventQueueMutex);
        }
        eventAvailable.notify_all();
    });
    std::deque<RecordingSearchEventData> batch;  // kept, so that its storage is reused
    for (;;) {
        const bool expiryNow = _waitForEvents(batch);
        if (stopRequest.requested()) {
            _putBack(batch, batch.begin());
            return;
        }
        if (expiryNow) _endUnbegunSearches();
        for (auto record = batch.begin(); record != batch.end(); ++record) {
            _dispatch(*record);
            if (stopRequest.requested()) {
                _putBack(batch, record + 1);
                return;
            }
        }
        batch.clear();
    }
}

// Returns with the queued records moved into `batch` (empty after a stop request or when only
// the expiry of searches never begun is due); true when that expiry is due.
bool RecordingSearchTargetImpl::_waitForEvents(std::deque<RecordingSearchEventData>& batch)
{
    boost::unique_lock<boost::mutex> lock(eventQueueMutex);
    for (;;) {
        if (stopRequest.requested()) return false;
        const bool expiryNow = expiryDue && Clock::now() >= *expiryDue;
        if (expiryNow || !eventQueue.empty()) {
            if (expiryNow) expiryDue.reset();
            batch.swap(eventQueue);
            return expiryNow;
        }
        if (expiryDue) {
            eventAvailable.wait_until(lock, *expiryDue);
        } else {
            eventAvailable.wait(lock);
        }
    }
}

// What a stop leaves unsent stays queued, ahead of what came meanwhile, as if never taken.
void RecordingSearchTargetImpl::_putBack(std::deque<RecordingSearchEventData>& batch,
                                         const std::deque<RecordingSearchEventData>::iterator& from)
{
    boost::lock_guard<boost::mutex> lock(eventQueueMutex);
    eventQueue.insert(eventQueue.begin(), std::make_move_iterator(from),
                      std::make_move_iterator(batch.end()));
}

void RecordingSearchTargetImpl::stopProcessEvents() { stopRequest.request(); }

void RecordingSearchTargetImpl::_dispatch(const RecordingSearchEventData& data) const
{
    switch (data.eventType) {
    case SearchCompleted: sendEventSearchCompleted(data.jobId); break;
    case MetadataSearchResult:
        sendEventMetadataSearchResult(data.jobId, data.sec, data.usec);
        break;
    case TrackStateEventSearchResult:
        sendEventTrackStateEventSearchResult(data.jobId, data.sec, data.usec,
                                             data.trackName.c_str(), data.state, data.startState);
        break;
    case RecordingStateEventSearchResult:
        sendEventRecordingStateEventSearchResult(data.jobId, data.sec, data.usec, data.state,
                                                 data.startState);
        break;
    default: log(4, "RecordingSearchEventData object passed with unknown event type"); break;
    }
}

// On the main thread, between two events. It never waits for jobMapMutex: an endSearch may
// hold it while joining a worker stuck in a call, and the events of other searches must not
// wait for that; it looks again shortly instead.
void RecordingSearchTargetImpl::_endUnbegunSearches()
{
    boost::unique_lock<boost::mutex> lock(jobMapMutex, boost::try_to_lock);
    const Clock::time_point now = Clock::now();
    if (!lock.owns_lock()) {
        _scheduleExpiry(now + boost::chrono::milliseconds(100));
        return;
    }
    boost::optional<Clock::time_point> next;
    unsigned int sec = 0;
    unsigned int usec = 0;
    for (auto it = JobMap.begin(); it != JobMap.end();) {
        const JobEntry& entry = it->second;
        if (entry.begun || entry.job->getSearchState() != Searching) {
            ++it;
        } else if (entry.created + limits.unbegunTime <= now) {
            log(5, "Search jobId=%d was not begun within %d s of its creation; ending it",
                it->first,
                static_cast<int>(
                    boost::chrono::duration_cast<boost::chrono::seconds>(limits.unbegunTime)
                        .count()));
            it = _endJob(it, &sec, &usec);
        } else {
            const Clock::time_point due = entry.created + limits.unbegunTime;
            if (!next || due < *next) next = due;
            ++it;
        }
    }
    lock.unlock();
    if (next) _scheduleExpiry(*next);
}

void RecordingSearchTargetImpl::_scheduleExpiry(Clock::time_point due)
{
    boost::lock_guard<boost::mutex> lock(eventQueueMutex);
    if (expiryDue && *expiryDue <= due) return;
    expiryDue = due;
    eventAvailable.notify_one();
}
