#include "client/DeviceMerge.h"

namespace rsclient {

DeviceMerge::DeviceMerge(std::size_t devices, bool backward, std::size_t capacity)
    : devices_(devices), backward_(backward), capacity_(capacity)
{
}

bool DeviceMerge::before(const MergeKey& a, const MergeKey& b) const
{
    if (a.rank != b.rank) return a.rank < b.rank;
    return backward_ ? a.micros > b.micros : a.micros < b.micros;
}

void DeviceMerge::add(std::size_t device, MergeKey key, std::string line)
{
    Queue& q = devices_[device];
    q.bytes += line.size();
    q.lines.emplace_back(key, std::move(line));
    passed(device, key);
}

void DeviceMerge::passed(std::size_t device, MergeKey key)
{
    Queue& q = devices_[device];
    if (!q.passed || before(*q.passed, key)) q.passed = key;
}

void DeviceMerge::finish(std::size_t device) { devices_[device].finished = true; }

bool DeviceMerge::full(std::size_t device) const { return devices_[device].bytes >= capacity_; }

bool DeviceMerge::isPast(std::size_t device, const MergeKey& key, std::size_t from) const
{
    const Queue& q = devices_[device];
    if (q.finished) return true;
    if (!q.passed) return false;
    if (before(key, *q.passed)) return true;
    // At the same point: a later device's line at it would leave after this one anyway.
    return !before(*q.passed, key) && device > from;
}

std::optional<DeviceMerge::Line> DeviceMerge::next()
{
    std::optional<std::size_t> first;
    for (std::size_t d = 0; d < devices_.size(); ++d) {
        if (devices_[d].lines.empty()) continue;
        if (!first || before(devices_[d].lines.front().first, devices_[*first].lines.front().first))
            first = d;
    }
    if (!first) return std::nullopt;
    const MergeKey key = devices_[*first].lines.front().first;
    for (std::size_t d = 0; d < devices_.size(); ++d) {
        if (d != *first && devices_[d].lines.empty() && !isPast(d, key, *first))
            return std::nullopt;
    }
    Queue& q = devices_[*first];
    q.bytes -= q.lines.front().second.size();
    Line line{*first, key, std::move(q.lines.front().second)};
    q.lines.pop_front();
    return line;
}

std::optional<MergeKey> DeviceMerge::reached() const
{
    std::optional<MergeKey> least;
    for (const Queue& q : devices_) {
        if (q.finished) continue;
        if (!q.passed) return std::nullopt;
        if (!least || before(*q.passed, *least)) least = q.passed;
    }
    return least;
}

bool DeviceMerge::empty() const
{
    for (const Queue& q : devices_) {
        if (!q.finished || !q.lines.empty()) return false;
    }
    return true;
}

}  // namespace rsclient
