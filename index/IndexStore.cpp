#include "index/IndexStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <optional>

#include <sqlite3.h>

#include "index/IndexFilter.h"

namespace rsindex {

namespace {

constexpr int64_t kFormat = 5;
// Documents kept before a dictionary is trained on them.
constexpr int64_t kTrainOn = 1000;
constexpr Micros kStretch = 60000000;

const char* const kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS documents (
  t INTEGER PRIMARY KEY,
  motion INTEGER NOT NULL,
  hash INTEGER NOT NULL,
  facts BLOB NOT NULL);
-- The documents themselves, apart: a filter's scan reads only the facts.
CREATE TABLE IF NOT EXISTS texts (
  t INTEGER PRIMARY KEY,
  text BLOB NOT NULL);
-- Per minute, facts that every filter matching any of its documents also matches: a filter
-- search passes over the minutes whose summary it does not match, without reading them.
CREATE TABLE IF NOT EXISTS stretches (
  m INTEGER PRIMARY KEY,
  motion INTEGER NOT NULL,
  facts BLOB NOT NULL);
CREATE TABLE IF NOT EXISTS kept (documents INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS dictionary (bytes BLOB NOT NULL);
INSERT INTO kept SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM kept);
)SQL";

store::SqliteDb::Mode modeOf(IndexStore::Access access)
{
    return access == IndexStore::Access::Writer ? store::SqliteDb::Mode::Create
                                                : store::SqliteDb::Mode::ReadOnly;
}

// The rows of `table` whose `key` lies between ?1 and ?2, in the order asked for.
std::string inRange(const char* columns, const char* table, const char* key, bool ascending)
{
    return std::string("SELECT ") + columns + " FROM " + table + " WHERE " + key +
           " BETWEEN ?1 AND ?2 ORDER BY " + key + (ascending ? " ASC" : " DESC");
}

// Why the file cannot serve as the index, or nothing when it can (or is not there yet).
std::optional<std::string> damageOf(const std::string& path)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) return std::nullopt;
    try {
        store::SqliteDb db(path, store::SqliteDb::Mode::ReadWrite);
        store::Statement check(db, "PRAGMA quick_check(1)");
        const std::string verdict = check.step() ? check.columnText(0) : "no verdict";
        if (verdict != "ok") return verdict;
    } catch (const std::exception& e) {
        return std::string(e.what());
    }
    return std::nullopt;
}

// The writer's file, checked; a damaged one moved aside, with its log gone.
std::string checkedPath(const std::string& path, IndexStore::Access access, std::string& damage)
{
    if (access != IndexStore::Access::Writer) return path;
    if (const auto why = damageOf(path)) {
        damage = *why;
        std::rename(path.c_str(), (path + ".damaged").c_str());
        for (const char* suffix : {"-wal", "-shm"}) std::remove((path + suffix).c_str());
    }
    return path;
}

}  // namespace

uint64_t textHash(const std::string& text)
{
    uint64_t hash = 14695981039346656037ull;  // FNV-1a
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    return hash;
}

IndexStore::IndexStore(const std::string& path, Access access)
    : path_(checkedPath(path, access, damage_)), db_(path_, modeOf(access))
{
    sqlite3_busy_timeout(db_.handle(), 5000);
    if (access == Access::Writer) {
        db_.exec("PRAGMA journal_mode=WAL");
        db_.exec("PRAGMA synchronous=NORMAL");
        // The log is folded into the file every megabyte and kept no larger than that, so the
        // index on disk is what it holds.
        db_.exec("PRAGMA wal_autocheckpoint=256; PRAGMA journal_size_limit=1048576");
        // Another form of the facts: thrown away, to be rebuilt from the recording.
        if (db_.queryInt("PRAGMA user_version") != kFormat) {
            db_.exec(
                "DROP TABLE IF EXISTS documents; DROP TABLE IF EXISTS names; "
                "DROP TABLE IF EXISTS kept; DROP TABLE IF EXISTS dictionary; "
                "DROP TABLE IF EXISTS texts; DROP TABLE IF EXISTS stretches;");
            db_.exec("PRAGMA user_version = " + std::to_string(kFormat));
        }
        db_.exec(kSchema);
        if (const std::string d = dictionary(); !d.empty()) codec_.useDictionary(d);
    }
}

std::string IndexStore::dictionary()
{
    store::Statement q(db_, "SELECT bytes FROM dictionary LIMIT 1");
    return q.step() ? q.columnText(0) : std::string();
}

