// The initiator calls: each handle owns one bus connection without an event loop, on which
// calls are made synchronously with a bounded timeout. A handle serves one thread at a time.
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <vector>

#include "Arrays.h"
#include "kavro/bus/Contract.h"
#include "kavro/bus/ServiceProxy.h"
#include "kavro/generated/recording_control_proxy.h"
#include "kavro/generated/recording_data_access_proxy.h"
#include "kavro/generated/recording_information_proxy.h"
#include "kavro/recording_initiators.h"

namespace kavro {
namespace detail {
namespace {

// Turns any failure of a call into a status, so that no exception crosses the C boundary.
template <typename Call>
kavro_core_status guarded(Call call)
{
    try {
        return call();
    } catch (const sdbus::Error& error) {
        return bus::statusFromError(error);
    } catch (const std::bad_alloc&) {
        return KAVRO_STATUS_NO_MEMORY;
    } catch (...) {
        return KAVRO_STATUS_TRANSPORT_ERROR;
    }
}

uint64_t callTimeoutUsec()
{
    const char* text = std::getenv("KAVRO_CALL_TIMEOUT_MS");
    if (text != nullptr) {
        char* end = nullptr;
        const unsigned long ms = std::strtoul(text, &end, 10);
        if (end != text && *end == '\0' && ms > 0 && ms <= 600000) return uint64_t(ms) * 1000;
    }
    return bus::kCallTimeoutUsec;
}

template <typename GeneratedProxy>
using Proxy = bus::Registered<bus::ServiceProxy<GeneratedProxy>>;

// kind tells the handles of the three services apart, so that a handle passed to the wrong
// service's call is refused instead of misread.
template <typename GeneratedProxy, int kind>
struct Initiator {
    static constexpr int kKind = kind;
    int tag = kind;
    std::unique_ptr<sdbus::IConnection> connection;
    std::map<std::string, std::unique_ptr<Proxy<GeneratedProxy>>> proxies;

