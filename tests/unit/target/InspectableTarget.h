// A RecordingSearchTargetImpl whose queue and table a test can look into, and helpers to
// wait for what a worker thread does.
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>

#include "jobs/SearchJob.h"
#include "target/RecordingSearchTargetImpl.h"

namespace rstest {

// Waits until pred holds, testing it every millisecond: for state that a worker changes
// without telling anyone (a job's state, the queue).
inline bool eventually(const std::function<bool()>& pred,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class InspectableTarget : public RecordingSearchTargetImpl {
public:
    explicit InspectableTarget(void* logCookie = nullptr) : RecordingSearchTargetImpl(logCookie)
    {
    }

    std::vector<RecordingSearchEventData> queued()
    {
        boost::lock_guard<boost::mutex> lock(eventQueueMutex);
        return {eventQueue.begin(), eventQueue.end()};
    }

    int completedCount(unsigned int jobId)
    {
        int n = 0;
        for (const auto& record : queued()) {
            if (record.eventType == SearchCompleted && record.jobId == jobId) ++n;
        }
        return n;
    }

    std::vector<unsigned int> tableIds()
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        std::vector<unsigned int> ids;
        for (const auto& entry : JobMap) ids.push_back(entry.first);
        return ids;
    }

    // Enters a job that the test built with an id from takeJobId(), as the create requests do.
    unsigned int adopt(const boost::shared_ptr<SearchJob>& job)
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        JobMap[job->getJobId()].job = job;
        return job->getJobId();
    }

    unsigned int takeJobId()
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        return _createJobId();
    }

    bool canCreateJob()
    {
        boost::lock_guard<boost::mutex> lock(jobMapMutex);
        return _canCreateJob();
    }

    static unsigned int lastId() { return lastJobId.load(); }
    static void setLastId(unsigned int id) { lastJobId.store(id); }
};

}  // namespace rstest
