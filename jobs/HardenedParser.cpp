#include "jobs/HardenedParser.h"

#include <libxml/dict.h>
#include <libxml/parserInternals.h>

#include <new>

#include "jobs/XmlLibrary.h"

namespace {

// The parser's dictionary keeps every name it has seen, so it is renewed once a stream of
// hostile documents has filled it this far.
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

}  // namespace

HardenedParser::HardenedParser()
{
    initialiseXmlLibrary();
    renew();
}

HardenedParser::~HardenedParser() { xmlFreeParserCtxt(parser_); }

xmlDocPtr HardenedParser::parse(std::string_view document)
{
    if (!readableSize(document.size())) return nullptr;
    if (xmlDictSize(parser_->dict) > kMaxDictionaryEntries) renew();
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

void HardenedParser::renew()
{
    xmlParserCtxtPtr fresh = xmlNewParserCtxt();
    if (fresh == nullptr) throw std::bad_alloc();
    fresh->sax->internalSubset = refuseDocumentType;
    xmlFreeParserCtxt(parser_);
    parser_ = fresh;
}