void IndexStore::trainWhenReady()
{
    if (codec_.hasDictionary() || db_.queryInt("SELECT documents FROM kept") < kTrainOn) return;
    std::vector<std::string> samples;
    store::Statement q(db_, "SELECT text FROM texts ORDER BY t LIMIT ?");
    q.bind(1, kTrainOn);
    while (q.step()) samples.push_back(codec_.decompress(q.columnText(0)));
    const std::string trained = DocumentCodec::train(samples);
    if (trained.empty()) return;
    store::Transaction transaction(db_);
    store::Statement insert(db_, "INSERT INTO dictionary (bytes) VALUES (?)");
    insert.bindBlob(1, trained).run();
    transaction.commit();
    codec_.useDictionary(trained);
}

void IndexStore::scanTexts(Micros from, Micros to, bool ascending,
                           const std::function<bool(Micros, const std::string&)>& each)
{
    store::Statement q(db_, inRange("t, text", "texts", "t", ascending).c_str());
    q.bind(1, from).bind(2, to);
    while (q.step()) {
        if (!each(q.columnInt(0), q.columnText(1))) return;
    }
}

IndexStore::~IndexStore() = default;

std::optional<IndexSpan> IndexStore::span()
{
    // Each a lookup at one end of the key, never a scan: the state is asked for often.
    const auto first = db_.queryInt("SELECT min(t) FROM documents");
    if (first == 0) return std::nullopt;
    return IndexSpan{first, db_.queryInt("SELECT max(t) FROM documents"),
                     db_.queryInt("SELECT documents FROM kept")};
}

int64_t IndexStore::bytesOnDisk()
{
    int64_t bytes = 0;
    for (const char* suffix : {"", "-wal"}) {
        struct stat st {};
        if (::stat((path_ + suffix).c_str(), &st) == 0) bytes += st.st_size;
    }
    return bytes;
}

std::optional<uint64_t> IndexStore::hashAt(Micros time)
{
    store::Statement q(db_, "SELECT hash FROM documents WHERE t = ?");
    q.bind(1, time);
    if (!q.step()) return std::nullopt;
    return uint64_t(q.columnInt(0));
}

std::optional<Micros> IndexStore::firstFrom(Micros time)
{
    store::Statement q(db_, "SELECT t FROM documents WHERE t >= ? ORDER BY t LIMIT 1");
    q.bind(1, time);
    if (!q.step()) return std::nullopt;
    return q.columnInt(0);
}

void IndexStore::add(const std::vector<IndexedDocument>& batch)
{
    store::Transaction transaction(db_);
    store::Statement document(
        db_, "INSERT OR IGNORE INTO documents (t, motion, hash, facts) VALUES (?, ?, ?, ?)");
    store::Statement text(db_, "INSERT OR IGNORE INTO texts (t, text) VALUES (?, ?)");
    int64_t added = 0;
    for (const auto& d : batch) {
        document.reset()
            .bind(1, d.time)
            .bind(2, d.facts.motion ? 1 : 0)
            .bind(3, int64_t(d.hash))
            .bindBlob(4, encode(d.facts))
            .run();
        added += sqlite3_changes(db_.handle());
        text.reset().bind(1, d.time).bindBlob(2, codec_.compress(d.text)).run();
    }
    counted(added);
    widenStretches(batch);
    transaction.commit();
}

std::vector<Micros> IndexStore::undecodable(std::size_t most)
{
    std::vector<Micros> times;
    store::Statement q(db_, "SELECT t, facts FROM documents ORDER BY t");
    while (times.size() < most && q.step()) {
        try {
            decode(q.columnText(1));
        } catch (const std::runtime_error&) {
            times.push_back(q.columnInt(0));
        }
    }
    return times;
}

void IndexStore::replace(const IndexedDocument& d)
{
    store::Transaction transaction(db_);
    store::Statement document(
        db_, "UPDATE documents SET motion = ?2, hash = ?3, facts = ?4 WHERE t = ?1");
    document.bind(1, d.time)
        .bind(2, d.facts.motion ? 1 : 0)
        .bind(3, int64_t(d.hash))
        .bindBlob(4, encode(d.facts))
        .run();
    store::Statement text(db_, "UPDATE texts SET text = ?2 WHERE t = ?1");
    text.bind(1, d.time).bindBlob(2, codec_.compress(d.text)).run();
    widenStretches({d});
    transaction.commit();
}

