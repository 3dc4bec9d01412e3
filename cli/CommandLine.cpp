#include "CommandLine.h"

#include <iostream>
#include <optional>

#include <CLI/CLI.hpp>

#include "ExitCode.h"
#include "client/Coverage.h"
#include "client/InputText.h"
#include "client/MetadataFilter.h"
#include "client/XPathCheck.h"

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
    "  8    this user may not call recording_search (root and members of the group\n"
    "       recording-search-clients may)\n"
    "  9    a recording service failed during the search: the results are incomplete after\n"
    "       the time the last line gives\n"
    "  10   --devices: a device failed or was dropped (its line says why); the others' results\n"
    "       are all there\n"
    "  130  interrupted by Ctrl-C (the search is ended first); 143 SIGTERM, 129 SIGHUP\n";

const CLI::Validator kTime(
    [](std::string& text) {
        std::string why;
        return parseTime(text, &why) ? std::string() : excerpt(text) + ": " + why;
    },
    "TIME");

TimePoint timeOf(const std::string& text) { return *parseTime(text, nullptr); }

// A check from one of our own functions that say what is wrong, or nothing.
CLI::Validator checkWith(std::string (*check)(const std::string&), const char* name)
{
    return CLI::Validator([check](std::string& text) { return check(text); }, name);
}

const CLI::Validator kDuration(
    [](std::string& text) {
        std::string why;
        return parseDuration(text, &why) ? std::string() : why;
    },
    "");

Micros durationOf(const std::string& text) { return *parseDuration(text, nullptr); }

