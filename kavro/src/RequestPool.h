#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kavro {
namespace detail {

// A fixed set of threads that run submitted requests, several at once, so that one request
// that blocks holds up neither the others nor the bus. The queue is bounded: a client cannot
// make us hold unbounded work. submit() may be called from any thread.
class RequestPool {
public:
    RequestPool(size_t threads, size_t maxQueued);
    ~RequestPool();  // shutdown()

    // False when the queue is full (only if bounded) or shut down.
    bool submit(std::function<void()> request, bool bounded = true);
    void shutdown();  // runs what is queued, then joins

private:
    void work();

    const size_t maxQueued_;
    std::mutex mutex_;
    std::condition_variable available_;
    std::deque<std::function<void()>> queue_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace detail
}  // namespace kavro
