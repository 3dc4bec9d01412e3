#include "target/RecordingSearchTargetImpl.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include "jobs/EventSearchJob.h"
#include "jobs/MetadataSearchJob.h"
#include "jobs/NoOpSearchJob.h"
#include "jobs/TimelineSearchJob.h"

static_assert(std::atomic<bool>::is_always_lock_free,
              "stopProcessEvents sets the flag from a signal handler");

std::atomic<unsigned int> RecordingSearchTargetImpl::lastJobId{0};

namespace {

bool usecOutOfRange(unsigned int startUsec, unsigned int endUsec)
{
    return startUsec > 999999 || endUsec > 999999;
}

}  // namespace

RecordingSearchTargetImpl::RecordingSearchTargetImpl(void* logCookie)
    : KavroApiRecordingSearchTargetImplBase(logCookie),
      stopRequested(false),
      logCookie(logCookie),
      stopFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (stopFd < 0) {
        throw boost::thread_resource_error(errno, "cannot create the stop-request eventfd");
    }
}

RecordingSearchTargetImpl::~RecordingSearchTargetImpl()
{
    try {
        endAllSearchJobs();
    } catch (...) {
        // Nothing may leave a destructor; a job that cannot be ended is dropped unjoined.
    }
    close(stopFd);
}

// ---- job registry ----

unsigned int RecordingSearchTargetImpl::_createJobId()
{
    unsigned int id = lastJobId.load(std::memory_order_relaxed) + 1;
    while (JobMap.count(id) != 0) {
        ++id;
    }
    lastJobId.store(id, std::memory_order_relaxed);
    return id;
}

bool RecordingSearchTargetImpl::_canCreateJob() const
{
    int running = 0;
    for (const auto& entry : JobMap) {
        if (entry.second->getSearchState() == Searching) {
            ++running;
        }
    }
    if (running >= maxRunningJobs) {
        log(5, "Cannot create new search job because %d jobs are already running (max %d)",
            running, maxRunningJobs);
        return false;
    }
    return true;
}

boost::shared_ptr<SearchJob> RecordingSearchTargetImpl::findJob(unsigned int jobId)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    const auto it = JobMap.find(jobId);
    return it == JobMap.end() ? boost::shared_ptr<SearchJob>() : it->second;
}

bool RecordingSearchTargetImpl::_reserveJobId(int* jobId, unsigned int* id)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    if (!_canCreateJob()) {
        *jobId = -1;
        return false;
    }
    *id = _createJobId();
    *jobId = static_cast<int>(*id);
    return true;
}

void RecordingSearchTargetImpl::_registerJob(unsigned int id, const boost::shared_ptr<SearchJob>& job,
                                             const char* requestName)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    JobMap[id] = job;
    log(7, "%s(): JobMap.size(): %d, jobId %d", requestName, static_cast<int>(JobMap.size()), id);
}

int RecordingSearchTargetImpl::createEventSearch(unsigned int startSec, unsigned int startUsec,
                                                 unsigned int endSec, unsigned int endUsec,
                                                 int maxResults, unsigned char requestFlag1,
                                                 unsigned char requestFlag2,
                                                 unsigned char includeStartStateEvents,
                                                 int* jobId)
{
    if (usecOutOfRange(startUsec, endUsec)) {
        log(4,
            "Tried to start an event search with invalid times (microseconds out of range) "
            "%u.%06u to %u.%06u",
            startSec, startUsec, endSec, endUsec);
        return 1;
    }
    unsigned int id = 0;
    if (!_reserveJobId(jobId, &id)) return 0;
    // Built outside the lock: the constructor asks recording_control for the tracks.
    boost::shared_ptr<SearchJob> job(new EventSearchJob(
        id, logCookie, this, startSec, startUsec, endSec, endUsec, maxResults, requestFlag1 != 0,
        requestFlag2 != 0, includeStartStateEvents != 0));
    _registerJob(id, job, "initiateEventSearch");
    return 0;
}

