// One search of the standard interface: run on a thread of its own, its results held until
// the client pulls them. At most `mostHeld` wait: a search whose client does not pull is ended
// on the service there, and begun again after the last result taken once there is room (the
// results at that same time that were held already are not held twice). So a client that
// never pulls costs a bounded amount of memory and no slot on the service.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "client/ClientEvent.h"
#include "client/SearchOutput.h"
#include "client/SearchRequest.h"

namespace rsclient {
class SearchSession;
class ServiceConnection;
}  // namespace rsclient

namespace onvif {

class PulledSearch : private rsclient::SearchOutput {
public:
    struct Page {
        std::vector<rsclient::SearchResult> results;
        bool completed = false;  // the search is over and every result was taken
    };

    PulledSearch(const rsclient::SearchRequest& request, std::size_t mostHeld);
    ~PulledSearch() override;  // ends the search if it still runs

    // Creates and begins the search on the service; throws rsclient::ClientError (Refused
    // while two searches run there).
    void start();

    // Waits up to `wait` for at least `least` results (or the end); takes at most `most`.
    Page take(std::size_t least, std::size_t most, std::chrono::milliseconds wait);
    bool searching() const;
    // Ends the search; the point in time it had reached.
    rsclient::TimePoint end();

    PulledSearch(const PulledSearch&) = delete;
    PulledSearch& operator=(const PulledSearch&) = delete;

private:
    void result(const rsclient::SearchResult& result) override;
    void span(uint32_t, const rsclient::Span&) override {}
    void reached(rsclient::TimePoint t, std::size_t results) override;
    void coverage(const rsclient::Picture&, rsclient::Micros,
                  const std::vector<rsclient::Segment>&) override
    {
    }
    void ended(const rsclient::SearchEnd& end) override;
    bool good() const override;

    rsclient::SearchOutput& output() { return *this; }
    void run();
    // A session over what is left of the range; false when the search ends instead.
    bool openSession();
    bool waitForRoom();
    void finish();

    const rsclient::SearchRequest request_;
    rsclient::SearchRequest current_;  // what the running session asks
    const std::size_t mostHeld_;
    std::unique_ptr<rsclient::EventInbox> inbox_;
    std::unique_ptr<rsclient::ServiceConnection> service_;
    std::unique_ptr<rsclient::SearchSession> session_;
    std::thread thread_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<rsclient::SearchResult> held_;
    std::size_t delivered_ = 0;
    rsclient::TimePoint lastTime_;
    std::size_t atLastTime_ = 0;  // results delivered at lastTime_
    std::size_t skip_ = 0;        // of the resumed session's results at lastTime_
    rsclient::TimePoint reached_;
    bool completedThere_ = false;  // the session on the service completed
    bool full_ = false;
    bool ending_ = false;
    bool done_ = false;
};

}  // namespace onvif
