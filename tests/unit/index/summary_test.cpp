// A minute's summary may only rule out what none of its documents matches: a filter search passes
// over a minute whose summary it does not match without reading it.
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "index/IndexFilter.h"

namespace {

using rsindex::DocumentFacts;

struct Draw {
    std::mt19937 random;
    int upTo(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random); }
    template <typename T>
    const T& oneOf(const std::vector<T>& from)
    {
        return from[std::size_t(upTo(int(from.size())))];
    }
    std::string number() { return std::to_string(upTo(1001) / 1000.0).substr(0, 5); }
    // Mostly numbers; now and then none, or a text that is not one.
    std::optional<std::string> maybeNumber()
    {
        const int kind = upTo(10);
        if (kind == 0) return std::nullopt;
        if (kind == 1) return std::string("high");
        return number();
    }
};

// Objects of a few common kinds and, with `manyKinds`, of dozens of rare names: past the
// kinds a summary keeps apart.
DocumentFacts randomFacts(Draw& draw, bool manyKinds)
{
    static const std::vector<std::string> common = {"person", "vehicle", "bicycle", "animal"};
    static const std::vector<std::string> colours = {"red", "blue", "white", "green"};
    DocumentFacts facts;
    facts.motion = draw.upTo(8) == 0;
    for (int o = draw.upTo(4); o > 0; --o) {
        rsindex::ObjectFacts object;
        for (int t = draw.upTo(3); t > 0; --t) {
            const std::string name = manyKinds && draw.upTo(2) == 0
                                         ? "kind" + std::to_string(draw.upTo(60))
                                         : draw.oneOf(common);
            object.types.push_back({name, draw.maybeNumber()});
        }
        for (int c = draw.upTo(3); c > 0; --c) {
            object.colours.push_back({draw.oneOf(colours), draw.maybeNumber()});
        }
        for (int b = draw.upTo(3); b > 0; --b) {
            object.boxes.push_back(
                {draw.maybeNumber(), draw.maybeNumber(), draw.maybeNumber(), draw.maybeNumber()});
        }
        facts.objects.push_back(object);
    }
    return facts;
}

rsclient::MetadataFilter randomFilter(Draw& draw)
{
    rsclient::MetadataFilter filter;
    while (filter.empty()) {
        for (int c = draw.upTo(3); c > 0; --c) {
            filter.classes.push_back(draw.upTo(3) == 0 ? "kind" + std::to_string(draw.upTo(60))
                                                       : draw.oneOf(std::vector<std::string>{
                                                             "person", "VEHICLE", "bicycle"}));
        }
        if (draw.upTo(2) == 0) filter.colour = draw.upTo(2) == 0 ? "red" : "Blue";
        if (draw.upTo(3) == 0) filter.minLikelihood = draw.number();
        if (draw.upTo(3) == 0) {
            const int left = draw.upTo(9), top = draw.upTo(9);
            filter.region =
                rsclient::Region{"0." + std::to_string(left), "0." + std::to_string(top),
                                 "0." + std::to_string(left + 1 + draw.upTo(9 - left)),
                                 "0." + std::to_string(top + 1 + draw.upTo(9 - top))};
            if (filter.region->right == "0.10") filter.region->right = "1";
            if (filter.region->bottom == "0.10") filter.region->bottom = "1";
        }
        filter.motion = draw.upTo(5) == 0;
    }
    return filter;
}

TEST(MinuteSummary, RulesOutOnlyWhatNoneOfItsDocumentsMatches)
{
    for (const bool manyKinds : {false, true}) {
        for (unsigned seed = 1; seed <= 40; ++seed) {
            Draw draw{std::mt19937(seed)};
            std::vector<DocumentFacts> minute;
            DocumentFacts summary;
            for (int d = 0; d < 60; ++d) {
                minute.push_back(randomFacts(draw, manyKinds));
                rsindex::widenSummary(summary, minute.back());
            }
            for (int f = 0; f < 200; ++f) {
                const rsindex::IndexFilter filter(randomFilter(draw));
                bool any = false;
                for (const auto& facts : minute) any = any || filter.matches(facts);
                if (any) {
                    EXPECT_TRUE(filter.matches(summary))
                        << "seed " << seed << ", filter " << f << (manyKinds ? ", many kinds" : "");
                }
            }
        }
    }
}

TEST(MinuteSummary, KeepsKindsOfObjectApart)
{
    // A red vehicle and a blue bicycle: no red bicycle in this minute.
    DocumentFacts facts;
    facts.objects.push_back(
        {{{"vehicle", "0.9"}}, {{"red", "0.8"}}, {{"0.1", "0.1", "0.2", "0.2"}}});
    facts.objects.push_back(
        {{{"bicycle", "0.9"}}, {{"blue", "0.8"}}, {{"0.6", "0.6", "0.7", "0.7"}}});
    DocumentFacts summary;
    rsindex::widenSummary(summary, facts);
    rsclient::MetadataFilter redBicycle;
    redBicycle.classes = {"bicycle"};
    redBicycle.colour = "red";
    EXPECT_FALSE(rsindex::IndexFilter(redBicycle).matches(summary));
    redBicycle.colour = "blue";
    EXPECT_TRUE(rsindex::IndexFilter(redBicycle).matches(summary));
}

}  // namespace
