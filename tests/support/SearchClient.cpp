#include "support/SearchClient.h"

#include <algorithm>
#include <tuple>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/generated/recording_search_proxy.h"

namespace rstest {

bool SearchSignal::operator==(const SearchSignal& o) const
{
    return std::tie(kind, jobId, sec, usec, trackName, state, startState) ==
           std::tie(o.kind, o.jobId, o.sec, o.usec, o.trackName, o.state, o.startState);
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
    auto connection = busAddress.empty() ? kavro::bus::connectToBus()
                                         : sdbus::createSessionBusConnectionWithAddress(busAddress);
    connection->setMethodCallTimeout(SearchClient::kDefaultCallTimeout);
    return connection;
}

// Calls the service and, once registered, hands each of its signals to the sink.
class SearchProxy : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    using Sink = std::function<void(SearchSignal)>;

    SearchProxy(sdbus::IConnection& c, const std::string& service, Sink sink = {})
        : ServiceProxy(c, service), sink_(std::move(sink))
    {
    }

private:
    void onSearchCompleted(const uint32_t& jobId) override
    {
        sink_({Kind::SearchCompleted, jobId, 0, 0, "", 0, 0});
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

}  // namespace

// Signals arrive on the loop thread and are appended under mutex; calls hold callMutex for the
// whole call, because the call connection has no loop of its own.
class SearchClient::Impl {
public:
    Impl(const std::string& busAddress, const std::string& service)
        : callConnection(connect(busAddress)),
          calls(*callConnection, service),
          signalLoop(connect(busAddress))
    {
        // Registered before the loop starts: the match rules are on the bus when we return.
        receiver = std::make_unique<kavro::bus::Registered<SearchProxy>>(
            signalLoop.connection(), service, [this](SearchSignal s) {
                std::lock_guard<std::mutex> lock(mutex);
                signals.push_back(std::move(s));
                arrived.notify_all();
            });
        signalLoop.start();
    }

    ~Impl()
    {
        signalLoop.stop();
        receiver.reset();
    }

    template <typename T, typename Call>
    CallResult<T> call(Call&& method)
    {
        CallResult<T> result;
        std::lock_guard<std::mutex> lock(callMutex);
        try {
            if constexpr (std::is_aggregate_v<T>) {
                result.value = std::apply([](auto... v) { return T{v...}; }, method(calls));
            } else {
                result.value = method(calls);
            }
        } catch (const sdbus::Error& e) {
            result.status = kavro::bus::statusFromError(e);
            result.errorName = e.getName();
            result.errorMessage = e.getMessage();
        }
        return result;
    }

    std::mutex callMutex;
    std::unique_ptr<sdbus::IConnection> callConnection;
    SearchProxy calls;
    kavro::bus::BusLoop signalLoop;
    std::unique_ptr<kavro::bus::Registered<SearchProxy>> receiver;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<SearchSignal> signals;
};

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
    return impl_->call<int32_t>([&](SearchProxy& p) {
        return p.CreateEventSearch(startSec, startUsec, endSec, endUsec, maxResults, requestFlag1,
                                   requestFlag2, includeStartStateEvents);
    });
}

CallResult<int32_t> SearchClient::createMetadataSearch(uint32_t startSec, uint32_t startUsec,
                                                       uint32_t endSec, uint32_t endUsec,
                                                       int32_t maxResults, const std::string& xpath)
{
    return impl_->call<int32_t>([&](SearchProxy& p) {
        return p.CreateMetadataSearch(startSec, startUsec, endSec, endUsec, maxResults, xpath);
    });
}

CallResult<int32_t> SearchClient::createNoopSearch()
{
    return impl_->call<int32_t>([](SearchProxy& p) { return p.CreateNoopSearch(); });
}

CallResult<uint32_t> SearchClient::beginSearch(uint32_t jobId)
{
    return impl_->call<uint32_t>([&](SearchProxy& p) { return p.BeginSearch(jobId); });
}

CallResult<SearchStateReply> SearchClient::getSearchState(uint32_t jobId)
{
    return impl_->call<SearchStateReply>([&](SearchProxy& p) { return p.GetSearchState(jobId); });
}

CallResult<EndSearchReply> SearchClient::endSearch(uint32_t jobId)
{
    return impl_->call<EndSearchReply>([&](SearchProxy& p) { return p.EndSearch(jobId); });
}

std::vector<SearchSignal> SearchClient::signals() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->signals;
}

std::vector<SearchSignal> SearchClient::signalsFor(uint32_t jobId) const
{
    auto all = signals();
    all.erase(std::remove_if(all.begin(), all.end(),
                             [jobId](const SearchSignal& s) { return s.jobId != jobId; }),
              all.end());
    return all;
}

bool SearchClient::waitForCompleted(uint32_t jobId, std::chrono::milliseconds timeout) const
{
    return waitUntil(
        [jobId](const std::vector<SearchSignal>& all) {
            return std::any_of(all.begin(), all.end(), [jobId](const SearchSignal& s) {
                return s.kind == Kind::SearchCompleted && s.jobId == jobId;
            });
        },
        timeout);
}

bool SearchClient::waitForSignalCount(size_t n, std::chrono::milliseconds timeout) const
{
    return waitUntil([n](const std::vector<SearchSignal>& all) { return all.size() >= n; },
                     timeout);
}

bool SearchClient::waitUntil(const std::function<bool(const std::vector<SearchSignal>&)>& pred,
                             std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(impl_->mutex);
    return impl_->arrived.wait_for(lock, timeout, [&] { return pred(impl_->signals); });
}

}  // namespace rstest
