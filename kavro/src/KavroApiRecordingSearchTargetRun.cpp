#include "kavro/KavroApiRecordingSearchTargetRun.h"

#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "ClientWatch.h"
#include "RequestPool.h"
#include "RequestScope.h"
#include "TargetEventSink.h"
#include "kavro/KavroApiException.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/generated/recording_search_adaptor.h"

namespace {

constexpr size_t kRequestThreads = 4;
constexpr size_t kMaxQueuedRequests = 1024;

using Target = KavroApiRecordingSearchTargetImplBase;

// Method handlers run on the bus loop thread and must not block it: each request is handed to
// the pool, and its reply is posted back to the loop thread.
class SearchAdaptor final : public sdbus::AdaptorInterfaces<kavro::recording_search_adaptor> {
public:
    SearchAdaptor(sdbus::IConnection& connection, const std::string& path, Target& target,
                  void* logCookie, kavro::detail::RequestPool& pool, kavro::bus::BusLoop& loop,
                  kavro::detail::ClientWatch& clients)
        : AdaptorInterfaces(connection, path),
          target_(target),
          logCookie_(logCookie),
          pool_(pool),
          loop_(loop),
          clients_(clients)
    {
        registerAdaptor();
    }
    ~SearchAdaptor() { unregisterAdaptor(); }

private:
    void CreateEventSearch(sdbus::Result<int32_t>&& result, uint32_t startSec, uint32_t startUsec,
                           uint32_t endSec, uint32_t endUsec, int32_t maxResults, uint8_t flag1,
                           uint8_t flag2, uint8_t includeStartState) override
    {
        serveCreate("createEventSearch", std::move(result), [=](Target& t, int32_t& jobId) {
            return t.createEventSearch(startSec, startUsec, endSec, endUsec, maxResults, flag1,
                                       flag2, includeStartState, &jobId);
        });
    }

    void CreateMetadataSearch(sdbus::Result<int32_t>&& result, uint32_t startSec,
                              uint32_t startUsec, uint32_t endSec, uint32_t endUsec,
                              int32_t maxResults, std::string xpath) override
    {
        serveCreate("createMetadataSearch", std::move(result), [=](Target& t, int32_t& jobId) {
            return t.createMetadataSearch(startSec, startUsec, endSec, endUsec, maxResults,
                                          xpath.c_str(), &jobId);
        });
    }

    void CreateNoopSearch(sdbus::Result<int32_t>&& result) override
    {
        serveCreate("createNoopSearch", std::move(result),
                    [](Target& t, int32_t& jobId) { return t.createNoopSearch(&jobId); });
    }

    void BeginSearch(sdbus::Result<uint32_t>&& result, uint32_t jobId) override
    {
        serve("beginSearch", std::move(result),
              [=](Target& t, uint32_t& jobIdOut) { return t.beginSearch(jobId, &jobIdOut); });
    }

    void GetSearchState(sdbus::Result<uint32_t, uint32_t>&& result, uint32_t jobId) override
    {
        serve("getSearchState", std::move(result),
              [=](Target& t, uint32_t& jobIdOut, uint32_t& state) {
                  return t.getSearchState(jobId, &jobIdOut, &state);
              });
    }

    void GetSearchProgress(
        sdbus::Result<uint32_t, uint32_t, uint32_t, uint32_t, uint8_t, uint32_t, uint32_t>&& result,
        uint32_t jobId) override
    {
        serve("getSearchProgress", std::move(result),
              [=](Target& t, uint32_t& jobIdOut, uint32_t& state, uint32_t& sec, uint32_t& usec,
                  uint8_t& failed, uint32_t& failedSec, uint32_t& failedUsec) {
                  return t.getSearchProgress(jobId, &jobIdOut, &state, &sec, &usec, &failed,
                                             &failedSec, &failedUsec);
              });
    }

    void EndSearch(sdbus::Result<uint32_t, uint32_t, uint32_t>&& result, uint32_t jobId) override
    {
        serve("endSearch", std::move(result),
              [=](Target& t, uint32_t& jobIdOut, uint32_t& sec, uint32_t& usec) {
                  return t.endSearch(jobId, &jobIdOut, &sec, &usec);
              });
    }

