// The API: each request checked and routed to its handler. The search streams are kept in a
// table so that DELETE can reach them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "client/DeviceFanout.h"
#include "web/GatewayOptions.h"
#include "web/Reply.h"
#include "web/TokenFile.h"

namespace web {

// A request as its headers describe it.
struct RequestHead {
    std::string method;
    std::string path;
    std::function<std::string(const char* name)> header;  // empty when absent
    std::optional<std::size_t> contentLength;
    int socket = -1;  // watched while a whole answer is made, for a peer that goes away
};

class ApiRoutes {
public:
    ApiRoutes(const GatewayOptions& options, const TokenFile& tokens, void* logCookie);

    void interruptAll();  // as Ctrl-C, every stream still open

    // What the headers alone decide, before any body is read: the refusal, or nothing.
    std::optional<Reply> refuse(const RequestHead& head) const;
    // The answer to a request that refuse() let through, once its body has arrived.
    Reply answer(const RequestHead& head, const std::string& body);

    // The transport's word that a stream's reader is done with it.
    void streamClosed(const std::shared_ptr<SearchStream>& stream);

    ApiRoutes(const ApiRoutes&) = delete;
    ApiRoutes& operator=(const ApiRoutes&) = delete;

private:
    Reply search(const RequestHead& head, const std::string& text);
    Reply endSearch(const std::string& id);
    Reply status();
    Reply index();
    Reply devices() const;
    // The devices a search body names, none when it names none; throws ApiError.
    std::vector<rsclient::Device> chosenDevices(const nlohmann::json& body) const;
    std::vector<rsclient::Device> chooseOrRefuse(const std::vector<std::string>& names) const;
    rsclient::DeviceFanout::Options fanoutOptions() const;
    uint32_t nextHubId();
    void log(int priority, const std::string& message) const;

    const GatewayOptions& options_;
    const TokenFile& tokens_;
    void* logCookie_;
    std::mutex mutex_;
    std::map<uint32_t, std::shared_ptr<SearchStream>> streams_;
    std::size_t streamsOpen_ = 0;
    uint32_t hubSearches_ = 0;
};

}  // namespace web