void IndexStore::remove(Micros time)
{
    store::Transaction transaction(db_);
    forget("=", time);
    transaction.commit();
}

// Inside the writer's transaction: the documents whose time stands so to `time`, facts and texts.
void IndexStore::forget(const std::string& comparison, Micros time)
{
    store::Statement documents(db_, ("DELETE FROM documents WHERE t " + comparison + " ?").c_str());
    documents.bind(1, time).run();
    counted(-int64_t(sqlite3_changes(db_.handle())));
    store::Statement texts(db_, ("DELETE FROM texts WHERE t " + comparison + " ?").c_str());
    texts.bind(1, time).run();
}

// Inside the writer's transaction.
void IndexStore::widenStretches(const std::vector<IndexedDocument>& batch)
{
    store::Statement read(db_, "SELECT facts, motion FROM stretches WHERE m = ?");
    store::Statement write(db_,
                           "INSERT OR REPLACE INTO stretches (m, motion, facts) VALUES (?, ?, ?)");
    for (std::size_t i = 0; i < batch.size();) {
        const Micros minute = batch[i].time / kStretch;
        DocumentFacts summary;
        // A summary that does not decode stays one: it rules nothing out (see scanStretches).
        bool unknown = false;
        read.reset().bind(1, minute);
        if (read.step()) {
            try {
                summary = decode(read.columnText(0));
            } catch (const std::runtime_error&) {
                unknown = true;
            }
            summary.motion = read.columnInt(1) != 0;
        }
        for (; i < batch.size() && batch[i].time / kStretch == minute; ++i) {
            widenSummary(summary, batch[i].facts);
        }
        write.reset()
            .bind(1, minute)
            .bind(2, summary.motion ? 1 : 0)
            .bindBlob(3, unknown ? std::string() : encode(summary))
            .run();
    }
}

bool IndexStore::scanStretches(Micros from, Micros to, bool ascending,
                               const std::function<bool(const DocumentFacts&)>& mayMatch,
                               const std::function<bool(Micros, const DocumentFacts&)>& each)
{
    store::Statement q(db_, inRange("m, motion, facts", "stretches", "m", ascending).c_str());
    q.bind(1, from / kStretch).bind(2, to / kStretch);
    while (q.step()) {
        const Micros minute = q.columnInt(0);
        bool wanted = true;
        try {
            DocumentFacts summary = decode(q.columnText(2));
            summary.motion = q.columnInt(1) != 0;
            wanted = mayMatch(summary);
        } catch (const std::runtime_error&) {
            // A summary that does not decode rules nothing out.
        }
        if (!wanted) continue;
        if (!scan(std::max(from, minute * kStretch), std::min(to, minute * kStretch + kStretch - 1),
                  ascending, each)) {
            return false;
        }
    }
    return true;
}

void IndexStore::counted(int64_t change)
{
    store::Statement q(db_, "UPDATE kept SET documents = documents + ?");
    q.bind(1, change).run();
}

void IndexStore::settle() { db_.exec("PRAGMA wal_checkpoint(TRUNCATE)"); }

void IndexStore::dropBefore(Micros time)
{
    store::Transaction transaction(db_);
    forget("<", time);
    // The minute that holds `time` keeps its summary: wider than it need be, never narrower.
    store::Statement stretches(db_, "DELETE FROM stretches WHERE m < ?");
    stretches.bind(1, time / kStretch).run();
    transaction.commit();
}

void IndexStore::clear()
{
    store::Transaction transaction(db_);
    db_.exec(
        "DELETE FROM documents; DELETE FROM texts; DELETE FROM stretches; "
        "UPDATE kept SET documents = 0; DELETE FROM dictionary;");
    codec_.useDictionary("");
    transaction.commit();
}

bool IndexStore::scan(Micros from, Micros to, bool ascending,
                      const std::function<bool(Micros, const DocumentFacts&)>& each)
{
    // Every document in the range: a table of names to narrow it cost a third of the index's
    // size and saved little, as the broad filters people use match a good part of a day.
    store::Statement q(db_, inRange("t, motion, facts", "documents", "t", ascending).c_str());
    q.bind(1, from).bind(2, to);
    while (q.step()) {
        const Micros time = q.columnInt(0);
        DocumentFacts facts;
        try {
            facts = decode(q.columnText(2));
        } catch (const std::runtime_error&) {
            throw UndecodableRow();
        }
        facts.motion = q.columnInt(1) != 0;
        if (!each(time, facts)) return false;
    }
    return true;
}

}  // namespace rsindex
