#include "jobs/NoOpSearchJob.h"

NoOpSearchJob::NoOpSearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target)
    : SearchJob(jobId, logCookie, target, -1)
{
}

void NoOpSearchJob::startSearch() { setSearchState(Completed); }

void NoOpSearchJob::performSearch() {}