void addRange(CLI::App* sub, std::string& start, std::string& end, SearchRequest& c,
              bool required = true)
{
    auto* first =
        sub->add_option("START", start, "where the search begins")->check(kTime)->type_name("TIME");
    auto* last = sub->add_option("END", end, "where it ends; before START searches backward")
                     ->check(kTime)
                     ->type_name("TIME");
    if (required) {
        first->required();
        last->required();
    }
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

void addPictures(CLI::App* sub, Command& c, const char* rows)
{
    sub->add_option(
           "--svg", c.svgPath,
           std::string("after the search, write a picture of the range to FILE (SVG): ") + rows)
        ->type_name("FILE");
    sub->add_flag("--timeline", c.timeline,
                  "after the results, draw the same rows in the terminal (to standard error "
                  "with --json)");
}

struct Filters {
    MetadataFilter filter;
    std::string likelihood, region;
};

void addFilters(CLI::App* sub, Filters& f)
{
    const char* group = "Filters (all about the same object; names ignore ASCII case)";
    const auto name = checkWith(&checkName, "");
    sub->add_option("--class", f.filter.classes,
                    "an object of this class (Person, Vehicle, Bicycle, Animal in sample "
                    "recordings); repeat it or separate with commas for any of several")
        ->type_name("NAME")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(name)
        ->group(group);
    sub->add_option("--colour,--color", f.filter.colour,
                    "an object of this colour (red, blue, white, black, grey, silver, green, "
                    "yellow, brown)")
        ->type_name("NAME")
        ->check(name)
        ->group(group);
    sub->add_option("--min-likelihood", f.likelihood,
                    "the object's class (the --class one, if given) is at least this likely, "
                    "0 to 1")
        ->type_name("P")
        ->check(checkWith(&checkLikelihood, ""))
        ->group(group);
    sub->add_option("--region", f.region,
                    "the object's bounding box overlaps this part of the picture, in picture "
                    "coordinates from the top left (0,0) to the bottom right (1,1); touching "
                    "an edge is not overlapping. 0,0,0.5,1 is the left half")
        ->type_name("LEFT,TOP,RIGHT,BOTTOM")
        ->check(checkWith(&checkRegion, ""))
        ->group(group);
    sub->add_flag("--motion", f.filter.motion, "the camera reported motion in the frame")
        ->group(group);
}

int usageError(const std::string& message)
{
    std::cerr << message << "\nRun with --help for more information.\n";
    return int(ExitCode::Usage);
}

// What the subcommands fill in, before it is checked and turned into a Command.
struct Parsed {
    Command c;
    std::string start, end, spans, bucket, minDuration, counts;
    Filters filters;
    CLI::App* events = nullptr;
    CLI::App* metadata = nullptr;
    CLI::App* summary = nullptr;
    CLI::App* noop = nullptr;
    CLI::App* state = nullptr;
    CLI::App* end_ = nullptr;
    CLI::App* index = nullptr;
    CLI::Option* xpath = nullptr;
    CLI::Option* spansOption = nullptr;
};

void addEvents(CLI::App& app, Parsed& p)
{
    SearchRequest& s = p.c.search;
    auto* events = app.add_subcommand("events", "when the recording and its tracks went on or off");
    addRange(events, p.start, p.end, s);
    events->add_flag("-s,--start-state", s.startState,
                     "also report the state in force at START (and at END when backward)");
    events->add_flag("--flag1", s.flag1, "set the request's first flag byte");
    events->add_flag("--flag2", s.flag2, "set the request's second flag byte");
    addOutput(events, p.c, true);
    addPictures(events, p.c,
                "one row for the recording and one per track, drawn where they were on. "
                "Without --start-state the state before a row's first result is unknown and "
                "drawn as unknown (pale yellow)");
    events->footer(std::string(kTimeHelp) +
                   "\nExamples:\n"
                   "  recsearch events 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z --start-state\n"
                   "  recsearch events 1795428000 1795431600.5 --max 20 --json\n"
                   "  recsearch events 2026-11-23T11:00:00Z 2026-11-23T10:00:00Z    # backward\n"
                   "  recsearch events 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z -s "
                   "--svg hour.svg --timeline\n");
    p.events = events;
}

void addMetadata(CLI::App& app, Parsed& p)
{
    auto* metadata = app.add_subcommand(
        "metadata", "times of the metadata documents that match an XPath expression or filters");
    addRange(metadata, p.start, p.end, p.c.search, false);
    p.xpath = metadata
                  ->add_option("XPATH", p.c.search.xpath,
                               "evaluated as a boolean on each document; empty matches "
                               "every document. Optional when a filter is given; with "
                               "both, both must hold")
                  ->type_name("XPATH");
    addFilters(metadata, p.filters);
    metadata
        ->add_option("--min-duration", p.minDuration,
                     "with --spans: leave out appearances shorter than D (such as 10s): "
                     "what stayed, not what passed")
        ->type_name("D")
        ->check(kDuration);
    metadata
        ->add_option("--counts", p.counts,
                     "after the results, one line per BUCKET (such as 1h): the appearances "
                     "that start in it (matches no more than --spans' gap apart, 2s without "
                     "it) and its matching documents")
        ->type_name("BUCKET")
        ->check(kDuration);
    metadata->add_flag("--walk", p.c.search.walk,
                       "walk the documents even where recording_index could answer (a search "
                       "with filters alone is answered from the index where it reaches)");
    metadata->add_flag("--show-xpath", p.c.showXPath,
                       "print the expression that would be searched (filters included) and "
                       "exit; START and END may be left out");
    p.spansOption =
        metadata
            ->add_flag("--spans{2s}", p.spans,
                       "one line per appearance: a run of matches no more than GAP apart "
                       "(default 2s), with its start, end, duration and number of matches, "
                       "printed once the run has ended. Give GAP as --spans=5s")
            ->type_name("[=GAP]")
            ->check(kDuration);
    addOutput(metadata, p.c, true);
    addPictures(metadata, p.c,
                "the matches (or, with --spans, the appearances) as marks on one row");
    metadata->footer(
        std::string(kTimeHelp) +
        "\nExamples:\n"
        "  recsearch metadata 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z "
        "'//Object[Appearance/Class/Type=\"Person\"]'\n"
        "  recsearch metadata 1795428000 1795431600 '' --max 5    # any document\n"
        "  recsearch metadata 2026-11-23T13:00:00Z 2026-11-23T18:00:00Z --class vehicle "
        "--colour red --region 0,0,0.5,1 --spans\n"
        "  recsearch metadata --class person --min-likelihood 0.8 --motion --show-xpath\n");
    p.metadata = metadata;
}

void addSummary(CLI::App& app, Parsed& p)
{
    auto* summary = app.add_subcommand(
        "summary",
        "coverage: how long the recording and each track were on, per time bucket, "
        "and the gaps");
    summary->add_option("START", p.start, "where the summary begins")
        ->required()
        ->check(kTime)
        ->type_name("TIME");
    summary->add_option("END", p.end, "where it ends")->required()->check(kTime)->type_name("TIME");
    summary
        ->add_option("--bucket", p.bucket,
                     "the bucket size, such as 30s, 5m, 1h or 1d (default: a round size "
                     "that gives 10 to 40 buckets)")
        ->type_name("DURATION")
        ->check(kDuration);
    addOutput(summary, p.c, true);
    addPictures(summary, p.c,
                "one row for the recording and one per track, drawn where they "
                "were on");
    summary->footer(std::string(kTimeHelp) +
                    "\nRuns one event search with the start state. Prints per bucket the seconds "
                    "and percent\nthe recording and each track were on, then every gap (the "
                    "recording off) longer\nthan a minute. With --json: one object per bucket, "
                    "then one per gap.\n\nExamples:\n"
                    "  recsearch summary 2026-11-23T00:00:00Z 2026-11-24T00:00:00Z\n"
                    "  recsearch summary 1795428000 1795431600 --bucket 5m --json\n"
                    "  recsearch summary 2026-11-23T00:00:00Z 2026-11-24T00:00:00Z --timeline "
                    "--svg day.svg\n");
    p.summary = summary;
}

void addOthers(CLI::App& app, Parsed& p)
{
    p.noop = app.add_subcommand("noop", "a search that finds nothing and completes at once");
    addOutput(p.noop, p.c, true);
    p.noop->footer("\nExample:\n  recsearch noop\n");

    p.state = app.add_subcommand("state", "the state of a search that another client runs");
    p.state->add_option("JOBID", p.c.jobId, "the search's job id")->required()->type_name("JOBID");
    addOutput(p.state, p.c, false);
    p.state->footer("\nPrints searching, completed or unknown.\n\nExample:\n  recsearch state 3\n");

    p.index = app.add_subcommand("index", "what recording_index holds, and whether it follows");
    addOutput(p.index, p.c, false);
    p.index->footer(
        "\nPrints the stretch indexed, the number of documents, the size on disk and the state "
        "(building, following, or waiting for the recording services). Exit code 3 when "
        "recording_index is not running.\n\nExample:\n  recsearch index --json\n");

    p.end_ = app.add_subcommand("end", "end a search that another client runs");
    p.end_->add_option("JOBID", p.c.jobId, "the search's job id")->required()->type_name("JOBID");
    addOutput(p.end_, p.c, false);
    p.end_->footer("\nPrints how far the search got.\n\nExample:\n  recsearch end 3\n");

    app.footer(std::string("\n") + kTimeHelp + "\n" + kExitCodes +
               "\nThe service is found on the system bus; DBUS_SYSTEM_BUS_ADDRESS points "
               "elsewhere.\n\nExamples (more with `recsearch SUBCOMMAND --help`):\n"
               "  recsearch events 2026-11-23T10:00:00Z 2026-11-23T11:00:00Z --start-state\n"
               "  recsearch metadata 1795428000 1795431600 '//Object' --json\n"
               "  recsearch metadata 1795428000 1795431600 --class person --spans\n"
               "  recsearch summary 2026-11-23T00:00:00Z 2026-11-24T00:00:00Z\n"
               "  recsearch state 3\n");
}

// The checks that span options; the usage error's exit code, or nothing when all is well.
std::optional<int> finishMetadata(Parsed& p)
{
    SearchRequest& s = p.c.search;
    if (!p.filters.region.empty()) p.filters.filter.region = parseRegion(p.filters.region);
    p.filters.filter.minLikelihood = p.filters.likelihood;
    if (p.xpath->count() == 0 && p.filters.filter.empty()) {
        return usageError(
            "XPATH is required unless a filter (--class, --colour, "
            "--min-likelihood, --region, --motion) is given");
    }
    if (std::string why = checkXPath(s.xpath); !why.empty()) return usageError(why);
    if (p.xpath->count() == 0) s.filter = p.filters.filter;
    s.xpath = filterXPath(p.filters.filter, s.xpath);
    if (!p.c.showXPath && p.end.empty()) {
        return usageError(p.start.empty() ? "START is required" : "END is required");
    }
    if (p.spansOption->count() > 0) s.spanGap = durationOf(p.spans);
    if (!p.counts.empty()) {
        s.countBucket = durationOf(p.counts);
        if (std::string why = checkBucketCount(s.start, s.end, s.countBucket); !why.empty()) {
            return usageError("--counts: " + why);
        }
    }
    if (!p.minDuration.empty()) {
        if (!s.spanGap) return usageError("--min-duration needs --spans");
        s.minDuration = durationOf(p.minDuration);
    }
    return std::nullopt;
}

std::optional<int> finishSummary(Parsed& p)
{
    SearchRequest& s = p.c.search;
    if (!earlier(s.start, s.end) && !earlier(s.end, s.start)) {
        return usageError("START and END must differ");
    }
    if (earlier(s.end, s.start)) std::swap(s.start, s.end);
    if (!p.bucket.empty()) s.bucket = durationOf(p.bucket);
    if (std::string why = checkBucketCount(s.start, s.end, s.bucket); !why.empty()) {
        return usageError("--bucket: " + why);
    }
    return std::nullopt;
}

SearchRequest::Kind searchKind(const Parsed& p)
{
    if (p.events->parsed()) return SearchRequest::Kind::Events;
    if (p.metadata->parsed()) return SearchRequest::Kind::Metadata;
    if (p.summary->parsed()) return SearchRequest::Kind::Summary;
    return SearchRequest::Kind::Noop;
}

}  // namespace

