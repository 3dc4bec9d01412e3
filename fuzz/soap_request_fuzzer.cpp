// The standard interface's reading of a request: any bytes a client POSTs. Besides surviving
// (no crash, no deep recursion, no exception other than a fault), every value the request
// carries is read as the operations read them, its UsernameToken is checked against a user,
// and the fault it earns must itself be a well-formed SOAP envelope.

#include <libxml/parser.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "onvif/OnvifUsers.h"
#include "onvif/SoapFault.h"
#include "onvif/SoapMessage.h"
#include "onvif/XsdValues.h"

namespace {

[[noreturn]] void broken(const char* promise)
{
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

void readValues(const xmlNode* element)
{
    for (const xmlNode* child = element->children; child != nullptr; child = child->next) {
        if (child->type != XML_ELEMENT_NODE) continue;
        const std::string text = onvif::textOf(child);
        std::string why;
        if (!onvif::readDateTime(text, &why) && why.empty()) broken("a refused time says nothing");
        why.clear();
        if (!onvif::readDuration(text, &why) && why.empty()) broken("a refused span says nothing");
        onvif::readInt(text);
        onvif::readBoolean(text);
        readValues(child);
    }
}

void checkFault(const onvif::SoapFault& fault)
{
    const std::string text = onvif::faultEnvelope(fault);
    xmlDocPtr doc = xmlReadMemory(text.data(), int(text.size()), nullptr, nullptr, XML_PARSE_NONET);
    if (doc == nullptr) broken("a fault that is not well-formed");
    xmlFreeDoc(doc);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static onvif::OnvifUsers users(onvif::UserList{{"vms", "secret"}});
    const std::string body(reinterpret_cast<const char*>(data), size);
    try {
        const onvif::SoapRequest request(body);
        readValues(request.operationElement());
        users.authenticate(request.usernameToken(), size % 2 == 0,
                           std::chrono::system_clock::time_point(std::chrono::seconds(1704067200)));
    } catch (const onvif::SoapFault& fault) {
        checkFault(fault);
    }
    return 0;
}
