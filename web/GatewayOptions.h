// recording_search_web's command line.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "client/DeviceList.h"

namespace web {

struct Limits {
    std::size_t bodyBytes = std::size_t{64} << 10;
    unsigned connections = 64;
    unsigned connectionsPerClient = 16;
    std::size_t streams = 8;
    std::chrono::seconds idle{60};
    std::chrono::seconds request{10};  // for a whole request (headers and body) to arrive
    std::size_t bufferedBytes = std::size_t{1} << 20;  // results waiting for one slow reader
};

struct GatewayOptions {
    std::string listen = "127.0.0.1:8470";
    sockaddr_storage address{};  // from listen
    bool loopback = true;
    std::string tokenFile = "/etc/recording-search/web-tokens";
    // The standard interface's users; the default path may be absent (then nobody may use it).
    std::string onvifUsersFile = "/etc/recording-search/onvif-users";
    bool onvifUsersGiven = false;
    std::string tlsCert;
    std::string tlsKey;
    bool plainHttp = false;
    // A hub: searches that name devices go to these devices' gateways, merged.
    std::string devicesFile;
    std::vector<rsclient::Device> devices;
    std::vector<std::string> deviceWarnings;
    std::chrono::seconds deviceTimeout{10};  // token files not kept as secrets should be
    Limits limits;
};

// The options, or the exit code when there is nothing to run (help, or a usage error already
// reported on standard error).
std::variant<GatewayOptions, int> parseGatewayOptions(int argc, char** argv);

}  // namespace web
