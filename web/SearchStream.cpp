#include "web/SearchStream.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <utility>

#include "client/ClientError.h"
#include "client/DeviceFanout.h"
#include "client/ResultJson.h"
#include "client/SearchSession.h"
#include "client/ServiceConnection.h"
#include "client/Svg.h"

namespace web {

using rsclient::Json;
using rsclient::jsonLine;

namespace {

constexpr std::chrono::milliseconds kProgressEvery{250};
constexpr std::chrono::milliseconds kGatherFor{20};
// How often a waiting reader looks at its socket: a client that hangs up is noticed well
// within a second.
constexpr std::chrono::milliseconds kPeerCheckEvery{200};

// A peer that only half-closed (shutdown of its writing side, as `nc -N` does) still reads:
// only a connection closed both ways counts as gone. A peer that closed shows first as one
// that stopped writing (its FIN): then a line is written, which such a peer answers with a
// reset, seen at the next look.
enum class Peer { Here, StoppedWriting, Gone };

Peer peerState(int socket)
{
    if (socket < 0) return Peer::Here;
    pollfd watched{socket, POLLRDHUP, 0};
    if (::poll(&watched, 1, 0) <= 0) return Peer::Here;
    if ((watched.revents & (POLLHUP | POLLERR)) != 0) return Peer::Gone;
    return (watched.revents & POLLRDHUP) != 0 ? Peer::StoppedWriting : Peer::Here;
}

bool peerGone(int socket) { return peerState(socket) == Peer::Gone; }

constexpr std::chrono::seconds kKeepAliveEvery{1};

std::string errorLine(const std::string& message) { return jsonLine(Json{{"error", message}}); }

}  // namespace

SearchStream::SearchStream(const rsclient::SearchRequest& request, std::size_t maxBuffered)
    : request_(request), maxBuffered_(maxBuffered)
{
}

SearchStream::SearchStream(const rsclient::SearchRequest& request, std::size_t maxBuffered,
                           std::vector<rsclient::Device> devices, uint32_t id,
                           rsclient::DeviceFanout::Options fanoutOptions)
    : request_(request),
      maxBuffered_(maxBuffered),
      devices_(std::move(devices)),
      fanoutOptions_(std::move(fanoutOptions)),
      jobId_(id)
{
}

SearchStream::~SearchStream()
{
    readerGone();
    if (thread_.joinable()) thread_.join();
    session_.reset();
    service_.reset();
}

uint32_t SearchStream::start()
{
    if (!devices_.empty()) {
        // Who is waited for, said before the device is dropped.
        fanoutOptions_.onWaiting = [this](const std::string& device, bool waiting) {
            append(jsonLine(Json{{"device", device}, {"kind", "waiting"}, {"waiting", waiting}}),
                   true);
        };
        fanout_ = std::make_unique<rsclient::DeviceFanout>(devices_, request_, fanoutOptions_);
        append(jsonLine(Json{{"kind", "search"}, {"id", jobId_}}));
        thread_ = std::thread([this] { runOnDevices(); });
        return jobId_;
    }
    service_ = std::make_unique<rsclient::ServiceConnection>(inbox_);
    session_ = std::make_unique<rsclient::SearchSession>(request_, *service_, inbox_, *this);
    jobId_ = *session_->start();
    if (!request_.picture) append(jsonLine(Json{{"kind", "search"}, {"id", jobId_}}));
    thread_ = std::thread([this] { run(); });
    return jobId_;
}

void SearchStream::run()
{
    std::string failure;
    try {
        session_->stream();
    } catch (const std::exception& e) {
        failure = e.what();
    }
    finish(failure, "");
}

void SearchStream::runOnDevices()
{
    const bool stopped = fanout_->run(
        stop_.fd(),
        // The merge waits for room: the devices' transfers stay paused meanwhile.
        [this](const std::string& line) { appendWhenRoom(line + "\n"); },
        [this](rsclient::TimePoint t) { reached(t, 0); });
    const char* how = stopped ? "interrupted" : fanout_->limitReached() ? "limit" : "completed";
    finish("", jsonLine(rsclient::devicesEndJson(*fanout_, how)));
}

void SearchStream::finish(std::string failure, const std::string& lastLine)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (overflowed_) {
        failure = "the client read too slowly: more than " + std::to_string(maxBuffered_ / 1024) +
                  " KiB of results waited for it; search " + std::to_string(jobId_) + " ended";
    }
    if (!failure.empty()) {
        error_ = failure;
        if (!request_.picture) lines_ += errorLine(failure);
    } else if (!readerGone_) {
        lines_ += lastLine;
    }
    done_ = true;
    changed_.notify_all();
}

void SearchStream::push(int signal)
{
    rsclient::ClientEvent event;
    event.kind = rsclient::ClientEvent::Kind::Interrupted;
    event.signal = signal;
    inbox_.push(std::move(event));
    stop_.request(signal);
}

void SearchStream::interrupt()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (done_ || interrupted_) return;
        interrupted_ = true;
    }
    room_.notify_all();
    push(SIGINT);
}

void SearchStream::readerGone()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (done_ || readerGone_) return;
        readerGone_ = true;
        lines_.clear();
        readFrom_ = 0;
    }
    room_.notify_all();
    push(SIGPIPE);
}

