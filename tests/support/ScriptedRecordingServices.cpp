#include "support/ScriptedRecordingServices.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <tuple>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/generated/recording_control_adaptor.h"
#include "kavro/generated/recording_data_access_adaptor.h"
#include "kavro/generated/recording_information_adaptor.h"

namespace rstest {

std::string StoreTime::text() const
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%u.%06u", sec, usec);
    return buf;
}

namespace {

using U4 = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;
using RecordingPtr = std::shared_ptr<const Recording>;

U4 toTuple(const Span& s) { return {s.start.sec, s.start.usec, s.end.sec, s.end.usec}; }

template <typename Item>
void sortByTime(std::vector<Item>& items)
{
    std::stable_sort(items.begin(), items.end(),
                     [](const Item& a, const Item& b) { return a.time < b.time; });
}

// The item at t, else the latest before t, else the first after t; items sorted by time.
template <typename Item>
size_t indexAt(const std::vector<Item>& items, StoreTime t)
{
    const auto firstAfter = std::upper_bound(
        items.begin(), items.end(), t, [](StoreTime v, const Item& i) { return v < i.time; });
    if (firstAfter == items.begin()) return 0;
    // With equal times, the first of them is "the one at t".
    const auto first = std::lower_bound(items.begin(), items.end(), std::prev(firstAfter)->time,
                                        [](const Item& i, StoreTime v) { return i.time < v; });
    return static_cast<size_t>(first - items.begin());
}

template <typename Item>
void neighbours(const std::vector<Item>& items, size_t i, StoreTime& cur, StoreTime& prev,
                StoreTime& next)
{
    cur = items[i].time;
    prev = i > 0 ? items[i - 1].time : StoreTime{};
    next = i + 1 < items.size() ? items[i + 1].time : StoreTime{};
}

void widen(std::optional<Span>& span, StoreTime t)
{
    if (!span) {
        span = Span{t, t};
        return;
    }
    span->start = std::min(span->start, t);
    span->end = std::max(span->end, t);
}

// The recording's answers, as the real store gives them.
namespace model {

std::optional<Span> recordingSummary(const Recording& r)
{
    std::optional<Span> span;
    for (const auto& e : r.events) widen(span, e.time);
    for (const auto& d : r.documents) widen(span, d.time);
    return span;
}

RecordingStateAnswer recordingState(const Recording& r, StoreTime t)
{
    RecordingStateAnswer answer;
    std::map<std::string, uint32_t> trackState;
    for (const auto& e : r.events) {
        if (t < e.time) break;
        for (const auto& p : e.properties) {
            if (p.key == kRecordingKey) answer.state = static_cast<uint8_t>(p.value);
            if (p.key == kTrackKey) trackState[p.name] = p.value;
        }
    }
    for (const auto& track : r.tracks) {
        const auto it = trackState.find(track);
        if (it != trackState.end() && it->second != 0) answer.tracksOn.push_back(track);
    }
    for (const auto& [track, value] : trackState) {
        const bool listed = std::find(r.tracks.begin(), r.tracks.end(), track) != r.tracks.end();
        if (!listed && value != 0) answer.tracksOn.push_back(track);
    }
    return answer;
}

std::optional<Span> trackSummary(const Recording& r, const std::string& track)
{
    if (std::find(r.tracks.begin(), r.tracks.end(), track) == r.tracks.end()) return std::nullopt;
    std::optional<Span> span;
    if (track == kMetadataTrack) {
        for (const auto& d : r.documents) widen(span, d.time);
        return span;
    }
    for (const auto& e : r.events) {
        for (const auto& p : e.properties) {
            if (p.key == kTrackKey && p.name == track) widen(span, e.time);
        }
    }
    return span ? span : recordingSummary(r);
}

std::optional<StoreTime> firstHistoryEventTime(const Recording& r)
{
    if (r.events.empty()) return std::nullopt;
    return r.events.front().time;
}

std::optional<HistoryEventAnswer> historyEvent(const Recording& r, StoreTime t)
{
    if (r.events.empty()) return std::nullopt;
    const size_t i = indexAt(r.events, t);
    HistoryEventAnswer a;
    neighbours(r.events, i, a.cur, a.prev, a.next);
    for (const auto& p : r.events[i].properties) {
        a.names.push_back(p.name);
        a.keys.push_back(p.key);
        a.values.push_back(p.value);
    }
    return a;
}

std::optional<MetadataAnswer> metadata(const Recording& r, StoreTime t)
{
    if (r.documents.empty()) return std::nullopt;
    const size_t i = indexAt(r.documents, t);
    MetadataAnswer a;
    neighbours(r.documents, i, a.cur, a.prev, a.next);
    a.document = r.documents[i].text;
    return a;
}

}  // namespace model

struct Override {
    int status = 0;
    std::chrono::milliseconds delay{0};
};

struct Scripts {
    std::function<Reply<std::vector<std::string>>()> getTracks;
    std::function<Reply<Span>()> getRecordingSummary;
    std::function<Reply<RecordingStateAnswer>(StoreTime)> getRecordingState;
    std::function<Reply<Span>(const std::string&)> getTrackSummary;
    std::function<Reply<StoreTime>()> getFirstRecordingHistoryEventTime;
    std::function<Reply<HistoryEventAnswer>(StoreTime)> getRecordingHistoryEvent;
    std::function<Reply<MetadataAnswer>(StoreTime)> getMetadata;
};

// Everything the handlers share with the test thread, under one mutex. Scripts are copied out
// and run without the lock, so a script may call back into the fixture.
class State {
public:
    void setRecording(Recording recording)
    {
        sortByTime(recording.events);
        sortByTime(recording.documents);
        auto ptr = std::make_shared<const Recording>(std::move(recording));
        std::lock_guard<std::mutex> lock(mutex_);
        recording_ = std::move(ptr);
    }

