// kavro.recording_index on the bus. Every call is answered from a query thread, so that no query
// holds up the bus; each answer is bounded (a page of matches at most). The state is answered
// apart from the scans, so that it never waits behind them. Beyond a few waiting calls, a
// caller is told at once that the index is busy; a caller that leaves the bus has its calls
// dropped, and its running scan stopped.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "index/IndexFollower.h"
#include "index/QueryQueue.h"

namespace kavro {
namespace bus {
class BusLoop;
}
}  // namespace kavro

namespace rsindex {

class IndexService {
public:
    // `pageLimit`: the most matches or appearances one answer holds.
    IndexService(kavro::bus::BusLoop& loop, const std::string& databasePath,
                 IndexFollower& follower, void* logCookie, uint32_t pageLimit = 10000);
    ~IndexService();  // joins the query threads, then unregisters: stop the loop first

    uint32_t pageLimit() const { return pageLimit_; }

    IndexService(const IndexService&) = delete;
    IndexService& operator=(const IndexService&) = delete;

    class Adaptor;

private:
    uint32_t pageLimit_;
    // Built after the queues, gone after them: no query runs once it is unregistered.
    std::unique_ptr<Adaptor> adaptor_;
    QueryQueue state_;
    QueryQueue scans_;
};

}  // namespace rsindex
