// A devices file as a person might write it, or as anything might be left in its place: any
// bytes. Besides surviving (nothing but a usage error leaves the reader), every device it takes
// has a plain name, a URL without user or password, and plain HTTP only on loopback.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "client/ClientError.h"
#include "client/DeviceList.h"

namespace {

[[noreturn]] void broken(const char* promise)
{
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

// A folder with a token file beside the devices file, as the file's lines may name it.
const std::string& folder()
{
    static const std::string path = [] {
        char name[] = "/tmp/rs-devices-fuzz-XXXXXX";
        if (::mkdtemp(name) == nullptr) std::abort();
        std::ofstream(std::string(name) + "/t") << "token\n";
        return std::string(name);
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string file = folder() + "/devices";
    std::ofstream(file, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), std::streamsize(size));
    try {
        for (const auto& device : rsclient::readDevices(file)) {
            if (device.name.empty() || device.name.size() > 32) broken("a name out of bounds");
            if (device.url.find('@') != std::string::npos) broken("a URL with a user");
            if (device.url.rfind("http://", 0) == 0 &&
                device.url.rfind("http://127.0.0.1", 0) != 0 &&
                device.url.rfind("http://[::1]", 0) != 0 &&
                device.url.rfind("http://localhost", 0) != 0) {
                broken("plain HTTP beyond loopback");
            }
        }
    } catch (const rsclient::ClientError& e) {
        if (e.kind() != rsclient::ErrorKind::Usage) broken("an error other than a usage error");
    }
    return 0;
}
