// recording_index: follows the recording's metadata and answers filter queries on the bus.
#include <poll.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <string>

#include <CLI/CLI.hpp>
#include <sdbus-c++/sdbus-c++.h>

#include "index/IndexFollower.h"
#include "index/IndexService.h"
#include "jobs/XmlLibrary.h"
#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/core.h"
#include "kavro/tools/StopSignals.h"

namespace {

const char* kFooter = R"HELP(
It reads the metadata documents of recording_information and recording_data_access one call
at a time, with a search walk's pause after each, parses each as the search does (no DTD, at
most 1 MiB) and keeps what the filters ask about (class and colour names with likelihoods,
boxes, motion) and each document, compressed, in SQLite, in WAL mode. It resumes where it
stopped, follows the track's end, drops what retention removed and rebuilds for a different
recording; a damaged file is moved aside and built anew. recsearch and recording_search_web
answer metadata searches (filters or any XPath) from it and walk what it has not reached.

Exit codes: 0 stopped by SIGTERM, SIGINT or SIGHUP; 1 cannot start or lost the bus;
2 usage error.

Examples:
  recording_index --database /var/lib/recording_index/index.db
  recsearch index
)HELP";

struct Settings {
    std::string database = "/var/lib/recording_index/index.db";
    double pollSeconds = 3;
    uint32_t page = 10000;
};

int serve(const Settings& settings, void* log, const kavro::tools::StopRequest& stop)
{
    const std::string& database = settings.database;
    rsindex::IndexFollower follower(
        database, log, std::chrono::milliseconds(int64_t(settings.pollSeconds * 1000)));
    kavro::bus::BusLoop loop(kavro::bus::connectToBus());
    rsindex::IndexService service(loop, database, follower, log, settings.page);
    loop.connection().requestName(kavro::bus::busName("recording_index"));
    bool lost = false;
    loop.start([&](const std::string&) { lost = true; });
    follower.start();
    sd_notify(0, "READY=1");
    kavro_core_logging_log(log, 6, "Indexing into %s", database.c_str());
    pollfd stopped{stop.fd(), POLLIN, 0};
    while (!stop.requested() && !loop.lost()) ::poll(&stopped, 1, 500);
    sd_notify(0, "STOPPING=1");
    loop.stop();
    return loop.lost() ? 1 : 0;
}

int run(int argc, char** argv)
{
    Settings settings;
    CLI::App app("The appearance index of the recording's metadata.", "recording_index");
    app.add_option("--database", settings.database,
                   "the index file (default /var/lib/recording_index/index.db)")
        ->type_name("FILE");
    app.add_option("--poll", settings.pollSeconds,
                   "seconds between looks at the track's end (default 3)")
        ->check(CLI::Range(0.05, 3600.0));
    app.add_option("--page", settings.page,
                   "the most matches or appearances in one answer (default 10000)")
        ->check(CLI::Range(1u, 10000u));
    app.set_version_flag("--version", "recording_index 0.1.0");
    app.footer(kFooter);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }

    kavro::tools::StopRequest stop;
    const kavro::tools::StopSignals stopSignals(stop);
    initialiseXmlLibrary();
    kavro_core_init();
    void* log = nullptr;
    kavro_core_logging_init("RECORDING_INDEX", &log);
    int status = 1;
    try {
        status = serve(settings, log, stop);
    } catch (const sdbus::Error& e) {
        std::fprintf(stderr, "recording_index: bus: %s\n", e.getMessage().c_str());
        kavro_core_logging_log(log, 3, "bus: %s", e.getMessage().c_str());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "recording_index: %s\n", e.what());
        kavro_core_logging_log(log, 3, "%s", e.what());
    }
    kavro_core_logging_deinit(log);
    kavro_core_deinit();
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "recording_index: %s\n", e.what());
        return 1;
    }
}
