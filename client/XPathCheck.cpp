#include "client/XPathCheck.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <libxml/xpath.h>

#include <memory>

#include "client/InputText.h"

namespace rsclient {

namespace {

struct FirstError {
    int code = -1;
    int at = -1;
};

void keepFirst(void* cls, xmlErrorPtr error)
{
    auto* first = static_cast<FirstError*>(cls);
    if (first->code >= 0 || error == nullptr) return;
    first->code = error->code - XML_XPATH_EXPRESSION_OK;
    first->at = error->int1;
}

// libxml2 hands compile errors to a context's handler without their text.
const char* reasonOf(int code)
{
    switch (code) {
    case XPATH_NUMBER_ERROR: return "a number is malformed";
    case XPATH_UNFINISHED_LITERAL_ERROR: return "a quoted string is not closed";
    case XPATH_START_LITERAL_ERROR: return "a quoted string was expected";
    case XPATH_VARIABLE_REF_ERROR:
    case XPATH_UNDEF_VARIABLE_ERROR:
    case XPATH_FORBID_VARIABLE_ERROR: return "variables are not available";
    case XPATH_INVALID_PREDICATE_ERROR: return "a predicate [...] is invalid";
    case XPATH_UNCLOSED_ERROR: return "a bracket or parenthesis is not closed";
    case XPATH_UNKNOWN_FUNC_ERROR: return "the function is unknown";
    case XPATH_INVALID_ARITY: return "a function has the wrong number of arguments";
    case XPATH_INVALID_CHAR_ERROR: return "a character is not allowed here";
    case XPATH_RECURSION_LIMIT_EXCEEDED: return "it nests too deeply";
    case XPATH_UNDEF_PREFIX_ERROR:
        return "it uses a namespace prefix, and documents are matched without any";
    default: return "it is not a valid expression";
    }
}

}  // namespace

std::string checkXPath(const std::string& expression)
{
    if (expression.empty()) return "";
    xmlInitParser();
    std::unique_ptr<xmlXPathContext, decltype(&xmlXPathFreeContext)> context(
        xmlXPathNewContext(nullptr), &xmlXPathFreeContext);
    if (!context) return "the XPath expression could not be checked (out of memory)";
    FirstError first;
    context->error = keepFirst;
    context->userData = &first;
    xmlXPathCompExprPtr compiled =
        xmlXPathCtxtCompile(context.get(), reinterpret_cast<const xmlChar*>(expression.c_str()));
    if (compiled != nullptr) {
        // A prefix is looked up only when the expression runs: it runs once on a bare document,
        // where the walk would fail on every document instead.
        std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)> bare(
            xmlReadMemory("<x/>", 4, nullptr, nullptr, XML_PARSE_NONET), &xmlFreeDoc);
        if (bare) {
            context->doc = bare.get();
            context->node = xmlDocGetRootElement(bare.get());
            xmlXPathFreeObject(xmlXPathCompiledEval(compiled, context.get()));
        }
        xmlXPathFreeCompExpr(compiled);
        if (first.code != XPATH_UNDEF_PREFIX_ERROR) return "";
        first.at = -1;
    }
    std::string why = "the XPath expression " + excerpt(expression) +
                      " does not compile: " + reasonOf(first.code);
    if (first.at >= int(expression.size())) {
        why += " (at its end)";
    } else if (first.at >= 0) {
        why += " (at character " + std::to_string(first.at + 1) + ")";
    }
    return why;
}

}  // namespace rsclient
