#include "index/XPathEvaluator.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

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

    void run(const std::vector<std::pair<Micros, std::string>>& batch, std::size_t from,
             std::size_t to, std::vector<char>& verdicts)
    {
        for (std::size_t i = from; i < to && !failed; ++i) {
            try {
                verdicts[i] = matcher.matches(codec.decompress(batch[i].second)) ? 1 : 0;
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

std::vector<bool> XPathEvaluator::evaluate(const std::vector<std::pair<Micros, std::string>>& batch)
{
    std::vector<char> verdicts(batch.size(), 0);
    const std::size_t shares = std::min(workers_.size(), std::max<std::size_t>(batch.size(), 1));
    const std::size_t share = (batch.size() + shares - 1) / shares;
    std::vector<std::thread> helpers;
    for (std::size_t w = 1; w < shares; ++w) {
        helpers.emplace_back([&, w] {
            lowerPriority();
            workers_[w]->run(batch, w * share, std::min(batch.size(), (w + 1) * share), verdicts);
        });
    }
    workers_[0]->run(batch, 0, std::min(batch.size(), share), verdicts);
    for (auto& helper : helpers) helper.join();
    for (const auto& worker : workers_) {
        if (worker->failed) {
            worker->failed = false;
            throw UndecodableRow();
        }
    }
    return std::vector<bool>(verdicts.begin(), verdicts.end());
}

}  // namespace rsindex
