#include "web/HttpGateway.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <sys/socket.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "client/ClientError.h"
#include "client/ResultJson.h"
#include "client/ServiceConnection.h"
#include "kavro/contract.h"
#include "kavro/core.h"
#include "web/ApiRequest.h"
#include "web/PageAssets.h"
#include "web/SearchStream.h"

namespace web {

using nlohmann::json;

namespace {

constexpr const char* kContentSecurityPolicy =
    "default-src 'self'; img-src 'self' blob: data:; style-src 'self'; script-src 'self'; "
    "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'";
constexpr const char* kRetryAfterSeconds = "5";
constexpr std::size_t kStreamChunk = std::size_t{32} << 10;
constexpr std::size_t kThreadStack = std::size_t{512} << 10;
constexpr std::size_t kSocketSendBuffer = std::size_t{128} << 10;

struct Route {
    const char* path;  // a trailing '/' takes a numeric id after it
    const char* method;
};

const Route kRoutes[] = {
    {"/api/v1/status", "GET"},       {"/api/v1/events", "POST"},  {"/api/v1/metadata", "POST"},
    {"/api/v1/summary", "POST"},     {"/api/v1/picture", "POST"}, {"/api/v1/xpath", "POST"},
    {"/api/v1/searches/", "DELETE"},
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

std::string header(MHD_Connection* connection, const char* name)
{
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value ? value : "";
}

std::string clientAddress(MHD_Connection* connection)
{
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return "?";
    char text[INET6_ADDRSTRLEN] = "?";
    const sockaddr* address = info->client_addr;
    if (address->sa_family == AF_INET) {
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text,
                  sizeof text);
    } else if (address->sa_family == AF_INET6) {
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr, text,
                  sizeof text);
    }
    return text;
}

int socketOf(MHD_Connection* connection)
{
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
    return info ? info->connect_fd : -1;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

struct Reply {
    int status = MHD_HTTP_OK;
    std::string contentType = "application/json";
    std::string body;
    std::vector<std::pair<std::string, std::string>> headers;
    std::shared_ptr<SearchStream> stream;
    bool api = true;
};

struct RequestState {
    std::string body;
    bool tooLarge = false;
};

namespace {

Reply jsonReply(int status, const json& body)
{
    Reply reply;
    reply.status = status;
    reply.body = rsclient::jsonLine(body);
    return reply;
}

Reply errorReply(int status, const std::string& message)
{
    return jsonReply(status, json{{"error", message}});
}

// A client error of the service's, as the API answers it.
Reply serviceErrorReply(const rsclient::ClientError& e)
{
    switch (e.kind()) {
    case rsclient::ErrorKind::Refused: {
        Reply reply = errorReply(MHD_HTTP_TOO_MANY_REQUESTS, e.what());
        reply.headers.emplace_back(MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfterSeconds);
        return reply;
    }
    case rsclient::ErrorKind::StatusError: return errorReply(MHD_HTTP_BAD_REQUEST, e.what());
    case rsclient::ErrorKind::UnknownJob: return errorReply(MHD_HTTP_NOT_FOUND, e.what());
    default: return errorReply(MHD_HTTP_BAD_GATEWAY, e.what());
    }
}

struct StreamHolder {
    HttpGateway* gateway;
    std::shared_ptr<SearchStream> stream;
    int socket;
};

ssize_t readStream(void* cls, uint64_t, char* buffer, size_t size)
{
    auto* holder = static_cast<StreamHolder*>(cls);
    const ssize_t n = holder->stream->read(buffer, size, holder->socket);
    if (n == 0) return MHD_CONTENT_READER_END_OF_STREAM;
    if (n < 0) return MHD_CONTENT_READER_END_WITH_ERROR;
    return n;
}

void freeStream(void* cls)
{
    auto* holder = static_cast<StreamHolder*>(cls);
    holder->gateway->streamClosed(holder->stream);
    delete holder;
}

MHD_Result handleRequest(void* cls, MHD_Connection* connection, const char* url, const char* method,
                         const char*, const char* uploadData, size_t* uploadSize, void** state)
{
    return static_cast<HttpGateway*>(cls)->handle(connection, url, method, uploadData, uploadSize,
                                                  state)
               ? MHD_YES
               : MHD_NO;
}

void requestCompleted(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode)
{
    delete static_cast<RequestState*>(*state);
    *state = nullptr;
}

// The kernel's send buffer counts too: bounded, a slow reader is seen as one quickly.
void connectionNotified(void*, MHD_Connection* connection, void**,
                        MHD_ConnectionNotificationCode code)
{
    if (code != MHD_CONNECTION_NOTIFY_STARTED) return;
    const int socket = socketOf(connection);
    const int size = int(kSocketSendBuffer);
    if (socket >= 0) setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

void logLibrary(void* cookie, const char* format, va_list arguments)
{
    char message[512];
    std::vsnprintf(message, sizeof message, format, arguments);
    std::string text = message;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    kavro_core_logging_log(cookie, LOG_NOTICE, "%s", text.c_str());
}

}  // namespace

HttpGateway::HttpGateway(const GatewayOptions& options, const TokenFile& tokens, void* logCookie,
                         int listenSocket)
    : options_(options), tokens_(tokens), logCookie_(logCookie)
{
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG;
    std::vector<MHD_OptionItem> items = {
        {MHD_OPTION_CONNECTION_LIMIT, options.limits.connections, nullptr},
        {MHD_OPTION_PER_IP_CONNECTION_LIMIT, options.limits.connectionsPerClient, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, intptr_t(options.limits.idle.count()), nullptr},
        {MHD_OPTION_THREAD_STACK_SIZE, intptr_t(kThreadStack), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(&requestCompleted), nullptr},
        {MHD_OPTION_NOTIFY_CONNECTION, intptr_t(&connectionNotified), nullptr},
        {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(&logLibrary), logCookie},
    };
    if (listenSocket >= 0) {
        items.push_back({MHD_OPTION_LISTEN_SOCKET, listenSocket, nullptr});
    } else {
        items.push_back({MHD_OPTION_SOCK_ADDR, 0, &options_.address});
        if (options_.address.ss_family == AF_INET6) flags |= MHD_USE_IPv6;
    }
    if (!options.tlsCert.empty()) {
        if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
            throw std::runtime_error("this libmicrohttpd has no TLS support");
        }
        tlsCert_ = readFile(options.tlsCert);
        tlsKey_ = readFile(options.tlsKey);
        flags |= MHD_USE_TLS;
        items.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, tlsCert_.data()});
        items.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, tlsKey_.data()});
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &handleRequest, this, MHD_OPTION_ARRAY,
                               items.data(), MHD_OPTION_END);
    if (daemon_ == nullptr) {
        throw std::runtime_error(listenSocket >= 0 ? "cannot serve on the socket from systemd"
                                                   : "cannot listen on " + options.listen);
    }
}

