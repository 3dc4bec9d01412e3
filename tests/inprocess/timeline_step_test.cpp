// The rules of one walk step, shared by the event and the metadata search.

#include <gtest/gtest.h>

#include "jobs/EndOfSearchException.h"
#include "jobs/TimelineStep.h"

namespace {

struct Step {
    const char* name;
    NeighbourTimes answer;  // cur, prev, next
    SearchTime requested;
    bool curInRange;
    bool forward;
    NextPresence presence;
    bool linear;
    SearchTime nextPoint;
};

constexpr SearchTime kZero{0, 0};
constexpr SearchTime kOddNext{1, 4294967295u};  // halves add up to zero
constexpr NextPresence kHalves = NextPresence::HalvesSumNonZero;
constexpr NextPresence kNotZero = NextPresence::NotZeroTime;

// clang-format off
const Step kSteps[] = {
    {"Forward", {{2, 0}, {1, 0}, {3, 0}}, {2, 0}, true, true, kHalves, true, {3, 0}},
    {"Backward", {{2, 0}, {1, 0}, {3, 0}}, {2, 0}, true, false, kNotZero, true, {1, 0}},
    {"CurOutOfRange", {{2, 0}, {1, 0}, {3, 0}}, {2, 0}, false, true, kNotZero, true, {3, 0}},
    {"NextEqualToCurIsCleared", {{2, 0}, {1, 0}, {2, 0}}, {2, 0}, true, true, kNotZero, true, kZero},
    {"PrevEqualToCurIsCleared", {{2, 0}, {2, 0}, {3, 0}}, {2, 0}, true, false, kNotZero, true, kZero},
    {"NoNext", {{2, 0}, {1, 0}, kZero}, {2, 5}, true, true, kNotZero, true, kZero},
    {"RequestedAtNext", {{2, 0}, {1, 0}, {3, 0}}, {3, 0}, true, true, kNotZero, false, {3, 0}},
    {"RequestedAtPrev", {{2, 0}, {1, 0}, {3, 0}}, {1, 0}, true, false, kNotZero, false, {1, 0}},
    {"CurBeforePrev", {{2, 0}, {2, 500000}, {3, 0}}, {2, 700000}, true, true, kNotZero, false, {3, 0}},
    {"CurAfterNext", {{3, 1}, {1, 0}, {3, 0}}, {2, 0}, true, true, kHalves, false, {3, 0}},
    {"MicrosecondsOrderWithinASecond", {{3, 1}, {2, 999999}, {3, 2}}, {3, 0}, true, true, kNotZero, true, {3, 2}},
    {"PrevLaterInTheSameSecond", {{3, 5}, {3, 1}, {3, 9}}, {3, 0}, true, true, kNotZero, false, {3, 9}},
    {"HalvesSumZeroIsNoNextForEvents", {{2, 0}, {1, 0}, kOddNext}, {2, 0}, true, true, kHalves, true, kOddNext},
    {"HalvesSumZeroIsANextForMetadata", {{2, 0}, {1, 0}, kOddNext}, {2, 0}, true, true, kNotZero, false, kOddNext},
};
// clang-format on

class TimelineStepRules : public ::testing::TestWithParam<Step> {};

TEST_P(TimelineStepRules, ApplyMovesTheWalkAndJudgesTheOrder)
{
    const Step& s = GetParam();
    const TimelineStep step(nullptr,
                            {"%d.%06d", "%d.%06d %d.%06d %d.%06d", "%d.%06d", 5, s.presence});
    AtomicSearchTime current(SearchTime{9, 0});
    SearchTime point = s.requested;
    const StepVerdict verdict = step.apply(s.answer, s.curInRange, s.forward, current, point);
    EXPECT_EQ(s.curInRange, verdict.accepted);
    EXPECT_EQ(s.linear, verdict.linear);
    EXPECT_EQ((s.curInRange ? s.answer.cur : SearchTime{9, 0}), current.load());
    EXPECT_EQ(s.nextPoint, point);
}

INSTANTIATE_TEST_SUITE_P(Steps, TimelineStepRules, ::testing::ValuesIn(kSteps),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(TimelineStepEnter, EndsTheWalkOnlyWhenThePointHasLeftTheRange)
{
    const TimelineStep step(
        nullptr, {"%d.%06d", "%d.%06d %d.%06d %d.%06d", "%d.%06d", 5, NextPresence::NotZeroTime});
    EXPECT_NO_THROW(step.enter(true, {2, 0}, {1, 0}, {3, 0}));
    EXPECT_THROW(step.enter(false, {4, 0}, {1, 0}, {3, 0}), EndOfSearchException);
}

}  // namespace
