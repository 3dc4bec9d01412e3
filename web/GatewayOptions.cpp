#include "web/GatewayOptions.h"

#include <arpa/inet.h>

#include <cstring>
#include <iostream>

#include <CLI/CLI.hpp>

#include "client/ClientError.h"

namespace web {

namespace {

const char* kFooter = R"HELP(
The API (JSON in, JSON lines out; every /api/ request needs "Authorization: Bearer TOKEN"):
  GET    /api/v1/status               {"service": "running", "recording": {"from", "to"}}, or 502
  GET    /api/v1/index                recording_index's state (recsearch index --json), or 502
  GET    /api/v1/devices              {"devices": [...]}: the devices a hub (--devices) searches
  POST   /api/v1/events               start, end, startState, maxResults; on a hub devices
  POST   /api/v1/metadata             start, end, xpath or filters (class, colour,
                                      minLikelihood, region, motion), spans, maxResults, walk,
                                      minDuration, counts; on a hub devices
  POST   /api/v1/summary              start, end, bucket, alignTo (a time bucket edges fall on,
                                      a midnight say); on a hub devices
  POST   /api/v1/picture              start, end, utcOffset (minutes east of UTC for its axis):
                                      the SVG of the range
  POST   /api/v1/xpath                the filters: {"xpath": ...}
  DELETE /api/v1/searches/ID          ends a search
  GET    /                            the search page (no token needed)
The standard search interface (SOAP 1.2; WS-Security UsernameToken users, --onvif-users):
  POST   /onvif/device_service        GetServices, GetServiceCapabilities, GetCapabilities,
                                      GetSystemDateAndTime (no user needed), GetDeviceInformation
  POST   /onvif/search_service        GetServiceCapabilities, GetRecordingSummary,
                                      GetRecordingInformation, FindRecordings, FindEvents,
                                      FindMetadata, Get{Recording,Event,Metadata}SearchResults,
                                      GetSearchState, EndSearch
Times are ISO 8601 UTC text or seconds since 1970, as recsearch reads them.

Safety: tokens are the non-empty lines of the token file, compared in constant time and never
logged; a request from another Origin is refused; an address that is not loopback needs
--tls-cert and --tls-key, or --plain-http to say that plain HTTP is meant. HTTPS is TLS 1.2
and 1.3 only. A request is answered from its headers alone when it is refused (no body is
read); it must arrive whole within --request-timeout; a body needs exactly one Content-Length.
A bound reached is answered 503 with Retry-After.

systemd: with a socket passed (recording-search-web.socket) --listen is not used; readiness is
reported with sd_notify. Logs go to the journal (one line per request at priority 7, without
the token), or to $KAVRO_LOG_FILE when set. The service is reached on the system bus;
DBUS_SYSTEM_BUS_ADDRESS points elsewhere.

Exit codes: 0 stopped by SIGTERM, SIGINT or SIGHUP; 1 cannot start (address, token file, users
file, TLS files); 2 usage error.

Examples:
  recording_search_web
  recording_search_web --listen 0.0.0.0:8443 --tls-cert /etc/ssl/web.pem --tls-key /etc/ssl/web.key
  curl -N -H "Authorization: Bearer $(head -1 /etc/recording-search/web-tokens)" \
       -H 'Content-Type: application/json' -d '{"start":"2026-11-23T10:00:00Z",
       "end":"2026-11-23T11:00:00Z","startState":true}' http://127.0.0.1:8470/api/v1/events
)HELP";

// "127.0.0.1:8470", "[::1]:8470"; *why says what is wrong.
bool parseListen(const std::string& text, GatewayOptions& o, std::string& why)
{
    const auto colon = text.rfind(':');
    if (colon == std::string::npos) {
        why = text + " is not ADDRESS:PORT";
        return false;
    }
    std::string host = text.substr(0, colon);
    const std::string portText = text.substr(colon + 1);
    char* end = nullptr;
    const long port = std::strtol(portText.c_str(), &end, 10);
    if (portText.empty() || *end != '\0' || port < 0 || port > 65535) {
        why = portText + " is not a port from 0 to 65535";
        return false;
    }
    std::memset(&o.address, 0, sizeof o.address);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&o.address);
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(uint16_t(port));
        if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
            o.loopback = IN6_IS_ADDR_LOOPBACK(&v6->sin6_addr);
            return true;
        }
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&o.address);
        v4->sin_family = AF_INET;
        v4->sin_port = htons(uint16_t(port));
        if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
            o.loopback = (ntohl(v4->sin_addr.s_addr) >> 24) == 127;
            return true;
        }
    }
    why = host + " is not a numeric IPv4 address or a [bracketed] IPv6 address";
    return false;
}

