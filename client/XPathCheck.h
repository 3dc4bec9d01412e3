// Whether an XPath expression compiles, told before any search is created: the service takes
// an expression that does not compile and finds nothing, which reads like "0 results".
#pragma once

#include <string>

namespace rsclient {

// Empty when it compiles (the empty expression too: it matches every document); otherwise a
// sentence that says where it breaks.
std::string checkXPath(const std::string& expression);

}  // namespace rsclient
