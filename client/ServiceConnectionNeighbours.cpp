// ServiceConnection's calls to the search's neighbours on the same connection: recording_index
// (its state and its matches) and recording_information (the recording's span, for progress).
#include <sdbus-c++/sdbus-c++.h>

#include "client/ClientError.h"
#include "client/MetadataFilter.h"
#include "client/ServiceConnection.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/generated/recording_control_proxy.h"
#include "kavro/generated/recording_index_proxy.h"
#include "kavro/generated/recording_information_proxy.h"

namespace rsclient {

namespace {

constexpr std::chrono::seconds kIndexTimeout{5};
constexpr std::chrono::seconds kSpanTimeout{2};

// A proxy of another service on the same connection, for a call or two.
std::unique_ptr<sdbus::IProxy> neighbour(sdbus::IConnection& connection, const std::string& service)
{
    return sdbus::createProxy(connection, kavro::bus::busName(service),
                              kavro::bus::objectPath(service));
}

int64_t micros(TimePoint t) { return int64_t(t.sec) * 1000000 + t.usec; }
TimePoint timeOf(int64_t micros)
{
    return TimePoint{uint32_t(micros / 1000000), uint32_t(micros % 1000000)};
}

}  // namespace

std::optional<IndexState> ServiceConnection::indexState()
{
    IndexState state;
    try {
        call(
            "GetIndexState",
            [&] {
                auto proxy = neighbour(loop_->connection(), "recording_index");
                int64_t from = 0, through = 0;
                proxy->callMethod("GetIndexState")
                    .onInterface(kavro::recording_index_proxy::INTERFACE_NAME)
                    .withTimeout(kIndexTimeout)
                    .storeResultsTo(from, through, state.documents, state.bytes, state.state);
                state.from = timeOf(from);
                state.through = timeOf(through);
            },
            "recording_index");
    } catch (const ClientError& e) {
        if (e.kind() != ErrorKind::Busy) return std::nullopt;
        state = IndexState{};
        state.state = "busy";
    }
    return state;
}

bool ServiceConnection::indexMatches(TimePoint from, TimePoint to, const MetadataFilter& filter,
                                     uint32_t limit, std::vector<IndexMatch>& page)
{
    using Match =
        sdbus::Struct<int64_t, std::string, std::string, std::string, std::vector<std::string>>;
    std::vector<Match> matches;
    bool more = false;
    std::vector<std::string> region;
    if (filter.region) {
        region = {filter.region->left, filter.region->top, filter.region->right,
                  filter.region->bottom};
    }
    call(
        "FindMatches",
        [&] {
            auto proxy = neighbour(loop_->connection(), "recording_index");
            proxy->callMethod("FindMatches")
                .onInterface(kavro::recording_index_proxy::INTERFACE_NAME)
                .withTimeout(kIndexTimeout)
                .withArguments(micros(from), micros(to), limit, filter.classes, filter.colour,
                               filter.minLikelihood, region, filter.motion)
                .storeResultsTo(matches, more);
        },
        "recording_index");
    page.clear();
    for (auto& m : matches) {
        page.push_back(IndexMatch{timeOf(std::get<0>(m)), std::move(std::get<1>(m)),
                                  std::move(std::get<2>(m)), std::move(std::get<3>(m)),
                                  std::move(std::get<4>(m))});
    }
    return more;
}

bool ServiceConnection::indexXPathMatches(TimePoint from, TimePoint to, const std::string& xpath,
                                          uint32_t limit, std::vector<IndexMatch>& page,
                                          TimePoint& through)
{
    std::vector<int64_t> times;
    bool more = false;
    int64_t reached = 0;
    call(
        "FindXPathMatches",
        [&] {
            auto proxy = neighbour(loop_->connection(), "recording_index");
            proxy->callMethod("FindXPathMatches")
                .onInterface(kavro::recording_index_proxy::INTERFACE_NAME)
                .withTimeout(kIndexTimeout)
                .withArguments(micros(from), micros(to), limit, xpath)
                .storeResultsTo(times, more, reached);
        },
        "recording_index");
    page.clear();
    for (const int64_t t : times) page.push_back(IndexMatch{timeOf(t), "", "", "", {}});
    through = timeOf(reached);
    return more;
}

std::optional<std::pair<TimePoint, TimePoint>> ServiceConnection::recordingSpan()
{
    std::pair<TimePoint, TimePoint> span;
    try {
        call(
            "GetRecordingSummary",
            [&] {
                auto proxy = neighbour(loop_->connection(), "recording_information");
                proxy->callMethod("GetRecordingSummary")
                    .onInterface(kavro::recording_information_proxy::INTERFACE_NAME)
                    .withTimeout(kSpanTimeout)
                    .storeResultsTo(span.first.sec, span.first.usec, span.second.sec,
                                    span.second.usec);
            },
            "recording_information");
    } catch (const ClientError&) {
        return std::nullopt;
    }
    return span;
}

std::vector<std::pair<std::string, std::optional<std::pair<TimePoint, TimePoint>>>>
ServiceConnection::trackSpans()
{
    std::vector<std::string> tracks;
    call(
        "GetTracks",
        [&] {
            auto proxy = neighbour(loop_->connection(), "recording_control");
            proxy->callMethod("GetTracks")
                .onInterface(kavro::recording_control_proxy::INTERFACE_NAME)
                .withTimeout(kSpanTimeout)
                .storeResultsTo(tracks);
        },
        "recording_control");
    std::vector<std::pair<std::string, std::optional<std::pair<TimePoint, TimePoint>>>> spans;
    for (const auto& track : tracks) {
        std::pair<TimePoint, TimePoint> span;
        try {
            call(
                "GetTrackSummary",
                [&] {
                    auto proxy = neighbour(loop_->connection(), "recording_information");
                    proxy->callMethod("GetTrackSummary")
                        .onInterface(kavro::recording_information_proxy::INTERFACE_NAME)
                        .withTimeout(kSpanTimeout)
                        .withArguments(track)
                        .storeResultsTo(span.first.sec, span.first.usec, span.second.sec,
                                        span.second.usec);
                },
                "recording_information");
            spans.emplace_back(track, span);
        } catch (const ClientError& e) {
            if (e.kind() != ErrorKind::StatusError) throw;
            spans.emplace_back(track, std::nullopt);  // the track has no data
        }
    }
    return spans;
}

bool ServiceConnection::recordingOnAt(TimePoint t)
{
    uint8_t state = 0;
    std::vector<std::string> tracksOn;
    call(
        "GetRecordingState",
        [&] {
            auto proxy = neighbour(loop_->connection(), "recording_information");
            proxy->callMethod("GetRecordingState")
                .onInterface(kavro::recording_information_proxy::INTERFACE_NAME)
                .withTimeout(kSpanTimeout)
                .withArguments(t.sec, t.usec)
                .storeResultsTo(state, tracksOn);
        },
        "recording_information");
    return state != 0;
}

}  // namespace rsclient
