#include "web/ApiRoutes.h"

#include <microhttpd.h>
#include <syslog.h>

#include <nlohmann/json.hpp>

#include "client/ClientError.h"
#include "client/ResultJson.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"
#include "kavro/core.h"
#include "web/ApiRequest.h"
#include "web/SearchStream.h"

namespace web {

using nlohmann::json;

namespace {

constexpr const char* kRetryAfterSeconds = "5";

struct Route {
    const char* path;  // a trailing '/' takes a numeric id after it
    const char* method;
    bool body;  // the request carries a JSON body
};

const Route kRoutes[] = {
    {"/api/v1/status", "GET", false},       {"/api/v1/index", "GET", false},
    {"/api/v1/devices", "GET", false},      {"/api/v1/events", "POST", true},
    {"/api/v1/metadata", "POST", true},     {"/api/v1/summary", "POST", true},
    {"/api/v1/picture", "POST", true},      {"/api/v1/xpath", "POST", true},
    {"/api/v1/searches/", "DELETE", false},
};

bool matches(const Route& route, const std::string& path)
{
    const std::string pattern = route.path;
    if (pattern.back() != '/') return path == pattern;
    if (path.compare(0, pattern.size(), pattern) != 0 || path.size() == pattern.size())
        return false;
    const std::string id = path.substr(pattern.size());
    return id.size() <= 10 && id.find_first_not_of("0123456789") == std::string::npos;
}

const Route* routeOf(const std::string& path)
{
    for (const auto& route : kRoutes) {
        if (matches(route, path)) return &route;
    }
    return nullptr;
}

Reply jsonReply(int status, const json& body)
{
    Reply reply;
    reply.status = status;
    reply.body = rsclient::jsonLine(body);
    return reply;
}

}  // namespace

Reply errorReply(int status, const std::string& message, const std::string& field)
{
    json body{{"error", message}};
    if (!field.empty()) body["field"] = field;
    return jsonReply(status, body);
}

Reply retryLaterReply(int status, const std::string& message)
{
    Reply reply = errorReply(status, message);
    reply.headers.emplace_back(MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfterSeconds);
    return reply;
}

ApiRoutes::ApiRoutes(const GatewayOptions& options, const TokenFile& tokens, void* logCookie)
    : options_(options), tokens_(tokens), logCookie_(logCookie)
{
}

void ApiRoutes::interruptAll()
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : streams_) entry.second->interrupt();
}

void ApiRoutes::log(int priority, const std::string& message) const
{
    kavro_core_logging_log(logCookie_, priority, "%s", message.c_str());
}

std::optional<Reply> ApiRoutes::refuse(const RequestHead& head) const
{
    const Route* route = routeOf(head.path);
    if (route == nullptr) return errorReply(MHD_HTTP_NOT_FOUND, "no such API path");
    if (head.method != route->method) {
        Reply reply = errorReply(MHD_HTTP_METHOD_NOT_ALLOWED,
                                 head.path + " answers " + route->method + " only");
        reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, route->method);
        return reply;
    }
    const std::string origin = head.header(MHD_HTTP_HEADER_ORIGIN);
    const std::string scheme = options_.tlsCert.empty() ? "http://" : "https://";
    if (!origin.empty() && origin != scheme + head.header(MHD_HTTP_HEADER_HOST)) {
        return errorReply(MHD_HTTP_FORBIDDEN, "requests from another origin are refused");
    }
    if (!tokens_.allows(head.header(MHD_HTTP_HEADER_AUTHORIZATION))) {
        Reply reply = errorReply(MHD_HTTP_UNAUTHORIZED, "a valid bearer token is required");
        reply.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
        return reply;
    }
    if (!route->body) return std::nullopt;
    if (head.contentLength.value_or(0) > options_.limits.bodyBytes) {
        return errorReply(
            MHD_HTTP_CONTENT_TOO_LARGE,
            "the body is larger than " + std::to_string(options_.limits.bodyBytes / 1024) + " KiB");
    }
    const std::string type = head.header(MHD_HTTP_HEADER_CONTENT_TYPE);
    if (type.compare(0, 16, "application/json") != 0) {
        return errorReply(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE,
                          "the body must be JSON (Content-Type: application/json)");
    }
    return std::nullopt;
}

