// The HTTP side of a search on many devices: one POST a device, run together on one thread
// with libcurl's multi interface. Each device's token goes to its own URL only (no redirects),
// with its CA file as the only authority trusted when it has one. Bytes are handed to the
// Receiver as they come; a device whose bytes cannot be taken now is paused until resumed.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

#include "client/DeviceList.h"

namespace rsclient {

class DeviceTransfers {
public:
    class Receiver {
    public:
        enum class Take { All, Pause, Abort };
        virtual ~Receiver() = default;
        // The response's status is `status`; the bytes are its body.
        virtual Take bytes(std::size_t device, long status, const char* data, std::size_t size) = 0;
        // The transfer ended: `failure` empty when it ended well, else why, without the URL.
        virtual void done(std::size_t device, long status, const std::string& failure) = 0;
    };

    DeviceTransfers(const std::vector<Device>& devices, const std::string& path,
                    const std::string& body, std::chrono::milliseconds connectTimeout,
                    Receiver& receiver);
    ~DeviceTransfers();

    void startAll();
    // Runs what can run now: bytes and ends go to the receiver.
    void perform();
    // Waits up to `wait` for more to run, or for `stopFd` to become readable (then true).
    bool wait(std::chrono::milliseconds wait, int stopFd);
    void resume(std::size_t device);
    bool paused(std::size_t device) const;
    // Closes the device's connection: its gateway ends its search.
    void close(std::size_t device);

    DeviceTransfers(const DeviceTransfers&) = delete;
    DeviceTransfers& operator=(const DeviceTransfers&) = delete;

private:
    struct Transfer;
    static std::size_t onData(char* data, std::size_t size, std::size_t count, void* transfer);
    void finished();

    Receiver& receiver_;
    std::string body_;
    std::vector<Transfer> transfers_;
    void* multi_ = nullptr;
};

}  // namespace rsclient
