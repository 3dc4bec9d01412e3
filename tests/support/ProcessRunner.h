// Runs one of our binaries as a child process, the way systemd would: extra environment, a
// NOTIFY_SOCKET to report readiness on, standard output and error captured in files.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace rstest {

struct ExitStatus {
    bool exited = false;  // true: normal exit with code; false: killed by termSignal
    int code = 0;
    int termSignal = 0;
};

// `binary` is a path or a name looked up on PATH. The child gets the test's environment plus
// `env` (which wins), stdin from /dev/null, and dies with the thread that started it. Used from
// one thread; the destructor kills a child that is still running.
class ProcessRunner {
public:
    ProcessRunner(std::string binary, std::vector<std::string> args = {},
                  std::map<std::string, std::string> env = {});
    ~ProcessRunner();

    void start();  // throws std::runtime_error when the process cannot be started
    pid_t pid() const { return pid_; }

    // Notification messages received so far ("READY=1", "ERRNO=5", ...), one per line sent.
    std::vector<std::string> notifications();
    bool waitForNotify(const std::string& message,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

    void sendSignal(int signal);

    // Waits for the exit. On timeout: records a test failure, kills the process with SIGKILL,
    // reaps it and returns nullopt.
    std::optional<ExitStatus> waitForExit(
        std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Without killing: has the process ended within the timeout?
    bool exitedWithin(std::chrono::milliseconds timeout);

    std::string stdoutText() const;
    std::string stderrText() const;
    bool waitForStdout(const std::string& substring,
                       std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    ProcessRunner(const ProcessRunner&) = delete;
    ProcessRunner& operator=(const ProcessRunner&) = delete;

private:
    bool reaped();

    const std::string binary_;
    const std::vector<std::string> args_;
    const std::map<std::string, std::string> env_;
    TempDir dir_{"rs-proc"};
    int notifyFd_ = -1;
    pid_t pid_ = -1;
    std::optional<ExitStatus> exit_;
    std::vector<std::string> notifications_;
};

// Asks `done` every few milliseconds until it says yes or `timeout` has passed; whether it did.
bool pollUntil(const std::function<bool()>& done,
               std::chrono::milliseconds timeout = std::chrono::seconds(5));

// Runs a command to its end and returns its exit status and output (for short tools).
struct RunResult {
    ExitStatus status;
    std::string out;
    std::string err;
};
RunResult runToEnd(const std::string& binary, const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env = {},
                   std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace rstest
