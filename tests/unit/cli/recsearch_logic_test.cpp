// recsearch's own logic without the bus: filters against documents as the store writes them,
// and the picture as a real SVG renderer draws it.
#include <libxml/parser.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/MetadataFilter.h"
#include "cli/Picture.h"
#include "store/AnalyticsFrame.h"
#include "support/PlainXPath.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

namespace {

using namespace recsearch;
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
        {object("Vehicle", 0.81, "RED", 0.5, 0.3, 0.7, 0.45)},   // touches the region's right
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

struct FilterCase {
    std::vector<std::string> classes;
    std::string colour, likelihood, region;
    bool motion;
    std::string xpath;
    std::string handWritten;
};

TEST(RecsearchFilters, EachExpressionMatchesExactlyWhatAHandWrittenOneMatches)
{
    const std::string vehicle =
        "(Appearance/Class/Type=\"Vehicle\" or Appearance/Class/Type=\"vehicle\")";
    const std::string overlaps =  // the region 0.25,0.25,0.5,0.5
        "not(Appearance/Shape/BoundingBox/@right<=0.25 or Appearance/Shape/BoundingBox/@left>=0.5 "
        "or Appearance/Shape/BoundingBox/@bottom<=0.25 or Appearance/Shape/BoundingBox/@top>=0.5)";
    const std::vector<FilterCase> cases{
        {{"vehicle"}, "", "", "", false, "", "//Object[" + vehicle + "]"},
        {{"PERSON", "Bicycle"}, "", "", "", false, "",
         "//Object/Appearance/Class/Type[.=\"Person\" or .=\"Bicycle\"]"},
        {{}, "", "0.8", "", false, "", "//Object/Appearance/Class/Type[@Likelihood>=0.80]"},
        {{"Vehicle"}, "Red", "0.80", "", false, "",
         "//Object[" + vehicle + " and Appearance/Class/Type/@Likelihood>=0.8 and "
         "(Appearance/Color/ColorCluster/@Name=\"red\" or "
         "Appearance/Color/ColorCluster/@Name=\"RED\")]"},
        {{}, "", "", "0.25,0.25,0.5,0.5", false, "", "//Object[" + overlaps + "]"},
        {{}, "", "", "", true, "",
         "//Event/NotificationMessage[@Topic=\"VideoSource/MotionAlarm\"]/Data/"
         "SimpleItem[@Name=\"State\"][@Value=\"true\"]"},
        {{"person"}, "", "", "", true, "//Frame[@ObjectCount=2]",
         "//Frame[@ObjectCount=2]/Object/Appearance/Class/Type=\"Person\" and "
         "//SimpleItem[@Name=\"State\"]/@Value=\"true\""},
    };
    const auto docs = documents();
    for (const auto& c : cases) {
        MetadataFilter filter;
        filter.classes = c.classes;
        filter.colour = c.colour;
        filter.minLikelihood = c.likelihood;
        if (!c.region.empty()) filter.region = parseRegion(c.region);
        filter.motion = c.motion;
        const std::string generated = filterXPath(filter, c.xpath);
        std::size_t matched = 0;
        for (std::size_t i = 0; i < docs.size(); ++i) {
            const int expected = rstest::plainXPathEvaluation(c.handWritten, docs[i]);
            ASSERT_NE(expected, -1) << c.handWritten;
            EXPECT_EQ(rstest::plainXPathEvaluation(generated, docs[i]), expected)
                << generated << "\non document " << i << ":\n" << docs[i];
            matched += std::size_t(expected);
        }
        // A case that matches all or nothing could not tell a wrong expression from a right one.
        EXPECT_GT(matched, 0u) << c.handWritten;
        EXPECT_LT(matched, docs.size()) << c.handWritten;
    }
}

// ---------------------------------------------------------------------------------------------

SearchResult change(SearchResult::Kind kind, const std::string& track, Micros t, bool on,
                    bool startState = false)
{
    return SearchResult{kind, 1, timePointAt(t), track, on, startState};
}

// RGB of pixels of a PNG, by the Python standard library alone (no image module needed).
const char* const kPixels = R"(
import struct, sys, zlib
data = open(sys.argv[1], 'rb').read()
pos, idat = 8, b''
while pos < len(data):
    n, kind = struct.unpack('>I4s', data[pos:pos + 8])
    body = data[pos + 8:pos + 8 + n]
    pos += 12 + n
    if kind == b'IHDR':
        w, h, depth, ctype = struct.unpack('>IIBB', body[:10])
    if kind == b'IDAT':
        idat += body
assert depth == 8 and ctype in (2, 6)
bpp = 4 if ctype == 6 else 3
raw, rows, prev, i = zlib.decompress(idat), [], bytearray(w * bpp), 0
for y in range(h):
    f, line = raw[i], bytearray(raw[i + 1:i + 1 + w * bpp])
    i += 1 + w * bpp
    for x in range(len(line)):
        a = line[x - bpp] if x >= bpp else 0
        b = prev[x]
        c = prev[x - bpp] if x >= bpp else 0
        p = a + b - c
        pred = [0, a, b, (a + b) // 2,
                a if abs(p - a) <= abs(p - b) and abs(p - a) <= abs(p - c)
                else b if abs(p - b) <= abs(p - c) else c][f]
        line[x] = (line[x] + pred) & 255
    rows.append(line)
    prev = line
for arg in sys.argv[2:]:
    x, y = map(int, arg.split(','))
    print('#%02x%02x%02x' % tuple(rows[y][x * bpp:x * bpp + 3]))
)";

