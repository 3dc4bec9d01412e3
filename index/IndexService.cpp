#include "index/IndexService.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include <sdbus-c++/sdbus-c++.h>

#include "client/Spans.h"
#include "index/IndexFilter.h"
#include "index/XPathEvaluator.h"
#include "jobs/XPathMatcher.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/core.h"
#include "kavro/generated/recording_index_adaptor.h"

namespace rsindex {

namespace {

using Match =
    sdbus::Struct<int64_t, std::string, std::string, std::string, std::vector<std::string>>;

using Appearance = sdbus::Struct<int64_t, int64_t, int64_t, std::string, std::string, std::string,
                                 std::vector<std::string>, std::vector<std::string>>;
using Count = sdbus::Struct<int64_t, int64_t, int64_t>;

constexpr int64_t kMaxBuckets = 10000;
constexpr std::size_t kStateCallsWaiting = 64;
constexpr std::size_t kScansWaiting = 16;
// Blocks evaluated together (about 256 documents), the documents a page looks at most, and the
// threads that share them: what one XPath query holds at a time is a batch of blocks.
constexpr std::size_t kXPathBlocks = 16;
constexpr std::size_t kXPathPageDocuments = 4096;
const std::size_t kXPathThreads = std::clamp(std::thread::hardware_concurrency(), 1u, 4u);
// The last microsecond a recording's time (unsigned seconds and microseconds) can name.
constexpr Micros kLastTime = Micros(0xffffffffLL) * 1000000 + 999999;

void checkTime(Micros t)
{
    if (t < 0 || t > kLastTime) throw std::invalid_argument("a time outside 1970 to 2106");
}

void checkSpan(const char* what, Micros d)
{
    if (d <= 0 || d > kLastTime) {
        throw std::invalid_argument(std::string(what) + " must be above 0 and within 2106 years");
    }
}

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
            IndexFollower& follower, void* logCookie)
        : AdaptorInterfaces(loop.connection(), kavro::bus::objectPath("recording_index")),
          service_(service),
          loop_(loop),
          databasePath_(databasePath),
          follower_(follower),
          logCookie_(logCookie)
    {
        // Every unique name that loses its owner: a caller that left the bus.
        departures_ = loop.connection().addMatch(
            "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
            "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''",
            [this](sdbus::Message& message) {
                std::string name;
                message >> name;
                callerLeft(name);
            });
        registerAdaptor();
    }
    ~Adaptor() { unregisterAdaptor(); }

private:
    // On a query thread; the reply goes out on the bus loop's thread. `work` gets whether its
    // caller has left the bus, to stop early.
    template <typename... Outs, typename Work>
    void answer(sdbus::Result<Outs...>&& result, QueryQueue& queue, Work work)
    {
        auto reply = std::make_shared<sdbus::Result<Outs...>>(std::move(result));
        const sdbus::Message* call = getObject().getCurrentlyProcessedMessage();
        const std::string caller = call != nullptr ? call->getSender() : "";
        const bool queued = queue.post(caller, [this, reply, work](const std::atomic<bool>& gone) {
            std::optional<std::tuple<Outs...>> outs;
            std::string failure;
            try {
                outs = work(gone);
            } catch (const std::exception& e) {
                failure = e.what();
                kavro_core_logging_log(logCookie_, 4, "An index query failed: %s", e.what());
            }
            if (gone) return;
            loop_.post([reply, outs, failure] {
                if (outs) {
                    std::apply([&](const auto&... out) { reply->returnResults(out...); }, *outs);
                } else {
                    reply->returnError(sdbus::Error(kavro::bus::kFailedErrorName, failure));
                }
            });
        });
        if (!queued) {
            reply->returnError(sdbus::Error(kavro::bus::kBusyErrorName,
                                            "recording_index is busy: too many queries wait"));
        }
    }

    void callerLeft(const std::string& caller)
    {
        service_.state_.callerLeft(caller);
        service_.scans_.callerLeft(caller);
    }

    IndexStore& store() { return opened(store_); }
    IndexStore& stateStore() { return opened(stateStore_); }
    IndexStore& opened(std::unique_ptr<IndexStore>& reader)
    {
        if (!reader)
            reader = std::make_unique<IndexStore>(databasePath_, IndexStore::Access::Reader);
        return *reader;
    }

    void GetIndexState(
        sdbus::Result<int64_t, int64_t, int64_t, int64_t, std::string>&& result) override
    {
        answer(std::move(result), service_.state_, [this](const std::atomic<bool>&) {
            const auto span = stateStore().span();
            return std::make_tuple(span ? span->from : 0, span ? span->through : 0,
                                   span ? span->documents : 0, stateStore().bytesOnDisk(),
                                   std::string(stateName(follower_.state())));
        });
    }

