// The standard search interface over the gateway's transport: a SOAP 1.2 request in, its
// answer or its fault out. Every operation but GetSystemDateAndTime needs a user.
#pragma once

#include <atomic>
#include <cstddef>
#include <optional>
#include <string>

#include "onvif/DeviceService.h"
#include "onvif/OnvifUsers.h"
#include "onvif/SearchService.h"

namespace onvif {

struct SoapCall {
    std::string method;
    std::string path;
    std::string body;
    bool fromLoopback = false;
    std::string base;  // scheme and host the client reached: https://camera:8470
};

struct SoapAnswer {
    int status = 200;
    std::string body;
    const char* allow = nullptr;  // the Allow header of a 405
};

constexpr const char* kSoapContentType = "application/soap+xml; charset=utf-8";

bool isOnvifPath(const std::string& path);

class OnvifFace {
public:
    OnvifFace(UserList users, void* logCookie);

    // What the request line and headers alone decide, before any body is read.
    std::optional<SoapAnswer> refuse(const std::string& method, const std::string& path,
                                     std::optional<std::size_t> contentLength,
                                     std::size_t mostBody) const;
    SoapAnswer answer(const SoapCall& call);
    void endAll() { search_.endAll(); }
    // Requests being answered now (after endAll(), none for long).
    int answering() const { return answering_; }

private:
    std::atomic<int> answering_{0};
    void* logCookie_;
    OnvifUsers users_;
    DeviceService device_;
    SearchService search_;
};

}  // namespace onvif
