// For the end-to-end searches: a generated recording, read straight from its SQLite file for
// the expected answers, and the processes that serve it.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/GeneratedRecording.h"
#include "support/ServiceStack.h"

namespace e2e {

// Times as the store keeps them: seconds * 1000000 + microseconds.
inline uint32_t secOf(int64_t t) { return static_cast<uint32_t>(t / 1000000); }
inline uint32_t usecOf(int64_t t) { return static_cast<uint32_t>(t % 1000000); }

struct StoredProperty {
    uint32_t key;
    uint32_t value;
    std::string track;  // empty for key 0
};

// One generated recording for the whole test binary, and what its file holds.
class RecordingOnDisk {
public:
    static const RecordingOnDisk& get()
    {
        static RecordingOnDisk recording;
        return recording;
    }

    const std::string& path() const { return file_.path(); }
    // Track names in the order they were added.
    const std::vector<std::string>& tracks() const { return tracks_; }
    // Every time with history, its properties in stored order (events sharing a time merged).
    const std::map<int64_t, std::vector<StoredProperty>>& events() const { return events_; }
    // The document the store answers for each time (the first stored there).
    const std::map<int64_t, std::string>& documents() const { return documents_; }
    int64_t first() const { return first_; }
    int64_t last() const { return last_; }

private:
    RecordingOnDisk()
        : file_(RS_BIN_DIR, {"--seed", "5", "--duration", "10m", "--rate", "2", "--video-tracks",
                             "2", "--audio-tracks", "1", "--recording-on", "120",
                             "--recording-off", "20", "--track-on", "40", "--track-off", "15"})
    {
        read();
    }

    template <typename Row>
    void query(sqlite3* db, const char* sql, Row row)
    {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) != SQLITE_OK) {
            throw std::runtime_error(std::string("cannot read the recording: ") +
                                     sqlite3_errmsg(db));
        }
        while (sqlite3_step(statement) == SQLITE_ROW) row(statement);
        sqlite3_finalize(statement);
    }

    static std::string text(sqlite3_stmt* s, int column)
    {
        const unsigned char* t = sqlite3_column_text(s, column);
        return t ? reinterpret_cast<const char*>(t) : "";
    }

    void read()
    {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(path().c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + path());
        }
        query(db, "SELECT name FROM tracks ORDER BY id",
              [&](sqlite3_stmt* s) { tracks_.push_back(text(s, 0)); });
        query(db,
              "SELECT p.t, p.key, p.value, coalesce(t.name, '') FROM properties p "
              "LEFT JOIN tracks t ON t.id = p.track_id AND p.key = 1 "
              "ORDER BY p.t, p.event_id, p.position",
              [&](sqlite3_stmt* s) {
                  events_[sqlite3_column_int64(s, 0)].push_back(
                      StoredProperty{static_cast<uint32_t>(sqlite3_column_int64(s, 1)),
                                     static_cast<uint32_t>(sqlite3_column_int64(s, 2)),
                                     text(s, 3)});
              });
        query(db, "SELECT t, body FROM documents ORDER BY t, id", [&](sqlite3_stmt* s) {
            documents_.emplace(sqlite3_column_int64(s, 0), text(s, 1));
        });
        sqlite3_close(db);
        if (events_.empty() || documents_.empty()) throw std::runtime_error("empty recording");
        first_ = std::min(events_.begin()->first, documents_.begin()->first);
        last_ = std::max(events_.rbegin()->first, documents_.rbegin()->first);
    }

    rstest::GeneratedRecording file_;
    std::vector<std::string> tracks_;
    std::map<int64_t, std::vector<StoredProperty>> events_;
    std::map<int64_t, std::string> documents_;
    int64_t first_ = 0;
    int64_t last_ = 0;
};

// recording_store serving the recording, and recording_search, on a bus of their own.
inline rstest::ServiceStack::Options stackOptions()
{
    rstest::ServiceStack::Options options;
    options.binDir = RS_BIN_DIR;
    options.recording = RecordingOnDisk::get().path();
    return options;
}

}  // namespace e2e
