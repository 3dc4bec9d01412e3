// Work for a query thread, bounded: beyond `most` waiting, post() refuses at once, so that a
// flood of calls is told "busy" rather than held for minutes. Work of a caller that left the
// bus is dropped unrun, and work running for one is told to stop (its `gone` flag).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace rsindex {

class QueryQueue {
public:
    using Work = std::function<void(const std::atomic<bool>& gone)>;

    explicit QueryQueue(std::size_t most);
    ~QueryQueue();  // drops what waits, joins the thread

    bool post(const std::string& caller, Work work);
    void callerLeft(const std::string& caller);

    QueryQueue(const QueryQueue&) = delete;
    QueryQueue& operator=(const QueryQueue&) = delete;

private:
    struct Caller {
        std::size_t pending = 0;  // waiting or running
        std::shared_ptr<std::atomic<bool>> gone = std::make_shared<std::atomic<bool>>(false);
    };
    struct Item {
        std::string caller;
        Work work;
    };

    void run();
    void settled(const std::string& caller);  // under the lock

    std::size_t most_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<Item> waiting_;
    std::map<std::string, Caller> callers_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace rsindex
