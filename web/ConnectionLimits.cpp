#include "web/ConnectionLimits.h"

#include <sys/socket.h>

#include <algorithm>

namespace web {

namespace {
constexpr std::chrono::milliseconds kWatchEvery{250};
}

struct ConnectionLimits::Connection {
    int socket;
    std::string address;
    bool waiting = true;
    Clock::time_point due;
    bool closing = false;  // shut down; its close is on its way
    std::list<Connection>::iterator self;
};

ConnectionLimits::ConnectionLimits(std::size_t connections, std::size_t waitingPerAddress,
                                   std::chrono::milliseconds deadline)
    : connections_(connections),
      waitingPerAddress_(waitingPerAddress),
      deadline_(deadline),
      watcher_([this] { watch(); })
{
}

ConnectionLimits::~ConnectionLimits()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    stopping_.notify_all();
    watcher_.join();
}

ConnectionLimits::Connection* ConnectionLimits::opened(int socket, const std::string& address)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = open_.insert(open_.end(),
                           Connection{socket, address, true, Clock::now() + deadline_, false, {}});
    it->self = it;
    const auto waitingFrom = [&](const std::string* from) {
        return std::size_t(std::count_if(open_.begin(), open_.end(), [&](const Connection& c) {
            return c.waiting && !c.closing && (from == nullptr || c.address == *from);
        }));
    };
    if (waitingFrom(&address) > waitingPerAddress_) closeOldestWaiting(&address);
    if (waitingFrom(nullptr) > connections_) closeOldestWaiting(nullptr);
    return &*it;
}

void ConnectionLimits::requestArrived(Connection* connection)
{
    std::lock_guard<std::mutex> lock(mutex_);
    connection->waiting = false;
}

void ConnectionLimits::answered(Connection* connection)
{
    std::lock_guard<std::mutex> lock(mutex_);
    connection->waiting = true;
    connection->due = Clock::now() + deadline_;
}

void ConnectionLimits::closed(Connection* connection)
{
    std::lock_guard<std::mutex> lock(mutex_);
    open_.erase(connection->self);
}

bool ConnectionLimits::overFull() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    const auto open =
        std::count_if(open_.begin(), open_.end(), [](const Connection& c) { return !c.closing; });
    return std::size_t(open) > connections_;
}

// Under the mutex. The socket stays open (and its number unused) until closed() is called.
void ConnectionLimits::closeOldestWaiting(const std::string* address)
{
    for (auto& c : open_) {
        if (!c.waiting || c.closing || (address != nullptr && c.address != *address)) continue;
        c.closing = true;
        ::shutdown(c.socket, SHUT_RDWR);
        return;
    }
}

void ConnectionLimits::watch()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_.wait_for(lock, kWatchEvery, [this] { return stop_; })) {
        const auto now = Clock::now();
        for (auto& c : open_) {
            if (!c.waiting || c.closing || c.due > now) continue;
            c.closing = true;
            ::shutdown(c.socket, SHUT_RDWR);
        }
    }
}

}  // namespace web
