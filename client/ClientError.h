// What goes wrong for a client of the service, by kind, so that recsearch can give each its exit
// code and the gateway its HTTP status.
#pragma once

#include <stdexcept>
#include <string>

namespace rsclient {

// The numbers are recsearch's exit codes for them.
enum class ErrorKind : int {
    Failure = 1,       // anything not listed below
    Usage = 2,         // what the person asked cannot be done as asked (a bad devices file)
    Unreachable = 3,   // no bus, service not on it, or no answer in time
    Refused = 4,       // the service answered job id -1
    StatusError = 5,   // the service answered a nonzero status or failed the request
    ServiceGone = 6,   // the service (or the bus) went away during the search
    UnknownJob = 7,    // state/end of a job id that the service does not know
    AccessDenied = 8,  // the bus's policy does not let this user call the service
    Busy = 9,          // recording_index has too many calls waiting to take another now
};

class ClientError : public std::runtime_error {
public:
    ClientError(ErrorKind kind, const std::string& message)
        : std::runtime_error(message), kind_(kind)
    {
    }
    ErrorKind kind() const { return kind_; }

private:
    ErrorKind kind_;
};

}  // namespace rsclient
