#include "jobs/XPathMatcher.h"

#include <libxml/xmlerror.h>

#include <new>

#include "jobs/XmlLibrary.h"

namespace {

// Bounds one evaluation: an expression that is cheap on an ordinary frame can be made to cost
// minutes on a crafted megabyte. Reaching the bound is an evaluation error, which is no match.
constexpr unsigned long kXPathOperationLimit = 50'000'000;

void dropStructuredMessage(void*, xmlErrorPtr) {}

}  // namespace

XPathMatcher::XPathMatcher(const std::string& expression)
{
    initialiseXmlLibrary();
    context_ = xmlXPathNewContext(nullptr);
    if (context_ == nullptr) throw std::bad_alloc();
    context_->error = dropStructuredMessage;
    context_->opLimit = kXPathOperationLimit;
    // Compiled against the context rather than with xmlXPathCompile: only with a context does
    // libxml2 limit nesting, which keeps a client's deeply nested expression off the stack.
    expression_ =
        xmlXPathCtxtCompile(context_, reinterpret_cast<const xmlChar*>(expression.c_str()));
}

XPathMatcher::~XPathMatcher()
{
    xmlXPathFreeCompExpr(expression_);
    xmlXPathFreeContext(context_);
}

bool XPathMatcher::matches(std::string_view document)
{
    // Without an expression nothing can match; there is no need to parse.
    if (expression_ == nullptr) return false;
    xmlDocPtr doc = parser_.parse(document);
    // A reused context is put back to what a new one holds, so that each document is
    // evaluated exactly as on a context of its own.
    context_->doc = doc;
    context_->node = nullptr;
    context_->contextSize = -1;
    context_->proximityPosition = -1;
    context_->opCount = 0;
    context_->depth = 0;
    const int result = xmlXPathCompiledEvalToBoolean(expression_, context_);
    context_->doc = nullptr;
    xmlFreeDoc(doc);
    return result == 1;
}
