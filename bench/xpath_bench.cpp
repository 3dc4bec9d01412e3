// Parse + XPath evaluation per metadata document: the search's own matcher (reused parser and
// context, DTD refusal, size bound, operation limit) against libxml2 used plainly on the same
// documents (xmlParseDoc, a new context, the compiled expression, every object freed).
//
//   xpath_bench [--benchmark_repetitions=5 --benchmark_report_aggregates_only=true]

#include <libxml/parser.h>
#include <libxml/xpath.h>

#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "jobs/XPathMatcher.h"
#include "jobs/XmlLibrary.h"
#include "store/AnalyticsFrame.h"

namespace {

// Frames of the kind the stand-in store generates, 0 to 4 objects each (about 1.1 KB mean).
const std::vector<std::string>& documents()
{
    static const std::vector<std::string> docs = [] {
        std::mt19937 random(7);
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        const char* types[] = {"Person", "Vehicle", "Bicycle", "Animal"};
        const char* colours[] = {"red", "blue", "silver", "black", "white", "green"};
        std::vector<std::string> out;
        for (int i = 0; i < 256; ++i) {
            store::AnalyticsFrame frame;
            frame.time = store::StoreTime{1704067200u + static_cast<uint32_t>(i / 5),
                                          static_cast<uint32_t>((i % 5) * 200000)};
            frame.source = "VIDEO001";
            frame.sequence = static_cast<uint64_t>(i);
            frame.pan = unit(random) - 0.5;
            frame.tilt = unit(random) - 0.5;
            frame.zoom = unit(random);
            frame.motion = unit(random) < 0.4;
            const int objects = static_cast<int>(unit(random) * 5);
            for (int o = 0; o < objects; ++o) {
                store::DetectedObject object;
                object.id = static_cast<uint32_t>(o + 1);
                object.type = types[static_cast<int>(unit(random) * 4)];
                object.typeLikelihood = 0.3 + 0.69 * unit(random);
                if (object.type == std::string("Vehicle")) object.vehicleType = "Car";
                object.colour = colours[static_cast<int>(unit(random) * 6)];
                object.colourLikelihood = unit(random);
                object.left = unit(random) * 0.5;
                object.top = unit(random) * 0.5;
                object.right = object.left + 0.2;
                object.bottom = object.top + 0.3;
                object.speed = unit(random) * 0.1;
                object.yaw = unit(random) * 360;
                frame.objects.push_back(object);
            }
            out.push_back(store::renderFrame(frame));
        }
        return out;
    }();
    return docs;
}

const char* const kExpressions[] = {
    "//Object[Appearance/Class/Type='Vehicle' and Appearance/Color/ColorCluster/@Name='red']",
    "//Object/Appearance/Class/Type[.='Person' and @Likelihood > 0.8]",
    "/",
};

void setLabel(benchmark::State& state)
{
    size_t bytes = 0;
    for (const auto& d : documents()) bytes += d.size();
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(documents().size()));
    state.SetLabel("expression " + std::to_string(state.range(0)) + ", mean document " +
                   std::to_string(bytes / documents().size()) + " B");
}

void BM_SearchMatcher(benchmark::State& state)
{
    initialiseXmlLibrary();
    XPathMatcher matcher(kExpressions[state.range(0)]);
    int matches = 0;
    for (auto _ : state) {
        for (const auto& document : documents()) matches += matcher.matches(document);
    }
    benchmark::DoNotOptimize(matches);
    setLabel(state);
}

void BM_Libxml2Alone(benchmark::State& state)
{
    initialiseXmlLibrary();
    xmlXPathCompExprPtr compiled =
        xmlXPathCompile(reinterpret_cast<const xmlChar*>(kExpressions[state.range(0)]));
    int matches = 0;
    for (auto _ : state) {
        for (const auto& document : documents()) {
            xmlDocPtr doc = xmlParseDoc(reinterpret_cast<const xmlChar*>(document.c_str()));
            xmlXPathContextPtr context = xmlXPathNewContext(doc);
            matches += xmlXPathCompiledEvalToBoolean(compiled, context) == 1;
            xmlXPathFreeContext(context);
            xmlFreeDoc(doc);
        }
    }
    xmlXPathFreeCompExpr(compiled);
    benchmark::DoNotOptimize(matches);
    setLabel(state);
}

BENCHMARK(BM_SearchMatcher)->DenseRange(0, 2);
BENCHMARK(BM_Libxml2Alone)->DenseRange(0, 2);

}  // namespace

BENCHMARK_MAIN();