    RecordingPtr recording() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return recording_;
    }

    template <typename Change>
    void changeScripts(Change change)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        change(scripts_);
    }

    Scripts scripts() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return scripts_;
    }

    void setStatusOverride(const std::string& method, int status)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        overrides_[method].status = status;
    }

    void setDelayOverride(const std::string& method, std::chrono::milliseconds delay)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        overrides_[method].delay = delay;
    }

    void clearOverrides()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        overrides_.clear();
    }

    // The common path of every handler: record the call, then answer by override, script or
    // recording, in that order of precedence. A failure leaves as kavro.Error.Status.
    template <typename T, typename Script, typename Model>
    T serve(const std::string& method, const std::string& args, const Script& script,
            const Model& model)
    {
        record(method, args);
        const Override o = overrideFor(method);
        if (o.status != 0) {
            stallFor(o.delay);
            throw kavro::bus::statusError(static_cast<kavro_core_status>(o.status));
        }
        const Reply<T> reply = script ? script() : Reply<T>::useDefault();
        stallFor(std::max(o.delay, reply.delay()));
        if (reply.statusValue() != 0) {
            throw kavro::bus::statusError(static_cast<kavro_core_status>(reply.statusValue()));
        }
        if (reply.value()) return *reply.value();
        std::optional<T> answer = model(*recording());
        if (!answer) {
            throw kavro::bus::statusError(
                static_cast<kavro_core_status>(ScriptedRecordingServices::kFailureStatus));
        }
        return *answer;
    }

    void shutDown()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        shuttingDown_ = true;
        wake_.notify_all();
    }

    std::vector<ReceivedCall> calls() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

    void clearCalls()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.clear();
    }

    bool waitForCalls(const std::string& method, int n, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return wake_.wait_for(lock, timeout, [&] { return countLocked(method) >= n; });
    }

    int callCount(const std::string& method) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(method);
    }

private:
    void record(const std::string& method, const std::string& args)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back({method, args});
        wake_.notify_all();
    }

    Override overrideFor(const std::string& method) const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = overrides_.find(method);
        return it == overrides_.end() ? Override{} : it->second;
    }

    // A stalled handler holds its service's loop; destruction cuts the stall short.
    void stallFor(std::chrono::milliseconds delay)
    {
        if (delay.count() <= 0) return;
        std::unique_lock<std::mutex> lock(mutex_);
        wake_.wait_for(lock, delay, [this] { return shuttingDown_; });
    }

    int countLocked(const std::string& method) const
    {
        return static_cast<int>(std::count_if(calls_.begin(), calls_.end(), [&](const ReceivedCall& c) {
            return c.method == method;
        }));
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable wake_;  // a call recorded, or shutting down
    RecordingPtr recording_ = std::make_shared<const Recording>();
    Scripts scripts_;
    std::map<std::string, Override> overrides_;
    std::vector<ReceivedCall> calls_;
    bool shuttingDown_ = false;
};

// A script of one argument, bound to the argument of this call (or empty when unscripted).
template <typename R, typename Arg>
std::function<R()> bindArg(const std::function<R(Arg)>& script, std::decay_t<Arg> arg)
{
    if (!script) return {};
    return [script, arg] { return script(arg); };
}

class ControlObject : public sdbus::AdaptorInterfaces<kavro::recording_control_adaptor> {
public:
    ControlObject(sdbus::IConnection& c, State& state)
        : AdaptorInterfaces(c, kavro::bus::objectPath("recording_control")), state_(state)
    {
        registerAdaptor();
    }
    ~ControlObject() { unregisterAdaptor(); }

private:
    std::vector<std::string> GetTracks() override
    {
        return state_.serve<std::vector<std::string>>(
            "GetTracks", "", state_.scripts().getTracks,
            [](const Recording& r) { return std::optional<std::vector<std::string>>(r.tracks); });
    }

