// Process entry of recording_search: brings the framework up, serves the one search target,
// sends its events from the main thread until a stop signal, and takes everything down again.

#include <signal.h>

#include <systemd/sd-daemon.h>

#include <exception>
#include <iostream>
#include <string>

#include <boost/shared_ptr.hpp>

#include "jobs/XmlLibrary.h"
#include "kavro/KavroApiException.h"
#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "kavro/core.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

// Written once before the stop signals are installed and never reset, so the handler reads it
// without a lock. Destroyed at process exit, after the signals have been restored.
boost::shared_ptr<RecordingSearchTargetImpl> searchTarget;

void signalHandler(int)
{
    if (searchTarget) {
        searchTarget->stopProcessEvents();
    }
}

void check(kavro_core_status status, const char* call)
{
    if (status != 0) {
        throw kavro::core::KavroApiException(call, status);
    }
}

// The stop signals and an ignored SIGPIPE for its lifetime; the previous actions come back
// when it ends, also when the run ends by an exception, so that the handler never runs once
// the target may be gone.
class StopSignals {
public:
    StopSignals()
    {
        struct sigaction action {};
        action.sa_handler = signalHandler;
        sigemptyset(&action.sa_mask);
        action.sa_flags = 0;
        sigaction(SIGHUP, &action, &previous_[0]);
        sigaction(SIGINT, &action, &previous_[1]);
        sigaction(SIGTERM, &action, &previous_[2]);
        action.sa_handler = SIG_IGN;
        action.sa_flags = SA_RESTART;
        sigaction(SIGPIPE, &action, &previous_[3]);
    }
    ~StopSignals()
    {
        sigaction(SIGHUP, &previous_[0], nullptr);
        sigaction(SIGINT, &previous_[1], nullptr);
        sigaction(SIGTERM, &previous_[2], nullptr);
        sigaction(SIGPIPE, &previous_[3], nullptr);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    struct sigaction previous_[4] {};
};

void run(void*& logCookie)
{
    check(kavro_core_init(), "Failed kavro api call: kavro_core_init()");
    check(kavro_core_logging_init("RECORDING_SEARCH", &logCookie),
          "Failed kavro api call: kavro_core_logging_init(\"RECORDING_SEARCH\", &logCookie)");
    check(kavro_core_settings_init("recording_search"),
          "Failed kavro api call: kavro_core_settings_init(\"recording_search\")");

    searchTarget.reset(new RecordingSearchTargetImpl(logCookie));
    KavroApiRecordingSearchTargetRun runner(
        std::string("recording_search"), logCookie,
        boost::shared_ptr<KavroApiRecordingSearchTargetImplBase>(searchTarget));
    StopSignals stopSignals;
    sd_notify(0, "READY=1");
    searchTarget->processEventLoop();
    searchTarget->endAllSearchJobs();
}

void failed(void* logCookie, const char* what)
{
    kavro_core_logging_log(logCookie, 3, "%s", what);
    std::cerr << "ERROR: recording_search caught exception: " << what << std::endl;
    sd_notify(0, "ERRNO=5");
}

void failedUnknown(void* logCookie)
{
    kavro_core_logging_log(logCookie, 3, "Unknown exception caught in main!");
    std::cerr << "ERROR: recording_search caught unknown exception: " << std::endl;
    sd_notify(0, "ERRNO=5");
}

}  // namespace

int main()
{
    // libxml2 wants its one-time set-up before any thread exists.
    initialiseXmlLibrary();

    void* logCookie = nullptr;
    int exitStatus = 0;
    try {
        run(logCookie);
    } catch (const std::exception& e) {
        failed(logCookie, e.what());
        exitStatus = 1;
    } catch (...) {
        failedUnknown(logCookie);
        exitStatus = 1;
    }
    kavro_core_settings_deinit();
    kavro_core_logging_deinit(logCookie);
    kavro_core_deinit();
    return exitStatus;
}
