#include "support/ProcessRunner.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>

#include <algorithm>
#include <array>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

// One thread runs every handler, so Asio's memory fences (which TSan cannot follow) add nothing.
#define BOOST_ASIO_DISABLE_FENCED_BLOCK
#include <boost/asio.hpp>
#include <boost/process.hpp>
#include <boost/process/extend.hpp>
#include <gtest/gtest.h>

#include "support/TempDir.h"

namespace bp = boost::process;
namespace asio = boost::asio;

namespace rstest {

// One I/O thread reads the child's output and notifications; test threads read and wait on
// `changed` under the mutex.
class ProcessRunner::Impl {
public:
    Impl(std::string binary, std::vector<std::string> args, std::map<std::string, std::string> env)
        : binary(std::move(binary)), args(std::move(args)), env(std::move(env))
    {
    }
    ~Impl()
    {
        if (child.valid() && !exit) {
            ::kill(child.id(), SIGKILL);
            reap();
        }
        io.stop();
        if (ioThread.joinable()) ioThread.join();
        std::error_code ignored;
        if (!dir.empty()) std::filesystem::remove_all(dir, ignored);
    }

    void start()
    {
        dir = makeTempDir("rs-proc");
        notifyPath = dir + "/notify";
        notify.open();
        notify.bind(asio::local::datagram_protocol::endpoint(notifyPath));
        // The test's environment with ours on top. Built by hand: Boost 1.74's environment
        // lookup reads past the end of shorter entries.
        std::map<std::string, std::string> merged;
        for (char** e = environ; *e != nullptr; ++e) {
            const std::string entry(*e);
            merged.emplace(entry.substr(0, entry.find('=')), entry.substr(entry.find('=') + 1));
        }
        for (const auto& [k, v] : env) merged[k] = v;
        merged["NOTIFY_SOCKET"] = notifyPath;
        std::vector<std::string> entries;
        for (const auto& [k, v] : merged) entries.push_back(k + "=" + v);
        std::vector<char*> envp;
        for (auto& entry : entries) envp.push_back(entry.data());
        envp.push_back(nullptr);
        try {
            // A bare name is looked up on PATH, as a shell would.
            const std::string exe = binary.find('/') == std::string::npos
                                        ? bp::search_path(binary).string()
                                        : binary;
            child = bp::child(bp::exe = exe.empty() ? binary : exe, bp::args = args, bp::std_in < bp::null,
                              bp::std_out > out.pipe, bp::std_err > err.pipe,
                              bp::extend::on_setup = [&envp](auto& exec) { exec.env = envp.data(); },
                              bp::extend::on_exec_setup = [](auto&) {
                                  // Dies with the test; default signal handling, as systemd gives.
                                  prctl(PR_SET_PDEATHSIG, SIGKILL);
                                  signal(SIGPIPE, SIG_DFL);
                                  sigset_t none;
                                  sigemptyset(&none);
                                  sigprocmask(SIG_SETMASK, &none, nullptr);
                              });
        } catch (const bp::process_error& e) {
            throw std::runtime_error("cannot start " + binary + ": " + e.what());
        }
        read(out);
        read(err);
        receive();
        ioThread = std::thread([this] { io.run(); });
    }

