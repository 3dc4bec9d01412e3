#include "MergedPrinter.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "client/InputText.h"
#include "client/ResultJson.h"

namespace recsearch {

using nlohmann::json;

namespace {

// A device's fields as they print, whatever their type: a text escaped for the terminal, a
// number or flag of another type as nothing.
std::string text(const json& j, const char* key)
{
    const auto it = j.find(key);
    return it != j.end() && it->is_string() ? printable(it->get<std::string>()) : "";
}

template <typename Number>
Number number(const json& j, const char* key)
{
    const auto it = j.find(key);
    return it != j.end() && it->is_number() ? it->get<Number>() : Number(0);
}

bool flag(const json& j, const char* key)
{
    const auto it = j.find(key);
    return it != j.end() && it->is_boolean() && it->get<bool>();
}

TimePoint timeOf(const json& j, const std::string& prefix)
{
    return TimePoint{number<uint32_t>(j, (prefix + "sec").c_str()),
                     number<uint32_t>(j, (prefix + "usec").c_str())};
}

SearchResult resultOf(const std::string& kind, const json& j)
{
    SearchResult r;
    r.kind = kind == "metadata" ? SearchResult::Kind::Metadata
             : kind == "track"  ? SearchResult::Kind::TrackState
                                : SearchResult::Kind::RecordingState;
    r.jobId = number<uint32_t>(j, "job");
    r.time = timeOf(j, "");
    r.track = text(j, "track");
    r.on = flag(j, "on");
    r.startState = flag(j, "start_state");
    return r;
}

Span spanOf(const json& j)
{
    Span span{timeOf(j, "start_"), timeOf(j, "end_"), number<std::size_t>(j, "matches"), {}};
    if (const auto classes = j.find("classes"); classes != j.end() && classes->is_array()) {
        Appeared a;
        for (const auto& name : *classes) {
            if (name.is_string()) a.classes.push_back(printable(name.get<std::string>()));
        }
        a.colour = text(j, "colour");
        a.likelihood = text(j, "likelihood");
        span.appeared = a;
    }
    return span;
}

MatchCount countOf(const json& j)
{
    return {timeOf(j, "start_"), timeOf(j, "end_"), number<std::size_t>(j, "appearances"),
            number<std::size_t>(j, "documents")};
}

// A bucket of a summary in one line: each row's seconds on.
std::string bucketText(const json& j)
{
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.1f s", number<double>(j, "recording_on_s"));
    std::string line = text(j, "start") + " .. " + text(j, "end") + "  recording " + seconds;
    if (const auto tracks = j.find("tracks"); tracks != j.end() && tracks->is_object()) {
        for (const auto& [name, on] : tracks->items()) {
            std::snprintf(seconds, sizeof seconds, "%.1f s",
                          on.is_number() ? on.get<double>() : 0.0);
            line += "  " + printable(name) + " " + seconds;
        }
    }
    return line;
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
    const std::string device = text(j, "device");
    const std::string kind = text(j, "kind");
    const std::string name =
        device + std::string(nameWidth_ > device.size() ? nameWidth_ - device.size() : 0, ' ');
    printer_.setPrefix(name + "  ");
    if (kind == "metadata" || kind == "track" || kind == "recording") {
        printer_.result(resultOf(kind, j));
    } else if (kind == "span") {
        printer_.span(number<uint32_t>(j, "job"), spanOf(j));
    } else if (kind == "count") {
        printer_.count(countOf(j));
    } else if (kind == "bucket") {
        out_ << name << "  " << bucketText(j) << '\n' << std::flush;
    } else if (kind == "gap") {
        const double seconds = std::clamp(number<double>(j, "duration_s"), 0.0, 4e9);
        out_ << name << "  gap " << text(j, "start") << " .. " << text(j, "end") << "  "
             << durationText(Micros(int64_t(seconds * 1e6))) << '\n'
             << std::flush;
    } else if (kind == "notice") {
        if (!quiet_) err_ << device << ": note: " << text(j, "message") << '\n';
    } else if (j.contains("error")) {
        err_ << device << ": " << (kind == "dropped" ? "dropped: " : "") << text(j, "error")
             << '\n';
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
