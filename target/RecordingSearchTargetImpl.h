#pragma once

#include <atomic>
#include <deque>
#include <map>

#include <boost/shared_ptr.hpp>
#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include "kavro/KavroApiRecordingSearchTargetImplBase.h"
#include "target/RecordingSearchEventData.h"

class SearchJob;

// The service's one target: the table of searches, the requests on it, and the queue of
// result events with the loop that sends them.
//
// Threads: the framework's request threads call the request operations, several at once;
// job workers and request threads call queueEventData; the main thread runs processEventLoop
// (the only sender of events) and, at shutdown, endAllSearchJobs; stopProcessEvents may come
// from a signal handler on any thread.
// Locks, always in this order: jobMapMutex (JobMap, lastJobId), then a job's own locks, then
// eventQueueMutex (eventQueue), under which nothing else is locked. No event is sent while
// any of them is held.
class RecordingSearchTargetImpl : public KavroApiRecordingSearchTargetImplBase {
public:
    explicit RecordingSearchTargetImpl(void* logCookie);
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
    int getSearchState(unsigned int jobId, unsigned int* jobIdOut,
                       unsigned int* stateOut) override;
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

    static constexpr int maxRunningJobs = 2;

protected:
    unsigned int _createJobId();
    bool _canCreateJob() const;
    // The limit check and id allocation of a create request; false (and -1) when refused.
    bool _reserveJobId(int* jobId, unsigned int* id);
    void _registerJob(unsigned int id, const boost::shared_ptr<SearchJob>& job,
                      const char* requestName);

    // The last id handed out, shared by every target of the process. Read and written under
    // the allocating target's jobMapMutex; atomic only because tests run several targets.
    static std::atomic<unsigned int> lastJobId;

    std::map<unsigned int, boost::shared_ptr<SearchJob>> JobMap;
    boost::mutex jobMapMutex;
    boost::mutex eventQueueMutex;
    std::deque<RecordingSearchEventData> eventQueue;
    boost::condition_variable eventAvailable;
    std::atomic<bool> stopRequested;
    void* const logCookie;

private:
    void _dispatch(const RecordingSearchEventData& data) const;
    void _wakeOnStopRequest(const std::atomic<bool>& loopEnded);

    // Written by stopProcessEvents; a helper thread of the loop turns it into a notify of
    // eventAvailable, which a signal handler may not do itself.
    int stopFd;
};