    State& state_;
};

class InformationObject : public sdbus::AdaptorInterfaces<kavro::recording_information_adaptor> {
public:
    InformationObject(sdbus::IConnection& c, State& state)
        : AdaptorInterfaces(c, kavro::bus::objectPath("recording_information")), state_(state)
    {
        registerAdaptor();
    }
    ~InformationObject() { unregisterAdaptor(); }

private:
    U4 GetRecordingSummary() override
    {
        return toTuple(state_.serve<Span>("GetRecordingSummary", "",
                                          state_.scripts().getRecordingSummary,
                                          model::recordingSummary));
    }

    std::tuple<uint8_t, std::vector<std::string>> GetRecordingState(const uint32_t& sec,
                                                                    const uint32_t& usec) override
    {
        const StoreTime t{sec, usec};
        const auto a = state_.serve<RecordingStateAnswer>(
            "GetRecordingState", t.text(), bindArg(state_.scripts().getRecordingState, t),
            [t](const Recording& r) {
                return std::optional<RecordingStateAnswer>(model::recordingState(r, t));
            });
        return {a.state, a.tracksOn};
    }

    U4 GetTrackSummary(const std::string& track) override
    {
        return toTuple(state_.serve<Span>(
            "GetTrackSummary", track, bindArg(state_.scripts().getTrackSummary, track),
            [&track](const Recording& r) { return model::trackSummary(r, track); }));
    }

    State& state_;
};

class DataAccessObject : public sdbus::AdaptorInterfaces<kavro::recording_data_access_adaptor> {
public:
    DataAccessObject(sdbus::IConnection& c, State& state)
        : AdaptorInterfaces(c, kavro::bus::objectPath("recording_data_access")), state_(state)
    {
        registerAdaptor();
    }
    ~DataAccessObject() { unregisterAdaptor(); }

private:
    std::tuple<uint32_t, uint32_t> GetFirstRecordingHistoryEventTime() override
    {
        const auto t = state_.serve<StoreTime>("GetFirstRecordingHistoryEventTime", "",
                                               state_.scripts().getFirstRecordingHistoryEventTime,
                                               model::firstHistoryEventTime);
        return {t.sec, t.usec};
    }

    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t,
               std::vector<std::string>, std::vector<uint32_t>, std::vector<uint32_t>>
    GetRecordingHistoryEvent(const uint32_t& sec, const uint32_t& usec) override
    {
        const StoreTime t{sec, usec};
        const auto a = state_.serve<HistoryEventAnswer>(
            "GetRecordingHistoryEvent", t.text(), bindArg(state_.scripts().getRecordingHistoryEvent, t),
            [t](const Recording& r) { return model::historyEvent(r, t); });
        return {a.cur.sec,  a.cur.usec, a.prev.sec, a.prev.usec, a.next.sec,
                a.next.usec, a.names,   a.keys,     a.values};
    }

    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::string>
    GetMetadata(const uint32_t& sec, const uint32_t& usec) override
    {
        const StoreTime t{sec, usec};
        const auto a = state_.serve<MetadataAnswer>(
            "GetMetadata", t.text(), bindArg(state_.scripts().getMetadata, t),
            [t](const Recording& r) { return model::metadata(r, t); });
        return {a.cur.sec,  a.cur.usec, a.prev.sec, a.prev.usec,
                a.next.sec, a.next.usec, a.document};
    }

    State& state_;
};

const char* serviceName(RecordingService s)
{
    switch (s) {
    case RecordingService::Control: return "recording_control";
    case RecordingService::Information: return "recording_information";
    case RecordingService::DataAccess: return "recording_data_access";
    }
    return "";
}

std::shared_ptr<void> makeObject(RecordingService s, sdbus::IConnection& c, State& state)
{
    switch (s) {
    case RecordingService::Control: return std::make_shared<ControlObject>(c, state);
    case RecordingService::Information: return std::make_shared<InformationObject>(c, state);
    case RecordingService::DataAccess: return std::make_shared<DataAccessObject>(c, state);
    }
    return nullptr;
}

std::unique_ptr<sdbus::IConnection> connect(const std::string& busAddress)
{
    if (busAddress.empty()) return kavro::bus::connectToBus();
    return sdbus::createSessionBusConnectionWithAddress(busAddress);
}

// One served name: its object, on a connection of its own run by a loop of its own.
class Served {
public:
    Served(RecordingService service, State& state, const std::string& busAddress)
        : name_(kavro::bus::busName(serviceName(service))),
          loop_(std::make_unique<kavro::bus::BusLoop>(connect(busAddress)))
    {
        // The object exists before the name does, so no caller ever finds the name without it.
        object_ = makeObject(service, loop_->connection(), state);
        loop_->connection().requestName(name_);
        loop_->start();
    }

