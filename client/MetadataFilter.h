// Metadata filters in a person's words (class, colour, likelihood, region, motion), turned into
// the one XPath expression that the service evaluates on each analytics document.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace rsclient {

// Numbers are kept as the person typed them (checked plain decimals), so that the expression
// compares exactly the value that was asked for.
struct Region {
    std::string left, top, right, bottom;
};

struct MetadataFilter {
    std::vector<std::string> classes;  // any of them
    std::string colour;                // empty: any
    std::string minLikelihood;         // empty: any
    std::optional<Region> region;      // the object's box overlaps it
    bool motion = false;

    bool empty() const
    {
        return classes.empty() && colour.empty() && minLikelihood.empty() && !region && !motion;
    }
};

// Each returns what is wrong with the value, or an empty string when it is fine.
std::string checkName(const std::string& name);
std::string checkLikelihood(const std::string& text);
std::string checkRegion(const std::string& text);

// Only for text that checkRegion accepted.
Region parseRegion(const std::string& text);

// The filter's conditions and, unless it is empty, the person's own expression: all must hold.
// Names compare without regard to ASCII case ("red" finds "Red").
std::string filterXPath(const MetadataFilter& filter, const std::string& xpath);

}  // namespace rsclient
