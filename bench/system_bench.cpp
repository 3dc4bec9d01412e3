// Measures the running service and store on one bus, from inside one process: bus round
// trips, walk speed against the ceiling the 500 µs pause allows, request latency under load,
// and resident memory. Prints Markdown table rows; bench/run.sh starts the processes.
#include <sys/prctl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
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
    void onMetadataSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                const uint32_t& usec) override
    {
        record(jobId, sec, usec, false);
    }
    void onTrackStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                       const uint32_t& usec, const std::string&, const uint8_t&,
                                       const uint8_t& startState) override
    {
        record(jobId, sec, usec, startState != 0);
    }
    void onRecordingStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                           const uint32_t& usec, const uint8_t&,
                                           const uint8_t& startState) override
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

// CPU time (user + system) that a whole process has used so far, in microseconds.
double processCpuMicros(uint32_t pid)
{
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) ticks += std::strtod(field.c_str(), nullptr);
    }
    return ticks * 1e6 / double(sysconf(_SC_CLK_TCK));
}

double threadCpuMicros()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e6 + double(t.tv_nsec) / 1e3;
}

struct Pace {
    double stepsPerSec = 0;  // per walk
    double cpuPerStep = 0;   // µs of CPU per step, all walks together
    size_t steps = 0;        // all walks together
};

// The physical limit of a walk, with none of our code: one thread sleeps 500 µs with 1 ns of
// timer slack, then makes one blocking call of the walk's method to the same store, following
// the next-neighbour times as the walk does, until it leaves the range.
Pace bareLoop(bool metadata, const Range& r)
{
    prctl(PR_SET_TIMERSLACK, 1UL);
    auto connection = kavro::bus::connectToBus();
    Proxy<kavro::recording_data_access_proxy> data(*connection, "recording_data_access");
    std::pair<uint32_t, uint32_t> at{r.startSec, r.startUsec};
    const std::pair<uint32_t, uint32_t> end{r.endSec, r.endUsec};
    Pace pace;
    const double cpuStart = threadCpuMicros();
    const auto start = Clock::now();
    while (at <= end) {
        std::this_thread::sleep_for(std::chrono::microseconds(500));
        std::pair<uint32_t, uint32_t> next;
        if (metadata) {
            const auto answer = data.GetMetadata(at.first, at.second);
            next = {std::get<4>(answer), std::get<5>(answer)};
        } else {
            const auto answer = data.GetRecordingHistoryEvent(at.first, at.second);
            next = {std::get<4>(answer), std::get<5>(answer)};
        }
        ++pace.steps;
        if (next <= at) break;
        at = next;
    }
    pace.stepsPerSec =
        double(pace.steps) / std::chrono::duration<double>(Clock::now() - start).count();
    pace.cpuPerStep = (threadCpuMicros() - cpuStart) / double(pace.steps);
    return pace;
}

Pace bareLoops(int count, bool metadata, const Range& r)
{
    std::vector<Pace> paces(static_cast<size_t>(count));
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] { paces[size_t(i)] = bareLoop(metadata, r); });
    for (auto& t : threads) t.join();
    Pace all;
    double cpu = 0;
    for (const auto& p : paces) {
        all.stepsPerSec += p.stepsPerSec / count;
        all.steps += p.steps;
        cpu += p.cpuPerStep * double(p.steps);
    }
    all.cpuPerStep = cpu / double(all.steps);
    return all;
}