int RecordingSearchTargetImpl::createMetadataSearch(unsigned int startSec,
                                                    unsigned int startUsec, unsigned int endSec,
                                                    unsigned int endUsec, int maxResults,
                                                    const char* xpath, int* jobId)
{
    if (usecOutOfRange(startUsec, endUsec)) {
        log(4,
            "Tried to start a metadata search with invalid times (microseconds out of range) "
            "%u.%06u to %u.%06u",
            startSec, startUsec, endSec, endUsec);
        return 1;
    }
    unsigned int id = 0;
    if (!_reserveJobId(jobId, &id)) return 0;
    boost::shared_ptr<SearchJob> job(new MetadataSearchJob(
        id, logCookie, this, startSec, startUsec, endSec, endUsec, maxResults, std::string(xpath)));
    _registerJob(id, job, "initiateMetadataSearch");
    return 0;
}

int RecordingSearchTargetImpl::createNoopSearch(int* jobId)
{
    unsigned int id = 0;
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        id = _createJobId();
    }
    *jobId = static_cast<int>(id);
    boost::shared_ptr<SearchJob> job(new NoOpSearchJob(id, logCookie, this));
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    JobMap[id] = job;
    job->setSearchState(Completed);
    return 0;
}

// An unknown id is answered like endSearch answers one: a priority-4 line and status 0, so a
// client that begins a search it has already ended learns nothing new and nothing breaks.
int RecordingSearchTargetImpl::beginSearch(unsigned int jobId, unsigned int* jobIdOut)
{
    *jobIdOut = jobId;
    log(7, "%s(jobId=%d)", "beginSearch", jobId);
    const boost::shared_ptr<SearchJob> job = findJob(jobId);
    if (!job) {
        log(4, "jobId=%d did not exist in request to begin search", jobId);
        return 0;
    }
    job->startSearch();
    return 0;
}

int RecordingSearchTargetImpl::getSearchState(unsigned int jobId, unsigned int* jobIdOut,
                                              unsigned int* stateOut)
{
    *jobIdOut = jobId;
    const boost::shared_ptr<SearchJob> job = findJob(jobId);
    if (job) {
        *stateOut = job->getSearchState();
    } else {
        *stateOut = 0;
        log(5, "getSearchState(): jobId %d was not found", jobId);
    }
    log(7, "getSearchState(): jobId %d, state %d", jobId, *stateOut);
    return 0;
}

int RecordingSearchTargetImpl::endSearch(unsigned int jobId, unsigned int* jobIdOut,
                                         unsigned int* secOut, unsigned int* usecOut)
{
    *jobIdOut = jobId;
    boost::shared_ptr<SearchJob> job;
    {
        boost::unique_lock<boost::mutex> lock(jobMapMutex);
        const auto it = JobMap.find(jobId);
        if (it == JobMap.end()) {
            lock.unlock();
            log(4, "jobId=%d did not exist in request to end search", jobId);
            return 0;
        }
        job = it->second;
        if (const auto timeline = boost::dynamic_pointer_cast<TimelineSearchJob>(job)) {
            timeline->getCurrentTimes(secOut, usecOut);
        } else {
            log(4, "Ending a non-timeline search job %d", jobId);
            *secOut = 0;
            *usecOut = 0;
        }
        log(6, "Ending search jobId=%d.  It is %s and searched through time %d.%06d", jobId,
            job->getSearchState() == Searching ? "searching" : "completed", *secOut, *usecOut);
        JobMap.erase(it);
        job->endSearch();
    }
    return 0;
}

