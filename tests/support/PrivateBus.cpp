#include "support/PrivateBus.h"

#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "support/ProcessRunner.h"
#include "support/TempDir.h"

namespace rstest {

const char* const kAllowAllPolicy =
    "<policy context='default'><allow user='*'/><allow own='*'/>"
    "<allow send_type='method_call'/><allow send_destination='*'/>"
    "<allow receive_sender='*'/><allow eavesdrop='true'/></policy>"
    "<limit name='max_incoming_bytes'>1000000000</limit>"
    "<limit name='max_outgoing_bytes'>1000000000</limit>"
    "<limit name='max_message_size'>1000000000</limit>"
    "<limit name='max_completed_connections'>100000</limit>"
    "<limit name='max_connections_per_user'>100000</limit>"
    "<limit name='max_replies_per_connection'>50000</limit>"
    "<limit name='max_match_rules_per_connection'>50000</limit>";

PrivateBus::PrivateBus(const std::string& policy) : dir_("rs-bus")
{
    chmod(dir_.path().c_str(), 0755);
    const std::string config = dir_.file("bus.conf");
    const std::string socket = dir_.file("bus_socket");
    std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus "
                             "Configuration 1.0//EN\" \"http://www.freedesktop.org/standards/"
                             "dbus/1.0/busconfig.dtd\">\n<busconfig><type>system</type>"
                          << "<listen>unix:path=" << socket << "</listen><auth>EXTERNAL</auth>"
                          << policy << "</busconfig>\n";
    daemon_ = std::make_unique<ProcessRunner>(
        "/usr/bin/dbus-daemon",
        std::vector<std::string>{"--nofork", "--print-address=1", "--config-file=" + config});
    daemon_->start();
    if (!daemon_->waitForStdout("\n", std::chrono::seconds(10))) {
        throw std::runtime_error("dbus-daemon did not print its address: " + daemon_->stderrText());
    }
    const std::string out = daemon_->stdoutText();
    address_ = out.substr(0, out.find('\n'));
    // The daemon binds its socket with the test's umask; other users need write access.
    chmod(socket.c_str(), 0666);
}

PrivateBus::~PrivateBus() { kill(); }

pid_t PrivateBus::pid() const { return daemon_ ? daemon_->pid() : -1; }

void PrivateBus::exportAddress() const { setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1); }

void PrivateBus::stop()
{
    if (!daemon_) return;
    daemon_->sendSignal(SIGTERM);
    if (!daemon_->exitedWithin(std::chrono::seconds(2))) kill();
    daemon_.reset();
}

void PrivateBus::kill()
{
    if (!daemon_) return;
    daemon_->sendSignal(SIGKILL);
    daemon_->exitedWithin(std::chrono::seconds(5));
    daemon_.reset();
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
