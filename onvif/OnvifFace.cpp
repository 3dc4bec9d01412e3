#include "onvif/OnvifFace.h"

#include <syslog.h>

#include <chrono>

#include "kavro/core.h"
#include "onvif/SoapFault.h"

namespace onvif {

namespace {

// Faults are answered 400 whatever their code: a fault is the answer, never a server failure.
constexpr int kFaultStatus = 400;

SoapAnswer faultAnswer(const SoapFault& fault, int status = kFaultStatus)
{
    return SoapAnswer{status, faultEnvelope(fault), nullptr};
}

}  // namespace

bool isOnvifPath(const std::string& path) { return path.compare(0, 7, "/onvif/") == 0; }

OnvifFace::OnvifFace(UserList users, void* logCookie)
    : logCookie_(logCookie), users_(std::move(users)), search_(logCookie)
{
}

std::optional<SoapAnswer> OnvifFace::refuse(const std::string& method, const std::string& path,
                                            std::optional<std::size_t> contentLength,
                                            std::size_t mostBody) const
{
    if (path != kDevicePath && path != kSearchPath) {
        return faultAnswer(actionNotSupported("no such service: the device service is at " +
                                              std::string(kDevicePath)),
                           404);
    }
    if (method != "POST") {
        SoapAnswer answer = faultAnswer(
            SoapFault(SoapFault::Code::Sender, {"ter:InvalidArgs"}, "SOAP requests are POSTed"),
            405);
        answer.allow = "POST";
        return answer;
    }
    if (contentLength.value_or(0) > mostBody) {
        return faultAnswer(
            SoapFault(SoapFault::Code::Sender, {"ter:InvalidArgs"},
                      "the request is larger than " + std::to_string(mostBody / 1024) + " KiB"),
            413);
    }
    return std::nullopt;
}

SoapAnswer OnvifFace::answer(const SoapCall& call)
{
    struct Counted {
        std::atomic<int>& count;
        explicit Counted(std::atomic<int>& c) : count(c) { ++count; }
        ~Counted() { --count; }
        Counted(const Counted&) = delete;
        Counted& operator=(const Counted&) = delete;
    } counted(answering_);
    try {
        const SoapRequest request(call.body);
        const bool device = call.path == kDevicePath;
        const std::string expected = device ? kDeviceNamespace : kSearchNamespace;
        if (request.operationNamespace() != expected) {
            throw actionNotSupported(request.operation() + " is not an operation of the " +
                                     (device ? "device" : "search") + " service");
        }
        if (!(device && request.operation() == "GetSystemDateAndTime")) {
            users_.authenticate(request.usernameToken(), call.fromLoopback,
                                std::chrono::system_clock::now());
        }
        SoapWriter out;
        if (device)
            device_.answer(request, call.base, out);
        else
            search_.answer(request, out);
        return SoapAnswer{200, out.finish(), nullptr};
    } catch (const SoapFault& fault) {
        return faultAnswer(fault);
    } catch (const std::exception& e) {
        // The bus gone, say: its detail is for the log.
        kavro_core_logging_log(logCookie_, LOG_WARNING, "a SOAP request failed: %s", e.what());
        return faultAnswer(SoapFault(SoapFault::Code::Receiver, {"ter:Action"},
                                     "the device could not answer; its log says why"));
    }
}

}  // namespace onvif
