// The real processes on a bus of their own, for the integration tests: recording_store serving
// a long generated recording, recording_search, and helpers to run a search, to read a
// process's resource use from /proc, and to read a program's output.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/GeneratedRecording.h"
#include "support/SearchClient.h"
#include "support/ServiceStack.h"

namespace reliability {

using namespace std::chrono_literals;

inline std::string bin(const std::string& name) { return std::string(RS_BIN_DIR) + "/" + name; }

inline std::vector<std::string> lines(const std::string& text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

// A loopback port nobody listens on at the moment.
inline int freePort()
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(s, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(s, reinterpret_cast<sockaddr*>(&address), &size);
    close(s);
    return ntohs(address.sin_port);
}

// recording_index on the stack's bus, keeping `database`, started and ready.
inline std::unique_ptr<rstest::ProcessRunner> startedIndex(const std::string& database,
                                                           const rstest::ServiceStack& stack,
                                                           std::vector<std::string> more = {})
{
    std::vector<std::string> args{"--database", database, "--poll", "0.2"};
    args.insert(args.end(), more.begin(), more.end());
    auto index =
        std::make_unique<rstest::ProcessRunner>(bin("recording_index"), args, stack.clientEnv());
    index->start();
    if (!index->waitForNotify("READY=1")) throw std::runtime_error("the index is not ready");
    return index;
}

// An integer from the environment, for counts and durations that the sanitizer runs scale down.
inline long envNumber(const char* name, long fallback)
{
    const char* text = std::getenv(name);
    const long value = text ? std::atol(text) : 0;
    return value > 0 ? value : fallback;
}

// One recording for the whole test binary that a walk needs many seconds for: about 21000
// history events and 32000 documents over six hours, so a search is still walking whenever
// a test interferes with it.
class LongRecording {
public:
    static const std::string& path()
    {
        static const rstest::GeneratedRecording recording(
            RS_BIN_DIR, {"--seed", "7", "--duration", "6h", "--rate", "1.5", "--video-tracks", "2",
                         "--audio-tracks", "1", "--track-on", "4", "--track-off", "4",
                         "--recording-on", "300", "--recording-off", "10"});
        return recording.path();
    }
    // 2024-01-01T00:00:00Z, where the generator starts; six hours long.
    static constexpr uint32_t kStart = 1704067200;
    static constexpr uint32_t kEnd = kStart + 6 * 3600;
};

// recording_store serving the long recording, and recording_search with `serviceEnv` added to
// its environment.
inline rstest::ServiceStack::Options longRecordingStack(
    std::map<std::string, std::string> serviceEnv = {})
{
    return {RS_BIN_DIR, LongRecording::path(), std::move(serviceEnv)};
}

// What a client saw of one search from creation to its end request.
struct SearchRun {
    int32_t jobId = -1;
    bool completed = false;
    std::vector<rstest::SearchSignal> results;  // without SearchCompleted
};

inline bool isCompletion(const rstest::SearchSignal& s)
{
    return s.kind == rstest::SearchSignal::Kind::SearchCompleted;
}

inline int completionCount(const std::vector<rstest::SearchSignal>& signals, uint32_t jobId)
{
    return int(std::count_if(signals.begin(), signals.end(),
                             [&](const auto& s) { return s.jobId == jobId && isCompletion(s); }));
}

inline std::vector<rstest::SearchSignal> resultsOf(const rstest::SearchClient& client,
                                                   uint32_t jobId)
{
    auto results = client.signalsFor(jobId);
    results.erase(std::remove_if(results.begin(), results.end(), isCompletion), results.end());
    return results;
}

// Waits until the job has reported at least n results (or completed).
inline bool waitForResults(const rstest::SearchClient& client, uint32_t jobId, size_t n,
                           std::chrono::milliseconds timeout = 20s)
{
    return client.waitUntil(
        [&](const std::vector<rstest::SearchSignal>& all) {
            const auto mine = [&](const auto& s) { return s.jobId == jobId; };
            return size_t(std::count_if(all.begin(), all.end(), mine)) >= n ||
                   completionCount(all, jobId) > 0;
        },
        timeout);
}

// Runs one search to its end: begin, wait for SearchCompleted, end.
template <typename Create>
SearchRun runSearch(rstest::SearchClient& client, Create create,
                    std::chrono::milliseconds timeout = 60s)
{
    SearchRun run;
    const auto created = create();
    if (!created.ok() || created.value < 0) return run;
    run.jobId = created.value;
    const auto id = static_cast<uint32_t>(created.value);
    if (!client.beginSearch(id).ok()) return run;
    run.completed = client.waitForCompleted(id, timeout);
    client.endSearch(id);
    run.results = resultsOf(client, id);
    return run;
}

// The first ten minutes of the long recording, as the fault tests' reference searches.
inline SearchRun referenceSearch(rstest::SearchClient& client, bool metadata)
{
    constexpr uint32_t from = LongRecording::kStart, to = from + 600;
    return runSearch(client, [&] {
        return metadata ? client.createMetadataSearch(from, 0, to, 0, -1,
                                                      "//Object[Appearance/Class/Type='Person']")
                        : client.createEventSearch(from, 0, to, 0, -1, 0, 0, 1);
    });
}

// What /proc says of a process: open descriptors and threads.
struct ProcessUse {
    long fds = -1;
    long threads = -1;
};

inline ProcessUse processUse(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    const auto entries = [](const std::string& dir) {
        return long(std::distance(std::filesystem::directory_iterator(dir), {}));
    };
    return {entries(proc + "/fd"), entries(proc + "/task")};
}

}  // namespace reliability
