#include "client/ServiceConnection.h"

#include <cstdlib>
#include <future>
#include <tuple>

#include <sdbus-c++/sdbus-c++.h>

#include "client/ClientError.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/contract.h"
#include "kavro/generated/recording_search_proxy.h"

namespace rsclient {

namespace {

constexpr const char* kService = "recording_search";
// Longer than the service's own 5 s limit on its neighbours: a create or an end may wait that
// long for them before it answers.
constexpr std::chrono::seconds kCallTimeout{15};

std::string busAddress()
{
    const char* address = std::getenv("DBUS_SYSTEM_BUS_ADDRESS");
    return address ? address : "the default system bus";
}

std::string statusMeaning(kavro_core_status status, const std::string& message)
{
    const auto blank = message.find(' ');
    if (blank != std::string::npos) return message.substr(blank + 1);
    if (status == kavro::contract::kStatusUsecOutOfRange)
        return "microseconds out of range (0 to 999999)";
    return "";
}

ClientError classify(const std::string& service, const std::string& what, const sdbus::Error& error)
{
    if (error.getName() == "org.freedesktop.DBus.Error.AccessDenied") {
        return ClientError(ErrorKind::AccessDenied,
                           "the bus does not let this user call recording_search: only root and "
                           "members of the group recording-search-clients may search (an "
                           "administrator adds a user with `usermod -aG recording-search-clients "
                           "USER`; the user then logs in again)");
    }
    if (error.getName() == kavro::bus::kBusyErrorName) {
        return ClientError(ErrorKind::Busy, error.getMessage());
    }
    const kavro_core_status status = kavro::bus::statusFromError(error);
    const kavro::bus::ErrorOrigin origin = kavro::bus::errorOrigin(error);
    if (origin == kavro::bus::ErrorOrigin::ServiceStatus) {
        std::string text =
            service + " answered " + what + " with status " + std::to_string(int(status));
        const std::string meaning = statusMeaning(status, error.getMessage());
        if (!meaning.empty()) text += ": " + meaning;
        return ClientError(ErrorKind::StatusError, text);
    }
    if (origin == kavro::bus::ErrorOrigin::ServiceFailure) {
        return ClientError(ErrorKind::StatusError,
                           service + " failed " + what + ": " + error.getMessage());
    }
    if (status == KAVRO_STATUS_SERVICE_UNKNOWN) {
        return ClientError(ErrorKind::Unreachable, service + " is not running on " + busAddress() +
                                                       " (" + error.getName() + ")");
    }
    if (status == KAVRO_STATUS_TIMEOUT) {
        return ClientError(ErrorKind::Unreachable, service + " did not answer " + what +
                                                       " within " +
                                                       std::to_string(kCallTimeout.count()) + " s");
    }
    return ClientError(ErrorKind::Failure,
                       what + " failed: " + error.getName() + ": " + error.getMessage());
}

}  // namespace

// The service's signals, into the inbox.
class ServiceConnection::SearchSignals
    : public kavro::bus::ServiceProxy<kavro::recording_search_proxy> {
public:
    SearchSignals(sdbus::IConnection& connection, EventInbox& inbox)
        : ServiceProxy(connection, kService), inbox_(inbox)
    {
    }

protected:
    void onSearchCompleted(const uint32_t& jobId) override
    {
        ClientEvent event;
        event.kind = ClientEvent::Kind::Completed;
        event.jobId = jobId;
        inbox_.push(std::move(event));
    }

    void onMetadataSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                const uint32_t& usec) override
    {
        pushResult(
            SearchResult{SearchResult::Kind::Metadata, jobId, {sec, usec}, {}, false, false});
    }

    void onTrackStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                       const uint32_t& usec, const std::string& trackName,
                                       const uint8_t& state, const uint8_t& startState) override
    {
        pushResult(SearchResult{SearchResult::Kind::TrackState,
                                jobId,
                                {sec, usec},
                                trackName,
                                state != 0,
                                startState != 0});
    }

    void onRecordingStateEventSearchResult(const uint32_t& jobId, const uint32_t& sec,
                                           const uint32_t& usec, const uint8_t& state,
                                           const uint8_t& startState) override
    {
        pushResult(SearchResult{SearchResult::Kind::RecordingState,
                                jobId,
                                {sec, usec},
                                {},
                                state != 0,
                                startState != 0});
    }

private:
    void pushResult(SearchResult result)
    {
        ClientEvent event;
        event.kind = ClientEvent::Kind::Result;
        event.jobId = result.jobId;
        event.result = std::move(result);
        inbox_.push(std::move(event));
    }

    EventInbox& inbox_;
};

