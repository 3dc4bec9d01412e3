// The standard's search service: the recording's summary and information, and searches for
// recordings, events and metadata whose results the client pulls page by page. Each search is
// named by a token that cannot be guessed; one whose client stops asking for longer than its
// KeepAliveTime is ended, and its slot on recording_search freed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "onvif/SoapMessage.h"

namespace onvif {

class PulledSearch;

class SearchService {
public:
    explicit SearchService(void* logCookie, std::size_t mostHeld = kMostHeld);
    ~SearchService();  // ends every search

    // Writes the answer to one operation; throws SoapFault.
    void answer(const SoapRequest& request, SoapWriter& out);
    void endAll();  // at shutdown: every search ends, and whoever waits for one is answered

    // Results one search holds for its client at most.
    static constexpr std::size_t kMostHeld = 2048;

    SearchService(const SearchService&) = delete;
    SearchService& operator=(const SearchService&) = delete;

private:
    struct Search;
    using Clock = std::chrono::steady_clock;

    void summary(SoapWriter& out);
    void information(const xmlNode* request, SoapWriter& out);
    void findRecordings(const xmlNode* request, SoapWriter& out);
    void findEvents(const xmlNode* request, SoapWriter& out);
    void findMetadata(const xmlNode* request, SoapWriter& out);
    void results(const std::string& operation, const xmlNode* request, SoapWriter& out);
    void state(const xmlNode* request, SoapWriter& out);
    void endSearch(const xmlNode* request, SoapWriter& out);

    // Enters a search in the table and writes its token as the answer of `operation`.
    void open(const std::string& operation, std::shared_ptr<Search> search, SoapWriter& out);
    std::shared_ptr<Search> find(const xmlNode* request, const char* kind);
    void reap();
    void log(int priority, const std::string& message) const;

    void* logCookie_;
    const std::size_t mostHeld_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, std::shared_ptr<Search>> searches_;
    std::size_t beginning_ = 0;  // searches that hold a slot while they begin
    bool stopping_ = false;
    std::thread reaper_;
};

}  // namespace onvif