int usageError(const std::string& message)
{
    std::cerr << "recording_search_web: " << message << "\nRun with --help for more information.\n";
    return 2;
}

}  // namespace

std::variant<GatewayOptions, int> parseGatewayOptions(int argc, char** argv)
{
    GatewayOptions o;
    long idle = o.limits.idle.count();
    long request = o.limits.request.count();
    long deviceTimeout = 10;
    CLI::App app("The HTTP gateway and search page of recording_search.", "recording_search_web");
    app.add_option("--listen", o.listen, "ADDRESS:PORT to listen on (default 127.0.0.1:8470)")
        ->type_name("ADDR:PORT");
    app.add_option("--token-file", o.tokenFile,
                   "the bearer tokens, one a line (default /etc/recording-search/web-tokens)")
        ->type_name("FILE");
    app.add_option("--onvif-users", o.onvifUsersFile,
                   "the standard interface's users, a user name and its password a line "
                   "(default /etc/recording-search/onvif-users; without it nobody may use it)")
        ->type_name("FILE");
    app.add_option("--tls-cert", o.tlsCert, "serve HTTPS with this certificate (PEM)")
        ->type_name("FILE");
    app.add_option("--tls-key", o.tlsKey, "and this private key (PEM)")->type_name("FILE");
    app.add_flag("--plain-http", o.plainHttp,
                 "allow plain HTTP on an address that is not loopback");
    app.add_option("--devices", o.devicesFile,
                   "a hub: searches may name these devices (a line each: NAME URL TOKEN_FILE "
                   "[CA_FILE]), searched through their gateways and merged in time order")
        ->type_name("FILE");
    app.add_option("--device-timeout", deviceTimeout,
                   "seconds a device may go without moving on before a merged search leaves it "
                   "out (default 10)")
        ->check(CLI::Range(1, 3600));
    const char* bounds = "Bounds";
    app.add_option("--max-connections", o.limits.connections, "connections at once (default 64)")
        ->check(CLI::Range(1u, 1024u))
        ->group(bounds);
    app.add_option("--max-per-client", o.limits.connectionsPerClient,
                   "connections from one client address that wait for their request to arrive; "
                   "a new one closes the oldest (default 16)")
        ->check(CLI::Range(1u, 1024u))
        ->group(bounds);
    app.add_option("--max-streams", o.limits.streams, "searches streamed at once (default 8)")
        ->check(CLI::Range(1, 256))
        ->group(bounds);
    app.add_option("--idle-timeout", idle,
                   "seconds before an idle connection is closed (default 60)")
        ->check(CLI::Range(1, 3600))
        ->group(bounds);
    app.add_option("--request-timeout", request,
                   "seconds for a whole request (headers and body) to arrive, however steadily "
                   "it trickles (default 10)")
        ->check(CLI::Range(1, 600))
        ->group(bounds);
    app.add_option("--max-buffered", o.limits.bufferedBytes,
                   "bytes of results held for a slow reader before its search is ended "
                   "(default 1048576)")
        ->check(CLI::Range(std::size_t(4096), std::size_t(64) << 20))
        ->group(bounds);
    app.set_version_flag("--version", "recording_search_web 0.1.0");
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    o.onvifUsersGiven = app.count("--onvif-users") > 0;
    o.limits.idle = std::chrono::seconds(idle);
    o.deviceTimeout = std::chrono::seconds(deviceTimeout);
    o.limits.request = std::chrono::seconds(request);
    std::string why;
    if (!parseListen(o.listen, o, why)) return usageError("--listen: " + why);
    if (o.tlsCert.empty() != o.tlsKey.empty()) {
        return usageError("--tls-cert and --tls-key go together");
    }
    if (!o.devicesFile.empty()) {
        try {
            o.devices = rsclient::readDevices(o.devicesFile, &o.deviceWarnings);
        } catch (const rsclient::ClientError& e) {
            return usageError(e.what());
        }
    }
    return o;
}

}  // namespace web
