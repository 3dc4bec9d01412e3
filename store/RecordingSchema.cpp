#include "store/RecordingSchema.h"

#include <cstdio>
#include <string>

#include "store/SqliteDb.h"
#include "store/StoreError.h"

namespace store {
namespace schema {

namespace {

// Each lookup of the read side is one descent of one of these indexes.
constexpr const char* kTables = R"sql(
CREATE TABLE tracks(
    id INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE);
CREATE TABLE events(
    id INTEGER PRIMARY KEY,
    t INTEGER NOT NULL);
CREATE INDEX events_by_time ON events(t);
CREATE TABLE properties(
    event_id INTEGER NOT NULL,
    position INTEGER NOT NULL,
    t INTEGER NOT NULL,
    key INTEGER NOT NULL,
    track_id INTEGER NOT NULL,
    value INTEGER NOT NULL,
    PRIMARY KEY(event_id, position)) WITHOUT ROWID;
CREATE INDEX properties_by_state ON properties(key, track_id, t, event_id, position);
CREATE TABLE documents(
    id INTEGER PRIMARY KEY,
    t INTEGER NOT NULL,
    body TEXT NOT NULL);
CREATE INDEX documents_by_time ON documents(t);
)sql";

std::string hex(int64_t value)
{
    char text[24];
    std::snprintf(text, sizeof text, "0x%08llx", static_cast<unsigned long long>(uint32_t(value)));
    return text;
}

int64_t readPragma(SqliteDb& db, const char* name)
{
    try {
        return db.queryInt(std::string("PRAGMA ") + name);
    } catch (const StoreError&) {
        // SQLite's "file is not a database" is the likely cause; say it our way.
        throw StoreError(db.path() + ": not a recording (not an SQLite database, or damaged)");
    }
}

}  // namespace

void check(SqliteDb& db)
{
    const int64_t applicationId = readPragma(db, "application_id");
    const int64_t version = readPragma(db, "user_version");
    if (applicationId != kApplicationId) {
        throw StoreError(db.path() + ": not a recording (application id " + hex(applicationId) +
                         ", expected " + hex(kApplicationId) + ")");
    }
    if (version > kVersion) {
        throw StoreError(db.path() + ": recording format version " + std::to_string(version) +
                         " is newer than this build reads (" + std::to_string(kVersion) + ")");
    }
    if (version < kVersion) {
        throw StoreError(db.path() + ": recording format version " + std::to_string(version) +
                         " is not supported (expected " + std::to_string(kVersion) + ")");
    }
}

void createOrCheck(SqliteDb& db)
{
    const bool empty = readPragma(db, "application_id") == 0 &&
                       db.queryInt("SELECT count(*) FROM sqlite_schema") == 0;
    if (!empty) {
        check(db);
        return;
    }
    Transaction transaction(db);
    db.exec(kTables);
    db.exec("PRAGMA application_id = " + std::to_string(kApplicationId));
    db.exec("PRAGMA user_version = " + std::to_string(kVersion));
    transaction.commit();
}

}  // namespace schema
}  // namespace store
