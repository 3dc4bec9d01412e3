#include "support/PrivateBus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

#include "support/TempDir.h"

namespace rstest {

namespace {

// Allow-all, like a system bus without its policy; limits raised so that throughput tests
// measure us, not the daemon's defaults.
void writeConfig(const std::string& path, const std::string& socketPath)
{
    std::ofstream out(path);
    out << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
           " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig>\n"
           "  <type>system</type>\n"
           "  <listen>unix:path="
        << socketPath
        << "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <policy context=\"default\">\n"
           "    <allow user=\"*\"/>\n"
           "    <allow own=\"*\"/>\n"
           "    <allow send_type=\"method_call\"/>\n"
           "    <allow send_destination=\"*\"/>\n"
           "    <allow receive_sender=\"*\"/>\n"
           "    <allow eavesdrop=\"true\"/>\n"
           "  </policy>\n"
           "  <limit name=\"max_incoming_bytes\">1000000000</limit>\n"
           "  <limit name=\"max_outgoing_bytes\">1000000000</limit>\n"
           "  <limit name=\"max_message_size\">1000000000</limit>\n"
           "  <limit name=\"max_completed_connections\">100000</limit>\n"
           "  <limit name=\"max_connections_per_user\">100000</limit>\n"
           "  <limit name=\"max_replies_per_connection\">50000</limit>\n"
           "  <limit name=\"max_match_rules_per_connection\">50000</limit>\n"
           "</busconfig>\n";
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::string readAddress(int fd, pid_t pid, const std::string& errorLog)
{
    std::string address;
    char c = 0;
    while (true) {
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        if (c == '\n') return address;
        address += c;
    }
    std::ifstream errors(errorLog);
    const std::string why((std::istreambuf_iterator<char>(errors)), std::istreambuf_iterator<char>());
    throw std::runtime_error("dbus-daemon (pid " + std::to_string(pid) +
                             ") exited without printing its address: " + why);
}

}  // namespace

PrivateBus::PrivateBus() : dir_(makeTempDir("rs-bus"))
{
    const std::string config = dir_ + "/bus.conf";
    writeConfig(config, dir_ + "/bus_socket");

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
    const std::string configArg = "--config-file=" + config;
    const std::string errorLog = dir_ + "/daemon.err";
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(fds[1], 3);  // dup2 clears close-on-exec on the copy
        const int devnull = ::open("/dev/null", O_RDWR);
        dup2(devnull, 0);
        dup2(devnull, 1);
        // Kept out of the test output ("Failed to set fd limit" on every start); read back
        // only when the daemon does not come up.
        const int errors = ::open(errorLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(errors, 2);
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--print-address=3", configArg.c_str(),
               static_cast<char*>(nullptr));
        _exit(127);
    }
    ::close(fds[1]);
    try {
        address_ = readAddress(fds[0], pid_, errorLog);
    } catch (...) {
        ::close(fds[0]);
        kill();
        std::filesystem::remove_all(dir_);
        throw;
    }
    ::close(fds[0]);
}

PrivateBus::~PrivateBus()
{
    kill();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
}

void PrivateBus::exportAddress() const
{
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
}

void PrivateBus::stop() { terminate(SIGTERM); }

void PrivateBus::kill() { terminate(SIGKILL); }

void PrivateBus::terminate(int signal)
{
    if (pid_ <= 0) return;
    ::kill(pid_, signal);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (true) {
        const pid_t r = waitpid(pid_, nullptr, WNOHANG);
        if (r == pid_ || (r < 0 && errno != EINTR)) break;
        if (std::chrono::steady_clock::now() > deadline && signal != SIGKILL) {
            ::kill(pid_, SIGKILL);
            signal = SIGKILL;
        }
        // Reaping a child has no waitable handle short of pidfd; poll it briefly.
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    pid_ = -1;
}

ScopedBusAddress::ScopedBusAddress(const std::string& address)
{
    if (const char* old = std::getenv("DBUS_SYSTEM_BUS_ADDRESS")) {
        hadOld_ = true;
        old_ = old;
    }
    setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
}

ScopedBusAddress::~ScopedBusAddress()
{
    if (hadOld_) {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", old_.c_str(), 1);
    } else {
        unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    }
}

}  // namespace rstest
