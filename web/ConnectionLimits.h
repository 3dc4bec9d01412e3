// The gateway's own bounds on connections, kept so that nobody, with or without a token, can
// lock the other clients out:
// - a connection is "waiting" from its start, and again after each answer, until its next
//   request has arrived whole (headers and body); a waiting connection has a deadline, and
//   is closed when it passes;
// - one client address holds at most a few waiting connections, and all of them together at
//   most as many as connections are allowed: a new one closes the oldest waiting one (which
//   costs a trickling client its place, never a client whose request has arrived);
// - over the connection bound, a request is answered 503 (the transport asks overFull()).
// Closing is a shutdown of the socket; libmicrohttpd then ends the connection as it would on
// a peer's hang-up.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <thread>

namespace web {

class ConnectionLimits {
public:
    using Clock = std::chrono::steady_clock;
    struct Connection;

    ConnectionLimits(std::size_t connections, std::size_t waitingPerAddress,
                     std::chrono::milliseconds deadline);
    ~ConnectionLimits();

    Connection* opened(int socket, const std::string& address);
    void requestArrived(Connection* connection);  // its request is whole: no deadline now
    void answered(Connection* connection);        // waiting for the next request
    void closed(Connection* connection);
    // More connections are open than allowed: the new request is answered 503.
    bool overFull() const;

    ConnectionLimits(const ConnectionLimits&) = delete;
    ConnectionLimits& operator=(const ConnectionLimits&) = delete;

private:
    void closeOldestWaiting(const std::string* address);
    void watch();

    const std::size_t connections_;
    const std::size_t waitingPerAddress_;
    const std::chrono::milliseconds deadline_;
    mutable std::mutex mutex_;
    std::condition_variable stopping_;
    bool stop_ = false;
    std::list<Connection> open_;  // oldest first
    std::thread watcher_;
};

}  // namespace web
