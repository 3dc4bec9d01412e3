#include "RunCommand.h"

#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>

#include "ExitCode.h"
#include "MergedPrinter.h"
#include "Progress.h"
#include "ResultPrinter.h"
#include "TerminalTimeline.h"
#include "client/ClientError.h"
#include "client/DeviceFanout.h"
#include "client/DeviceList.h"
#include "client/SearchSession.h"
#include "client/ServiceConnection.h"
#include "client/Svg.h"
#include "kavro/contract.h"
#include "kavro/tools/StopSignals.h"

namespace recsearch {

namespace {

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

// What a search says, on the terminal (or a pipe): results on standard output, the rest on
// standard error, progress while it runs, the pictures at the end.
class TerminalOutput : public SearchOutput {
public:
    TerminalOutput(const Command& command, ServiceConnection& service)
        : command_(command),
          service_(service),
          printer_(std::cout, std::cerr, command.json),
          progress_(!command.noProgress && isatty(STDERR_FILENO) &&
                        command.search.kind != SearchRequest::Kind::Noop,
                    command.search.start, command.search.end),
          // Only a terminal shared by both streams needs the progress line out of the way.
          clearBeforeOutput_(isatty(STDOUT_FILENO) && isatty(STDERR_FILENO))
    {
        // A picture that cannot be written is better known now than after a long search.
        if (!command.svgPath.empty()) {
            svg_.open(command.svgPath, std::ios::out | std::ios::trunc);
            if (!svg_) {
                throw ClientError(ErrorKind::Failure,
                                  "cannot write " + command.svgPath + ": " + std::strerror(errno));
            }
        }
    }

    void begun(uint32_t jobId) override
    {
        if (!command_.json && !command_.quiet) {
            if (jobId == 0) {
                std::cerr << searchName(command_.search.kind) << " answered by recording_index"
                          << std::endl;
            } else {
                std::cerr << searchName(command_.search.kind) << ' ' << jobId << " begun"
                          << std::endl;
            }
        }
        if (progress_.enabled()) {
            if (auto span = service_.recordingSpan()) progress_.fitTo(span->first, span->second);
        }
    }

    void result(const SearchResult& result) override
    {
        if (clearBeforeOutput_) progress_.clear();
        printer_.result(result);
    }

    void span(uint32_t jobId, const Span& span) override
    {
        if (clearBeforeOutput_) progress_.clear();
        printer_.span(jobId, span);
    }

    void reached(TimePoint t, std::size_t results) override { progress_.reached(t, results); }
    void idle() override { progress_.tick(); }

    void coverage(const Picture& picture, Micros size, const std::vector<Segment>& gaps) override
    {
        printer_.coverage(picture, size, gaps);
    }

    void picture(const Picture& picture) override
    {
        if (command_.timeline) {
            const int fd = command_.json ? STDERR_FILENO : STDOUT_FILENO;
            std::ostream& out = command_.json ? std::cerr : std::cout;
            out << '\n';
            drawTimeline(out, picture, terminalColumns(fd), utf8Terminal());
            out << std::flush;
        }
        if (!svg_.is_open()) return;
        const std::string title = command_.search.kind == SearchRequest::Kind::Metadata
                                      ? "Metadata matches: " + command_.search.xpath
                                      : "Recording and tracks on and off";
        writeSvg(svg_, picture, title);
        svg_.close();
        if (!svg_) throw ClientError(ErrorKind::Failure, "cannot write " + command_.svgPath);
        if (!command_.quiet) std::cerr << "picture written to " << command_.svgPath << std::endl;
    }

    void ended(const SearchEnd& end) override
    {
        progress_.clear();
        incomplete_ = end.kind == SearchEnd::Kind::Incomplete;
        if (end.kind == SearchEnd::Kind::Interrupted || incomplete_ || command_.json ||
            !command_.quiet) {
            printer_.searchEnd(end);
        }
    }

    bool incomplete() const { return incomplete_; }

    void count(const MatchCount& c) override
    {
        if (clearBeforeOutput_) progress_.clear();
        printer_.count(c);
    }

    void notice(uint32_t jobId, const std::string& text) override
    {
        if (clearBeforeOutput_) progress_.clear();
        printer_.notice(jobId, text);
    }

