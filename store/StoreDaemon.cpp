#include "store/StoreDaemon.h"

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "kavro/bus/BusLoop.h"
#include "kavro/bus/Contract.h"
#include "kavro/core.h"
#include "kavro/tools/StopSignals.h"
#include "store/Recording.h"
#include "store/RecordingStoreServices.h"
#include "store/StoreError.h"

namespace store {

namespace {

class Fd {
public:
    explicit Fd(int fd, const char* what) : fd_(fd)
    {
        if (fd_ < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
    }
    ~Fd() { ::close(fd_); }
    int get() const { return fd_; }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

private:
    int fd_;
};

void fatal(void* logCookie, const std::string& message)
{
    kavro_core_logging_log(logCookie, 3, "%s", message.c_str());
    std::fprintf(stderr, "recording_store: %s\n", message.c_str());
    sd_notify(0, "ERRNO=5");
}

}  // namespace

int StoreDaemon::run()
{
    kavro::tools::StopRequest stop;
    const kavro::tools::StopSignals stopSignals(stop);

    kavro_core_init();
    void* logCookie = nullptr;
    if (kavro_core_logging_init("RECORDING_STORE", &logCookie) != KAVRO_STATUS_OK) {
        std::fprintf(stderr, "recording_store: cannot start logging\n");
        kavro_core_deinit();
        return 1;
    }
    int status = 1;
    try {
        status = serve(logCookie, stop);
    } catch (const StoreError& e) {
        fatal(logCookie, e.what());
    } catch (const sdbus::Error& e) {
        fatal(logCookie, "bus: " + e.getMessage());
    } catch (const std::exception& e) {
        fatal(logCookie, e.what());
    }
    kavro_core_logging_deinit(logCookie);
    kavro_core_deinit();
    return status;
}

int StoreDaemon::serve(void* logCookie, const kavro::tools::StopRequest& stop)
{
    Recording recording(path_);
    Fd lostFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "eventfd");
    kavro::bus::BusLoop loop(kavro::bus::connectToBus());
    // Declared after the loop, so destroyed before the connection it is registered on.
    RecordingStoreServices services(loop.connection(), recording, logCookie);
    // Names last: a client that sees a name finds its object already there.
    for (const char* service : RecordingStoreServices::kServiceNames) {
        try {
            loop.connection().requestName(kavro::bus::busName(service));
        } catch (const sdbus::Error& e) {
            throw StoreError("cannot own " + kavro::bus::busName(service) + ": " + e.getMessage());
        }
    }

    std::string lostReason;
    loop.start([&](const std::string& reason) {
        lostReason = reason;  // read only after the loop thread has been joined
        const uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(lostFd.get(), &one, sizeof one);
    });
    sd_notify(0, "READY=1");
    kavro_core_logging_log(logCookie, 6, "Serving %s", path_.c_str());

    pollfd fds[2] = {{stop.fd(), POLLIN, 0}, {lostFd.get(), POLLIN, 0}};
    while (::poll(fds, 2, -1) < 0 && errno == EINTR) {}
    if (stop.requested()) {
        sd_notify(0, "STOPPING=1");
        kavro_core_logging_log(logCookie, 6, "Stopping on signal %d", stop.signal());
    }
    // Joined here, so that the objects and the connection are left to this thread alone.
    loop.stop();
    if (loop.lost()) {
        fatal(logCookie, "the bus went away: " + lostReason);
        return 1;
    }
    return 0;
}

}  // namespace store
