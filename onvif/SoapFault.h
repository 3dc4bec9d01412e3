// A refusal as the standard words it: a SOAP 1.2 fault code, the `ter:` subcodes below it and a
// reason for a person.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace onvif {

class SoapFault : public std::runtime_error {
public:
    enum class Code { Sender, Receiver, VersionMismatch, MustUnderstand };

    SoapFault(Code code, std::vector<std::string> subcodes, const std::string& reason)
        : std::runtime_error(reason), code_(code), subcodes_(std::move(subcodes))
    {
    }
    Code code() const { return code_; }
    const std::vector<std::string>& subcodes() const { return subcodes_; }

private:
    Code code_;
    std::vector<std::string> subcodes_;
};

// The faults every operation may give.
inline SoapFault invalidArgument(const std::string& reason, const std::string& detail = "")
{
    std::vector<std::string> codes{"ter:InvalidArgVal"};
    if (!detail.empty()) codes.push_back(detail);
    return SoapFault(SoapFault::Code::Sender, codes, reason);
}
inline SoapFault notAuthorized(const std::string& reason)
{
    return SoapFault(SoapFault::Code::Sender, {"ter:NotAuthorized"}, reason);
}
inline SoapFault actionNotSupported(const std::string& reason)
{
    return SoapFault(SoapFault::Code::Receiver, {"ter:ActionNotSupported"}, reason);
}
inline SoapFault resourceProblem(const std::string& reason)
{
    return SoapFault(SoapFault::Code::Receiver, {"ter:Action", "ter:ResourceProblem"}, reason);
}

}  // namespace onvif
