// One search for one HTTP client: run on a thread of its own, its lines held for the reader
// up to a bound. A reader that falls further behind gets an error line and the search ends,
// so that a slow client costs a bounded amount of memory.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "client/ClientEvent.h"
#include "client/DeviceFanout.h"
#include "client/DeviceList.h"
#include "client/SearchOutput.h"
#include "client/SearchRequest.h"
#include "kavro/tools/StopSignals.h"

namespace rsclient {
class SearchSession;
class ServiceConnection;
}  // namespace rsclient

namespace web {

class SearchStream : public rsclient::SearchOutput {
public:
    SearchStream(const rsclient::SearchRequest& request, std::size_t maxBuffered);
    // The search sent to these devices' gateways and their streams merged; `id` names it for
    // DELETE, as a job id names a search of this device.
    SearchStream(const rsclient::SearchRequest& request, std::size_t maxBuffered,
                 std::vector<rsclient::Device> devices, uint32_t id,
                 rsclient::DeviceFanout::Options fanoutOptions);
    ~SearchStream() override;  // ends the search if it still runs

    // Connects, creates and begins the search; throws rsclient::ClientError. Then the search
    // runs on a thread of its own; its first line names it.
    uint32_t start();

    // The reader's side, on the HTTP connection's thread. Blocks until there is something to
    // send; `socket` is watched meanwhile, and a peer that hung up ends the search at once.
    // Bytes copied, 0 at the end, -1 when the peer went away.
    ssize_t read(char* buffer, std::size_t size, int socket);
    // For answers sent whole (the picture): waits for the end; false when the peer went away.
    bool waitDone(int socket);
    const std::string& svg() const { return svg_; }      // after waitDone
    const std::string& error() const { return error_; }  // after waitDone; empty when fine

    void interrupt();   // as Ctrl-C: the last line says how far the search got
    void readerGone();  // the search ends without another word

    uint32_t jobId() const { return jobId_; }

    SearchStream(const SearchStream&) = delete;
    SearchStream& operator=(const SearchStream&) = delete;

private:
    void result(const rsclient::SearchResult& result) override;
    void span(uint32_t jobId, const rsclient::Span& span) override;
    void searched(rsclient::TimePoint t) override;
    void reached(rsclient::TimePoint t, std::size_t results) override;
    void coverage(const rsclient::Picture& picture, rsclient::Micros size,
                  const std::vector<rsclient::Segment>& gaps) override;
    void picture(const rsclient::Picture& picture) override;
    void ended(const rsclient::SearchEnd& end) override;
    void notice(uint32_t jobId, const std::string& text) override;
    void count(const rsclient::MatchCount& count) override;
    bool good() const override;

    void run();
    void runOnDevices();
    // The search is over: `failure` (or the reader's falling behind) makes the last line.
    void finish(std::string failure, const std::string& lastLine);
    void append(const std::string& line, bool evenWhenFull = false);
    void appendWhenRoom(const std::string& line);
    // A line for a reader that may have gone: if it has, writing it finds out.
    std::string keepAliveLine();
    void push(int signal);

    rsclient::SearchRequest request_;
    std::size_t maxBuffered_;
    rsclient::EventInbox inbox_;
    std::unique_ptr<rsclient::ServiceConnection> service_;
    std::unique_ptr<rsclient::SearchSession> session_;
    std::vector<rsclient::Device> devices_;
    rsclient::DeviceFanout::Options fanoutOptions_;
    std::unique_ptr<rsclient::DeviceFanout> fanout_;
    kavro::tools::StopRequest stop_;  // ends the merge
    std::thread thread_;
    uint32_t jobId_ = 0;
    std::chrono::steady_clock::time_point lastProgress_;
    std::optional<rsclient::TimePoint> searched_;  // beyond the progress held back
    std::string lastProgressLine_;                 // under mutex_
    std::chrono::steady_clock::time_point lastKeepAlive_;
    std::string svg_;
    std::string error_;

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::condition_variable room_;  // the reader took lines, or left
    std::string lines_;             // from readFrom_ on: not yet read
    std::size_t readFrom_ = 0;
    std::size_t readerWants_ = 0;  // bytes that wake the waiting reader; 0: it is not waiting
    bool overflowed_ = false;
    bool interrupted_ = false;
    bool readerGone_ = false;
    bool done_ = false;
};

}  // namespace web
