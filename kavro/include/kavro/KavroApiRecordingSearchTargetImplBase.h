#pragma once

#include <functional>
#include <string>

#include <boost/thread/shared_mutex.hpp>

#include "kavro/core.h"

namespace kavro {
namespace detail {
class TargetEventSink;
}
}  // namespace kavro

// The target that the recording_search service implements. The framework calls the request
// operations on its request threads, several at once, while a runner serves the target. The
// event senders may be called from any one thread; they hand the event to the bus and return
// without waiting for it to leave.
//
// Losing the bus: a sender throws kavro::core::KavroApiException (KAVRO_STATUS_BUS_LOST) once
// the bus connection is lost, so that the caller's loop ends. A loop that waits for its next
// event would not notice, so the runner, which logs the loss once, then calls
// createNoopSearch: a target must answer it by emitting one event through a sender (a no-op
// search completes at once), and that send throws.
class KavroApiRecordingSearchTargetImplBase {
public:
    explicit KavroApiRecordingSearchTargetImplBase(void* logCookie);
    virtual ~KavroApiRecordingSearchTargetImplBase();

    virtual bool isRunnable() { return true; }

    // Each returns 0, or a nonzero status that the client receives as kavro.Error.Status.
    virtual int createEventSearch(unsigned int startSec, unsigned int startUsec,
                                  unsigned int endSec, unsigned int endUsec, int maxResults,
                                  unsigned char requestFlag1, unsigned char requestFlag2,
                                  unsigned char includeStartStateEvents, int* jobId) = 0;
    virtual int createMetadataSearch(unsigned int startSec, unsigned int startUsec,
                                     unsigned int endSec, unsigned int endUsec, int maxResults,
                                     const char* xpath, int* jobId) = 0;
    virtual int createNoopSearch(int* jobId) = 0;
    virtual int beginSearch(unsigned int jobId, unsigned int* jobIdOut) = 0;
    virtual int getSearchState(unsigned int jobId, unsigned int* jobIdOut,
                               unsigned int* stateOut) = 0;
    // Read-only: the state, the time searched through (as endSearch reads it), and whether the
    // walk ended because a recording service failed, with the time it had reached.
    virtual int getSearchProgress(unsigned int jobId, unsigned int* jobIdOut,
                                  unsigned int* stateOut, unsigned int* secOut,
                                  unsigned int* usecOut, unsigned char* failedOut,
                                  unsigned int* failedSecOut, unsigned int* failedUsecOut) = 0;
    virtual int endSearch(unsigned int jobId, unsigned int* jobIdOut, unsigned int* secOut,
                          unsigned int* usecOut) = 0;

    virtual void log(kavro_core_log_priority priority, const char* format, ...) const
        __attribute__((format(printf, 3, 4)))
    {
        va_list args;
        va_start(args, format);
        kavro_core_logging_logv(logCookie_, priority, format, args);
        va_end(args);
    }

    kavro_core_status sendEventSearchCompleted(unsigned int jobId) const;
    kavro_core_status sendEventMetadataSearchResult(unsigned int jobId, unsigned int sec,
                                                    unsigned int usec) const;
    kavro_core_status sendEventTrackStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                           unsigned int usec, const char* trackName,
                                                           unsigned char state,
                                                           unsigned char startState) const;
    kavro_core_status sendEventRecordingStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                               unsigned int usec,
                                                               unsigned char state,
                                                               unsigned char startState) const;

    KavroApiRecordingSearchTargetImplBase(const KavroApiRecordingSearchTargetImplBase&) = delete;
    KavroApiRecordingSearchTargetImplBase& operator=(const KavroApiRecordingSearchTargetImplBase&) =
        delete;

protected:
    // The unique bus name of the client whose request the calling thread serves; empty on any
    // other thread.
    static const std::string& requestingClient();
    // Set before a runner serves the target. Once a client that made a create request has left
    // the bus and all its create requests have been answered, the runner calls the handler once
    // with that client's name, on a request thread (never the bus loop thread).
    void onClientLeft(std::function<void(const std::string& client)> handler);

private:
    friend class KavroApiRecordingSearchTargetRun;
    void attachSink(kavro::detail::TargetEventSink* sink);
    void clientLeft(const std::string& client);

    template <typename Emit>
    kavro_core_status withSink(Emit emit) const;

    void* logCookie_;
    // Guards sink_: the runner attaches and detaches it while the senders read it.
    mutable boost::shared_mutex sinkMutex_;
    kavro::detail::TargetEventSink* sink_ = nullptr;
    std::function<void(const std::string&)> clientLeftHandler_;
};
