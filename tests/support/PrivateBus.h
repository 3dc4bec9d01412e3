// A dbus-daemon of our own for one test binary, or for one test that needs a bus it can take away.
#pragma once

#include <sys/types.h>

#include <string>

namespace rstest {

// Starts Debian's dbus-daemon with an allow-all configuration in a temporary directory. The
// daemon dies with this object, and with the thread that created it (PR_SET_PDEATHSIG), so a
// crashed test binary leaves no daemon behind. Not thread-safe: create, stop and destroy it on
// one thread.
class PrivateBus {
public:
    PrivateBus();  // throws std::runtime_error when the daemon does not come up
    ~PrivateBus();

    const std::string& address() const { return address_; }
    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0; }

    // Sets DBUS_SYSTEM_BUS_ADDRESS, so that kavro::bus::connectToBus() finds this bus.
    void exportAddress() const;

    void stop();  // SIGTERM, then SIGKILL if it has not gone within two seconds
    void kill();  // SIGKILL: "the bus went away" without any goodbye

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

private:
    void terminate(int signal);

    std::string dir_;
    std::string address_;
    pid_t pid_ = -1;
};

// Points DBUS_SYSTEM_BUS_ADDRESS at another bus for its lifetime, then restores the old value.
// The environment is process-wide: use it only while nothing else is connecting to a bus.
class ScopedBusAddress {
public:
    explicit ScopedBusAddress(const std::string& address);
    ~ScopedBusAddress();

    ScopedBusAddress(const ScopedBusAddress&) = delete;
    ScopedBusAddress& operator=(const ScopedBusAddress&) = delete;

private:
    bool hadOld_ = false;
    std::string old_;
};

}  // namespace rstest
