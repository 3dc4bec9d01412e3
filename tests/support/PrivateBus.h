// A dbus-daemon of our own for one test binary, or for one test that needs a bus it can take away.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "support/TempDir.h"

namespace rstest {

class ProcessRunner;

// Allow-all, like a system bus without its policy; limits raised so that throughput tests
// measure us, not the daemon's defaults.
extern const char* const kAllowAllPolicy;

// Starts Debian's dbus-daemon with the given policy (the <busconfig> elements besides type,
// listen and auth) in a temporary directory, its socket open to every user. The daemon dies
// with this object, and with the thread that created it. Not thread-safe.
class PrivateBus {
public:
    explicit PrivateBus(const std::string& policy = kAllowAllPolicy);  // throws std::runtime_error
    ~PrivateBus();

    const std::string& address() const { return address_; }
    pid_t pid() const;

    // Sets DBUS_SYSTEM_BUS_ADDRESS, so that kavro::bus::connectToBus() finds this bus.
    void exportAddress() const;
    void stop();  // SIGTERM, then SIGKILL if it has not gone within two seconds
    void kill();  // SIGKILL: "the bus went away" without any goodbye

    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

private:
    TempDir dir_;
    std::string address_;
    std::unique_ptr<ProcessRunner> daemon_;
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
