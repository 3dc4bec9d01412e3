#include "support/ProcessRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "support/TempDir.h"

extern char** environ;

namespace rstest {

namespace {

std::runtime_error sysError(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

int bindNotifySocket(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) throw sysError("socket");
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) throw std::runtime_error("socket path too long");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        throw sysError("bind " + path);
    }
    return fd;
}

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& extra)
{
    std::map<std::string, std::string> merged;
    for (char** e = environ; e && *e; ++e) {
        const std::string entry(*e);
        const auto eq = entry.find('=');
        if (eq != std::string::npos) merged[entry.substr(0, eq)] = entry.substr(eq + 1);
    }
    for (const auto& [k, v] : extra) merged[k] = v;
    std::vector<std::string> out;
    for (const auto& [k, v] : merged) out.push_back(k + "=" + v);
    return out;
}

std::vector<char*> pointers(std::vector<std::string>& strings)
{
    std::vector<char*> out;
    for (auto& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

ExitStatus decode(int status)
{
    ExitStatus s;
    if (WIFEXITED(status)) {
        s.exited = true;
        s.code = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        s.termSignal = WTERMSIG(status);
    }
    return s;
}

}  // namespace

// Thread use: one I/O thread reads the child's stdout, stderr and notifications and appends
// them under mutex; test threads read and wait on `changed`. The pid and the exit status are
// also guarded by mutex, so that only one thread reaps the child.
class ProcessRunner::Impl {
public:
    Impl(std::string binary, std::vector<std::string> args, std::map<std::string, std::string> env)
        : binary_(std::move(binary)), args_(std::move(args)), env_(std::move(env))
    {
    }

    ~Impl()
    {
        killAndReap();
        stopIo();
        for (int fd : {outFd_, errFd_, notifyFd_, stopFd_}) {
            if (fd >= 0) ::close(fd);
        }
        if (!dir_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(dir_, ignored);
        }
    }

    void start()
    {
        dir_ = makeTempDir("rs-proc");
        notifyPath_ = dir_ + "/notify";
        notifyFd_ = bindNotifySocket(notifyPath_);
        stopFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (stopFd_ < 0) throw sysError("eventfd");
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0) throw sysError("pipe2");
        if (pipe2(err, O_CLOEXEC) != 0) throw sysError("pipe2");

        auto env = env_;
        env["NOTIFY_SOCKET"] = notifyPath_;
        std::vector<std::string> envStrings = mergedEnvironment(env);
        std::vector<std::string> argStrings{binary_};
        argStrings.insert(argStrings.end(), args_.begin(), args_.end());
        auto argv = pointers(argStrings);
        auto envp = pointers(envStrings);

        const pid_t parent = getpid();
        const pid_t pid = fork();
        if (pid < 0) throw sysError("fork");
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent) _exit(127);
            const int devnull = ::open("/dev/null", O_RDONLY);
            dup2(devnull, 0);
            dup2(out[1], 1);
            dup2(err[1], 2);
            // The test binary ignores SIGPIPE; a child starts with the default dispositions.
            signal(SIGPIPE, SIG_DFL);
            sigset_t none;
            sigemptyset(&none);
            sigprocmask(SIG_SETMASK, &none, nullptr);
            execvpe(binary_.c_str(), argv.data(), envp.data());
            _exit(127);
        }
        ::close(out[1]);
        ::close(err[1]);
        outFd_ = out[0];
        errFd_ = err[0];
        {
            std::lock_guard<std::mutex> lock(mutex_);
            pid_ = pid;
        }
        io_ = std::thread([this] { ioLoop(); });
    }

    pid_t pid() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return pid_;
    }

    const std::string& notifyPath() const { return notifyPath_; }

    std::vector<std::string> notifications() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return notifications_;
    }

    bool waitForNotify(const std::string& message, std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] {
            return std::find(notifications_.begin(), notifications_.end(), message) !=
                   notifications_.end();
        });
    }

    bool waitForOutput(const std::string& out, const std::string& text,
                       std::chrono::milliseconds timeout) const
    {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout,
                                 [&] { return out.find(text) != std::string::npos; });
    }

    const std::string& outRef() const { return out_; }
    const std::string& errRef() const { return err_; }

    std::string out() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return out_;
    }

    std::string err() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return err_;
    }

    void sendSignal(int signal)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pid_ > 0 && !exit_) ::kill(pid_, signal);
    }

    // Waits for the child's end with a pidfd, then reaps it. False on timeout.
    bool awaitExit(std::chrono::milliseconds timeout)
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (exit_) return true;
            if (pid_ <= 0) return false;
        }
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
        if (pidfd < 0) throw sysError("pidfd_open");
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

    std::optional<ExitStatus> exitStatus() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return exit_;
    }

    void killAndReap()
    {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (pid_ <= 0 || exit_) return;
            ::kill(pid_, SIGKILL);
        }
        reap();
    }

    // Output that the child wrote just before it ended may still be in the pipes: read to EOF,
    // for a bounded time, in case a grandchild holds them open.
    void drainOutput()
    {
        std::unique_lock<std::mutex> lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(2), [this] { return outEof_ && errEof_; });
    }

