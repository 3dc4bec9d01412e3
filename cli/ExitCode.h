// recsearch's exit codes: a client error's kind is its code; these are recsearch's own.
#pragma once

namespace recsearch {

enum class ExitCode : int {
    Ok = 0,
    Failure = 1,
    Usage = 2,
    Incomplete = 9,     // a recording service failed: the results end early
    DeviceFailed = 10,  // of many devices, one or more failed or were dropped; the rest answered
    Interrupted = 130   // Ctrl-C; other stop signals give 128 + their number
};

}  // namespace recsearch
