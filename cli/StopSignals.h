// Ctrl-C and the other stop signals, turned into an event for the main thread so that the
// search is ended on the service before recsearch exits.
#pragma once

#include <memory>

#include "client/ClientEvent.h"

namespace recsearch {

using namespace rsclient;

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in every thread started after
// it (construct it before anything else starts a thread); a thread of its own waits for them.
// The first becomes an Interrupted event; a second one, for a person who does not want to
// wait for the service's answer, ends the process at once with 128 + its number.
class StopSignals {
public:
    explicit StopSignals(EventInbox& inbox);
    ~StopSignals();  // later signals end the process at once

    bool requested() const;

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    struct Shared;

private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace recsearch
