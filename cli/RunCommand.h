// Runs one recsearch command against recording_search.
#pragma once

#include "CommandLine.h"

namespace recsearch {

// Returns the exit code; failures that end the run are thrown as ClientError.
int runCommand(const Command& command);

}  // namespace recsearch
