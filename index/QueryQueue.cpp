#include "index/QueryQueue.h"

#include <vector>

namespace rsindex {

QueryQueue::QueryQueue(std::size_t most) : most_(most), thread_([this] { run(); }) {}

QueryQueue::~QueryQueue()
{
    std::deque<Item> dropped;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        dropped.swap(waiting_);
        for (auto& [name, caller] : callers_) *caller.gone = true;
    }
    ready_.notify_all();
    thread_.join();
}

bool QueryQueue::post(const std::string& caller, Work work)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_ || waiting_.size() >= most_) return false;
        ++callers_[caller].pending;
        waiting_.push_back(Item{caller, std::move(work)});
    }
    ready_.notify_one();
    return true;
}

void QueryQueue::callerLeft(const std::string& caller)
{
    std::vector<Item> dropped;  // destroyed outside the lock: each may hold a reply
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = callers_.find(caller);
        if (it == callers_.end()) return;
        *it->second.gone = true;
        for (auto item = waiting_.begin(); item != waiting_.end();) {
            if (item->caller != caller) {
                ++item;
                continue;
            }
            dropped.push_back(std::move(*item));
            item = waiting_.erase(item);
            settled(caller);
        }
    }
}

void QueryQueue::settled(const std::string& caller)
{
    const auto it = callers_.find(caller);
    if (it != callers_.end() && --it->second.pending == 0) callers_.erase(it);
}

void QueryQueue::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        ready_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (stopping_) return;
        Item item = std::move(waiting_.front());
        waiting_.pop_front();
        const std::shared_ptr<std::atomic<bool>> gone = callers_[item.caller].gone;
        lock.unlock();
        item.work(*gone);
        // Gone before the lock is taken again: it may hold the last reference to a reply, whose
        // release takes the bus connection's lock, which the loop holds while it reports a
        // departure here.
        item.work = nullptr;
        lock.lock();
        settled(item.caller);
    }
}

}  // namespace rsindex
