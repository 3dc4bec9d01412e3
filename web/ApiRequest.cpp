#include "web/ApiRequest.h"

#include <cstdint>
#include <limits>
#include <vector>

#include "client/Coverage.h"
#include "client/InputText.h"
#include "client/MetadataFilter.h"
#include "client/XPathCheck.h"

namespace web {

using nlohmann::json;
using rsclient::SearchRequest;

namespace {

constexpr int kMaxNesting = 8;

[[noreturn]] void bad(const std::string& message, const std::string& field = "")
{
    throw ApiError(400, message, field);
}

// Deeper bodies are refused before they are parsed: no request needs more than a list in an
// object, and a deep one would cost stack wherever it is copied or printed.
bool nestsTooDeep(const std::string& text)
{
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') ++i;
            if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxNesting) return true;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return false;
}

const json* field(const json& body, const char* name)
{
    const auto it = body.find(name);
    return it == body.end() || it->is_null() ? nullptr : &*it;
}

// A string field's text; a NUL in it would cut it short wherever it goes next.
std::string textOf(const json& value, const char* name)
{
    std::string text = value.get<std::string>();
    if (text.find('\0') != std::string::npos) {
        bad(std::string(name) + ": must not contain a NUL character", name);
    }
    return text;
}

// Numbers as the person wrote them, so that 0.80 stays 0.80 in the expression.
std::string numberText(const json& value, const char* name)
{
    if (value.is_string()) return textOf(value, name);
    if (!value.is_number()) bad(std::string(name) + ": expected a number", name);
    return value.dump();
}

rsclient::TimePoint timeField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) bad(std::string(name) + " is required", name);
    const std::string text = numberText(*value, name);
    std::string why;
    const auto time = rsclient::parseTime(text, &why);
    if (!time) bad(std::string(name) + ": " + rsclient::excerpt(text) + ": " + why, name);
    return *time;
}

bool boolField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) return false;
    if (!value->is_boolean()) bad(std::string(name) + ": expected true or false", name);
    return value->get<bool>();
}

std::string stringField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) return {};
    if (!value->is_string()) bad(std::string(name) + ": expected a string", name);
    return textOf(*value, name);
}

int32_t maxResults(const json& body)
{
    const json* value = field(body, "maxResults");
    if (value == nullptr) return -1;
    if (!value->is_number_integer() || *value < 0 || *value > std::numeric_limits<int32_t>::max()) {
        bad("maxResults: " + rsclient::excerpt(value->dump()) + " not in range 0 to 2147483647",
            "maxResults");
    }
    return value->get<int32_t>();
}

std::optional<rsclient::Micros> durationField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) return std::nullopt;
    const std::string text = numberText(*value, name);
    std::string why;
    const auto duration = rsclient::parseDuration(text, &why);
    if (!duration) bad(std::string(name) + ": " + why, name);
    return duration;
}

void check(const char* name, const std::string& why)
{
    if (!why.empty()) bad(std::string(name) + ": " + why, name);
}

std::vector<std::string> classes(const json& body)
{
    const json* value = field(body, "class");
    if (value == nullptr) return {};
    const json list = value->is_array() ? *value : json::array({*value});
    std::vector<std::string> names;
    for (const auto& item : list) {
        if (!item.is_string()) bad("class: expected a name or a list of names", "class");
        names.push_back(textOf(item, "class"));
        check("class", rsclient::checkName(names.back()));
    }
    return names;
}

std::optional<rsclient::Region> region(const json& body)
{
    const json* value = field(body, "region");
    if (value == nullptr) return std::nullopt;
    if (!value->is_array() || value->size() != 4)
        bad("region: expected [left, top, right, bottom]", "region");
    std::string text;
    for (const auto& edge : *value) text += (text.empty() ? "" : ",") + numberText(edge, "region");
    check("region", rsclient::checkRegion(text));
    return rsclient::parseRegion(text);
}

rsclient::MetadataFilter filter(const json& body)
{
    rsclient::MetadataFilter f;
    f.classes = classes(body);
    f.colour = stringField(body, "colour");
    if (!f.colour.empty()) check("colour", rsclient::checkName(f.colour));
    if (const json* p = field(body, "minLikelihood")) {
        f.minLikelihood = numberText(*p, "minLikelihood");
        check("minLikelihood", rsclient::checkLikelihood(f.minLikelihood));
    }
    f.region = region(body);
    f.motion = boolField(body, "motion");
    return f;
}

SearchRequest ranged(const json& body, SearchRequest::Kind kind)
{
    SearchRequest r;
    r.kind = kind;
    r.start = timeField(body, "start");
    r.end = timeField(body, "end");
    return r;
}

}  // namespace

json parseBody(const std::string& body)
{
    if (nestsTooDeep(body)) {
        bad("the body nests deeper than " + std::to_string(kMaxNesting) + " levels");
    }
    json parsed = json::parse(body, nullptr, false);
    if (parsed.is_discarded()) bad("the body is not valid JSON");
    if (!parsed.is_object()) bad("the body is not a JSON object");
    return parsed;
}

SearchRequest eventsRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Events);
    r.startState = boolField(body, "startState");
    r.maxResults = maxResults(body);
    return r;
}

std::string xpathOf(const json& body)
{
    const rsclient::MetadataFilter f = filter(body);
    if (field(body, "xpath") == nullptr && f.empty()) {
        bad("xpath is required unless a filter (class, colour, minLikelihood, region, motion) is "
            "given",
            "xpath");
    }
    const std::string own = stringField(body, "xpath");
    check("xpath", rsclient::checkXPath(own));
    return rsclient::filterXPath(f, own);
}

SearchRequest metadataRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Metadata);
    r.xpath = xpathOf(body);
    if (field(body, "xpath") == nullptr) r.filter = filter(body);
    r.walk = boolField(body, "walk");
    r.maxResults = maxResults(body);
    if (const json* spans = field(body, "spans"); spans != nullptr && spans->is_boolean()) {
        if (spans->get<bool>()) r.spanGap = std::chrono::seconds(2);
    } else {
        r.spanGap = durationField(body, "spans");
    }
    if (auto bucket = durationField(body, "counts")) {
        r.countBucket = *bucket;
        check("counts", rsclient::checkBucketCount(r.start, r.end, r.countBucket));
    }
    if (auto least = durationField(body, "minDuration")) {
        if (!r.spanGap) bad("minDuration needs spans", "minDuration");
        r.minDuration = *least;
    }
    return r;
}

SearchRequest summaryRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Summary);
    if (!rsclient::earlier(r.start, r.end) && !rsclient::earlier(r.end, r.start)) {
        bad("start and end must differ", "end");
    }
    if (rsclient::earlier(r.end, r.start)) std::swap(r.start, r.end);
    if (auto bucket = durationField(body, "bucket")) r.bucket = *bucket;
    if (field(body, "alignTo") != nullptr)
        r.bucketOrigin = rsclient::sinceEpoch(timeField(body, "alignTo"));
    check("bucket", rsclient::checkBucketCount(r.start, r.end, r.bucket));
    return r;
}

SearchRequest pictureRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Events);
    r.startState = true;
    r.picture = true;
    if (const json* offset = field(body, "utcOffset")) {
        // Minutes east of UTC: zones lie within 14 hours of it.
        if (!offset->is_number_integer() || *offset < -840 || *offset > 840) {
            bad("utcOffset: minutes east of UTC, from -840 to 840", "utcOffset");
        }
        r.utcOffset = std::chrono::minutes(offset->get<int>());
    }
    return r;
}

}  // namespace web
