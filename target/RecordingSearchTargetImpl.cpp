#include "target/RecordingSearchTargetImpl.h"

#include <algorithm>
#include <iterator>
#include <string>

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/thread.hpp>

#include "jobs/TimelineSearchJob.h"
#include "kavro/contract.h"

std::atomic<unsigned int> RecordingSearchTargetImpl::lastJobId{0};

RecordingSearchTargetImpl::RecordingSearchTargetImpl(void* logCookie)
    : RecordingSearchTargetImpl(logCookie, Limits())
{
}

RecordingSearchTargetImpl::RecordingSearchTargetImpl(void* logCookie, Limits limits)
    : KavroApiRecordingSearchTargetImplBase(logCookie), logCookie(logCookie), limits(limits)
{
    onClientLeft([this](const std::string& client) { _endSearchesOf(client); });
}

RecordingSearchTargetImpl::~RecordingSearchTargetImpl()
{
    try {
        endAllSearchJobs();
    } catch (...) {
        // Nothing may leave a destructor; a job that cannot be ended is dropped unjoined.
    }
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

// A create still building its job counts as running: two creates at once must not both pass.
bool RecordingSearchTargetImpl::_canCreateJob() const
{
    int running = reservedJobs;
    for (const auto& entry : JobMap) {
        if (entry.second.job->getSearchState() == Searching) {
            ++running;
        }
    }
    if (running >= maxRunningJobs) {
        log(5, "Cannot create new search job because %d jobs are already running (max %d)", running,
            maxRunningJobs);
        return false;
    }
    return true;
}

// A full table gives up its oldest completed search; searches still running are the clients'
// own to end (or end with their client).
bool RecordingSearchTargetImpl::_makeRoom()
{
    if (JobMap.size() + reservedJobs < limits.tableJobs) return true;
    auto oldest = JobMap.end();
    for (auto it = JobMap.begin(); it != JobMap.end(); ++it) {
        if (it->second.job->getSearchState() == Completed &&
            (oldest == JobMap.end() || it->second.creation < oldest->second.creation)) {
            oldest = it;
        }
    }
    if (oldest == JobMap.end()) {
        log(5,
            "Cannot create new search job because the table holds %d searches and none has "
            "completed",
            static_cast<int>(JobMap.size()));
        return false;
    }
    log(5, "The table holds %d searches (max %d); ending the oldest completed one, jobId=%d",
        static_cast<int>(JobMap.size()), static_cast<int>(limits.tableJobs), oldest->first);
    unsigned int sec = 0;
    unsigned int usec = 0;
    _endJob(oldest, &sec, &usec);
    return true;
}

boost::shared_ptr<SearchJob> RecordingSearchTargetImpl::findJob(unsigned int jobId)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    const auto it = JobMap.find(jobId);
    return it == JobMap.end() ? boost::shared_ptr<SearchJob>() : it->second.job;
}

bool RecordingSearchTargetImpl::_reserveJobId(bool running, int* jobId, unsigned int* id)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    if ((running && !_canCreateJob()) || !_makeRoom()) {
        *jobId = kavro::contract::kRefusedJobId;
        return false;
    }
    ++reservedJobs;
    *id = _createJobId();
    *jobId = static_cast<int>(*id);
    return true;
}

void RecordingSearchTargetImpl::_registerJob(unsigned int id,
                                             const boost::shared_ptr<SearchJob>& job, bool running,
                                             const char* requestName)
{
    JobEntry entry{job, requestingClient(), 0, Clock::now(), false};
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        --reservedJobs;
        entry.creation = ++creations;
        JobMap[id] = entry;
        log(7, "%s(): JobMap.size(): %d, jobId %d", requestName, static_cast<int>(JobMap.size()),
            id);
    }
    if (running) _scheduleExpiry(entry.created + limits.unbegunTime);
}

// The job is built outside the lock: an event search's constructor asks recording_control
// for the tracks.
int RecordingSearchTargetImpl::_createSearch(const char* requestName, bool running,
                                             const BuildJob& build, int* jobId)
{
    unsigned int id = 0;
    if (!_reserveJobId(running, jobId, &id)) return 0;
    boost::shared_ptr<SearchJob> job;
    try {
        job.reset(build(id));
    } catch (...) {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        --reservedJobs;
        throw;
    }
    _registerJob(id, job, running, requestName);
    return 0;
}

// An unknown id is answered like endSearch answers one: a priority-4 line and status 0, so a
// client that begins a search it has already ended learns nothing new and nothing breaks.
int RecordingSearchTargetImpl::beginSearch(unsigned int jobId, unsigned int* jobIdOut)
{
    *jobIdOut = jobId;
    log(7, "%s(jobId=%d)", "beginSearch", jobId);
    boost::shared_ptr<SearchJob> job;
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        const auto it = JobMap.find(jobId);
        if (it != JobMap.end()) {
            it->second.begun = true;
            job = it->second.job;
        }
    }
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
        *stateOut = kavro::contract::kStateUnknown;
        log(5, "getSearchState(): jobId %d was not found", jobId);
    }
    log(7, "getSearchState(): jobId %d, state %d", jobId, *stateOut);
    return 0;
}

int RecordingSearchTargetImpl::endSearch(unsigned int jobId, unsigned int* jobIdOut,
                                         unsigned int* secOut, unsigned int* usecOut)
{
    *jobIdOut = jobId;
    boost::unique_lock<boost::mutex> lock(jobMapMutex);
    const auto it = JobMap.find(jobId);
    if (it == JobMap.end()) {
        lock.unlock();
        log(4, "jobId=%d did not exist in request to end search", jobId);
        return 0;
    }
    _endJob(it, secOut, usecOut);
    return 0;
}

// Under jobMapMutex. Every way a search leaves the table comes through here: stopped if still
// walking, its worker joined, one SearchCompleted if it had not completed.
RecordingSearchTargetImpl::JobTable::iterator RecordingSearchTargetImpl::_endJob(
    JobTable::iterator it, unsigned int* secOut, unsigned int* usecOut)
{
    const unsigned int jobId = it->first;
    const boost::shared_ptr<SearchJob> job = it->second.job;
    if (const auto timeline = boost::dynamic_pointer_cast<TimelineSearchJob>(job)) {
        timeline->getCurrentTimes(secOut, usecOut);
    } else {
        log(4, "Ending a non-timeline search job %d", jobId);
        *secOut = 0;
        *usecOut = 0;
    }
    log(6, "Ending search jobId=%d.  It is %s and searched through time %d.%06d", jobId,
        job->getSearchState() == Searching ? "searching" : "completed", *secOut, *usecOut);
    const auto next = JobMap.erase(it);
    job->endSearch();
    return next;
}

// On a request thread, once the framework has seen the client leave the bus.
void RecordingSearchTargetImpl::_endSearchesOf(const std::string& client)
{
    boost::lock_guard<boost::mutex> lock(jobMapMutex);
    const auto owned = std::count_if(JobMap.begin(), JobMap.end(), [&](const auto& entry) {
        return entry.second.client == client;
    });
    if (owned == 0) return;
    log(6, "Client %s left the bus with %d searches; ending them", client.c_str(),
        static_cast<int>(owned));
    unsigned int sec = 0;
    unsigned int usec = 0;
    for (auto it = JobMap.begin(); it != JobMap.end();) {
        it = it->second.client == client ? _endJob(it, &sec, &usec) : std::next(it);
    }
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
