#include "support/ServiceStack.h"

#include <signal.h>

#include <chrono>
#include <stdexcept>
#include <utility>

namespace rstest {

namespace {

// Generous: the sanitizer builds start and stop several times slower.
constexpr std::chrono::seconds kReadyTimeout{20};
constexpr std::chrono::seconds kExitTimeout{20};

}  // namespace

ServiceStack::ServiceStack(Options options) : options_(std::move(options)), dir_("rs-stack")
{
    if (options_.binDir.empty() || options_.recording.empty()) {
        throw std::invalid_argument("ServiceStack needs binDir and recording");
    }
    startStore();
    if (options_.startService) startService();
}

void ServiceStack::startService()
{
    auto env = options_.serviceEnv;
    env["DBUS_SYSTEM_BUS_ADDRESS"] = bus_.address();
    env.emplace("KAVRO_LOG_FILE", logPath());
    service_ = startAndWait("recording_search", {}, std::move(env));
}

ServiceStack::~ServiceStack() { stop(); }

std::map<std::string, std::string> ServiceStack::clientEnv() const
{
    return {{"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()}};
}

ProcessRunner& ServiceStack::store()
{
    if (!store_) throw std::logic_error("recording_store is not running");
    return *store_;
}

ProcessRunner& ServiceStack::service()
{
    if (!service_) throw std::logic_error("recording_search was not started");
    return *service_;
}

void ServiceStack::startStore()
{
    store_ = startAndWait(
        "recording_store", {"serve", options_.recording},
        {{"DBUS_SYSTEM_BUS_ADDRESS", bus_.address()}, {"KAVRO_LOG_FILE", dir_.file("store.log")}});
}

std::string ServiceStack::stop()
{
    const std::string service = stopOne("recording_search", service_);
    return service + stopOne("recording_store", store_);
}

std::unique_ptr<ProcessRunner> ServiceStack::startAndWait(
    const std::string& name, std::vector<std::string> args,
    std::map<std::string, std::string> env) const
{
    auto process = std::make_unique<ProcessRunner>(binary(name), std::move(args), std::move(env));
    process->start();
    if (!process->waitForNotify("READY=1", kReadyTimeout)) {
        throw std::runtime_error(name + " did not become ready: " + process->stderrText());
    }
    return process;
}

std::string ServiceStack::stopOne(const std::string& name, std::unique_ptr<ProcessRunner>& process)
{
    if (!process) return "";
    process->sendSignal(SIGCONT);  // a test may have left it stopped
    process->sendSignal(SIGTERM);
    const auto status = process->waitForExit(kExitTimeout);
    std::string problems;
    if (!status || !status->exited || status->code != 0 || !process->stderrText().empty()) {
        problems = "unclean exit of " + name + " (pid " + std::to_string(process->pid()) +
                   "): " + process->stderrText() + "\n";
    }
    process.reset();
    return problems;
}

}  // namespace rstest
