#include "support/SearchClient.h"

#include <algorithm>
#include <atomic>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/generated/recording_search_proxy.h"

namespace rstest {

bool SearchSignal::operator==(const SearchSignal& o) const
{
    return kind == o.kind && jobId == o.jobId && sec == o.sec && usec == o.usec &&
           trackName == o.trackName && state == o.state && startState == o.startState;
}

std::ostream& operator<<(std::ostream& os, const SearchSignal& s)
{
    static const char* const names[] = {"SearchCompleted", "MetadataSearchResult",
                                        "TrackStateEventSearchResult",
                                        "RecordingStateEventSearchResult"};
    return os << names[static_cast<int>(s.kind)] << "{job " << s.jobId << ", " << s.sec << '.'
              << s.usec << ", '" << s.trackName << "', state " << int(s.state) << ", start "
              << int(s.startState) << '}';
}

namespace {

using Kind = SearchSignal::Kind;

std::unique_ptr<sdbus::IConnection> connect(const std::string& busAddress)
{
    if (busAddress.empty()) return kavro::bus::connectToBus();
    return sdbus::createSessionBusConnectionWithAddress(busAddress);
}

// Receives the four signals on the signal connection's loop thread.
class SignalHandlers : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    using Sink = std::function<void(SearchSignal)>;

    SignalHandlers(sdbus::IConnection& c, const std::string& service, Sink sink)
        : ServiceProxy(c, service), sink_(std::move(sink))
    {
    }

private:
    void onSearchCompleted(const uint32_t& jobId) override
    {
        SearchSignal s;
        s.kind = Kind::SearchCompleted;
        s.jobId = jobId;
        sink_(std::move(s));
    }

    void onMetadataSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                const uint32_t& usec) override
    {
        sink_({Kind::MetadataSearchResult, jobId, sec, usec, "", 0, 0});
    }

    void onTrackStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                       const uint32_t& usec, const std::string& trackName,
                                       const uint8_t& state, const uint8_t& startState) override
    {
        sink_({Kind::TrackStateEventSearchResult, jobId, sec, usec, trackName, state, startState});
    }

    void onRecordingStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                           const uint32_t& usec, const uint8_t& state,
                                           const uint8_t& startState) override
    {
        sink_({Kind::RecordingStateEventSearchResult, jobId, sec, usec, "", state, startState});
    }

    Sink sink_;
};

using SignalReceiver = kavro::bus::Registered<SignalHandlers>;

}  // namespace

// Thread use: the receiver's callbacks run on the loop thread and append under mutex; method
// calls hold callMutex for the whole call, because the call connection has no loop of its own.
class SearchClient::Impl {
public:
    Impl(const std::string& busAddress, const std::string& service)
        : callConnection_(connect(busAddress)),
          callProxy_(sdbus::createProxy(*callConnection_, kavro::bus::busName(service),
                                        kavro::bus::objectPath(service))),
          signalLoop_(connect(busAddress))
    {
        // Created before the loop starts: the match rules are on the bus when we return.
        receiver_ = std::make_unique<SignalReceiver>(signalLoop_.connection(), service,
                                                     [this](SearchSignal s) { add(std::move(s)); });
        signalLoop_.start();
    }

    ~Impl()
    {
        signalLoop_.stop();
        receiver_.reset();
    }

    void add(SearchSignal s)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        signals_.push_back(std::move(s));
        arrived_.notify_all();
    }

    template <typename... Out, typename... In>
    CallResult<std::tuple<Out...>> call(const std::string& method, const In&... in)
    {
        CallResult<std::tuple<Out...>> result;
        std::lock_guard<std::mutex> lock(callMutex_);
        try {
            auto invoker = callProxy_->callMethod(method);
            invoker.onInterface(kavro::recording_search_proxy::INTERFACE_NAME)
                .withTimeout(kDefaultCallTimeout);
            if constexpr (sizeof...(In) > 0) invoker.withArguments(in...);
            std::apply([&](auto&... out) { invoker.storeResultsTo(out...); }, result.value);
        } catch (const sdbus::Error& e) {
            result.status = kavro::bus::statusFromError(e);
            result.errorName = e.getName();
            result.errorMessage = e.getMessage();
        }
        return result;
    }

    std::vector<SearchSignal> signals() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return signals_;
    }

    bool waitUntil(const std::function<bool(const std::vector<SearchSignal>&)>& pred,
                   std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return pred(signals_); });
    }

