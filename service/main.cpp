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
#include "kavro/tools/StopSignals.h"
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
    // The previous actions come back at the end of the run, also by an exception, so that the
    // handler never runs once the target may be gone.
    kavro::tools::StopSignals stopSignals(signalHandler, 0);
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
