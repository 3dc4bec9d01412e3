// The read side of a recording file: every answer the recording services give, each from
// prepared statements that descend one index, so an answer costs O(log n).
//
// Items that share a time are one position on the timeline: a history event answer carries
// the properties of every event at that time (in the order they were stored), a metadata
// answer the document stored first at that time; prev and next are always the nearest
// *other* times, so a walk from item to item never stalls on a repeated time.
//
// Not thread-safe: one thread owns a Recording (the server's bus loop thread).
//
// The file may grow while it is read (generate --append): each answer reads inside a
// Snapshot, so that its parts agree and no read lock outlives it to hold a writer back.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/SqliteDb.h"
#include "store/StoreTime.h"

namespace store {

struct TimeSpan {
    StoreTime start;
    StoreTime end;
};

// cur: the item at the asked time, else the latest before it, else the first after it.
// prev and next: the nearest times before and after cur, 0.0 where there is none.
struct Neighbours {
    StoreTime cur;
    StoreTime prev;
    StoreTime next;
};

struct EventProperty {
    uint32_t key = 0;    // 0: the recording, 1: a track
    uint32_t value = 0;  // 0 off, 1 on
    std::string name;    // the track's name for key 1, empty for key 0

    friend bool operator==(const EventProperty& a, const EventProperty& b)
    {
        return a.key == b.key && a.value == b.value && a.name == b.name;
    }
};

struct HistoryEvent {
    Neighbours times;
    std::vector<EventProperty> properties;
};

struct MetadataDocument {
    Neighbours times;
    std::string body;
};

struct RecordingState {
    uint8_t state = 0;                  // the recording: 1 on, 0 off
    std::vector<std::string> tracksOn;  // in the recording's track order
};

class Recording {
public:
    // Opens read-only; throws StoreError when the file is missing or not a recording.
    explicit Recording(const std::string& path);
    ~Recording();

    std::vector<std::string> tracks();
    bool hasTrack(const std::string& name);
    // First and last time of anything in the recording; none when it is empty.
    std::optional<TimeSpan> summary();
    // The metadata track: its first and last document. Another track: from its first switch
    // on to its last switch off, or to the recording's end when it is still on there.
    // None when the track has no data (or does not exist; ask hasTrack to tell the two apart).
    std::optional<TimeSpan> trackSummary(const std::string& name);
    // Every history event at or before t applied in order; all off before the first.
    RecordingState stateAt(StoreTime t);
    std::optional<StoreTime> firstHistoryEventTime();
    std::optional<HistoryEvent> historyEventAt(StoreTime t);
    std::optional<MetadataDocument> metadataAt(StoreTime t);

    // One read transaction, ended (every statement reset) when it goes.
    class Snapshot {
    public:
        explicit Snapshot(Recording& recording);
        ~Snapshot();
        Snapshot(const Snapshot&) = delete;
        Snapshot& operator=(const Snapshot&) = delete;

    private:
        Recording& recording_;
    };

    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

private:
    struct TimeLookup;
    struct Statements;

    std::optional<Neighbours> locate(TimeLookup& lookup, StoreTime t);
    std::optional<StoreTime> bound(Statement& statement);

    SqliteDb db_;
    std::unique_ptr<Statements> statements_;
};

}  // namespace store
