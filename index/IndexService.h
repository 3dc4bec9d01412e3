// kavro.recording_index on the bus. Every call is answered from a query thread of its own, so
// that no query holds up the bus; each answer is bounded (a page of matches at most).
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "index/IndexFollower.h"

namespace kavro {
namespace bus {
class BusLoop;
}
}  // namespace kavro

namespace rsindex {

class IndexService {
public:
    IndexService(kavro::bus::BusLoop& loop, const std::string& databasePath,
                 const IndexFollower& follower, void* logCookie);
    ~IndexService();  // joins the query thread, then unregisters: stop the loop first

    void post(std::function<void()> work);  // to the query thread

    IndexService(const IndexService&) = delete;
    IndexService& operator=(const IndexService&) = delete;

    class Adaptor;

private:
    void run();

    std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<std::function<void()>> work_;
    bool stopping_ = false;
    std::thread thread_;
    std::unique_ptr<Adaptor> adaptor_;
};

}  // namespace rsindex
