#pragma once

#include <libxml/tree.h>

#include <cstddef>

// Once, from main before any thread starts (later calls do nothing): initialises libxml2 and
// routes its messages away from standard error, which belongs to the fatal-error line alone.
// The handlers are installed as this thread's and as the default of every later thread, since
// libxml2 keeps them per thread.
void initialiseXmlLibrary();

// Documents come from another service and are not trusted. Parsing loads nothing from outside
// and expands no entity; a document larger than this, or one that carries a DTD, is treated as
// one that does not parse: a small DTD can define an entity that, referenced often enough,
// makes one XPath string() take seconds and gigabytes.
constexpr std::size_t kMaxDocumentBytes = std::size_t{1} << 20;

// The rule above, for everything that parses such documents (the search, the store's importer).
inline bool readableSize(std::size_t bytes) { return bytes > 0 && bytes <= kMaxDocumentBytes; }
inline bool carriesDocumentType(const xmlDoc& doc)
{
    return doc.intSubset != nullptr || doc.extSubset != nullptr;
}