std::variant<Command, int> parseCommandLine(int argc, char** argv)
{
    Parsed p;
    CLI::App app("Runs one search of recording_search and streams its results.", "recsearch");
    app.require_subcommand(1);
    addEvents(app, p);
    addMetadata(app, p);
    addSummary(app, p);
    addOthers(app, p);
    app.fallthrough();  // --devices and --device after the subcommand too
    app.add_option("--devices", p.c.devicesFile,
                   "search every device of FILE through its gateway, as one stream in time order "
                   "(a line per device: NAME URL TOKEN_FILE [CA_FILE])")
        ->type_name("FILE");
    app.add_option("--device", p.c.deviceNames, "with --devices: this device only (repeatable)")
        ->type_name("NAME");
    std::string deviceTimeout;
    app.add_option("--device-timeout", deviceTimeout,
                   "with --devices: leave out a device that sends nothing for this long "
                   "(default 10s)")
        ->type_name("DURATION")
        ->check(kDuration);
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

    Command& c = p.c;
    c.kind = p.state->parsed()   ? Command::Kind::State
             : p.end_->parsed()  ? Command::Kind::End
             : p.index->parsed() ? Command::Kind::Index
                                 : Command::Kind::Search;
    c.search.kind = searchKind(p);
    c.search.picture = !c.svgPath.empty() || c.timeline;
    if (!p.start.empty() && !p.end.empty()) {
        c.search.start = timeOf(p.start);
        c.search.end = timeOf(p.end);
    }
    std::optional<int> failed;
    if (p.metadata->parsed()) failed = finishMetadata(p);
    if (p.summary->parsed()) failed = finishSummary(p);
    if (failed) return *failed;
    if (!deviceTimeout.empty()) c.deviceTimeout = durationOf(deviceTimeout);
    if (!c.deviceNames.empty() && c.devicesFile.empty())
        return usageError("--device needs --devices");
    if (!c.devicesFile.empty()) {
        if (c.kind != Command::Kind::Search || c.search.kind == SearchRequest::Kind::Noop)
            return usageError("--devices goes with events, metadata and summary");
        if (c.search.picture) return usageError("--svg and --timeline are for one device");
    }
    return c;
}

}  // namespace recsearch
