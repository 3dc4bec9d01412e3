// Stand-ins for the three recording services (recording_control, recording_information,
// recording_data_access) on the test bus, answering from a small recording that the test sets
// up, or from a script per method.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kavro/core.h"

namespace rstest {

struct StoreTime {
    uint32_t sec = 0;
    uint32_t usec = 0;

    bool operator==(const StoreTime& o) const { return sec == o.sec && usec == o.usec; }
    bool operator!=(const StoreTime& o) const { return !(*this == o); }
    bool operator<(const StoreTime& o) const
    {
        return sec < o.sec || (sec == o.sec && usec < o.usec);
    }
    std::string text() const;  // "%u.%06u"
};

// History-event property keys.
constexpr uint32_t kRecordingKey = 0;  // the recording switched on or off
constexpr uint32_t kTrackKey = 1;      // the named track switched on or off

struct Property {
    std::string name;  // track name for kTrackKey; any text for kRecordingKey
    uint32_t key = 0;
    uint32_t value = 0;
};

struct HistoryEvent {
    StoreTime time;
    std::vector<Property> properties;
};

struct MetadataDocument {
    StoreTime time;
    std::string text;
};

// Events and documents may be given in any order; the services sort them by time.
struct Recording {
    std::vector<std::string> tracks;
    std::vector<HistoryEvent> events;
    std::vector<MetadataDocument> documents;
};

constexpr const char* kMetadataTrack = "META001";

// Answers, one struct per method output.
struct Span {
    StoreTime start;
    StoreTime end;
};

struct RecordingStateAnswer {
    uint8_t state = 0;
    std::vector<std::string> tracksOn;
};

// The arrays are sent as they are: unequal lengths make a malformed reply.
struct HistoryEventAnswer {
    StoreTime cur, prev, next;
    std::vector<std::string> names;
    std::vector<uint32_t> keys;
    std::vector<uint32_t> values;
};

struct MetadataAnswer {
    StoreTime cur, prev, next;
    std::string document;
};

// What a script returns: an answer, a nonzero status (sent as kavro.Error.Status), or "answer
// as the recording would" (useDefault). after() delays any of them: the handler waits that long
// before it answers, which is how a stalled service is played.
template <typename T>
class Reply {
public:
    Reply(T value) : value_(std::move(value)) {}  // NOLINT: implicit, so scripts return answers
    static Reply status(int status)
    {
        Reply r;
        r.status_ = status;
        return r;
    }
    static Reply useDefault() { return Reply(); }
    Reply after(std::chrono::milliseconds delay) &&
    {
        delay_ = delay;
        return std::move(*this);
    }

    const std::optional<T>& value() const { return value_; }
    int statusValue() const { return status_; }
    std::chrono::milliseconds delay() const { return delay_; }

private:
    Reply() = default;
    std::optional<T> value_;
    int status_ = 0;
    std::chrono::milliseconds delay_{0};
};

// One request as the stand-in received it. args: the time as "%u.%06u" for the methods that take
// one, the track name for GetTrackSummary, empty otherwise.
struct ReceivedCall {
    std::string method;
    std::string args;
};

enum class RecordingService { Control, Information, DataAccess };

// Thread use: every method may be called from any thread, also while requests are being served.
// Each service runs on its own connection and kavro::bus::BusLoop thread; handlers (and so the
// scripts) run on those threads, never two of the same service at once. A script may call the
// model*() functions. Destruction wakes any stalled handler, stops the loops and releases the
// three names before it returns, so the next test can take them at once.
class ScriptedRecordingServices {
public:
    static constexpr int kFailureStatus = KAVRO_STATUS_FAILED;  // the default answers' failure

    // Serves the given services on the bus of $DBUS_SYSTEM_BUS_ADDRESS (or busAddress, when not
    // empty). Throws sdbus::Error when a name cannot be taken.
    explicit ScriptedRecordingServices(
        Recording recording = {},
        std::vector<RecordingService> serve = {RecordingService::Control,
                                               RecordingService::Information,
                                               RecordingService::DataAccess},
        const std::string& busAddress = "");
    ~ScriptedRecordingServices();

    void setRecording(Recording recording);

    // Scripts, one per method; an empty function restores the default answer.
    void scriptGetTracks(std::function<Reply<std::vector<std::string>>()> script);
    void scriptGetRecordingSummary(std::function<Reply<Span>()> script);
    void scriptGetRecordingState(std::function<Reply<RecordingStateAnswer>(StoreTime)> script);
    void scriptGetTrackSummary(std::function<Reply<Span>(const std::string&)> script);
    void scriptGetFirstRecordingHistoryEventTime(std::function<Reply<StoreTime>()> script);
    void scriptGetRecordingHistoryEvent(std::function<Reply<HistoryEventAnswer>(StoreTime)> script);
    void scriptGetMetadata(std::function<Reply<MetadataAnswer>(StoreTime)> script);

    // Shorthands by method name ("GetMetadata", ...), applied before any script: every call of
    // the method fails with the status, or answers (by script or recording) only after delay.
    void failMethod(const std::string& method, int status);
    void stallMethod(const std::string& method, std::chrono::milliseconds delay);
    void clearOverrides();

    // The answers of the recording, as the default handlers give them. nullopt means that the
    // recording has no answer (the handler then fails with kFailureStatus). A track summary:
    // for "META001" the span of the documents; for another listed track the span of the events
    // that name it, or the recording's span when none does; an unlisted track has none.
    std::vector<std::string> modelTracks() const;
    std::optional<Span> modelRecordingSummary() const;
    RecordingStateAnswer modelRecordingState(StoreTime t) const;
    std::optional<Span> modelTrackSummary(const std::string& track) const;
    std::optional<StoreTime> modelFirstHistoryEventTime() const;
    std::optional<HistoryEventAnswer> modelHistoryEvent(StoreTime t) const;
    std::optional<MetadataAnswer> modelMetadata(StoreTime t) const;

    // Calls received, in arrival order (across the three services, order of arrival at the
    // handlers).
    std::vector<ReceivedCall> calls() const;
    int callCount(const std::string& method) const;
    void clearCalls();
    // Waits until at least n calls of the method have been received.
    bool waitForCalls(const std::string& method, int n,
                      std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;

    ScriptedRecordingServices(const ScriptedRecordingServices&) = delete;
    ScriptedRecordingServices& operator=(const ScriptedRecordingServices&) = delete;

    class Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace rstest
