#include "client/DeviceTransfers.h"

#include "client/CurlLibrary.h"

namespace rsclient {

struct DeviceTransfers::Transfer {
    DeviceTransfers* owner = nullptr;
    std::size_t device = 0;
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    char error[CURL_ERROR_SIZE] = {};
    bool added = false;
    bool paused = false;
};

DeviceTransfers::DeviceTransfers(const std::vector<Device>& devices, const std::string& path,
                                 const std::string& body, std::chrono::milliseconds connectTimeout,
                                 Receiver& receiver)
    : receiver_(receiver), body_(body), transfers_(devices.size())
{
    const CurlLibrary& c = curlLibrary();
    multi_ = c.multi_init();
    // One connection a device, none kept for later.
    c.multi_setopt(multi_, CURLMOPT_MAX_TOTAL_CONNECTIONS, long(devices.size()));
    c.multi_setopt(multi_, CURLMOPT_MAXCONNECTS, long(devices.size()));
    for (std::size_t d = 0; d < devices.size(); ++d) {
        Transfer& t = transfers_[d];
        t.owner = this;
        t.device = d;
        t.easy = c.easy_init();
        t.headers =
            c.slist_append(t.headers, ("Authorization: Bearer " + devices[d].token).c_str());
        t.headers = c.slist_append(t.headers, "Content-Type: application/json");
        const std::string url = devices[d].url + path;
        c.easy_setopt(t.easy, CURLOPT_URL, url.c_str());
        c.easy_setopt(t.easy, CURLOPT_HTTPHEADER, t.headers);
        c.easy_setopt(t.easy, CURLOPT_POSTFIELDS, body_.c_str());
        c.easy_setopt(t.easy, CURLOPT_POSTFIELDSIZE, long(body_.size()));
        c.easy_setopt(t.easy, CURLOPT_WRITEFUNCTION, &DeviceTransfers::onData);
        c.easy_setopt(t.easy, CURLOPT_WRITEDATA, &t);
        c.easy_setopt(t.easy, CURLOPT_PRIVATE, &t);
        c.easy_setopt(t.easy, CURLOPT_ERRORBUFFER, t.error);
        c.easy_setopt(t.easy, CURLOPT_NOSIGNAL, 1L);
        c.easy_setopt(t.easy, CURLOPT_FOLLOWLOCATION, 0L);
        c.easy_setopt(t.easy, CURLOPT_PROTOCOLS_STR, "http,https");
        c.easy_setopt(t.easy, CURLOPT_CONNECTTIMEOUT_MS, long(connectTimeout.count()));
        c.easy_setopt(t.easy, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_2));
        if (!devices[d].caFile.empty()) {
            // A pin: that file alone, not beside the system's authorities.
            c.easy_setopt(t.easy, CURLOPT_CAINFO, devices[d].caFile.c_str());
            c.easy_setopt(t.easy, CURLOPT_CAPATH, nullptr);
        }
    }
}

DeviceTransfers::~DeviceTransfers()
{
    const CurlLibrary& c = curlLibrary();
    for (Transfer& t : transfers_) {
        if (t.added) c.multi_remove_handle(multi_, t.easy);
        c.easy_cleanup(t.easy);
        c.slist_free_all(t.headers);
    }
    c.multi_cleanup(multi_);
}

void DeviceTransfers::startAll()
{
    for (Transfer& t : transfers_) {
        curlLibrary().multi_add_handle(multi_, t.easy);
        t.added = true;
    }
}

std::size_t DeviceTransfers::onData(char* data, std::size_t size, std::size_t count, void* transfer)
{
    auto* t = static_cast<Transfer*>(transfer);
    long status = 0;
    curlLibrary().easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
    switch (t->owner->receiver_.bytes(t->device, status, data, size * count)) {
    case Receiver::Take::All: return size * count;
    case Receiver::Take::Pause: t->paused = true; return CURL_WRITEFUNC_PAUSE;
    case Receiver::Take::Abort: break;
    }
    return 0;  // ends the transfer
}

void DeviceTransfers::finished()
{
    const CurlLibrary& c = curlLibrary();
    int queued = 0;
    while (CURLMsg* message = c.multi_info_read(multi_, &queued)) {
        if (message->msg != CURLMSG_DONE) continue;
        Transfer* t = nullptr;
        c.easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &t);
        long status = 0;
        c.easy_getinfo(t->easy, CURLINFO_RESPONSE_CODE, &status);
        c.multi_remove_handle(multi_, t->easy);
        t->added = false;
        // curl's own sentence, which names no host: the URL stays with whoever set it.
        const CURLcode result = message->data.result;
        receiver_.done(t->device, status, result == CURLE_OK ? "" : c.easy_strerror(result));
    }
}

void DeviceTransfers::perform()
{
    int running = 0;
    curlLibrary().multi_perform(multi_, &running);
    finished();
}

bool DeviceTransfers::wait(std::chrono::milliseconds wait, int stopFd)
{
    curl_waitfd stop{stopFd, CURL_WAIT_POLLIN, 0};
    curlLibrary().multi_poll(multi_, &stop, stopFd >= 0 ? 1 : 0, int(wait.count()), nullptr);
    return stop.revents != 0;
}

bool DeviceTransfers::paused(std::size_t device) const { return transfers_[device].paused; }

void DeviceTransfers::resume(std::size_t device)
{
    Transfer& t = transfers_[device];
    if (!t.paused) return;
    t.paused = false;
    curlLibrary().easy_pause(t.easy, CURLPAUSE_CONT);
}

void DeviceTransfers::close(std::size_t device)
{
    Transfer& t = transfers_[device];
    if (!t.added) return;
    curlLibrary().multi_remove_handle(multi_, t.easy);
    t.added = false;
}

}  // namespace rsclient
