#include "jobs/TimelineStep.h"

#include <boost/chrono/duration.hpp>
#include <boost/thread/thread.hpp>

#include "jobs/EndOfSearchException.h"

void TimelineStep::enter(bool pointInRange, const SearchTime& point, const SearchTime& rangeStart,
                         const SearchTime& rangeEnd) const
{
    kavro_core_logging_log(logCookie_, 7, texts_.searchPoint, point.sec, point.usec);
    if (!pointInRange) {
        kavro_core_logging_log(logCookie_, 6, texts_.outOfRange, point.sec, point.usec,
                               rangeStart.sec, rangeStart.usec, rangeEnd.sec, rangeEnd.usec);
        throw EndOfSearchException();
    }
}

StepVerdict TimelineStep::apply(NeighbourTimes times, bool curInRange, bool forward,
                                AtomicSearchTime& currentTime, SearchTime& searchPoint) const
{
    clearEqualNeighbours(times);
    const bool linear = isLinear(times, searchPoint);
    if (curInRange) {
        currentTime = times.cur;
    } else {
        kavro_core_logging_log(logCookie_, texts_.skipPriority, texts_.skip, times.cur.sec,
                               times.cur.usec);
    }
    searchPoint = forward ? times.next : times.prev;
    return StepVerdict{curInRange, linear};
}

// Workers are never interrupted, so the plain sleep serves: it saves the interruptible
// sleep's condition-variable wait on every step.
void TimelineStep::pause()
{
    boost::this_thread::no_interruption_point::sleep_for(boost::chrono::nanoseconds(500000));
}

void TimelineStep::clearEqualNeighbours(NeighbourTimes& times) const
{
    // A neighbour equal to the item itself would make the walk ask for the same time again.
    if (times.prev == times.cur) {
        kavro_core_logging_log(logCookie_, 5, "Prev %d.%06d == Cur %d.%06d.  Setting prev to 0.0",
                               times.prev.sec, times.prev.usec, times.cur.sec, times.cur.usec);
        times.prev = SearchTime{};
    }
    if (times.next == times.cur) {
        kavro_core_logging_log(logCookie_, 5, "Next %d.%06d == Cur %d.%06d.  Setting next to 0.0",
                               times.next.sec, times.next.usec, times.cur.sec, times.cur.usec);
        times.next = SearchTime{};
    }
}

bool TimelineStep::nextPresent(const SearchTime& next) const
{
    if (texts_.nextPresence == NextPresence::HalvesSumNonZero) return next.sec + next.usec != 0u;
    return next != SearchTime{};
}

bool TimelineStep::isLinear(const NeighbourTimes& times, const SearchTime& requested) const
{
    // Both checks always run, so that a bad answer shows every way in which it is bad.
    const bool hasNext = nextPresent(times.next);
    bool linear = true;
    if (!(times.prev < requested) || (hasNext && !(requested < times.next))) {
        kavro_core_logging_log(
            logCookie_, 3,
            "Returned times were not linear. %d.%06d (prev) < %d.%06d (requested) < %d.%06d (next)",
            times.prev.sec, times.prev.usec, requested.sec, requested.usec, times.next.sec,
            times.next.usec);
        linear = false;
    }
    if (!(times.prev < times.cur) || (hasNext && !(times.cur < times.next))) {
        kavro_core_logging_log(
            logCookie_, 3,
            "Returned times were not linear. %d.%06d (prev) < %d.%06d (cur) < %d.%06d (next)",
            times.prev.sec, times.prev.usec, times.cur.sec, times.cur.usec, times.next.sec,
            times.next.usec);
        linear = false;
    }
    return linear;
}
