#pragma once

#include <stdexcept>
#include <string>

#include "kavro/core.h"

namespace kavro {
namespace core {

std::string statusToString(kavro_core_status status);

// Thrown by start-up when a framework call fails; the message is "<call> (<status text>)".
class KavroApiException : public std::runtime_error {
public:
    KavroApiException(const std::string& call, kavro_core_status status);
    ~KavroApiException() override;

    kavro_core_status status() const { return status_; }

private:
    static std::string buildMessage(const std::string& call, kavro_core_status status);

    kavro_core_status status_;
};

}  // namespace core
}  // namespace kavro
