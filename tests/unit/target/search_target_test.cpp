// RecordingSearchTargetImpl's job registry: ids, the running limit, times the create requests
// refuse, the requests on a job, ending everything at shutdown.

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>
#include <gtest/gtest.h>

#include "jobs/EventSearchJob.h"
#include "jobs/MetadataSearchJob.h"
#include "jobs/NoOpSearchJob.h"
#include "support/LogCapture.h"
#include "support/ScriptedRecordingServices.h"
#include "unit/jobs/SteppingJob.h"
#include "unit/target/InspectableTarget.h"

namespace {

using rstest::eventually;
using rstest::InspectableTarget;
using rstest::SteppingJob;

class SearchTargetTest : public ::testing::Test {
protected:
    unsigned int createNoop()
    {
        int id = -2;
        EXPECT_EQ(target.createNoopSearch(&id), 0);
        return static_cast<unsigned int>(id);
    }

    int createEvent()
    {
        int id = -2;
        EXPECT_EQ(target.createEventSearch(100, 0, 200, 0, -1, 0, 0, 0, &id), 0);
        return id;
    }

    int createMetadata()
    {
        int id = -2;
        EXPECT_EQ(target.createMetadataSearch(100, 0, 200, 0, -1, "/", &id), 0);
        return id;
    }

    unsigned int state(unsigned int id)
    {
        unsigned int idOut = 0;
        unsigned int stateOut = 99;
        EXPECT_EQ(target.getSearchState(id, &idOut, &stateOut), 0);
        EXPECT_EQ(idOut, id);
        return stateOut;
    }

    struct Ended {
        unsigned int jobId, sec, usec;
    };
    Ended end(unsigned int id)
    {
        Ended out{0, 77, 77};
        EXPECT_EQ(target.endSearch(id, &out.jobId, &out.sec, &out.usec), 0);
        EXPECT_EQ(out.jobId, id);
        return out;
    }

    // A walk over the whole recording (0..100000 s in 1 s steps, 500 us apart): it runs for
    // far longer than any test, until it is ended.
    boost::shared_ptr<SteppingJob> adoptLongWalk()
    {
        auto job = boost::make_shared<SteppingJob>(
            target.takeJobId(), &target, SearchTime{0, 0}, SearchTime{100000, 0},
            SteppingJob::Options{-1, 1, std::chrono::microseconds(500)});
        target.adopt(job);
        return job;
    }

