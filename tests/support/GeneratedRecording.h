// A sample recording made by `recording_store generate`, for the tests that run the real
// processes.
#pragma once

#include <string>
#include <vector>

#include "support/TempDir.h"

namespace rstest {

// `recording_store generate FILE ARGS...` into a directory of its own, removed with this
// object. Generating takes a while: tests keep one per test binary in a function-local static.
class GeneratedRecording {
public:
    // binDir: where recording_store is. Throws std::runtime_error with the generator's
    // standard error when it fails.
    GeneratedRecording(const std::string& binDir, const std::vector<std::string>& generateArgs);

    const std::string& path() const { return path_; }

private:
    TempDir dir_;
    std::string path_;
};

}  // namespace rstest
