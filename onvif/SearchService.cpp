#include "onvif/SearchService.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include <gnutls/crypto.h>

#include "client/ClientError.h"
#include "client/SearchRequest.h"
#include "client/XPathCheck.h"
#include "kavro/contract.h"
#include "kavro/core.h"
#include "onvif/PulledSearch.h"
#include "onvif/RecordingFacts.h"
#include "onvif/SoapFault.h"
#include "onvif/XsdValues.h"

namespace onvif {

namespace {

using namespace std::chrono_literals;
using rsclient::SearchRequest;
using rsclient::SearchResult;
using rsclient::TimePoint;

constexpr std::size_t kMostSearches = 16;
constexpr std::size_t kMostPerPage = 1000;
constexpr std::chrono::milliseconds kLongestWait = 30s;
constexpr std::chrono::milliseconds kDefaultWait = 1s;
constexpr std::chrono::milliseconds kShortestKeepAlive = 1s;
constexpr std::chrono::milliseconds kLongestKeepAlive = 1h;
constexpr std::chrono::milliseconds kReapEvery = 200ms;
constexpr const char* kTopicDialect = "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet";

std::string newToken()
{
    unsigned char bytes[16];
    if (gnutls_rnd(GNUTLS_RND_RANDOM, bytes, sizeof bytes) != 0) {
        throw SoapFault(SoapFault::Code::Receiver, {"ter:Action"}, "no randomness for a token");
    }
    char text[sizeof bytes * 2 + 1];
    for (std::size_t i = 0; i < sizeof bytes; ++i) std::snprintf(text + 2 * i, 3, "%02x", bytes[i]);
    return text;
}

std::string required(const xmlNode* request, const char* name)
{
    const xmlNode* element = childNamed(request, name);
    if (element == nullptr) throw invalidArgument(std::string(name) + " is required");
    return textOf(element);
}

TimePoint timeOf(const std::string& text, const char* name)
{
    std::string why;
    const auto t = readDateTime(text, &why);
    if (!t) throw invalidArgument(std::string(name) + ": " + why);
    return *t;
}

std::chrono::milliseconds keepAliveOf(const xmlNode* request)
{
    const xmlNode* element = childNamed(request, "KeepAliveTime");
    if (element == nullptr) return 10s;
    std::string why;
    const auto d = readDuration(textOf(element), &why);
    if (!d) throw invalidArgument("KeepAliveTime: " + why);
    return std::clamp(*d, kShortestKeepAlive, kLongestKeepAlive);
}

std::optional<int32_t> intOf(const xmlNode* request, const char* name, int32_t least)
{
    const xmlNode* element = childNamed(request, name);
    if (element == nullptr) return std::nullopt;
    const auto value = readInt(textOf(element));
    if (!value || *value < least) {
        throw invalidArgument(std::string(name) + " must be a whole number of at least " +
                              std::to_string(least));
    }
    return value;
}

// False when the scope names recordings and this one is not among them.
bool scopeIncludesUs(const xmlNode* request)
{
    const auto named = childrenNamed(childNamed(request, "Scope"), "IncludedRecordings");
    return named.empty() || std::any_of(named.begin(), named.end(), [](const xmlNode* n) {
               return textOf(n) == kRecordingToken;
           });
}

// The range of a Find: an absent EndPoint searches forward to the recording's end.
void rangeOf(const xmlNode* request, SearchRequest& search)
{
    search.start = timeOf(required(request, "StartPoint"), "StartPoint");
    if (const xmlNode* end = childNamed(request, "EndPoint")) {
        search.end = timeOf(textOf(end), "EndPoint");
        return;
    }
    const auto span = recordingSpan();
    search.end = span && rsclient::earlier(search.start, span->second)
                     ? span->second
                     : TimePoint{UINT32_MAX, kavro::contract::kMaxUsec};
}

void writeItem(SoapWriter& out, const char* name, const std::string& value)
{
    out.open("tt:SimpleItem");
    out.attribute("Name", name);
    out.attribute("Value", value);
    out.close();
}

void writeEvent(SoapWriter& out, const SearchResult& r)
{
    const bool track = r.kind == SearchResult::Kind::TrackState;
    out.open("tt:Result");
    out.element("tt:RecordingToken", kRecordingToken);
    out.element("tt:TrackToken", track ? r.track : "");
    out.element("tt:Time", dateTimeText(r.time));
    out.open("tt:Event");
    out.open("wsnt:Topic");
    out.attribute("Dialect", kTopicDialect);
    out.text(track ? "tns1:RecordingHistory/Track/State" : "tns1:RecordingHistory/Recording/State");
    out.close();
    out.open("wsnt:Message");
    out.open("tt:Message");
    out.attribute("UtcTime", dateTimeText(r.time));
    out.attribute("PropertyOperation", r.startState ? "Initialized" : "Changed");
    out.open("tt:Source");
    writeItem(out, "RecordingToken", kRecordingToken);
    if (track) writeItem(out, "Track", r.track);
    out.close();
    out.open("tt:Data");
    writeItem(out, track ? "IsDataPresent" : "IsRecording", r.on ? "true" : "false");
    out.close();
    out.close();  // tt:Message
    out.close();  // wsnt:Message
    out.close();  // tt:Event
    out.element("tt:StartStateEvent", r.startState ? "true" : "false");
    out.close();
}

void writeMetadata(SoapWriter& out, const SearchResult& r)
{
    out.open("tt:Result");
    out.element("tt:RecordingToken", kRecordingToken);
    out.element("tt:TrackToken", kavro::contract::kMetadataTrack);
    out.element("tt:Time", dateTimeText(r.time));
    out.close();
}

void writeRecordingInformation(SoapWriter& out, const char* element, const RecordingFacts& facts)
{
    out.open(element);
    out.element("tt:RecordingToken", kRecordingToken);
    out.open("tt:Source");
    out.element("tt:SourceId", std::string("urn:recording-search:") + kRecordingToken);
    out.element("tt:Name", "recording");
    out.element("tt:Location", "");
    out.element("tt:Description", "the device's recording");
    out.element("tt:Address", "");
    out.close();
    if (facts.hasData) {
        out.element("tt:EarliestRecording", dateTimeText(facts.from));
        out.element("tt:LatestRecording", dateTimeText(facts.to));
    }
    out.element("tt:Content", "");
    for (const auto& track : facts.tracks) {
        out.open("tt:Track");
        out.element("tt:TrackToken", track.token);
        out.element("tt:TrackType", track.type);
        out.element("tt:Description", track.token);
        out.element("tt:DataFrom", dateTimeText(track.from));
        out.element("tt:DataTo", dateTimeText(track.to));
        out.close();
    }
    out.element("tt:RecordingStatus", facts.recording ? "Recording" : "Stopped");
    out.close();
}

}  // namespace

struct SearchService::Search {
    const char* kind;  // the word in its operations' names: Recording, Event, Metadata
    std::chrono::milliseconds keepAlive;
    std::unique_ptr<PulledSearch> pulled;        // events and metadata
    std::optional<RecordingFacts> facts;         // a recordings search: until taken
    TimePoint endpoint;                          // a search without a walk
    std::mutex mutex;                            // one Get at a time
    Clock::time_point lastAsked = Clock::now();  // under the table's mutex
};

SearchService::SearchService(void* logCookie, std::size_t mostHeld)
    : logCookie_(logCookie), mostHeld_(mostHeld), reaper_([this] { reap(); })
{
}

SearchService::~SearchService()
{
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }
    reaper_.join();
    endAll();
}

