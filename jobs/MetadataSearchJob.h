#pragma once

#include <optional>
#include <string>

#include "jobs/InitiatorResults.h"
#include "jobs/TimelineSearchJob.h"
#include "jobs/TimelineStep.h"

// Reports the times of the metadata documents (track "META001") that satisfy an XPath
// expression, walking forward or backward between the client's two times.
//
// Threads: built and destroyed where the target creates and drops it; the walk, and every
// libxml2 object it makes, belong to the job's worker alone.
class MetadataSearchJob : public TimelineSearchJob {
public:
    MetadataSearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target,
                      unsigned int startSec, unsigned int startUsec, unsigned int endSec,
                      unsigned int endUsec, int maxResults, std::string xpath);
    ~MetadataSearchJob() override;

    void performTimelineSearch(void* informationHandle, void* dataAccessHandle) override;

    const std::string& getXpath() const { return xpath; }

protected:
    // The document text of an answer in range (null when the service sent none), or nothing
    // for a skipped one.
    std::optional<OwnedText> _getNextMetadataDoc(void* dataAccessHandle);

private:
    void _narrowToMetadataTrack(void* informationHandle);
    void _queueResult();

    std::string xpath;
    const TimelineStep step;
};
