// The part of the standard's device service that a client needs to find the search service:
// the services and their addresses, the capabilities, the device's clock and what it is.
#pragma once

#include <string>

#include "onvif/SoapMessage.h"

namespace onvif {

constexpr const char* kDevicePath = "/onvif/device_service";
constexpr const char* kSearchPath = "/onvif/search_service";

class DeviceService {
public:
    // Writes the answer to one operation; throws SoapFault. `base` is the scheme and host
    // the client reached us at, which the addresses of the services are given under.
    void answer(const SoapRequest& request, const std::string& base, SoapWriter& out) const;

private:
    void services(const xmlNode* request, const std::string& base, SoapWriter& out) const;
    void capabilities(const xmlNode* request, const std::string& base, SoapWriter& out) const;
    void clock(SoapWriter& out) const;
    void information(SoapWriter& out) const;
};

}  // namespace onvif
