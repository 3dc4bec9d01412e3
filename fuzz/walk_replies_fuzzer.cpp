// The event and metadata walks fed arbitrary replies by the recording services: times out of
// order or out of range, arrays of unequal length or missing, documents of any shape, failure
// statuses anywhere. Besides surviving, a walk must keep its promises: results only inside the
// requested range, never more than maxResults, track names only as the service gave them, and
// exactly one SearchCompleted.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include <boost/pointer_cast.hpp>

#include "FuzzInput.h"
#include "ReplayedRecordingServices.h"
#include "fake/RecordingServicesFake.h"
#include "jobs/TimelineSearchJob.h"
#include "jobs/XmlLibrary.h"
#include "kavro/KavroApiRecordingSearchTargetRun.h"
#include "kavro/core.h"
#include "target/RecordingSearchTargetImpl.h"

namespace {

void* logCookie = nullptr;
boost::shared_ptr<RecordingSearchTargetImpl> target;
KavroApiRecordingSearchTargetRun* runner = nullptr;

const char* const kExpressions[] = {
    "",
    "/",
    "//Object",
    "//Object[Class/Type='Person']",
    "//Frame[@ObjectCount >= 3]",
    "count(//Type) > 0",
    "string-length(string(/)) > 4",
    "//[",
    "true()",
};

void require(bool condition, const char* promise)
{
    if (condition) return;
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    setenv("KAVRO_LOG_FILE", "/dev/null", 1);
    kavro_core_init();
    kavro_core_logging_init("FUZZ", &logCookie);
    initialiseXmlLibrary();
    target.reset(new RecordingSearchTargetImpl(logCookie));
    // The events go to the fake runner, sent by the target's own loop, for the whole run.
    runner = new KavroApiRecordingSearchTargetRun("recording_search", logCookie, target);
    std::thread([] { target->processEventLoop(); }).detach();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzInput input(data, size);
    const uint8_t kind = input.byte();
    const bool metadata = (kind & 1) != 0;
    const SearchTime start{ReplayedRecordingServices::seconds(input),
                           ReplayedRecordingServices::microseconds(input)};
    const SearchTime end{ReplayedRecordingServices::seconds(input),
                         ReplayedRecordingServices::microseconds(input)};
    ReplayedRecordingServices services(input);
    const int maxResults = static_cast<int8_t>(input.byte()) / 16;  // -8..7: no limit, or small
    const bool startState = (kind & 2) != 0;
    const uint8_t pick = input.byte();
    const std::string xpath =
        pick < 240 ? kExpressions[pick % (sizeof kExpressions / sizeof *kExpressions)]
                   : input.text(128);

    fake::install(&services);
    int jobId = -1;
    const int status =
        metadata ? target->createMetadataSearch(start.sec, start.usec, end.sec, end.usec,
                                                maxResults, xpath.c_str(), &jobId)
                 : target->createEventSearch(start.sec, start.usec, end.sec, end.usec, maxResults,
                                             kind & 4, kind & 8, startState, &jobId);
    const bool validTimes = start.usec <= 999999 && end.usec <= 999999;
    require((status == 1) == !validTimes, "status 1 exactly for microseconds out of range");
    if (status != 0) {
        fake::install(nullptr);
        return 0;
    }
    require(jobId >= 0, "an accepted search has an id");

    // The walk runs here rather than on a worker, so that every input is replayed the same way.
    auto job = boost::dynamic_pointer_cast<TimelineSearchJob>(target->findJob(jobId));
    require(job != nullptr, "the created search is a timeline search");
    job->performSearch();
    unsigned int idOut = 0, sec = 0, usec = 0;
    target->endSearch(static_cast<unsigned int>(jobId), &idOut, &sec, &usec);
    job.reset();
    fake::install(nullptr);
    require(fake::waitForCompletion(static_cast<unsigned int>(jobId)), "the search completes");

    const SearchTime lo = end < start ? end : start;
    const SearchTime hi = end < start ? start : end;
    int results = 0, completions = 0;
    for (const fake::Sent& e : fake::takeSent()) {
        require(e.jobId == static_cast<unsigned int>(jobId), "only this search's records");
        if (e.kind == fake::Sent::Completed) {
            ++completions;
            continue;
        }
        if (e.startState != 0) {
            require(!metadata && startState, "start-state records only when asked for");
            continue;
        }
        ++results;
        require(lo <= e.time && e.time <= hi, "results lie inside the requested range");
        if (e.kind == fake::Sent::Track) {
            require(services.namesGiven().count(e.track) == 1,
                    "track names are those the service gave");
        }
    }
    require(completions == 1, "exactly one SearchCompleted");
    require(maxResults < 0 || results <= maxResults, "no more than maxResults results");
    return 0;
}
