#include "CommandLine.h"

#include <CLI/CLI.hpp>

#include "CliError.h"

namespace recsearch {

namespace {

const char* kTimeHelp =
    "Times: SECONDS[.FRACTION] since 1970-01-01 UTC (1795428000, 1795428000.25,\n"
    "1795428000.250000) or ISO 8601 UTC (2026-11-23T10:00:00Z, 2026-11-23T10:00:00.250Z).\n"
    "A fraction of more than six digits is sent as a raw microseconds field, unchecked\n"
    "(1795428000.1000000 asks for 1000000 us, which the service refuses).\n"
    "Results are printed with both forms.\n";

const char* kExitCodes =
    "Exit codes:\n"
    "  0    the search completed (or state/end answered)\n"
    "  1    any other failure\n"
    "  2    usage error\n"
    "  3    the bus or recording_search cannot be reached, or did not answer in time\n"
    "  4    the search was refused (job id -1: two searches are already running)\n"
    "  5    recording_search answered a status error (status 1: microseconds out of range)\n"
    "  6    recording_search (or the bus) went away during the search\n"
    "  7    state/end: no search with that job id\n"
    "  130  interrupted by Ctrl-C (the search is ended first); 143 SIGTERM, 129 SIGHUP\n";

const CLI::Validator kTime(
    [](std::string& text) {
        std::string why;
        return parseTime(text, &why) ? std::string() : text + ": " + why;
    },
    "TIME");

TimePoint timeOf(const std::string& text) { return *parseTime(text, nullptr); }

void addRange(CLI::App* sub, std::string& start, std::string& end, Command& c)
{
    sub->add_option("START", start, "where the search begins")
        ->required()
        ->check(kTime)
        ->type_name("TIME");
    sub->add_option("END", end, "where it ends; before START searches backward")
        ->required()
        ->check(kTime)
        ->type_name("TIME");
    sub->add_option("-n,--max", c.maxResults, "stop after this many results (default: no limit)")
        ->check(CLI::Range(0, INT32_MAX))
        ->type_name("N");
}

void addOutput(CLI::App* sub, Command& c, bool progress)
{
    sub->add_flag("--json", c.json, "one JSON object per line instead of readable lines");
    if (!progress) return;
    sub->add_flag("--no-progress", c.noProgress,
                  "no progress line on standard error (it is only shown on a terminal)");
    sub->add_flag("-q,--quiet", c.quiet,
                  "no begin and summary lines on standard error (JSON output keeps its summary)");
}

}  // namespace

std::variant<Command, int> parseCommandLine(int argc, char** argv)
{
    Command c;
    std::string start, end;
    CLI::App app("Runs one search of recording_search and streams its results.", "recsearch");
    app.require_subcommand(1);

    auto* events = app.add_subcommand("events", "when the recording and its tracks went on or off");
    addRange(events, start, end, c);
    events->add_flag("-s,--start-state", c.startState,
                     "also report the state in force at START (and at END when backward)");
    events->add_flag("--flag1", c.flag1, "set the request's first flag byte");
    events->add_flag("--flag2", c.flag2, "set the request's second flag byte");
    addOutput(events, c, true);
    events->footer(std::string(kTimeHelp) +
                   "\nExamples:\n"
                   "  recsearch events 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z --start-state\n"
                   "  recsearch events 1795428000 1795431600.5 --max 20 --json\n"
                   "  recsearch events 2026-11-23T11:00:00Z 2026-11-23T10:00:00Z    # backward\n");

    auto* metadata = app.add_subcommand(
        "metadata", "times of the metadata documents for which an XPath expression is true");
    addRange(metadata, start, end, c);
    metadata->add_option("XPATH", c.xpath, "evaluated as a boolean on each document; "
                                           "empty matches every document")
        ->required()
        ->type_name("XPATH");
    addOutput(metadata, c, true);
    metadata->footer(std::string(kTimeHelp) +
                     "\nExamples:\n"
                     "  recsearch metadata 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z "
                     "'//Object[Appearance/Class/Type=\"Person\"]'\n"
                     "  recsearch metadata 1795428000 1795431600 '' --max 5    # any document\n");

    auto* noop = app.add_subcommand("noop", "a search that finds nothing and completes at once");
    addOutput(noop, c, true);
    noop->footer("\nExample:\n  recsearch noop\n");

    auto* state = app.add_subcommand("state", "the state of a search that another client runs");
    state->add_option("JOBID", c.jobId, "the search's job id")->required()->type_name("JOBID");
    addOutput(state, c, false);
    state->footer("\nPrints searching, completed or unknown.\n\nExample:\n  recsearch state 3\n");

    auto* endCmd = app.add_subcommand("end", "end a search that another client runs");
    endCmd->add_option("JOBID", c.jobId, "the search's job id")->required()->type_name("JOBID");
    addOutput(endCmd, c, false);
    endCmd->footer("\nPrints how far the search got.\n\nExample:\n  recsearch end 3\n");

    app.footer(std::string("\n") + kTimeHelp + "\n" + kExitCodes +
               "\nThe service is found on the system bus; DBUS_SYSTEM_BUS_ADDRESS points "
               "elsewhere.\n\nExamples (more with `recsearch SUBCOMMAND --help`):\n"
               "  recsearch events 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z --start-state\n"
               "  recsearch metadata 1795428000 1795431600 '//Object' --json\n"
               "  recsearch state 3\n");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return int(ExitCode::Usage);
    }

    if (events->parsed()) c.kind = Command::Kind::Events;
    if (metadata->parsed()) c.kind = Command::Kind::Metadata;
    if (noop->parsed()) c.kind = Command::Kind::Noop;
    if (state->parsed()) c.kind = Command::Kind::State;
    if (endCmd->parsed()) c.kind = Command::Kind::End;
    if (events->parsed() || metadata->parsed()) {
        c.start = timeOf(start);
        c.end = timeOf(end);
    }
    return c;
}

}  // namespace recsearch
