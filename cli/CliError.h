// How recsearch ends when something goes wrong: one line on standard error and an exit code of
// its own, so that scripts can tell the cases apart.
#pragma once

#include <stdexcept>
#include <string>

namespace recsearch {

enum class ExitCode : int {
    Ok = 0,
    Failure = 1,       // anything not listed below
    Usage = 2,
    Unreachable = 3,   // no bus, service not on it, or no answer in time
    Refused = 4,       // the service answered job id -1
    StatusError = 5,   // the service answered a nonzero status or failed the request
    ServiceGone = 6,   // the service (or the bus) went away during the search
    UnknownJob = 7,    // state/end of a job id that the service does not know
    Interrupted = 130  // Ctrl-C; other stop signals give 128 + their number
};

class CliError : public std::runtime_error {
public:
    CliError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace recsearch
