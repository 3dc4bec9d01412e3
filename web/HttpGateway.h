// The HTTP server: the API's requests checked, routed and answered, search streams kept in a
// table so that DELETE can reach them, the page's files served.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "web/GatewayOptions.h"
#include "web/TokenFile.h"

struct MHD_Daemon;
struct MHD_Connection;
struct MHD_Response;

namespace web {

class SearchStream;
struct Reply;
struct RequestState;

class HttpGateway {
public:
    // Throws std::runtime_error when it cannot listen. `listenSocket` >= 0: a socket from
    // systemd, used instead of the options' address.
    HttpGateway(const GatewayOptions& options, const TokenFile& tokens, void* logCookie,
                int listenSocket);
    ~HttpGateway();  // ends every stream, then the server

    HttpGateway(const HttpGateway&) = delete;
    HttpGateway& operator=(const HttpGateway&) = delete;

    // libmicrohttpd's callbacks.
    int handle(MHD_Connection* connection, const char* url, const char* method,
               const char* uploadData, std::size_t* uploadSize, void** state);
    void streamClosed(const std::shared_ptr<SearchStream>& stream);

private:
    Reply route(MHD_Connection* connection, const std::string& path, const std::string& method,
                RequestState& state);
    Reply api(MHD_Connection* connection, const std::string& path, const std::string& method,
              RequestState& state);
    Reply search(MHD_Connection* connection, const std::string& path, const std::string& text);
    Reply endSearch(const std::string& id);
    Reply status();
    int send(MHD_Connection* connection, const std::string& method, const std::string& url,
             Reply reply);
    void log(int priority, const std::string& message) const;

    GatewayOptions options_;
    const TokenFile& tokens_;
    void* logCookie_;
    std::string tlsCert_;
    std::string tlsKey_;
    MHD_Daemon* daemon_ = nullptr;
    std::mutex mutex_;
    std::map<uint32_t, std::shared_ptr<SearchStream>> streams_;
    std::size_t streamsOpen_ = 0;
};

}  // namespace web