    bool good() const override { return printer_.good(); }

private:
    const Command& command_;
    ServiceConnection& service_;
    ResultPrinter printer_;
    Progress progress_;
    bool clearBeforeOutput_;
    std::ofstream svg_;
    bool incomplete_ = false;
};

int runSearch(const Command& command, EventInbox& inbox, const kavro::tools::StopRequest& stop,
              ServiceConnection& service)
{
    TerminalOutput output(command, service);
    SearchSession session(command.search, service, inbox, output);
    if (!session.start([&stop] { return stop.requested(); })) {
        return int(ExitCode::Interrupted);
    }
    const int signal = session.stream();
    if (signal == 0 && output.incomplete()) return int(ExitCode::Incomplete);
    return signal == 0 ? int(ExitCode::Ok) : 128 + signal;
}

int showState(const Command& c, ServiceConnection& service)
{
    const uint32_t state = service.searchState(c.jobId);
    ResultPrinter(std::cout, std::cerr, c.json).state(c.jobId, state);
    return state == kavro::contract::kStateUnknown ? int(ErrorKind::UnknownJob) : int(ExitCode::Ok);
}

int endOther(const Command& c, ServiceConnection& service)
{
    // The end call cannot tell an unknown id from a search that got nowhere; the state can.
    if (service.searchState(c.jobId) == kavro::contract::kStateUnknown) {
        throw ClientError(ErrorKind::UnknownJob,
                          "no search with job id " + std::to_string(c.jobId));
    }
    const EndReply end = service.endSearch(c.jobId);
    ResultPrinter(std::cout, std::cerr, c.json).ended(c.jobId, end.reached);
    return int(ExitCode::Ok);
}

int showIndex(const Command& c, ServiceConnection& service)
{
    const auto state = service.indexState();
    if (!state) throw ClientError(ErrorKind::Unreachable, "recording_index is not running");
    if (state->state == "busy") {
        throw ClientError(ErrorKind::Busy, "recording_index is busy: too many queries wait");
    }
    ResultPrinter(std::cout, std::cerr, c.json).index(*state);
    return int(ExitCode::Ok);
}

// The search on every chosen device, through their gateways, as one stream.
int runOnDevices(const Command& command)
{
    std::vector<std::string> warnings;
    auto devices = chooseDevices(readDevices(command.devicesFile, &warnings), command.deviceNames);
    for (const auto& warning : warnings) std::cerr << "recsearch: warning: " << warning << '\n';
    kavro::tools::StopRequest stop;
    const kavro::tools::StopSignals signals(
        stop, "recsearch: stopped again; leaving without waiting for the devices\n");
    std::size_t width = 0;
    for (const auto& device : devices) width = std::max(width, device.name.size());
    MergedPrinter printer(std::cout, std::cerr, command.json, command.quiet, width);
    Progress progress(!command.noProgress && isatty(STDERR_FILENO), command.search.start,
                      command.search.end);
    const bool clearFirst = isatty(STDOUT_FILENO) && isatty(STDERR_FILENO);
    DeviceFanout::Options options;
    options.stallBound =
        std::chrono::duration_cast<std::chrono::milliseconds>(command.deviceTimeout);
    DeviceFanout fanout(std::move(devices), command.search, options);
    std::size_t lines = 0;
    const bool stopped = fanout.run(
        stop.fd(),
        [&](const std::string& line) {
            if (clearFirst) progress.clear();
            printer.line(line);
            ++lines;
        },
        [&](TimePoint t) { progress.reached(t, lines); });
    progress.clear();
    printer.end(fanout, stopped ? "interrupted" : fanout.limitReached() ? "limit" : "completed");
    if (stopped) return stop.signal() == 0 ? int(ExitCode::Interrupted) : 128 + stop.signal();
    bool incomplete = false;
    for (const auto& outcome : fanout.outcomes()) {
        if (outcome.kind == DeviceOutcome::Kind::Failed ||
            outcome.kind == DeviceOutcome::Kind::Dropped) {
            return int(ExitCode::DeviceFailed);
        }
        incomplete |= outcome.kind == DeviceOutcome::Kind::Incomplete;
    }
    return incomplete ? int(ExitCode::Incomplete) : int(ExitCode::Ok);
}

}  // namespace

int runCommand(const Command& command)
{
    if (!command.devicesFile.empty()) return runOnDevices(command);
    if (command.showXPath) {
        std::cout << command.search.xpath << std::endl;
        return int(ExitCode::Ok);
    }
    EventInbox inbox;
    // The first stop signal ends the search on the service before recsearch exits.
    kavro::tools::StopRequest stop;
    const kavro::tools::StopSignals signals(
        stop, "recsearch: stopped again; leaving without waiting for the service\n");
    const kavro::tools::StopWatch watch(stop, [&inbox, &stop] {
        ClientEvent event;
        event.kind = ClientEvent::Kind::Interrupted;
        event.signal = stop.signal();
        inbox.push(std::move(event));
    });
    ServiceConnection service(inbox);
    switch (command.kind) {
    case Command::Kind::State: return showState(command, service);
    case Command::Kind::End: return endOther(command, service);
    case Command::Kind::Index: return showIndex(command, service);
    default: return runSearch(command, inbox, stop, service);
    }
}

}  // namespace recsearch
