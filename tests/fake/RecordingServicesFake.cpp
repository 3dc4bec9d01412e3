#include "fake/RecordingServicesFake.h"

#include <condition_variable>
#include <mutex>

#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "kavro/recording_initiators.h"
#include "kavro/src/Arrays.h"
#include "kavro/src/TargetEventSink.h"

namespace fake {
namespace {

std::mutex callMutex;
RecordingServices* installed = nullptr;
int handleToken;  // any non-null handle will do

std::mutex sentMutex;
std::condition_variable sentChanged;
std::vector<Sent> sent;
std::vector<unsigned int> completed;

template <typename Call>
kavro_core_status call(Call&& fn)
{
    std::lock_guard<std::mutex> lock(callMutex);
    return installed == nullptr ? KAVRO_STATUS_SERVICE_UNKNOWN : fn(*installed);
}

kavro_core_status init(void** handle)
{
    std::lock_guard<std::mutex> lock(callMutex);
    if (installed == nullptr) return KAVRO_STATUS_BUS_UNREACHABLE;
    *handle = &handleToken;
    return KAVRO_STATUS_OK;
}

void split(const NeighbourTimes& t, unsigned int* cs, unsigned int* cu, unsigned int* ps,
           unsigned int* pu, unsigned int* ns, unsigned int* nu)
{
    *cs = t.cur.sec, *cu = t.cur.usec, *ps = t.prev.sec, *pu = t.prev.usec;
    *ns = t.next.sec, *nu = t.next.usec;
}

kavro_core_status record(Sent event)
{
    std::lock_guard<std::mutex> lock(sentMutex);
    if (event.kind == Sent::Completed) completed.push_back(event.jobId);
    sent.push_back(std::move(event));
    sentChanged.notify_all();
    return KAVRO_STATUS_OK;
}

class RecordingSink : public kavro::detail::TargetEventSink {
public:
    kavro_core_status searchCompleted(unsigned int jobId) override
    {
        return record(Sent{Sent::Completed, jobId, {}, "", 0, 0});
    }
    kavro_core_status metadataSearchResult(unsigned int jobId, unsigned int sec,
                                           unsigned int usec) override
    {
        return record(Sent{Sent::Metadata, jobId, {sec, usec}, "", 0, 0});
    }
    kavro_core_status trackStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                  unsigned int usec, std::string trackName,
                                                  unsigned char state,
                                                  unsigned char startState) override
    {
        return record(Sent{Sent::Track, jobId, {sec, usec}, trackName, state, startState});
    }
    kavro_core_status recordingStateEventSearchResult(unsigned int jobId, unsigned int sec,
                                                      unsigned int usec, unsigned char state,
                                                      unsigned char startState) override
    {
        return record(Sent{Sent::Recording, jobId, {sec, usec}, "", state, startState});
    }
};

}  // namespace

void install(RecordingServices* services)
{
    std::lock_guard<std::mutex> lock(callMutex);
    installed = services;
}

std::ostream& operator<<(std::ostream& os, const Sent& s)
{
    static const char* const kinds[] = {"Completed", "Metadata", "Track", "Recording"};
    return os << kinds[s.kind] << "(job " << s.jobId << " at " << s.time.sec << "." << s.time.usec
              << " " << s.track << " state " << s.state << " start " << s.startState << ")";
}

std::vector<Sent> takeSent()
{
    std::lock_guard<std::mutex> lock(sentMutex);
    completed.clear();
    return std::move(sent);
}

bool waitForCompletion(unsigned int jobId, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(sentMutex);
    return sentChanged.wait_for(lock, timeout, [&] {
        for (unsigned int id : completed)
            if (id == jobId) return true;
        return false;
    });
}

}  // namespace fake

// ---- the runner: keeps what its target sends ----

class KavroApiRecordingSearchTargetRun::Impl {
public:
    fake::RecordingSink sink;
    boost::shared_ptr<KavroApiRecordingSearchTargetImplBase> target;
};

KavroApiRecordingSearchTargetRun::KavroApiRecordingSearchTargetRun(
    const std::string&, void*, boost::shared_ptr<KavroApiRecordingSearchTargetImplBase> target)
    : impl_(new Impl{{}, target})
{
    target->attachSink(&impl_->sink);
}

KavroApiRecordingSearchTargetRun::~KavroApiRecordingSearchTargetRun()
{
    impl_->target->attachSink(nullptr);
}

// ---- the initiator calls ----