void SearchService::endAll()
{
    std::map<std::string, std::shared_ptr<Search>> ending;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ending.swap(searches_);
    }
    // A client waiting for results gets its page at once.
    for (auto& entry : ending) {
        if (entry.second->pulled) entry.second->pulled->end();
    }
}

void SearchService::log(int priority, const std::string& message) const
{
    kavro_core_logging_log(logCookie_, priority, "%s", message.c_str());
}

void SearchService::reap()
{
    std::unique_lock<std::mutex> lock(mutex_);
    while (!stopping_) {
        changed_.wait_for(lock, kReapEvery);
        std::vector<std::shared_ptr<Search>> expired;
        const auto now = Clock::now();
        for (auto it = searches_.begin(); it != searches_.end();) {
            if (now - it->second->lastAsked <= it->second->keepAlive) {
                ++it;
                continue;
            }
            expired.push_back(it->second);
            it = searches_.erase(it);
        }
        lock.unlock();
        for (const auto& search : expired) {
            log(LOG_INFO, std::string("a ") + search->kind +
                              " search was ended: its client did not ask for it within its "
                              "KeepAliveTime");
            if (search->pulled) search->pulled->end();
        }
        lock.lock();
    }
}

void SearchService::answer(const SoapRequest& request, SoapWriter& out)
{
    const std::string& operation = request.operation();
    const xmlNode* body = request.operationElement();
    if (operation == "GetServiceCapabilities") {
        out.open("tse:GetServiceCapabilitiesResponse");
        out.open("tse:Capabilities");
        out.attribute("MetadataSearch", "true");
        out.close();
        out.close();
    } else if (operation == "GetRecordingSummary") {
        summary(out);
    } else if (operation == "GetRecordingInformation") {
        information(body, out);
    } else if (operation == "FindRecordings") {
        findRecordings(body, out);
    } else if (operation == "FindEvents") {
        findEvents(body, out);
    } else if (operation == "FindMetadata") {
        findMetadata(body, out);
    } else if (operation == "GetRecordingSearchResults" || operation == "GetEventSearchResults" ||
               operation == "GetMetadataSearchResults") {
        results(operation, body, out);
    } else if (operation == "GetSearchState") {
        state(body, out);
    } else if (operation == "EndSearch") {
        endSearch(body, out);
    } else {
        throw actionNotSupported("the search service does not offer " + operation);
    }
}