    // Waits for the end with a pidfd, then reaps. False on timeout.
    bool awaitExit(std::chrono::milliseconds timeout)
    {
        if (exitStatus()) return true;
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child.id(), 0));
        if (pidfd < 0) return false;
        pollfd p{pidfd, POLLIN, 0};
        int ready;
        do {
            ready = ::poll(&p, 1, static_cast<int>(timeout.count()));
        } while (ready < 0 && errno == EINTR);
        ::close(pidfd);
        if (ready <= 0) return false;
        reap();
        return true;
    }

    void reap()
    {
        std::error_code ec;
        child.wait(ec);
        const int status = child.native_exit_code();
        ExitStatus s;
        s.exited = WIFEXITED(status);
        s.code = s.exited ? WEXITSTATUS(status) : 0;
        s.termSignal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        std::lock_guard<std::mutex> lock(mutex);
        exit = s;
    }

    std::optional<ExitStatus> exitStatus() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return exit;
    }

    template <typename Pred>
    bool waitUntil(Pred pred, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, timeout, pred);
    }

    struct Stream {
        explicit Stream(asio::io_context& io) : pipe(io) {}
        bp::async_pipe pipe;
        std::array<char, 65536> buffer;
        std::string text;
        bool eof = false;
    };

    void read(Stream& s)
    {
        s.pipe.async_read_some(asio::buffer(s.buffer), [this, &s](boost::system::error_code ec,
                                                                  std::size_t n) {
            std::lock_guard<std::mutex> lock(mutex);
            s.text.append(s.buffer.data(), n);
            s.eof = s.eof || ec;
            changed.notify_all();
            if (!ec) read(s);
        });
    }

    void receive()
    {
        notify.async_receive(asio::buffer(datagram), [this](boost::system::error_code ec,
                                                            std::size_t n) {
            if (ec) return;
            std::lock_guard<std::mutex> lock(mutex);
            std::string text(datagram.data(), n);
            for (size_t start = 0, end; start < text.size(); start = end + 1) {
                end = std::min(text.find('\n', start), text.size());
                if (end > start) notifications.push_back(text.substr(start, end - start));
            }
            changed.notify_all();
            receive();
        });
    }

    const std::string binary;
    const std::vector<std::string> args;
    const std::map<std::string, std::string> env;
    std::string dir;
    std::string notifyPath;
    asio::io_context io;
    Stream out{io};
    Stream err{io};
    asio::local::datagram_protocol::socket notify{io};
    std::array<char, 4096> datagram;
    bp::child child;
    std::thread ioThread;
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::optional<ExitStatus> exit;
    std::vector<std::string> notifications;
};

ProcessRunner::ProcessRunner(std::string binary, std::vector<std::string> args,
                             std::map<std::string, std::string> env)
    : impl_(std::make_unique<Impl>(std::move(binary), std::move(args), std::move(env)))
{
}
ProcessRunner::~ProcessRunner() = default;

void ProcessRunner::start() { impl_->start(); }
pid_t ProcessRunner::pid() const { return impl_->child.id(); }

std::vector<std::string> ProcessRunner::notifications() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->notifications;
}

bool ProcessRunner::waitForNotify(const std::string& message,
                                  std::chrono::milliseconds timeout) const
{
    const auto& n = impl_->notifications;
    return impl_->waitUntil([&] { return std::find(n.begin(), n.end(), message) != n.end(); },
                            timeout);
}

void ProcessRunner::sendSignal(int signal)
{
    if (!impl_->exitStatus()) ::kill(impl_->child.id(), signal);
}

std::optional<ExitStatus> ProcessRunner::waitForExit(std::chrono::milliseconds timeout)
{
    const bool exited = impl_->awaitExit(timeout);
    if (!exited) {
        ADD_FAILURE() << "process " << pid() << " did not exit within " << timeout.count()
                      << " ms; killed";
        ::kill(pid(), SIGKILL);
        impl_->reap();
    }
    // What it wrote just before the end may still be in the pipes.
    impl_->waitUntil([this] { return impl_->out.eof && impl_->err.eof; }, std::chrono::seconds(2));
    return exited ? impl_->exitStatus() : std::nullopt;
}

bool ProcessRunner::exitedWithin(std::chrono::milliseconds timeout)
{
    return impl_->awaitExit(timeout);
}

std::string ProcessRunner::stdoutText() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->out.text;
}

std::string ProcessRunner::stderrText() const
{
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->err.text;
}

bool ProcessRunner::waitForStdout(const std::string& text, std::chrono::milliseconds timeout) const
{
    return impl_->waitUntil([&] { return impl_->out.text.find(text) != std::string::npos; },
                            timeout);
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
