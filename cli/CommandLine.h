// recsearch's command line: subcommands, options and their help, parsed with CLI11.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "client/SearchRequest.h"

namespace recsearch {

using namespace rsclient;

struct Command {
    enum class Kind { Search, State, End, Index };
    Kind kind = Kind::Search;
    SearchRequest search;
    bool showXPath = false;
    std::string svgPath;  // empty: no picture
    bool timeline = false;
    uint32_t jobId = 0;  // state, end
    bool json = false;
    bool noProgress = false;  // progress is only ever shown on a terminal
    bool quiet = false;
    std::string devicesFile;               // empty: the service on this device's bus
    std::vector<std::string> deviceNames;  // empty: every device in the file
    Micros deviceTimeout{10000000};        // a device silent this long leaves the merge
};

// A command to run, or the exit code when there is nothing to run (help, or a usage error
// already reported on standard error).
std::variant<Command, int> parseCommandLine(int argc, char** argv);

}  // namespace recsearch