void SearchService::summary(SoapWriter& out)
{
    const auto span = recordingSpan();
    out.open("tse:GetRecordingSummaryResponse");
    out.open("tse:Summary");
    out.element("tt:DataFrom", dateTimeText(span ? span->first : TimePoint{}));
    out.element("tt:DataUntil", dateTimeText(span ? span->second : TimePoint{}));
    out.element("tt:NumberRecordings", span ? "1" : "0");
    out.close();
    out.close();
}

void SearchService::information(const xmlNode* request, SoapWriter& out)
{
    if (required(request, "RecordingToken") != kRecordingToken) {
        throw invalidArgument("no recording has this token", "ter:NoRecording");
    }
    const RecordingFacts facts = recordingFacts();
    out.open("tse:GetRecordingInformationResponse");
    writeRecordingInformation(out, "tse:RecordingInformation", facts);
    out.close();
}

void SearchService::findRecordings(const xmlNode* request, SoapWriter& out)
{
    auto search = std::make_shared<Search>();
    search->kind = "Recording";
    search->keepAlive = keepAliveOf(request);
    intOf(request, "MaxMatches", 1);
    if (scopeIncludesUs(request)) search->facts = recordingFacts();
    if (search->facts) search->endpoint = search->facts->to;
    open("FindRecordingsResponse", std::move(search), out);
}

void SearchService::findEvents(const xmlNode* request, SoapWriter& out)
{
    SearchRequest search;
    search.kind = SearchRequest::Kind::Events;
    rangeOf(request, search);
    search.startState =
        readBoolean(textOf(childNamed(request, "IncludeStartState"))).value_or(false);
    search.maxResults = intOf(request, "MaxMatches", 1).value_or(-1);
    auto entry = std::make_shared<Search>();
    entry->kind = "Event";
    entry->keepAlive = keepAliveOf(request);
    entry->endpoint = search.start;
    if (scopeIncludesUs(request)) entry->pulled = std::make_unique<PulledSearch>(search, mostHeld_);
    open("FindEventsResponse", std::move(entry), out);
}

void SearchService::findMetadata(const xmlNode* request, SoapWriter& out)
{
    SearchRequest search;
    search.kind = SearchRequest::Kind::Metadata;
    rangeOf(request, search);
    search.xpath = required(childNamed(request, "MetadataFilter"), "MetadataStreamFilter");
    if (const std::string why = rsclient::checkXPath(search.xpath); !why.empty()) {
        throw invalidArgument("MetadataStreamFilter: " + why, "ter:InvalidFilterFragment");
    }
    search.maxResults = intOf(request, "MaxMatches", 1).value_or(-1);
    auto entry = std::make_shared<Search>();
    entry->kind = "Metadata";
    entry->keepAlive = keepAliveOf(request);
    entry->endpoint = search.start;
    if (scopeIncludesUs(request)) entry->pulled = std::make_unique<PulledSearch>(search, mostHeld_);
    open("FindMetadataResponse", std::move(entry), out);
}

