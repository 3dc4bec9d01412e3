#include "index/IndexService.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "client/Spans.h"
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

using Appearance = sdbus::Struct<int64_t, int64_t, int64_t, std::string, std::string, std::string,
                                 std::vector<std::string>, std::vector<std::string>>;
using Count = sdbus::Struct<int64_t, int64_t, int64_t>;

constexpr int64_t kMaxBuckets = 10000;

rsclient::TimePoint timeOf(Micros micros)
{
    return rsclient::TimePoint{uint32_t(micros / 1000000), uint32_t(micros % 1000000)};
}

Micros microsOf(rsclient::TimePoint t) { return Micros(t.sec) * 1000000 + t.usec; }

// What appeared in the first object that matched: its classes, colour, best likelihood, box.
rsclient::IndexMatch matchOf(Micros time, const ObjectFacts* object)
{
    rsclient::IndexMatch match{timeOf(time), "", "", "", {}};
    if (object == nullptr) return match;
    double best = -1;
    for (const auto& type : object->types) {
        if (("," + match.classes + ",").find("," + type.name + ",") == std::string::npos) {
            match.classes += (match.classes.empty() ? "" : ",") + type.name;
        }
        const double value = xpathNumber(type.likelihood);
        if (value > best) best = value, match.likelihood = *type.likelihood;
    }
    if (!object->colours.empty()) match.colour = object->colours.front().name;
    if (!object->boxes.empty()) {
        const auto& b = object->boxes.front();
        match.box = {b.left.value_or(""), b.top.value_or(""), b.right.value_or(""),
                     b.bottom.value_or("")};
    }
    return match;
}

Match wireMatch(const rsclient::IndexMatch& m)
{
    return Match{microsOf(m.time), m.classes, m.colour, m.likelihood, m.box};
}

Appearance wireAppearance(const rsclient::Span& span)
{
    std::string classes;
    rsclient::Appeared seen = span.appeared.value_or(rsclient::Appeared{});
    for (const auto& name : seen.classes) classes += (classes.empty() ? "" : ",") + name;
    return Appearance{
        microsOf(span.start), microsOf(span.end), int64_t(span.matches), classes,
        seen.colour,          seen.likelihood,    seen.boxAtStart,       seen.boxAtEnd};
}

rsclient::MetadataFilter filterOf(const std::vector<std::string>& classes,
                                  const std::string& colour, const std::string& minLikelihood,
                                  const std::vector<std::string>& region, bool motion)
{
    rsclient::MetadataFilter f;
    f.classes = classes;
    f.colour = colour;
    f.minLikelihood = minLikelihood;
    if (region.size() == 4) f.region = rsclient::Region{region[0], region[1], region[2], region[3]};
    f.motion = motion;
    return f;
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
        const auto f = filterOf(classes, colour, minLikelihood, region, motion);
        answer(std::move(result), [this, f, from, to, limit] {
            const IndexFilter filter(f);
            const uint32_t most = std::min(limit, kPageLimit);
            std::vector<Match> matches;
            bool more = false;
            scan(filter, from, to, [&](Micros time, const DocumentFacts& facts) {
                if (matches.size() == most) {
                    more = true;
                    return false;
                }
                matches.push_back(wireMatch(matchOf(time, filter.matchingObject(facts))));
                return true;
            });
            return std::make_tuple(std::move(matches), more);
        });
    }

    // Appearances by the clients' own grouping (client/Spans), so that they are --spans'.
    void FindAppearances(sdbus::Result<std::vector<Appearance>, bool>&& result, int64_t from,
                         int64_t to, int64_t gap, uint32_t limit, std::vector<std::string> classes,
                         std::string colour, std::string minLikelihood,
                         std::vector<std::string> region, bool motion) override
    {
        const auto f = filterOf(classes, colour, minLikelihood, region, motion);
        answer(std::move(result), [this, f, from, to, gap, limit] {
            const IndexFilter filter(f);
            if (gap <= 0) throw std::invalid_argument("the gap must be above 0");
            const uint32_t most = std::min(limit, kPageLimit);
            rsclient::SpanGrouper grouper{rsclient::Micros(gap)};
            std::optional<rsclient::Appeared> seen;
            std::vector<Appearance> appearances;
            bool more = false;
            scan(filter, from, to, [&](Micros time, const DocumentFacts& facts) {
                if (auto closed = grouper.add(timeOf(time))) {
                    closed->appeared = std::exchange(seen, std::nullopt);
                    appearances.push_back(wireAppearance(*closed));
                    if (appearances.size() == most) {
                        more = true;
                        return false;
                    }
                }
                rsclient::noteAppeared(seen, grouper.open(),
                                       matchOf(time, filter.matchingObject(facts)));
                return true;
            });
            if (!more) {
                if (auto open = grouper.finish()) {
                    open->appeared = std::move(seen);
                    appearances.push_back(wireAppearance(*open));
                }
            }
            return std::make_tuple(std::move(appearances), more);
        });
    }

    void CountPerBucket(sdbus::Result<std::vector<Count>>&& result, int64_t from, int64_t to,
                        int64_t bucket, int64_t gap, std::vector<std::string> classes,
                        std::string colour, std::string minLikelihood,
                        std::vector<std::string> region, bool motion) override
    {
        const auto f = filterOf(classes, colour, minLikelihood, region, motion);
        answer(std::move(result), [this, f, from, to, bucket, gap] {
            const IndexFilter filter(f);
            const Micros lo = std::min(from, to), hi = std::max(from, to);
            if (bucket <= 0 || gap <= 0) throw std::invalid_argument("bucket and gap above 0");
            if ((hi - lo) / bucket >= kMaxBuckets) throw std::invalid_argument("too many buckets");
            std::vector<Count> counts;
            for (Micros at = lo; at <= hi; at += bucket) counts.emplace_back(at, 0, 0);
            rsclient::SpanGrouper grouper{rsclient::Micros(gap)};
            bool first = true;
            scan(filter, lo, hi, [&](Micros time, const DocumentFacts&) {
                auto& count = counts[std::size_t((time - lo) / bucket)];
                const bool starts = grouper.add(timeOf(time)).has_value() || first;
                first = false;
                if (starts) ++std::get<1>(count);
                ++std::get<2>(count);
                return true;
            });
            return std::make_tuple(std::move(counts));
        });
    }

    // The documents that the filter matches, in the order the range asks for.
    void scan(const IndexFilter& filter, Micros from, Micros to,
              const std::function<bool(Micros, const DocumentFacts&)>& each)
    {
        store().scan(std::min(from, to), std::max(from, to), from <= to,
                     [&](Micros time, const DocumentFacts& facts) {
                         return !filter.matches(facts) || each(time, facts);
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
        // Gone before the lock is taken again: it may hold the last reference to a reply, whose
        // release takes the bus connection's lock, which the loop holds while it posts here.
        work = nullptr;
        lock.lock();
    }
}

}  // namespace rsindex
