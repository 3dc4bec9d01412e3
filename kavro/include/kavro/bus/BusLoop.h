#pragma once

#include <sys/types.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <sdbus-c++/sdbus-c++.h>

namespace kavro {
namespace bus {

// Runs one connection's event loop on a thread of its own. sd-bus is not thread-safe, so
// every use of the connection after start() goes through post(): the function runs on the
// loop thread, in posting order, and the loop wakes at once (an eventfd) so that replies and
// signals sent from other threads leave without waiting for unrelated traffic.
// post() may be called from any thread; onLost runs on the loop thread when the bus goes away.
class BusLoop {
public:
    explicit BusLoop(std::unique_ptr<sdbus::IConnection> connection);
    ~BusLoop();  // stop()

    sdbus::IConnection& connection() { return *connection_; }

    void start(std::function<void(const std::string&)> onLost = {});
    // Runs what was posted before, then ends the loop and joins it. Idempotent.
    void stop();
    void post(std::function<void()> work);
    bool lost() const { return lost_.load(); }
    bool onLoopThread() const { return std::this_thread::get_id() == thread_.get_id(); }

    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

private:
    void run();
    void processUntilIdle();
    void drainOutput();
    bool runPosted();
    void waitForWork();
    void wake();

    std::unique_ptr<sdbus::IConnection> connection_;
    int wakeFd_ = -1;
    std::mutex postedMutex_;
    std::deque<std::function<void()>> posted_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> lost_{false};
    std::function<void(const std::string&)> onLost_;
    std::thread thread_;
};

}  // namespace bus
}  // namespace kavro
