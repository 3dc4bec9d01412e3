#include "web/HttpGateway.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <strings.h>
#include <sys/socket.h>
#include <syslog.h>

#include <charconv>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "kavro/core.h"
#include "web/PageAssets.h"
#include "web/SearchStream.h"

namespace web {

namespace {

constexpr const char* kContentSecurityPolicy =
    "default-src 'self'; img-src 'self' blob: data:; style-src 'self'; script-src 'self'; "
    "connect-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'";
// TLS 1.2 and 1.3 only.
constexpr const char* kTlsPriorities = "NORMAL:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
constexpr std::size_t kStreamChunk = std::size_t{32} << 10;
constexpr std::size_t kThreadStack = std::size_t{512} << 10;
constexpr std::size_t kSocketSendBuffer = std::size_t{128} << 10;
constexpr std::size_t kLoggedUrlLength = 120;

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

ConnectionLimits::Connection* trackedOf(MHD_Connection* connection)
{
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return info ? static_cast<ConnectionLimits::Connection*>(info->socket_context) : nullptr;
}

std::string readFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// What a client sent, fit for a log line: control bytes escaped, cut short.
std::string loggable(const std::string& text)
{
    std::string out;
    for (std::size_t i = 0; i < text.size() && i < kLoggedUrlLength; ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c >= 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "%%%02X", c);
            out += escaped;
        } else {
            out += char(c);
        }
    }
    if (text.size() > kLoggedUrlLength) out += "...";
    return out;
}

bool fromLoopback(MHD_Connection* connection)
{
    const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (info == nullptr || info->client_addr == nullptr) return false;
    const sockaddr* address = info->client_addr;
    if (address->sa_family == AF_INET) {
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(address);
        return (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
    }
    if (address->sa_family == AF_INET6) {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(address);
        return IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr) != 0;
    }
    return false;
}

Reply soapReply(onvif::SoapAnswer answer)
{
    Reply reply;
    reply.status = answer.status;
    reply.contentType = onvif::kSoapContentType;
    reply.body = std::move(answer.body);
    if (answer.allow != nullptr) reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, answer.allow);
    return reply;
}

struct HeaderCount {
    int contentLength = 0;
    int transferEncoding = 0;
};

MHD_Result countFraming(void* cls, MHD_ValueKind, const char* key, const char*)
{
    auto* count = static_cast<HeaderCount*>(cls);
    if (strcasecmp(key, MHD_HTTP_HEADER_CONTENT_LENGTH) == 0) ++count->contentLength;
    if (strcasecmp(key, MHD_HTTP_HEADER_TRANSFER_ENCODING) == 0) ++count->transferEncoding;
    return MHD_YES;
}

std::optional<std::size_t> contentLengthOf(const std::string& text)
{
    std::size_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

struct StreamHolder {
    ApiRoutes* routes;
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
    holder->routes->streamClosed(holder->stream);
    delete holder;
}

}  // namespace

struct RequestState {
    RequestHead head;
    std::string body;
    ConnectionLimits::Connection* tracked;
};

namespace {

MHD_Result handleRequest(void* cls, MHD_Connection* connection, const char* url, const char* method,
                         const char*, const char* uploadData, size_t* uploadSize, void** state)
{
    return static_cast<HttpGateway*>(cls)->handle(connection, url, method, uploadData, uploadSize,
                                                  state)
               ? MHD_YES
               : MHD_NO;
}

// After each answer the connection waits for its next request, with a deadline again.
void requestCompleted(void* cls, MHD_Connection* connection, void** state,
                      MHD_RequestTerminationCode)
{
    delete static_cast<RequestState*>(*state);
    *state = nullptr;
    if (auto* tracked = trackedOf(connection)) {
        static_cast<HttpGateway*>(cls)->limits().answered(tracked);
    }
}

void connectionNotified(void* cls, MHD_Connection* connection, void** socketContext,
                        MHD_ConnectionNotificationCode code)
{
    auto& limits = static_cast<HttpGateway*>(cls)->limits();
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        if (*socketContext != nullptr) {
            limits.closed(static_cast<ConnectionLimits::Connection*>(*socketContext));
        }
        *socketContext = nullptr;
        return;
    }
    const int socket = socketOf(connection);
    if (socket < 0) return;
    // The kernel's send buffer counts too: bounded, a slow reader is seen as one quickly.
    const int size = int(kSocketSendBuffer);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    *socketContext = limits.opened(socket, clientAddress(connection));
}

