// One XPath over a batch of the index's blocks of documents, on a few threads at once: each
// thread has its own codec and its own XPathMatcher (the walk's: the same hardened parsing,
// limits and evaluation), and takes a contiguous share of the batch. The threads run at a lower
// priority than the follower, which must keep the recording's pace whatever the queries cost.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "index/IndexStore.h"

namespace rsindex {

class XPathEvaluator {
public:
    // `expression` as XPathMatcher takes it; throws std::invalid_argument when it does not
    // compile.
    XPathEvaluator(const std::string& expression, const std::string& dictionary,
                   std::size_t threads);
    ~XPathEvaluator();

    struct Verdict {
        Micros time = 0;
        bool matches = false;
    };
    // Whether the expression is true for each document of these blocks (as scanTexts gives
    // them) that lies in [from, to], in the blocks' order, and within each ascending or not.
    // Throws UndecodableRow when a block does not decompress.
    std::vector<Verdict> evaluate(const std::vector<std::pair<Micros, std::string>>& blocks,
                                  Micros from, Micros to, bool ascending);

    XPathEvaluator(const XPathEvaluator&) = delete;
    XPathEvaluator& operator=(const XPathEvaluator&) = delete;

private:
    struct Worker;
    std::vector<std::unique_ptr<Worker>> workers_;
};

}  // namespace rsindex
