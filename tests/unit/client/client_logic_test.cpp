// What clients make of a search without the bus: filters against documents as the store writes
// them, and the picture as a real SVG renderer draws it.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/TerminalTimeline.h"
#include "client/Coverage.h"
#include "client/MetadataFilter.h"
#include "client/Spans.h"
#include "client/Svg.h"
#include "client/TimeText.h"
#include "client/XPathCheck.h"
#include "store/AnalyticsFrame.h"
#include "support/PlainXPath.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

namespace {

using namespace rsclient;
using recsearch::drawTimeline;
using std::chrono::minutes;

store::DetectedObject object(const std::string& type, double likelihood, const std::string& colour,
                             double left, double top, double right, double bottom)
{
    store::DetectedObject o;
    o.type = type;
    o.typeLikelihood = likelihood;
    o.colour = colour;
    o.colourLikelihood = 0.9;
    o.left = left, o.top = top, o.right = right, o.bottom = bottom;
    return o;
}

// Each document differs from another one in a single value at a boundary of some filter.
std::vector<std::string> documents()
{
    const std::vector<std::vector<store::DetectedObject>> scenes{
        {object("Person", 0.80, "red", 0.1, 0.1, 0.2, 0.4)},
        {object("Person", 0.79, "red", 0.1, 0.1, 0.2, 0.4)},
        {object("Vehicle", 0.81, "RED", 0.5, 0.3, 0.7, 0.45)},  // touches the region's right
        {object("vehicle", 0.80, "blue", 0.499, 0.3, 0.7, 0.45)},
        {object("Vehicle", 0.95, "blue", 0.1, 0.2, 0.25, 0.3)},  // touches the region's left
        {object("Vehicle", 0.95, "red", 0.1, 0.2, 0.251, 0.3)},
        {object("Bicycle", 0.60, "green", 0.3, 0.5, 0.4, 0.7)},  // touches the region's bottom
        {object("Bicycle", 0.60, "green", 0.3, 0.499, 0.4, 0.7)},
        // Class and colour on different objects: not one red vehicle.
        {object("Vehicle", 0.90, "blue", 0.0, 0.0, 0.1, 0.1),
         object("Person", 0.90, "red", 0.3, 0.3, 0.4, 0.4)},
        {},
    };
    std::vector<std::string> docs;
    for (std::size_t i = 0; i < scenes.size(); ++i) {
        for (bool motion : {false, true}) {
            store::AnalyticsFrame frame;
            frame.time = {1704067200, uint32_t(i)};
            frame.source = "VIDEO001";
            frame.motion = motion;
            frame.objects = scenes[i];
            docs.push_back(store::renderFrame(frame));
        }
    }
    return docs;
}

// Both forms, with every number of fraction digits from none to six (microseconds); the store's
// importer reads its times through the same function.
TEST(ClientTimes, EveryFractionLengthUpToMicroseconds)
{
    const std::string iso = "2024-01-01T00:00:07", seconds = "1704067207";
    const std::string digits = "123456";
    for (std::size_t n = 0; n <= digits.size(); ++n) {
        const std::string fraction = n == 0 ? "" : "." + digits.substr(0, n);
        const uint32_t usec =
            n == 0 ? 0 : uint32_t(std::stoul((digits.substr(0, n) + "00000").substr(0, 6)));
        for (const std::string& text : {iso + fraction + "Z", seconds + fraction}) {
            std::string why;
            const auto t = parseTime(text, &why);
            ASSERT_TRUE(t) << text << ": " << why;
            EXPECT_EQ(t->sec, 1704067207u) << text;
            EXPECT_EQ(t->usec, usec) << text;
        }
    }
}

// Every unit once, and the forms that are not durations; "m" is minutes, never milliseconds.
TEST(ClientTimes, DurationsInEachUnitAndTheFormsThatAreNot)
{
    const std::vector<std::pair<std::string, int64_t>> good = {
        {"10m", 600'000'000},    {"5min", 300'000'000}, {"1h", 3'600'000'000},
        {"90s", 90'000'000},     {"90", 90'000'000},    {"250ms", 250'000},
        {"2d", 172'800'000'000}, {"1.5s", 1'500'000},   {"0.000001s", 1},
    };
    for (const auto& [text, micros] : good) {
        const auto d = parseDuration(text, nullptr);
        ASSERT_TRUE(d) << text;
        EXPECT_EQ(d->count(), micros) << text;
    }
    for (const std::string text : {"", "s", "10M", "1w", "-5s", "1e3s", "1.2.3s", " 5s", "5 s",
                                   "0s", "0.0000001s", "3651d", "+5s"}) {
        std::string why;
        EXPECT_FALSE(parseDuration(text, &why)) << text;
        EXPECT_NE(why, "") << text;
    }
}

// Buckets from the range's start; a range of whole buckets has exactly that many, otherwise one
// short bucket more ends at the range's end.
TEST(ClientCoverage, BucketsCoverTheRangeExactly)
{
    const Micros from = std::chrono::hours(1), to = from + minutes(60);
    const Picture picture{from, to, false, {Row{"recording", {Segment{from, to, State::On}}}}};
    for (const auto& [size, count] : {std::pair{minutes(10), 6u}, std::pair{minutes(7), 9u}}) {
        std::vector<Bucket> buckets;
        forEachBucket(picture, size, [&](const Bucket& b) { buckets.push_back(b); });
        ASSERT_EQ(buckets.size(), count) << size.count();
        EXPECT_EQ(buckets.front().from, from);
        for (std::size_t i = 1; i < count; ++i) EXPECT_EQ(buckets[i].from, buckets[i - 1].to);
        EXPECT_EQ(buckets.back().to, to);
        EXPECT_EQ(buckets.back().recordingOn, buckets.back().to - buckets.back().from);
    }
    // Edges on an origin (a midnight) plus whole buckets: a shorter first one, then whole ones.
    std::vector<Bucket> aligned;
    forEachBucket(
        picture, minutes(25), [&](const Bucket& b) { aligned.push_back(b); }, Micros{0});
    ASSERT_EQ(aligned.size(), 3u);  // 1:00-1:15, 1:15-1:40, 1:40-2:00
    EXPECT_EQ(aligned[0].to, from + minutes(15));
    EXPECT_EQ(aligned[1].to, from + minutes(40));
    EXPECT_EQ(aligned[2].to, to);
    // Ten thousand buckets at most, either way round.
    const TimePoint start{3600, 0}, end{7200, 0};
    EXPECT_EQ(checkBucketCount(end, start, std::chrono::milliseconds(360)), "");
    EXPECT_EQ(checkBucketCount(start, end, std::chrono::milliseconds(359)),
              "a bucket of 359 ms cuts this range into 10028 buckets; at most 10000 are made "
              "(choose a bucket of 360 ms or more)");
}

// Matches no more than the gap apart share a span, one exactly the gap apart too; backward,
// the same spans come latest first.
TEST(ClientSpans, MatchesAtMostTheGapApartShareASpanEitherWay)
{
    const std::vector<int64_t> ms{0, 200, 700, 1400, 1500};
    using Bounds = std::tuple<int64_t, int64_t, std::size_t>;
    for (bool forward : {true, false}) {
        SpanGrouper grouper(std::chrono::milliseconds(500));
        std::vector<Bounds> spans;
        const auto keep = [&](const std::optional<Span>& s) {
            if (s)
                spans.emplace_back(sinceEpoch(s->start).count(), sinceEpoch(s->end).count(),
                                   s->matches);
        };
        for (std::size_t i = 0; i < ms.size(); ++i) {
            keep(grouper.add(
                timePointAt(std::chrono::milliseconds(ms[forward ? i : ms.size() - 1 - i]))));
        }
        keep(grouper.finish());
        std::vector<Bounds> expected{{0, 700000, 3}, {1400000, 1500000, 2}};
        if (!forward) std::reverse(expected.begin(), expected.end());
        EXPECT_EQ(spans, expected) << (forward ? "forward" : "backward");
    }
}

struct FilterCase {
    MetadataFilter filter;
    std::string xpath, handWritten;
};

TEST(RecsearchFilters, EachExpressionMatchesExactlyWhatAHandWrittenOneMatches)
{
    const std::string vehicle =
        "(Appearance/Class/Type=\"Vehicle\" or Appearance/Class/Type=\"vehicle\")";
    const std::string overlaps =  // the region 0.25,0.25,0.5,0.5
        "not(Appearance/Shape/BoundingBox/@right<=0.25 or Appearance/Shape/BoundingBox/@left>=0.5 "
        "or Appearance/Shape/BoundingBox/@bottom<=0.25 or Appearance/Shape/BoundingBox/@top>=0.5)";
    const std::vector<FilterCase> cases{
        {{{"vehicle"}, "", "", {}, false}, "", "//Object[" + vehicle + "]"},
        {{{"PERSON", "Bicycle"}, "", "", {}, false},
         "",
         "//Object/Appearance/Class/Type[.=\"Person\" or .=\"Bicycle\"]"},
        {{{}, "", "0.8", {}, false}, "", "//Object/Appearance/Class/Type[@Likelihood>=0.80]"},
        {{{"Vehicle"}, "Red", "0.80", {}, false},
         "",
         "//Object[" + vehicle +
             " and Appearance/Class/Type/@Likelihood>=0.8 and "
             "(Appearance/Color/ColorCluster/@Name=\"red\" or "
             "Appearance/Color/ColorCluster/@Name=\"RED\")]"},
        {{{}, "", "", parseRegion("0.25,0.25,0.5,0.5"), false}, "", "//Object[" + overlaps + "]"},
        {{{}, "", "", {}, true},
         "",
         "//Event/NotificationMessage[@Topic=\"VideoSource/MotionAlarm\"]/Data/"
         "SimpleItem[@Name=\"State\"][@Value=\"true\"]"},
        {{{"person"}, "", "", {}, true},
         "//Frame[@ObjectCount=2]",
         "//Frame[@ObjectCount=2]/Object/Appearance/Class/Type=\"Person\" and "
         "//SimpleItem[@Name=\"State\"]/@Value=\"true\""},
    };
    const auto docs = documents();
    for (const auto& c : cases) {
        const std::string generated = filterXPath(c.filter, c.xpath);
        std::size_t matched = 0;
        for (std::size_t i = 0; i < docs.size(); ++i) {
            const int expected = rstest::plainXPathEvaluation(c.handWritten, docs[i]);
            ASSERT_NE(expected, -1) << c.handWritten;
            EXPECT_EQ(rstest::plainXPathEvaluation(generated, docs[i]), expected)
                << generated << "\non document " << i << ":\n"
                << docs[i];
            matched += std::size_t(expected);
        }
        // A case that matches all or nothing could not tell a wrong expression from a right one.
        EXPECT_GT(matched, 0u) << c.handWritten;
        EXPECT_LT(matched, docs.size()) << c.handWritten;
    }
}

// An expression is checked before any search is created; the sentence says where it breaks.
TEST(RecsearchFilters, AnExpressionThatDoesNotCompileIsToldWhereBeforeAnySearch)
{
    for (const std::string good : {"", "//Object", "count(//Object) > 2"}) {
        EXPECT_EQ(checkXPath(good), "") << good;
    }
    EXPECT_EQ(checkXPath("//Object["),
              "the XPath expression //Object[ does not compile: it is not a valid expression (at "
              "its end)");
    EXPECT_EQ(checkXPath("//a[@b=\"x]"),
              "the XPath expression //a[@b=\"x] does not compile: a quoted string is not closed "
              "(at its end)");
    EXPECT_EQ(checkXPath("foo bar"),
              "the XPath expression foo bar does not compile: it is not a valid expression (at "
              "character 5)");
    // The walk matches without namespaces: a prefix would fail on every document.
    EXPECT_EQ(checkXPath("count(//tt:Object) > 0"),
              "the XPath expression count(//tt:Object) > 0 does not compile: it uses a namespace "
              "prefix, and documents are matched without any");
}

// Colours of points of the SVG as rsvg-convert renders it: each point alone as a 1x1 PNG, whose
// only pixel no PNG filter changes, so zlib from the Python standard library reads it.
const char* const kPixels = R"(
import subprocess, sys, zlib
for at in sys.argv[2:]:
    x, y = at.split(',')
    png = subprocess.run(['rsvg-convert', '--left=-' + x, '--top=-' + y, '--page-width=1',
                          '--page-height=1', sys.argv[1]], check=True, capture_output=True).stdout
    rgb = zlib.decompressobj().decompress(png[png.index(b'IDAT') + 4:])[1:4]
    print('#%02x%02x%02x' % tuple(rgb))
)";

TEST(RecsearchPicture, TheSvgParsesNamesItsRowsAndRendersTheBarsWhereTheyBelong)
{
    const Micros from = sinceEpoch({1704067200, 0}), to = from + minutes(60);
    const std::string odd = "VIDEO<&>\"'\x01\xff";  // markup, a control byte, not UTF-8
    using K = SearchResult::Kind;
    // Forward with the state at the start for the recording only: the track is unknown until
    // its first change.
    const std::vector<SearchResult> results{
        SearchResult{K::RecordingState, 1, timePointAt(from), "", true, true},
        SearchResult{K::TrackState, 1, timePointAt(from + minutes(20)), odd, true, false},
        SearchResult{K::RecordingState, 1, timePointAt(from + minutes(30)), "", false, false},
        SearchResult{K::TrackState, 1, timePointAt(from + minutes(40)), odd, false, false},
    };
    const Picture picture =
        eventPicture(results, timePointAt(from), timePointAt(to), timePointAt(to));
    rstest::TempDir dir;
    const std::string svg = dir.file("picture.svg");
    {
        std::ofstream out(svg);
        writeSvg(out, picture, "states of <all> & \"everything\"");
    }

    xmlDocPtr doc = xmlReadFile(svg.c_str(), nullptr, XML_PARSE_NONET);
    ASSERT_NE(doc, nullptr) << "not well-formed XML";
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    xmlXPathRegisterNs(context, BAD_CAST "s", BAD_CAST "http://www.w3.org/2000/svg");
    xmlXPathObjectPtr names = xmlXPathEvalExpression(
        BAD_CAST "concat(count(//s:g/s:title), ' ', //s:g[1]/s:title, ' ', //s:g[2]/s:title)",
        context);
    EXPECT_STREQ(reinterpret_cast<const char*>(names->stringval),
                 "2 recording VIDEO<&>\"'\uFFFD\uFFFD");
    xmlXPathFreeObject(names);
    xmlXPathFreeContext(context);
    xmlFreeDoc(doc);

    // In a zone five and a half hours west, the axis counts that zone's round times and says so.
    std::ostringstream west;
    writeSvg(west, picture, "", -(std::chrono::hours(5) + minutes(30)));
    EXPECT_NE(west.str().find(">18:30</text>"), std::string::npos);
    EXPECT_NE(west.str().find(">UTC-05:30</text>"), std::string::npos);

    auto at = [&](std::size_t row, Micros t) {
        return std::to_string(int(SvgLayout::x(picture, t))) + "," +
               std::to_string(int(SvgLayout::rowTop(row) + SvgLayout::kRowHeight / 2));
    };
    // Recording on, then off; the track on, off, and unknown before its first change.
    const auto pixels =
        rstest::runToEnd("python3", {"-c", kPixels, svg, at(0, from + minutes(15)),
                                     at(0, from + minutes(45)), at(1, from + minutes(30)),
                                     at(1, from + minutes(50)), at(1, from + minutes(10))});
    ASSERT_EQ(pixels.status.code, 0)
        << "rsvg-convert (Debian package librsvg2-bin, installed by scripts/setup.sh): "
        << pixels.err;
    EXPECT_EQ(pixels.out, "#2e7d32\n#dcdcdc\n#2e7d32\n#dcdcdc\n#f1e2b8\n");

    // The terminal draws the same rows.
    std::stringstream terminal;
    const std::string label = "VIDEO<&>\"'??";  // the widest
    drawTimeline(terminal, picture, label.size() + 2 + 12, false);
    std::string recordingLine, trackLine;
    std::getline(terminal, recordingLine);
    std::getline(terminal, trackLine);
    EXPECT_EQ(recordingLine, "recording" + std::string(label.size() - 9 + 2, ' ') + "######......");
    EXPECT_EQ(trackLine, label + "  ????####....");
}

}  // namespace