void logLibrary(void* cls, const char* format, va_list arguments)
{
    char message[512];
    std::vsnprintf(message, sizeof message, format, arguments);
    std::string text = message;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    static_cast<HttpGateway*>(cls)->libraryMessage(text);
}

}  // namespace

HttpGateway::HttpGateway(const GatewayOptions& options, const TokenFile& tokens,
                         onvif::UserList users, void* logCookie, int listenSocket)
    : options_(options),
      logCookie_(logCookie),
      routes_(options_, tokens, logCookie),
      limits_(options.limits.connections, options.limits.connectionsPerClient,
              options.limits.request),
      onvif_(std::move(users), logCookie)
{
    unsigned flags =
        MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_ERROR_LOG;
    // Room beyond the bound, so that a request over it is answered 503 rather than dropped.
    const unsigned hardLimit = options.limits.connections + options.limits.connectionsPerClient;
    std::vector<MHD_OptionItem> items = {
        {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(&logLibrary), this},
        {MHD_OPTION_CONNECTION_LIMIT, hardLimit, nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, intptr_t(options.limits.idle.count()), nullptr},
        {MHD_OPTION_THREAD_STACK_SIZE, intptr_t(kThreadStack), nullptr},
        {MHD_OPTION_STRICT_FOR_CLIENT, 1, nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(&requestCompleted), this},
        {MHD_OPTION_NOTIFY_CONNECTION, intptr_t(&connectionNotified), this},
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
        items.push_back({MHD_OPTION_HTTPS_PRIORITIES, 0, const_cast<char*>(kTlsPriorities)});
    }
    items.push_back({MHD_OPTION_END, 0, nullptr});
    daemon_ = MHD_start_daemon(flags, 0, nullptr, nullptr, &handleRequest, this, MHD_OPTION_ARRAY,
                               items.data(), MHD_OPTION_END);
    if (daemon_ == nullptr) {
        std::string why = listenSocket >= 0 ? "cannot serve on the socket from systemd"
                                            : "cannot listen on " + options.listen;
        std::lock_guard<std::mutex> lock(messageMutex_);
        if (!startMessages_.empty()) why += ": " + startMessages_;
        throw std::runtime_error(why);
    }
    std::lock_guard<std::mutex> lock(messageMutex_);
    started_ = true;
}

