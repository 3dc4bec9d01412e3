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

kavro_core_status statusFromError(const sdbus::Error& error)
{
    const std::string& name = error.getName();
    if (name == kStatusErrorName) return parseStatusMessage(error.getMessage());
    if (name == "org.freedesktop.DBus.Error.NoReply" || name == "org.freedesktop.DBus.Error.Timeout" ||
        name == "org.freedesktop.DBus.Error.TimedOut" || name == "System.Error.ETIMEDOUT") {
        return KAVRO_STATUS_TIMEOUT;
    }
    if (name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
        name == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
        name == "org.freedesktop.DBus.Error.UnknownObject" ||
        name == "org.freedesktop.DBus.Error.UnknownInterface" ||
        name == "org.freedesktop.DBus.Error.UnknownMethod") {
        return KAVRO_STATUS_SERVICE_UNKNOWN;
    }
    if (name == "org.freedesktop.DBus.Error.InvalidArgs" ||
        name == "org.freedesktop.DBus.Error.InvalidSignature" ||
        name == "org.freedesktop.DBus.Error.InconsistentMessage") {
        return KAVRO_STATUS_MALFORMED_REPLY;
    }
    if (name == "org.freedesktop.DBus.Error.NoMemory" || name == "System.Error.ENOMEM" ||
        name == "System.Error.ENOBUFS") {
        return KAVRO_STATUS_NO_MEMORY;
    }
    return KAVRO_STATUS_TRANSPORT_ERROR;
}

}  // namespace bus
}  // namespace kavro