    void FindMatches(sdbus::Result<std::vector<Match>, bool>&& result, int64_t from, int64_t to,
                     uint32_t limit, std::vector<std::string> classes, std::string colour,
                     std::string minLikelihood, std::vector<std::string> region,
                     bool motion) override
    {
        const auto f = filterOf(classes, colour, minLikelihood, region, motion);
        answer(std::move(result), service_.scans_,
               [this, f, from, to, limit](const std::atomic<bool>& gone) {
                   const IndexFilter filter(f);
                   const uint32_t most = std::min(limit, service_.pageLimit());
                   std::vector<Match> matches;
                   bool more = false;
                   scan(filter, from, to, gone, [&](Micros time, const DocumentFacts& facts) {
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

    // Any XPath, on the documents the index kept, a batch at a time over a few threads.
    void FindXPathMatches(sdbus::Result<std::vector<int64_t>, bool, int64_t>&& result, int64_t from,
                          int64_t to, uint32_t limit, std::string xpath) override
    {
        answer(std::move(result), service_.scans_,
               [this, from, to, limit, xpath](const std::atomic<bool>& gone) {
                   checkTime(from);
                   checkTime(to);
                   XPathEvaluator evaluator(searchExpression(xpath), store().dictionary(),
                                            kXPathThreads);
                   const uint32_t most = std::min(limit, service_.pageLimit());
                   std::vector<int64_t> times;
                   bool more = false;
                   Micros through = to;
                   std::size_t looked = 0;
                   const Micros low = std::min(from, to), high = std::max(from, to);
                   std::vector<std::pair<Micros, std::string>> batch;
                   // False once the page is full, or has looked at enough documents.
                   const auto evaluate = [&] {
                       const auto verdicts = evaluator.evaluate(batch, low, high, from <= to);
                       for (std::size_t i = 0; i < verdicts.size() && !more; ++i) {
                           if (verdicts[i].matches && times.size() == most) {
                               more = true;
                               through = times.back();
                           } else if (verdicts[i].matches) {
                               times.push_back(verdicts[i].time);
                           }
                       }
                       looked += verdicts.size();
                       if (!more && looked >= kXPathPageDocuments && !verdicts.empty()) {
                           more = true;
                           through = verdicts.back().time;
                       }
                       batch.clear();
                       return !more;
                   };
                   try {
                       store().scanTexts(low, high, from <= to,
                                         [&](Micros key, const std::string& block) {
                                             if (gone) return false;
                                             batch.emplace_back(key, block);
                                             return batch.size() < kXPathBlocks || evaluate();
                                         });
                       if (!gone && !more && !batch.empty()) evaluate();
                   } catch (const UndecodableRow&) {
                       follower_.reread();
                       throw;
                   }
                   return std::make_tuple(std::move(times), more, through);
               });
    }

    // Appearances by the clients' own grouping (client/Spans), so that they are --spans'.
    void FindAppearances(sdbus::Result<std::vector<Appearance>, bool>&& result, int64_t from,
                         int64_t to, int64_t gap, uint32_t limit, std::vector<std::string> classes,
                         std::string colour, std::string minLikelihood,
                         std::vector<std::string> region, bool motion) override
    {
        const auto f = filterOf(classes, colour, minLikelihood, region, motion);
        answer(std::move(result), service_.scans_,
               [this, f, from, to, gap, limit](const std::atomic<bool>& gone) {
                   const IndexFilter filter(f);
                   checkSpan("gap", gap);
                   const uint32_t most = std::min(limit, service_.pageLimit());
                   rsclient::SpanGrouper grouper{rsclient::Micros(gap)};
                   std::optional<rsclient::Appeared> seen;
                   std::vector<Appearance> appearances;
                   bool more = false;
                   scan(filter, from, to, gone, [&](Micros time, const DocumentFacts& facts) {
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
        answer(std::move(result), service_.scans_,
               [this, f, from, to, bucket, gap](const std::atomic<bool>& gone) {
                   const IndexFilter filter(f);
                   checkSpan("bucket", bucket);
                   checkSpan("gap", gap);
                   checkTime(from);
                   checkTime(to);
                   const Micros lo = std::min(from, to), hi = std::max(from, to);
                   // Both within the time a recording can have, so that no step below overflows.
                   const int64_t buckets = (hi - lo) / bucket + 1;
                   if (buckets > kMaxBuckets) throw std::invalid_argument("too many buckets");
                   std::vector<Count> counts;
                   for (int64_t i = 0; i < buckets; ++i) counts.emplace_back(lo + i * bucket, 0, 0);
                   rsclient::SpanGrouper grouper{rsclient::Micros(gap)};
                   bool first = true;
                   scan(filter, lo, hi, gone, [&](Micros time, const DocumentFacts&) {
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

    // The documents that the filter matches, in the order the range asks for, until the caller
    // leaves. A row that does not decode fails the query (the client walks that stretch) and
    // is read again from the recording.
    void scan(const IndexFilter& filter, Micros from, Micros to, const std::atomic<bool>& gone,
              const std::function<bool(Micros, const DocumentFacts&)>& each)
    {
        checkTime(from);
        checkTime(to);
        try {
            store().scanStretches(
                std::min(from, to), std::max(from, to), from <= to,
                [&](const DocumentFacts& summary) { return filter.matches(summary); },
                [&](Micros time, const DocumentFacts& facts) {
                    return !gone && (!filter.matches(facts) || each(time, facts));
                });
        } catch (const UndecodableRow&) {
            follower_.reread();
            throw;
        }
    }

    IndexService& service_;
    kavro::bus::BusLoop& loop_;
    std::string databasePath_;
    IndexFollower& follower_;
    void* logCookie_;
    std::unique_ptr<IndexStore> store_;       // the scans' own reader
    std::unique_ptr<IndexStore> stateStore_;  // the state's
    sdbus::Slot departures_;
};

IndexService::IndexService(kavro::bus::BusLoop& loop, const std::string& databasePath,
                           IndexFollower& follower, void* logCookie, uint32_t pageLimit)
    : pageLimit_(std::max(pageLimit, 1u)), state_(kStateCallsWaiting), scans_(kScansWaiting)
{
    adaptor_ = std::make_unique<Adaptor>(*this, loop, databasePath, follower, logCookie);
}

IndexService::~IndexService() = default;

}  // namespace rsindex
