// One search from create to end: the service's answers and signals turned into calls of a
// SearchOutput. Shared by recsearch and the gateway, so that both say the same.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/ClientEvent.h"
#include "client/IndexAnswers.h"
#include "client/SearchOutput.h"
#include "client/SearchRequest.h"
#include "client/Spans.h"

namespace rsclient {

class ServiceConnection;

// The connection's inbox carries this search's events; whoever wants the search stopped
// pushes an Interrupted event into it (a signal, an HTTP DELETE, a client gone).
class SearchSession {
public:
    SearchSession(const SearchRequest& request, ServiceConnection& service, EventInbox& inbox,
                  SearchOutput& output);

    // Creates and begins the search. Throws ClientError (Refused for job id -1); nothing when
    // `stopped` says so before the create.
    std::optional<uint32_t> start(const std::function<bool()>& stopped = {});

    // Until the search completes or is stopped; 0, or the signal of the Interrupted event
    // (SIGPIPE when the output stopped being read).
    int stream();
    // While a result handed to the output comes from recording_index, which can wait for a
    // slow reader, unlike a walk that the service paces.
    bool answeringFromIndex() const { return answeringFromIndex_; }

private:
    // A stretch of the range, answered by the index or by a walk, from `from` to `to` in the
    // search's direction.
    struct Part {
        bool fromIndex;
        TimePoint from;
        TimePoint to;
    };

    void planParts();
    void beginWalk(TimePoint from, TimePoint to);
    int32_t create(TimePoint from, TimePoint to);
    int streamIndex(const Part& part);
    int streamWalk();
    int walkInstead(const Part& part);
    int takeWaitingEvents();
    bool limitReached() const;
    void take(const SearchResult& result, const IndexMatch* seen = nullptr);
    void emitSpan(const Span& span);
    void countMatch(TimePoint time);
    void concludeCounts();
    void report(TimePoint through);
    void askProgress();
    void conclude(TimePoint reached);
    int finish(int signal);

    const SearchRequest& request_;
    ServiceConnection& service_;
    EventInbox& inbox_;
    SearchOutput& output_;
    bool keep_;
    std::optional<SpanGrouper> spans_;
    std::optional<SpanGrouper> countSpans_;  // appearances as counted per bucket
    std::vector<MatchCount> counts_;
    Micros countFrom_{0};
    uint32_t jobId_ = 0;  // 0 while no walk has been created
    bool walking_ = false;
    bool walkCompleted_ = false;   // the walk of jobId_ said it completed
    bool walkedToTheEnd_ = false;  // the index failed: one walk took the rest of the range
    std::vector<Part> parts_;
    std::string notice_;
    std::deque<ClientEvent> held_;  // the walk's events that came while the index answered
    std::size_t fromIndex_ = 0;
    bool answeringFromIndex_ = false;
    std::optional<std::pair<TimePoint, TimePoint>> indexed_;
    std::optional<TimePoint> reachedByIndex_;
    std::size_t results_ = 0;
    TimePoint last_;
    std::chrono::steady_clock::time_point lastReached_;  // the last result or progress answer
    std::vector<SearchResult> kept_;                     // event results
    std::vector<Span> marks_;                            // metadata matches, or spans
    std::optional<Appeared> appeared_;  // of the open span, from the index\'s matches
};

}  // namespace rsclient
