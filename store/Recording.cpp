#include "store/Recording.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include <sqlite3.h>

#include "store/RecordingSchema.h"
#include "store/StoreError.h"

namespace store {

// The three neighbour queries of one timeline (history events or metadata documents).
struct Recording::TimeLookup {
    TimeLookup(SqliteDb& db, const std::string& table)
        : atOrBefore(db,
                     ("SELECT t FROM " + table + " WHERE t <= ?1 ORDER BY t DESC LIMIT 1").c_str()),
          before(db, ("SELECT t FROM " + table + " WHERE t < ?1 ORDER BY t DESC LIMIT 1").c_str()),
          after(db, ("SELECT t FROM " + table + " WHERE t > ?1 ORDER BY t LIMIT 1").c_str())
    {
    }

    Statement atOrBefore;
    Statement before;
    Statement after;

    void reset()
    {
        atOrBefore.reset();
        before.reset();
        after.reset();
    }
};

struct Recording::Statements {
    explicit Statements(SqliteDb& db)
        : events(db, "events"),
          documents(db, "documents"),
          tracks(db, "SELECT id, name FROM tracks ORDER BY id"),
          trackId(db, "SELECT id FROM tracks WHERE name = ?1"),
          firstEvent(db, "SELECT min(t) FROM events"),
          lastEvent(db, "SELECT max(t) FROM events"),
          firstDocument(db, "SELECT min(t) FROM documents"),
          lastDocument(db, "SELECT max(t) FROM documents"),
          properties(db,
                     "SELECT p.key, p.value, coalesce(tr.name, '') FROM events e "
                     "JOIN properties p ON p.event_id = e.id "
                     "LEFT JOIN tracks tr ON tr.id = p.track_id AND p.key = 1 "
                     "WHERE e.t = ?1 ORDER BY e.id, p.position"),
          document(db, "SELECT body FROM documents WHERE t = ?1 ORDER BY id LIMIT 1"),
          stateAt(db,
                  "SELECT value FROM properties WHERE key = ?1 AND track_id = ?2 AND t <= ?3 "
                  "ORDER BY t DESC, event_id DESC, position DESC LIMIT 1"),
          firstOn(db,
                  "SELECT t FROM properties WHERE key = 1 AND track_id = ?1 AND value = 1 "
                  "ORDER BY t LIMIT 1"),
          lastChange(db,
                     "SELECT t, value FROM properties WHERE key = 1 AND track_id = ?1 "
                     "ORDER BY t DESC, event_id DESC, position DESC LIMIT 1")
    {
    }

    TimeLookup events;
    TimeLookup documents;
    Statement tracks;
    Statement trackId;
    Statement firstEvent;
    Statement lastEvent;
    Statement firstDocument;
    Statement lastDocument;
    Statement properties;
    Statement document;
    Statement stateAt;
    Statement firstOn;
    Statement lastChange;