    // The called service is named on every call; proxies are kept per name.
    Proxy<GeneratedProxy>& proxyFor(const std::string& service)
    {
        auto& proxy = proxies[service];
        if (!proxy) proxy = std::make_unique<Proxy<GeneratedProxy>>(*connection, service);
        return *proxy;
    }
};

using ControlInitiator = Initiator<kavro::recording_control_proxy, 0x4b430001>;
using InformationInitiator = Initiator<kavro::recording_information_proxy, 0x4b430002>;
using DataAccessInitiator = Initiator<kavro::recording_data_access_proxy, 0x4b430003>;

template <typename Handle>
kavro_core_status openInitiator(void** handle)
{
    if (handle == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    *handle = nullptr;
    auto initiator = std::make_unique<Handle>();
    try {
        initiator->connection = bus::connectToBus();
    } catch (const sdbus::Error&) {
        return KAVRO_STATUS_BUS_UNREACHABLE;
    }
    initiator->connection->setMethodCallTimeout(callTimeoutUsec());
    *handle = initiator.release();
    return KAVRO_STATUS_OK;
}

template <typename Handle>
Handle* asInitiator(void* handle)
{
    auto* initiator = static_cast<Handle*>(handle);
    if (initiator == nullptr || initiator->tag != Handle::kKind) return nullptr;
    return initiator;
}

template <typename Handle>
kavro_core_status closeInitiator(void* handle)
{
    Handle* initiator = asInitiator<Handle>(handle);
    if (initiator == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    initiator->tag = 0;
    delete initiator;
    return KAVRO_STATUS_OK;
}

// Runs one call on a valid handle with a service name; outputs are checked by the caller.
template <typename Handle, typename Call>
kavro_core_status callOn(void* handle, const char* service, Call call)
{
    Handle* initiator = asInitiator<Handle>(handle);
    if (initiator == nullptr || service == nullptr || *service == '\0') {
        return KAVRO_STATUS_INVALID_ARGUMENT;
    }
    return guarded([&] { return call(initiator->proxyFor(service)); });
}

}  // namespace
}  // namespace detail
}  // namespace kavro

using namespace kavro::detail;

extern "C" {

// recording_control

kavro_core_status kavro_api_recording_control_initiator_init(void*, void*, void** handle, void*,
                                                             void*)
{
    return openInitiator<ControlInitiator>(handle);
}

kavro_core_status kavro_api_recording_control_initiator_deinit(void* handle)
{
    return closeInitiator<ControlInitiator>(handle);
}

kavro_core_status kavro_api_recording_control_get_tracks_send(void* handle, const char* service,
                                                              char*** tracks)
{
    if (tracks == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    return callOn<ControlInitiator>(handle, service, [&](auto& proxy) {
        *tracks = toStringArray(proxy.GetTracks());
        return KAVRO_STATUS_OK;
    });
}

// recording_information

kavro_core_status kavro_api_recording_information_initiator_init(void*, void*, void** handle, void*,
                                                                 void*)
{
    return openInitiator<InformationInitiator>(handle);
}

kavro_core_status kavro_api_recording_information_initiator_deinit(void* handle)
{
    return closeInitiator<InformationInitiator>(handle);
}

kavro_core_status kavro_api_recording_information_get_recording_summary_send(
    void* handle, const char* service, unsigned int* startSec, unsigned int* startUsec,
    unsigned int* endSec, unsigned int* endUsec)
{
    if (!startSec || !startUsec || !endSec || !endUsec) return KAVRO_STATUS_INVALID_ARGUMENT;
    return callOn<InformationInitiator>(handle, service, [&](auto& proxy) {
        std::tie(*startSec, *startUsec, *endSec, *endUsec) = proxy.GetRecordingSummary();
        return KAVRO_STATUS_OK;
    });
}

kavro_core_status kavro_api_recording_information_get_recording_state_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned char* state,
    char*** tracksOn)
{
    if (state == nullptr || tracksOn == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    return callOn<InformationInitiator>(handle, service, [&](auto& proxy) {
        auto [answerState, answerTracks] = proxy.GetRecordingState(sec, usec);
        *tracksOn = toStringArray(answerTracks);
        *state = answerState;
        return KAVRO_STATUS_OK;
    });
}

kavro_core_status kavro_api_recording_information_get_track_summary_send(
    void* handle, const char* service, const char* track, unsigned int* startSec,
    unsigned int* startUsec, unsigned int* endSec, unsigned int* endUsec)
{
    if (!track || !startSec || !startUsec || !endSec || !endUsec)
        return KAVRO_STATUS_INVALID_ARGUMENT;
    return callOn<InformationInitiator>(handle, service, [&](auto& proxy) {
        std::tie(*startSec, *startUsec, *endSec, *endUsec) = proxy.GetTrackSummary(track);
        return KAVRO_STATUS_OK;
    });
}

// recording_data_access

kavro_core_status kavro_api_recording_data_access_initiator_init(void*, void*, void** handle, void*,
                                                                 void*)
{
    return openInitiator<DataAccessInitiator>(handle);
}

kavro_core_status kavro_api_recording_data_access_initiator_deinit(void* handle)
{
    return closeInitiator<DataAccessInitiator>(handle);
}

kavro_core_status kavro_api_recording_data_access_get_first_recording_history_event_time_send(
    void* handle, const char* service, unsigned int* sec, unsigned int* usec)
{
    if (sec == nullptr || usec == nullptr) return KAVRO_STATUS_INVALID_ARGUMENT;
    return callOn<DataAccessInitiator>(handle, service, [&](auto& proxy) {
        std::tie(*sec, *usec) = proxy.GetFirstRecordingHistoryEventTime();
        return KAVRO_STATUS_OK;
    });
}

kavro_core_status kavro_api_recording_data_access_get_recording_history_event_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char*** names, unsigned int*** keys, unsigned int*** values)
{
    if (!curSec || !curUsec || !prevSec || !prevUsec || !nextSec || !nextUsec || !names || !keys ||
        !values) {
        return KAVRO_STATUS_INVALID_ARGUMENT;
    }
    return callOn<DataAccessInitiator>(handle, service, [&](auto& proxy) {
        auto [cs, cu, ps, pu, ns, nu, answerNames, answerKeys, answerValues] =
            proxy.GetRecordingHistoryEvent(sec, usec);
        // An event is one or more properties, each a name, a key and a value.
        if (answerKeys.empty() || answerNames.size() != answerKeys.size() ||
            answerValues.size() != answerKeys.size()) {
            return KAVRO_STATUS_MALFORMED_REPLY;
        }
        char** namesArray = toStringArray(answerNames);
        unsigned int** keysArray = nullptr;
        unsigned int** valuesArray = nullptr;
        try {
            keysArray = toUintArray(answerKeys);
            valuesArray = toUintArray(answerValues);
        } catch (...) {
            kavro_core_free_string_array(namesArray);
            kavro_core_free_uint_array(keysArray);
            throw;
        }
        *curSec = cs, *curUsec = cu, *prevSec = ps, *prevUsec = pu, *nextSec = ns, *nextUsec = nu;
        *names = namesArray, *keys = keysArray, *values = valuesArray;
        return KAVRO_STATUS_OK;
    });
}

kavro_core_status kavro_api_recording_data_access_get_metadata_send(
    void* handle, const char* service, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char** document)
{
    if (!curSec || !curUsec || !prevSec || !prevUsec || !nextSec || !nextUsec || !document) {
        return KAVRO_STATUS_INVALID_ARGUMENT;
    }
    return callOn<DataAccessInitiator>(handle, service, [&](auto& proxy) {
        auto [cs, cu, ps, pu, ns, nu, text] = proxy.GetMetadata(sec, usec);
        *document = toText(text);
        *curSec = cs, *curUsec = cu, *prevSec = ps, *prevUsec = pu, *nextSec = ns, *nextUsec = nu;
        return KAVRO_STATUS_OK;
    });
}

}  // extern "C"
