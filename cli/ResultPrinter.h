// Writes what recsearch learns: readable lines, or one JSON object a line (--json).
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientEvent.h"
#include "client/Coverage.h"
#include "client/IndexAnswers.h"
#include "client/SearchOutput.h"
#include "client/Spans.h"

namespace recsearch {

using namespace rsclient;

// Results and answers go to `out`; in text mode the end-of-search summary goes to `err`, so
// that standard output holds nothing but results. In JSON mode the summary is the last line
// of `out`.
class ResultPrinter {
public:
    ResultPrinter(std::ostream& out, std::ostream& err, bool json)
        : out_(out), err_(err), json_(json)
    {
    }

    void result(const SearchResult& result);
    void span(uint32_t jobId, const Span& span);
    // The summary command's answer: per bucket the on-times, then the gaps.
    void coverage(const Picture& picture, Micros size, const std::vector<Segment>& gaps);
    void state(uint32_t jobId, uint32_t state);
    void ended(uint32_t jobId, TimePoint reached);
    void searchEnd(const SearchEnd& end);
    void notice(uint32_t jobId, const std::string& text);
    void count(const MatchCount& count);
    void index(const IndexState& state);

    // Written before each readable result, appearance and count line (a device's name).
    void setPrefix(std::string prefix) { prefix_ = std::move(prefix); }

    // False once standard output can no longer be written (a closed pipe).
    bool good() const { return bool(out_); }

private:
    std::ostream& out_;
    std::ostream& err_;
    bool json_;
    std::string prefix_;
};

}  // namespace recsearch