HttpGateway::~HttpGateway()
{
    MHD_quiesce_daemon(daemon_);
    routes_.interruptAll();
    onvif_.endAll();
    // A client that waited for results gets its page before the connections close.
    const auto bound = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    bool waited = false;
    while (onvif_.answering() > 0 && std::chrono::steady_clock::now() < bound) {
        waited = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (waited) std::this_thread::sleep_for(std::chrono::milliseconds(200));
    MHD_stop_daemon(daemon_);
}

void HttpGateway::libraryMessage(const std::string& message)
{
    {
        std::lock_guard<std::mutex> lock(messageMutex_);
        if (!started_) startMessages_ += (startMessages_.empty() ? "" : "; ") + message;
    }
    log(LOG_NOTICE, message);
}

void HttpGateway::log(int priority, const std::string& message) const
{
    kavro_core_logging_log(logCookie_, priority, "%s", message.c_str());
}

int HttpGateway::handle(MHD_Connection* connection, const char* url, const char* method,
                        const char* uploadData, std::size_t* uploadSize, void** state)
{
    if (*state == nullptr) {
        RequestHead head;
        head.method = method;
        head.path = url;
        head.header = [connection](const char* name) {
            const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
            return std::string(value ? value : "");
        };
        head.contentLength = contentLengthOf(head.header(MHD_HTTP_HEADER_CONTENT_LENGTH));
        head.socket = socketOf(connection);
        ConnectionLimits::Connection* tracked = trackedOf(connection);
        if (auto refusal = refuseEarly(connection, head)) {
            // Answered from the headers: libmicrohttpd reads no body and sends no 100 Continue.
            if (tracked != nullptr) limits_.requestArrived(tracked);
            return send(connection, head, std::move(*refusal));
        }
        *state = new RequestState{std::move(head), {}, tracked};
        return 1;
    }
    auto& request = *static_cast<RequestState*>(*state);
    if (*uploadSize != 0) {
        // The length was checked against the bound before the body came; this holds anyway.
        if (request.body.size() + *uploadSize <= options_.limits.bodyBytes) {
            request.body.append(uploadData, *uploadSize);
        }
        *uploadSize = 0;
        return 1;
    }
    if (request.tracked != nullptr) limits_.requestArrived(request.tracked);
    Reply reply;
    try {
        if (onvif::isOnvifPath(request.head.path)) {
            reply = soap(connection, request);
        } else {
            reply = request.head.path.compare(0, 5, "/api/") == 0
                        ? routes_.answer(request.head, request.body)
                        : page(request.head);
        }
    } catch (const std::exception& e) {
        log(LOG_WARNING, std::string("request failed: ") + e.what());
        reply = errorReply(MHD_HTTP_INTERNAL_SERVER_ERROR, "the gateway failed; its log says why");
    }
    return send(connection, request.head, std::move(reply));
}

std::optional<Reply> HttpGateway::refuseEarly(MHD_Connection* connection, const RequestHead& head)
{
    if (limits_.overFull()) {
        return retryLaterReply(MHD_HTTP_SERVICE_UNAVAILABLE,
                               "the gateway has as many connections open as it serves; try "
                               "again shortly");
    }
    // One framing only, so that nothing in front of the gateway can read a request otherwise.
    HeaderCount count;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, &countFraming, &count);
    if (count.contentLength > 1) {
        return errorReply(MHD_HTTP_BAD_REQUEST, "the request has more than one Content-Length");
    }
    if (count.transferEncoding > 0) {
        return errorReply(count.contentLength > 0 ? MHD_HTTP_BAD_REQUEST : MHD_HTTP_LENGTH_REQUIRED,
                          "a request body must come with one Content-Length and no "
                          "Transfer-Encoding");
    }
    if (head.path.compare(0, 5, "/api/") == 0) return routes_.refuse(head);
    if (onvif::isOnvifPath(head.path)) {
        auto refusal =
            onvif_.refuse(head.method, head.path, head.contentLength, options_.limits.bodyBytes);
        if (refusal) return soapReply(std::move(*refusal));
        return std::nullopt;
    }
    if (head.method != "GET" && head.method != "HEAD") {
        Reply reply = errorReply(MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD are served here");
        reply.headers.emplace_back(MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
        reply.api = false;
        return reply;
    }
    return std::nullopt;
}

Reply HttpGateway::soap(MHD_Connection* connection, const RequestState& request)
{
    onvif::SoapCall call;
    call.method = request.head.method;
    call.path = request.head.path;
    call.body = request.body;
    call.fromLoopback = fromLoopback(connection);
    std::string host = request.head.header(MHD_HTTP_HEADER_HOST);
    // The services' addresses are given under the name the client used, if it is a name.
    if (host.size() > 255 ||
        host.find_first_not_of("abcdefghijklmnopqrstuvwxyz"
                               "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-:[]") != std::string::npos) {
        host.clear();
    }
    call.base = (options_.tlsCert.empty() ? "http://" : "https://") +
                (host.empty() ? options_.listen : host);
    return soapReply(onvif_.answer(call));
}

Reply HttpGateway::page(const RequestHead& head) const
{
    Reply reply;
    reply.api = false;
    const std::string file = head.path == "/" ? "/index.html" : head.path;
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

int HttpGateway::send(MHD_Connection* connection, const RequestHead& head, Reply reply)
{
    MHD_Response* response = nullptr;
    if (reply.stream) {
        response = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, kStreamChunk, &readStream,
            new StreamHolder{&routes_, reply.stream, head.socket}, &freeStream);
    } else {
        response = MHD_create_response_from_buffer(reply.body.size(), reply.body.data(),
                                                   MHD_RESPMEM_MUST_COPY);
    }
    if (response == nullptr) {
        if (reply.stream) routes_.streamClosed(reply.stream);
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
    log(priority, loggable(head.method) + " " + loggable(head.path) + " " +
                      std::to_string(reply.status) + " from " + clientAddress(connection));
    return queued == MHD_YES;
}

}  // namespace web
