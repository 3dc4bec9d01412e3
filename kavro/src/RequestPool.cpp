#include "RequestPool.h"

namespace kavro {
namespace detail {

RequestPool::RequestPool(size_t threads, size_t maxQueued) : maxQueued_(maxQueued)
{
    for (size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { work(); });
}

RequestPool::~RequestPool() { shutdown(); }

bool RequestPool::submit(std::function<void()> request, bool bounded)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || (bounded && queue_.size() >= maxQueued_)) return false;
        queue_.push_back(std::move(request));
    }
    available_.notify_one();
    return true;
}

void RequestPool::shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
    }
    available_.notify_all();
    for (auto& thread : threads_) thread.join();
}

void RequestPool::work()
{
    while (true) {
        std::function<void()> request;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            available_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            if (queue_.empty()) return;
            request = std::move(queue_.front());
            queue_.pop_front();
        }
        request();
    }
}

}  // namespace detail
}  // namespace kavro
