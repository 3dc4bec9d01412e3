// TimelineSearchJob: the ordered range and direction, the time tests, narrowing to the
// recording, the walk's start and end points, and what a failed summary does.

#include <atomic>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "jobs/TimelineSearchJob.h"
#include "unit/jobs/SteppingJob.h"
#include "support/LogCapture.h"
#include "support/ScriptedRecordingServices.h"
#include "unit/target/InspectableTarget.h"

namespace {

using rstest::eventually;
using rstest::InspectableTarget;
using rstest::SteppingJob;

std::string text(SearchTime t)
{
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%u.%06u", t.sec, t.usec);
    return buffer;
}

class TimelineSearchJobTest : public ::testing::Test {
protected:
    boost::shared_ptr<SteppingJob> makeJob(SearchTime start, SearchTime end, int maxResults = -1)
    {
        return boost::make_shared<SteppingJob>(target.takeJobId(), &target, start, end,
                                               SteppingJob::Options{maxResults});
    }

    // Runs the whole walk and returns the times it reported.
    std::vector<SearchTime> walk(SteppingJob& job)
    {
        job.startSearch();
        EXPECT_TRUE(eventually([&] { return job.getSearchState() == Completed; }));
        job.endSearch();
        std::vector<SearchTime> times;
        for (const auto& record : target.queued()) {
            if (record.jobId == job.getJobId() && record.eventType == MetadataSearchResult) {
                times.push_back({record.sec, record.usec});
            }
        }
        return times;
    }

    void recordingSpans(SearchTime start, SearchTime end)
    {
        services->scriptGetRecordingSummary([=]() -> rstest::Reply<rstest::Span> {
            return rstest::Span{{start.sec, start.usec}, {end.sec, end.usec}};
        });
    }