Reply ApiRoutes::answer(const RequestHead& head, const std::string& body)
{
    try {
        if (head.method == "GET") {
            if (head.path == "/api/v1/devices") return devices();
            return head.path == "/api/v1/index" ? index() : status();
        }
        if (head.method == "DELETE") return endSearch(head.path.substr(head.path.rfind('/') + 1));
        return search(head, body);
    } catch (const ApiError& e) {
        return errorReply(e.status(), e.what(), e.field());
    } catch (const rsclient::ClientError& e) {
        switch (e.kind()) {
        case rsclient::ErrorKind::Refused:
            return retryLaterReply(MHD_HTTP_TOO_MANY_REQUESTS, e.what());
        case rsclient::ErrorKind::StatusError: return errorReply(MHD_HTTP_BAD_REQUEST, e.what());
        case rsclient::ErrorKind::UnknownJob: return errorReply(MHD_HTTP_NOT_FOUND, e.what());
        default:
            // The detail (the bus's address, say) is for the log, not for the client.
            log(LOG_WARNING, std::string("the service could not be used: ") + e.what());
            return errorReply(MHD_HTTP_BAD_GATEWAY,
                              e.kind() == rsclient::ErrorKind::Unreachable
                                  ? "recording_search is not running or does not answer"
                                  : "recording_search could not be used; the gateway's log says "
                                    "why");
        }
    }
}

Reply ApiRoutes::search(const RequestHead& head, const std::string& text)
{
    const json body = parseBody(text);
    const std::string what = head.path.substr(head.path.rfind('/') + 1);
    if (what == "xpath") return jsonReply(MHD_HTTP_OK, json{{"xpath", xpathOf(body)}});
    const rsclient::SearchRequest request = what == "events"     ? eventsRequest(body)
                                            : what == "metadata" ? metadataRequest(body)
                                            : what == "summary"  ? summaryRequest(body)
                                                                 : pictureRequest(body);
    const auto devices = chosenDevices(body);
    if (!devices.empty() && request.picture) {
        throw ApiError(MHD_HTTP_BAD_REQUEST, "a picture is of one device", "devices");
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streamsOpen_ >= options_.limits.streams) {
            return retryLaterReply(MHD_HTTP_SERVICE_UNAVAILABLE,
                                   "the gateway streams " + std::to_string(streamsOpen_) +
                                       " searches already; try again when one ends");
        }
        ++streamsOpen_;
    }
    auto stream = devices.empty()
                      ? std::make_shared<SearchStream>(request, options_.limits.bufferedBytes)
                      : std::make_shared<SearchStream>(request, options_.limits.bufferedBytes,
                                                       devices, nextHubId(), fanoutOptions());
    try {
        stream->start();
    } catch (...) {
        streamClosed(stream);
        throw;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        streams_[stream->jobId()] = stream;
    }
    Reply reply;
    if (!request.picture) {
        reply.contentType = "application/x-ndjson";
        reply.stream = stream;
        return reply;
    }
    const bool read = stream->waitDone(head.socket);
    streamClosed(stream);
    if (read && !stream->error().empty()) return errorReply(MHD_HTTP_BAD_GATEWAY, stream->error());
    reply.contentType = "image/svg+xml";
    reply.body = stream->svg();
    return reply;
}

void ApiRoutes::streamClosed(const std::shared_ptr<SearchStream>& stream)
{
    stream->readerGone();
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = streams_.find(stream->jobId());
    if (it != streams_.end() && it->second == stream) streams_.erase(it);
    --streamsOpen_;
}

