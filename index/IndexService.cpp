#include "index/IndexService.h"

#include <optional>

#include <sdbus-c++/sdbus-c++.h>

#include "index/IndexFilter.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/core.h"
#include "kavro/generated/recording_index_adaptor.h"

namespace rsindex {

namespace {

constexpr uint32_t kPageLimit = 10000;

using Match =
    sdbus::Struct<int64_t, std::string, std::string, std::string, std::vector<std::string>>;

// What appeared in the first object that matched: its classes, colour, best likelihood, box.
Match matchOf(Micros time, const ObjectFacts* object)
{
    Match match{time, "", "", "", {}};
    if (object == nullptr) return match;
    std::string classes, best;
    double bestValue = -1;
    for (const auto& type : object->types) {
        if (classes.find(type.name) == std::string::npos) {
            classes += (classes.empty() ? "" : ",") + type.name;
        }
        const double value = xpathNumber(type.likelihood);
        if (value > bestValue) bestValue = value, best = *type.likelihood;
    }
    std::get<1>(match) = classes;
    if (!object->colours.empty()) std::get<2>(match) = object->colours.front().name;
    std::get<3>(match) = best;
    if (!object->boxes.empty()) {
        const auto& b = object->boxes.front();
        std::get<4>(match) = {b.left.value_or(""), b.top.value_or(""), b.right.value_or(""),
                              b.bottom.value_or("")};
    }
    return match;
}

}  // namespace

class IndexService::Adaptor final
    : public sdbus::AdaptorInterfaces<kavro::recording_index_adaptor> {
public:
    Adaptor(IndexService& service, kavro::bus::BusLoop& loop, const std::string& databasePath,
            const IndexFollower& follower, void* logCookie)
        : AdaptorInterfaces(loop.connection(), kavro::bus::objectPath("recording_index")),
          service_(service),
          loop_(loop),
          databasePath_(databasePath),
          follower_(follower),
          logCookie_(logCookie)
    {
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }

private:
    // On the query thread; the reply goes out on the bus loop's thread.
    template <typename... Outs, typename Work>
    void answer(sdbus::Result<Outs...>&& result, Work work)
    {
        auto reply = std::make_shared<sdbus::Result<Outs...>>(std::move(result));
        service_.post([this, reply, work] {
            std::optional<std::tuple<Outs...>> outs;
            std::string failure;
            try {
                outs = work();
            } catch (const std::exception& e) {
                failure = e.what();
                kavro_core_logging_log(logCookie_, 4, "An index query failed: %s", e.what());
            }
            loop_.post([reply, outs, failure] {
                if (outs) {
                    std::apply([&](const auto&... out) { reply->returnResults(out...); }, *outs);
                } else {
                    reply->returnError(sdbus::Error(kavro::bus::kFailedErrorName, failure));
                }
            });
        });
    }

    IndexStore& store()
    {
        if (!store_)
            store_ = std::make_unique<IndexStore>(databasePath_, IndexStore::Access::Reader);
        return *store_;
    }

    void GetIndexState(
        sdbus::Result<int64_t, int64_t, int64_t, int64_t, std::string>&& result) override
    {
        answer(std::move(result), [this] {
            const auto span = store().span();
            return std::make_tuple(span ? span->from : 0, span ? span->through : 0,
                                   span ? span->documents : 0, store().bytesOnDisk(),
                                   std::string(stateName(follower_.state())));
        });
    }

    void FindMatches(sdbus::Result<std::vector<Match>, bool>&& result, int64_t from, int64_t to,
                     uint32_t limit, std::vector<std::string> classes, std::string colour,
                     std::string minLikelihood, std::vector<std::string> region,
                     bool motion) override
    {
        rsclient::MetadataFilter f;
        f.classes = classes;
        f.colour = colour;
        f.minLikelihood = minLikelihood;
        if (region.size() == 4)
            f.region = rsclient::Region{region[0], region[1], region[2], region[3]};
        f.motion = motion;
        answer(std::move(result), [this, f, from, to, limit] {
            const IndexFilter filter(f);
            const uint32_t most = std::min(limit, kPageLimit);
            std::vector<Match> matches;
            bool more = false;
            store().scan(std::min(from, to), std::max(from, to), from <= to, filter.classes(),
                         filter.colour(), [&](Micros time, const DocumentFacts& facts) {
                             if (!filter.matches(facts)) return true;
                             if (matches.size() == most) {
                                 more = true;
                                 return false;
                             }
                             matches.push_back(matchOf(time, filter.matchingObject(facts)));
                             return true;
                         });
            return std::make_tuple(std::move(matches), more);
        });
    }

    IndexService& service_;
    kavro::bus::BusLoop& loop_;
    std::string databasePath_;
    const IndexFollower& follower_;
    void* logCookie_;
    std::unique_ptr<IndexStore> store_;  // the query thread's own reader
};

IndexService::IndexService(kavro::bus::BusLoop& loop, const std::string& databasePath,
                           const IndexFollower& follower, void* logCookie)
    : thread_([this] { run(); })
{
    adaptor_ = std::make_unique<Adaptor>(*this, loop, databasePath, follower, logCookie);
}

IndexService::~IndexService()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_all();
    thread_.join();
    adaptor_.reset();
}

void IndexService::post(std::function<void()> work)
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        work_.push_back(std::move(work));
    }
    ready_.notify_one();
}

void IndexService::run()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        ready_.wait(lock, [this] { return stopping_ || !work_.empty(); });
        if (stopping_) return;
        auto work = std::move(work_.front());
        work_.pop_front();
        lock.unlock();
        work();
        lock.lock();
    }
}

}  // namespace rsindex