private:
    void reap()
    {
        int status = 0;
        pid_t r;
        do {
            r = waitpid(pid_, &status, 0);
        } while (r < 0 && errno == EINTR);
        std::lock_guard<std::mutex> lock(mutex_);
        if (r == pid_) exit_ = decode(status);
        changed_.notify_all();
    }

    void stopIo()
    {
        if (!io_.joinable()) return;
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t w = ::write(stopFd_, &one, sizeof one);
        io_.join();
    }

    void ioLoop()
    {
        char buf[65536];
        while (true) {
            pollfd fds[4] = {{outEof_ ? -1 : outFd_, POLLIN, 0},
                             {errEof_ ? -1 : errFd_, POLLIN, 0},
                             {notifyFd_, POLLIN, 0},
                             {stopFd_, POLLIN, 0}};
            if (::poll(fds, 4, -1) < 0) {
                if (errno == EINTR) continue;
                return;
            }
            if (fds[3].revents) {
                readNotifications();
                return;
            }
            if (fds[0].revents) readPipe(outFd_, out_, outEof_, buf, sizeof buf);
            if (fds[1].revents) readPipe(errFd_, err_, errEof_, buf, sizeof buf);
            if (fds[2].revents) readNotifications();
        }
    }

    void readPipe(int fd, std::string& into, bool& eof, char* buf, size_t size)
    {
        const ssize_t n = ::read(fd, buf, size);
        if (n < 0 && errno == EINTR) return;
        std::lock_guard<std::mutex> lock(mutex_);
        if (n <= 0) {
            eof = true;
        } else {
            into.append(buf, static_cast<size_t>(n));
        }
        changed_.notify_all();
    }

    void readNotifications()
    {
        char buf[4096];
        while (true) {
            const ssize_t n = ::recv(notifyFd_, buf, sizeof buf, 0);
            if (n < 0) return;  // EAGAIN: all read
            std::lock_guard<std::mutex> lock(mutex_);
            std::string datagram(buf, static_cast<size_t>(n));
            size_t start = 0;
            while (start < datagram.size()) {
                size_t end = datagram.find('\n', start);
                if (end == std::string::npos) end = datagram.size();
                if (end > start) notifications_.push_back(datagram.substr(start, end - start));
                start = end + 1;
            }
            changed_.notify_all();
        }
    }

    std::string binary_;
    std::vector<std::string> args_;
    std::map<std::string, std::string> env_;
    std::string dir_;
    std::string notifyPath_;
    int notifyFd_ = -1;
    int stopFd_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::thread io_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;  // output, a notification or the exit arrived
    pid_t pid_ = -1;
    std::optional<ExitStatus> exit_;
    std::string out_;
    std::string err_;
    bool outEof_ = false;
    bool errEof_ = false;
    std::vector<std::string> notifications_;
};

ProcessRunner::ProcessRunner(std::string binary, std::vector<std::string> args,
                             std::map<std::string, std::string> env)
    : impl_(std::make_unique<Impl>(std::move(binary), std::move(args), std::move(env)))
{
}

ProcessRunner::~ProcessRunner() = default;

void ProcessRunner::start() { impl_->start(); }

pid_t ProcessRunner::pid() const { return impl_->pid(); }

const std::string& ProcessRunner::notifySocketPath() const { return impl_->notifyPath(); }

std::vector<std::string> ProcessRunner::notifications() const { return impl_->notifications(); }

bool ProcessRunner::waitForNotify(const std::string& message,
                                  std::chrono::milliseconds timeout) const
{
    return impl_->waitForNotify(message, timeout);
}

void ProcessRunner::sendSignal(int signal) { impl_->sendSignal(signal); }

std::optional<ExitStatus> ProcessRunner::waitForExit(std::chrono::milliseconds timeout)
{
    if (!impl_->awaitExit(timeout)) {
        ADD_FAILURE() << "process " << impl_->pid() << " did not exit within " << timeout.count()
                      << " ms; killed";
        impl_->killAndReap();
        impl_->drainOutput();
        return std::nullopt;
    }
    impl_->drainOutput();
    return impl_->exitStatus();
}

bool ProcessRunner::exitedWithin(std::chrono::milliseconds timeout)
{
    return impl_->awaitExit(timeout);
}

std::string ProcessRunner::stdoutText() const { return impl_->out(); }

std::string ProcessRunner::stderrText() const { return impl_->err(); }

bool ProcessRunner::waitForStdout(const std::string& substring,
                                  std::chrono::milliseconds timeout) const
{
    return impl_->waitForOutput(impl_->outRef(), substring, timeout);
}

bool ProcessRunner::waitForStderr(const std::string& substring,
                                  std::chrono::milliseconds timeout) const
{
    return impl_->waitForOutput(impl_->errRef(), substring, timeout);
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
