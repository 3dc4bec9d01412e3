#include "kavro/bus/Contract.h"

#include <cerrno>
#include <cstdlib>
#include <string>

namespace kavro {
namespace bus {

std::string busName(const std::string& service) { return "kavro." + service; }

std::string objectPath(const std::string& service) { return "/kavro/" + service; }

std::unique_ptr<sdbus::IConnection> connectToBus() { return sdbus::createSystemBusConnection(); }

sdbus::Error statusError(kavro_core_status status)
{
    return sdbus::Error(kStatusErrorName, std::to_string(static_cast<int>(status)));
}

namespace {

struct NamedStatus {
    const char* name;
    kavro_core_status status;
};

// The D-Bus errors the framework reads as something more than a transport error.
constexpr NamedStatus kErrorStatuses[] = {
    {"org.freedesktop.DBus.Error.NoReply", KAVRO_STATUS_TIMEOUT},
    {"org.freedesktop.DBus.Error.Timeout", KAVRO_STATUS_TIMEOUT},
    {"org.freedesktop.DBus.Error.TimedOut", KAVRO_STATUS_TIMEOUT},
    {"System.Error.ETIMEDOUT", KAVRO_STATUS_TIMEOUT},
    {"org.freedesktop.DBus.Error.ServiceUnknown", KAVRO_STATUS_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", KAVRO_STATUS_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.UnknownObject", KAVRO_STATUS_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.UnknownInterface", KAVRO_STATUS_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.UnknownMethod", KAVRO_STATUS_SERVICE_UNKNOWN},
    {"org.freedesktop.DBus.Error.InvalidArgs", KAVRO_STATUS_MALFORMED_REPLY},
    {"org.freedesktop.DBus.Error.InvalidSignature", KAVRO_STATUS_MALFORMED_REPLY},
    {"org.freedesktop.DBus.Error.InconsistentMessage", KAVRO_STATUS_MALFORMED_REPLY},
    {"org.freedesktop.DBus.Error.NoMemory", KAVRO_STATUS_NO_MEMORY},
    {"System.Error.ENOMEM", KAVRO_STATUS_NO_MEMORY},
    {"System.Error.ENOBUFS", KAVRO_STATUS_NO_MEMORY},
    // Only a request for a bus name is refused this way.
    {"org.freedesktop.DBus.Error.FileExists", KAVRO_STATUS_NAME_TAKEN},
    {"System.Error.EEXIST", KAVRO_STATUS_NAME_TAKEN},
    {"org.freedesktop.DBus.Error.AccessDenied", KAVRO_STATUS_ACCESS_DENIED},
    {"System.Error.EACCES", KAVRO_STATUS_ACCESS_DENIED},
    {"System.Error.EPERM", KAVRO_STATUS_ACCESS_DENIED},
};

kavro_core_status statusOfName(const std::string& name)
{
    for (const NamedStatus& row : kErrorStatuses) {
        if (name == row.name) return row.status;
    }
    return KAVRO_STATUS_TRANSPORT_ERROR;
}

bool refusesName(kavro_core_status status)
{
    return status == KAVRO_STATUS_NAME_TAKEN || status == KAVRO_STATUS_ACCESS_DENIED;
}

kavro_core_status parseStatusMessage(const std::string& message)
{
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(message.c_str(), &end, 10);
    const bool wellFormed = end != message.c_str() && (*end == '\0' || *end == ' ') && errno == 0;
    if (!wellFormed || value <= 0 || value > INT32_MAX) {  // statuses are positive
        return KAVRO_STATUS_MALFORMED_REPLY;
    }
    return static_cast<kavro_core_status>(value);
}

}  // namespace

ErrorOrigin errorOrigin(const sdbus::Error& error)
{
    if (error.getName() == kStatusErrorName) return ErrorOrigin::ServiceStatus;
    if (error.getName() == kFailedErrorName) return ErrorOrigin::ServiceFailure;
    return ErrorOrigin::Bus;
}

kavro_core_status statusFromError(const sdbus::Error& error)
{
    if (errorOrigin(error) == ErrorOrigin::ServiceStatus)
        return parseStatusMessage(error.getMessage());
    const kavro_core_status status = statusOfName(error.getName());
    return refusesName(status) ? KAVRO_STATUS_TRANSPORT_ERROR : status;
}

kavro_core_status requestNameStatus(const sdbus::Error& error)
{
    const kavro_core_status status = statusOfName(error.getName());
    return refusesName(status) ? status : KAVRO_STATUS_TRANSPORT_ERROR;
}

}  // namespace bus
}  // namespace kavro
