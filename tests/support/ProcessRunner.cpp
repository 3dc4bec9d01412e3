#include "support/ProcessRunner.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include <boost/process.hpp>
#include <boost/process/extend.hpp>
#include <gtest/gtest.h>

namespace bp = boost::process;

namespace rstest {

bool pollUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

namespace {

std::string fileText(const std::string& path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

}  // namespace

ProcessRunner::ProcessRunner(std::string binary, std::vector<std::string> args,
                             std::map<std::string, std::string> env)
    : binary_(std::move(binary)), args_(std::move(args)), env_(std::move(env))
{
}

ProcessRunner::~ProcessRunner()
{
    if (pid_ > 0 && !reaped()) {
        ::kill(pid_, SIGKILL);
        exitedWithin(std::chrono::seconds(5));
    }
    if (notifyFd_ >= 0) ::close(notifyFd_);
}

void ProcessRunner::start()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string notifyPath = dir_.file("notify");
    std::strncpy(address.sun_path, notifyPath.c_str(), sizeof(address.sun_path) - 1);
    notifyFd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (::bind(notifyFd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        throw std::runtime_error("cannot bind " + notifyPath);

    // Built by hand: Boost 1.74's environment lookup reads past the end of shorter entries.
    std::map<std::string, std::string> merged;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry(*e);
        merged.emplace(entry.substr(0, entry.find('=')), entry.substr(entry.find('=') + 1));
    }
    for (const auto& [k, v] : env_) merged[k] = v;
    merged["NOTIFY_SOCKET"] = notifyPath;
    std::vector<std::string> entries;
    for (const auto& [k, v] : merged) entries.push_back(k + "=" + v);
    std::vector<char*> envp;
    for (auto& entry : entries) envp.push_back(entry.data());
    envp.push_back(nullptr);

    const std::string exe =
        binary_.find('/') == std::string::npos ? bp::search_path(binary_).string() : binary_;
    try {
        bp::child child(
            bp::exe = exe.empty() ? binary_ : exe, bp::args = args_,
            bp::std_in<bp::null, bp::std_out> dir_.file("out"), bp::std_err > dir_.file("err"),
            bp::extend::on_setup = [&envp](auto& exec) { exec.env = envp.data(); },
            bp::extend::on_exec_setup =
                [](auto&) {
                    // Dies with the test; default signal handling, as systemd gives.
                    prctl(PR_SET_PDEATHSIG, SIGKILL);
                    signal(SIGPIPE, SIG_DFL);
                    sigset_t none;
                    sigemptyset(&none);
                    sigprocmask(SIG_SETMASK, &none, nullptr);
                });
        pid_ = child.id();
        child.detach();  // reaped here, with the raw wait status
    } catch (const bp::process_error& e) {
        throw std::runtime_error("cannot start " + binary_ + ": " + e.what());
    }
}

bool ProcessRunner::reaped()
{
    int status = 0;
    if (!exit_ && ::waitpid(pid_, &status, WNOHANG) == pid_) {
        exit_ = ExitStatus{WIFEXITED(status), WIFEXITED(status) ? WEXITSTATUS(status) : 0,
                           WIFSIGNALED(status) ? WTERMSIG(status) : 0};
    }
    return exit_.has_value();
}

std::vector<std::string> ProcessRunner::notifications()
{
    char datagram[4096];
    ssize_t n;
    while ((n = ::recv(notifyFd_, datagram, sizeof(datagram), 0)) > 0) {
        std::istringstream lines(std::string(datagram, static_cast<size_t>(n)));
        for (std::string line; std::getline(lines, line);)
            if (!line.empty()) notifications_.push_back(line);
    }
    return notifications_;
}

bool ProcessRunner::waitForNotify(const std::string& message, std::chrono::milliseconds timeout)
{
    return pollUntil(
        [&] {
            const auto all = notifications();
            return std::find(all.begin(), all.end(), message) != all.end();
        },
        timeout);
}

void ProcessRunner::sendSignal(int signal)
{
    if (!reaped()) ::kill(pid_, signal);
}

std::optional<ExitStatus> ProcessRunner::waitForExit(std::chrono::milliseconds timeout)
{
    if (exitedWithin(timeout)) return exit_;
    ADD_FAILURE() << "process " << pid_ << " did not exit within " << timeout.count()
                  << " ms; killed";
    ::kill(pid_, SIGKILL);
    exitedWithin(std::chrono::seconds(5));
    return std::nullopt;
}

bool ProcessRunner::exitedWithin(std::chrono::milliseconds timeout)
{
    return pollUntil([this] { return reaped(); }, timeout);
}

std::string ProcessRunner::stdoutText() const { return fileText(dir_.file("out")); }
std::string ProcessRunner::stderrText() const { return fileText(dir_.file("err")); }

bool ProcessRunner::waitForStdout(const std::string& text, std::chrono::milliseconds timeout) const
{
    return pollUntil([&] { return stdoutText().find(text) != std::string::npos; }, timeout);
}

RunResult runToEnd(const std::string& binary, const std::vector<std::string>& args,
                   const std::map<std::string, std::string>& env, std::chrono::milliseconds timeout)
{
    ProcessRunner p(binary, args, env);
    p.start();
    RunResult r;
    if (auto status = p.waitForExit(timeout)) r.status = *status;
    r.out = p.stdoutText();
    r.err = p.stderrText();
    return r;
}

}  // namespace rstest