    void reset()
    {
        events.reset();
        documents.reset();
        for (Statement* statement :
             {&tracks, &trackId, &firstEvent, &lastEvent, &firstDocument, &lastDocument,
              &properties, &document, &stateAt, &firstOn, &lastChange}) {
            statement->reset();
        }
    }
};

namespace {

const std::string& requireFile(const std::string& path)
{
    // SQLite's "unable to open database file" does not say why; the usual why is this.
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        throw StoreError(path + ": cannot open: " + std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) throw StoreError(path + ": cannot open: not a regular file");
    return path;
}

constexpr int64_t kRecordingKey = 0;
constexpr int64_t kTrackKey = 1;

}  // namespace

Recording::Recording(const std::string& path) : db_(requireFile(path), SqliteDb::Mode::ReadOnly)
{
    schema::check(db_);
    // A writer that keeps a rollback journal holds readers back for the moment it commits.
    db_.exec("PRAGMA query_only = 1; PRAGMA mmap_size = 1073741824; PRAGMA busy_timeout = 2000");
    statements_ = std::make_unique<Statements>(db_);
}

Recording::~Recording() = default;

Recording::Snapshot::Snapshot(Recording& recording) : recording_(recording)
{
    recording_.db_.exec("BEGIN");
}

Recording::Snapshot::~Snapshot()
{
    recording_.statements_->reset();
    try {
        recording_.db_.exec("COMMIT");
    } catch (const StoreError&) {
        // Ending a read loses nothing; a rollback leaves the connection ready for the next.
        sqlite3_exec(recording_.db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

// The statement is reset and bound by the caller.
std::optional<StoreTime> Recording::bound(Statement& statement)
{
    if (!statement.step() || statement.columnIsNull(0)) return std::nullopt;
    return StoreTime::fromKey(statement.columnInt(0));
}

std::vector<std::string> Recording::tracks()
{
    std::vector<std::string> names;
    Statement& query = statements_->tracks.reset();
    while (query.step()) names.push_back(query.columnText(1));
    return names;
}

bool Recording::hasTrack(const std::string& name)
{
    return statements_->trackId.reset().bind(1, name).step();
}

std::optional<TimeSpan> Recording::summary()
{
    const auto firstEvent = bound(statements_->firstEvent.reset());
    const auto firstDocument = bound(statements_->firstDocument.reset());
    if (!firstEvent && !firstDocument) return std::nullopt;
    const auto lastEvent = bound(statements_->lastEvent.reset());
    const auto lastDocument = bound(statements_->lastDocument.reset());
    TimeSpan span;
    span.start = !firstDocument || (firstEvent && *firstEvent < *firstDocument) ? *firstEvent
                                                                                : *firstDocument;
    span.end =
        !lastDocument || (lastEvent && *lastDocument < *lastEvent) ? *lastEvent : *lastDocument;
    return span;
}

std::optional<TimeSpan> Recording::trackSummary(const std::string& name)
{
    if (name == schema::kMetadataTrack) {
        const auto first = bound(statements_->firstDocument.reset());
        if (!first) return std::nullopt;
        return TimeSpan{*first, *bound(statements_->lastDocument.reset())};
    }
    Statement& id = statements_->trackId.reset().bind(1, name);
    if (!id.step()) return std::nullopt;
    const int64_t trackId = id.columnInt(0);
    const auto firstOn = bound(statements_->firstOn.reset().bind(1, trackId));
    if (!firstOn) return std::nullopt;
    Statement& last = statements_->lastChange.reset().bind(1, trackId);
    last.step();
    if (last.columnInt(1) == 0) return TimeSpan{*firstOn, StoreTime::fromKey(last.columnInt(0))};
    return TimeSpan{*firstOn, summary()->end};
}

RecordingState Recording::stateAt(StoreTime t)
{
    auto isOn = [&](int64_t key, int64_t trackId) {
        Statement& query = statements_->stateAt.reset();
        query.bind(1, key).bind(2, trackId).bind(3, t.key());
        return query.step() && query.columnInt(0) != 0;
    };
    RecordingState state;
    state.state = isOn(kRecordingKey, 0) ? 1 : 0;
    std::vector<std::pair<int64_t, std::string>> all;
    Statement& tracks = statements_->tracks.reset();
    while (tracks.step()) all.emplace_back(tracks.columnInt(0), tracks.columnText(1));
    for (const auto& [id, name] : all) {
        if (isOn(kTrackKey, id)) state.tracksOn.push_back(name);
    }
    return state;
}

std::optional<StoreTime> Recording::firstHistoryEventTime()
{
    return bound(statements_->firstEvent.reset());
}

std::optional<Neighbours> Recording::locate(TimeLookup& lookup, StoreTime t)
{
    auto cur = bound(lookup.atOrBefore.reset().bind(1, t.key()));
    if (!cur) cur = bound(lookup.after.reset().bind(1, t.key()));
    if (!cur) return std::nullopt;
    Neighbours times;
    times.cur = *cur;
    times.prev = bound(lookup.before.reset().bind(1, cur->key())).value_or(StoreTime{});
    times.next = bound(lookup.after.reset().bind(1, cur->key())).value_or(StoreTime{});
    return times;
}

std::optional<HistoryEvent> Recording::historyEventAt(StoreTime t)
{
    const auto times = locate(statements_->events, t);
    if (!times) return std::nullopt;
    HistoryEvent event;
    event.times = *times;
    Statement& query = statements_->properties.reset().bind(1, times->cur.key());
    while (query.step()) {
        event.properties.push_back(EventProperty{
            uint32_t(query.columnInt(0)), uint32_t(query.columnInt(1)), query.columnText(2)});
    }
    return event;
}

std::optional<MetadataDocument> Recording::metadataAt(StoreTime t)
{
    const auto times = locate(statements_->documents, t);
    if (!times) return std::nullopt;
    MetadataDocument document;
    document.times = *times;
    Statement& query = statements_->document.reset().bind(1, times->cur.key());
    if (query.step()) document.body = query.columnText(0);
    return document;
}

}  // namespace store
