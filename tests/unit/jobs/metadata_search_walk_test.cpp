// MetadataSearchJob: which documents match and in what order, the range (fitted to the
// recording, then to track "META001") and the result limit.

#include <string>
#include <vector>

#include "event_and_metadata_fixture.h"
#include "jobs/MetadataSearchJob.h"

namespace {

using namespace walktest;
using rstest::Recording;
using rstest::Reply;
using rstest::Span;

const SearchTime d0{200, 0}, d1{201, 0}, d2{202, 500000}, d3{203, 0}, d4{204, 0};

std::string frame(const char* cls, const char* colour)
{
    return std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<frame><object class=\"") +
           cls + "\" likelihood=\"0.9\"><colour>" + colour + "</colour></object></frame>";
}

// History events at 190.0 and 210.0 make the recording longer than its metadata track.
Recording sampleRecording()
{
    Recording r;
    r.tracks = {"V1", "META001"};
    r.events = {{{190, 0}, {{"", 0, 1}}}, {{210, 0}, {{"", 0, 0}}}};
    r.documents = {{st(d0), frame("person", "red")},
                   {st(d1), frame("car", "blue")},
                   {st(d2), frame("person", "blue")},
                   {st(d3), "<frame><object class=\"person\">"},  // does not parse
                   {st(d4), frame("car", "red")}};
    return r;
}

class MetadataWalkTest : public WalkTest {
protected:
    void SetUp() override { services->setRecording(sampleRecording()); }

    std::vector<Rec> results(std::vector<SearchTime> times)
    {
        std::vector<Rec> out;
        for (const auto& t : times) out.push_back(meta(t));
        out.push_back(completed());
        return out;
    }
};

struct MatchCase {
    const char* name;
    const char* xpath;
    SearchTime start, end;
    std::vector<SearchTime> matches;
};

void PrintTo(const MatchCase& c, std::ostream* os) { *os << c.name; }

class MetadataMatchTest : public MetadataWalkTest,
                          public ::testing::WithParamInterface<MatchCase> {};

