#include "client/DeviceFanout.h"

#include "client/InputText.h"
#include "client/ResultJson.h"

namespace rsclient {

using Clock = std::chrono::steady_clock;
using Body = nlohmann::ordered_json;

namespace {

constexpr std::size_t kLongestLine = std::size_t{64} << 10;
constexpr std::size_t kErrorBody = 4096;
constexpr std::chrono::milliseconds kWaitAtMost{100};

// As the API reads a duration: "2.000000s".
std::string durationField(Micros d) { return secondsText(timePointAt(d)) + "s"; }

}  // namespace

std::string apiPath(const SearchRequest& request)
{
    switch (request.kind) {
    case SearchRequest::Kind::Events: return "/api/v1/events";
    case SearchRequest::Kind::Metadata: return "/api/v1/metadata";
    case SearchRequest::Kind::Summary: return "/api/v1/summary";
    case SearchRequest::Kind::Noop: break;
    }
    return "/api/v1/status";
}

Body apiBody(const SearchRequest& r)
{
    Body body = {{"start", secondsText(r.start)}, {"end", secondsText(r.end)}};
    if (r.maxResults >= 0 && r.kind != SearchRequest::Kind::Summary)
        body["maxResults"] = r.maxResults;
    if (r.kind == SearchRequest::Kind::Events) body["startState"] = r.startState;
    if (r.kind == SearchRequest::Kind::Summary && r.bucket.count() > 0)
        body["bucket"] = durationField(r.bucket);
    if (r.kind == SearchRequest::Kind::Summary && r.bucketOrigin)
        body["alignTo"] = secondsText(timePointAt(*r.bucketOrigin));
    if (r.kind != SearchRequest::Kind::Metadata) return body;
    if (const auto& f = r.filter) {
        if (!f->classes.empty()) body["class"] = f->classes;
        if (!f->colour.empty()) body["colour"] = f->colour;
        if (!f->minLikelihood.empty()) body["minLikelihood"] = f->minLikelihood;
        if (const auto& g = f->region) body["region"] = {g->left, g->top, g->right, g->bottom};
        if (f->motion) body["motion"] = true;
    } else {
        body["xpath"] = r.xpath;
    }
    if (r.walk) body["walk"] = true;
    if (r.spanGap) body["spans"] = durationField(*r.spanGap);
    if (r.minDuration.count() > 0) body["minDuration"] = durationField(r.minDuration);
    if (r.countBucket.count() > 0) body["counts"] = durationField(r.countBucket);
    return body;
}

const char* outcomeName(DeviceOutcome::Kind kind)
{
    switch (kind) {
    case DeviceOutcome::Kind::Searching: return "searching";
    case DeviceOutcome::Kind::Completed: return "completed";
    case DeviceOutcome::Kind::Incomplete: return "incomplete";
    case DeviceOutcome::Kind::Failed: return "failed";
    case DeviceOutcome::Kind::Dropped: return "dropped";
    case DeviceOutcome::Kind::Stopped: return "stopped";
    }
    return "unknown";
}

Body devicesEndJson(const DeviceFanout& fanout, const char* how)
{
    std::size_t results = 0;
    Body list = Body::array();
    for (std::size_t d = 0; d < fanout.devices().size(); ++d) {
        const DeviceOutcome& outcome = fanout.outcomes()[d];
        results += outcome.results;
        Body entry = {{"device", fanout.devices()[d].name},
                      {"outcome", outcomeName(outcome.kind)},
                      {"results", outcome.results}};
        if (!outcome.error.empty()) entry["error"] = outcome.error;
        list.push_back(entry);
    }
    return {{"kind", how}, {"results", results}, {"devices", list}};
}

class DeviceFanout::Receiver : public DeviceTransfers::Receiver {
public:
    explicit Receiver(DeviceFanout& fanout) : fanout_(fanout) {}
    Take bytes(std::size_t device, long status, const char* data, std::size_t size) override
    {
        return fanout_.received(device, status, data, size);
    }
    void done(std::size_t device, long status, const std::string& failure) override
    {
        fanout_.transferDone(device, status, failure);
    }

private:
    DeviceFanout& fanout_;
};

struct DeviceFanout::Stream {
    DeviceLineReader reader;
    std::string partial;
    std::string errorBody;
    bool heard = false;
    std::optional<MergeKey> furthest;  // the furthest it has come, by results or progress
    Clock::time_point movedAt;         // when it last came further
    bool waiting = false;              // silent for half the stall bound: said once
};

DeviceFanout::DeviceFanout(std::vector<Device> devices, const SearchRequest& request,
                           Options options)
    : devices_(std::move(devices)),
      request_(request),
      options_(std::move(options)),
      outcomes_(devices_.size()),
      receiver_(std::make_unique<Receiver>(*this)),
      merge_(devices_.size(), earlier(request.end, request.start), options_.queueBytes)
{
    for (const Device& device : devices_) {
        streams_.push_back(Stream{DeviceLineReader(device.name, request), "", "", false, {}, {}});
    }
    transfers_ = std::make_unique<DeviceTransfers>(
        devices_, apiPath(request), apiBody(request).dump(), options_.connectTimeout, *receiver_);
}

DeviceFanout::~DeviceFanout() = default;

DeviceTransfers::Receiver::Take DeviceFanout::received(std::size_t device, long status,
                                                       const char* data, std::size_t size)
{
    using Take = DeviceTransfers::Receiver::Take;
    Stream& s = streams_[device];
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return Take::Abort;
    if (status != 200) {
        s.errorBody.append(data,
                           std::min(size, kErrorBody - std::min(kErrorBody, s.errorBody.size())));
        return Take::All;
    }
    if (merge_.full(device)) return Take::Pause;
    s.heard = true;
    s.partial.append(data, size);
    std::size_t from = 0;
    for (std::size_t end; (end = s.partial.find('\n', from)) != std::string::npos; from = end + 1) {
        lineArrived(device, std::string_view(s.partial).substr(from, end - from));
        if (outcomes_[device].kind != DeviceOutcome::Kind::Searching &&
            outcomes_[device].kind != DeviceOutcome::Kind::Completed &&
            outcomes_[device].kind != DeviceOutcome::Kind::Incomplete) {
            return Take::Abort;
        }
    }
    s.partial.erase(0, from);
    if (s.partial.size() > kLongestLine) {
        leave(device, DeviceOutcome::Kind::Failed, "sent a line longer than 64 KiB");
        return Take::Abort;
    }
    return Take::All;
}

// The device came as far as `to`: only beyond where it was counts, so that a device that sends
// the same line, or anything but progress, again and again is still found stalled.
void DeviceFanout::advanced(std::size_t device, MergeKey to)
{
    Stream& s = streams_[device];
    const bool backward = earlier(request_.end, request_.start);
    const bool beyond =
        !s.furthest || to.rank > s.furthest->rank ||
        (to.rank == s.furthest->rank &&
         (backward ? to.micros < s.furthest->micros : to.micros > s.furthest->micros));
    if (!beyond) return;
    s.furthest = to;
    s.movedAt = Clock::now();
}

void DeviceFanout::lineArrived(std::size_t device, std::string_view text)
{
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    DeviceLine line = streams_[device].reader.read(text);
    switch (line.kind) {
    case DeviceLine::Kind::Result:
        merge_.add(device, line.key, std::move(line.text));
        streams_[device].movedAt = Clock::now();  // each result is news, even at a tie
        advanced(device, line.key);
        break;
    case DeviceLine::Kind::Progress:
        // A summary's lines come after its search, from its start: progress says nothing of them.
        if (request_.kind != SearchRequest::Kind::Summary) merge_.passed(device, line.key);
        advanced(device, MergeKey{0, line.searched});
        break;
    case DeviceLine::Kind::Aside: asides_.push_back(std::move(line.text)); break;
    case DeviceLine::Kind::Completed:
        outcomes_[device].kind = DeviceOutcome::Kind::Completed;
        merge_.finish(device);
        break;
    case DeviceLine::Kind::Incomplete:
        outcomes_[device].kind = DeviceOutcome::Kind::Incomplete;
        outcomes_[device].error = line.error;
        asides_.push_back(std::move(line.text));
        merge_.finish(device);
        break;
    case DeviceLine::Kind::Failed: leave(device, DeviceOutcome::Kind::Failed, line.error); break;
    case DeviceLine::Kind::Other: break;
    }
}

std::string DeviceFanout::tagged(std::size_t device, const Body& body) const
{
    Body out = {{"device", devices_[device].name}};
    out.update(body);
    return out.dump(-1, ' ', false, Body::error_handler_t::replace);
}

void DeviceFanout::leave(std::size_t device, DeviceOutcome::Kind kind, const std::string& error)
{
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    outcomes_[device].kind = kind;
    outcomes_[device].error = error;
    merge_.finish(device);
    if (kind != DeviceOutcome::Kind::Failed && kind != DeviceOutcome::Kind::Dropped) return;
    Body aside = {{"kind", kind == DeviceOutcome::Kind::Dropped ? "dropped" : "error"},
                  {"error", error}};
    // Where its answer stops: nothing of it after (or, backward, before) this time.
    if (const auto& furthest = streams_[device].furthest) {
        aside["after"] = isoText(timePointAt(Micros(furthest->micros)));
        aside["after_sec"] = furthest->micros / 1000000;
    }
    asides_.push_back(tagged(device, aside));
    if (options_.onLeft) options_.onLeft(devices_[device].name, error);
}

void DeviceFanout::transferDone(std::size_t device, long status, const std::string& failure)
{
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    const Stream& s = streams_[device];
    if (!failure.empty()) {
        leave(device, DeviceOutcome::Kind::Failed,
              (s.heard ? "its stream broke: " : "cannot be reached: ") + failure);
        return;
    }
    if (status != 200) {
        const std::string said = errorBodyText(s.errorBody);
        std::string what = "answered HTTP " + std::to_string(status);
        if (status == 401) what = "refused the token (HTTP 401)";
        if (status == 429) what = "is busy (HTTP 429)";
        leave(device, DeviceOutcome::Kind::Failed, what + (said.empty() ? "" : ": " + said));
        return;
    }
    leave(device, DeviceOutcome::Kind::Failed, "its stream ended before its search did");
}

void DeviceFanout::emitReady(const std::function<void(const std::string&)>& line)
{
    const auto began = Clock::now();
    for (const std::string& aside : asides_) line(aside);
    asides_.clear();
    while (!limitReached_) {
        auto next = merge_.next();
        if (!next) break;
        line(next->text);
        if (next->key.rank != 0) continue;
        ++outcomes_[next->device].results;
        if (request_.maxResults >= 0 && ++emitted_ >= std::size_t(request_.maxResults))
            limitReached_ = true;
    }
    // Time spent waiting for our own reader held every device back: none of it is a stall.
    const auto held = Clock::now() - began;
    for (Stream& s : streams_) s.movedAt += held;
}

void DeviceFanout::resumeOrDrop()
{
    const auto now = Clock::now();
    for (std::size_t d = 0; d < streams_.size(); ++d) {
        if (outcomes_[d].kind != DeviceOutcome::Kind::Searching) continue;
        if (transfers_->paused(d)) {
            streams_[d].movedAt = now;  // held back by us, not stalled
            if (!merge_.full(d)) transfers_->resume(d);
        }
        const bool silent = now - streams_[d].movedAt > options_.stallBound / 2;
        if (options_.onWaiting && silent != streams_[d].waiting) {
            streams_[d].waiting = silent;
            options_.onWaiting(devices_[d].name, silent);
        }
        if (!transfers_->paused(d) && now - streams_[d].movedAt > options_.stallBound) {
            leave(d, DeviceOutcome::Kind::Dropped,
                  "did not move on for " + durationText(options_.stallBound) +
                      "; left out of the merge");
        }
    }
    for (std::size_t d = 0; d < streams_.size(); ++d) {
        const auto kind = outcomes_[d].kind;
        // Closing the stream ends the device's search on its gateway.
        if (kind == DeviceOutcome::Kind::Failed || kind == DeviceOutcome::Kind::Dropped ||
            kind == DeviceOutcome::Kind::Stopped) {
            transfers_->close(d);
        }
    }
}

bool DeviceFanout::run(int stopFd, const std::function<void(const std::string&)>& line,
                       const std::function<void(TimePoint)>& reached)
{
    for (Stream& s : streams_) s.movedAt = Clock::now();
    transfers_->startAll();
    std::optional<int64_t> lastReached;
    bool stopped = false;
    while (true) {
        transfers_->perform();
        emitReady(line);
        if (limitReached_) break;
        resumeOrDrop();
        emitReady(line);
        if (const auto at = merge_.reached(); at && at->rank == 0 && at->micros != lastReached) {
            lastReached = at->micros;
            reached(timePointAt(Micros(at->micros)));
        }
        if (merge_.empty() || limitReached_) break;
        if ((stopped = transfers_->wait(kWaitAtMost, stopFd))) break;
    }
    for (std::size_t d = 0; d < devices_.size(); ++d) leave(d, DeviceOutcome::Kind::Stopped, "");
    resumeOrDrop();
    return stopped;
}

}  // namespace rsclient
