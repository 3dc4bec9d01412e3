#include "web/ApiRequest.h"

#include <cstdint>
#include <limits>
#include <vector>

#include "client/MetadataFilter.h"

namespace web {

using nlohmann::json;
using rsclient::SearchRequest;

namespace {

[[noreturn]] void bad(const std::string& message) { throw ApiError(400, message); }

const json* field(const json& body, const char* name)
{
    const auto it = body.find(name);
    return it == body.end() || it->is_null() ? nullptr : &*it;
}

// Numbers as the person wrote them, so that 0.80 stays 0.80 in the expression.
std::string numberText(const json& value, const char* name)
{
    if (value.is_string()) return value.get<std::string>();
    if (!value.is_number()) bad(std::string(name) + ": expected a number");
    return value.dump();
}

rsclient::TimePoint timeField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) bad(std::string(name) + " is required");
    const std::string text = numberText(*value, name);
    std::string why;
    const auto time = rsclient::parseTime(text, &why);
    if (!time) bad(std::string(name) + ": " + text + ": " + why);
    return *time;
}

bool boolField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) return false;
    if (!value->is_boolean()) bad(std::string(name) + ": expected true or false");
    return value->get<bool>();
}

std::string stringField(const json& body, const char* name)
{
    const json* value = field(body, name);
    if (value == nullptr) return {};
    if (!value->is_string()) bad(std::string(name) + ": expected a string");
    return value->get<std::string>();
}

int32_t maxResults(const json& body)
{
    const json* value = field(body, "maxResults");
    if (value == nullptr) return -1;
    if (!value->is_number_integer() || *value < 0 || *value > std::numeric_limits<int32_t>::max()) {
        bad("maxResults: " + value->dump() + " not in range 0 to 2147483647");
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
    if (!duration) bad(std::string(name) + ": " + why);
    return duration;
}

void check(const char* name, const std::string& why)
{
    if (!why.empty()) bad(std::string(name) + ": " + why);
}

std::vector<std::string> classes(const json& body)
{
    const json* value = field(body, "class");
    if (value == nullptr) return {};
    const json list = value->is_array() ? *value : json::array({*value});
    std::vector<std::string> names;
    for (const auto& item : list) {
        if (!item.is_string()) bad("class: expected a name or a list of names");
        check("class", rsclient::checkName(item.get<std::string>()));
        names.push_back(item.get<std::string>());
    }
    return names;
}

std::optional<rsclient::Region> region(const json& body)
{
    const json* value = field(body, "region");
    if (value == nullptr) return std::nullopt;
    if (!value->is_array() || value->size() != 4)
        bad("region: expected [left, top, right, bottom]");
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
            "given");
    }
    return rsclient::filterXPath(f, stringField(body, "xpath"));
}

SearchRequest metadataRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Metadata);
    r.xpath = xpathOf(body);
    r.maxResults = maxResults(body);
    if (const json* spans = field(body, "spans"); spans != nullptr && spans->is_boolean()) {
        if (spans->get<bool>()) r.spanGap = std::chrono::seconds(2);
    } else {
        r.spanGap = durationField(body, "spans");
    }
    return r;
}

SearchRequest summaryRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Summary);
    if (!rsclient::earlier(r.start, r.end) && !rsclient::earlier(r.end, r.start)) {
        bad("start and end must differ");
    }
    if (rsclient::earlier(r.end, r.start)) std::swap(r.start, r.end);
    if (auto bucket = durationField(body, "bucket")) r.bucket = *bucket;
    return r;
}

SearchRequest pictureRequest(const json& body)
{
    SearchRequest r = ranged(body, SearchRequest::Kind::Events);
    r.startState = true;
    r.picture = true;
    return r;
}

}  // namespace web