ssize_t SearchStream::read(char* buffer, std::size_t size, int socket)
{
    std::unique_lock<std::mutex> lock(mutex_);
    // Lines that come close together leave in one write: waiting a few milliseconds for more
    // saves a wake-up and a send per line, which the walk's own threads would pay for.
    const auto gatherUntil = std::chrono::steady_clock::now() + kGatherFor;
    while (true) {
        const std::size_t waiting = lines_.size() - readFrom_;
        if (waiting > 0 &&
            (done_ || waiting >= size || std::chrono::steady_clock::now() >= gatherUntil)) {
            const std::size_t n = std::min(size, waiting);
            std::memcpy(buffer, lines_.data() + readFrom_, n);
            readFrom_ += n;
            if (readFrom_ == lines_.size()) {
                lines_.clear();
                readFrom_ = 0;
            }
            room_.notify_all();
            return ssize_t(n);
        }
        if (done_) return 0;
        readerWants_ = waiting == 0 ? 1 : size;
        if (waiting == 0) {
            changed_.wait_for(lock, kPeerCheckEvery);
        } else {
            changed_.wait_until(lock, gatherUntil);
        }
        readerWants_ = 0;
        if (readFrom_ < lines_.size() || done_) continue;
        const Peer peer = peerState(socket);
        if (peer == Peer::Gone) {
            lock.unlock();
            readerGone();
            return -1;
        }
        if (peer == Peer::StoppedWriting) {
            const std::string line = keepAliveLine();
            if (!line.empty() && line.size() <= size) {
                std::copy(line.begin(), line.end(), buffer);
                return ssize_t(line.size());
            }
        }
    }
}

std::string SearchStream::keepAliveLine()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - lastKeepAlive_ < kKeepAliveEvery) return "";
    lastKeepAlive_ = now;
    return !lastProgressLine_.empty()
               ? lastProgressLine_
               : jsonLine(
                     Json{{"kind", "progress"}, {"through", rsclient::isoText(request_.start)}});
}

bool SearchStream::waitDone(int socket)
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!done_) {
        changed_.wait_for(lock, kPeerCheckEvery);
        if (!done_ && peerGone(socket)) {
            lock.unlock();
            readerGone();
            return false;
        }
    }
    return true;
}

void SearchStream::append(const std::string& line, bool evenWhenFull)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (readerGone_ || overflowed_) return;
    if (!evenWhenFull && lines_.size() - readFrom_ + line.size() > maxBuffered_) {
        overflowed_ = true;
        return;
    }
    lines_ += line;
    if (readerWants_ != 0 && lines_.size() - readFrom_ >= readerWants_) changed_.notify_all();
}

bool SearchStream::good() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return !overflowed_;
}

// A walk's results cannot wait (the service sends them at its pace): a reader too far behind
// ends the search. The index's can, and wait for room, so that a reader that holds back (a
// merge waiting for a slower device) gets them all.
void SearchStream::result(const rsclient::SearchResult& result)
{
    const std::string line = jsonLine(rsclient::resultJson(result));
    session_->answeringFromIndex() ? appendWhenRoom(line) : append(line);
}

void SearchStream::span(uint32_t jobId, const rsclient::Span& span)
{
    const std::string line = jsonLine(rsclient::spanJson(jobId, span));
    session_->answeringFromIndex() ? appendWhenRoom(line) : append(line);
}

void SearchStream::searched(rsclient::TimePoint t) { searched_ = t; }

void SearchStream::reached(rsclient::TimePoint t, std::size_t)
{
    const auto searched = std::exchange(searched_, std::nullopt);
    if (request_.picture) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - lastProgress_ < kProgressEvery) return;
    lastProgress_ = now;
    Json line{{"kind", "progress"}, {"through", rsclient::isoText(t)}};
    if (searched && rsclient::sinceEpoch(*searched) != rsclient::sinceEpoch(t)) {
        line["searched"] = rsclient::isoText(*searched);
    }
    const std::string text = jsonLine(line);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastProgressLine_ = text;
        // Merged lines wait for room; progress, which the next line repeats, need not.
        if (fanout_ && lines_.size() - readFrom_ + text.size() > maxBuffered_) return;
    }
    append(text);
}

// The search is over: each line waits for room rather than overflowing, so that a reader at
// any speed gets them all while no more than the bound is held.
void SearchStream::coverage(const rsclient::Picture& picture, rsclient::Micros size,
                            const std::vector<rsclient::Segment>& gaps)
{
    rsclient::forEachBucket(
        picture, size,
        [&](const rsclient::Bucket& b) { appendWhenRoom(jsonLine(rsclient::bucketJson(b))); },
        request_.bucketOrigin);
    for (const auto& g : gaps) appendWhenRoom(jsonLine(rsclient::gapJson(g)));
}

void SearchStream::appendWhenRoom(const std::string& line)
{
    std::unique_lock<std::mutex> lock(mutex_);
    room_.wait(lock, [&] {
        return readerGone_ || interrupted_ ||
               lines_.size() - readFrom_ + line.size() <= maxBuffered_;
    });
    if (readerGone_ || (interrupted_ && lines_.size() - readFrom_ + line.size() > maxBuffered_))
        return;
    lines_ += line;
    if (readerWants_ != 0 && lines_.size() - readFrom_ >= readerWants_) changed_.notify_all();
}

void SearchStream::picture(const rsclient::Picture& picture)
{
    std::ostringstream out;
    rsclient::writeSvg(out, picture, "Recording and tracks on and off", request_.utcOffset);
    svg_ = out.str();
}

void SearchStream::count(const rsclient::MatchCount& c)
{
    appendWhenRoom(jsonLine(rsclient::countJson(c)));
}

void SearchStream::notice(uint32_t jobId, const std::string& text)
{
    if (!request_.picture) append(jsonLine(rsclient::noticeJson(jobId, text)), true);
}

void SearchStream::ended(const rsclient::SearchEnd& end)
{
    if (!request_.picture) append(jsonLine(rsclient::searchEndJson(end)), true);
}

}  // namespace web