    rstest::LogCapture log;
    rstest::ScriptedRecordingServices services{
        rstest::Recording{{"Video1", "META001"},
                          {{{0, 0}, {{"", rstest::kRecordingKey, 1}}},
                           {{100000, 0}, {{"", rstest::kRecordingKey, 0}}}},
                          {}}};
    InspectableTarget target;
};

TEST_F(SearchTargetTest, NoopSearchTakesTheNextIdAndIsCompletedBeforeCreateReturns)
{
    const unsigned int first = createNoop();
    EXPECT_EQ(target.completedCount(first), 1);
    const unsigned int second = createNoop();
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(state(first), 2u);

    const Ended ended = end(first);
    EXPECT_EQ(ended.sec, 0u);
    EXPECT_EQ(ended.usec, 0u);
    EXPECT_EQ(target.completedCount(first), 1);
    const std::string id = std::to_string(first);
    EXPECT_EQ(log.count(4, "Ending a non-timeline search job " + id), 1) << log.dump();
    EXPECT_EQ(log.count(6, "Ending search jobId=" + id +
                               ".  It is completed and searched through time 0.000000"),
              1)
        << log.dump();
}

TEST_F(SearchTargetTest, UnknownIdsAreAnsweredWithoutError)
{
    const unsigned int unknown = createNoop() + 1000;
    log.mark();

    EXPECT_EQ(state(unknown), 0u);
    const auto lines = log.since();
    ASSERT_EQ(lines.size(), 2u) << log.dump();
    EXPECT_EQ(lines[0].priority, 5);
    EXPECT_EQ(lines[0].message, "getSearchState(): jobId " + std::to_string(unknown) +
                                    " was not found");
    EXPECT_EQ(lines[1].priority, 7);
    EXPECT_EQ(lines[1].message, "getSearchState(): jobId " + std::to_string(unknown) + ", state 0");

    const Ended ended = end(unknown);
    EXPECT_EQ(ended.sec, 77u) << "an unknown id leaves the time alone";
    EXPECT_EQ(ended.usec, 77u);
    EXPECT_EQ(log.count(4, "jobId=" + std::to_string(unknown) +
                               " did not exist in request to end search"),
              1);

    unsigned int idOut = 0;
    EXPECT_EQ(target.beginSearch(unknown, &idOut), 0);
    EXPECT_EQ(idOut, unknown);
    EXPECT_EQ(log.count(7, "beginSearch(jobId=" + std::to_string(unknown) + ")"), 1);
    EXPECT_EQ(log.count(4, "jobId=" + std::to_string(unknown) +
                               " did not exist in request to begin search"),
              1);
}

TEST_F(SearchTargetTest, SecondEndOfTheSameSearchFindsNothing)
{
    const unsigned int id = createNoop();
    end(id);
    log.mark();
    const Ended again = end(id);
    EXPECT_EQ(again.sec, 77u);
    EXPECT_EQ(log.count(4, "jobId=" + std::to_string(id) + " did not exist in request to end search"),
              1);
    EXPECT_EQ(target.completedCount(id), 1);
}

TEST_F(SearchTargetTest, IdsWrapAroundAndSkipIdsStillInUse)
{
    const unsigned int before = InspectableTarget::lastId();
    InspectableTarget::setLastId(4294967294u);
    int id = 0;
    target.createNoopSearch(&id);
    EXPECT_EQ(id, -1) << "4294967295 reads as the refusal value";
    EXPECT_EQ(createNoop(), 0u);
    EXPECT_EQ(createNoop(), 1u);

    InspectableTarget::setLastId(4294967295u);  // the next would be 0, which is still in use
    EXPECT_EQ(createNoop(), 2u);
    InspectableTarget::setLastId(before);
}

TEST_F(SearchTargetTest, LimitCountsSearchingJobsBegunOrNot)
{
    auto notBegun = boost::make_shared<NoOpSearchJob>(target.takeJobId(), nullptr, &target);
    target.adopt(notBegun);
    EXPECT_TRUE(target.canCreateJob());
    EXPECT_TRUE(log.since().empty()) << "a passed check logs nothing";

    auto walking = adoptLongWalk();
    unsigned int idOut = 0;
    target.beginSearch(walking->getJobId(), &idOut);
    EXPECT_FALSE(target.canCreateJob());
    EXPECT_EQ(log.count(5, "Cannot create new search job because 2 jobs are already running (max 2)"),
              1)
        << log.dump();

    notBegun->startSearch();  // completed, but still in the table
    for (int i = 0; i < 3; ++i) createNoop();
    log.mark();
    EXPECT_TRUE(target.canCreateJob());
    EXPECT_TRUE(log.since(5).empty());
    end(walking->getJobId());
}

TEST_F(SearchTargetTest, ThirdSearchIsRefusedWithoutTakingAnId)
{
    const int first = createEvent();
    const int second = createMetadata();
    ASSERT_GE(first, 0);
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(state(first), 1u);
    EXPECT_EQ(state(second), 1u);
    EXPECT_EQ(log.count(7, "initiateEventSearch(): JobMap.size(): 1, jobId " + std::to_string(first)),
              1)
        << log.dump();
    EXPECT_EQ(log.count(7, "initiateMetadataSearch(): JobMap.size(): 2, jobId " +
                               std::to_string(second)),
              1)
        << log.dump();

    EXPECT_EQ(createEvent(), -1);
    EXPECT_EQ(createMetadata(), -1);
    EXPECT_EQ(log.count(5, "Cannot create new search job because 2 jobs are already running (max 2)"),
              2);
    EXPECT_EQ(createNoop(), static_cast<unsigned int>(second) + 1) << "no-op searches are never refused";

    end(first);
    const int third = createEvent();
    EXPECT_EQ(third, second + 2);
    end(second);
    end(third);
}

enum class SearchKind { Event, Metadata };

void PrintTo(SearchKind kind, std::ostream* os)
{
    *os << (kind == SearchKind::Event ? "Event" : "Metadata");
}

struct TimesCase {
    const char* name;
    SearchTime start, end;
    int status;
};

void PrintTo(const TimesCase& c, std::ostream* os) { *os << c.name; }

class SearchTargetUsecTest
    : public SearchTargetTest,
      public ::testing::WithParamInterface<std::tuple<SearchKind, TimesCase>> {
protected:
    int create(SearchKind kind, const TimesCase& c, int* id)
    {
        return kind == SearchKind::Metadata
                   ? target.createMetadataSearch(c.start.sec, c.start.usec, c.end.sec,
                                                 c.end.usec, -1, "/", id)
                   : target.createEventSearch(c.start.sec, c.start.usec, c.end.sec, c.end.usec,
                                              -1, 1, 2, 3, id);
    }
};

TEST_P(SearchTargetUsecTest, MicrosecondsAbove999999AreRefusedWithStatus1)
{
    const auto& [kind, c] = GetParam();
    const unsigned int last = InspectableTarget::lastId();
    int id = 12345;
    EXPECT_EQ(create(kind, c, &id), c.status);
    char line[200];
    std::snprintf(line, sizeof line,
                  "Tried to start %s search with invalid times (microseconds out of range) "
                  "%u.%06u to %u.%06u",
                  kind == SearchKind::Metadata ? "a metadata" : "an event", c.start.sec,
                  c.start.usec, c.end.sec, c.end.usec);
    if (c.status == 0) {
        EXPECT_EQ(static_cast<unsigned int>(id), last + 1);
        const auto job = target.findJob(static_cast<unsigned int>(id));
        if (kind == SearchKind::Metadata) {
            EXPECT_TRUE(boost::dynamic_pointer_cast<MetadataSearchJob>(job) != nullptr);
        } else {
            EXPECT_TRUE(boost::dynamic_pointer_cast<EventSearchJob>(job) != nullptr);
        }
        EXPECT_EQ(log.count(4, line), 0);
        end(static_cast<unsigned int>(id));
    } else {
        EXPECT_EQ(id, 12345) << "a refused time leaves the id alone";
        EXPECT_EQ(InspectableTarget::lastId(), last) << "and takes no id";
        EXPECT_EQ(services.callCount("GetTracks"), 0) << "and builds no job";
        EXPECT_EQ(log.count(4, line), 1) << log.dump();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Times, SearchTargetUsecTest,
    ::testing::Combine(
        ::testing::Values(SearchKind::Event, SearchKind::Metadata),
        ::testing::Values(TimesCase{"Both999999", {10, 999999}, {20, 999999}, 0},
                          TimesCase{"BackwardFrom999999", {20, 0}, {10, 999999}, 0},
                          TimesCase{"StartMillion", {10, 1000000}, {20, 0}, 1},
                          TimesCase{"EndMillion", {10, 0}, {20, 1000000}, 1},
                          TimesCase{"BackwardEndMillion", {20, 0}, {10, 1000000}, 1},
                          TimesCase{"StartAllOnes", {10, 4294967295u}, {20, 0}, 1},
                          TimesCase{"BothAllOnes", {10, 4294967295u}, {20, 4294967295u}, 1})),
    [](const auto& info) {
        return ::testing::PrintToString(std::get<0>(info.param)) + std::get<1>(info.param).name;
    });

TEST_F(SearchTargetTest, EndingARunningWalkReportsHowFarItGotAndJoinsIt)
{
    auto job = adoptLongWalk();
    const unsigned int id = job->getJobId();
    unsigned int idOut = 0;
    ASSERT_EQ(target.beginSearch(id, &idOut), 0);
    EXPECT_EQ(log.count(7, "beginSearch(jobId=" + std::to_string(id) + ")"), 1);
    ASSERT_TRUE(eventually([&] { return target.queued().size() >= 3; }));

    const Ended ended = end(id);

    EXPECT_FALSE(job->walking.load());
    EXPECT_EQ(job->getSearchState(), Completed);
    EXPECT_EQ(target.completedCount(id), 1);
    EXPECT_GE(ended.sec, 2u);
    EXPECT_LT(ended.sec, 100000u);
    EXPECT_EQ(ended.usec, 0u);
    char line[200];
    std::snprintf(line, sizeof line,
                  "Ending search jobId=%u.  It is searching and searched through time %u.%06u", id,
                  ended.sec, ended.usec);
    EXPECT_EQ(log.count(6, line), 1) << log.dump();
    EXPECT_TRUE(target.tableIds().empty());
}

TEST_F(SearchTargetTest, BeginningTwiceRunsOneWalk)
{
    auto job = adoptLongWalk();
    unsigned int idOut = 0;
    target.beginSearch(job->getJobId(), &idOut);
    target.beginSearch(job->getJobId(), &idOut);
    ASSERT_TRUE(eventually([&] { return target.queued().size() >= 5; }));
    const Ended ended = end(job->getJobId());
    // One walker reports each second once; two would report some seconds twice.
    std::vector<unsigned int> seconds;
    for (const auto& r : target.queued()) {
        if (r.eventType == MetadataSearchResult) seconds.push_back(r.sec);
    }
    for (size_t i = 0; i < seconds.size(); ++i) EXPECT_EQ(seconds[i], i) << "at " << i;
    EXPECT_LT(ended.sec, 100000u);
}

TEST_F(SearchTargetTest, EndAllSearchJobsEndsInAscendingIdOrder)
{
    auto walking = adoptLongWalk();
    const unsigned int first = walking->getJobId();
    unsigned int idOut = 0;
    target.beginSearch(first, &idOut);
    const unsigned int second = createNoop();
    const unsigned int third = createNoop();
    log.mark();

    target.endAllSearchJobs();

    EXPECT_TRUE(target.tableIds().empty());
    EXPECT_FALSE(walking->walking.load());
    EXPECT_EQ(target.completedCount(first), 1);
    std::vector<std::string> order;
    for (const auto& line : log.since()) {
        if (line.priority == 5 || line.message.rfind("Ending jobid=", 0) == 0) {
            order.push_back(line.message);
        }
    }
    const std::vector<std::string> expected{
        "Ending all 3 search jobs (this should only happen on app exit)",
        "Ending jobid=" + std::to_string(first) + " of 3 jobs",
        "Ending jobid=" + std::to_string(second) + " of 2 jobs",
        "Ending jobid=" + std::to_string(third) + " of 1 jobs"};
    EXPECT_EQ(order, expected) << log.dump();
}

TEST_F(SearchTargetTest, EndAllSearchJobsOnAnEmptyTableWritesOneLine)
{
    target.endAllSearchJobs();
    const auto lines = log.since();
    ASSERT_EQ(lines.size(), 1u) << log.dump();
    EXPECT_EQ(lines[0].priority, 5);
    EXPECT_EQ(lines[0].message, "Ending all 0 search jobs (this should only happen on app exit)");
}

TEST_F(SearchTargetTest, DestroyingTheTargetEndsAndJoinsRunningSearches)
{
    auto local = std::make_unique<InspectableTarget>();
    auto job = boost::make_shared<SteppingJob>(
        local->takeJobId(), local.get(), SearchTime{0, 0}, SearchTime{100000, 0},
        SteppingJob::Options{-1, 1, std::chrono::microseconds(500)});
    local->adopt(job);
    unsigned int idOut = 0;
    local->beginSearch(job->getJobId(), &idOut);
    ASSERT_TRUE(eventually([&] { return job->walking.load(); }));

    local.reset();

    EXPECT_FALSE(job->walking.load());
    EXPECT_EQ(job->getSearchState(), Completed);
}

// Requests from several threads at once, with ending everything in the middle: no job is lost,
// none completes twice, and the table ends empty.
TEST_F(SearchTargetTest, ConcurrentRequestsKeepTheTableConsistent)
{
    std::atomic<bool> failed{false};
    std::vector<std::thread> clients;
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&] {
            for (int i = 0; i < 200; ++i) {
                int id = -1;
                unsigned int a = 0, b = 0, c = 0;
                target.createNoopSearch(&id);
                target.beginSearch(static_cast<unsigned int>(id), &a);
                target.getSearchState(static_cast<unsigned int>(id), &a, &b);
                if (b != 2 && b != 0) failed.store(true);
                target.endSearch(static_cast<unsigned int>(id), &a, &b, &c);
            }
        });
    }
    target.endAllSearchJobs();
    for (auto& client : clients) client.join();
    target.endAllSearchJobs();

    EXPECT_FALSE(failed.load());
    EXPECT_TRUE(target.tableIds().empty());
    std::map<unsigned int, int> completions;
    for (const auto& r : target.queued()) ++completions[r.jobId];
    EXPECT_EQ(completions.size(), 800u);
    for (const auto& entry : completions) EXPECT_EQ(entry.second, 1) << "job " << entry.first;
}

}  // namespace
