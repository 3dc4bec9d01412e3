// How every program of ours stops on SIGHUP, SIGINT and SIGTERM. A signal handler may neither
// lock a mutex nor notify a condition variable, so the handler only records the request (an
// atomic flag and an eventfd write, both async-signal-safe); whoever waits for the stop reads it
// on a thread of its own, by polling fd() or with a StopWatch.
#pragma once

#include <signal.h>

#include <atomic>
#include <functional>
#include <thread>

namespace kavro {
namespace tools {

// Threads: request() from any thread or signal handler; the rest from any thread.
class StopRequest {
public:
    StopRequest();  // throws std::system_error when no eventfd can be had
    ~StopRequest();

    void request(int signal = 0);  // async-signal-safe; 0 when not asked by a signal
    bool requested() const { return requested_.load(); }
    int signal() const { return signal_.load(); }  // the first signal that asked, or 0
    int fd() const { return fd_; }                 // readable once requested
    void wake();  // makes fd() readable without a request (a StopWatch ending)

    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

private:
    std::atomic<bool> requested_{false};
    std::atomic<int> signal_{0};
    const int fd_;
};

// Runs `onStop` once, on a thread of its own, when the request is made; a loop that waits on a
// condition variable passes a function that takes its mutex and notifies, so that a request
// made just before the loop waits is not missed.
class StopWatch {
public:
    StopWatch(StopRequest& stop, std::function<void()> onStop);
    ~StopWatch();  // ends and joins the watching thread

    StopWatch(const StopWatch&) = delete;
    StopWatch& operator=(const StopWatch&) = delete;

private:
    void run();

    StopRequest& stop_;
    std::function<void()> onStop_;
    std::atomic<bool> ended_{false};
    std::thread watcher_;
};

// While it lives: `handler` for SIGHUP, SIGINT and SIGTERM, and SIGPIPE ignored (a closed
// socket or pipe then shows as a failed write); the previous actions come back at its end.
class StopSignals {
public:
    // A handler of the program's own, installed with `flags` (sigaction's sa_flags).
    StopSignals(void (*handler)(int), int flags);
    // Each signal requests `stop`. With `secondSignalMessage`, a second signal writes it to
    // standard error and ends the process at once with 128 + its number, for a person who does
    // not want to wait. At most one of these lives at a time.
    explicit StopSignals(StopRequest& stop, const char* secondSignalMessage = nullptr);
    ~StopSignals();

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    struct sigaction previous_[4]{};
};

}  // namespace tools
}  // namespace kavro
