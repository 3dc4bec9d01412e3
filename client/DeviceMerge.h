// Many devices' searches as one stream in time order. A line at time T leaves only once every
// device still searching has passed T: it sent a line or a progress report beyond T, or ended.
// Ties leave in the devices' order. Each device's lines arrive in its own time order (forward:
// ascending, backward: descending), within a rank: lines that a search sends after all of
// another kind (counts after appearances, gaps after buckets) have a higher rank, and all of a
// rank leave before any of the next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace rsclient {

struct MergeKey {
    int rank = 0;
    int64_t micros = 0;
};

class DeviceMerge {
public:
    // `capacity`: bytes of queued lines a device may hold before full() asks to stop reading it.
    DeviceMerge(std::size_t devices, bool backward, std::size_t capacity);

    void add(std::size_t device, MergeKey key, std::string line);
    // The device has searched through `key`: no line before it is still to come.
    void passed(std::size_t device, MergeKey key);
    // No more lines will come from the device (its queued ones still leave).
    void finish(std::size_t device);

    bool full(std::size_t device) const;
    bool finished(std::size_t device) const { return devices_[device].finished; }
    // The least point that every device still searching has passed, if all have passed one.
    std::optional<MergeKey> reached() const;

    struct Line {
        std::size_t device;
        MergeKey key;
        std::string text;
    };
    // The next line that may leave, if any.
    std::optional<Line> next();
    bool empty() const;  // every device finished and every line out

private:
    struct Queue {
        std::deque<std::pair<MergeKey, std::string>> lines;
        std::size_t bytes = 0;
        std::optional<MergeKey> passed;
        bool finished = false;
    };

    bool before(const MergeKey& a, const MergeKey& b) const;
    // Whether the device, with nothing queued, can no longer send anything to go before a line
    // at `key` from device `from`.
    bool isPast(std::size_t device, const MergeKey& key, std::size_t from) const;

    std::vector<Queue> devices_;
    bool backward_;
    std::size_t capacity_;
};

}  // namespace rsclient
