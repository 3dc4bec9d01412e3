// `recording_store serve FILE`: owns the three recording services' names on the bus and
// answers from the recording until SIGTERM, SIGINT or SIGHUP, or until the bus goes away.
//
// Threads: run() is called on the main thread before any other thread exists (it blocks the
// stop signals, which new threads inherit, and takes them from a signalfd); the bus loop
// thread answers every call. Nothing is written to standard output; standard error gets one
// line on a fatal error.
#pragma once

#include <string>

#include "kavro/tools/StopSignals.h"

namespace store {

class StoreDaemon {
public:
    explicit StoreDaemon(std::string path) : path_(std::move(path)) {}

    // The process's exit status: 0 after a stop signal, 1 on a fatal error.
    int run();

private:
    int serve(void* logCookie, const kavro::tools::StopRequest& stop);

    std::string path_;
};

}  // namespace store
