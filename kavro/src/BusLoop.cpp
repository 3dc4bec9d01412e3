#include "kavro/bus/BusLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <ctime>
#include <system_error>

namespace kavro {
namespace bus {

BusLoop::BusLoop(std::unique_ptr<sdbus::IConnection> connection)
    : connection_(std::move(connection)), wakeFd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (wakeFd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

BusLoop::~BusLoop()
{
    stop();
    ::close(wakeFd_);
}

void BusLoop::start(std::function<void(const std::string&)> onLost)
{
    onLost_ = std::move(onLost);
    thread_ = std::thread([this] { run(); });
}

void BusLoop::stop()
{
    if (!thread_.joinable()) return;
    stopRequested_ = true;
    wake();
    thread_.join();
}

void BusLoop::post(std::function<void()> work)
{
    bool wasEmpty = false;
    {
        std::lock_guard<std::mutex> lock(postedMutex_);
        wasEmpty = posted_.empty();
        posted_.push_back(std::move(work));
    }
    // Only the first of a burst needs to wake the loop: it takes the whole queue at once.
    if (wasEmpty) wake();
}

void BusLoop::wake()
{
    const uint64_t one = 1;
    // A full counter already means "wake up"; nothing else can fail here.
    [[maybe_unused]] ssize_t written = ::write(wakeFd_, &one, sizeof one);
}

void BusLoop::wakeIfOutputQueued()
{
    if (connection_->getEventLoopPollData().events & POLLOUT) wake();
}

void BusLoop::run()
{
    std::unique_lock<std::mutex> lock(connectionMutex_);
    try {
        while (true) {
            processUntilIdle();
            const bool didWork = runPosted();
            if (stopRequested_ && !didWork) break;
            if (didWork) continue;  // sends may have queued output, or posted more work
            waitForWork(lock);
        }
        drainOutput(lock);
    } catch (const sdbus::Error& e) {
        lost_ = true;
        if (lock.owns_lock()) lock.unlock();
        if (onLost_) onLost_(e.getMessage());
        // The connection is unusable; drop posted work without running it.
        std::lock_guard<std::mutex> lock(postedMutex_);
        posted_.clear();
    }
}

void BusLoop::drainOutput(std::unique_lock<std::mutex>& lock)
{
    // Push out what the last posted work queued, for a bounded time: a peer that reads
    // nothing must not hold up the stop.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < deadline) {
        processUntilIdle();
        const auto data = connection_->getEventLoopPollData();
        if (!(data.events & POLLOUT)) return;
        pollfd fd{data.fd, data.events, 0};
        lock.unlock();
        ::poll(&fd, 1, 100);
        lock.lock();
    }
}

void BusLoop::processUntilIdle()
{
    while (connection_->processPendingRequest()) {}
}

bool BusLoop::runPosted()
{
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(postedMutex_);
        batch.swap(posted_);
    }
    for (auto& work : batch) work();
    return !batch.empty();
}

namespace {

int pollTimeoutMs(uint64_t absoluteUsec)
{
    if (absoluteUsec == UINT64_MAX) return -1;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t nowUsec = uint64_t(now.tv_sec) * 1000000 + uint64_t(now.tv_nsec) / 1000;
    if (absoluteUsec <= nowUsec) return 0;
    const uint64_t ms = (absoluteUsec - nowUsec + 999) / 1000;
    return ms > INT_MAX ? INT_MAX : int(ms);
}

}  // namespace

void BusLoop::waitForWork(std::unique_lock<std::mutex>& lock)
{
    const auto data = connection_->getEventLoopPollData();
    pollfd fds[2] = {{data.fd, data.events, 0}, {wakeFd_, POLLIN, 0}};
    lock.unlock();
    const int ready = ::poll(fds, 2, pollTimeoutMs(data.timeout_usec));
    lock.lock();
    if (ready > 0 && (fds[1].revents & POLLIN)) {
        uint64_t count = 0;
        [[maybe_unused]] ssize_t got = ::read(wakeFd_, &count, sizeof count);
    }
}

}  // namespace bus
}  // namespace kavro