    // A create is followed until it is answered, so that the client's departure is handled
    // only once what it created is in the table.
    template <typename Request>
    void serveCreate(const char* name, sdbus::Result<int32_t>&& result, Request request)
    {
        const std::string client = sender();
        clients_.createStarted(client);
        auto asClient = [request, client](Target& t, int32_t& jobId) {
            kavro::detail::RequestScope scope(client);
            return request(t, jobId);
        };
        serve(name, std::move(result), asClient,
              [this, client] { clients_.createFinished(client); });
    }

    // On the loop thread; `answered` runs there too, right after the reply is sent.
    template <typename... Outs, typename Request>
    void serve(const char* name, sdbus::Result<Outs...>&& result, Request request,
               const std::function<void()>& answered = {})
    {
        auto reply = std::make_shared<sdbus::Result<Outs...>>(std::move(result));
        const bool accepted = pool_.submit([this, name, reply, request, answered]() {
            std::tuple<Outs...> outs{};
            int status = 0;
            std::optional<std::string> failure;
            try {
                status = std::apply([&](auto&... out) { return request(target_, out...); }, outs);
            } catch (const std::exception& e) {
                failure = e.what();
            } catch (...) {
                failure = "unknown exception";
            }
            if (failure) {
                kavro_core_logging_log(logCookie_, 3, "Request %s failed: %s", name,
                                       failure->c_str());
            }
            loop_.post([reply, status, outs, failure, answered]() {
                sendReply(*reply, status, outs, failure);
                if (answered) answered();
            });
        });
        if (!accepted) {
            sendReply(*reply, 0, std::tuple<Outs...>{},
                      std::optional<std::string>("too many requests in progress"));
            if (answered) answered();
        }
    }

    std::string sender()
    {
        const sdbus::Message* message = getObject().getCurrentlyProcessedMessage();
        return message ? message->getSender() : std::string();
    }

    template <typename... Outs>
    static void sendReply(sdbus::Result<Outs...>& reply, int status,
                          const std::tuple<Outs...>& outs,
                          const std::optional<std::string>& failure)
    {
        // A client that has gone away cannot be answered; that is no fault of ours.
        try {
            if (failure) {
                reply.returnError(sdbus::Error(kavro::bus::kFailedErrorName, *failure));
            } else if (status != 0) {
                reply.returnError(kavro::bus::statusError(static_cast<kavro_core_status>(status)));
            } else {
                std::apply([&](const auto&... out) { reply.returnResults(out...); }, outs);
            }
        } catch (const sdbus::Error&) {
        }
    }

    Target& target_;
    void* logCookie_;
    kavro::detail::RequestPool& pool_;
    kavro::bus::BusLoop& loop_;
    kavro::detail::ClientWatch& clients_;
};

// Events leave in the order they were handed over.
class SignalSink : public kavro::detail::TargetEventSink {
public:
    SignalSink(SearchAdaptor& adaptor, kavro::bus::BusLoop& loop) : adaptor_(adaptor), loop_(loop)
    {
    }

    kavro_core_status searchCompleted(unsigned int jobId) override
    {
        return emit([=](SearchAdaptor& a) { a.emitSearchCompleted(jobId); });
    }
    kavro_core_status metadataSearchResult(unsigned int jobId, unsigned int sec,
                                           unsigned int usec) override
    {
        return emit([=](SearchAdaptor& a) { a.emitMetadataSearchResult(jobId, sec, usec); });
    }
    kavro_core_status trackStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                  unsigned int usec, std::string trackName,
                                                  unsigned char state,
                                                  unsigned char startState) override
    {
        return emit([=, name = std::move(trackName)](SearchAdaptor& a) {
            a.emitTrackStateEventSearchResult(jobId, sec, usec, name, state, startState);
        });
    }
    kavro_core_status recordingStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                      unsigned int usec, unsigned char state,
                                                      unsigned char startState) override
    {
        return emit([=](SearchAdaptor& a) {
            a.emitRecordingStateEventSearchResult(jobId, sec, usec, state, startState);
        });
    }

private:
    template <typename Emit>
    kavro_core_status emit(Emit emitSignal)
    {
        if (loop_.lost()) {
            throw kavro::core::KavroApiException("Failed kavro api call: send event",
                                                 KAVRO_STATUS_BUS_LOST);
        }
        // Sent on the caller's thread: the dispatch loop is the only sender, so the order
        // holds. A full send queue (ENOBUFS) drops this event; the caller does not retry sends.
        try {
            loop_.send([&] { emitSignal(adaptor_); });
        } catch (const sdbus::Error&) {
        }
        return KAVRO_STATUS_OK;
    }

    SearchAdaptor& adaptor_;
    kavro::bus::BusLoop& loop_;
};

}  // namespace

