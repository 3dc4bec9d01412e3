#include "SearchSession.h"

#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <string>

#include "CliError.h"
#include "Progress.h"
#include "ResultPrinter.h"
#include "ServiceConnection.h"
#include "StopSignals.h"

namespace recsearch {

namespace {

constexpr std::chrono::milliseconds kTickEvery{100};

const char* searchName(Command::Kind kind)
{
    switch (kind) {
    case Command::Kind::Events: return "event search";
    case Command::Kind::Metadata: return "metadata search";
    default: return "no-op search";
    }
}

// One search from create to end. Main thread only.
class SearchRun {
public:
    SearchRun(const Command& command, EventInbox& inbox, StopSignals& stops,
              ServiceConnection& service)
        : command_(command),
          inbox_(inbox),
          stops_(stops),
          service_(service),
          printer_(std::cout, std::cerr, command.json),
          progress_(!command.noProgress && isatty(STDERR_FILENO) &&
                        command.kind != Command::Kind::Noop,
                    command.start, command.end),
          // Only a terminal shared by both streams needs the progress line out of the way.
          clearBeforeOutput_(isatty(STDOUT_FILENO) && isatty(STDERR_FILENO))
    {
    }

    int run()
    {
        service_.watchService();
        if (stops_.requested()) return int(ExitCode::Interrupted);
        const int32_t id = create();
        if (id == -1) {
            throw CliError(ExitCode::Refused,
                           std::string("recording_search refused the ") + searchName(command_.kind) +
                               " (job id -1): two searches are already running");
        }
        const auto jobId = uint32_t(id);
        service_.beginSearch(jobId);
        if (!command_.json && !command_.quiet) {
            std::cerr << searchName(command_.kind) << ' ' << jobId << " begun" << std::endl;
        }
        if (progress_.enabled()) {
            if (auto span = service_.recordingSpan()) progress_.fitTo(span->first, span->second);
        }
        return stream(jobId);
    }

private:
    int32_t create()
    {
        const Command& c = command_;
        switch (c.kind) {
        case Command::Kind::Events:
            return service_.createEventSearch(c.start, c.end, c.maxResults, c.flag1, c.flag2,
                                              c.startState);
        case Command::Kind::Metadata:
            return service_.createMetadataSearch(c.start, c.end, c.maxResults, c.xpath);
        default: return service_.createNoopSearch();
        }
    }

    int stream(uint32_t jobId)
    {
        while (true) {
            auto event = inbox_.waitNext(kTickEvery);
            if (!event) {
                progress_.tick();
                continue;
            }
            switch (event->kind) {
            case ClientEvent::Kind::Result:
                if (event->jobId != jobId) break;
                if (!print(event->result)) return finish(jobId, SIGPIPE);
                break;
            case ClientEvent::Kind::Completed:
                if (event->jobId == jobId) return finish(jobId, 0);
                break;
            case ClientEvent::Kind::Interrupted: return finish(jobId, event->signal);
            case ClientEvent::Kind::ServiceGone:
                throw CliError(ExitCode::ServiceGone,
                               "recording_search went away (stopped or restarted) during search " +
                                   std::to_string(jobId) + " after " + std::to_string(results_) +
                                   " results");
            case ClientEvent::Kind::BusLost:
                throw CliError(ExitCode::ServiceGone, "lost the bus during search " +
                                                          std::to_string(jobId) + ": " +
                                                          event->detail);
            }
        }
    }

    bool print(const SearchResult& result)
    {
        if (clearBeforeOutput_) progress_.clear();
        printer_.result(result);
        ++results_;
        progress_.reached(result.time, results_);
        return printer_.good();
    }

    // signal 0: the search completed by itself, or someone else ended it.
    int finish(uint32_t jobId, int signal)
    {
        progress_.clear();
        if (signal == 0 && service_.searchState(jobId) == 0) {
            // Ended elsewhere: there is no position left to ask for.
            if (command_.json || !command_.quiet) printer_.endedElsewhere(jobId, results_);
            return int(ExitCode::Ok);
        }
        const EndReply end = service_.endSearch(jobId);
        if (signal == SIGPIPE) return 128 + signal;  // nobody left to tell
        if (signal != 0 || command_.json || !command_.quiet) {
            printer_.searchEnded(jobId, end.reached, results_, signal != 0);
        }
        return signal == 0 ? int(ExitCode::Ok) : 128 + signal;
    }

    const Command& command_;
    EventInbox& inbox_;
    StopSignals& stops_;
    ServiceConnection& service_;
    ResultPrinter printer_;
    Progress progress_;
    bool clearBeforeOutput_;
    std::size_t results_ = 0;
};

int showState(const Command& c, ServiceConnection& service)
{
    const uint32_t state = service.searchState(c.jobId);
    ResultPrinter(std::cout, std::cerr, c.json).state(c.jobId, state);
    return state == 0 ? int(ExitCode::UnknownJob) : int(ExitCode::Ok);
}

int endOther(const Command& c, ServiceConnection& service)
{
    // The end call cannot tell an unknown id from a search that got nowhere; the state can.
    if (service.searchState(c.jobId) == 0) {
        throw CliError(ExitCode::UnknownJob, "no search with job id " + std::to_string(c.jobId));
    }
    const EndReply end = service.endSearch(c.jobId);
    ResultPrinter(std::cout, std::cerr, c.json).ended(c.jobId, end.reached);
    return int(ExitCode::Ok);
}

}  // namespace

int runCommand(const Command& command)
{
    EventInbox inbox;
    StopSignals stops(inbox);  // before the bus loop's thread, which must inherit the mask
    ServiceConnection service(inbox);
    switch (command.kind) {
    case Command::Kind::State: return showState(command, service);
    case Command::Kind::End: return endOther(command, service);
    default: return SearchRun(command, inbox, stops, service).run();
    }
}

}  // namespace recsearch
