// One search sent to many devices' gateways at once (libcurl, one thread), their streams merged
// into one in time order (DeviceMerge). A device that cannot be reached, refuses, fails or stalls
// gets a line of its own and leaves the merge; the others go on. The limit applies to the merged
// stream; reaching it, or a stop, ends every device's search (its stream is closed, which its
// gateway ends the search on). A device is read only while its queue has room.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/DeviceLine.h"
#include "client/DeviceList.h"
#include "client/DeviceMerge.h"
#include "client/DeviceTransfers.h"
#include "client/SearchRequest.h"

namespace rsclient {

// The API's path and JSON body for a search, as the gateway reads them back.
std::string apiPath(const SearchRequest& request);
nlohmann::ordered_json apiBody(const SearchRequest& request);

struct DeviceOutcome {
    enum class Kind { Searching, Completed, Incomplete, Failed, Dropped, Stopped };
    Kind kind = Kind::Searching;
    std::string error;        // why, unless completed or stopped
    std::size_t results = 0;  // result lines of this device that left the merge
};

const char* outcomeName(DeviceOutcome::Kind kind);

class DeviceFanout;
// The last line of a merged search: how it ended (`how`: completed, limit or interrupted), its
// results, and each device's outcome.
nlohmann::ordered_json devicesEndJson(const DeviceFanout& fanout, const char* how);

class DeviceFanout {
public:
    struct Options {
        std::size_t queueBytes = std::size_t{1} << 20;  // per device, before it is no longer read
        // A device that has not moved on for this long (a result, or progress beyond its last)
        // is left out, whatever else it sends; time it spent held back by us does not count.
        std::chrono::milliseconds stallBound{10000};
        std::chrono::milliseconds connectTimeout{5000};
        // Told of each device that fails or is dropped: its name and why.
        std::function<void(const std::string&, const std::string&)> onLeft;
        // Told when a device has been silent for half the stall bound (true), and when it moves
        // on again (false): a person sees who is waited for before it is dropped.
        std::function<void(const std::string&, bool)> onWaiting;
    };

    DeviceFanout(std::vector<Device> devices, const SearchRequest& request, Options options);
    ~DeviceFanout();

    // Until every device is done, the limit is reached, or `stopFd` becomes readable (then
    // true). `line` gets each line, a JSON object that starts with its "device", and may take
    // its time: the devices wait meanwhile. `reached` gets the least time that every device
    // still searching has passed.
    bool run(int stopFd, const std::function<void(const std::string&)>& line,
             const std::function<void(TimePoint)>& reached);

    const std::vector<Device>& devices() const { return devices_; }
    const std::vector<DeviceOutcome>& outcomes() const { return outcomes_; }
    bool limitReached() const { return limitReached_; }

    DeviceFanout(const DeviceFanout&) = delete;
    DeviceFanout& operator=(const DeviceFanout&) = delete;

private:
    class Receiver;
    struct Stream;

    DeviceTransfers::Receiver::Take received(std::size_t device, long status, const char* data,
                                             std::size_t size);
    void lineArrived(std::size_t device, std::string_view text);
    void transferDone(std::size_t device, long status, const std::string& failure);
    void advanced(std::size_t device, MergeKey to);
    void leave(std::size_t device, DeviceOutcome::Kind kind, const std::string& error);
    void emitReady(const std::function<void(const std::string&)>& line);
    void resumeOrDrop();
    std::string tagged(std::size_t device, const nlohmann::ordered_json& body) const;

    std::vector<Device> devices_;
    SearchRequest request_;
    Options options_;
    std::vector<DeviceOutcome> outcomes_;
    std::vector<Stream> streams_;
    std::unique_ptr<Receiver> receiver_;
    std::unique_ptr<DeviceTransfers> transfers_;
    std::size_t emitted_ = 0;
    bool limitReached_ = false;
    std::vector<std::string> asides_;  // lines about a device that leave at once
    DeviceMerge merge_;
};

}  // namespace rsclient
