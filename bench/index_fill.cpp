// Fills an index straight from a recording file, as the follower fills it but without the bus and
// its pause between documents: the week and month benches need generated documents indexed, and
// at the walk's pace a month would take most of a day. Facts are read on every core while the
// store writes the batch before.
//   index_fill RECORDING INDEX
#include <cstdio>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "index/IndexStore.h"
#include "jobs/HardenedParser.h"
#include "store/SqliteDb.h"

namespace {

constexpr std::size_t kBatch = 8192;

using Batch = std::vector<rsindex::IndexedDocument>;

// The next batch of documents, the first at each time (as the recording services answer); empty
// at the end (where a finished statement must not be stepped again: SQLite would start it over).
Batch readBatch(store::Statement& documents, rsindex::Micros& last, bool& done)
{
    Batch batch;
    while (!done && batch.size() < kBatch) {
        if (!documents.step()) {
            done = true;
            break;
        }
        const rsindex::Micros t = documents.columnInt(0);
        if (t == last) continue;
        last = t;
        batch.push_back({t, 0, {}, documents.columnText(1)});
    }
    return batch;
}

void readFacts(Batch& batch, std::size_t from, std::size_t step)
{
    HardenedParser parser;
    for (std::size_t i = from; i < batch.size(); i += step) {
        xmlDocPtr doc = parser.parse(batch[i].text);
        batch[i].facts = rsindex::factsOf(doc);
        batch[i].hash = rsindex::textHash(batch[i].text);
        xmlFreeDoc(doc);
    }
}

Batch withFacts(Batch batch)
{
    const std::size_t threads = std::max(1u, std::thread::hardware_concurrency());
    std::vector<std::thread> workers;
    for (std::size_t i = 0; i < threads; ++i)
        workers.emplace_back(readFacts, std::ref(batch), i, threads);
    for (auto& w : workers) w.join();
    return batch;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: index_fill RECORDING INDEX\n");
        return 2;
    }
    try {
        store::SqliteDb recording(argv[1], store::SqliteDb::Mode::ReadOnly);
        store::Statement documents(recording, "SELECT t, body FROM documents ORDER BY t, id");
        rsindex::IndexStore index(argv[2], rsindex::IndexStore::Access::Writer);
        rsindex::Micros last = -1;
        bool done = false;
        std::size_t total = 0;
        auto pending = std::async(std::launch::async, withFacts, readBatch(documents, last, done));
        while (true) {
            Batch ready = pending.get();
            if (ready.empty()) break;
            pending = std::async(std::launch::async, withFacts, readBatch(documents, last, done));
            index.add(ready);
            index.trainWhenReady();
            total += ready.size();
        }
        index.settle();
        std::printf("%zu\n", total);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "index_fill: %s\n", e.what());
        return 1;
    }
    return 0;
}
