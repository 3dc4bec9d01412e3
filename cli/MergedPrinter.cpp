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
    const auto& devices = fanout.devices();
    const auto& outcomes = fanout.outcomes();
    std::size_t results = 0;
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (std::size_t d = 0; d < devices.size(); ++d) {
        results += outcomes[d].results;
        nlohmann::ordered_json entry = {{"device", devices[d].name},
                                        {"outcome", rsclient::outcomeName(outcomes[d].kind)},
                                        {"results", outcomes[d].results}};
        if (!outcomes[d].error.empty()) entry["error"] = outcomes[d].error;
        list.push_back(entry);
        if (!json_ && !quiet_) {
            err_ << devices[d].name << ": " << rsclient::outcomeName(outcomes[d].kind) << ", "
                 << outcomes[d].results << (outcomes[d].results == 1 ? " result" : " results");
            if (!outcomes[d].error.empty()) err_ << " (" << printable(outcomes[d].error) << ")";
            err_ << '\n';
        }
    }
    if (json_) {
        out_
            << nlohmann::ordered_json{{"kind", how}, {"results", results}, {"devices", list}}.dump()
            << '\n'
            << std::flush;
    } else if (!quiet_) {
        err_ << how << ": " << results << " results from " << devices.size() << " devices\n";
    }
}

}  // namespace recsearch