TEST_P(MetadataMatchTest, ReportsEveryMatchingDocumentInWalkOrder)
{
    const MatchCase& c = GetParam();
    const int id = createMetadata(c.start, c.end, -1, c.xpath);
    EXPECT_EQ(run(id), results(c.matches)) << log.dump();
    EXPECT_EQ(end(id), c.end);
    EXPECT_EQ(callCount("GetMetadata"), static_cast<int>(c.end == c.start ? 1 : 5))
        << "every document of the range is fetched, matching or not";
    const std::string stored = *c.xpath ? c.xpath : "/";
    EXPECT_EQ(log.count(6, format("Starting metadata job %d with xpath %s", id, stored.c_str())), 1)
        << log.dump();
    EXPECT_EQ(log.count(7, "Finished searching search range"), 1);
    EXPECT_EQ(log.count(6, format("Metadata Search %d completed work", id)), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Expressions, MetadataMatchTest,
    ::testing::Values(
        MatchCase{"Forward", "//object[@class='person']", {195, 0}, {208, 0}, {d0, d2}},
        MatchCase{"Backward", "//object[@class='person']", {208, 0}, {195, 0}, {d2, d0}},
        MatchCase{"EmptyMatchesEveryDocumentThatParses", "", {195, 0}, {208, 0}, {d0, d1, d2, d4}},
        MatchCase{"TrueWithoutADocumentMatchesTheMalformedOneToo", "true()", {195, 0}, {208, 0},
                  {d0, d1, d2, d3, d4}},
        MatchCase{"Comparison", "//colour = 'red'", {208, 0}, {195, 0}, {d4, d0}},
        MatchCase{"InvalidExpressionMatchesNothing", "//object[", {195, 0}, {208, 0}, {}},
        MatchCase{"NotABooleanIsConverted", "count(//object)", {195, 0}, {208, 0},
                  {d0, d1, d2, d4}},
        MatchCase{"DocumentsAtBothBoundsAreInRange", "/frame", d0, d4, {d0, d1, d2, d4}},
        MatchCase{"SingleInstant", "/", d2, d2, {d2}}),
    ::testing::PrintToStringParamName());

TEST_F(MetadataWalkTest, NarrowsTheRangeToTheMetadataTrackAndWalksFromItsStart)
{
    const int id = createMetadata({195, 0}, {208, 0}, -1, "/");
    run(id);
    EXPECT_EQ(log.count(5, "Adjusting our search start 195.000000 to the start of the metadata "
                           "track 200.000000"),
              1)
        << log.dump();
    EXPECT_EQ(log.count(5, "Adjusting our search end 208.000000 to the end of the metadata "
                           "track 204.000000"),
              1);
    EXPECT_EQ(log.count(7, format("Forward search %d from 200.000000 to 204.000000 ", id)), 1);
    const auto asked = requestsOf("GetMetadata");
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(asked.front(), "200.000000");
}

TEST_F(MetadataWalkTest, BackwardTraceNamesTheDirection)
{
    const int id = createMetadata({208, 0}, {195, 0}, -1, "/");
    run(id);
    EXPECT_EQ(log.count(7, format("Backward search %d from 200.000000 to 204.000000 ", id)), 1)
        << log.dump();
}

struct OutsideCase {
    const char* name;
    SearchTime start, end;
};

void PrintTo(const OutsideCase& c, std::ostream* os) { *os << c.name; }

class MetadataOutsideTrackTest : public MetadataWalkTest,
                                 public ::testing::WithParamInterface<OutsideCase> {};

TEST_P(MetadataOutsideTrackTest, SendsNoMetadataRequestAtAll)
{
    const int id = createMetadata(GetParam().start, GetParam().end, -1, "/");
    EXPECT_EQ(run(id), std::vector<Rec>{completed()});
    EXPECT_EQ(callCount("GetMetadata"), 0);
}

INSTANTIATE_TEST_SUITE_P(Ranges, MetadataOutsideTrackTest,
                         ::testing::Values(OutsideCase{"Before", {191, 0}, {199, 999999}},
                                           OutsideCase{"After", {209, 0}, {204, 1}},
                                           OutsideCase{"BeforeTheRecording", {100, 0}, {150, 0}}),
                         ::testing::PrintToStringParamName());

TEST_F(MetadataWalkTest, ZeroLimitSendsNoMetadataRequest)
{
    const int id = createMetadata({195, 0}, {208, 0}, 0, "/");
    EXPECT_EQ(run(id), std::vector<Rec>{completed()});
    EXPECT_EQ(callCount("GetMetadata"), 0);
}

TEST_F(MetadataWalkTest, LimitOfTwoReportsTwoMatchesThenEndsAtTheRequestedEnd)
{
    const int id = createMetadata({195, 0}, {208, 0}, 2, "true()");
    EXPECT_EQ(run(id), results({d0, d1}));
    EXPECT_EQ(log.count(6, "Request time is 202.500000 which is outside of our search range of "
                           "200.000000 to 204.000000"),
              1)
        << log.dump();
    EXPECT_EQ(log.count(7, "Finished searching search range"), 1);
    EXPECT_EQ(callCount("GetMetadata"), 2);
    EXPECT_EQ(end(id), (SearchTime{208, 0}));
}

TEST_F(MetadataWalkTest, FailedTrackSummaryKeepsTheRangeFittedToTheRecording)
{
    services->failMethod("GetTrackSummary", 42);
    const int id = createMetadata({195, 0}, {208, 0}, -1, "/");
    EXPECT_EQ(run(id), results({d0, d1, d2, d4}));
    EXPECT_EQ(log.count(4, "Could not get the bounds of track META001 (status 42); searching the "
                           "range fitted to the recording"),
              1)
        << log.dump();
    const auto asked = requestsOf("GetMetadata");
    ASSERT_FALSE(asked.empty());
    EXPECT_EQ(asked.front(), "195.000000");
}

TEST_F(MetadataWalkTest, DocumentBeforeTheRangeIsSkippedUnevaluated)
{
    // The range starts inside the track, so the first answer (the document at or before the
    // start) lies before it.
    const int id = createMetadata({201, 500000}, {208, 0}, -1, "true()");
    EXPECT_EQ(run(id), results({d2, d3, d4}));
    EXPECT_EQ(log.count(6, "Skipping response because its time 201.000000 is outside the range "
                           "of our search."),
              1)
        << log.dump();
}

TEST_F(MetadataWalkTest, PausesAtLeast500MicrosecondsAfterEveryFetch)
{
    RequestClock clock;
    auto* s = &*services;
    services->scriptGetMetadata(
        [&clock, s](rstest::StoreTime t) -> Reply<rstest::MetadataAnswer> {
            clock.tick();
            return *s->modelMetadata(t);
        });
    // Matching, not matching, not parsing and skipped answers alike.
    run(createMetadata({201, 500000}, {208, 0}, -1, "//object[@class='person']"));
    EXPECT_EQ(clock.count(), 4u);
    EXPECT_GE(clock.shortestGap(), std::chrono::microseconds(500));
}

}  // namespace
