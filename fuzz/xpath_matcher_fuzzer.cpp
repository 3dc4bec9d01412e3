// The document-and-expression evaluation of the metadata search: any expression a client
// sends, against any document a recording service returns. The first line of the input is the
// expression, the rest two documents separated by a NUL byte. Besides surviving, the matcher
// must give one document the same answer each time, whatever it evaluated in between: its
// parser and context are reused across documents.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "jobs/XPathMatcher.h"
#include "jobs/XmlLibrary.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    initialiseXmlLibrary();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t newline = input.find('\n');
    const std::string expression = input.substr(0, newline);
    const std::string documents = newline == std::string::npos ? "" : input.substr(newline + 1);
    const size_t split = documents.find('\0');
    const std::string first = documents.substr(0, split);
    const std::string second = split == std::string::npos ? "" : documents.substr(split + 1);

    XPathMatcher matcher(expression);
    const bool once = matcher.matches(first);
    const bool other = matcher.matches(second);
    if (matcher.matches(first) != once || matcher.matches(second) != other) {
        std::fprintf(stderr, "the same document matched differently on a reused matcher\n");
        std::abort();
    }
    if (!matcher.compiled() && (once || other)) {
        std::fprintf(stderr, "an expression that did not compile matched\n");
        std::abort();
    }
    return 0;
}
