// recsearch's command line: subcommands, options and their help, parsed with CLI11.
#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "TimeText.h"

namespace recsearch {

struct Command {
    enum class Kind { Events, Metadata, Noop, State, End };
    Kind kind = Kind::Noop;
    TimePoint start;
    TimePoint end;
    int32_t maxResults = -1;  // negative: no limit
    bool startState = false;
    bool flag1 = false;
    bool flag2 = false;
    std::string xpath;
    uint32_t jobId = 0;
    bool json = false;
    bool noProgress = false;  // progress is only ever shown on a terminal
    bool quiet = false;
};

// A command to run, or the exit code when there is nothing to run (help, or a usage error
// already reported on standard error).
std::variant<Command, int> parseCommandLine(int argc, char** argv);

}  // namespace recsearch
