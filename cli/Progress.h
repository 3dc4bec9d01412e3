// One self-rewriting line on a terminal's standard error: how far through the time range the
// search's results have come. Main thread only.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <optional>

#include "client/TimeText.h"

namespace recsearch {

using namespace rsclient;

class Progress {
public:
    // Shows nothing unless `enabled` (the caller decides: a terminal, and not turned off).
    Progress(bool enabled, TimePoint from, TimePoint to);
    ~Progress() { clear(); }

    // Narrows the range to the part that holds a recording, which is all the service walks.
    void fitTo(TimePoint first, TimePoint last);
    void reached(TimePoint t, std::size_t results);
    void tick();   // redraws (elapsed time) when due
    void clear();  // before anything else is written to the terminal
    bool enabled() const { return enabled_; }

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    void draw();

    bool enabled_;
    bool forward_;
    double from_;
    double to_;
    std::optional<TimePoint> reached_;
    std::size_t results_ = 0;
    bool shown_ = false;
    std::chrono::steady_clock::time_point started_;
    std::chrono::steady_clock::time_point lastDraw_;
};

}  // namespace recsearch
