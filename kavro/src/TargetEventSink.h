#pragma once

#include <string>

#include "kavro/core.h"

namespace kavro {
namespace detail {

// Where a target's events go while a runner serves it.
class TargetEventSink {
public:
    virtual ~TargetEventSink() = default;
    virtual kavro_core_status searchCompleted(unsigned int jobId) = 0;
    virtual kavro_core_status metadataSearchResult(unsigned int jobId, unsigned int sec,
                                                   unsigned int usec) = 0;
    virtual kavro_core_status trackStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                          unsigned int usec, std::string trackName,
                                                          unsigned char state,
                                                          unsigned char startState) = 0;
    virtual kavro_core_status recordingStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                              unsigned int usec,
                                                              unsigned char state,
                                                              unsigned char startState) = 0;
};

}  // namespace detail
}  // namespace kavro
