#include "client/DeviceLine.h"

#include <algorithm>
#include <limits>

#include "client/InputText.h"

namespace rsclient {

using Json = nlohmann::ordered_json;

namespace {

constexpr std::size_t kLongestError = 300;

DeviceLine failed(std::string why)
{
    DeviceLine line;
    line.kind = DeviceLine::Kind::Failed;
    line.error = std::move(why);
    return line;
}

// A device's own words, cut at a character's boundary.
std::string shortText(std::string text)
{
    if (text.size() <= kLongestError) return text;
    std::size_t cut = kLongestError;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
    return text.substr(0, cut) + "...";
}

std::optional<std::string> textField(const Json& line, const char* key)
{
    const auto it = line.find(key);
    if (it == line.end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
}

std::string deviceError(const Json& line)
{
    if (const auto said = textField(line, "error")) return shortText(*said);
    return "sent an error that is not a text";
}

bool resultKind(const std::string& kind)
{
    return kind == "metadata" || kind == "track" || kind == "recording" || kind == "span" ||
           kind == "bucket" || kind == "count" || kind == "gap";
}

}  // namespace

DeviceLineReader::DeviceLineReader(std::string device, const SearchRequest& request)
    : device_(std::move(device)),
      search_(request.kind),
      spans_(request.spanGap.has_value()),
      counts_(request.countBucket.count() > 0),
      backward_(earlier(request.end, request.start)),
      lo_(sinceEpoch(backward_ ? request.end : request.start).count()),
      hi_(sinceEpoch(backward_ ? request.start : request.end).count()),
      through_(backward_ ? hi_ : lo_)
{
}

DeviceLine DeviceLineReader::read(std::string_view text)
{
    try {
        const Json line = Json::parse(text.begin(), text.end(), nullptr, false);
        if (!line.is_object()) {
            return failed("sent a line that is not a JSON object: " + excerpt(text));
        }
        const auto kind = line.find("kind");
        if (kind == line.end()) {
            return line.contains("error") ? failed(deviceError(line)) : DeviceLine{};
        }
        if (!kind->is_string()) return failed("sent a line whose kind is not a text");
        const std::string name = kind->get<std::string>();
        if (resultKind(name)) return result(name, line);
        if (name == "progress") return progress(line);
        if (name == "notice") {
            if (!textField(line, "message")) return failed("sent a notice without a text");
            return {DeviceLine::Kind::Aside, {}, 0, tagged(line), ""};
        }
        if (name == "completed") return {DeviceLine::Kind::Completed, {}, 0, "", ""};
        if (name == "incomplete") {
            return {DeviceLine::Kind::Incomplete,
                    {},
                    0,
                    tagged(line),
                    shortText(textField(line, "error").value_or("a recording service failed"))};
        }
        if (name == "interrupted" || name == "ended_elsewhere") {
            return failed("its search was ended on the device");
        }
        return line.contains("error") ? failed(deviceError(line)) : DeviceLine{};
    } catch (const std::exception&) {
        // The checks above leave nothing to throw; should the JSON library still, the device
        // fails, never the merge.
        return failed("sent a line that could not be read");
    }
}

bool DeviceLineReader::allowed(const std::string& kind) const
{
    switch (search_) {
    case SearchRequest::Kind::Events: return kind == "track" || kind == "recording";
    case SearchRequest::Kind::Summary: return kind == "bucket" || kind == "gap";
    case SearchRequest::Kind::Metadata:
        if (kind == "count") return counts_;
        if (kind == "span") return spans_;
        return kind == "metadata" && !spans_ && !counts_;
    case SearchRequest::Kind::Noop: break;
    }
    return false;
}

// A time as two unsigned fields, within the range searched.
std::optional<int64_t> DeviceLineReader::timeIn(const Json& line, const char* sec,
                                                const char* usec) const
{
    const auto s = line.find(sec), u = line.find(usec);
    if (s == line.end() || u == line.end() || !s->is_number_unsigned() ||
        !u->is_number_unsigned()) {
        return std::nullopt;
    }
    const auto seconds = s->get<uint64_t>(), micros = u->get<uint64_t>();
    if (seconds > std::numeric_limits<uint32_t>::max() || micros > 999999) return std::nullopt;
    const int64_t at = int64_t(seconds) * 1000000 + int64_t(micros);
    if (at < lo_ || at > hi_) return std::nullopt;
    return at;
}

DeviceLine DeviceLineReader::result(const std::string& kind, const Json& line)
{
    if (!allowed(kind)) return failed("sent a " + kind + " line, which this search does not give");
    const bool timed = kind == "metadata" || kind == "track" || kind == "recording";
    const auto at = timed ? timeIn(line, "sec", "usec") : timeIn(line, "start_sec", "start_usec");
    const bool endFine =
        timed || !line.contains("end_sec") || timeIn(line, "end_sec", "end_usec").has_value();
    if (!at || !endFine) return failed("sent a " + kind + " line without a time in the range");
    const MergeKey key{kind == "count" || kind == "gap" ? 1 : 0, *at};
    if (last_) {
        const bool before = key.rank != last_->rank ? key.rank < last_->rank
                                                    : (backward_ ? key.micros > last_->micros
                                                                 : key.micros < last_->micros);
        if (before) return failed("sent its results out of order");
    }
    last_ = key;
    return {DeviceLine::Kind::Result, key, 0, tagged(line), ""};
}

// Progress moves only forward in the search's direction: a step back is not believed, and
// a time outside the range is the range's end.
DeviceLine DeviceLineReader::progress(const Json& line)
{
    const auto pointOf = [&](const char* key) -> std::optional<int64_t> {
        const auto text = textField(line, key);
        const auto t = text ? parseTime(*text, nullptr) : std::nullopt;
        if (!t) return std::nullopt;
        return std::clamp(sinceEpoch(*t).count(), lo_, hi_);
    };
    const auto through = pointOf("through");
    if (!through) return failed("sent a progress line without a time");
    const auto further = [&](int64_t a, int64_t b) {
        return backward_ ? std::min(a, b) : std::max(a, b);
    };
    through_ = further(through_, *through);
    DeviceLine out{DeviceLine::Kind::Progress, MergeKey{0, through_}, through_, "", ""};
    if (const auto searched = pointOf("searched")) out.searched = further(through_, *searched);
    return out;
}

std::string DeviceLineReader::tagged(const Json& line) const
{
    Json out = {{"device", device_}};
    for (auto it = line.begin(); it != line.end(); ++it) {
        if (it.key() != "device") out[it.key()] = it.value();
    }
    return out.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string errorBodyText(const std::string& body)
{
    const Json j = Json::parse(body, nullptr, false);
    if (j.is_object()) {
        if (const auto said = textField(j, "error")) return shortText(*said);
    }
    return excerpt(body);
}

}  // namespace rsclient
