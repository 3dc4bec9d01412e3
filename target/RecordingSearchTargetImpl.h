#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>

#include <boost/chrono.hpp>
#include <boost/optional.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include "kavro/KavroApiRecordingSearchTargetImplBase.h"
#include "kavro/tools/StopSignals.h"
#include "target/RecordingSearchEventData.h"

class SearchJob;

// The service's one target: the table of searches, the requests on it, and the queue of
// result events with the loop that sends them (RecordingSearchTargetImpl.cpp holds the table
// and the requests, RecordingSearchTargetEvents.cpp the queue and the loop).
//
// Threads: the framework's request threads call the request operations, several at once, and
// the handler of a departed client; job workers and request threads call queueEventData; the
// main thread runs processEventLoop (the only sender of events, which also ends searches never
// begun) and, at shutdown, endAllSearchJobs; stopProcessEvents may come from a signal handler
// on any thread.
// Locks, always in this order: jobMapMutex (JobMap and the counters beside it), then a job's
// own locks, then eventQueueMutex (eventQueue, expiryDue), under which nothing else is locked.
// No event is sent while any of them is held.
class RecordingSearchTargetImpl : public KavroApiRecordingSearchTargetImplBase {
public:
    using Clock = boost::chrono::steady_clock;

    // At most this many event or metadata searches are Searching at once.
    static constexpr int maxRunningJobs = 2;
    // A search not begun this long after its creation is ended, so it cannot hold a slot.
    static constexpr boost::chrono::seconds maxUnbegunTime{30};
    // At most this many searches in the table; a create beyond it ends the oldest completed.
    static constexpr std::size_t maxTableJobs = 256;

    // The bounds above, smaller in tests that should not wait for them.
    struct Limits {
        std::size_t tableJobs = maxTableJobs;
        Clock::duration unbegunTime = maxUnbegunTime;
    };

    explicit RecordingSearchTargetImpl(void* logCookie);
    RecordingSearchTargetImpl(void* logCookie, Limits limits);
    ~RecordingSearchTargetImpl() override;

    int createEventSearch(unsigned int startSec, unsigned int startUsec, unsigned int endSec,
                          unsigned int endUsec, int maxResults, unsigned char requestFlag1,
                          unsigned char requestFlag2, unsigned char includeStartStateEvents,
                          int* jobId) override;
    int createMetadataSearch(unsigned int startSec, unsigned int startUsec, unsigned int endSec,
                             unsigned int endUsec, int maxResults, const char* xpath,
                             int* jobId) override;
    int createNoopSearch(int* jobId) override;
    int beginSearch(unsigned int jobId, unsigned int* jobIdOut) override;
    int getSearchState(unsigned int jobId, unsigned int* jobIdOut, unsigned int* stateOut) override;
    int getSearchProgress(unsigned int jobId, unsigned int* jobIdOut, unsigned int* stateOut,
                          unsigned int* secOut, unsigned int* usecOut, unsigned char* failedOut,
                          unsigned int* failedSecOut, unsigned int* failedUsecOut) override;
    int endSearch(unsigned int jobId, unsigned int* jobIdOut, unsigned int* secOut,
                  unsigned int* usecOut) override;

    virtual void endAllSearchJobs();

    boost::shared_ptr<SearchJob> findJob(unsigned int jobId);

    // Any thread, any time; the record is copied.
    void queueEventData(RecordingSearchEventData& data);
    // Main thread only; returns once stopProcessEvents has been called.
    void processEventLoop();
    // Async-signal-safe.
    void stopProcessEvents();

private:
    struct JobEntry {
        boost::shared_ptr<SearchJob> job;
        std::string client;          // the bus name that created it
        std::uint64_t creation = 0;  // orders the entries by age
        Clock::time_point created;
        bool begun = false;
    };
    using JobTable = std::map<unsigned int, JobEntry>;

    unsigned int _createJobId();
    bool _canCreateJob() const;

    // The last id handed out, one counter for the process. Read and written under the
    // allocating target's jobMapMutex; atomic because a process may hold more than one target
    // (the tests do), each with its own mutex.
    static std::atomic<unsigned int> lastJobId;

    JobTable JobMap;
    boost::mutex jobMapMutex;
    boost::mutex eventQueueMutex;
    std::deque<RecordingSearchEventData> eventQueue;
    boost::condition_variable eventAvailable;
    void* const logCookie;

    using BuildJob = std::function<SearchJob*(unsigned int id)>;
    int _createSearch(const char* requestName, bool running, const BuildJob& build, int* jobId);
    // False, with a priority-4 line, when a microseconds field is out of range.
    bool _timesValid(const char* search, unsigned int startSec, unsigned int startUsec,
                     unsigned int endSec, unsigned int endUsec) const;
    bool _reserveJobId(bool running, int* jobId, unsigned int* id);
    bool _makeRoom();
    void _registerJob(unsigned int id, const boost::shared_ptr<SearchJob>& job, bool running,
                      const char* requestName);
    JobTable::iterator _endJob(JobTable::iterator it, unsigned int* secOut, unsigned int* usecOut);
    void _endSearchesOf(const std::string& client);
    void _endUnbegunSearches();
    void _scheduleExpiry(Clock::time_point due);
    bool _waitForEvents(std::deque<RecordingSearchEventData>& batch);
    void _putBack(std::deque<RecordingSearchEventData>& batch,
                  const std::deque<RecordingSearchEventData>::iterator& from);
    void _dispatch(const RecordingSearchEventData& data) const;

    const Limits limits;
    // Under jobMapMutex: creates between their id and their entry, counted against the limits.
    int reservedJobs = 0;
    std::uint64_t creations = 0;
    // Under eventQueueMutex: when the loop next looks for searches never begun.
    boost::optional<Clock::time_point> expiryDue;
    kavro::tools::StopRequest stopRequest;
};
