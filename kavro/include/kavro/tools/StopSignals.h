// The signals that ask the small programs (recsearch, recording_store) to stop.
#pragma once

#include <pthread.h>
#include <signal.h>

namespace kavro {
namespace tools {

// Blocks SIGINT, SIGTERM and SIGHUP in the calling thread and in every thread started after it,
// so that only the place that waits for them (sigwait, a signalfd) sees them; call it before
// any thread starts. Returns the set, for that wait.
inline sigset_t blockStopSignals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

}  // namespace tools
}  // namespace kavro