TEST(RecsearchPicture, TheSvgParsesNamesItsRowsAndRendersTheBarsWhereTheyBelong)
{
    const Micros from = sinceEpoch({1704067200, 0}), to = from + minutes(60);
    const std::string odd = "VIDEO<&>\"'\x01\xff";  // markup, a control byte, not UTF-8
    using K = SearchResult::Kind;
    // Forward with the state at the start for the recording only: the track is unknown until
    // its first change.
    const std::vector<SearchResult> results{
        change(K::RecordingState, "", from, true, true),
        change(K::TrackState, odd, from + minutes(20), true),
        change(K::RecordingState, "", from + minutes(30), false),
        change(K::TrackState, odd, from + minutes(40), false),
    };
    const Picture picture = eventPicture(results, timePointAt(from), timePointAt(to),
                                         timePointAt(to));
    rstest::TempDir dir;
    const std::string svg = dir.file("picture.svg"), png = dir.file("picture.png");
    {
        std::ofstream out(svg);
        writeSvg(out, picture, "states of <all> & \"everything\"");
    }

    xmlDocPtr doc = xmlReadFile(svg.c_str(), nullptr, XML_PARSE_NONET);
    ASSERT_NE(doc, nullptr) << "not well-formed XML";
    xmlXPathContextPtr context = xmlXPathNewContext(doc);
    xmlXPathRegisterNs(context, BAD_CAST "s", BAD_CAST "http://www.w3.org/2000/svg");
    xmlXPathObjectPtr titles = xmlXPathEvalExpression(BAD_CAST "//s:g/s:title", context);
    std::vector<std::string> names;
    for (int i = 0; titles->nodesetval && i < titles->nodesetval->nodeNr; ++i) {
        xmlChar* text = xmlNodeGetContent(titles->nodesetval->nodeTab[i]);
        names.emplace_back(reinterpret_cast<const char*>(text));
        xmlFree(text);
    }
    xmlXPathFreeObject(titles);
    xmlXPathFreeContext(context);
    xmlFreeDoc(doc);
    EXPECT_EQ(names, (std::vector<std::string>{"recording", "VIDEO<&>\"'\uFFFD\uFFFD"}));

    const auto rendered = rstest::runToEnd("rsvg-convert", {"-o", png, svg});
    ASSERT_TRUE(rendered.status.exited && rendered.status.code == 0)
        << "rsvg-convert (Debian package librsvg2-bin, installed by scripts/setup.sh): "
        << rendered.err;
    auto at = [&](std::size_t row, Micros t) {
        return std::to_string(int(SvgLayout::x(picture, t))) + "," +
               std::to_string(int(SvgLayout::rowTop(row) + SvgLayout::kRowHeight / 2));
    };
    const auto pixels = rstest::runToEnd(
        "python3", {"-c", kPixels, png, at(0, from + minutes(15)), at(0, from + minutes(45)),
                    at(1, from + minutes(30)), at(1, from + minutes(50)),
                    at(1, from + minutes(10))});
    ASSERT_EQ(pixels.status.code, 0) << pixels.err;
    std::istringstream colours(pixels.out);
    std::string recordingOn, recordingOff, trackOn, trackOff, trackUnknown;
    colours >> recordingOn >> recordingOff >> trackOn >> trackOff >> trackUnknown;
    EXPECT_EQ(recordingOn, "#2e7d32");
    EXPECT_EQ(recordingOff, "#dcdcdc");
    EXPECT_EQ(trackOn, "#2e7d32");
    EXPECT_EQ(trackOff, "#dcdcdc");
    EXPECT_EQ(trackUnknown, "#f1e2b8");

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
