// Events through the target's result queue and out as signals, counted by a client on the
// same bus: how many a second arrive, and how many are lost.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <boost/make_shared.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/generated/recording_search_proxy.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

constexpr const char* kService = "recording_search_bench";

class CounterSignals : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    explicit CounterSignals(sdbus::IConnection& c) : ServiceProxy(c, kService) {}

    bool waitFor(size_t count, std::chrono::seconds quietLimit)
    {
        std::unique_lock<std::mutex> lock(mutex_);
        size_t seen = received_;
        while (received_ < count) {
            if (!arrived_.wait_for(lock, quietLimit, [&] { return received_ != seen; }))
                return false;
            seen = received_;
        }
        return true;
    }
    size_t received()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    std::chrono::steady_clock::time_point last()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return last_;
    }

private:
    void onSearchCompleted(const uint32_t&) override {}
    void onMetadataSearchResult(const uint32_t&, const uint32_t&, const uint32_t&) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++received_;
        last_ = std::chrono::steady_clock::now();
        arrived_.notify_all();
    }
    void onTrackStateEventSearchResult(const uint32_t&, const uint32_t&, const uint32_t&,
                                       const std::string&, const uint8_t&, const uint8_t&) override
    {
    }
    void onRecordingStateEventSearchResult(const uint32_t&, const uint32_t&, const uint32_t&,
                                           const uint8_t&, const uint8_t&) override
    {
    }

    std::mutex mutex_;
    std::condition_variable arrived_;
    size_t received_ = 0;
    std::chrono::steady_clock::time_point last_;
};
using Counter = kavro::bus::Registered<CounterSignals>;

}  // namespace

int main(int argc, char** argv)
{
    const size_t count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 100000;
    void* logCookie = nullptr;
    kavro_core_logging_init("SIGNAL_BENCH", &logCookie);
    auto target = boost::make_shared<RecordingSearchTargetImpl>(logCookie);
    KavroApiRecordingSearchTargetRun runner(kService, logCookie, target);

    kavro::bus::BusLoop loop(kavro::bus::connectToBus());
    Counter counter(loop.connection());
    loop.start();

    std::thread dispatcher([&] { target->processEventLoop(); });
    const auto start = std::chrono::steady_clock::now();
    RecordingSearchEventData record;
    record.eventType = MetadataSearchResult;
    record.jobId = 1;
    for (size_t i = 0; i < count; ++i) {
        record.sec = uint32_t(i);
        target->queueEventData(record);
    }
    const bool all = counter.waitFor(count, std::chrono::seconds(10));
    const double seconds = std::chrono::duration<double>(counter.last() - start).count();
    const size_t received = counter.received();
    target->stopProcessEvents();
    dispatcher.join();
    loop.stop();

    std::printf(
        "| signals received by one client | %.0f /s (%zu of %zu, %zu lost) | goal 50000 /s, none "
        "lost | %.2fx%s |\n",
        double(received) / seconds, received, count, count - received,
        double(received) / seconds / 50000.0, all ? "" : ", gave up waiting");
    kavro_core_logging_deinit(logCookie);
    return received == count ? 0 : 1;
}
