// The requests that make searches and read their progress; the job table they go into is in
// RecordingSearchTargetImpl.cpp.
#include <string>

#include "jobs/EventSearchJob.h"
#include "jobs/MetadataSearchJob.h"
#include "jobs/NoOpSearchJob.h"
#include "jobs/TimelineSearchJob.h"
#include "kavro/contract.h"
#include "target/RecordingSearchTargetImpl.h"

bool RecordingSearchTargetImpl::_timesValid(const char* search, unsigned int startSec,
                                            unsigned int startUsec, unsigned int endSec,
                                            unsigned int endUsec) const
{
    if (startUsec <= kavro::contract::kMaxUsec && endUsec <= kavro::contract::kMaxUsec) return true;
    log(4, "Tried to start %s with invalid times (microseconds out of range) %u.%06u to %u.%06u",
        search, startSec, startUsec, endSec, endUsec);
    return false;
}

int RecordingSearchTargetImpl::createEventSearch(unsigned int startSec, unsigned int startUsec,
                                                 unsigned int endSec, unsigned int endUsec,
                                                 int maxResults, unsigned char requestFlag1,
                                                 unsigned char requestFlag2,
                                                 unsigned char includeStartStateEvents, int* jobId)
{
    if (!_timesValid("an event search", startSec, startUsec, endSec, endUsec)) {
        return kavro::contract::kStatusUsecOutOfRange;
    }
    return _createSearch(
        "initiateEventSearch", true,
        [&](unsigned int id) {
            return new EventSearchJob(id, logCookie, this, startSec, startUsec, endSec, endUsec,
                                      maxResults, requestFlag1 != 0, requestFlag2 != 0,
                                      includeStartStateEvents != 0);
        },
        jobId);
}

int RecordingSearchTargetImpl::createMetadataSearch(unsigned int startSec, unsigned int startUsec,
                                                    unsigned int endSec, unsigned int endUsec,
                                                    int maxResults, const char* xpath, int* jobId)
{
    if (!_timesValid("a metadata search", startSec, startUsec, endSec, endUsec)) {
        return kavro::contract::kStatusUsecOutOfRange;
    }
    return _createSearch(
        "initiateMetadataSearch", true,
        [&](unsigned int id) {
            return new MetadataSearchJob(id, logCookie, this, startSec, startUsec, endSec, endUsec,
                                         maxResults, std::string(xpath));
        },
        jobId);
}

// A no-op search completes inside its create: it takes a place in the table, never a slot.
int RecordingSearchTargetImpl::createNoopSearch(int* jobId)
{
    return _createSearch(
        "createNoopSearch", false,
        [this](unsigned int id) {
            SearchJob* job = new NoOpSearchJob(id, logCookie, this);
            job->setSearchState(Completed);
            return job;
        },
        jobId);
}

int RecordingSearchTargetImpl::getSearchProgress(unsigned int jobId, unsigned int* jobIdOut,
                                                 unsigned int* stateOut, unsigned int* secOut,
                                                 unsigned int* usecOut, unsigned char* failedOut,
                                                 unsigned int* failedSecOut,
                                                 unsigned int* failedUsecOut)
{
    *jobIdOut = jobId;
    *stateOut = kavro::contract::kStateUnknown;
    *secOut = *usecOut = *failedSecOut = *failedUsecOut = 0;
    *failedOut = 0;
    const boost::shared_ptr<SearchJob> job = findJob(jobId);
    if (!job) return 0;
    *stateOut = job->getSearchState();
    if (const auto timeline = boost::dynamic_pointer_cast<TimelineSearchJob>(job)) {
        timeline->getCurrentTimes(secOut, usecOut);
        SearchTime reached;
        if (timeline->endedByServiceFailure(&reached)) {
            *failedOut = 1;
            *failedSecOut = reached.sec;
            *failedUsecOut = reached.usec;
        }
    }
    return 0;
}
