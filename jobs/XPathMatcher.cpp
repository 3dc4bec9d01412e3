#include "jobs/XPathMatcher.h"

#include <libxml/dict.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlerror.h>

#include <new>

#include "jobs/XmlLibrary.h"

namespace {

// Bounds one evaluation: an expression that is cheap on an ordinary frame can be made to cost
// minutes on a crafted megabyte. Reaching the bound is an evaluation error, which is no match.
constexpr unsigned long kXPathOperationLimit = 50'000'000;

// The parser is reused across documents for speed; its dictionary keeps every name it has
// seen, so it is renewed once a stream of hostile documents has filled it this far.
constexpr int kMaxDictionaryEntries = 100'000;

const int kParseOptions = XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING;

// Marks the parse as refused in the parser's user slot.
char dtdRefused;

// A DOCTYPE is refused before its declarations are read, so no entity is ever defined; the
// document is then treated as one that does not parse.
void refuseDocumentType(void* ctx, const xmlChar*, const xmlChar*, const xmlChar*)
{
    auto* parser = static_cast<xmlParserCtxtPtr>(ctx);
    parser->_private = &dtdRefused;
    xmlStopParser(parser);
}

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
    try {
        renewParser();
    } catch (...) {
        xmlXPathFreeCompExpr(expression_);
        xmlXPathFreeContext(context_);
        throw;
    }
}

XPathMatcher::~XPathMatcher()
{
    xmlFreeParserCtxt(parser_);
    xmlXPathFreeCompExpr(expression_);
    xmlXPathFreeContext(context_);
}

bool XPathMatcher::matches(std::string_view document)
{
    // Without an expression nothing can match; there is no need to parse.
    if (expression_ == nullptr) return false;
    xmlDocPtr doc = parse(document);
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

xmlDocPtr XPathMatcher::parse(std::string_view document)
{
    if (!readableSize(document.size())) return nullptr;
    if (xmlDictSize(parser_->dict) > kMaxDictionaryEntries) renewParser();
    // xmlCtxtReadMemory on a reused parser stands in for xmlParseDoc: the same parse of an
    // in-memory text, without network access, and with the DOCTYPE hook installed.
    parser_->_private = nullptr;
    xmlDocPtr doc = xmlCtxtReadMemory(parser_, document.data(), static_cast<int>(document.size()),
                                      nullptr, nullptr, kParseOptions);
    const bool refused = parser_->_private == &dtdRefused;
    if (doc != nullptr && (refused || carriesDocumentType(*doc))) {
        xmlFreeDoc(doc);
        doc = nullptr;
    }
    return doc;
}

void XPathMatcher::renewParser()
{
    xmlParserCtxtPtr fresh = xmlNewParserCtxt();
    if (fresh == nullptr) throw std::bad_alloc();
    fresh->sax->internalSubset = refuseDocumentType;
    xmlFreeParserCtxt(parser_);
    parser_ = fresh;
}
