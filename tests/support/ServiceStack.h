// The real processes on a bus of their own: recording_store serving a recording file and
// recording_search, each started the way systemd would and waited on for READY=1.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

namespace rstest {

// Because the bus is the stack's own, a test may kill, stop or restart either process, or take
// the bus away, without touching other tests. Each process logs to a file in the stack's
// directory. Not thread-safe: create, use and destroy it on the test's thread.
class ServiceStack {
public:
    struct Options {
        std::string binDir;     // where recording_store and recording_search are
        std::string recording;  // the file recording_store serves
        // Added to recording_search's environment (KAVRO_CALL_TIMEOUT_MS, ...); wins over the
        // stack's own settings.
        std::map<std::string, std::string> serviceEnv;
        bool startService = true;  // false: the store alone, nobody serving searches
    };

    // Throws std::runtime_error when a process does not become ready.
    explicit ServiceStack(Options options);
    // Stops whatever still runs; what it finds is not reported.
    ~ServiceStack();

    const std::string& address() const { return bus_.address(); }
    PrivateBus& bus() { return bus_; }
    // What a client process needs to reach this stack's bus.
    std::map<std::string, std::string> clientEnv() const;

    // Only while running.
    ProcessRunner& store();
    // Only when started with startService.
    ProcessRunner& service();
    // recording_search's log file.
    std::string logPath() const { return dir_.file("service.log"); }

    // Starts recording_store (again) and waits until it is ready.
    void startStore();
    // The same for recording_search.
    void startService();
    // Stops the service, then the store; returns what went wrong, empty when both exited 0
    // with nothing on standard error. A process that has already ended counts as it ended.
    std::string stop();

    ServiceStack(const ServiceStack&) = delete;
    ServiceStack& operator=(const ServiceStack&) = delete;

private:
    std::string binary(const std::string& name) const { return options_.binDir + "/" + name; }
    std::unique_ptr<ProcessRunner> startAndWait(const std::string& name,
                                                std::vector<std::string> args,
                                                std::map<std::string, std::string> env) const;
    static std::string stopOne(const std::string& name, std::unique_ptr<ProcessRunner>& process);

    Options options_;
    TempDir dir_;
    PrivateBus bus_;
    std::unique_ptr<ProcessRunner> store_;
    std::unique_ptr<ProcessRunner> service_;
};

}  // namespace rstest
