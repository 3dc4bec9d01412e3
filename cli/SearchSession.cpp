#include "SearchSession.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "CliError.h"
#include "Picture.h"
#include "Progress.h"
#include "ResultPrinter.h"
#include "ServiceConnection.h"
#include "StopSignals.h"

namespace recsearch {

namespace {

constexpr std::chrono::milliseconds kTickEvery{100};

constexpr std::chrono::minutes kLongGap{1};

// Columns of the terminal that `fd` writes to, else $COLUMNS, else 80.
std::size_t terminalColumns(int fd)
{
    winsize size{};
    if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    const char* columns = std::getenv("COLUMNS");
    const long fromEnv = columns ? std::strtol(columns, nullptr, 10) : 0;
    return fromEnv > 0 ? std::size_t(fromEnv) : 80;
}

bool utf8Terminal()
{
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || *value == '\0') continue;
        std::string v(value);
        for (char& ch : v) ch = char(std::tolower(static_cast<unsigned char>(ch)));
        return v.find("utf-8") != std::string::npos || v.find("utf8") != std::string::npos;
    }
    return false;
}

const char* searchName(Command::Kind kind)
{
    switch (kind) {
    case Command::Kind::Events:
    case Command::Kind::Summary: return "event search";
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
          clearBeforeOutput_(isatty(STDOUT_FILENO) && isatty(STDERR_FILENO)),
          // Whatever is drawn or summed afterwards needs the results kept.
          keep_(!command.svgPath.empty() || command.timeline ||
                command.kind == Command::Kind::Summary)
    {
        if (command.spanGap) spans_.emplace(*command.spanGap);
    }

    int run()
    {
        // Before anything is asked of the service: a picture that cannot be written is
        // better known now than after a long search.
        if (!command_.svgPath.empty()) {
            svg_.open(command_.svgPath, std::ios::out | std::ios::trunc);
            if (!svg_) {
                throw CliError(ExitCode::Failure, "cannot write " + command_.svgPath + ": " +
                                                      std::strerror(errno));
            }
        }
        service_.watchService();
        if (stops_.requested()) return int(ExitCode::Interrupted);
        const int32_t id = create();
        if (id == -1) {
            throw CliError(ExitCode::Refused,
                           std::string("recording_search refused the ") + searchName(command_.kind) +
                               " (job id -1): two searches are already running");
        }
        const auto jobId = uint32_t(id);
        jobId_ = jobId;
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
        case Command::Kind::Summary:
            return service_.createEventSearch(c.start, c.end, -1, false, false, true);
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
        ++results_;
        last_ = result.time;
        if (keep_ && result.kind != SearchResult::Kind::Metadata) kept_.push_back(result);
        if (keep_ && result.kind == SearchResult::Kind::Metadata && !spans_) {
            marks_.push_back(Span{result.time, result.time, 1});
        }
        if (spans_) {
            if (auto closed = spans_->add(result.time)) printSpan(*closed);
        } else if (command_.kind != Command::Kind::Summary) {
            printer_.result(result);
        }
        progress_.reached(result.time, results_);
        return printer_.good();
    }

    void printSpan(const Span& span)
    {
        printer_.span(jobId_, span);
        if (keep_) marks_.push_back(span);
    }

    // What comes after the results: the last span, coverage, the pictures. Only what arrived
    // up to `reached` is known.
    void conclude(TimePoint reached)
    {
        if (spans_) {
            if (auto open = spans_->finish()) printSpan(*open);
        }
        if (!keep_) return;
        const Command& c = command_;
        // Stopped by the limit: the service may say it reached the end, but nothing beyond
        // the last result was looked at.
        if (c.maxResults >= 0 && results_ >= std::size_t(c.maxResults)) {
            reached = results_ > 0 ? last_ : c.start;
        }
        const Picture picture = c.kind == Command::Kind::Metadata
                                    ? matchPicture(marks_, c.start, c.end, reached)
                                    : eventPicture(kept_, c.start, c.end, reached);
        if (c.kind == Command::Kind::Summary) {
            const Micros size = c.bucket.count() > 0 ? c.bucket
                                                     : defaultBucket(picture.to - picture.from);
            printer_.coverage(coverage(picture, size), recordingGaps(picture, kLongGap));
        }
        if (c.timeline) {
            const int fd = c.json ? STDERR_FILENO : STDOUT_FILENO;
            std::ostream& out = c.json ? std::cerr : std::cout;
            out << '\n';
            drawTimeline(out, picture, terminalColumns(fd), utf8Terminal());
            out << std::flush;
        }
        if (svg_.is_open()) {
            const std::string title = c.kind == Command::Kind::Metadata
                                          ? "Metadata matches: " + c.xpath
                                          : "Recording and tracks on and off";
            writeSvg(svg_, picture, title);
            svg_.close();
            if (!svg_) throw CliError(ExitCode::Failure, "cannot write " + c.svgPath);
            if (!c.quiet) std::cerr << "picture written to " << c.svgPath << std::endl;
        }
    }

    // signal 0: the search completed by itself, or someone else ended it.
    int finish(uint32_t jobId, int signal)
    {
        progress_.clear();
        if (signal == 0 && service_.searchState(jobId) == 0) {
            // Ended elsewhere: there is no position left to ask for; the last result is as
            // far as anything is known.
            conclude(results_ > 0 ? last_ : command_.start);
            if (command_.json || !command_.quiet) printer_.endedElsewhere(jobId, results_);
            return int(ExitCode::Ok);
        }
        const EndReply end = service_.endSearch(jobId);
        if (signal == SIGPIPE) return 128 + signal;  // nobody left to tell
        conclude(end.reached);
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
    bool keep_;
    std::optional<SpanGrouper> spans_;
    std::ofstream svg_;
    uint32_t jobId_ = 0;
    std::size_t results_ = 0;
    TimePoint last_;
    std::vector<SearchResult> kept_;  // event results
    std::vector<Span> marks_;         // metadata matches, or spans with --spans
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
    if (command.showXPath) {
        std::cout << command.xpath << std::endl;
        return int(ExitCode::Ok);
    }
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
