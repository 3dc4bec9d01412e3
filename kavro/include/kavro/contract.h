// The values that cross the bus, by name: the interfaces' contract in code, for the service,
// the store and every client. No D-Bus in here, so that the service's own code may use it.
// The interface XML documents the same values for `busctl introspect` readers.
#pragma once

#include <cstdint>

namespace kavro {
namespace contract {

// kavro.recording_search: GetSearchState's state.
constexpr std::uint32_t kStateUnknown = 0;  // no search with that id in the table
constexpr std::uint32_t kStateSearching = 1;
constexpr std::uint32_t kStateCompleted = 2;

// A create that is refused: two searches run already, or the table is full of running ones.
constexpr std::int32_t kRefusedJobId = -1;

// Statuses in-band of kavro.Error.Status; anything else is a refusal answered with status 0.
constexpr int kStatusOk = 0;
constexpr int kStatusUsecOutOfRange = 1;  // a microseconds field above kMaxUsec
constexpr std::uint32_t kMaxUsec = 999999;

// kavro.recording_data_access: the keys of a history event's properties, and their values.
constexpr std::uint32_t kRecordingKey = 0;  // the recording switched on or off
constexpr std::uint32_t kTrackKey = 1;      // a named track switched on or off
constexpr std::uint8_t kOff = 0;
constexpr std::uint8_t kOn = 1;

// The track whose data are the metadata documents.
constexpr const char* kMetadataTrack = "META001";

}  // namespace contract
}  // namespace kavro
