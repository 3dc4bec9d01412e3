// SearchJob and NoOpSearchJob: the worker, the one SearchCompleted, ending and joining.

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>

#include <boost/chrono.hpp>
#include <boost/make_shared.hpp>
#include <boost/thread/thread.hpp>
#include <gtest/gtest.h>

#include "jobs/NoOpSearchJob.h"
#include "jobs/SearchJob.h"
#include "support/LogCapture.h"
#include "unit/target/InspectableTarget.h"

namespace {

using rstest::eventually;
using rstest::InspectableTarget;

// A job whose walk the test steers: it returns at once, throws, ends itself, or walks in
// 200 us steps until it is ended, the way the timeline searches test their state.
class ScriptedJob : public SearchJob {
public:
    enum class Walk { ReturnAtOnce, UntilEnded, Throw, EndItself };

    ScriptedJob(unsigned int jobId, InspectableTarget* target, Walk walk, int maxResults = -1)
        : SearchJob(jobId, nullptr, target, maxResults), walk_(walk)
    {
    }

    void performSearch() override
    {
        ++runs;
        running.store(true);
        walking.set_value();
        switch (walk_) {
        case Walk::ReturnAtOnce:
            break;
        case Walk::UntilEnded:
            while (getSearchState() == Searching) {
                boost::this_thread::sleep_for(boost::chrono::microseconds(200));
            }
            break;
        case Walk::Throw:
            running.store(false);
            throw std::runtime_error("walk broke");
        case Walk::EndItself:
            try {
                endSearch();
            } catch (const boost::thread_resource_error&) {
                selfJoinRefused.store(true);
            }
            break;
        }
        running.store(false);
    }

    bool inRange() const { return _inRange(); }
    void countResult() { _incResultCount(); }

    std::atomic<int> runs{0};
    std::atomic<bool> running{false};
    std::atomic<bool> selfJoinRefused{false};
    std::promise<void> walking;

private:
    Walk walk_;
};

class SearchJobTest : public ::testing::Test {
protected:
    boost::shared_ptr<ScriptedJob> makeJob(ScriptedJob::Walk walk, int maxResults = -1)
    {
        return boost::make_shared<ScriptedJob>(target.takeJobId(), &target, walk, maxResults);
    }

    bool completes(ScriptedJob& job)
    {
        return eventually([&] { return job.getSearchState() == Completed; });
    }

    static bool waitWalking(ScriptedJob& job)
    {
        return job.walking.get_future().wait_for(std::chrono::seconds(10)) ==
               std::future_status::ready;
    }