    rstest::LogCapture log;
    InspectableTarget target;
    std::optional<rstest::ScriptedRecordingServices> services{std::in_place};
};

struct RangeCase {
    const char* name;
    SearchTime start, end;
    bool forward;
    SearchTime rangeStart, rangeEnd;
};

void PrintTo(const RangeCase& c, std::ostream* os) { *os << c.name; }

class TimelineRangeTest : public TimelineSearchJobTest,
                          public ::testing::WithParamInterface<RangeCase> {};

TEST_P(TimelineRangeTest, OrdersTheRangeDecidesTheDirectionAndStartsAtTheGivenStart)
{
    const RangeCase c = GetParam();
    auto job = makeJob(c.start, c.end);
    EXPECT_EQ(job->isForward(), c.forward);
    EXPECT_EQ(job->start(), c.rangeStart);
    EXPECT_EQ(job->end(), c.rangeEnd);
    EXPECT_EQ(job->current(), c.start);
    const std::string expected = std::to_string(job->getJobId()) + " - Created new " +
                                 (c.forward ? "forward" : "backward") + " search from " +
                                 text(c.rangeStart) + " to " + text(c.rangeEnd) +
                                 ". Starting at " + text(c.start);
    EXPECT_EQ(log.count(6, expected), 1) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, TimelineRangeTest,
    ::testing::Values(RangeCase{"Forward", {10, 500000}, {20, 0}, true, {10, 500000}, {20, 0}},
                      RangeCase{"Backward", {20, 0}, {10, 500000}, false, {10, 500000}, {20, 0}},
                      RangeCase{"BackwardByMicroseconds", {20, 1}, {20, 0}, false, {20, 0}, {20, 1}},
                      RangeCase{"SingleInstant", {15, 7}, {15, 7}, true, {15, 7}, {15, 7}}),
    ::testing::PrintToStringParamName());

TEST_F(TimelineSearchJobTest, EarlierIsStrictSecondsFirst)
{
    auto job = makeJob({0, 0}, {0, 0});
    EXPECT_FALSE(job->earlier({5, 5}, {5, 5}));
    EXPECT_TRUE(job->earlier({5, 4}, {5, 5}));
    EXPECT_FALSE(job->earlier({5, 5}, {5, 4}));
    EXPECT_TRUE(job->earlier({4, 999999}, {5, 0}));
    EXPECT_FALSE(job->earlier({5, 0}, {4, 999999}));
    EXPECT_TRUE(job->earlier({0, 0}, {4294967295u, 0}));
}

TEST_F(TimelineSearchJobTest, BothBoundsAreInclusive)
{
    auto job = makeJob({20, 0}, {10, 500000});
    EXPECT_FALSE(job->inRange({10, 499999}));
    EXPECT_TRUE(job->inRange({10, 500000}));
    EXPECT_TRUE(job->inRange({15, 0}));
    EXPECT_TRUE(job->inRange({20, 0}));
    EXPECT_FALSE(job->inRange({20, 1}));
}

TEST_F(TimelineSearchJobTest, ZeroResultLimitLeavesNoTimeInRange)
{
    auto job = makeJob({10, 0}, {20, 0}, 0);
    EXPECT_FALSE(job->inRange({10, 0}));
    EXPECT_FALSE(job->inRange({15, 0}));
}

struct NarrowCase {
    const char* name;
    SearchTime start, end;
    std::vector<std::string> adjustments;  // the priority-5 lines, in order
    std::vector<SearchTime> reported;      // first, last (empty: none)
    size_t count;
};

void PrintTo(const NarrowCase& c, std::ostream* os) { *os << c.name; }

class TimelineNarrowingTest : public TimelineSearchJobTest,
                              public ::testing::WithParamInterface<NarrowCase> {};

// The recording runs from 100.0 to 200.0; the test walk steps 10 s.
TEST_P(TimelineNarrowingTest, NarrowsToTheRecordingAndWalksFromTheStartingEnd)
{
    const NarrowCase c = GetParam();
    recordingSpans({100, 0}, {200, 0});
    auto job = makeJob(c.start, c.end);
    const auto times = walk(*job);

    std::vector<std::string> adjustments;
    for (const auto& line : log.since(5)) adjustments.push_back(line.message);
    EXPECT_EQ(adjustments, c.adjustments);
    EXPECT_TRUE(job->walked.load());
    EXPECT_TRUE(job->gotHandles.load());
    ASSERT_EQ(times.size(), c.count);
    if (!c.reported.empty()) {
        EXPECT_EQ(times.front(), c.reported.front());
        EXPECT_EQ(times.back(), c.reported.back());
    }
    EXPECT_EQ(job->current(), c.end) << "a normal end reports the end the client gave";
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Bounds, TimelineNarrowingTest,
    ::testing::Values(
        NarrowCase{"Inside", {120, 0}, {180, 0}, {}, {{120, 0}, {180, 0}}, 7},
        NarrowCase{"AtTheBounds", {100, 0}, {200, 0}, {}, {{100, 0}, {200, 0}}, 11},
        NarrowCase{"Covering",
                   {50, 0},
                   {250, 0},
                   {"Adjusting our search start 50.000000 to the start of the recording "
                    "100.000000",
                    "Adjusting our search end 250.000000 to the end of the recording 200.000000"},
                   {{100, 0}, {200, 0}},
                   11},
        NarrowCase{"BackwardCovering",
                   {250, 0},
                   {50, 0},
                   {"Adjusting our search start 50.000000 to the start of the recording "
                    "100.000000",
                    "Adjusting our search end 250.000000 to the end of the recording 200.000000"},
                   {{200, 0}, {100, 0}},
                   11},
        NarrowCase{"BackwardInside", {180, 5}, {120, 5}, {}, {{180, 5}, {120, 5}}, 7},
        NarrowCase{"WhollyBefore",
                   {10, 0},
                   {20, 0},
                   {"Adjusting our search start 10.000000 to the start of the recording "
                    "100.000000"},
                   {},
                   0},
        NarrowCase{"WhollyAfter",
                   {300, 0},
                   {400, 0},
                   {"Adjusting our search end 400.000000 to the end of the recording 200.000000"},
                   {},
                   0},
        NarrowCase{"OneMicrosecondOutside",
                   {99, 999999},
                   {200, 1},
                   {"Adjusting our search start 99.999999 to the start of the recording "
                    "100.000000",
                    "Adjusting our search end 200.000001 to the end of the recording 200.000000"},
                   {{100, 0}, {200, 0}},
                   11}),
    ::testing::PrintToStringParamName());

TEST_F(TimelineSearchJobTest, ResultLimitEndsTheWalkNormally)
{
    recordingSpans({100, 0}, {200, 0});
    auto job = makeJob({100, 0}, {200, 0}, 3);
    const auto times = walk(*job);
    ASSERT_EQ(times.size(), 3u);
    EXPECT_EQ(times.back(), (SearchTime{120, 0}));
    EXPECT_EQ(job->current(), (SearchTime{200, 0}));
}

TEST_F(TimelineSearchJobTest, FailedSummaryEndsTheSearchWithOnlyItsCompletion)
{
    services->failMethod("GetRecordingSummary", 7);
    auto job = makeJob({100, 0}, {200, 0});
    const auto times = walk(*job);
    EXPECT_TRUE(times.empty());
    EXPECT_FALSE(job->walked.load());
    EXPECT_EQ(services->callCount("GetRecordingSummary"), 1);
    EXPECT_EQ(job->current(), (SearchTime{100, 0}));
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
    EXPECT_TRUE(log.contains(4, "Could not get the recording summary")) << log.dump();
}

TEST_F(TimelineSearchJobTest, MissingInformationServiceEndsTheSearchWithOnlyItsCompletion)
{
    services.reset();
    rstest::ScriptedRecordingServices dataAccessOnly({}, {rstest::RecordingService::DataAccess});
    auto job = makeJob({100, 0}, {200, 0});
    EXPECT_TRUE(walk(*job).empty());
    EXPECT_FALSE(job->walked.load());
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(TimelineSearchJobTest, DestructionIsLogged)
{
    unsigned int id = 0;
    {
        auto job = makeJob({1, 0}, {2, 0});
        id = job->getJobId();
        job->endSearch();
    }
    EXPECT_EQ(log.count(6, std::to_string(id) + " - ~TimelineSearchJob"), 1) << log.dump();
}

}  // namespace
