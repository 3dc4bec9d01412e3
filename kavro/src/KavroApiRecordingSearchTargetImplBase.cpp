#include "kavro/KavroApiRecordingSearchTargetImplBase.h"

#include <mutex>
#include <shared_mutex>

#include "RequestScope.h"
#include "TargetEventSink.h"

KavroApiRecordingSearchTargetImplBase::KavroApiRecordingSearchTargetImplBase(void* logCookie)
    : logCookie_(logCookie)
{
}

KavroApiRecordingSearchTargetImplBase::~KavroApiRecordingSearchTargetImplBase() = default;

void KavroApiRecordingSearchTargetImplBase::attachSink(kavro::detail::TargetEventSink* sink)
{
    boost::unique_lock<boost::shared_mutex> lock(sinkMutex_);
    sink_ = sink;
}

template <typename Emit>
kavro_core_status KavroApiRecordingSearchTargetImplBase::withSink(Emit emit) const
{
    boost::shared_lock<boost::shared_mutex> lock(sinkMutex_);
    if (sink_ == nullptr) return KAVRO_STATUS_NOT_INITIALISED;
    return emit(*sink_);
}

kavro_core_status KavroApiRecordingSearchTargetImplBase::sendEventSearchCompleted(
    unsigned int jobId) const
{
    return withSink([&](auto& sink) { return sink.searchCompleted(jobId); });
}

kavro_core_status KavroApiRecordingSearchTargetImplBase::sendEventMetadataSearchResult(
    unsigned int jobId, unsigned int sec, unsigned int usec) const
{
    return withSink([&](auto& sink) { return sink.metadataSearchResult(jobId, sec, usec); });
}

kavro_core_status KavroApiRecordingSearchTargetImplBase::sendEventTrackStateEventSearchResult(
    unsigned int jobId, unsigned int sec, unsigned int usec, const char* trackName,
    unsigned char state, unsigned char startState) const
{
    return withSink([&](auto& sink) {
        return sink.trackStateEventSearchResult(jobId, sec, usec, trackName ? trackName : "", state,
                                                startState);
    });
}

kavro_core_status KavroApiRecordingSearchTargetImplBase::sendEventRecordingStateEventSearchResult(
    unsigned int jobId, unsigned int sec, unsigned int usec, unsigned char state,
    unsigned char startState) const
{
    return withSink([&](auto& sink) {
        return sink.recordingStateEventSearchResult(jobId, sec, usec, state, startState);
    });
}

namespace {
thread_local std::string currentClient;
}

const std::string& KavroApiRecordingSearchTargetImplBase::requestingClient()
{
    return currentClient;
}

void KavroApiRecordingSearchTargetImplBase::onClientLeft(
    std::function<void(const std::string& client)> handler)
{
    clientLeftHandler_ = std::move(handler);
}

void KavroApiRecordingSearchTargetImplBase::clientLeft(const std::string& client)
{
    if (clientLeftHandler_) clientLeftHandler_(client);
}

namespace kavro {
namespace detail {

RequestScope::RequestScope(const std::string& client) { currentClient = client; }
RequestScope::~RequestScope() { currentClient.clear(); }

}  // namespace detail
}  // namespace kavro
