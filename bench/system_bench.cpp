// Measures the running service and store on one bus, from inside one process: bus round
// trips, walk speed against the ceiling the 500 µs pause allows, request latency under load,
// and resident memory. Prints Markdown table rows; bench/run.sh starts the processes.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/generated/recording_data_access_proxy.h"
#include "kavro/generated/recording_information_proxy.h"
#include "kavro/generated/recording_search_proxy.h"

namespace {

using Clock = std::chrono::steady_clock;

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

double percentile(std::vector<double> values, double p)
{
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, size_t(p * double(values.size() - 1) + 0.5));
    return values[index];
}

template <typename Generated>
using Proxy = kavro::bus::Registered<kavro::bus::ServiceProxy<Generated>>;

// Collects the service's signals per job on a connection with its own loop.
class ListenerSignals : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    explicit ListenerSignals(sdbus::IConnection& c) : ServiceProxy(c, "recording_search") {}

    struct Job {
        size_t results = 0;
        std::set<std::pair<uint32_t, uint32_t>> walkTimes;  // distinct times of walk results
        bool completed = false;
        Clock::time_point completedAt;
    };

    Job waitCompleted(uint32_t jobId)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::minutes(10), [&] { return jobs_[jobId].completed; });
        return jobs_[jobId];
    }
    size_t totalSignals()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return total_;
    }

private:
    void onSearchCompleted(const uint32_t& jobId) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++total_;
        jobs_[jobId].completed = true;
        jobs_[jobId].completedAt = Clock::now();
        changed_.notify_all();
    }
    void onMetadataSearchResult(const uint32_t& jobId, const uint32_t& sec, const uint32_t& usec) override
    {
        record(jobId, sec, usec, false);
    }
    void onTrackStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec, const uint32_t& usec,
                                       const std::string&, const uint8_t&, const uint8_t& startState) override
    {
        record(jobId, sec, usec, startState != 0);
    }
    void onRecordingStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec, const uint32_t& usec,
                                           const uint8_t&, const uint8_t& startState) override
    {
        record(jobId, sec, usec, startState != 0);
    }
    void record(uint32_t jobId, uint32_t sec, uint32_t usec, bool startState)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++total_;
        auto& job = jobs_[jobId];
        ++job.results;
        if (!startState) job.walkTimes.insert({sec, usec});
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<uint32_t, Job> jobs_;
    size_t total_ = 0;
};
using Listener = kavro::bus::Registered<ListenerSignals>;

// VmRSS, or with anonymous = true only RssAnon (the heap and stacks, without library pages).
long residentKiB(uint32_t pid, bool anonymous = false)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    const std::string key = anonymous ? "RssAnon:" : "VmRSS:";
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(key, 0) == 0) return std::strtol(line.c_str() + key.size(), nullptr, 10);
    }
    return -1;
}

uint32_t servicePid(sdbus::IConnection& c)
{
    auto dbus = sdbus::createProxy(c, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    uint32_t pid = 0;
    dbus->callMethod("GetConnectionUnixProcessID")
        .onInterface("org.freedesktop.DBus")
        .withArguments(kavro::bus::busName("recording_search"))
        .storeResultsTo(pid);
    return pid;
}

std::vector<double> pingLatencies(sdbus::IConnection& c, int count)
{
    auto peer = sdbus::createProxy(c, kavro::bus::busName("recording_data_access"),
                                   kavro::bus::objectPath("recording_data_access"));
    std::vector<double> samples;
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        peer->callMethod("Ping").onInterface("org.freedesktop.DBus.Peer");
        samples.push_back(micros(Clock::now() - start));
    }
    return samples;
}

struct Range {
    uint32_t startSec, startUsec, endSec, endUsec;
};

std::vector<double> storeLatencies(sdbus::IConnection& c, const Range& r, int count)
{
    Proxy<kavro::recording_data_access_proxy> data(c, "recording_data_access");
    std::vector<double> samples;
    const uint32_t span = std::max<uint32_t>(1, r.endSec - r.startSec);
    for (int i = 0; i < count; ++i) {
        const uint32_t sec = r.startSec + uint32_t((uint64_t(i) * 7919) % span);
        const auto start = Clock::now();
        data.GetMetadata(sec, 0);
        samples.push_back(micros(Clock::now() - start));
    }
    return samples;
}

