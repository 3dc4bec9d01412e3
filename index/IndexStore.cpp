#include "index/IndexStore.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <set>

#include <sqlite3.h>

#include "index/IndexFilter.h"

namespace rsindex {

namespace {

constexpr int64_t kFormat = 6;
// Documents kept before a dictionary is trained on them.
constexpr int64_t kTrainOn = 1000;
constexpr Micros kStretch = 60000000;
// A block holds documents of one minute, at most this many and this much text (a larger document
// stands alone): enough for zstd to find what frames repeat, little to read for one document.
constexpr std::size_t kBlockDocuments = 16;
constexpr std::size_t kBlockBytes = 256 << 10;

const char* const kSchema = R"SQL(
CREATE TABLE IF NOT EXISTS documents (
  t INTEGER PRIMARY KEY,
  motion INTEGER NOT NULL,
  hash INTEGER NOT NULL,
  facts BLOB NOT NULL);
-- The documents themselves, apart (a filter's scan reads only the facts): blocks of consecutive
-- documents, each keyed by its first document's time. Blocks never overlap.
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

// A block as the writer changes it. One that does not decode holds nothing: what it held is read
// again from the recording (see undecodable()), and lands in a block anew.
struct IndexStore::Block {
    Micros key = 0;     // where it is stored: its first document's time when it was read
    Micros before = 0;  // the next block's key: it must end before that
    std::vector<KeptText> texts;

    // Whether a document later than the last may join it.
    bool takes(Micros time, std::size_t size) const
    {
        if (texts.empty() || time <= texts.back().time || time >= before) return false;
        if (time / kStretch != texts.front().time / kStretch) return false;
        std::size_t bytes = size;
        for (const auto& kept : texts) bytes += kept.text.size();
        return texts.size() < kBlockDocuments && bytes <= kBlockBytes;
    }
};

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
    store::Statement q(db_, "SELECT t, text FROM texts ORDER BY t");
    while (samples.size() < std::size_t(kTrainOn) && q.step()) {
        for (auto& kept : codec_.decompressBlock(q.columnInt(0), q.columnText(1))) {
            samples.push_back(std::move(kept.text));
        }
    }
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
    // From the block that holds `from`, which may begin before it.
    store::Statement q(db_,
                       (std::string("SELECT t, text FROM texts WHERE t BETWEEN "
                                    "coalesce((SELECT max(t) FROM texts WHERE t <= ?1), ?1) AND ?2 "
                                    "ORDER BY t ") +
                        (ascending ? "ASC" : "DESC"))
                           .c_str());
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
    int64_t added = 0;
    std::optional<Block> open;  // the block the next document joins, when it can
    for (const auto& d : batch) {
        document.reset()
            .bind(1, d.time)
            .bind(2, d.facts.motion ? 1 : 0)
            .bind(3, int64_t(d.hash))
            .bindBlob(4, encode(d.facts))
            .run();
        if (sqlite3_changes(db_.handle()) == 0) continue;  // held already, text and all
        ++added;
        if (!open) open = blockAt(d.time);
        if (open && open->takes(d.time, d.text.size())) {
            open->texts.push_back({d.time, d.text});
            continue;
        }
        if (open) keep(*open);
        if (open && !open->texts.empty() && d.time <= open->texts.back().time) {
            open.reset();  // among what is held: in its place
            putText(d.time, d.text);
            continue;
        }
        open = Block{d.time, nextBlockAfter(d.time), {{d.time, d.text}}};
    }
    if (open) keep(*open);
    counted(added);
    widenStretches(batch);
    transaction.commit();
}

std::vector<Micros> IndexStore::undecodable(std::size_t most)
{
    std::set<Micros> times;
    store::Statement facts(db_, "SELECT t, facts FROM documents ORDER BY t");
    while (times.size() < most && facts.step()) {
        try {
            decode(facts.columnText(1));
        } catch (const std::runtime_error&) {
            times.insert(facts.columnInt(0));
        }
    }
    // The documents of a block that does not decode: from its key to the next block's.
    store::Statement within(db_, "SELECT t FROM documents WHERE t >= ? AND t < ? ORDER BY t");
    const auto documentsOf = [&](Micros from, Micros before) {
        within.reset().bind(1, from).bind(2, before);
        while (times.size() < most && within.step()) times.insert(within.columnInt(0));
    };
    std::optional<Micros> damaged;
    store::Statement blocks(db_, "SELECT t, text FROM texts ORDER BY t");
    while (times.size() < most && blocks.step()) {
        const Micros key = blocks.columnInt(0);
        if (damaged) documentsOf(*damaged, key);
        damaged.reset();
        try {
            codec_.decompressBlock(key, blocks.columnText(1));
        } catch (const std::runtime_error&) {
            damaged = key;
        }
    }
    if (damaged) documentsOf(*damaged, INT64_MAX);
    return {times.begin(), times.end()};
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
    putText(d.time, d.text);
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
    if (comparison == "=") dropTexts(time, time);
    if (comparison == "<" && time > INT64_MIN) dropTexts(INT64_MIN, time - 1);
}

Micros IndexStore::nextBlockAfter(Micros time)
{
    store::Statement q(db_, "SELECT min(t) FROM texts WHERE t > ?");
    q.bind(1, time);
    return q.step() && !q.columnIsNull(0) ? q.columnInt(0) : INT64_MAX;
}

// The block that begins at or last before `time`.
std::optional<IndexStore::Block> IndexStore::blockAt(Micros time)
{
    store::Statement q(db_, "SELECT t, text FROM texts WHERE t <= ? ORDER BY t DESC LIMIT 1");
    q.bind(1, time);
    if (!q.step()) return std::nullopt;
    Block block{q.columnInt(0), nextBlockAfter(time), {}};
    try {
        block.texts = codec_.decompressBlock(block.key, q.columnText(1));
    } catch (const std::runtime_error&) {
    }
    return block;
}

// Inside the writer's transaction: the block where it belongs, keyed by its first document.
void IndexStore::keep(const Block& block)
{
    if (block.texts.empty() || block.texts.front().time != block.key) {
        store::Statement drop(db_, "DELETE FROM texts WHERE t = ?");
        drop.bind(1, block.key).run();
    }
    if (block.texts.empty()) return;
    store::Statement write(db_, "INSERT OR REPLACE INTO texts (t, text) VALUES (?, ?)");
    write.bind(1, block.texts.front().time).bindBlob(2, codec_.compressBlock(block.texts)).run();
}

// Inside the writer's transaction: one document's text, in place of what was there.
void IndexStore::putText(Micros time, const std::string& text)
{
    Block block = blockAt(time).value_or(Block{time, nextBlockAfter(time), {}});
    auto at = std::lower_bound(block.texts.begin(), block.texts.end(), time,
                               [](const KeptText& kept, Micros t) { return kept.time < t; });
    if (at != block.texts.end() && at->time == time) {
        at->text = text;
    } else {
        block.texts.insert(at, {time, text});
    }
    keep(block);
}

// Inside the writer's transaction: the texts of documents in [from, through]. The blocks wholly
// inside go at once; the ones at its ends lose their share.
void IndexStore::dropTexts(Micros from, Micros through)
{
    auto last = blockAt(through);
    if (!last) return;
    std::vector<Block> ends{*last};
    if (last->key >= from) {
        store::Statement whole(db_, "DELETE FROM texts WHERE t >= ? AND t < ?");
        whole.bind(1, from).bind(2, last->key).run();
        if (from > INT64_MIN) {
            if (auto first = blockAt(from - 1)) ends.push_back(*first);
        }
    }
    for (auto& block : ends) {
        block.texts.erase(std::remove_if(block.texts.begin(), block.texts.end(),
                                         [&](const KeptText& kept) {
                                             return kept.time >= from && kept.time <= through;
                                         }),
                          block.texts.end());
        keep(block);
    }
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
    store::Statement documents(db_,
                               inRange("t, motion, facts", "documents", "t", ascending).c_str());
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
        documents.reset()
            .bind(1, std::max(from, minute * kStretch))
            .bind(2, std::min(to, minute * kStretch + kStretch - 1));
        if (!readFacts(documents, each)) return false;
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
    return readFacts(q, each);
}

bool IndexStore::readFacts(store::Statement& documents,
                           const std::function<bool(Micros, const DocumentFacts&)>& each)
{
    while (documents.step()) {
        const Micros time = documents.columnInt(0);
        DocumentFacts facts;
        try {
            facts = decode(documents.columnText(2));
        } catch (const std::runtime_error&) {
            throw UndecodableRow();
        }
        facts.motion = documents.columnInt(1) != 0;
        if (!each(time, facts)) return false;
    }
    return true;
}

}  // namespace rsindex