Reply ApiRoutes::endSearch(const std::string& idText)
{
    // Ten digits may be more than a job id holds: such an id is one nobody has.
    const unsigned long long wide = std::stoull(idText);
    if (wide > UINT32_MAX) return errorReply(MHD_HTTP_NOT_FOUND, "no search with job id " + idText);
    const auto id = uint32_t(wide);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto it = streams_.find(id);
        if (it != streams_.end()) {
            it->second->interrupt();
            return Reply{MHD_HTTP_NO_CONTENT, "application/json", "", {}, nullptr, true};
        }
    }
    // Someone else's search (recsearch's, another gateway's): ended as `recsearch end` ends it.
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    if (service.searchState(id) == kavro::contract::kStateUnknown) {
        return errorReply(MHD_HTTP_NOT_FOUND, "no search with job id " + idText);
    }
    service.endSearch(id);
    return Reply{MHD_HTTP_NO_CONTENT, "application/json", "", {}, nullptr, true};
}

std::vector<rsclient::Device> ApiRoutes::chosenDevices(const json& body) const
{
    const auto field = body.find("devices");
    if (field == body.end()) return {};
    if (options_.devices.empty()) {
        throw ApiError(MHD_HTTP_BAD_REQUEST, "this gateway searches no other devices", "devices");
    }
    if (field->is_string() && *field == "all") return chooseOrRefuse({});
    std::vector<std::string> names;
    if (field->is_array()) {
        for (const auto& name : *field) {
            if (!name.is_string()) break;
            names.push_back(name.get<std::string>());
        }
    }
    if (names.empty() || !field->is_array() || names.size() != field->size()) {
        throw ApiError(MHD_HTTP_BAD_REQUEST, "devices: expected \"all\" or a list of names",
                       "devices");
    }
    return chooseOrRefuse(names);
}

std::vector<rsclient::Device> ApiRoutes::chooseOrRefuse(const std::vector<std::string>& names) const
{
    try {
        return rsclient::chooseDevices(options_.devices, names);
    } catch (const rsclient::ClientError& e) {
        throw ApiError(MHD_HTTP_BAD_REQUEST, std::string("devices: ") + e.what(), "devices");
    }
}

rsclient::DeviceFanout::Options ApiRoutes::fanoutOptions() const
{
    rsclient::DeviceFanout::Options options;
    options.stallBound = options_.deviceTimeout;
    options.onLeft = [this](const std::string& device, const std::string& why) {
        log(LOG_WARNING, "device " + device + " left a merged search: " + why);
    };
    return options;
}

// Ids of merged searches sit above any job id a service gives, so that DELETE finds either.
uint32_t ApiRoutes::nextHubId()
{
    std::lock_guard<std::mutex> lock(mutex_);
    return 0x80000000u + ++hubSearches_;
}

Reply ApiRoutes::devices() const
{
    json names = json::array();
    for (const auto& device : options_.devices) names.push_back(device.name);
    return jsonReply(MHD_HTTP_OK, json{{"devices", names}});
}

Reply ApiRoutes::index()
{
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    const auto state = service.indexState();
    if (!state) return errorReply(MHD_HTTP_BAD_GATEWAY, "recording_index is not running");
    if (state->state == "busy") {
        return errorReply(MHD_HTTP_SERVICE_UNAVAILABLE, "recording_index is busy");
    }
    auto answer = rsclient::indexJson(*state);
    // A hub's own device: its devices' indexes are at their own gateways.
    if (!options_.devices.empty()) answer["of"] = "this gateway's own device";
    return jsonReply(MHD_HTTP_OK, answer);
}

Reply ApiRoutes::status()
{
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    service.watchService();
    json answer{{"service", "running"}};
    // What the recording covers, so that a range outside it can be said to hold nothing.
    if (const auto span = service.recordingSpan()) {
        answer["recording"] = {{"from", rsclient::isoText(span->first)},
                               {"to", rsclient::isoText(span->second)},
                               {"from_sec", span->first.sec},
                               {"to_sec", span->second.sec}};
    }
    return jsonReply(MHD_HTTP_OK, answer);
}

}  // namespace web