void row(const char* what, const std::string& value, const std::string& anchor,
         const std::string& ratio)
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
    // The matcher's parse + evaluate per document, as xpath_bench measured it: the metadata
    // walk's CPU goal allows for it on top of the bare loop's.
    const double xpathCostMicros = argc > 5 ? std::atof(argv[5]) : 0;

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

    row("bare Peer.Ping round trip p50 / p99 (back to back, hot)",
        fmt("%.0f", pingP50) + " / " + fmt("%.0f µs", percentile(ping, 0.99)), "", "");
    row("store GetMetadata round trip p50 / p99",
        fmt("%.0f", percentile(store, 0.5)) + " / " + fmt("%.0f µs", percentile(store, 0.99)),
        fmt("Ping p50 %.0f µs", pingP50), fmt("%.2fx", percentile(store, 0.5) / pingP50));

    const long idle = residentKiB(pid), idleAnon = residentKiB(pid, true);

    // Walks against the bare loop, over the same stretch of the same recording, one alone and
    // two at once; CPU is all of recording_search's against the loops' own.
    auto walks = [&](int count, bool metadata, const Range& r) {
        std::vector<Walk> begun;
        const double cpuStart = processCpuMicros(pid);
        for (int i = 0; i < count; ++i) {
            auto [id] = std::tuple<int32_t>(
                metadata ? search.CreateMetadataSearch(r.startSec, r.startUsec, r.endSec, r.endUsec,
                                                       -1, xpath)
                         : search.CreateEventSearch(r.startSec, r.startUsec, r.endSec, r.endUsec,
                                                    -1, 0, 0, 0));
            begun.push_back(beginWalk(search, id));
        }
        Pace pace;
        for (const Walk& walk : begun) {
            size_t steps = 0;
            pace.stepsPerSec += stepsPerSecond(listener, walk, metadata, &steps) / count;
            pace.steps += steps;
        }
        pace.cpuPerStep = (processCpuMicros(pid) - cpuStart) / double(pace.steps);
        for (const Walk& walk : begun) search.EndSearch(walk.jobId);
        return pace;
    };
    const Range eventRange{rs, ru, std::min(re, rs + eventWindowSec), 0};
    const Range metadataRange{rs, ru, std::min(re, rs + metadataWindowSec), 0};
    auto compare = [&](const char* what, bool metadata, int count, double extraCpu) {
        const Range& r = metadata ? metadataRange : eventRange;
        const Pace loop = bareLoops(count, metadata, r);
        const Pace walk = walks(count, metadata, r);
        row(what,
            fmt("%.0f steps/s", walk.stepsPerSec) + fmt(", %.0f µs CPU/step", walk.cpuPerStep) +
                fmt(" (%.0f steps)", double(walk.steps)),
            fmt("bare loop %.0f steps/s", loop.stepsPerSec) +
                fmt(", %.0f µs CPU/step", loop.cpuPerStep),
            fmt("speed %.2f, ", walk.stepsPerSec / loop.stepsPerSec) +
                fmt("CPU %.2fx", walk.cpuPerStep / (loop.cpuPerStep + extraCpu)));
    };
    compare("event search walk, alone", false, 1, 0);
    compare("event search walks, two at once", false, 2, 0);
    compare("metadata search walk, alone", true, 1, xpathCostMicros);
    compare("metadata search walks, two at once", true, 2, xpathCostMicros);
    const long walking = [&] {
        auto [e] = std::tuple<int32_t>(search.CreateEventSearch(rs, ru, re, reu, -1, 0, 0, 0));
        auto [m] = std::tuple<int32_t>(search.CreateMetadataSearch(rs, ru, re, reu, -1, xpath));
        beginWalk(search, e);
        beginWalk(search, m);
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        const long kib = residentKiB(pid);
        search.EndSearch(uint32_t(e));
        search.EndSearch(uint32_t(m));
        return kib;
    }();

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
            auto [id] =
                std::tuple<int32_t>(search.CreateEventSearch(rs, ru, rs + 1, 0, -1, 0, 0, 0));
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
    row("resident memory idle, before any search",
        fmt("%.1f MiB", idle / 1024.0) + fmt(" (%.1f MiB anonymous)", idleAnon / 1024.0),
        "goal < 8 MiB", fmt("%.2f of goal", idle / 1024.0 / 8));
    row("resident memory, two searches walking", fmt("%.1f MiB", walking / 1024.0), "idle",
        fmt("%.2fx", double(walking) / double(idle)));
    row("resident memory after 100 searches",
        fmt("%.1f MiB", warm / 1024.0) + fmt(" (%.1f MiB anonymous)", warmAnon / 1024.0), "idle",
        fmt("%+.1f%%", 100.0 * double(warm - idle) / double(idle)));
    row(("resident memory after " + std::to_string(searchesForMemory) + " more searches").c_str(),
        fmt("%.1f MiB", after / 1024.0) + fmt(" (%.1f MiB anonymous; ", afterAnon / 1024.0) +
            fmt("%.1f s)", churnSec),
        "after 100 searches",
        fmt("%+.1f%%", 100.0 * double(after - warm) / double(warm)) +
            fmt(" (anonymous %+.1f%%)", 100.0 * double(afterAnon - warmAnon) / double(warmAnon)));
    loop.stop();
    return 0;
}
