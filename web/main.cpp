// recording_search_web: the search over HTTP, for programs and for a person at a browser.
#include <libxml/parser.h>
#include <poll.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <exception>
#include <iostream>
#include <variant>

#include "kavro/core.h"
#include "kavro/tools/StopSignals.h"
#include "onvif/OnvifUsers.h"
#include "web/GatewayOptions.h"
#include "web/HttpGateway.h"
#include "web/TokenFile.h"

namespace {

int socketFromSystemd()
{
    const int passed = sd_listen_fds(1);
    return passed >= 1 ? SD_LISTEN_FDS_START : -1;
}

// The standard interface's users. A users file not given and not there means nobody.
onvif::UserList onvifUsers(const web::GatewayOptions& options, void* log)
{
    struct stat status {};
    if (!options.onvifUsersGiven && ::stat(options.onvifUsersFile.c_str(), &status) != 0) {
        kavro_core_logging_log(log, LOG_NOTICE,
                               "no users file %s: the standard interface answers only "
                               "GetSystemDateAndTime",
                               options.onvifUsersFile.c_str());
        return {};
    }
    std::vector<std::string> warnings;
    onvif::UserList users = onvif::readUsersFile(options.onvifUsersFile, &warnings);
    for (const auto& warning : warnings) {
        std::cerr << "recording_search_web: warning: " << warning << std::endl;
        kavro_core_logging_log(log, LOG_WARNING, "%s", warning.c_str());
    }
    return users;
}

int run(int argc, char** argv)
{
    auto parsed = web::parseGatewayOptions(argc, argv);
    if (const int* exitCode = std::get_if<int>(&parsed)) return *exitCode;
    const auto& options = std::get<web::GatewayOptions>(parsed);

    kavro::tools::StopRequest stop;
    const kavro::tools::StopSignals stopSignals(stop);
    void* log = nullptr;
    kavro_core_logging_init("recording_search_web", &log);
    xmlInitParser();  // once, before the connections' threads check expressions
    for (const auto& warning : options.deviceWarnings) {
        std::cerr << "recording_search_web: warning: " << warning << std::endl;
        kavro_core_logging_log(log, LOG_WARNING, "%s", warning.c_str());
    }
    try {
        const int socket = socketFromSystemd();
        if (socket < 0 && !options.loopback && options.tlsCert.empty() && !options.plainHttp) {
            throw std::runtime_error(options.listen +
                                     " is not a loopback address: give --tls-cert and "
                                     "--tls-key, or --plain-http to serve plain HTTP anyway");
        }
        const web::TokenFile tokens(options.tokenFile);
        web::HttpGateway gateway(options, tokens, onvifUsers(options, log), log, socket);
        kavro_core_logging_log(log, LOG_INFO, "serving on %s",
                               socket >= 0 ? "the socket from systemd" : options.listen.c_str());
        sd_notify(0, "READY=1");
        pollfd stopped{stop.fd(), POLLIN, 0};
        while (!stop.requested()) ::poll(&stopped, 1, -1);
        sd_notify(0, "STOPPING=1");
        kavro_core_logging_log(log, LOG_INFO, "stopping on signal %d", stop.signal());
    } catch (const std::exception& e) {
        std::cerr << "recording_search_web: " << e.what() << std::endl;
        kavro_core_logging_log(log, LOG_ERR, "cannot start: %s", e.what());
        kavro_core_logging_deinit(log);
        return 1;
    }
    kavro_core_logging_deinit(log);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "recording_search_web: " << e.what() << std::endl;
        return 1;
    }
}
