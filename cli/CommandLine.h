// recsearch's command line: subcommands, options and their help, parsed with CLI11.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "Spans.h"
#include "TimeText.h"

namespace recsearch {

struct Command {
    enum class Kind { Events, Metadata, Noop, State, End, Summary };
    Kind kind = Kind::Noop;
    TimePoint start;
    TimePoint end;
    int32_t maxResults = -1;  // negative: no limit
    bool startState = false;
    bool flag1 = false;
    bool flag2 = false;
    std::string xpath;  // with the filters' conditions already in it
    bool showXPath = false;
    std::optional<Micros> spanGap;  // metadata matches printed as spans
    std::string svgPath;            // empty: no picture
    bool timeline = false;
    Micros bucket{0};  // summary; 0: a round size for the range
    uint32_t jobId = 0;
    bool json = false;
    bool noProgress = false;  // progress is only ever shown on a terminal
    bool quiet = false;
};

// A command to run, or the exit code when there is nothing to run (help, or a usage error
// already reported on standard error).
std::variant<Command, int> parseCommandLine(int argc, char** argv);

}  // namespace recsearch
