#pragma once

#include <cstdint>

#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

#include "kavro/contract.h"

class RecordingSearchTargetImpl;

// A job's state. A job never holds any other value; the target reports 0 for an unknown id.
enum searchState : std::uint32_t {
    Searching = kavro::contract::kStateSearching,
    Completed = kavro::contract::kStateCompleted,
};

// One search. The target creates it on a request thread; startSearch runs performSearch on
// a worker thread of the job's own.
//
// Threads: request threads call startSearch, endSearch, getSearchState and setSearchState;
// the worker calls getSearchState, setSearchState (once, at its end), _incResultCount and
// _inRange; the main thread calls endSearch at shutdown.
// Locks: workerMutex guards workerThread; stateMutex guards state. Order: the target's
// jobMapMutex, then workerMutex, then stateMutex, then the target's eventQueueMutex. The
// worker takes only stateMutex and eventQueueMutex, never workerMutex or jobMapMutex, since
// endSearch joins it while holding both.
class SearchJob {
public:
    SearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target,
              int maxResults);
    // Does not wait for the worker: the owner calls endSearch before dropping the job.
    virtual ~SearchJob();

    virtual void startSearch();
    virtual void endSearch();
    virtual void performSearch() = 0;

    searchState getSearchState();
    void setSearchState(searchState newState);

    unsigned int getJobId() const { return jobId; }

    SearchJob(const SearchJob&) = delete;
    SearchJob& operator=(const SearchJob&) = delete;

protected:
    void _searchWrapper();
    void _incResultCount();
    bool _inRange() const;

    const unsigned int jobId;
    void* const logCookie;
    RecordingSearchTargetImpl* const target;

private:
    searchState state;
    boost::mutex stateMutex;
    boost::mutex workerMutex;
    boost::thread workerThread;
    bool workerStarted = false;  // guarded by workerMutex

protected:
    const int maxResults;
    int resultCount;  // the worker's alone
};
