// One XPath over a batch of the index's blocks of documents, on a few threads at once: each
// thread has its own codec and its own XPathMatcher (the walk's: the same hardened parsing,
// limits and evaluation), and takes a contiguous share of the batch. The helper threads live as
// long as the evaluator (a page of a query): threads started for each batch cost more in the
// allocator's churn than the work they shared. They run at a lower priority than the follower,
// which must keep the recording's pace whatever the queries cost.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <thread>
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
    struct Round;
    void help(std::size_t worker);

    std::vector<std::unique_ptr<Worker>> workers_;
    std::unique_ptr<Round> round_;
    std::vector<std::thread> helpers_;
};

}  // namespace rsindex