void RecordingSearchTargetImpl::endAllSearchJobs()
{
    std::size_t count = 0;
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        count = JobMap.size();
    }
    log(5, "Ending all %d search jobs (this should only happen on app exit)",
        static_cast<int>(count));
    for (;;) {
        unsigned int id = 0;
        {
            boost::lock_guard<boost::mutex> lock(jobMapMutex);
            if (JobMap.empty()) {
                return;
            }
            id = JobMap.begin()->first;
            count = JobMap.size();
        }
        log(7, "Ending jobid=%d of %d jobs", id, static_cast<int>(count));
        unsigned int scratchId = 0;
        unsigned int scratchSec = 0;
        unsigned int scratchUsec = 0;
        endSearch(id, &scratchId, &scratchSec, &scratchUsec);
    }
}

// ---- event queue and dispatch ----

void RecordingSearchTargetImpl::queueEventData(RecordingSearchEventData& data)
{
    boost::lock_guard<boost::mutex> lock(eventQueueMutex);
    eventQueue.push_back(data);
    eventAvailable.notify_one();
}

// A signal handler may neither lock a mutex nor notify a condition variable, so
// stopProcessEvents only sets the flag and writes to an eventfd (both async-signal-safe).
// While the loop runs, a helper thread waits on that eventfd and, once the flag is set, takes
// eventQueueMutex before notifying. The loop tests the flag under the same mutex and releases
// it only by starting to wait, so the notify either finds the loop waiting or comes after a
// test that already saw the flag: no wake-up is lost, and no timed polling is needed.
void RecordingSearchTargetImpl::processEventLoop()
{
    if (stopRequested.load()) {
        return;
    }
    std::atomic<bool> loopEnded{false};
    boost::thread watcher([this, &loopEnded] { _wakeOnStopRequest(loopEnded); });
    struct WatcherStop {
        RecordingSearchTargetImpl& target;
        std::atomic<bool>& loopEnded;
        boost::thread& watcher;
        ~WatcherStop()
        {
            loopEnded.store(true);
            const std::uint64_t one = 1;
            if (write(target.stopFd, &one, sizeof one) < 0) {
                // The counter cannot overflow from a handful of writes; nothing to do.
            }
            watcher.join();
        }
    } stopWatcher{*this, loopEnded, watcher};

    for (;;) {
        RecordingSearchEventData record;
        {
            boost::unique_lock<boost::mutex> lock(eventQueueMutex);
            while (!stopRequested.load() && eventQueue.empty()) {
                eventAvailable.wait(lock);
            }
            if (stopRequested.load()) {
                return;
            }
            record = eventQueue.front();
            eventQueue.pop_front();
        }
        _dispatch(record);
        if (stopRequested.load()) {
            return;
        }
    }
}

void RecordingSearchTargetImpl::_wakeOnStopRequest(const std::atomic<bool>& loopEnded)
{
    for (;;) {
        pollfd watched{stopFd, POLLIN, 0};
        if (poll(&watched, 1, -1) < 0 && errno != EINTR && errno != ENOMEM) {
            return;
        }
        std::uint64_t count = 0;
        if (read(stopFd, &count, sizeof count) < 0) {
            // EAGAIN: someone else's wake-up was already consumed; test the flags anyway.
        }
        if (loopEnded.load()) {
            return;
        }
        if (stopRequested.load()) {
            { boost::lock_guard<boost::mutex> lock(eventQueueMutex); }
            eventAvailable.notify_all();
            return;
        }
    }
}

void RecordingSearchTargetImpl::stopProcessEvents()
{
    const int savedErrno = errno;
    stopRequested.store(true);
    const std::uint64_t one = 1;
    if (write(stopFd, &one, sizeof one) < 0) {
        // Only EAGAIN is possible, and then the counter already holds a pending wake-up.
    }
    errno = savedErrno;
}

void RecordingSearchTargetImpl::_dispatch(const RecordingSearchEventData& data) const
{
    switch (data.eventType) {
    case SearchCompleted:
        sendEventSearchCompleted(data.jobId);
        break;
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
    default:
        log(4, "RecordingSearchEventData object passed with unknown event type");
        break;
    }
}
