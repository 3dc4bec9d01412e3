#pragma once

#include <libxml/parser.h>

#include <string_view>

// Parses documents from another service under the rules of XmlLibrary.h: nothing loaded from
// outside, no entity expanded, no DTD (refused before its declarations are read), a size bound.
// The parser is reused across documents; its dictionary is renewed once hostile documents have
// filled it. Used by one thread at a time; not copyable.
class HardenedParser {
public:
    HardenedParser();
    ~HardenedParser();

    // The document's tree (free it with xmlFreeDoc), or nullptr for a document that does not
    // parse, is too large or carries a DTD.
    xmlDocPtr parse(std::string_view document);

    HardenedParser(const HardenedParser&) = delete;
    HardenedParser& operator=(const HardenedParser&) = delete;

private:
    void renew();

    xmlParserCtxtPtr parser_ = nullptr;
};
