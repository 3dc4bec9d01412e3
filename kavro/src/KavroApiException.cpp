#include "kavro/KavroApiException.h"

#include <sstream>

namespace kavro {
namespace core {

std::string statusToString(kavro_core_status status)
{
    switch (status) {
    case KAVRO_STATUS_OK: return "success";
    case KAVRO_STATUS_FAILED: return "failed";
    case KAVRO_STATUS_INVALID_ARGUMENT: return "invalid argument";
    case KAVRO_STATUS_NOT_INITIALISED: return "not initialised";
    case KAVRO_STATUS_NO_MEMORY: return "out of memory";
    case KAVRO_STATUS_BUS_UNREACHABLE: return "bus unreachable";
    case KAVRO_STATUS_SERVICE_UNKNOWN: return "service not on the bus";
    case KAVRO_STATUS_TIMEOUT: return "no reply within the call timeout";
    case KAVRO_STATUS_MALFORMED_REPLY: return "malformed reply";
    case KAVRO_STATUS_TRANSPORT_ERROR: return "transport error";
    case KAVRO_STATUS_NAME_TAKEN: return "bus name already owned";
    case KAVRO_STATUS_BUS_LOST: return "connection to the bus lost";
    case KAVRO_STATUS_IO_ERROR: return "input/output error";
    case KAVRO_STATUS_ACCESS_DENIED: return "access denied by the bus policy";
    default: break;
    }
    return "status " + std::to_string(static_cast<int>(status));
}

KavroApiException::KavroApiException(const std::string& call, kavro_core_status status)
    : std::runtime_error(buildMessage(call, status)), status_(status)
{
}

KavroApiException::~KavroApiException() = default;

std::string KavroApiException::buildMessage(const std::string& call, kavro_core_status status)
{
    std::ostringstream message;
    message << call << " (" << statusToString(status) << ")";
    return message.str();
}

}  // namespace core
}  // namespace kavro
