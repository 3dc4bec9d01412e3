#include "target/StopRequest.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include <boost/thread/lock_guard.hpp>

static_assert(std::atomic<bool>::is_always_lock_free,
              "request() sets the flag from a signal handler");

StopRequest::StopRequest() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (fd_ < 0) {
        throw boost::thread_resource_error(errno, "cannot create the stop-request eventfd");
    }
}

StopRequest::~StopRequest() { close(fd_); }

void StopRequest::request()
{
    const int savedErrno = errno;
    requested_.store(true);
    signal();
    errno = savedErrno;
}

void StopRequest::signal()
{
    const std::uint64_t one = 1;
    if (write(fd_, &one, sizeof one) < 0) {
        // Only EAGAIN is possible, and then the counter already holds a pending wake-up.
    }
}

StopRequest::Watch::Watch(StopRequest& stop, boost::mutex& mutex, boost::condition_variable& wake)
    : stop_(stop), watcher_([this, &mutex, &wake] { run(mutex, wake); })
{
}

StopRequest::Watch::~Watch()
{
    ended_.store(true);
    stop_.signal();
    watcher_.join();
}

void StopRequest::Watch::run(boost::mutex& mutex, boost::condition_variable& wake)
{
    for (;;) {
        pollfd watched{stop_.fd_, POLLIN, 0};
        if (poll(&watched, 1, -1) < 0 && errno != EINTR && errno != ENOMEM) {
            return;
        }
        std::uint64_t count = 0;
        if (read(stop_.fd_, &count, sizeof count) < 0) {
            // EAGAIN: someone else's wake-up was already consumed; test the flags anyway.
        }
        if (ended_.load()) {
            return;
        }
        if (stop_.requested()) {
            { boost::lock_guard<boost::mutex> lock(mutex); }
            wake.notify_all();
            return;
        }
    }
}
