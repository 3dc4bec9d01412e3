#include "MergedPrinter.h"

#include <nlohmann/json.hpp>

#include "client/InputText.h"
#include "client/ResultJson.h"

namespace recsearch {

using nlohmann::json;

namespace {

TimePoint timeOf(const json& j, const std::string& prefix)
{
    return TimePoint{j.value(prefix + "sec", 0u), j.value(prefix + "usec", 0u)};
}

SearchResult resultOf(const std::string& kind, const json& j)
{
    SearchResult r;
    r.kind = kind == "metadata" ? SearchResult::Kind::Metadata
             : kind == "track"  ? SearchResult::Kind::TrackState
                                : SearchResult::Kind::RecordingState;
    r.jobId = j.value("job", 0u);
    r.time = timeOf(j, "");
    r.track = j.value("track", "");
    r.on = j.value("on", false);
    r.startState = j.value("start_state", false);
    return r;
}

Span spanOf(const json& j)
{
    Span span{timeOf(j, "start_"), timeOf(j, "end_"), j.value("matches", std::size_t(0)), {}};
    if (j.contains("classes")) {
        Appeared a;
        a.classes = j.value("classes", std::vector<std::string>{});
        a.colour = j.value("colour", "");
        a.likelihood = j.value("likelihood", "");
        span.appeared = a;
    }
    return span;
}

MatchCount countOf(const json& j)
{
    return {timeOf(j, "start_"), timeOf(j, "end_"), j.value("appearances", std::size_t(0)),
            j.value("documents", std::size_t(0))};
}

// A bucket of a summary in one line: each row's seconds on.
std::string bucketText(const json& j)
{
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", j.value("recording_on_s", 0.0));
    std::string text =
        j.value("start", "") + " .. " + j.value("end", "") + "  recording " + seconds;
    if (const auto tracks = j.find("tracks"); tracks != j.end() && tracks->is_object()) {
        for (const auto& [name, on] : tracks->items()) {
            std::snprintf(seconds, sizeof seconds, "%.1f s",
                          on.is_number() ? on.get<double>() : 0.0);
            text += "  " + printable(name) + " " + seconds;
        }
    }
    return text;
}

}  // namespace

MergedPrinter::MergedPrinter(std::ostream& out, std::ostream& err, bool json, bool quiet,
                             std::size_t nameWidth)
    : out_(out),
      err_(err),
      json_(json),
      quiet_(quiet),
      nameWidth_(nameWidth),
      printer_(out, err, false)
{
}

void MergedPrinter::line(const std::string& jsonLine)
{
    if (json_) {
        out_ << jsonLine << '\n' << std::flush;
        return;
    }
    const json j = json::parse(jsonLine, nullptr, false);
    if (!j.is_object()) return;
    const std::string device = j.value("device", "");
    const std::string kind = j.value("kind", "");
    const std::string name =
        device + std::string(nameWidth_ > device.size() ? nameWidth_ - device.size() : 0, ' ');
    printer_.setPrefix(name + "  ");
    if (kind == "metadata" || kind == "track" || kind == "recording") {
        printer_.result(resultOf(kind, j));
    } else if (kind == "span") {
        printer_.span(j.value("job", 0u), spanOf(j));
    } else if (kind == "count") {
        printer_.count(countOf(j));
    } else if (kind == "bucket") {
        out_ << name << "  " << bucketText(j) << '\n' << std::flush;
    } else if (kind == "gap") {
        out_ << name << "  gap " << j.value("start", "") << " .. " << j.value("end", "") << "  "
             << durationText(Micros(int64_t(j.value("duration_s", 0.0) * 1e6))) << '\n'
             << std::flush;
    } else if (kind == "notice") {
        if (!quiet_) err_ << device << ": note: " << printable(j.value("message", "")) << '\n';
    } else if (j.contains("error")) {
        err_ << device << ": " << (kind == "dropped" ? "dropped: " : "")
             << printable(j.value("error", "")) << '\n';
    }
}

void MergedPrinter::end(const rsclient::DeviceFanout& fanout, const char* how)
{
    const auto last = rsclient::devicesEndJson(fanout, how);
    if (json_) {
        out_ << last.dump() << '\n' << std::flush;
        return;
    }
    if (quiet_) return;
    for (const auto& device : last["devices"]) {
        const std::size_t results = device["results"];
        err_ << device["device"].get<std::string>() << ": " << device["outcome"].get<std::string>()
             << ", " << results << (results == 1 ? " result" : " results");
        if (device.contains("error"))
            err_ << " (" << printable(device["error"].get<std::string>()) << ")";
        err_ << '\n';
    }
    err_ << how << ": " << last["results"].get<std::size_t>() << " results from "
         << last["devices"].size() << " devices\n";
}

}  // namespace recsearch