using fake::call;
using fake::HistoryAnswer;
using fake::MetadataAnswer;
using fake::RecordingServices;
using kavro::detail::toStringArray;
using kavro::detail::toUintArray;

extern "C" {

kavro_core_status kavro_api_recording_control_initiator_init(void*, void*, void** handle, void*,
                                                             void*)
{
    return fake::init(handle);
}
kavro_core_status kavro_api_recording_control_initiator_deinit(void*) { return KAVRO_STATUS_OK; }
kavro_core_status kavro_api_recording_information_initiator_init(void*, void*, void** handle, void*,
                                                                 void*)
{
    return fake::init(handle);
}
kavro_core_status kavro_api_recording_information_initiator_deinit(void*)
{
    return KAVRO_STATUS_OK;
}
kavro_core_status kavro_api_recording_data_access_initiator_init(void*, void*, void** handle, void*,
                                                                 void*)
{
    return fake::init(handle);
}
kavro_core_status kavro_api_recording_data_access_initiator_deinit(void*)
{
    return KAVRO_STATUS_OK;
}

kavro_core_status kavro_api_recording_control_get_tracks_send(void*, const char*, char*** tracks)
{
    return call([&](RecordingServices& s) {
        std::vector<std::string> names;
        const kavro_core_status status = s.tracks(names);
        if (status == 0) *tracks = toStringArray(names);
        return status;
    });
}

kavro_core_status kavro_api_recording_information_get_recording_summary_send(
    void*, const char*, unsigned int* startSec, unsigned int* startUsec, unsigned int* endSec,
    unsigned int* endUsec)
{
    return call([&](RecordingServices& s) {
        SearchTime start, end;
        const kavro_core_status status = s.summary(start, end);
        if (status == 0)
            *startSec = start.sec, *startUsec = start.usec, *endSec = end.sec, *endUsec = end.usec;
        return status;
    });
}

kavro_core_status kavro_api_recording_information_get_recording_state_send(
    void*, const char*, unsigned int sec, unsigned int usec, unsigned char* state, char*** tracksOn)
{
    return call([&](RecordingServices& s) {
        std::vector<std::string> on;
        const kavro_core_status status = s.state({sec, usec}, *state, on);
        if (status == 0) *tracksOn = toStringArray(on);
        return status;
    });
}

kavro_core_status kavro_api_recording_information_get_track_summary_send(
    void*, const char*, const char* track, unsigned int* startSec, unsigned int* startUsec,
    unsigned int* endSec, unsigned int* endUsec)
{
    return call([&](RecordingServices& s) {
        SearchTime start, end;
        const kavro_core_status status = s.trackSummary(track, start, end);
        if (status == 0)
            *startSec = start.sec, *startUsec = start.usec, *endSec = end.sec, *endUsec = end.usec;
        return status;
    });
}

kavro_core_status kavro_api_recording_data_access_get_first_recording_history_event_time_send(
    void*, const char*, unsigned int* sec, unsigned int* usec)
{
    return call([&](RecordingServices& s) {
        SearchTime at;
        const kavro_core_status status = s.firstEvent(at);
        if (status == 0) *sec = at.sec, *usec = at.usec;
        return status;
    });
}

kavro_core_status kavro_api_recording_data_access_get_recording_history_event_send(
    void*, const char*, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char*** names, unsigned int*** keys, unsigned int*** values)
{
    return call([&](RecordingServices& s) {
        HistoryAnswer a;
        const kavro_core_status status = s.historyEvent({sec, usec}, a);
        if (status != 0) return status;
        fake::split(a.times, curSec, curUsec, prevSec, prevUsec, nextSec, nextUsec);
        *names = a.names ? toStringArray(*a.names) : nullptr;
        *keys = a.keys ? toUintArray(*a.keys) : nullptr;
        *values = a.values ? toUintArray(*a.values) : nullptr;
        return status;
    });
}

kavro_core_status kavro_api_recording_data_access_get_metadata_send(
    void*, const char*, unsigned int sec, unsigned int usec, unsigned int* curSec,
    unsigned int* curUsec, unsigned int* prevSec, unsigned int* prevUsec, unsigned int* nextSec,
    unsigned int* nextUsec, char** document)
{
    return call([&](RecordingServices& s) {
        MetadataAnswer a;
        const kavro_core_status status = s.metadata({sec, usec}, a);
        if (status != 0) return status;
        fake::split(a.times, curSec, curUsec, prevSec, prevUsec, nextSec, nextUsec);
        *document = a.document ? kavro::detail::toText(*a.document) : nullptr;
        return status;
    });
}

}  // extern "C"