    // The name is released explicitly: the daemon might otherwise see the next test's request
    // for it before it notices that this connection has closed.
    ~Served()
    {
        loop_->stop();
        object_.reset();
        try {
            loop_->connection().releaseName(name_);
        } catch (const sdbus::Error&) {
            // The bus is gone already (a test took it away): there is nothing to release.
        }
    }

    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

private:
    std::string name_;
    std::unique_ptr<kavro::bus::BusLoop> loop_;
    std::shared_ptr<void> object_;
};

}  // namespace

class ScriptedRecordingServices::Impl {
public:
    State state;
    std::vector<std::unique_ptr<Served>> served;
};

ScriptedRecordingServices::ScriptedRecordingServices(Recording recording,
                                                     std::vector<RecordingService> serve,
                                                     const std::string& busAddress)
    : impl_(std::make_unique<Impl>())
{
    impl_->state.setRecording(std::move(recording));
    for (const auto service : serve) {
        impl_->served.push_back(std::make_unique<Served>(service, impl_->state, busAddress));
    }
}

ScriptedRecordingServices::~ScriptedRecordingServices()
{
    impl_->state.shutDown();
    impl_->served.clear();
}

void ScriptedRecordingServices::setRecording(Recording recording)
{
    impl_->state.setRecording(std::move(recording));
}

void ScriptedRecordingServices::scriptGetTracks(
    std::function<Reply<std::vector<std::string>>()> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getTracks = std::move(script); });
}

void ScriptedRecordingServices::scriptGetRecordingSummary(std::function<Reply<Span>()> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getRecordingSummary = std::move(script); });
}

void ScriptedRecordingServices::scriptGetRecordingState(
    std::function<Reply<RecordingStateAnswer>(StoreTime)> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getRecordingState = std::move(script); });
}

void ScriptedRecordingServices::scriptGetTrackSummary(
    std::function<Reply<Span>(const std::string&)> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getTrackSummary = std::move(script); });
}

void ScriptedRecordingServices::scriptGetFirstRecordingHistoryEventTime(
    std::function<Reply<StoreTime>()> script)
{
    impl_->state.changeScripts(
        [&](Scripts& s) { s.getFirstRecordingHistoryEventTime = std::move(script); });
}

void ScriptedRecordingServices::scriptGetRecordingHistoryEvent(
    std::function<Reply<HistoryEventAnswer>(StoreTime)> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getRecordingHistoryEvent = std::move(script); });
}

void ScriptedRecordingServices::scriptGetMetadata(
    std::function<Reply<MetadataAnswer>(StoreTime)> script)
{
    impl_->state.changeScripts([&](Scripts& s) { s.getMetadata = std::move(script); });
}

void ScriptedRecordingServices::failMethod(const std::string& method, int status)
{
    impl_->state.setStatusOverride(method, status);
}

void ScriptedRecordingServices::stallMethod(const std::string& method,
                                            std::chrono::milliseconds delay)
{
    impl_->state.setDelayOverride(method, delay);
}

void ScriptedRecordingServices::clearOverrides() { impl_->state.clearOverrides(); }

std::vector<std::string> ScriptedRecordingServices::modelTracks() const
{
    return impl_->state.recording()->tracks;
}

std::optional<Span> ScriptedRecordingServices::modelRecordingSummary() const
{
    return model::recordingSummary(*impl_->state.recording());
}

RecordingStateAnswer ScriptedRecordingServices::modelRecordingState(StoreTime t) const
{
    return model::recordingState(*impl_->state.recording(), t);
}

std::optional<Span> ScriptedRecordingServices::modelTrackSummary(const std::string& track) const
{
    return model::trackSummary(*impl_->state.recording(), track);
}

std::optional<StoreTime> ScriptedRecordingServices::modelFirstHistoryEventTime() const
{
    return model::firstHistoryEventTime(*impl_->state.recording());
}

std::optional<HistoryEventAnswer> ScriptedRecordingServices::modelHistoryEvent(StoreTime t) const
{
    return model::historyEvent(*impl_->state.recording(), t);
}

std::optional<MetadataAnswer> ScriptedRecordingServices::modelMetadata(StoreTime t) const
{
    return model::metadata(*impl_->state.recording(), t);
}

std::vector<ReceivedCall> ScriptedRecordingServices::calls() const
{
    return impl_->state.calls();
}

int ScriptedRecordingServices::callCount(const std::string& method) const
{
    return impl_->state.callCount(method);
}

void ScriptedRecordingServices::clearCalls() { impl_->state.clearCalls(); }

bool ScriptedRecordingServices::waitForCalls(const std::string& method, int n,
                                             std::chrono::milliseconds timeout) const
{
    return impl_->state.waitForCalls(method, n, timeout);
}

}  // namespace rstest