HttpGateway::~HttpGateway()
{
    MHD_quiesce_daemon(daemon_);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : streams_) entry.second->interrupt();
    }
    MHD_stop_daemon(daemon_);
}

void HttpGateway::log(int priority, const std::string& message) const
{
    kavro_core_logging_log(logCookie_, priority, "%s", message.c_str());
}

int HttpGateway::handle(MHD_Connection* connection, const char* url, const char* method,
                        const char* uploadData, std::size_t* uploadSize, void** state)
{
    if (*state == nullptr) {
        *state = new RequestState;
        return 1;
    }
    auto& request = *static_cast<RequestState*>(*state);
    if (*uploadSize != 0) {
        if (request.body.size() + *uploadSize > options_.limits.bodyBytes) {
            request.tooLarge = true;
            request.body.clear();
        } else if (!request.tooLarge) {
            request.body.append(uploadData, *uploadSize);
        }
        *uploadSize = 0;
        return 1;
    }
    Reply reply;
    try {
        reply = route(connection, url, method, request);
    } catch (const ApiError& e) {
        reply = errorReply(e.status(), e.what());
    } catch (const rsclient::ClientError& e) {
        reply = serviceErrorReply(e);
    } catch (const std::exception& e) {
        log(LOG_WARNING, std::string("request failed: ") + e.what());
        reply = errorReply(MHD_HTTP_INTERNAL_SERVER_ERROR, e.what());
    }
    return send(connection, method, url, std::move(reply));
}

