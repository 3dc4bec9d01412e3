#include "store/RecordingWriter.h"

#include <sqlite3.h>

#include "kavro/contract.h"
#include "store/RecordingSchema.h"
#include "store/StoreError.h"

namespace store {

namespace {

SqliteDb& prepared(SqliteDb& db, RecordingWriter::Durability durability)
{
    db.exec("PRAGMA busy_timeout = 5000");
    if (durability == RecordingWriter::Durability::Bulk) {
        db.exec("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; PRAGMA cache_size = -65536");
    } else if (durability == RecordingWriter::Durability::Shared) {
        // Stays in the file: its readers then need to write the log's index beside it.
        db.exec("PRAGMA journal_mode = WAL");
    }
    schema::createOrCheck(db);
    return db;
}

void requireTime(StoreTime time, const std::string& what)
{
    if (time.isNone()) throw StoreError(what + " at 0.0: that time means \"none\" in answers");
    if (time.usec > StoreTime::kMaxUsec) {
        throw StoreError(what + " at " + std::to_string(time.sec) + "." +
                         std::to_string(time.usec) + ": microseconds above 999999");
    }
}

}  // namespace

RecordingWriter::RecordingWriter(const std::string& path, Durability durability)
    : db_(path, SqliteDb::Mode::Create),
      findTrack_(prepared(db_, durability), "SELECT id FROM tracks WHERE name = ?1"),
      insertTrack_(db_, "INSERT INTO tracks(name) VALUES (?1)"),
      insertEvent_(db_, "INSERT INTO events(t) VALUES (?1)"),
      insertProperty_(db_,
                      "INSERT INTO properties(event_id, position, t, key, track_id, value) "
                      "VALUES (?1, ?2, ?3, ?4, ?5, ?6)"),
      insertDocument_(db_, "INSERT INTO documents(t, body) VALUES (?1, ?2)"),
      findProperties_(db_,
                      "SELECT p.key, p.value, coalesce(tracks.name, '') FROM events e "
                      "JOIN properties p ON p.event_id = e.id "
                      "LEFT JOIN tracks ON tracks.id = p.track_id "
                      "WHERE e.t = ?1 ORDER BY e.id, p.position"),
      findDocument_(db_, "SELECT body FROM documents WHERE t = ?1 ORDER BY id LIMIT 1")
{
}

RecordingWriter::~RecordingWriter() = default;

std::unique_ptr<Transaction> RecordingWriter::transaction()
{
    return std::make_unique<Transaction>(db_);
}

int64_t RecordingWriter::addTrack(const std::string& name)
{
    if (name.empty()) throw StoreError("a track needs a name");
    const auto known = trackIds_.find(name);
    if (known != trackIds_.end()) return known->second;
    int64_t id;
    if (findTrack_.reset().bind(1, name).step()) {
        id = findTrack_.columnInt(0);
    } else {
        insertTrack_.reset().bind(1, name).run();
        id = sqlite3_last_insert_rowid(db_.handle());
    }
    trackIds_.emplace(name, id);
    return id;
}

void RecordingWriter::addEvent(StoreTime time, const std::vector<EventProperty>& properties)
{
    requireTime(time, "history event");
    if (properties.empty()) throw StoreError("a history event needs at least one property");
    insertEvent_.reset().bind(1, time.key()).run();
    const int64_t eventId = sqlite3_last_insert_rowid(db_.handle());
    int64_t position = 0;
    for (const EventProperty& property : properties) {
        if (property.key > kavro::contract::kTrackKey)
            throw StoreError("unknown property key " + std::to_string(property.key));
        const int64_t trackId =
            property.key == kavro::contract::kTrackKey ? addTrack(property.name) : 0;
        insertProperty_.reset()
            .bind(1, eventId)
            .bind(2, position++)
            .bind(3, time.key())
            .bind(4, property.key)
            .bind(5, trackId)
            .bind(6, property.value ? 1 : 0)
            .run();
    }
}

void RecordingWriter::addDocument(StoreTime time, const std::string& body)
{
    requireTime(time, "metadata document");
    insertDocument_.reset().bind(1, time.key()).bind(2, body).run();
}

std::vector<EventProperty> RecordingWriter::propertiesAt(StoreTime time)
{
    std::vector<EventProperty> properties;
    findProperties_.reset().bind(1, time.key());
    while (findProperties_.step()) {
        properties.push_back({uint32_t(findProperties_.columnInt(0)),
                              uint32_t(findProperties_.columnInt(1)),
                              findProperties_.columnText(2)});
    }
    return properties;
}

std::optional<std::string> RecordingWriter::documentAt(StoreTime time)
{
    if (!findDocument_.reset().bind(1, time.key()).step()) return std::nullopt;
    std::string body = findDocument_.columnText(0);
    findDocument_.reset();  // no read left open across the commit
    return body;
}

std::optional<StoreTime> RecordingWriter::lastTime()
{
    const int64_t last = db_.queryInt(
        "SELECT max(coalesce((SELECT max(t) FROM events), 0), "
        "coalesce((SELECT max(t) FROM documents), 0))");
    if (last == 0) return std::nullopt;
    return StoreTime::fromKey(last);
}

}  // namespace store
