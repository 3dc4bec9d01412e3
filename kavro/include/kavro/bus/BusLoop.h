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
// every use of the connection after start() goes through post() or send(). post()'s function
// runs on the loop thread, in posting order, and the loop wakes at once (an eventfd) so that
// replies sent from other threads leave without waiting for unrelated traffic. send()'s runs
// on the calling thread under the connection's lock, which the loop holds whenever it uses the
// connection and releases only to wait: sd-bus writes a message at once when it can, so the
// loop is woken only when a message is left queued. That spares a thread hop per message.
// post() and send() may be called from any thread; onLost runs on the loop thread when the
// bus goes away.
class BusLoop {
public:
    explicit BusLoop(std::unique_ptr<sdbus::IConnection> connection);
    ~BusLoop();  // stop()

    sdbus::IConnection& connection() { return *connection_; }

    void start(std::function<void(const std::string&)> onLost = {});
    // Runs what was posted before, then ends the loop and joins it. Idempotent.
    void stop();
    void post(std::function<void()> work);
    template <typename Work>
    void send(Work work)
    {
        std::lock_guard<std::mutex> lock(connectionMutex_);
        work();
        wakeIfOutputQueued();
    }
    bool lost() const { return lost_.load(); }
    bool onLoopThread() const { return std::this_thread::get_id() == thread_.get_id(); }

    BusLoop(const BusLoop&) = delete;
    BusLoop& operator=(const BusLoop&) = delete;

private:
    void run();
    void processUntilIdle();
    void drainOutput(std::unique_lock<std::mutex>& lock);
    bool runPosted();
    void waitForWork(std::unique_lock<std::mutex>& lock);
    void wake();
    void wakeIfOutputQueued();

    std::unique_ptr<sdbus::IConnection> connection_;
    std::mutex connectionMutex_;  // every use of connection_ once the loop runs
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
