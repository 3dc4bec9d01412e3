#pragma once

#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include "kavro/KavroApiRecordingSearchTargetImplBase.h"

// Serves one target on the bus under the name "kavro.<serviceName>" for its lifetime.
// The constructor throws kavro::core::KavroApiException when the bus cannot be reached or the
// name cannot be taken. Requests run on a small pool of request threads; the destructor stops
// taking requests, waits for those in progress, and sends what the target has already emitted.
class KavroApiRecordingSearchTargetRun {
public:
    KavroApiRecordingSearchTargetRun(
        const std::string& serviceName, void* logCookie,
        boost::shared_ptr<KavroApiRecordingSearchTargetImplBase> target);
    ~KavroApiRecordingSearchTargetRun();

    KavroApiRecordingSearchTargetRun(const KavroApiRecordingSearchTargetRun&) = delete;
    KavroApiRecordingSearchTargetRun& operator=(const KavroApiRecordingSearchTargetRun&) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};
