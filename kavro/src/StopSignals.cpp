#include "kavro/tools/StopSignals.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

namespace kavro {
namespace tools {

static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "request() runs in signal handlers");

namespace {

constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGTERM};

// What the common handler serves; set while its StopSignals lives.
std::atomic<StopRequest*> requestOfHandler{nullptr};
std::atomic<const char*> secondSignalMessage{nullptr};

void requestStop(int signal)
{
    StopRequest* stop = requestOfHandler.load();
    if (stop == nullptr) return;
    const char* message = secondSignalMessage.load();
    if (message != nullptr && stop->requested()) {
        [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, message, std::strlen(message));
        ::_exit(128 + signal);
    }
    stop->request(signal);
}

}  // namespace

StopRequest::StopRequest() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

StopRequest::~StopRequest() { ::close(fd_); }

void StopRequest::request(int signal)
{
    const int savedErrno = errno;
    int none = 0;
    signal_.compare_exchange_strong(none, signal);
    requested_.store(true);
    wake();
    errno = savedErrno;
}

void StopRequest::wake()
{
    const std::uint64_t one = 1;
    // Only EAGAIN can fail it, and then a wake-up is already pending.
    [[maybe_unused]] ssize_t written = ::write(fd_, &one, sizeof one);
}

StopWatch::StopWatch(StopRequest& stop, std::function<void()> onStop)
    : stop_(stop), onStop_(std::move(onStop)), watcher_([this] { run(); })
{
}

StopWatch::~StopWatch()
{
    ended_.store(true);
    stop_.wake();
    watcher_.join();
}

void StopWatch::run()
{
    for (;;) {
        pollfd watched{stop_.fd(), POLLIN, 0};
        if (::poll(&watched, 1, -1) < 0 && errno != EINTR && errno != ENOMEM) return;
        std::uint64_t count = 0;
        // EAGAIN: another reader took this wake-up; the flags are tested anyway.
        [[maybe_unused]] ssize_t got = ::read(stop_.fd(), &count, sizeof count);
        if (ended_.load()) return;
        if (stop_.requested()) {
            onStop_();
            return;
        }
    }
}

StopSignals::StopSignals(void (*handler)(int), int flags)
{
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = flags;
    for (int i = 0; i < 3; ++i) sigaction(kStopSignals[i], &action, &previous_[i]);
    action.sa_handler = SIG_IGN;
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, &previous_[3]);
}

StopSignals::StopSignals(StopRequest& stop, const char* message)
    : StopSignals((requestOfHandler.store(&stop), secondSignalMessage.store(message), requestStop),
                  SA_RESTART)
{
}

StopSignals::~StopSignals()
{
    for (int i = 0; i < 3; ++i) sigaction(kStopSignals[i], &previous_[i], nullptr);
    sigaction(SIGPIPE, &previous_[3], nullptr);
    requestOfHandler.store(nullptr);
}

}  // namespace tools
}  // namespace kavro
