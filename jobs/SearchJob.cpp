#include "jobs/SearchJob.h"

#include <sys/prctl.h>

#include <exception>

#include "kavro/core.h"
#include "target/RecordingSearchEventData.h"
#include "target/RecordingSearchTargetImpl.h"

SearchJob::SearchJob(unsigned int jobId, void* logCookie, RecordingSearchTargetImpl* target,
                     int maxResults)
    : jobId(jobId),
      logCookie(logCookie),
      target(target),
      state(Searching),
      maxResults(maxResults),
      resultCount(0)
{
}

SearchJob::~SearchJob() = default;

// A second start, or a start after the job has completed or been ended, does nothing: the
// walk keeps its position in the job's own fields, so two workers would corrupt it, and a
// worker started after endSearch would outlive the job. Holding workerMutex across the test
// and the start keeps endSearch from slipping in between.
void SearchJob::startSearch()
{
    boost::lock_guard<boost::mutex> lock(workerMutex);
    if (workerStarted || getSearchState() == Completed) {
        return;
    }
    workerThread = boost::thread(&SearchJob::_searchWrapper, this);
    workerStarted = true;
}

namespace {

// The job whose worker runs on this thread, if any.
thread_local const SearchJob* workerOf = nullptr;

}  // namespace

void SearchJob::endSearch()
{
    setSearchState(Completed);
    // Refused before workerMutex: a request thread may hold it while joining this worker.
    if (workerOf == this) {
        throw boost::thread_resource_error(
            static_cast<int>(boost::system::errc::resource_deadlock_would_occur),
            "a search cannot wait for its own worker");
    }
    boost::lock_guard<boost::mutex> lock(workerMutex);
    if (workerThread.joinable()) {
        workerThread.join();
    }
}

searchState SearchJob::getSearchState()
{
    boost::lock_guard<boost::mutex> lock(stateMutex);
    return state;
}

void SearchJob::setSearchState(searchState newState)
{
    boost::lock_guard<boost::mutex> lock(stateMutex);
    const searchState oldState = state;
    state = newState;
    if (oldState == Searching && newState == Completed) {
        RecordingSearchEventData completed;
        completed.eventType = SearchCompleted;
        completed.jobId = jobId;
        target->queueEventData(completed);
    }
}

// An exception that escapes the walk must not end the process nor leave the job Searching
// (its client would wait forever and it would hold a running slot), so it is logged here and
// the job completes as if the walk had returned.
void SearchJob::_searchWrapper()
{
    workerOf = this;
    // The walk pauses 500 µs after every step; the default 50 µs of timer slack would add
    // a tenth to each pause.
    prctl(PR_SET_TIMERSLACK, 1UL);
    try {
        performSearch();
    } catch (const std::exception& e) {
        kavro_core_logging_log(logCookie, 3, "%d - Search ended by an exception: %s", jobId,
                               e.what());
    } catch (...) {
        kavro_core_logging_log(logCookie, 3, "%d - Search ended by an unknown exception", jobId);
    }
    setSearchState(Completed);
}

void SearchJob::_incResultCount() { ++resultCount; }

bool SearchJob::_inRange() const { return maxResults < 0 || resultCount < maxResults; }
