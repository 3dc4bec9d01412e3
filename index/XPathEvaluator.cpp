#include "index/XPathEvaluator.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>
#include <thread>

#include "jobs/XPathMatcher.h"

namespace rsindex {

namespace {

constexpr int kBelowTheFollower = 5;

void lowerPriority()
{
    const auto thread = id_t(::syscall(SYS_gettid));
    errno = 0;
    const int now = ::getpriority(PRIO_PROCESS, thread);
    if (errno == 0) ::setpriority(PRIO_PROCESS, thread, now + kBelowTheFollower);
}

}  // namespace

struct XPathEvaluator::Worker {
    Worker(const std::string& expression, const std::string& dictionary) : matcher(expression)
    {
        codec.useDictionary(dictionary);
    }
    DocumentCodec codec;
    XPathMatcher matcher;
    bool failed = false;

    // Blocks [first, last) of the batch, each into its own share of `verdicts`.
    void run(const std::vector<std::pair<Micros, std::string>>& blocks, std::size_t first,
             std::size_t last, Micros from, Micros to, bool ascending,
             std::vector<std::vector<Verdict>>& verdicts)
    {
        for (std::size_t i = first; i < last && !failed; ++i) {
            try {
                auto texts = codec.decompressBlock(blocks[i].first, blocks[i].second);
                if (!ascending) std::reverse(texts.begin(), texts.end());
                for (const auto& kept : texts) {
                    if (kept.time < from || kept.time > to) continue;
                    verdicts[i].push_back({kept.time, matcher.matches(kept.text)});
                }
            } catch (const std::runtime_error&) {
                failed = true;
            }
        }
    }
};

XPathEvaluator::XPathEvaluator(const std::string& expression, const std::string& dictionary,
                               std::size_t threads)
{
    for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i) {
        workers_.push_back(std::make_unique<Worker>(expression, dictionary));
        if (!workers_.back()->matcher.compiled()) {
            throw std::invalid_argument("the XPath does not compile");
        }
    }
}

XPathEvaluator::~XPathEvaluator() = default;

std::vector<XPathEvaluator::Verdict> XPathEvaluator::evaluate(
    const std::vector<std::pair<Micros, std::string>>& blocks, Micros from, Micros to,
    bool ascending)
{
    std::vector<std::vector<Verdict>> verdicts(blocks.size());
    const std::size_t shares = std::min(workers_.size(), std::max<std::size_t>(blocks.size(), 1));
    const std::size_t share = (blocks.size() + shares - 1) / shares;
    const auto work = [&](std::size_t w) {
        workers_[w]->run(blocks, std::min(blocks.size(), w * share),
                         std::min(blocks.size(), (w + 1) * share), from, to, ascending, verdicts);
    };
    std::vector<std::thread> helpers;
    for (std::size_t w = 1; w < shares; ++w) {
        helpers.emplace_back([&, w] {
            lowerPriority();
            work(w);
        });
    }
    work(0);
    for (auto& helper : helpers) helper.join();
    for (const auto& worker : workers_) {
        if (worker->failed) {
            worker->failed = false;
            throw UndecodableRow();
        }
    }
    std::vector<Verdict> all;
    for (auto& block : verdicts) all.insert(all.end(), block.begin(), block.end());
    return all;
}

}  // namespace rsindex
