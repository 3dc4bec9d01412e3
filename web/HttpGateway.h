// The HTTP transport: libmicrohttpd, the bounds on connections and requests, strict framing,
// the headers every answer carries, streaming. The page's files are served here; the API's
// requests go to ApiRoutes.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "onvif/OnvifFace.h"
#include "web/ApiRoutes.h"
#include "web/ConnectionLimits.h"
#include "web/GatewayOptions.h"
#include "web/Reply.h"
#include "web/TokenFile.h"

struct MHD_Daemon;
struct MHD_Connection;

namespace web {

struct RequestState;

class HttpGateway {
public:
    // Throws std::runtime_error when it cannot listen, with libmicrohttpd's reason.
    // `listenSocket` >= 0: a socket from systemd, used instead of the options' address.
    HttpGateway(const GatewayOptions& options, const TokenFile& tokens, onvif::UserList users,
                void* logCookie, int listenSocket);
    ~HttpGateway();  // ends every stream, then the server

    HttpGateway(const HttpGateway&) = delete;
    HttpGateway& operator=(const HttpGateway&) = delete;

    // libmicrohttpd's callbacks.
    int handle(MHD_Connection* connection, const char* url, const char* method,
               const char* uploadData, std::size_t* uploadSize, void** state);
    ApiRoutes& routes() { return routes_; }
    ConnectionLimits& limits() { return limits_; }
    void libraryMessage(const std::string& message);

private:
    std::optional<Reply> refuseEarly(MHD_Connection* connection, const RequestHead& head);
    Reply page(const RequestHead& head) const;
    Reply soap(MHD_Connection* connection, const RequestState& request);
    int send(MHD_Connection* connection, const RequestHead& head, Reply reply);
    void log(int priority, const std::string& message) const;

    GatewayOptions options_;
    void* logCookie_;
    ApiRoutes routes_;
    ConnectionLimits limits_;
    onvif::OnvifFace onvif_;
    std::string tlsCert_;
    std::string tlsKey_;
    std::mutex messageMutex_;
    bool started_ = false;
    std::string startMessages_;  // what libmicrohttpd said while starting: why it could not
    MHD_Daemon* daemon_ = nullptr;
};

}  // namespace web
