// The index's SQLite file: one row per document (its time, motion, facts and a hash of its text),
// and the texts themselves in blocks of consecutive documents of one minute, compressed by
// DocumentCodec; the last document is the mark "indexed through". One
// writer (the follower) and any number of readers (the queries), in WAL mode so that readers
// never block the writer; each batch of documents lands in one transaction together with the
// mark, so a crash leaves the old state or the new one.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "index/DocumentCodec.h"
#include "index/DocumentFacts.h"
#include "store/SqliteDb.h"

namespace rsindex {

struct IndexedDocument {
    Micros time = 0;
    uint64_t hash = 0;
    DocumentFacts facts;
    std::string text;  // the document as the recording holds it
};

struct IndexSpan {
    Micros from = 0;
    Micros through = 0;
    int64_t documents = 0;
};

// A row whose facts do not decode: the index is a cache, so it is read again from the recording.
struct UndecodableRow : std::runtime_error {
    UndecodableRow()
        : std::runtime_error(
              "a row of the index does not decode; it is read again from the "
              "recording")
    {
    }
};

class IndexStore {
public:
    enum class Access { Writer, Reader };
    // The writer first checks the file: one that does not open or fails SQLite's check is moved
    // aside (to PATH.damaged) and the index starts anew; damage() then says why.
    IndexStore(const std::string& path, Access access);
    ~IndexStore();

    const std::string& damage() const { return damage_; }

    std::optional<IndexSpan> span();
    int64_t bytesOnDisk();
    // The stored hash of the document at `time`, if it is in the index.
    std::optional<uint64_t> hashAt(Micros time);
    // The first document at or after `time`.
    std::optional<Micros> firstFrom(Micros time);

    // The dictionary documents are compressed with, empty while there is none.
    std::string dictionary();
    // The compressed blocks (DocumentCodec::decompressBlock: the time of their first document
    // and the frame) that hold documents in [from, to], ascending or descending, until `each`
    // returns false. The first and last may hold documents outside the range too.
    void scanTexts(Micros from, Micros to, bool ascending,
                   const std::function<bool(Micros, const std::string&)>& each);

    // Writer only.
    void add(const std::vector<IndexedDocument>& batch);
    // Once enough documents are in and there is no dictionary yet: one trained on them, for the
    // documents that come after.
    void trainWhenReady();
    // The times of documents whose facts or text do not decode, at most `most` of them.
    std::vector<Micros> undecodable(std::size_t most);
    // One document read again: in place of what the index held at its time.
    void replace(const IndexedDocument& document);
    void remove(Micros time);
    // Folds the log into the file and empties it, where no reader holds it back.
    void settle();
    void dropBefore(Micros time);
    void clear();

    // Documents in [from, to], ascending or descending, until `each` returns false (then
    // false). Throws UndecodableRow.
    bool scan(Micros from, Micros to, bool ascending,
              const std::function<bool(Micros, const DocumentFacts&)>& each);
    // The same, minute by minute, passing over each minute whose summary (widenSummary of its
    // documents) `mayMatch` rules out without reading its documents.
    bool scanStretches(Micros from, Micros to, bool ascending,
                       const std::function<bool(const DocumentFacts&)>& mayMatch,
                       const std::function<bool(Micros, const DocumentFacts&)>& each);

    IndexStore(const IndexStore&) = delete;
    IndexStore& operator=(const IndexStore&) = delete;

private:
    void counted(int64_t change);  // inside the writer's transaction
    // The rows `documents` steps through (t, motion, facts), until `each` returns false.
    bool readFacts(store::Statement& documents,
                   const std::function<bool(Micros, const DocumentFacts&)>& each);
    void widenStretches(const std::vector<IndexedDocument>& batch);
    void forget(const std::string& comparison, Micros time);
    struct Block;
    std::optional<Block> blockAt(Micros time);
    Micros nextBlockAfter(Micros time);
    void keep(const Block& block);
    void putText(Micros time, const std::string& text);
    void dropTexts(Micros from, Micros through);

    std::string damage_;
    std::string path_;
    store::SqliteDb db_;
    DocumentCodec codec_;  // the writer's
};

uint64_t textHash(const std::string& text);

}  // namespace rsindex
