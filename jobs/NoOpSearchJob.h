#pragma once

#include "jobs/SearchJob.h"

// The search that finds nothing: complete without ever starting a thread.
class NoOpSearchJob : public SearchJob {
public:
    NoOpSearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target);

    void startSearch() override;
    void performSearch() override;
};