private:
    std::mutex callMutex_;
    std::unique_ptr<sdbus::IConnection> callConnection_;
    std::unique_ptr<sdbus::IProxy> callProxy_;
    kavro::bus::BusLoop signalLoop_;
    std::unique_ptr<SignalReceiver> receiver_;
    mutable std::mutex mutex_;
    mutable std::condition_variable arrived_;
    std::vector<SearchSignal> signals_;
};

namespace {

template <typename T, typename Tuple, typename Convert>
CallResult<T> convert(CallResult<Tuple> raw, Convert conv)
{
    CallResult<T> r;
    r.status = raw.status;
    r.errorName = std::move(raw.errorName);
    r.errorMessage = std::move(raw.errorMessage);
    if (raw.ok()) r.value = std::apply(conv, raw.value);
    return r;
}

template <typename T>
CallResult<T> single(CallResult<std::tuple<T>> raw)
{
    return convert<T>(std::move(raw), [](T v) { return v; });
}

}  // namespace

SearchClient::SearchClient(const std::string& busAddress, const std::string& service)
    : impl_(std::make_unique<Impl>(busAddress, service))
{
}

SearchClient::~SearchClient() = default;

CallResult<int32_t> SearchClient::createEventSearch(uint32_t startSec, uint32_t startUsec,
                                                    uint32_t endSec, uint32_t endUsec,
                                                    int32_t maxResults, uint8_t requestFlag1,
                                                    uint8_t requestFlag2,
                                                    uint8_t includeStartStateEvents)
{
    return single(impl_->call<int32_t>("CreateEventSearch", startSec, startUsec, endSec, endUsec,
                                       maxResults, requestFlag1, requestFlag2,
                                       includeStartStateEvents));
}

CallResult<int32_t> SearchClient::createMetadataSearch(uint32_t startSec, uint32_t startUsec,
                                                       uint32_t endSec, uint32_t endUsec,
                                                       int32_t maxResults,
                                                       const std::string& xpath)
{
    return single(impl_->call<int32_t>("CreateMetadataSearch", startSec, startUsec, endSec,
                                       endUsec, maxResults, xpath));
}

CallResult<int32_t> SearchClient::createNoopSearch()
{
    return single(impl_->call<int32_t>("CreateNoopSearch"));
}

CallResult<uint32_t> SearchClient::beginSearch(uint32_t jobId)
{
    return single(impl_->call<uint32_t>("BeginSearch", jobId));
}

CallResult<SearchStateReply> SearchClient::getSearchState(uint32_t jobId)
{
    return convert<SearchStateReply>(impl_->call<uint32_t, uint32_t>("GetSearchState", jobId),
                                     [](uint32_t id, uint32_t state) {
                                         return SearchStateReply{id, state};
                                     });
}

CallResult<EndSearchReply> SearchClient::endSearch(uint32_t jobId)
{
    return convert<EndSearchReply>(
        impl_->call<uint32_t, uint32_t, uint32_t>("EndSearch", jobId),
        [](uint32_t id, uint32_t sec, uint32_t usec) { return EndSearchReply{id, sec, usec}; });
}

std::vector<SearchSignal> SearchClient::signals() const { return impl_->signals(); }

std::vector<SearchSignal> SearchClient::signalsFor(uint32_t jobId) const
{
    auto all = impl_->signals();
    all.erase(std::remove_if(all.begin(), all.end(),
                             [jobId](const SearchSignal& s) { return s.jobId != jobId; }),
              all.end());
    return all;
}



bool SearchClient::waitForCompleted(uint32_t jobId, std::chrono::milliseconds timeout) const
{
    return impl_->waitUntil(
        [jobId](const std::vector<SearchSignal>& all) {
            return std::any_of(all.begin(), all.end(), [jobId](const SearchSignal& s) {
                return s.kind == Kind::SearchCompleted && s.jobId == jobId;
            });
        },
        timeout);
}

bool SearchClient::waitForSignalCount(size_t n, std::chrono::milliseconds timeout) const
{
    return impl_->waitUntil([n](const std::vector<SearchSignal>& all) { return all.size() >= n; },
                            timeout);
}

bool SearchClient::waitUntil(const std::function<bool(const std::vector<SearchSignal>&)>& pred,
                             std::chrono::milliseconds timeout) const
{
    return impl_->waitUntil(pred, timeout);
}

}  // namespace rstest