void SearchService::open(const std::string& operation, std::shared_ptr<Search> search,
                         SoapWriter& out)
{
    const std::string token = newToken();
    {
        // The slot is taken while the search begins; nobody can reach it before it has.
        std::lock_guard<std::mutex> lock(mutex_);
        if (searches_.size() + beginning_ >= kMostSearches) {
            throw resourceProblem("this device holds " + std::to_string(kMostSearches) +
                                  " searches already: end one (EndSearch) or let it expire");
        }
        ++beginning_;
    }
    try {
        if (search->pulled) search->pulled->start();
    } catch (const rsclient::ClientError& e) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            --beginning_;
        }
        if (e.kind() == rsclient::ErrorKind::Refused) {
            throw resourceProblem(
                "two searches are running on this device already: try again "
                "when one ends");
        }
        log(LOG_WARNING, std::string("a search could not begin: ") + e.what());
        throw SoapFault(SoapFault::Code::Receiver, {"ter:Action"},
                        "the search could not begin: recording_search did not answer");
    } catch (...) {
        std::lock_guard<std::mutex> lock(mutex_);
        --beginning_;
        throw;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        --beginning_;
        search->lastAsked = Clock::now();
        searches_[token] = search;
    }
    out.open(("tse:" + operation).c_str());
    out.element("tse:SearchToken", token);
    out.close();
}

std::shared_ptr<SearchService::Search> SearchService::find(const xmlNode* request, const char* kind)
{
    const std::string token = required(request, "SearchToken");
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = searches_.find(token);
    if (it == searches_.end() || (kind != nullptr && std::string(kind) != it->second->kind)) {
        throw invalidArgument("no search of this kind has this token", "ter:InvalidToken");
    }
    it->second->lastAsked = Clock::now();
    return it->second;
}

void SearchService::results(const std::string& operation, const xmlNode* request, SoapWriter& out)
{
    const std::string kind = operation.substr(3, operation.size() - 3 - 13);  // Get...SearchResults
    const auto search = find(request, kind.c_str());
    const auto least = std::size_t(intOf(request, "MinResults", 0).value_or(1));
    const auto most =
        std::min(std::size_t(intOf(request, "MaxResults", 1).value_or(kMostPerPage)), kMostPerPage);
    std::chrono::milliseconds wait = kDefaultWait;
    if (const xmlNode* element = childNamed(request, "WaitTime")) {
        std::string why;
        const auto d = readDuration(textOf(element), &why);
        if (!d) throw invalidArgument("WaitTime: " + why);
        wait = std::min(*d, kLongestWait);
    }
    std::lock_guard<std::mutex> one(search->mutex);
    PulledSearch::Page page;
    std::optional<RecordingFacts> facts;
    if (search->pulled) {
        page = search->pulled->take(least, most, wait);
    } else {
        facts.swap(search->facts);
        page.completed = true;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        search->lastAsked = Clock::now();  // the wait does not count against the keep-alive
    }
    out.open(("tse:" + operation + "Response").c_str());
    out.open("tse:ResultList");
    out.element("tt:SearchState", page.completed ? "Completed" : "Searching");
    if (facts) writeRecordingInformation(out, "tt:RecordingInformation", *facts);
    for (const auto& result : page.results) {
        if (kind == "Event")
            writeEvent(out, result);
        else
            writeMetadata(out, result);
    }
    out.close();
    out.close();
}

void SearchService::state(const xmlNode* request, SoapWriter& out)
{
    const auto search = find(request, nullptr);
    const bool searching = search->pulled && search->pulled->searching();
    out.open("tse:GetSearchStateResponse");
    out.element("tse:State", searching ? "Searching" : "Completed");
    out.close();
}

void SearchService::endSearch(const xmlNode* request, SoapWriter& out)
{
    const auto search = find(request, nullptr);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        searches_.erase(required(request, "SearchToken"));
    }
    const TimePoint reached = search->pulled ? search->pulled->end() : search->endpoint;
    out.open("tse:EndSearchResponse");
    out.element("tse:Endpoint", dateTimeText(reached));
    out.close();
}

}  // namespace onvif
