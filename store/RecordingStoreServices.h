// The three recording services (recording_control, recording_information,
// recording_data_access) as D-Bus objects answering from one Recording.
//
// Threads: every handler runs on the thread that processes the connection (the bus loop),
// which is also the only user of the Recording, so nothing here locks.
#pragma once

#include <memory>

#include <sdbus-c++/sdbus-c++.h>

#include "kavro/core.h"

namespace store {

class Recording;

// The store's own failure statuses, as the clients receive them.
enum StoreStatus : int {
    kStatusNoData = KAVRO_STATUS_FAILED,  // an empty recording, or a track without data
    kStatusUnknownTrack = 2,
    kStatusStoreFailure = 3,  // the recording file could not be read
};

class RecordingStoreServices {
public:
    // Registers the three objects on the connection; their bus names are the caller's to own.
    RecordingStoreServices(sdbus::IConnection& connection, Recording& recording, void* logCookie);
    ~RecordingStoreServices();

    static const char* const kServiceNames[3];

    RecordingStoreServices(const RecordingStoreServices&) = delete;
    RecordingStoreServices& operator=(const RecordingStoreServices&) = delete;

private:
    class Control;
    class Information;
    class DataAccess;

    std::unique_ptr<Control> control_;
    std::unique_ptr<Information> information_;
    std::unique_ptr<DataAccess> dataAccess_;
};

}  // namespace store
