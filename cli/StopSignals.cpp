#include "StopSignals.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "kavro/tools/StopSignals.h"

namespace recsearch {

// Shared with the waiting thread, which is detached and may outlive the StopSignals object.
struct StopSignals::Shared {
    std::mutex mutex;
    EventInbox* inbox = nullptr;  // null once the owner is gone
    std::atomic<bool> requested{false};
};

namespace {

[[noreturn]] void exitNow(int signal, bool searchMayRun)
{
    static const char message[] =
        "recsearch: stopped again; leaving without waiting for the service\n";
    if (searchMayRun) {
        [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, message, sizeof message - 1);
    }
    ::_exit(128 + signal);
}

void waitForSignals(std::shared_ptr<StopSignals::Shared> shared, sigset_t set)
{
    while (true) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0) continue;
        std::lock_guard<std::mutex> lock(shared->mutex);
        if (shared->inbox == nullptr) exitNow(signal, false);
        if (shared->requested.exchange(true)) exitNow(signal, true);
        ClientEvent event;
        event.kind = ClientEvent::Kind::Interrupted;
        event.signal = signal;
        shared->inbox->push(std::move(event));
    }
}

}  // namespace

StopSignals::StopSignals(EventInbox& inbox) : shared_(std::make_shared<Shared>())
{
    shared_->inbox = &inbox;
    std::thread(waitForSignals, shared_, kavro::tools::blockStopSignals()).detach();
}

StopSignals::~StopSignals()
{
    std::lock_guard<std::mutex> lock(shared_->mutex);
    shared_->inbox = nullptr;
}

bool StopSignals::requested() const { return shared_->requested.load(); }

}  // namespace recsearch
