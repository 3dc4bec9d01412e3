#include "client/DeviceFanout.h"

#include <poll.h>

#include <mutex>

#include <curl/curl.h>

#include "client/InputText.h"
#include "client/ResultJson.h"

namespace rsclient {

using Clock = std::chrono::steady_clock;
using Body = nlohmann::ordered_json;

namespace {

constexpr std::size_t kLongestLine = std::size_t{64} << 10;
constexpr std::size_t kErrorBody = 4096;

// As the API reads a duration: "2.000000s".
std::string durationField(Micros d) { return secondsText(timePointAt(d)) + "s"; }

int64_t microsOf(const nlohmann::json& j, const char* sec, const char* usec)
{
    return j.value(sec, int64_t(0)) * 1000000 + j.value(usec, int64_t(0));
}

// Where a line goes in the merge; none for a line that is not a result.
std::optional<MergeKey> keyOf(const std::string& kind, const nlohmann::json& j)
{
    if (kind == "metadata" || kind == "track" || kind == "recording")
        return MergeKey{0, microsOf(j, "sec", "usec")};
    if (kind == "span" || kind == "bucket")
        return MergeKey{0, microsOf(j, "start_sec", "start_usec")};
    if (kind == "count" || kind == "gap")
        return MergeKey{1, microsOf(j, "start_sec", "start_usec")};
    return std::nullopt;
}

void initialiseCurl()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

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

struct DeviceFanout::Transfer {
    DeviceFanout* owner = nullptr;
    std::size_t device = 0;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string body;
    std::string partial;
    std::string errorBody;
    char curlError[CURL_ERROR_SIZE] = {};
    bool added = false;
    bool paused = false;
    bool heard = false;
    Clock::time_point lastHeard;
};

DeviceFanout::DeviceFanout(std::vector<Device> devices, const SearchRequest& request,
                           Options options)
    : devices_(std::move(devices)),
      request_(request),
      options_(options),
      outcomes_(devices_.size()),
      transfers_(devices_.size()),
      merge_(devices_.size(), earlier(request.end, request.start), options.queueLines)
{
    initialiseCurl();
    multi_ = curl_multi_init();
    const std::string body = apiBody(request).dump();
    for (std::size_t d = 0; d < devices_.size(); ++d) {
        Transfer& t = transfers_[d];
        t.owner = this;
        t.device = d;
        t.body = body;
        t.easy = curl_easy_init();
        // The token goes to this device's URL only: no redirects are followed.
        t.headers =
            curl_slist_append(t.headers, ("Authorization: Bearer " + devices_[d].token).c_str());
        t.headers = curl_slist_append(t.headers, "Content-Type: application/json");
        const std::string url = devices_[d].url + apiPath(request);
        curl_easy_setopt(t.easy, CURLOPT_URL, url.c_str());
        curl_easy_setopt(t.easy, CURLOPT_HTTPHEADER, t.headers);
        curl_easy_setopt(t.easy, CURLOPT_POSTFIELDS, t.body.c_str());
        curl_easy_setopt(t.easy, CURLOPT_POSTFIELDSIZE, long(t.body.size()));
        curl_easy_setopt(t.easy, CURLOPT_WRITEFUNCTION, &DeviceFanout::onData);
        curl_easy_setopt(t.easy, CURLOPT_WRITEDATA, &t);
        curl_easy_setopt(t.easy, CURLOPT_PRIVATE, &t);
        curl_easy_setopt(t.easy, CURLOPT_ERRORBUFFER, t.curlError);
        curl_easy_setopt(t.easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(t.easy, CURLOPT_FOLLOWLOCATION, 0L);
        curl_easy_setopt(t.easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(t.easy, CURLOPT_CONNECTTIMEOUT_MS, long(options.connectTimeout.count()));
        curl_easy_setopt(t.easy, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
        if (!devices_[d].caFile.empty())
            curl_easy_setopt(t.easy, CURLOPT_CAINFO, devices_[d].caFile.c_str());
    }
}

DeviceFanout::~DeviceFanout()
{
    for (Transfer& t : transfers_) {
        if (t.added) curl_multi_remove_handle(multi_, t.easy);
        curl_easy_cleanup(t.easy);
        curl_slist_free_all(t.headers);
    }
    curl_multi_cleanup(multi_);
}

std::size_t DeviceFanout::onData(char* data, std::size_t size, std::size_t count, void* transfer)
{
    auto* t = static_cast<Transfer*>(transfer);
    return t->owner->received(t->device, data, size * count);
}

std::size_t DeviceFanout::received(std::size_t device, const char* data, std::size_t size)
{
    Transfer& t = transfers_[device];
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return 0;  // ends the transfer
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        t.errorBody.append(data,
                           std::min(size, kErrorBody - std::min(kErrorBody, t.errorBody.size())));
        return size;
    }
    if (merge_.full(device)) {
        t.paused = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    t.heard = true;
    t.lastHeard = Clock::now();
    t.partial.append(data, size);
    std::size_t from = 0;
    for (std::size_t end; (end = t.partial.find('\n', from)) != std::string::npos; from = end + 1) {
        lineArrived(device, t.partial.substr(from, end - from));
        if (outcomes_[device].kind == DeviceOutcome::Kind::Failed) return 0;
    }
    t.partial.erase(0, from);
    if (t.partial.size() > kLongestLine) {
        leave(device, DeviceOutcome::Kind::Failed, "sent a line longer than 64 KiB");
        return 0;
    }
    return size;
}

void DeviceFanout::lineArrived(std::size_t device, const std::string& text)
{
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    const auto j = nlohmann::json::parse(text, nullptr, false);
    if (!j.is_object()) {
        leave(device, DeviceOutcome::Kind::Failed,
              "sent a line that is not a JSON object: " + excerpt(text));
        return;
    }
    const std::string kind = j.value("kind", "");
    if (const auto key = keyOf(kind, j)) {
        merge_.add(device, *key, text);
    } else if (kind == "progress") {
        // A summary's lines come after its search, from its start: progress says nothing of them.
        const auto through = parseTime(j.value("through", ""), nullptr);
        if (through && request_.kind != SearchRequest::Kind::Summary)
            merge_.passed(device, MergeKey{0, sinceEpoch(*through).count()});
    } else if (kind == "notice") {
        asides_.push_back(tagged(device, text));
    } else if (kind == "completed") {
        outcomes_[device].kind = DeviceOutcome::Kind::Completed;
        merge_.finish(device);
    } else if (kind == "incomplete") {
        outcomes_[device].kind = DeviceOutcome::Kind::Incomplete;
        outcomes_[device].error = j.value("error", "a recording service failed");
        asides_.push_back(tagged(device, text));
        merge_.finish(device);
    } else if (kind == "interrupted" || kind == "ended_elsewhere") {
        leave(device, DeviceOutcome::Kind::Failed, "its search was ended on the device");
    } else if (kind == "error" || j.contains("error")) {
        leave(device, DeviceOutcome::Kind::Failed, j.value("error", "failed"));
    }
}

std::string DeviceFanout::tagged(std::size_t device, const std::string& jsonObject) const
{
    // Names are plain (letters, digits, - _ .), so they need no escaping.
    const std::string head = "{\"device\":\"" + devices_[device].name + "\"";
    return jsonObject.size() > 2 ? head + "," + jsonObject.substr(1) : head + "}";
}

void DeviceFanout::leave(std::size_t device, DeviceOutcome::Kind kind, const std::string& error)
{
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    outcomes_[device].kind = kind;
    outcomes_[device].error = error;
    merge_.finish(device);
    if (kind == DeviceOutcome::Kind::Failed || kind == DeviceOutcome::Kind::Dropped) {
        asides_.push_back(tagged(
            device, Body{{"kind", kind == DeviceOutcome::Kind::Dropped ? "dropped" : "error"},
                         {"error", error}}
                        .dump()));
    }
}

void DeviceFanout::transferDone(std::size_t device, int curlResult)
{
    Transfer& t = transfers_[device];
    curl_multi_remove_handle(multi_, t.easy);
    t.added = false;
    if (outcomes_[device].kind != DeviceOutcome::Kind::Searching) return;
    long status = 0;
    curl_easy_getinfo(t.easy, CURLINFO_RESPONSE_CODE, &status);
    if (curlResult != CURLE_OK) {
        const std::string why =
            t.curlError[0] ? t.curlError : curl_easy_strerror(CURLcode(curlResult));
        leave(
            device, DeviceOutcome::Kind::Failed,
            (t.heard ? "its stream broke: " : "cannot reach " + devices_[device].url + ": ") + why);
        return;
    }
    if (status != 200) {
        const auto j = nlohmann::json::parse(t.errorBody, nullptr, false);
        const std::string said = j.is_object() ? j.value("error", "") : excerpt(t.errorBody);
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
    for (const std::string& aside : asides_) line(aside);
    asides_.clear();
    while (!limitReached_) {
        auto next = merge_.next();
        if (!next) break;
        line(tagged(next->device, next->text));
        if (next->key.rank != 0) continue;
        ++outcomes_[next->device].results;
        if (request_.maxResults >= 0 && ++emitted_ >= std::size_t(request_.maxResults))
            limitReached_ = true;
    }
}

void DeviceFanout::resumeOrDrop()
{
    const auto now = Clock::now();
    for (std::size_t d = 0; d < transfers_.size(); ++d) {
        Transfer& t = transfers_[d];
        if (outcomes_[d].kind != DeviceOutcome::Kind::Searching) continue;
        if (t.paused) {
            if (merge_.full(d)) continue;
            t.paused = false;
            t.lastHeard = now;  // held back by us, not stalled
            curl_easy_pause(t.easy, CURLPAUSE_CONT);
        } else if (now - t.lastHeard > options_.stallBound) {
            leave(
                d, DeviceOutcome::Kind::Dropped,
                "no progress for " + durationText(options_.stallBound) + "; left out of the merge");
        }
    }
}

void DeviceFanout::removeLeft()
{
    for (std::size_t d = 0; d < transfers_.size(); ++d) {
        Transfer& t = transfers_[d];
        if (t.added && outcomes_[d].kind != DeviceOutcome::Kind::Searching &&
            outcomes_[d].kind != DeviceOutcome::Kind::Completed &&
            outcomes_[d].kind != DeviceOutcome::Kind::Incomplete) {
            // Closing the stream ends the device's search on its gateway.
            curl_multi_remove_handle(multi_, t.easy);
            t.added = false;
        }
    }
}

bool DeviceFanout::run(int stopFd, const std::function<void(const std::string&)>& line,
                       const std::function<void(TimePoint)>& reached)
{
    const auto began = Clock::now();
    for (Transfer& t : transfers_) {
        curl_multi_add_handle(multi_, t.easy);
        t.added = true;
        t.lastHeard = began;
    }
    std::optional<int64_t> lastReached;
    while (!merge_.empty()) {
        int running = 0;
        curl_multi_perform(multi_, &running);
        int queued = 0;
        while (CURLMsg* message = curl_multi_info_read(multi_, &queued)) {
            if (message->msg != CURLMSG_DONE) continue;
            Transfer* t = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &t);
            transferDone(t->device, message->data.result);
        }
        emitReady(line);
        if (limitReached_) break;
        resumeOrDrop();
        removeLeft();
        emitReady(line);
        if (const auto at = merge_.reached(); at && at->rank == 0 && at->micros != lastReached) {
            lastReached = at->micros;
            reached(timePointAt(Micros(at->micros)));
        }
        if (merge_.empty()) break;
        curl_waitfd stop{stopFd, CURL_WAIT_POLLIN, 0};
        curl_multi_poll(multi_, &stop, stopFd >= 0 ? 1 : 0, 100, nullptr);
        if (stop.revents != 0) {
            for (std::size_t d = 0; d < devices_.size(); ++d)
                leave(d, DeviceOutcome::Kind::Stopped, "");
            removeLeft();
            return true;
        }
    }
    for (std::size_t d = 0; d < devices_.size(); ++d) leave(d, DeviceOutcome::Kind::Stopped, "");
    removeLeft();
    return false;
}

}  // namespace rsclient