Reply HttpGateway::route(MHD_Connection* connection, const std::string& path,
                         const std::string& method, RequestState& state)
{
    if (path.compare(0, 5, "/api/") == 0) return api(connection, path, method, state);
    Reply reply;
    reply.api = false;
    if (method != "GET" && method != "HEAD") {
        reply = errorReply(MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD are served here");
        reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        reply.api = false;
        return reply;
    }
    const std::string file = path == "/" ? "/index.html" : path;
    for (std::size_t i = 0; i < kPageAssetCount; ++i) {
        if (file != kPageAssets[i].path) continue;
        reply.contentType = contentTypeOf(kPageAssets[i].path);
        reply.body.assign(reinterpret_cast<const char*>(kPageAssets[i].data), kPageAssets[i].size);
        return reply;
    }
    reply = errorReply(MHD_HTTP_NOT_FOUND, "no such page");
    reply.api = false;
    return reply;
}

Reply HttpGateway::api(MHD_Connection* connection, const std::string& path,
                       const std::string& method, RequestState& state)
{
    const Route* found = nullptr;
    for (const auto& route : kRoutes) {
        if (matches(route, path)) found = &route;
    }
    if (found == nullptr) return errorReply(MHD_HTTP_NOT_FOUND, "no such API path: " + path);
    if (method != found->method) {
        Reply reply =
            errorReply(MHD_HTTP_METHOD_NOT_ALLOWED, path + " answers " + found->method + " only");
        reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, found->method);
        return reply;
    }
    const std::string origin = header(connection, MHD_HTTP_HEADER_ORIGIN);
    const std::string scheme = options_.tlsCert.empty() ? "http://" : "https://";
    if (!origin.empty() && origin != scheme + header(connection, MHD_HTTP_HEADER_HOST)) {
        return errorReply(MHD_HTTP_FORBIDDEN, "requests from another origin are refused");
    }
    if (!tokens_.allows(header(connection, MHD_HTTP_HEADER_AUTHORIZATION))) {
        Reply reply = errorReply(MHD_HTTP_UNAUTHORIZED, "a valid bearer token is required");
        reply.headers.emplace_back(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
        return reply;
    }
    if (method == "GET") return status();
    if (method == "DELETE") return endSearch(path.substr(path.rfind('/') + 1));
    if (state.tooLarge) {
        return errorReply(
            MHD_HTTP_CONTENT_TOO_LARGE,
            "the body is larger than " + std::to_string(options_.limits.bodyBytes / 1024) + " KiB");
    }
    const std::string type = header(connection, MHD_HTTP_HEADER_CONTENT_TYPE);
    if (type.compare(0, 16, "application/json") != 0) {
        return errorReply(MHD_HTTP_UNSUPPORTED_MEDIA_TYPE,
                          "the body must be JSON (Content-Type: application/json)");
    }
    return search(connection, path, state.body);
}

Reply HttpGateway::search(MHD_Connection* connection, const std::string& path,
                          const std::string& text)
{
    const json body = parseBody(text);
    const std::string what = path.substr(path.rfind('/') + 1);
    if (what == "xpath") return jsonReply(MHD_HTTP_OK, json{{"xpath", xpathOf(body)}});
    const rsclient::SearchRequest request = what == "events"     ? eventsRequest(body)
                                            : what == "metadata" ? metadataRequest(body)
                                            : what == "summary"  ? summaryRequest(body)
                                                                 : pictureRequest(body);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (streamsOpen_ >= options_.limits.streams) {
            Reply reply = errorReply(MHD_HTTP_SERVICE_UNAVAILABLE,
                                     "the gateway streams " + std::to_string(streamsOpen_) +
                                         " searches already; try again when one ends");
            reply.headers.emplace_back(MHD_HTTP_HEADER_RETRY_AFTER, kRetryAfterSeconds);
            return reply;
        }
        ++streamsOpen_;
    }
    auto stream = std::make_shared<SearchStream>(request, options_.limits.bufferedBytes);
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
    const bool read = stream->waitDone(socketOf(connection));
    streamClosed(stream);
    if (read && !stream->error().empty()) return errorReply(MHD_HTTP_BAD_GATEWAY, stream->error());
    reply.contentType = "image/svg+xml";
    reply.body = stream->svg();
    return reply;
}

void HttpGateway::streamClosed(const std::shared_ptr<SearchStream>& stream)
{
    stream->readerGone();
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = streams_.find(stream->jobId());
    if (it != streams_.end() && it->second == stream) streams_.erase(it);
    --streamsOpen_;
}

Reply HttpGateway::endSearch(const std::string& idText)
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

Reply HttpGateway::status()
{
    rsclient::EventInbox inbox;
    rsclient::ServiceConnection service(inbox);
    service.watchService();
    return jsonReply(MHD_HTTP_OK, json{{"service", "running"}});
}

int HttpGateway::send(MHD_Connection* connection, const std::string& method, const std::string& url,
                      Reply reply)
{
    MHD_Response* response = nullptr;
    if (reply.stream) {
        response = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, kStreamChunk, &readStream,
            new StreamHolder{this, reply.stream, socketOf(connection)}, &freeStream);
    } else {
        response = MHD_create_response_from_buffer(reply.body.size(), reply.body.data(),
                                                   MHD_RESPMEM_MUST_COPY);
    }
    if (response == nullptr) {
        if (reply.stream) streamClosed(reply.stream);
        return 0;
    }
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, reply.contentType.c_str());
    MHD_add_response_header(response, "Content-Security-Policy", kContentSecurityPolicy);
    MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
    MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
    if (reply.api) MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
    for (const auto& [name, value] : reply.headers) {
        MHD_add_response_header(response, name.c_str(), value.c_str());
    }
    const MHD_Result queued = MHD_queue_response(connection, unsigned(reply.status), response);
    MHD_destroy_response(response);
    const int priority = reply.status >= 500   ? LOG_WARNING
                         : reply.status >= 400 ? LOG_NOTICE
                                               : LOG_DEBUG;
    log(priority, method + " " + url + " " + std::to_string(reply.status) + " from " +
                      clientAddress(connection));
    return queued == MHD_YES;
}

}  // namespace web
