// recsearch's one connection to kavro.recording_search.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientEvent.h"
#include "client/IndexAnswers.h"
#include "client/TimeText.h"

namespace sdbus {
class IConnection;
class IProxy;
}  // namespace sdbus
namespace kavro {
namespace bus {
class BusLoop;
template <typename Proxy>
class Registered;
}  // namespace bus
}  // namespace kavro

namespace rsclient {

struct MetadataFilter;

// How far a search has got, without ending it.
struct SearchProgress {
    uint32_t state = 0;  // kavro::contract::kState*
    TimePoint through;
    std::optional<TimePoint> failedAt;  // the walk ended early: a recording service failed there
};

struct EndReply {
    uint32_t jobId = 0;
    TimePoint reached;
};

// Threads: the constructor, the calls and the destructor belong to the main thread; the bus
// loop thread runs every use of the connection (calls are posted to it and waited for) and
// pushes the service's signals and the watch on its bus name into the inbox. Signals and the
// name watch are subscribed before the constructor returns, so nothing sent after a create
// call is missed. Every failure is thrown as ClientError of its kind.
class ServiceConnection {
public:
    explicit ServiceConnection(EventInbox& inbox);
    ~ServiceConnection();

    // Fails with Unreachable when nobody owns the service's name; afterwards the owner's
    // departure (a stop, a crash or a restart) arrives in the inbox as ServiceGone.
    void watchService();

    int32_t createEventSearch(TimePoint start, TimePoint end, int32_t maxResults, bool flag1,
                              bool flag2, bool startState);
    int32_t createMetadataSearch(TimePoint start, TimePoint end, int32_t maxResults,
                                 const std::string& xpath);
    int32_t createNoopSearch();
    void beginSearch(uint32_t jobId);
    uint32_t searchState(uint32_t jobId);
    SearchProgress searchProgress(uint32_t jobId);
    EndReply endSearch(uint32_t jobId);

    // recording_index's state; nothing when it is not on the bus or does not answer.
    std::optional<IndexState> indexState();
    // One page of the matches of `filter` from `from` to `to` (later first when from > to);
    // true when there are more after the page's last. Throws ClientError when the index fails.
    bool indexMatches(TimePoint from, TimePoint to, const MetadataFilter& filter, uint32_t limit,
                      std::vector<IndexMatch>& page);
    // The same for any XPath (the walk's own matcher on the documents the index kept); the
    // matches then say nothing of what appeared. A page may also end after a stretch without
    // enough matches: `through` gets the last document it looked at.
    bool indexXPathMatches(TimePoint from, TimePoint to, const std::string& xpath, uint32_t limit,
                           std::vector<IndexMatch>& page, TimePoint& through);

    // The recording's first and last time, if recording_information answers; for progress only.
    std::optional<std::pair<TimePoint, TimePoint>> recordingSpan();
    // Each track with the span of its data (none for a track without data); throws ClientError.
    std::vector<std::pair<std::string, std::optional<std::pair<TimePoint, TimePoint>>>>
    trackSpans();
    // Whether the recording was switched on at `t`; throws ClientError.
    bool recordingOnAt(TimePoint t);

    ServiceConnection(const ServiceConnection&) = delete;
    ServiceConnection& operator=(const ServiceConnection&) = delete;

    class SearchSignals;

private:
    void onNameOwnerChanged(const std::string& name, const std::string& oldOwner,
                            const std::string& newOwner);
    // `service`: whom the call goes to, as its failures name it.
    void call(const char* what, const std::function<void()>& work,
              const char* service = "recording_search");

    EventInbox& inbox_;
    std::unique_ptr<kavro::bus::BusLoop> loop_;
    std::unique_ptr<kavro::bus::Registered<SearchSignals>> search_;
    std::unique_ptr<sdbus::IProxy> busDaemon_;
    std::string watchedOwner_;  // loop thread only
};

}  // namespace rsclient
