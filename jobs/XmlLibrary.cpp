#include "jobs/XmlLibrary.h"

#include <libxml/globals.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <mutex>

namespace {

// A document that does not parse, or an expression that does not compile, is an expected
// outcome of a search, not something to report line by line.
void dropGenericMessage(void*, const char*, ...) {}
void dropStructuredMessage(void*, xmlErrorPtr) {}

}  // namespace

void initialiseXmlLibrary()
{
    static std::once_flag once;
    std::call_once(once, [] {
        xmlInitParser();
        xmlThrDefSetGenericErrorFunc(nullptr, dropGenericMessage);
        xmlThrDefSetStructuredErrorFunc(nullptr, dropStructuredMessage);
        xmlSetGenericErrorFunc(nullptr, dropGenericMessage);
        xmlSetStructuredErrorFunc(nullptr, dropStructuredMessage);
    });
}