struct Walk {
    uint32_t jobId;
    Clock::time_point begun;
};

// Method calls only: its signals are never subscribed (no registerProxy), so a connection
// without a loop does not pile them up.
class SearchProxy : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    using ServiceProxy::ServiceProxy;

private:
    void onSearchCompleted(const uint32_t&) override {}
    void onMetadataSearchResult(const uint32_t&, const uint32_t&, const uint32_t&) override {}
    void onTrackStateEventSearchResult(const uint32_t&, const uint32_t&, const uint32_t&,
                                       const std::string&, const uint8_t&, const uint8_t&) override
    {
    }
    void onRecordingStateEventSearchResult(const uint32_t&, const uint32_t&, const uint32_t&,
                                           const uint8_t&, const uint8_t&) override
    {
    }
};

Walk beginWalk(SearchProxy& search, int32_t jobId)
{
    if (jobId < 0) {
        std::fprintf(stderr, "system_bench: search refused\n");
        std::exit(1);
    }
    Walk walk{uint32_t(jobId), Clock::now()};
    search.BeginSearch(walk.jobId);
    return walk;
}

double stepsPerSecond(Listener& listener, const Walk& walk, bool metadata, size_t* steps)
{
    const auto job = listener.waitCompleted(walk.jobId);
    *steps = metadata ? job.results : job.walkTimes.size();
    return double(*steps) / std::chrono::duration<double>(job.completedAt - walk.begun).count();
}

// Several clients, each on a connection of its own, asking for a search's state.
std::vector<double> requestLatencies(int clients, int callsEach, uint32_t jobId)
{
    std::vector<std::vector<double>> perClient(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            auto connection = kavro::bus::connectToBus();
            SearchProxy search(*connection, "recording_search");
            for (int n = 0; n < callsEach; ++n) {
                const auto start = Clock::now();
                search.GetSearchState(jobId);
                perClient[size_t(i)].push_back(micros(Clock::now() - start));
            }
        });
    }
    for (auto& t : threads) t.join();
    std::vector<double> all;
    for (auto& samples : perClient) all.insert(all.end(), samples.begin(), samples.end());
    return all;
}

void row(const char* what, const std::string& value, const std::string& anchor, const std::string& ratio)
{
    std::printf("| %s | %s | %s | %s |\n", what, value.c_str(), anchor.c_str(), ratio.c_str());
}

