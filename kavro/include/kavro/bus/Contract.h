// How every kavro service is reached on the bus, and how statuses travel as D-Bus errors.
#pragma once

#include <memory>
#include <string>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/core.h"

namespace kavro {
namespace bus {

constexpr const char* kStatusErrorName = "kavro.Error.Status";
constexpr const char* kFailedErrorName = "kavro.Error.Failed";
// A neighbour (recording_index) that has too much waiting to take another call now.
constexpr const char* kBusyErrorName = "kavro.Error.Busy";
constexpr auto kCallTimeoutUsec = 5'000'000ULL;

std::string busName(const std::string& service);     // kavro.<service>
std::string objectPath(const std::string& service);  // /kavro/<service>

// The system bus as sd-bus finds it; DBUS_SYSTEM_BUS_ADDRESS points it elsewhere.
std::unique_ptr<sdbus::IConnection> connectToBus();

// A nonzero status as the error a client turns back into the same number.
sdbus::Error statusError(kavro_core_status status);

// Who a failed call's error comes from.
enum class ErrorOrigin {
    ServiceStatus,   // kavro.Error.Status: the service answered with a status
    ServiceFailure,  // kavro.Error.Failed: the service could not handle the request
    Bus              // the bus or the connection: statusFromError says which way it failed
};
ErrorOrigin errorOrigin(const sdbus::Error& error);

// The status a failed call stands for: the service's own for kavro.Error.Status, else one of
// the framework's transport statuses.
kavro_core_status statusFromError(const sdbus::Error& error);
// The status a refused request for a bus name stands for: KAVRO_STATUS_NAME_TAKEN or
// KAVRO_STATUS_ACCESS_DENIED, which tell an operator to look for a second instance or at the
// bus policy, else KAVRO_STATUS_TRANSPORT_ERROR.
kavro_core_status requestNameStatus(const sdbus::Error& error);

}  // namespace bus
}  // namespace kavro
