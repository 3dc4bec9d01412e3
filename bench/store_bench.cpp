// The stand-in store's costs: the answer time of a metadata document and of a history event
// (p50 and p99, in-process, without the bus) on recordings of 10 thousand and 1 million
// documents, the file size per million documents, and how fast `generate` writes.
//
// Recordings are made once and kept in $RS_BENCH_DIR (default /tmp/rs-store-bench), since a
// million documents take a while to write; delete the directory to make them anew.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "store/Recording.h"
#include "store/RecordingWriter.h"
#include "store/SampleGenerator.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string benchDir()
{
    const char* dir = std::getenv("RS_BENCH_DIR");
    const std::string path = dir && *dir ? dir : "/tmp/rs-store-bench";
    std::filesystem::create_directories(path);
    return path;
}

store::SampleOptions everythingOn(int64_t documents)
{
    store::SampleOptions options;
    options.documentsPerSecond = 10;
    options.durationSeconds = double(documents) / options.documentsPerSecond;
    options.recordingOnSeconds = options.trackOnSeconds = 1e9;
    return options;
}

// A recording of `documents` documents and a tenth as many history events, spread over the
// same time, so that both lookups see a table that grows with the recording.
std::string recordingOf(int64_t documents)
{
    const std::string path = benchDir() + "/docs-" + std::to_string(documents) + ".db";
    if (std::filesystem::exists(path)) return path;
    const std::string temporary = path + ".tmp";
    std::filesystem::remove(temporary);
    const store::SampleOptions options = everythingOn(documents);
    {
        store::RecordingWriter writer(temporary, store::RecordingWriter::Durability::Bulk);
        store::SampleGenerator(options).generate(writer);
        auto transaction = writer.transaction();
        std::mt19937_64 random(5);
        const uint64_t span = uint64_t(options.durationSeconds) * 1000000;
        for (int64_t i = 0; i < documents / 10; ++i) {
            const int64_t key = options.start.key() + 1 + int64_t(random() % span);
            writer.addEvent(store::StoreTime::fromKey(key),
                            {store::EventProperty{1, uint32_t(i % 2), "AUDIO001"}});
        }
        transaction->commit();
    }
    std::filesystem::rename(temporary, path);
    return path;
}

// Each iteration asks for one random time within the recording and is timed on its own.
template <typename Lookup>
void measureLookups(benchmark::State& state, Lookup lookup)
{
    const int64_t documents = state.range(0);
    const std::string path = recordingOf(documents);
    store::Recording recording(path);
    const auto span = recording.summary();
    std::mt19937_64 random(11);
    const int64_t first = span->start.key();
    const int64_t width = span->end.key() - first + 1;
    std::vector<double> micros;
    micros.reserve(1 << 20);
    for (auto _ : state) {
        const store::StoreTime t =
            store::StoreTime::fromKey(first + int64_t(random() % uint64_t(width)));
        const auto begin = Clock::now();
        benchmark::DoNotOptimize(lookup(recording, t));
        micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    std::sort(micros.begin(), micros.end());
    state.counters["p50_us"] = micros[micros.size() / 2];
    state.counters["p99_us"] = micros[micros.size() * 99 / 100];
    state.counters["file_MB"] = double(std::filesystem::file_size(path)) / 1e6;
    state.counters["MB_per_million_docs"] =
        double(std::filesystem::file_size(path)) / 1e6 * 1e6 / double(documents);
}

void GetMetadata(benchmark::State& state)
{
    measureLookups(state, [](store::Recording& recording, store::StoreTime t) {
        return recording.metadataAt(t)->body.size();
    });
}

void GetRecordingHistoryEvent(benchmark::State& state)
{
    measureLookups(state, [](store::Recording& recording, store::StoreTime t) {
        return recording.historyEventAt(t)->properties.size();
    });
}

// The whole of `generate` for a recording of this many documents, file writes included.
void Generate(benchmark::State& state)
{
    const int64_t documents = state.range(0);
    const std::string path = benchDir() + "/generate.db";
    for (auto _ : state) {
        std::filesystem::remove(path);
        store::RecordingWriter writer(path, store::RecordingWriter::Durability::Bulk);
        benchmark::DoNotOptimize(store::SampleGenerator(everythingOn(documents)).generate(writer));
    }
    std::filesystem::remove(path);
    state.counters["docs_per_s"] =
        benchmark::Counter(double(documents), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(GetMetadata)->Arg(10000)->Arg(1000000)->Iterations(200000)->Unit(benchmark::kMicrosecond);
BENCHMARK(GetRecordingHistoryEvent)
    ->Arg(10000)
    ->Arg(1000000)
    ->Iterations(200000)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(Generate)->Arg(100000)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