ServiceConnection::ServiceConnection(EventInbox& inbox) : inbox_(inbox)
{
    std::unique_ptr<sdbus::IConnection> connection;
    try {
        connection = kavro::bus::connectToBus();
    } catch (const sdbus::Error& e) {
        throw ClientError(ErrorKind::Unreachable,
                          "cannot connect to " + busAddress() + ": " + e.getMessage());
    }
    connection->setMethodCallTimeout(kCallTimeout);
    search_ = std::make_unique<kavro::bus::Registered<SearchSignals>>(*connection, inbox_);
    busDaemon_ = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    busDaemon_->uponSignal("NameOwnerChanged")
        .onInterface("org.freedesktop.DBus")
        .call(
            [this](const std::string& name, const std::string& oldOwner,
                   const std::string& newOwner) { onNameOwnerChanged(name, oldOwner, newOwner); });
    busDaemon_->finishRegistration();

    loop_ = std::make_unique<kavro::bus::BusLoop>(std::move(connection));
    loop_->start([this](const std::string& why) {
        ClientEvent event;
        event.kind = ClientEvent::Kind::BusLost;
        event.detail = why;
        inbox_.push(std::move(event));
    });
}

ServiceConnection::~ServiceConnection()
{
    // The proxies use the connection, so they go after its loop has stopped and before it closes.
    loop_->stop();
    busDaemon_.reset();
    search_.reset();
    loop_.reset();
}

void ServiceConnection::onNameOwnerChanged(const std::string& name, const std::string& oldOwner,
                                           const std::string&)
{
    if (name != kavro::bus::busName(kService) || watchedOwner_.empty() ||
        oldOwner != watchedOwner_) {
        return;
    }
    watchedOwner_.clear();
    ClientEvent event;
    event.kind = ClientEvent::Kind::ServiceGone;
    inbox_.push(std::move(event));
}

void ServiceConnection::call(const char* what, const std::function<void()>& work,
                             const char* service)
{
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    // Work is copied in: if the loop dies first, the copy is dropped without being run.
    loop_->post([done, work] {
        try {
            work();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    });
    // The call itself is bounded by kCallTimeout; only a loop that died before running the
    // work needs this check.
    while (finished.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready) {
        if (loop_->lost()) break;
    }
    if (finished.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        throw ClientError(ErrorKind::ServiceGone, std::string("lost the bus during ") + what);
    }
    try {
        finished.get();
    } catch (const sdbus::Error& e) {
        if (loop_->lost()) {
            throw ClientError(ErrorKind::ServiceGone, std::string("lost the bus during ") + what);
        }
        throw classify(service, what, e);
    } catch (const std::future_error&) {
        throw ClientError(ErrorKind::ServiceGone, std::string("lost the bus during ") + what);
    }
}

void ServiceConnection::watchService()
{
    call("GetNameOwner", [this] {
        std::string owner;
        busDaemon_->callMethod("GetNameOwner")
            .onInterface("org.freedesktop.DBus")
            .withArguments(kavro::bus::busName(kService))
            .storeResultsTo(owner);
        watchedOwner_ = owner;
    });
}

int32_t ServiceConnection::createEventSearch(TimePoint start, TimePoint end, int32_t maxResults,
                                             bool flag1, bool flag2, bool startState)
{
    int32_t jobId = -1;
    call("CreateEventSearch", [&] {
        jobId = search_->CreateEventSearch(start.sec, start.usec, end.sec, end.usec, maxResults,
                                           flag1, flag2, startState);
    });
    return jobId;
}

int32_t ServiceConnection::createMetadataSearch(TimePoint start, TimePoint end, int32_t maxResults,
                                                const std::string& xpath)
{
    int32_t jobId = -1;
    call("CreateMetadataSearch", [&] {
        jobId = search_->CreateMetadataSearch(start.sec, start.usec, end.sec, end.usec, maxResults,
                                              xpath);
    });
    return jobId;
}

int32_t ServiceConnection::createNoopSearch()
{
    int32_t jobId = -1;
    call("CreateNoopSearch", [&] { jobId = search_->CreateNoopSearch(); });
    return jobId;
}

void ServiceConnection::beginSearch(uint32_t jobId)
{
    call("BeginSearch", [&] { search_->BeginSearch(jobId); });
}

uint32_t ServiceConnection::searchState(uint32_t jobId)
{
    uint32_t state = 0;
    call("GetSearchState", [&] { state = std::get<1>(search_->GetSearchState(jobId)); });
    return state;
}

SearchProgress ServiceConnection::searchProgress(uint32_t jobId)
{
    SearchProgress progress;
    call("GetSearchProgress", [&] {
        uint32_t id = 0;
        uint8_t failed = 0;
        TimePoint failedAt;
        std::tie(id, progress.state, progress.through.sec, progress.through.usec, failed,
                 failedAt.sec, failedAt.usec) = search_->GetSearchProgress(jobId);
        if (failed != 0) progress.failedAt = failedAt;
    });
    return progress;
}

EndReply ServiceConnection::endSearch(uint32_t jobId)
{
    EndReply reply;
    call("EndSearch", [&] {
        std::tie(reply.jobId, reply.reached.sec, reply.reached.usec) = search_->EndSearch(jobId);
    });
    return reply;
}

}  // namespace rsclient