std::string fmt(const char* format, double value)
{
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string xpath = argc > 1 ? argv[1] : "/";
    const uint32_t metadataWindowSec = argc > 2 ? uint32_t(std::atoi(argv[2])) : 20;
    const uint32_t eventWindowSec = argc > 3 ? uint32_t(std::atoi(argv[3])) : 3600;
    const int searchesForMemory = argc > 4 ? std::atoi(argv[4]) : 10000;

    auto calls = kavro::bus::connectToBus();
    kavro::bus::BusLoop loop(kavro::bus::connectToBus());
    Listener listener(loop.connection());
    loop.start();

    SearchProxy search(*calls, "recording_search");
    Proxy<kavro::recording_information_proxy> information(*calls, "recording_information");
    const uint32_t pid = servicePid(*calls);
    auto [rs, ru, re, reu] = information.GetRecordingSummary();
    const Range recording{rs, ru, re, reu};

    const auto ping = pingLatencies(*calls, 3000);
    const double pingP50 = percentile(ping, 0.5);
    const auto store = storeLatencies(*calls, recording, 3000);
    const double ceiling = 1e6 / (500.0 + pingP50);

    row("bare Peer.Ping round trip p50 / p99", fmt("%.0f", pingP50) + " / " + fmt("%.0f µs", percentile(ping, 0.99)), "", "");
    row("store GetMetadata round trip p50 / p99",
        fmt("%.0f", percentile(store, 0.5)) + " / " + fmt("%.0f µs", percentile(store, 0.99)),
        fmt("Ping p50 %.0f µs", pingP50), fmt("%.2fx", percentile(store, 0.5) / pingP50));

    const long idle = residentKiB(pid), idleAnon = residentKiB(pid, true);

    // Two walks at once over the start of the recording.
    auto [eventJob] = std::tuple<int32_t>(
        search.CreateEventSearch(rs, ru, std::min(re, rs + eventWindowSec), 0, -1, 0, 0, 0));
    const uint32_t mdEnd = std::min(re, rs + metadataWindowSec);
    auto [metadataJob] = std::tuple<int32_t>(search.CreateMetadataSearch(rs, ru, mdEnd, 0, -1, xpath));
    const Walk eventWalk = beginWalk(search, eventJob);
    const Walk metadataWalk = beginWalk(search, metadataJob);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const long walking = residentKiB(pid);
    size_t eventSteps = 0, metadataSteps = 0;
    const double eventRate = stepsPerSecond(listener, eventWalk, false, &eventSteps);
    const double metadataRate = stepsPerSecond(listener, metadataWalk, true, &metadataSteps);
    for (uint32_t id : {eventWalk.jobId, metadataWalk.jobId}) search.EndSearch(id);

    row("event search walk, two searches at once",
        fmt("%.0f steps/s", eventRate) + fmt(" (%.0f steps)", double(eventSteps)),
        fmt("ceiling %.0f/s", ceiling), fmt("%.1f%% (", 100 * eventRate / ceiling) + fmt("%.1f%% of 2000/s)", eventRate / 20));
    row("metadata search walk, two searches at once",
        fmt("%.0f steps/s", metadataRate) + fmt(" (%.0f steps)", double(metadataSteps)),
        fmt("ceiling %.0f/s", ceiling), fmt("%.1f%% (", 100 * metadataRate / ceiling) + fmt("%.1f%% of 2000/s)", metadataRate / 20));

    // Request latency while two searches walk.
    auto [a] = std::tuple<int32_t>(search.CreateEventSearch(rs, ru, re, reu, -1, 0, 0, 0));
    auto [b] = std::tuple<int32_t>(search.CreateMetadataSearch(rs, ru, re, reu, -1, xpath));
    beginWalk(search, a);
    beginWalk(search, b);
    const auto latency = requestLatencies(8, 500, uint32_t(a));
    for (int32_t id : {a, b}) search.EndSearch(uint32_t(id));
    row("GetSearchState latency p50 / p99, 8 clients, two searches walking",
        fmt("%.0f", percentile(latency, 0.5)) + " / " + fmt("%.0f µs", percentile(latency, 0.99)),
        "goal p99 < 2000 µs", fmt("%.2f of goal", percentile(latency, 0.99) / 2000));

    // Many searches created, begun and ended. The first ones page in library code that an
    // idle service never touched (file-backed, shared); the rest must not grow anything.
    auto churn = [&](int count) {
        for (int i = 0; i < count; ++i) {
            auto [id] = std::tuple<int32_t>(search.CreateEventSearch(rs, ru, rs + 1, 0, -1, 0, 0, 0));
            if (id < 0) continue;
            search.BeginSearch(uint32_t(id));
            search.EndSearch(uint32_t(id));
        }
    };
    churn(100);
    const long warm = residentKiB(pid), warmAnon = residentKiB(pid, true);
    const auto churnStart = Clock::now();
    churn(searchesForMemory);
    const double churnSec = std::chrono::duration<double>(Clock::now() - churnStart).count();
    const long after = residentKiB(pid), afterAnon = residentKiB(pid, true);
    row("resident memory idle, before any search", fmt("%.1f MiB", idle / 1024.0) + fmt(" (%.1f MiB anonymous)", idleAnon / 1024.0),
        "goal < 8 MiB", fmt("%.2f of goal", idle / 1024.0 / 8));
    row("resident memory, two searches walking", fmt("%.1f MiB", walking / 1024.0), "idle", fmt("%.2fx", double(walking) / double(idle)));
    row("resident memory after 100 searches", fmt("%.1f MiB", warm / 1024.0) + fmt(" (%.1f MiB anonymous)", warmAnon / 1024.0), "idle",
        fmt("%+.1f%%", 100.0 * double(warm - idle) / double(idle)));
    row(("resident memory after " + std::to_string(searchesForMemory) + " more searches").c_str(),
        fmt("%.1f MiB", after / 1024.0) + fmt(" (%.1f MiB anonymous; ", afterAnon / 1024.0) + fmt("%.1f s)", churnSec),
        "after 100 searches", fmt("%+.1f%%", 100.0 * double(after - warm) / double(warm)) +
        fmt(" (anonymous %+.1f%%)", 100.0 * double(afterAnon - warmAnon) / double(warmAnon)));
    loop.stop();
    return 0;
}
