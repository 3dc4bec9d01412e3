#include "index/XPathEvaluator.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <utility>

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
    bool failed = false;       // a block did not decompress
    std::exception_ptr error;  // anything else: passed on once every share is done

    // Blocks [first, last) of the batch, each into its own share of `verdicts`. Throws nothing:
    // the others may still be at their shares of the same batch.
    void run(const std::vector<std::pair<Micros, std::string>>& blocks, std::size_t first,
             std::size_t last, Micros from, Micros to, bool ascending,
             std::vector<std::vector<Verdict>>& verdicts) noexcept
    {
        for (std::size_t i = first; i < last && !failed && !error; ++i) {
            try {
                auto texts = codec.decompressBlock(blocks[i].first, blocks[i].second);
                if (!ascending) std::reverse(texts.begin(), texts.end());
                for (const auto& kept : texts) {
                    if (kept.time < from || kept.time > to) continue;
                    verdicts[i].push_back({kept.time, matcher.matches(kept.text)});
                }
            } catch (const std::runtime_error&) {
                failed = true;
            } catch (...) {
                error = std::current_exception();
            }
        }
    }
};

// One batch as the helpers see it: which batch, and how many helpers are still at it.
struct XPathEvaluator::Round {
    std::mutex mutex;
    std::condition_variable begun, ended;
    uint64_t number = 0;
    std::size_t busy = 0;
    bool closing = false;
    std::function<void(std::size_t)> work;
};

XPathEvaluator::XPathEvaluator(const std::string& expression, const std::string& dictionary,
                               std::size_t threads)
    : round_(std::make_unique<Round>())
{
    for (std::size_t i = 0; i < std::max<std::size_t>(threads, 1); ++i) {
        workers_.push_back(std::make_unique<Worker>(expression, dictionary));
        if (!workers_.back()->matcher.compiled()) {
            throw std::invalid_argument("the XPath does not compile");
        }
    }
    for (std::size_t w = 1; w < workers_.size(); ++w) helpers_.emplace_back([this, w] { help(w); });
}

XPathEvaluator::~XPathEvaluator()
{
    {
        std::lock_guard<std::mutex> lock(round_->mutex);
        round_->closing = true;
    }
    round_->begun.notify_all();
    for (auto& helper : helpers_) helper.join();
}

void XPathEvaluator::help(std::size_t worker)
{
    lowerPriority();
    uint64_t done = 0;
    std::unique_lock<std::mutex> lock(round_->mutex);
    while (true) {
        round_->begun.wait(lock, [&] { return round_->closing || round_->number != done; });
        if (round_->closing) return;
        done = round_->number;
        lock.unlock();
        round_->work(worker);
        lock.lock();
        if (--round_->busy == 0) round_->ended.notify_one();
    }
}

std::vector<XPathEvaluator::Verdict> XPathEvaluator::evaluate(
    const std::vector<std::pair<Micros, std::string>>& blocks, Micros from, Micros to,
    bool ascending)
{
    std::vector<std::vector<Verdict>> verdicts(blocks.size());
    const std::size_t share = (blocks.size() + workers_.size() - 1) / workers_.size();
    const auto work = [&](std::size_t w) {
        workers_[w]->run(blocks, std::min(blocks.size(), w * share),
                         std::min(blocks.size(), (w + 1) * share), from, to, ascending, verdicts);
    };
    {
        std::lock_guard<std::mutex> lock(round_->mutex);
        round_->work = work;
        round_->busy = helpers_.size();
        ++round_->number;
    }
    round_->begun.notify_all();
    work(0);
    {
        std::unique_lock<std::mutex> lock(round_->mutex);
        round_->ended.wait(lock, [&] { return round_->busy == 0; });
        round_->work = nullptr;
    }
    for (const auto& worker : workers_) {
        if (auto error = std::exchange(worker->error, nullptr)) std::rethrow_exception(error);
        if (std::exchange(worker->failed, false)) throw UndecodableRow();
    }
    std::vector<Verdict> all;
    for (auto& block : verdicts) all.insert(all.end(), block.begin(), block.end());
    return all;
}

}  // namespace rsindex
