#pragma once

#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <string>
#include <string_view>

#include "jobs/HardenedParser.h"

// One XPath expression, compiled once, tested as a boolean against one document after another.
// Each document is parsed, evaluated and released within matches(), so at most one tree exists
// at a time. Used by one thread at a time (a search's worker); not copyable.
class XPathMatcher {
public:
    explicit XPathMatcher(const std::string& expression);
    ~XPathMatcher();

    // False when the expression did not compile; such a matcher matches nothing.
    bool compiled() const { return expression_ != nullptr; }

    // True only when the expression's boolean value is true. A document that does not parse,
    // is too large or carries a DTD is evaluated without a document, so it matches only an
    // expression that is true without one (such as "true()").
    bool matches(std::string_view document);

    XPathMatcher(const XPathMatcher&) = delete;
    XPathMatcher& operator=(const XPathMatcher&) = delete;

private:
    HardenedParser parser_;
    xmlXPathContextPtr context_ = nullptr;
    xmlXPathCompExprPtr expression_ = nullptr;
};

// What a metadata search evaluates for the XPath it was given: an empty one is "/", true of
// every document that parses.
inline std::string searchExpression(std::string xpath)
{
    if (xpath.empty()) xpath = "/";
    return xpath;
}
