#pragma once

#include "jobs/SearchTime.h"
#include "kavro/core.h"

// The times that one data-access answer gives: the item returned and its neighbours, 0.0 for
// a neighbour that does not exist.
struct NeighbourTimes {
    SearchTime cur;
    SearchTime prev;
    SearchTime next;
};

// How a walk tells whether an answer names a next item. The event search has always added the
// two halves (so a sum that wraps to 0 reads as absent); the metadata search compares with 0.0.
enum class NextPresence { HalvesSumNonZero, NotZeroTime };

// What one answer did to the walk.
struct StepVerdict {
    bool accepted;  // cur lay in range and became currentTime: the answer's content counts
    bool linear;    // both ordering checks held; if not, the walk ends after this answer
};

// The rules that every step of a timeline walk applies, shared by the event and the metadata
// search. Each search brings its own texts and priorities; the rules are the same. Used on the
// job's worker only; holds no state between steps.
class TimelineStep {
public:
    struct Texts {
        const char* searchPoint;  // priority 7; the search point
        const char* outOfRange;   // priority 6; the search point, rangeStart, rangeEnd
        const char* skip;         // the answer's cur
        kavro_core_log_priority skipPriority;
        NextPresence nextPresence;
    };

    TimelineStep(void* logCookie, const Texts& texts) : logCookie_(logCookie), texts_(texts) {}

    // Before a request: logs the point, and ends the walk (EndOfSearchException) when the point
    // has left the range or the result limit is reached.
    void enter(bool pointInRange, const SearchTime& point, const SearchTime& rangeStart,
               const SearchTime& rangeEnd) const;

    // After a successful request: clears a neighbour equal to cur, runs both ordering checks,
    // moves currentTime to cur when curInRange (else logs the skip), and moves searchPoint to
    // the neighbour in the walk's direction. Throws nothing: a non-linear answer is the
    // caller's to end the walk on, after it has released the answer.
    StepVerdict apply(NeighbourTimes times, bool curInRange, bool forward,
                      AtomicSearchTime& currentTime, SearchTime& searchPoint) const;

    // The pause after every step, which bounds a search to about 2000 requests a second.
    static void pause();

private:
    void clearEqualNeighbours(NeighbourTimes& times) const;
    bool nextPresent(const SearchTime& next) const;
    bool isLinear(const NeighbourTimes& times, const SearchTime& requested) const;

    void* logCookie_;
    Texts texts_;
};
