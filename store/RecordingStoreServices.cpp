#include "store/RecordingStoreServices.h"

#include <exception>

#include "kavro/bus/Contract.h"
#include "kavro/generated/recording_control_adaptor.h"
#include "kavro/generated/recording_data_access_adaptor.h"
#include "kavro/generated/recording_information_adaptor.h"
#include "store/Recording.h"
#include "store/StoreError.h"

namespace store {

const char* const RecordingStoreServices::kServiceNames[3] = {
    "recording_control", "recording_information", "recording_data_access"};

namespace {

// What every handler shares: the recording, the log, and turning a failure into the status
// the client receives. sdbus-c++ passes on only sdbus::Error, so nothing else may escape.
class Answerer {
public:
    Answerer(Recording& recording, void* logCookie) : recording_(recording), logCookie_(logCookie)
    {
    }

protected:
    template <typename Fn>
    auto answer(const char* method, Fn&& fn) -> decltype(fn())
    {
        try {
            const Recording::Snapshot snapshot(recording_);
            return fn();
        } catch (const sdbus::Error&) {
            throw;
        } catch (const std::exception& e) {
            kavro_core_logging_log(logCookie_, 3, "%s failed: %s", method, e.what());
            throw kavro::bus::statusError(kavro_core_status(kStatusStoreFailure));
        }
    }

    [[noreturn]] void refuse(const char* method, StoreStatus status, const char* why)
    {
        kavro_core_logging_log(logCookie_, 7, "%s: %s", method, why);
        throw kavro::bus::statusError(kavro_core_status(status));
    }

    Recording& recording_;
    void* logCookie_;
};

std::tuple<uint32_t, uint32_t, uint32_t, uint32_t> spanReply(const TimeSpan& span)
{
    return {span.start.sec, span.start.usec, span.end.sec, span.end.usec};
}

}  // namespace

class RecordingStoreServices::Control final
    : public sdbus::AdaptorInterfaces<kavro::recording_control_adaptor>,
      private Answerer {
public:
    Control(sdbus::IConnection& connection, Recording& recording, void* logCookie)
        : AdaptorInterfaces(connection, kavro::bus::objectPath("recording_control")),
          Answerer(recording, logCookie)
    {
        registerAdaptor();
    }
    ~Control() { unregisterAdaptor(); }

private:
    std::vector<std::string> GetTracks() override
    {
        return answer("GetTracks", [&] { return recording_.tracks(); });
    }
};

class RecordingStoreServices::Information final
    : public sdbus::AdaptorInterfaces<kavro::recording_information_adaptor>,
      private Answerer {
public:
    Information(sdbus::IConnection& connection, Recording& recording, void* logCookie)
        : AdaptorInterfaces(connection, kavro::bus::objectPath("recording_information")),
          Answerer(recording, logCookie)
    {
        registerAdaptor();
    }
    ~Information() { unregisterAdaptor(); }

private:
    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t> GetRecordingSummary() override
    {
        return answer("GetRecordingSummary", [&] {
            const auto span = recording_.summary();
            if (!span) refuse("GetRecordingSummary", kStatusNoData, "the recording is empty");
            return spanReply(*span);
        });
    }

    std::tuple<uint8_t, std::vector<std::string>> GetRecordingState(const uint32_t& sec,
                                                                    const uint32_t& usec) override
    {
        return answer("GetRecordingState", [&] {
            RecordingState state = recording_.stateAt(StoreTime{sec, usec});
            return std::make_tuple(state.state, std::move(state.tracksOn));
        });
    }

    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t> GetTrackSummary(
        const std::string& track) override
    {
        return answer("GetTrackSummary", [&] {
            const auto span = recording_.trackSummary(track);
            if (span) return spanReply(*span);
            if (!recording_.hasTrack(track))
                refuse("GetTrackSummary", kStatusUnknownTrack, "unknown track");
            refuse("GetTrackSummary", kStatusNoData, "the track has no data");
        });
    }
};

class RecordingStoreServices::DataAccess final
    : public sdbus::AdaptorInterfaces<kavro::recording_data_access_adaptor>,
      private Answerer {
public:
    DataAccess(sdbus::IConnection& connection, Recording& recording, void* logCookie)
        : AdaptorInterfaces(connection, kavro::bus::objectPath("recording_data_access")),
          Answerer(recording, logCookie)
    {
        registerAdaptor();
    }
    ~DataAccess() { unregisterAdaptor(); }

private:
    std::tuple<uint32_t, uint32_t> GetFirstRecordingHistoryEventTime() override
    {
        return answer("GetFirstRecordingHistoryEventTime", [&] {
            const auto first = recording_.firstHistoryEventTime();
            if (!first)
                refuse("GetFirstRecordingHistoryEventTime", kStatusNoData, "no history events");
            return std::make_tuple(first->sec, first->usec);
        });
    }

    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::vector<std::string>,
               std::vector<uint32_t>, std::vector<uint32_t>>
    GetRecordingHistoryEvent(const uint32_t& sec, const uint32_t& usec) override
    {
        return answer("GetRecordingHistoryEvent", [&] {
            auto event = recording_.historyEventAt(StoreTime{sec, usec});
            if (!event) refuse("GetRecordingHistoryEvent", kStatusNoData, "no history events");
            std::vector<std::string> names;
            std::vector<uint32_t> keys, values;
            for (EventProperty& property : event->properties) {
                names.push_back(std::move(property.name));
                keys.push_back(property.key);
                values.push_back(property.value);
            }
            const Neighbours& t = event->times;
            return std::make_tuple(t.cur.sec, t.cur.usec, t.prev.sec, t.prev.usec, t.next.sec,
                                   t.next.usec, std::move(names), std::move(keys),
                                   std::move(values));
        });
    }

    std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, std::string> GetMetadata(
        const uint32_t& sec, const uint32_t& usec) override
    {
        return answer("GetMetadata", [&] {
            auto document = recording_.metadataAt(StoreTime{sec, usec});
            if (!document) refuse("GetMetadata", kStatusNoData, "no metadata documents");
            const Neighbours& t = document->times;
            return std::make_tuple(t.cur.sec, t.cur.usec, t.prev.sec, t.prev.usec, t.next.sec,
                                   t.next.usec, std::move(document->body));
        });
    }
};

RecordingStoreServices::RecordingStoreServices(sdbus::IConnection& connection, Recording& recording,
                                               void* logCookie)
    : control_(std::make_unique<Control>(connection, recording, logCookie)),
      information_(std::make_unique<Information>(connection, recording, logCookie)),
      dataAccess_(std::make_unique<DataAccess>(connection, recording, logCookie))
{
}

RecordingStoreServices::~RecordingStoreServices() = default;

}  // namespace store
