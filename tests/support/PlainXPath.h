// libxml2 alone, as a search without any hardening would use it: the reference that the
// service's matcher is compared with. Header-only, because only the test binaries that link
// libxml2 include it.
#pragma once

#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <string>

namespace rstest {

// 1 or 0: the expression's boolean value on the document; -1 when libxml2 cannot say.
inline int plainXPathEvaluation(const std::string& expression, const std::string& document)
{
    xmlDocPtr doc = xmlParseDoc(reinterpret_cast<const xmlChar*>(document.c_str()));
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    xmlXPathCompExprPtr compiled =
        xmlXPathCompile(reinterpret_cast<const xmlChar*>(expression.c_str()));
    const int result = xmlXPathCompiledEvalToBoolean(compiled, context);
    xmlXPathFreeCompExpr(compiled);
    xmlXPathFreeContext(context);
    xmlFreeDoc(doc);
    return result;
}

}  // namespace rstest
