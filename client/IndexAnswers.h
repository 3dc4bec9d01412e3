// What recording_index answers, as the clients hold it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/TimeText.h"

namespace rsclient {

// What recording_index holds: every metadata document from `from` through `through`.
struct IndexState {
    TimePoint from;
    TimePoint through;
    int64_t documents = 0;
    int64_t bytes = 0;
    std::string state;  // starting, building, following, waiting; busy (nothing else known)
};

// One document that a filter matches, and what appeared in it (the first matching object).
struct IndexMatch {
    TimePoint time;
    std::string classes;  // comma-separated
    std::string colour;
    std::string likelihood;        // the best, as written
    std::vector<std::string> box;  // left, top, right, bottom; empty when none
};

}  // namespace rsclient
