// A client of kavro.recording_search that records every signal the service sends.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace rstest {

struct SearchSignal {
    enum class Kind {
        SearchCompleted,
        MetadataSearchResult,
        TrackStateEventSearchResult,
        RecordingStateEventSearchResult
    };
    Kind kind = Kind::SearchCompleted;
    uint32_t jobId = 0;
    uint32_t sec = 0;
    uint32_t usec = 0;
    std::string trackName;  // TrackStateEventSearchResult only
    uint8_t state = 0;
    uint8_t startState = 0;

    bool operator==(const SearchSignal& o) const;
};
std::ostream& operator<<(std::ostream& os, const SearchSignal& s);  // readable gtest failures

// Outcome of one method call. status 0: the call succeeded and value holds its outputs.
// Otherwise status is what kavro::bus::statusFromError made of the error (the service's own
// number for kavro.Error.Status) and errorName/errorMessage are the D-Bus error's.
template <typename T>
struct CallResult {
    int status = 0;
    T value{};
    std::string errorName;
    std::string errorMessage;

    bool ok() const { return status == 0; }
};

struct SearchStateReply {
    uint32_t jobId = 0;
    uint32_t state = 0;
};

struct EndSearchReply {
    uint32_t jobId = 0;
    uint32_t sec = 0;
    uint32_t usec = 0;
};

// Signals arrive on a connection of their own, run by a kavro::bus::BusLoop; the match rules are
// in place when the constructor returns, so construct the client before the first create call.
// Method calls go over a second connection without a loop, one call at a time (calls from
// several threads are serialised). Every member may be called from any thread.
class SearchClient {
public:
    static constexpr std::chrono::milliseconds kDefaultCallTimeout{10000};

    // busAddress empty: the bus of $DBUS_SYSTEM_BUS_ADDRESS.
    explicit SearchClient(const std::string& busAddress = "",
                          const std::string& service = "recording_search");
    ~SearchClient();

    CallResult<int32_t> createEventSearch(uint32_t startSec, uint32_t startUsec, uint32_t endSec,
                                          uint32_t endUsec, int32_t maxResults,
                                          uint8_t requestFlag1, uint8_t requestFlag2,
                                          uint8_t includeStartStateEvents);
    CallResult<int32_t> createMetadataSearch(uint32_t startSec, uint32_t startUsec, uint32_t endSec,
                                             uint32_t endUsec, int32_t maxResults,
                                             const std::string& xpath);
    CallResult<int32_t> createNoopSearch();
    CallResult<uint32_t> beginSearch(uint32_t jobId);
    CallResult<SearchStateReply> getSearchState(uint32_t jobId);
    CallResult<EndSearchReply> endSearch(uint32_t jobId);

    // Every signal received so far, in arrival order.
    std::vector<SearchSignal> signals() const;
    std::vector<SearchSignal> signalsFor(uint32_t jobId) const;

    bool waitForCompleted(uint32_t jobId,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool waitForSignalCount(size_t n,
                            std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Waits until pred(signals so far) holds.
    bool waitUntil(const std::function<bool(const std::vector<SearchSignal>&)>& pred,
                   std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    SearchClient(const SearchClient&) = delete;
    SearchClient& operator=(const SearchClient&) = delete;

    class Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace rstest
