// For the end-to-end searches: a generated recording, read straight from its SQLite file for
// the expected answers, and recording_store with recording_search serving it on a private bus.
#pragma once

#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"

namespace e2e {

using namespace std::chrono_literals;

inline std::string bin(const std::string& name) { return std::string(RS_BIN_DIR) + "/" + name; }

// Times as the store keeps them: seconds * 1000000 + microseconds.
inline uint32_t secOf(int64_t t) { return static_cast<uint32_t>(t / 1000000); }
inline uint32_t usecOf(int64_t t) { return static_cast<uint32_t>(t % 1000000); }

struct StoredProperty {
    uint32_t key;
    uint32_t value;
    std::string track;  // empty for key 0
};

// One generated recording for the whole test binary, removed when the binary ends.
class GeneratedRecording {
public:
    static const GeneratedRecording& get()
    {
        static GeneratedRecording recording;
        return recording;
    }

    const std::string& path() const { return file_; }
    // Track names in the order they were added.
    const std::vector<std::string>& tracks() const { return tracks_; }
    // Every time with history, its properties in stored order (events sharing a time merged).
    const std::map<int64_t, std::vector<StoredProperty>>& events() const { return events_; }
    // The document the store answers for each time (the first stored there).
    const std::map<int64_t, std::string>& documents() const { return documents_; }
    int64_t first() const { return first_; }
    int64_t last() const { return last_; }

private:
    GeneratedRecording()
    {
        const char* base = std::getenv("TMPDIR");
        dir_ = std::string(base && *base ? base : "/tmp") + "/walks-e2e-XXXXXX";
        if (!mkdtemp(dir_.data())) throw std::runtime_error("mkdtemp failed");
        file_ = dir_ + "/recording.db";
        const auto r = rstest::runToEnd(
            bin("recording_store"),
            {"generate", file_, "--seed", "5", "--duration", "10m", "--rate", "2",
             "--video-tracks", "2", "--audio-tracks", "1", "--recording-on", "120",
             "--recording-off", "20", "--track-on", "40", "--track-off", "15"});
        if (!r.status.exited || r.status.code != 0) {
            throw std::runtime_error("recording_store generate failed: " + r.err);
        }
        read();
    }
    ~GeneratedRecording()
    {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
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
        if (sqlite3_open_v2(file_.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            throw std::runtime_error("cannot open " + file_);
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

    std::string dir_;
    std::string file_;
    std::vector<std::string> tracks_;
    std::map<int64_t, std::vector<StoredProperty>> events_;
    std::map<int64_t, std::string> documents_;
    int64_t first_ = 0;
    int64_t last_ = 0;
};

// recording_store serving the generated recording, and recording_search, on a bus of their own;
// both stopped with SIGTERM at the end, and both expected to exit 0 with nothing on stderr.
class Stack {
public:
    Stack()
    {
        env_ = {{"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()}};
        store_ = startAndWait("recording_store", {"serve", GeneratedRecording::get().path()});
        service_ = startAndWait("recording_search", {});
    }

    // Stops both; returns what went wrong, empty when both ended cleanly.
    std::string stop()
    {
        std::string problems;
        for (auto* p : {service_.get(), store_.get()}) {
            if (p == nullptr) continue;
            p->sendSignal(SIGTERM);
            const auto status = p->waitForExit(10s);
            if (!status || !status->exited || status->code != 0 || !p->stderrText().empty()) {
                problems += "unclean exit: " + p->stderrText() + "\n";
            }
        }
        service_.reset();
        store_.reset();
        return problems;
    }

    ~Stack() { stop(); }

    const std::string& address() const { return bus_.address(); }

private:
    std::unique_ptr<rstest::ProcessRunner> startAndWait(const std::string& name,
                                                        std::vector<std::string> args)
    {
        auto p = std::make_unique<rstest::ProcessRunner>(bin(name), std::move(args), env_);
        p->start();
        if (!p->waitForNotify("READY=1", 10s)) {
            throw std::runtime_error(name + " did not become ready: " + p->stderrText());
        }
        return p;
    }

    rstest::PrivateBus bus_;
    std::map<std::string, std::string> env_;
    std::unique_ptr<rstest::ProcessRunner> store_;
    std::unique_ptr<rstest::ProcessRunner> service_;
};

}  // namespace e2e
