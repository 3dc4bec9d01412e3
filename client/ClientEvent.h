// What reaches the main thread while a search runs: results and completions from the bus loop,
// the service or bus going away, and stop signals.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "client/TimeText.h"

namespace rsclient {

struct SearchResult {
    enum class Kind { Metadata, TrackState, RecordingState };
    Kind kind = Kind::Metadata;
    uint32_t jobId = 0;
    TimePoint time;
    std::string track;  // TrackState only
    bool on = false;
    bool startState = false;
};

struct ClientEvent {
    enum class Kind { Result, Completed, ServiceGone, BusLost, Interrupted };
    Kind kind = Kind::Result;
    uint32_t jobId = 0;   // Result, Completed
    SearchResult result;  // Result
    int signal = 0;       // Interrupted
    std::string detail;   // BusLost
};

// Filled by the bus loop thread and the signal thread, drained by the main thread. Until the
// main thread knows its job id it cannot filter, so everything is kept in arrival order.
class EventInbox {
public:
    void push(ClientEvent event)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            events_.push_back(std::move(event));
        }
        available_.notify_one();
    }

    std::optional<ClientEvent> waitNext(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!available_.wait_for(lock, timeout, [this] { return !events_.empty(); })) {
            return std::nullopt;
        }
        ClientEvent event = std::move(events_.front());
        events_.pop_front();
        return event;
    }

private:
    std::mutex mutex_;
    std::condition_variable available_;
    std::deque<ClientEvent> events_;
};

}  // namespace rsclient
