// The write side of a recording file: tracks, history events and metadata documents, added
// inside a transaction the caller holds (see transaction()). Used by generate and import.
// Not thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "store/Recording.h"
#include "store/SqliteDb.h"
#include "store/StoreTime.h"

namespace store {

class RecordingWriter {
public:
    enum class Durability {
        Safe,    // an existing recording: journal and sync as usual
        Shared,  // a recording served while it grows: write-ahead log, readers never wait
        Bulk     // a new file that is thrown away if the load fails: no journal, no sync
    };

    // Creates the file (or opens an existing recording, checked) for writing.
    RecordingWriter(const std::string& path, Durability durability);
    ~RecordingWriter();

    std::unique_ptr<Transaction> transaction();
    // The track's id, adding the track when it is new.
    int64_t addTrack(const std::string& name);
    // Key 1 properties name their track, which is added when new. Times must not be 0.0.
    void addEvent(StoreTime time, const std::vector<EventProperty>& properties);
    void addDocument(StoreTime time, const std::string& body);

    // What the file holds at exactly this time: the properties of every history event there
    // (in stored order; empty when none) and the first document stored there.
    std::vector<EventProperty> propertiesAt(StoreTime time);
    std::optional<std::string> documentAt(StoreTime time);
    // The last time of anything in the file; none when it is empty.
    std::optional<StoreTime> lastTime();

    RecordingWriter(const RecordingWriter&) = delete;
    RecordingWriter& operator=(const RecordingWriter&) = delete;

private:
    SqliteDb db_;
    Statement findTrack_;
    Statement insertTrack_;
    Statement insertEvent_;
    Statement insertProperty_;
    Statement insertDocument_;
    Statement findProperties_;
    Statement findDocument_;
    std::map<std::string, int64_t> trackIds_;
};

}  // namespace store