class KavroApiRecordingSearchTargetRun::Impl {
public:
    Impl(const std::string& serviceName, void* logCookie, boost::shared_ptr<Target> target)
        : logCookie_(logCookie),
          target_(std::move(target)),
          pool_(kRequestThreads, kMaxQueuedRequests)
    {
        if (!target_ || !target_->isRunnable()) {
            throw kavro::core::KavroApiException(
                "Failed kavro api call: run a target that is not runnable",
                KAVRO_STATUS_INVALID_ARGUMENT);
        }
        loop_ = std::make_unique<kavro::bus::BusLoop>(connect());
        clients_ = std::make_unique<kavro::detail::ClientWatch>(
            loop_->connection(), [this](const std::string& client) { onClientLeft(client); });
        adaptor_ = std::make_unique<SearchAdaptor>(loop_->connection(),
                                                   kavro::bus::objectPath(serviceName), *target_,
                                                   logCookie_, pool_, *loop_, *clients_);
        sink_ = std::make_unique<SignalSink>(*adaptor_, *loop_);
        // The name last: clients see the service only once it can answer.
        requestName(kavro::bus::busName(serviceName));
        target_->attachSink(sink_.get());
        loop_->start([this](const std::string& why) { onBusLost(why); });
    }

    ~Impl()
    {
        target_->attachSink(nullptr);
        pool_.shutdown();  // requests in progress finish and post their replies
        loop_->stop();     // sends the replies and events already handed over
        sink_.reset();
        adaptor_.reset();
        clients_.reset();
        loop_.reset();
    }

private:
    static std::unique_ptr<sdbus::IConnection> connect()
    {
        try {
            return kavro::bus::connectToBus();
        } catch (const sdbus::Error& e) {
            throw kavro::core::KavroApiException(
                "Failed kavro api call: connect to the bus (" + e.getMessage() + ")",
                KAVRO_STATUS_BUS_UNREACHABLE);
        }
    }

    void requestName(const std::string& name)
    {
        try {
            loop_->connection().requestName(name);
        } catch (const sdbus::Error& e) {
            throw kavro::core::KavroApiException(
                "Failed kavro api call: take the bus name " + name + " (" + e.getMessage() + ")",
                kavro::bus::requestNameStatus(e));
        }
    }

    // On the loop thread. The target's dispatch loop may be asleep waiting for work; a no-op
    // search gives it an event to send, and that send fails with KAVRO_STATUS_BUS_LOST, so the
    // service leaves its loop on its fatal-error path and its supervisor restarts it.
    void onBusLost(const std::string& why)
    {
        kavro_core_logging_log(logCookie_, 3, "Lost the connection to the bus: %s", why.c_str());
        int jobId = 0;
        try {
            target_->createNoopSearch(&jobId);
        } catch (...) {
        }
    }

    // On the loop thread. Ending what the client left joins workers that may sit in a call for
    // the call timeout, so it runs on a request thread. It is framework work, not a request:
    // the queue bound that protects us from clients does not apply to it.
    void onClientLeft(const std::string& client)
    {
        pool_.submit([this, client] { target_->clientLeft(client); }, /*bounded=*/false);
    }

    void* logCookie_;
    boost::shared_ptr<Target> target_;
    kavro::detail::RequestPool pool_;
    std::unique_ptr<kavro::bus::BusLoop> loop_;
    std::unique_ptr<kavro::detail::ClientWatch> clients_;
    std::unique_ptr<SearchAdaptor> adaptor_;
    std::unique_ptr<SignalSink> sink_;
};

KavroApiRecordingSearchTargetRun::KavroApiRecordingSearchTargetRun(
    const std::string& serviceName, void* logCookie,
    boost::shared_ptr<KavroApiRecordingSearchTargetImplBase> target)
    : impl_(std::make_unique<Impl>(serviceName, logCookie, std::move(target)))
{
}

KavroApiRecordingSearchTargetRun::~KavroApiRecordingSearchTargetRun() = default;
