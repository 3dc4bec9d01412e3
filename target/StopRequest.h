#pragma once

#include <atomic>

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>

// A stop request that a signal handler may raise and a loop waiting on a condition variable
// must not miss. A signal handler may neither lock a mutex nor notify a condition variable, so
// request() only sets a flag and writes to an eventfd (both async-signal-safe). While a Watch
// lives, a watcher thread waits on that eventfd and, once the flag is set, takes the loop's
// mutex before notifying. The loop tests requested() under the same mutex and releases it only
// by starting to wait, so the notify either finds the loop waiting or comes after a test that
// already saw the flag: no wake-up is lost, and no timed polling is needed.
//
// Threads: request() from any thread or signal handler; requested() from any thread; a Watch
// is made and destroyed by the loop's thread; the watcher thread is the Watch's own.
class StopRequest {
public:
    StopRequest();  // throws boost::thread_resource_error when no eventfd can be had
    ~StopRequest();

    void request();  // async-signal-safe
    bool requested() const { return requested_.load(); }

    class Watch {
    public:
        Watch(StopRequest& stop, boost::mutex& mutex, boost::condition_variable& wake);
        ~Watch();  // ends and joins the watcher

        Watch(const Watch&) = delete;
        Watch& operator=(const Watch&) = delete;

    private:
        void run(boost::mutex& mutex, boost::condition_variable& wake);

        StopRequest& stop_;
        std::atomic<bool> ended_{false};
        boost::thread watcher_;
    };

    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

private:
    void signal();

    std::atomic<bool> requested_{false};
    const int fd_;
};