    InspectableTarget target;
    rstest::LogCapture log;
};

TEST_F(SearchJobTest, StartsSearchingWithoutAThreadAndEndsWithoutBlockingWhenNeverBegun)
{
    auto job = makeJob(ScriptedJob::Walk::UntilEnded);
    EXPECT_EQ(job->getSearchState(), Searching);
    EXPECT_EQ(target.completedCount(job->getJobId()), 0);

    job->endSearch();

    EXPECT_EQ(job->getSearchState(), Completed);
    EXPECT_EQ(job->runs.load(), 0);
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(SearchJobTest, EndingMidWalkQueuesCompletionAndReturnsOnlyAfterTheWorkerStopped)
{
    auto job = makeJob(ScriptedJob::Walk::UntilEnded);
    job->startSearch();
    ASSERT_TRUE(waitWalking(*job));
    EXPECT_EQ(job->getSearchState(), Searching);

    job->endSearch();

    EXPECT_FALSE(job->running.load());
    EXPECT_EQ(job->getSearchState(), Completed);
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
    job->endSearch();
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(SearchJobTest, SearchThatEndsByItselfCompletesOnceAndCanStillBeEnded)
{
    auto job = makeJob(ScriptedJob::Walk::ReturnAtOnce);
    job->startSearch();
    ASSERT_TRUE(completes(*job));
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);

    job->endSearch();

    EXPECT_EQ(job->runs.load(), 1);
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(SearchJobTest, SecondBeginStartsNoSecondWorker)
{
    auto job = makeJob(ScriptedJob::Walk::UntilEnded);
    job->startSearch();
    ASSERT_TRUE(waitWalking(*job));
    job->startSearch();
    job->endSearch();
    EXPECT_EQ(job->runs.load(), 1);
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(SearchJobTest, BeginAfterEndStartsNoWorker)
{
    auto job = makeJob(ScriptedJob::Walk::ReturnAtOnce);
    job->endSearch();
    job->startSearch();
    job->endSearch();
    EXPECT_EQ(job->runs.load(), 0);
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

TEST_F(SearchJobTest, BeginRacingEndNeverLeavesAWorkerBehind)
{
    for (int round = 0; round < 50; ++round) {
        auto job = makeJob(ScriptedJob::Walk::UntilEnded);
        std::thread begin([&] { job->startSearch(); });
        job->endSearch();
        begin.join();
        job->endSearch();  // joins a worker that the racing begin may have started
        EXPECT_FALSE(job->running.load()) << "round " << round;
        EXPECT_LE(job->runs.load(), 1);
        EXPECT_EQ(target.completedCount(job->getJobId()), 1);
    }
}

TEST_F(SearchJobTest, ExceptionEscapingTheWalkIsLoggedAndTheJobStillCompletes)
{
    auto job = makeJob(ScriptedJob::Walk::Throw);
    job->startSearch();
    ASSERT_TRUE(completes(*job));
    job->endSearch();
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
    EXPECT_TRUE(log.contains(3, "walk broke")) << log.dump();
}

TEST_F(SearchJobTest, EndingFromItsOwnWorkerCompletesButRefusesToJoin)
{
    auto job = makeJob(ScriptedJob::Walk::EndItself);
    job->startSearch();
    ASSERT_TRUE(completes(*job));
    job->endSearch();
    EXPECT_TRUE(job->selfJoinRefused.load());
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
}

struct LimitCase {
    int maxResults;
    int results;
    bool inRange;
};

void PrintTo(const LimitCase& c, std::ostream* os)
{
    *os << "Limit" << (c.maxResults < 0 ? "Minus" : "") << std::abs(c.maxResults) << "After"
        << c.results;
}

class SearchJobLimitTest : public SearchJobTest, public ::testing::WithParamInterface<LimitCase> {
};

TEST_P(SearchJobLimitTest, InRangeWhileTheLimitIsNotReached)
{
    const LimitCase c = GetParam();
    auto job = makeJob(ScriptedJob::Walk::ReturnAtOnce, c.maxResults);
    for (int i = 0; i < c.results; ++i) job->countResult();
    EXPECT_EQ(job->inRange(), c.inRange);
    job->endSearch();
}

INSTANTIATE_TEST_SUITE_P(Limits, SearchJobLimitTest,
                         ::testing::Values(LimitCase{-1, 0, true}, LimitCase{-1, 100000, true},
                                           LimitCase{0, 0, false}, LimitCase{3, 0, true},
                                           LimitCase{3, 2, true}, LimitCase{3, 3, false},
                                           LimitCase{3, 4, false}),
                         ::testing::PrintToStringParamName());

TEST_F(SearchJobTest, NoOpJobCompletesOnceWithoutAThreadHoweverOftenBegunOrEnded)
{
    auto job = boost::make_shared<NoOpSearchJob>(target.takeJobId(), nullptr, &target);
    EXPECT_EQ(job->getSearchState(), Searching);
    job->startSearch();
    EXPECT_EQ(job->getSearchState(), Completed);
    job->startSearch();
    job->endSearch();
    job->endSearch();
    job->startSearch();
    EXPECT_EQ(target.completedCount(job->getJobId()), 1);
    const auto records = target.queued();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].eventType, SearchCompleted);
}

}  // namespace
